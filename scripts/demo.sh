#!/usr/bin/env bash
# A scripted show of the directory locks, printed as a timeline.
#   scripts/demo.sh BUILD_DIR [--crash]
# Several orvane-lock processes queue for the exclusive lock, readers share
# while a writer waits, a writer downgrades to a reader, and `status` shows
# the lock files as it happens. --crash adds a holder killed with SIGKILL and
# its take-over once its lock file is 30 seconds stale.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case $build in /*) ;; *) build=$root/$build ;; esac
crash=no
[ "${2:-}" = --crash ] && crash=yes

tool=$build/tools/orvane-lock
downgrade=$build/tools/orvane-downgrade-demo
for exe in "$tool" "$downgrade"; do
  [ -x "$exe" ] || { echo "demo: $exe not built (run: make build)" >&2; exit 1; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/orvane-demo.XXXXXX")
dir=$work/shared
mkdir "$dir"
cleanup() {
  # Only our own background jobs.
  local pids; pids=$(jobs -p); [ -n "$pids" ] && kill $pids 2>/dev/null; wait 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# `say` prints one timeline line; it is a script so that commands run under
# the lock (in their own shells) can use it too.
export DEMO_T0=$(date +%s%N)
export SAY=$work/say
cat > "$SAY" <<'SAY_EOF'
#!/bin/sh
now=$(date +%s%N)
ms=$(( (now - DEMO_T0) / 1000000 ))
printf '[%3d.%03ds] %s\n' $((ms / 1000)) $((ms % 1000)) "$*"
SAY_EOF
chmod +x "$SAY"
say() { "$SAY" "$@"; }
title() { printf '\n=== %s\n' "$*"; }
status() {
  say "status:"
  "$tool" status "$dir" | sed 's/^/             | /'
}
# A process that holds the lock of kind $1 for $3 seconds under the name $2.
hold() {
  local kind=$1 who=$2 secs=$3
  "$tool" "$kind" "$dir" sh -c '"$SAY" "$0: GOT the lock"; sleep "$1"; "$SAY" "$0: releasing"' "$who" "$secs"
}

echo "Lock directory: $dir"

title "1. Queue lock (-q): first come, first served"
for who in A B C; do
  say "$who: asks for the queue lock"
  hold -q "$who" 1.2 &
  sleep 0.2
done
sleep 0.3
status
wait
status

title "2. Readers share (-s), a writer (-x) waits for both"
hold -s reader-1 2 &
sleep 0.2
hold -s reader-2 2 &
sleep 0.3
say "writer: asks for the write lock"
hold -x writer 0.5 &
sleep 0.4
status
say "(a waiting writer takes the queue lock, .deploy_lock.0, for each short check)"
wait

title "3. Downgrade: a writer becomes a reader without letting go"
"$downgrade" "$dir" 1.5 2 | while IFS= read -r line; do say "$line"; done &
sleep 0.3
status
say "reader-3: asks for a read lock (waits for the writer)"
hold -s reader-3 2.5 &
sleep 0.2
say "writer-2: asks for the write lock (waits for every reader)"
hold -x writer-2 0.3 &
sleep 1.6
status
wait

title "4. Not waiting: -n and -w give up with exit status 1 (or -E N)"
"$tool" "$dir" sleep 2 &
sleep 0.3
rc=0; "$tool" -n "$dir" true || rc=$?
say "orvane-lock -n: exit status $rc"
rc=0; "$tool" -w 0.5 -E 3 "$dir" true || rc=$?
say "orvane-lock -w 0.5 -E 3: exit status $rc"
wait
status

if [ $crash = yes ]; then
  title "5. A holder is killed with SIGKILL; the next in line takes over"
  "$tool" -q "$dir" sleep 600 &
  holder=$!
  sleep 0.5
  status
  # The tool and the command it runs, nothing else.
  child=$(ps -o pid= --ppid "$holder" | tr -d ' ' || true)
  kill -KILL "$holder" ${child:+$child}
  wait "$holder" 2>/dev/null || true
  say "holder (pid $holder) killed with SIGKILL; its lock file stays behind"
  say "waiter: asks for the queue lock (it is stale after 30 s without refresh)"
  ORVANE_FSLOCK_STALE_LOG=1 "$tool" -q "$dir" "$SAY" "waiter: GOT the lock, taken over from the dead holder" &
  waiter=$!
  drawing=yes
  while kill -0 "$waiter" 2>/dev/null; do
    if [ $drawing = yes ]; then
      age=$("$tool" status --json "$dir" 2>/dev/null |
            sed -n 's/.*"file": ".deploy_lock.0"[^}]*"age_seconds": \([0-9-]*\).*/\1/p' || true)
      if [ -n "$age" ] && [ "$age" -ge 0 ] 2>/dev/null; then
        n=$(( age > 30 ? 30 : age ))
        bar=$(printf '%*s' "$n" '' | tr ' ' '#')$(printf '%*s' $((30 - n)) '' | tr ' ' '.')
        printf '\r           dead holder'"'"'s lock file: %3ss old [%s] stale at 30 s ' "$age" "$bar"
        if [ "$age" -gt 30 ]; then
          echo
          say "stale: the waiter watches the file's content for ~3 s to be sure nobody refreshes it"
          drawing=no
        fi
      fi
    fi
    sleep 1
  done
  [ $drawing = yes ] && echo
  wait "$waiter"
  status
fi

title "Done: nothing is left behind"
ls -A "$dir" | sed 's/^/             | /'
[ -z "$(ls -A "$dir")" ] && say "the lock directory is empty"
