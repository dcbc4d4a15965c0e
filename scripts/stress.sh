#!/usr/bin/env bash
# Stress runs of the directory locks with real processes (make stress):
#   1. contention on the local file system: exclusive lock, read/write lock;
#   2. the same on a real network file system (scripts/netfs-up), half the
#      workers on each of two sshfs clients; and on a GlusterFS replica-3
#      volume (scripts/glusterfs-up) with workers on two clients, one brick
#      SIGKILLed a third into each run and restarted at two thirds;
#   3. clock skew: workers whose wall clock runs 10 minutes ahead or behind
#      (libfaketime) contend with normal ones;
#   then, in parallel because they mostly wait out the 30 s staleness:
#   4. a SIGKILLed holder is taken over by a skewed waiter 30-45 s after its
#      last refresh, and a live holder never is;
#   5. crash recovery: holders and queued waiters SIGKILLed at random moments;
#      every survivor still gets the lock and no lock file is left;
#   6. through an attribute-caching client: a live holder (exclusive lock,
#      write lock) is not taken over in 90 s; a killed one is within 45 s;
#   7. a hostile group directory: junk of every kind at the lock names, two
#      unprivileged users and root, holders stopped past the stale age
#      (scripts/stress-hostile.sh).
# Prints hand-overs, overlaps and the longest wait per run; fails on any
# overlap, leaked file, leaked descriptor or thread, or missed deadline.
# Usage: scripts/stress.sh [BUILD]   (STRESS_SECONDS: length of each
# contention run, default 30; STRESS_NETFS=0 skips the sshfs runs,
# STRESS_GLUSTER=0 the GlusterFS runs; STRESS_ONLY=hostile or gluster runs
# only those.)
set -uo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
secs=${STRESS_SECONDS:-30}
W=$build/tests/stress/stress_worker
cmake --build "$build" --target stress_worker -j "${JOBS:-2}" >/dev/null || {
  echo "stress.sh: could not build stress_worker in $build" >&2; exit 1; }
W=$(cd "$(dirname "$W")" && pwd)/stress_worker

work=$(mktemp -d "${TMPDIR:-/tmp}/orvane-stress.XXXXXX") || exit 1
netfs_env=""
gluster_env=""
pids=()
declare -A res_of=()  # worker pid -> its result file
summary=()
failures=0

cleanup() {
  local p
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null; done
  wait 2>/dev/null
  if [ -n "$netfs_env" ]; then scripts/netfs-down "$netfs_env" >/dev/null 2>&1; fi
  if [ -n "$gluster_env" ]; then scripts/glusterfs-down "$gluster_env" >/dev/null 2>&1; fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

pass() { summary+=("PASS    $*"); echo "  PASS: $*"; }
fail() { summary+=("FAIL    $*"); echo "  FAIL: $*"; failures=$((failures + 1)); }
skipped() { summary+=("SKIPPED $*"); echo "  SKIPPED: $*"; }

now() { date +%s.%N; }
only=${STRESS_ONLY:-}
# shellcheck source=scripts/stress-hostile.sh
. scripts/stress-hostile.sh
later_than() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a > b) }'; }

# ---- Clock skew through libfaketime, preloaded directly so that the pid we
# ---- hold is the worker's own (the faketime wrapper forks).
faketime_lib=""
for f in /usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1 \
         /usr/lib/*/faketime/libfaketimeMT.so.1; do
  [ -f "$f" ] && { faketime_lib=$f; break; }
done
if [ -z "$faketime_lib" ] && [ "$(id -u)" = 0 ]; then
  { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq faketime; } >/dev/null 2>&1
  for f in /usr/lib/*/faketime/libfaketimeMT.so.1; do [ -f "$f" ] && faketime_lib=$f; done
fi

# start_worker NAME SKEW ARGS...: starts one worker (SKEW "" or e.g. +10m),
# logs to $work/NAME.log, result in $work/NAME.res, events $work/NAME.ev.
# Sets $last_pid.
start_worker() {
  local name=$1 skew=$2
  shift 2
  if [ -n "$skew" ]; then
    LD_PRELOAD=$faketime_lib FAKETIME="$skew" FAKETIME_DONT_FAKE_MONOTONIC=1 \
      "$W" "$@" --result "$work/$name.res" --events "$work/$name.ev" >"$work/$name.log" 2>&1 &
  else
    "$W" "$@" --result "$work/$name.res" --events "$work/$name.ev" >"$work/$name.log" 2>&1 &
  fi
  last_pid=$!
  pids+=("$last_pid")
  res_of[$last_pid]="$work/$name.res"
}

# wait_bounded SECONDS PID...: waits for each pid until the common deadline;
# kills what is still running then. Sets $exit_codes (one per pid) and
# returns 1 if anything had to be killed.
wait_bounded() {
  local limit=$1 p code late=0 end
  shift
  end=$(( $(date +%s) + limit ))
  exit_codes=()
  for p in "$@"; do
    while kill -0 "$p" 2>/dev/null && [ "$(date +%s)" -lt "$end" ]; do sleep 0.5; done
    if kill -0 "$p" 2>/dev/null; then kill -9 "$p" 2>/dev/null; late=1; fi
    wait "$p" 2>/dev/null; code=$?
    # 127: bash forgot the status, because a later child got the same pid
    # (pids wrap within a run); a worker's result file says how it ended.
    if [ "$code" = 127 ] && [ -n "${res_of[$p]:-}" ]; then
      code=$(grep -o 'exit=[0-9]*' "${res_of[$p]}" 2>/dev/null | cut -d= -f2)
      code=${code:-127}
    fi
    exit_codes+=("$code")
  done
  return $late
}

# Names left in a directory (lock files, probe files), hidden ones included,
# each with the seconds since it was last modified.
leftovers() {
  local f now
  now=$(date +%s)
  for f in "$1"/* "$1"/.[!.]*; do
    [ -e "$f" ] || continue
    # The FUSE client's own: libfuse hides a file it still counts as open
    # when it is removed (it learns of a close only asynchronously) and
    # sshfs 3.7 offers no hard_remove. Not a lock file; gone at unmount.
    case $(basename "$f") in .fuse_hidden*) continue ;; esac
    printf '%s (%ss old) ' "$(basename "$f")" $((now - $(stat -c %Y "$f")))
  done
}

# analyse NAMES...: merges the workers' events and results. Prints
# "handovers mean_ms max_ms event_overlaps longest_wait_ms acquisitions".
analyse() {
  local n
  for n in "$@"; do cat "$work/$n.ev" 2>/dev/null; done | sort -k4,4n | awk '
    { mode = $1; ws = $3; acq = $4; rel = $5; total++
      if (acq - ws > longest) longest = acq - ws
      conflict = (mode == "reader") ? (acq < maxRelW) : (acq < maxRelAll)
      if (conflict) overlaps++
      if (mode != "reader") {
        # A hand-over: this holder was already waiting when the last
        # exclusive holder let go.
        if (lastRel > 0 && ws < lastRel && acq >= lastRel) {
          h = acq - lastRel; handovers++; sum += h; if (h > hmax) hmax = h
        }
        lastRel = rel
        if (rel > maxRelW) maxRelW = rel
      }
      if (rel > maxRelAll) maxRelAll = rel }
    END { printf "%d %.2f %.2f %d %.0f %d\n", handovers, handovers ? sum / handovers / 1e6 : 0,
                 hmax / 1e6, overlaps, longest / 1e6, total }'
}

# sum_field FIELD NAMES...: adds FIELD=value over the named results.
sum_field() {
  local f=$1 n total=0 v
  shift
  for n in "$@"; do
    v=$(grep -o "$f=[0-9-]*" "$work/$n.res" 2>/dev/null | cut -d= -f2)
    total=$((total + ${v:-0}))
  done
  echo $total
}

# contend LABEL SECONDS GROUP...: each GROUP is
# MODE:COUNT:LOCKDIR[:SKEW[:fresh[:TIMEOUT_MS]]] (time-out per acquisition,
# default 120000; 0 makes the try forms; such a worker's timed-out
# acquisitions are expected, so its exit status 4 counts as success).
# All workers share one check directory. Checks exits, overlaps (markers and
# event intervals), leaks and leftovers of every distinct lock directory
# (CLEANDIRS, set by the caller, overrides which directories must be empty).
contend() {
  local label=$1 run_secs=$2 group mode count dir skew fresh tmo i names=() wpids=() dirs=() s=0
  local impatient=()
  shift 2
  local check="$work/check-$label"
  mkdir -p "$check"
  for group in "$@"; do
    s=$((s + 1))
    IFS=: read -r mode count dir skew fresh tmo <<<"$group"
    mkdir -p "$dir"
    dirs+=("$dir")
    for i in $(seq 1 "$count"); do
      local name="$label-$s-$mode-$i"
      local extra=()
      [ "$fresh" = fresh ] && extra+=(--fresh)
      # Readers hold a little longer so that several overlap.
      local hold=2; [ "$mode" = reader ] && hold=5
      start_worker "$name" "$skew" --mode "$mode" --dir "$dir" --check-dir "$check" \
        --duration "$run_secs" --iterations 1000000 --hold-ms $hold --timeout-ms "${tmo:-120000}" \
        "${extra[@]}"
      names+=("$name")
      wpids+=("$last_pid")
      impatient+=("${tmo:+1}")
    done
  done
  local killed=0
  wait_bounded $((run_secs + 150)) "${wpids[@]}" || killed=1
  local bad_exit=0 k
  for k in "${!exit_codes[@]}"; do
    if [ "${exit_codes[$k]}" != 0 ] && ! { [ "${exit_codes[$k]}" = 4 ] && [ -n "${impatient[$k]}" ]; }; then
      bad_exit=$((bad_exit + 1))
      echo "  ${names[$k]} exited ${exit_codes[$k]}: $(tail -n 2 "$work/${names[$k]}.log" | tr '\n' ' ')"
    fi
  done
  read -r handovers hmean hmax evover longest total <<<"$(analyse "${names[@]}")"
  local overlaps fdleak thleak maxr failed
  overlaps=$(sum_field overlaps "${names[@]}")
  fdleak=$(sum_field fd_leak "${names[@]}")
  thleak=$(sum_field thread_leak "${names[@]}")
  failed=$(sum_field failed "${names[@]}")
  maxr=0
  for k in "${names[@]}"; do
    v=$(grep -o "max_readers=[0-9]*" "$work/$k.res" 2>/dev/null | cut -d= -f2)
    [ "${v:-0}" -gt "$maxr" ] && maxr=$v
  done
  local left="" d
  for d in ${CLEANDIRS:-${dirs[@]}}; do
    local l; l=$(leftovers "$d"); [ -n "$l" ] && left+="$d: $l "
  done
  [ -n "$(leftovers "$check")" ] && left+="$check: $(leftovers "$check")"
  echo "  $label: ${#names[@]} workers, $total acquisitions, $handovers hand-overs" \
       "(mean ${hmean} ms, max ${hmax} ms after release), overlaps $overlaps markers /" \
       "$evover intervals, longest wait ${longest} ms, max readers together $maxr," \
       "timeouts $failed, fd leak $fdleak, thread leak $thleak"
  local why=""
  [ "$killed" = 1 ] && why+="workers overran their time; "
  [ "$bad_exit" -gt 0 ] && why+="$bad_exit workers failed; "
  [ "$overlaps" != 0 ] || [ "$evover" != 0 ] && why+="overlaps; "
  [ "$fdleak" -gt 0 ] || [ "$thleak" -gt 0 ] && why+="leaked descriptors/threads; "
  [ -n "$left" ] && why+="files left: $left; "
  [ "$total" -gt 0 ] || why+="no acquisitions; "
  if [ -z "$why" ]; then
    pass "$label: $total acquisitions, $handovers hand-overs, 0 overlaps, longest wait ${longest} ms"
  else
    fail "$label: $why"
  fi
}

if [ -z "$only" ]; then
# ---- 0. Control: without a lock the checks must see overlaps ------------------
echo "== control run without a lock"
control() {
  local names=() wpids=() i
  mkdir -p "$work/check-control" "$work/control"
  for i in 1 2 3 4; do
    start_worker "control-$i" "" --mode none --dir "$work/control" --check-dir "$work/check-control" \
      --duration 2 --iterations 100000 --hold-ms 2
    names+=("control-$i"); wpids+=("$last_pid")
  done
  wait_bounded 60 "${wpids[@]}"
  local markers events
  markers=$(sum_field overlaps "${names[@]}")
  read -r _ _ _ events _ _ <<<"$(analyse "${names[@]}")"
  if [ "$markers" -gt 0 ] && [ "$events" -gt 0 ]; then
    pass "control: without a lock the checks see $markers marker and $events interval overlaps"
  else
    fail "control: without a lock the checks saw no overlap ($markers markers, $events intervals)"
  fi
  rm -rf "$work/check-control"
}
control

# ---- 1. Local file system ----------------------------------------------------
echo "== local file system"
contend local-exclusive "$secs" "exclusive:4:$work/local-x" "exclusive:4:$work/local-x::fresh"
contend local-rw "$secs" "writer:2:$work/local-rw" "writer:1:$work/local-rw::fresh" \
  "reader:4:$work/local-rw" "reader:2:$work/local-rw::fresh"
# Try forms and time-outs shorter than another contender's check-and-create
# step: such a step goes on without the directory's exclusive lock, and must
# still never let a writer in beside anyone.
half=$(( (secs + 1) / 2 ))
contend local-rw-impatient "$half" "writer:2:$work/local-rwi" "writer:1:$work/local-rwi:::0" \
  "writer:1:$work/local-rwi:::3" "reader:2:$work/local-rwi" "reader:2:$work/local-rwi:::0" \
  "reader:2:$work/local-rwi:::3"

# ---- 2. Network file system ---------------------------------------------------
have_netfs=0
if [ "${STRESS_NETFS:-1}" = 0 ]; then
  skipped "network file system runs (STRESS_NETFS=0)"
else
  echo "== network file system"
  out=$(scripts/netfs-up "$work/netfs" 2>"$work/netfs-up.log"); rc=$?
  if [ $rc = 0 ]; then
    netfs_env=$work/netfs
    # shellcheck disable=SC1090
    . "$work/netfs/env"
    have_netfs=1
  elif [ $rc = 77 ]; then
    skipped "network file system: ${out#SKIPPED: }"
  else
    fail "network file system could not be brought up: $(tail -n 3 "$work/netfs-up.log" | tr '\n' ' ')"
  fi
fi
if [ $have_netfs = 1 ]; then
  mkdir -p "$NETFS_EXPORT/x" "$NETFS_EXPORT/rw"
  CLEANDIRS="$NETFS_EXPORT/x" contend net-exclusive "$secs" \
    "exclusive:4:$NETFS_A/x" "exclusive:2:$NETFS_B/x" "exclusive:2:$NETFS_B/x::fresh"
  CLEANDIRS="$NETFS_EXPORT/rw" contend net-rw "$secs" \
    "writer:1:$NETFS_A/rw" "writer:1:$NETFS_B/rw" "reader:3:$NETFS_A/rw" "reader:3:$NETFS_B/rw"
  mkdir -p "$NETFS_EXPORT/rwi"
  CLEANDIRS="$NETFS_EXPORT/rwi" contend net-rw-impatient "$(( (secs + 1) / 2 ))" \
    "writer:1:$NETFS_A/rwi" "writer:1:$NETFS_B/rwi:::0" "reader:2:$NETFS_A/rwi:::0" \
    "reader:2:$NETFS_B/rwi:::5" "reader:1:$NETFS_B/rwi"
fi

# ---- 3. Clock skew -------------------------------------------------------------
have_skew=0
if [ -z "$faketime_lib" ]; then
  skipped "clock skew: libfaketime is not installed"
else
  echo "== clock skew"
  real=$("$W" --clock)
  ahead=$(LD_PRELOAD=$faketime_lib FAKETIME=+10m FAKETIME_DONT_FAKE_MONOTONIC=1 "$W" --clock)
  behind=$(LD_PRELOAD=$faketime_lib FAKETIME=-10m FAKETIME_DONT_FAKE_MONOTONIC=1 "$W" --clock)
  if awk -v r="$real" -v a="$ahead" -v b="$behind" \
       'BEGIN { exit !(a - r > 595 && a - r < 610 && r - b > 590 && r - b < 605) }'; then
    have_skew=1
    echo "  the lock library's clock: +$(awk -v r="$real" -v a="$ahead" 'BEGIN{printf "%.0f", a-r}') s" \
         "and -$(awk -v r="$real" -v b="$behind" 'BEGIN{printf "%.0f", r-b}') s under libfaketime"
    contend skew-exclusive "$half" "exclusive:3:$work/skew-x" "exclusive:3:$work/skew-x:+10m" \
      "exclusive:3:$work/skew-x:-10m"
    contend skew-rw "$half" "writer:1:$work/skew-rw" "writer:1:$work/skew-rw:+10m" \
      "writer:1:$work/skew-rw:-10m" "reader:2:$work/skew-rw" "reader:2:$work/skew-rw:+10m" \
      "reader:2:$work/skew-rw:-10m"
  else
    fail "clock skew: libfaketime does not move boost's microsec_clock (real $real, +10m $ahead, -10m $behind)"
  fi
fi
fi  # runs 0-3

# ---- 2b. GlusterFS: a replicated volume whose storage nodes fail ---------------
have_gluster=0
if [ -n "$only" ] && [ "$only" != gluster ]; then :
elif [ "${STRESS_GLUSTER:-1}" = 0 ]; then
  skipped "GlusterFS runs (STRESS_GLUSTER=0)"
else
  echo "== GlusterFS replica 3, a brick killed and restarted during each run"
  out=$(scripts/glusterfs-up "$work/gluster" 2>"$work/gluster-up.log"); rc=$?
  if [ $rc = 0 ]; then
    gluster_env=$work/gluster
    # shellcheck disable=SC1091
    . "$work/gluster/env"
    have_gluster=1
  elif [ $rc = 77 ]; then
    skipped "GlusterFS: ${out#SKIPPED: }"
  else
    fail "GlusterFS could not be brought up: $(tail -n 3 "$work/gluster-up.log" | tr '\n' ' ')"
  fi
fi
# brick_fault N: SIGKILLs brick N a third into a run and restarts it at two
# thirds, in the background; brick_fault_done reports how that went.
brick_fault() {
  local third=$(( (secs + 2) / 3 ))
  ( sleep "$third" && scripts/glusterfs-brick "$gluster_env" kill "$1" && sleep "$third" \
      && scripts/glusterfs-brick "$gluster_env" restore ) >"$work/brick-fault.log" 2>&1 &
  fault_pid=$!
  pids+=("$fault_pid")
}
brick_fault_done() {
  if wait "$fault_pid"; then
    echo "  $1: $(tr '\n' ' ' <"$work/brick-fault.log")"
  else
    fail "$1: the brick fault did not run its course: $(tail -n 2 "$work/brick-fault.log" | tr '\n' ' ')"
  fi
}
if [ $have_gluster = 1 ]; then
  # The third client, which no worker uses, sees what the others left.
  brick_fault 2
  CLEANDIRS="$GLUSTER_C/x" contend gluster-exclusive "$secs" \
    "exclusive:2:$GLUSTER_A/x" "exclusive:2:$GLUSTER_B/x" "exclusive:2:$GLUSTER_B/x::fresh"
  brick_fault_done gluster-exclusive
  brick_fault 3
  CLEANDIRS="$GLUSTER_C/rw" contend gluster-rw "$secs" \
    "writer:1:$GLUSTER_A/rw" "writer:1:$GLUSTER_B/rw" "reader:2:$GLUSTER_A/rw" "reader:2:$GLUSTER_B/rw"
  brick_fault_done gluster-rw
  scripts/glusterfs-down "$gluster_env" >/dev/null 2>&1 || fail "GlusterFS: the volume would not go down cleanly"
  gluster_env=""
fi

# ---- 4-6. Long scenarios, run side by side -------------------------------------

# takeover LABEL HOLDER_MODE HOLDER_DIR WAITER_MODE WAITER_DIR WAITER_SKEW SERVER_DIR
#          WATCH_SECS MIN MAX: a holder holds; a waiter waits WATCH_SECS
# without getting in (live holder); the holder is SIGKILLed; the waiter must
# get in MIN..MAX s after the holder's file was last refreshed (its mtime as
# the server sees it, read in SERVER_DIR right after the kill).
takeover() {
  local label=$1 hmode=$2 hdir=$3 wmode=$4 wdir=$5 wskew=$6 sdir=$7 watch=$8 min=$9 max=${10}
  local check="$work/check-$label" ready_h="$work/$label.hready" ready_w="$work/$label.wready"
  mkdir -p "$check" "$hdir" "$wdir"
  start_worker "$label-holder" "" --mode "$hmode" --dir "$hdir" --hold-ms 200000 \
    --timeout-ms 30000 --ready "$ready_h"
  local hpid=$last_pid i
  for i in $(seq 1 300); do [ -s "$ready_h" ] && break; sleep 0.1; done
  if [ ! -s "$ready_h" ]; then fail "$label: holder never got the lock"; return; fi
  start_worker "$label-waiter" "$wskew" --mode "$wmode" --dir "$wdir" --hold-ms 10 \
    --timeout-ms $(( (watch + max + 30) * 1000 )) --ready "$ready_w"
  local wpid=$last_pid
  sleep "$watch"
  if [ -s "$ready_w" ]; then
    fail "$label: a live holder was taken over within ${watch} s"; kill -9 "$hpid" "$wpid"; return
  fi
  kill -9 "$hpid"
  wait "$hpid" 2>/dev/null
  local lockfile
  case $hmode in
    exclusive) lockfile=$sdir/.deploy_lock.0 ;;
    writer) lockfile=$sdir/.deploy_write_lock ;;
    reader) lockfile=$(ls "$sdir"/.deploy_read_lock.* 2>/dev/null | head -n 1) ;;
  esac
  local refreshed
  refreshed=$(stat -c %.3Y "$lockfile" 2>/dev/null) || { fail "$label: no lock file after the kill"; kill -9 "$wpid"; return; }
  local end=$(( $(date +%s) + max + 20 )) got=""
  while [ "$(date +%s)" -lt "$end" ]; do
    [ -s "$ready_w" ] && { got=$(now); break; }
    sleep 0.2
  done
  wait_bounded 30 "$wpid"
  local code=${exit_codes[0]}
  if [ -z "$got" ]; then
    fail "$label: the killed holder was not taken over within $((max + 20)) s"; return
  fi
  local took
  took=$(awk -v a="$got" -v b="$refreshed" 'BEGIN { printf "%.1f", a - b }')
  local left; left=$(leftovers "$sdir")
  if later_than "$min" "$took" || later_than "$took" "$max"; then
    fail "$label: taken over $took s after the last refresh (expected $min-$max s)"
  elif [ "$code" != 0 ]; then
    fail "$label: the waiter exited $code: $(tail -n 2 "$work/$label-waiter.log" | tr '\n' ' ')"
  elif [ -n "$left" ]; then
    fail "$label: files left: $left"
  else
    pass "$label: live holder kept the lock ${watch} s; killed holder taken over $took s after its last refresh"
  fi
}

# keeps LABEL MODE HOLDER_DIR WAITER_DIR SERVER_DIR: a holder keeps the lock
# 100 s while a waiter with a 90 s time-out must never get it.
keeps() {
  local label=$1 mode=$2 hdir=$3 wdir=$4 sdir=$5 ready_h="$work/$1.hready" i
  mkdir -p "$hdir"
  start_worker "$label-holder" "" --mode "$mode" --dir "$hdir" --hold-ms 100000 \
    --timeout-ms 30000 --ready "$ready_h"
  local hpid=$last_pid
  for i in $(seq 1 300); do [ -s "$ready_h" ] && break; sleep 0.1; done
  if [ ! -s "$ready_h" ]; then fail "$label: holder never got the lock"; return; fi
  start_worker "$label-waiter" "" --mode "$mode" --dir "$wdir" --timeout-ms 90000
  local wpid=$last_pid
  wait_bounded 150 "$wpid" "$hpid"
  local wcode=${exit_codes[0]} hcode=${exit_codes[1]}
  local got; got=$(sum_field acquired "$label-waiter")
  local left; left=$(leftovers "$sdir")
  if [ "$got" != 0 ]; then
    fail "$label: the waiter on the caching client took a live holder's lock"
  elif [ "$wcode" != 4 ]; then
    fail "$label: the waiter should have timed out (exit 4), exited $wcode"
  elif [ "$hcode" != 0 ]; then
    fail "$label: the holder exited $hcode"
  elif [ -n "$left" ]; then
    fail "$label: files left: $left"
  else
    pass "$label: holder kept the lock 100 s; the caching client's waiter timed out after 90 s"
  fi
}

# crash_recovery: 10 contenders; 4 SIGKILLed at random moments in the first
# 12 s (two of them whoever holds at that moment). Survivors must go on
# getting the lock; nothing may be left in the directory.
crash_recovery() {
  local label=crash dir="$work/crash" check="$work/check-crash" names=() wpids=() i
  mkdir -p "$dir" "$check"
  for i in $(seq 1 10); do
    start_worker "crash-$i" "" --mode exclusive --dir "$dir" --check-dir "$check" --duration 75 --iterations 1000000 \
      --hold-ms 20 --timeout-ms 150000
    names+=("crash-$i"); wpids+=("$last_pid")
  done
  local victims=() k v
  for k in 1 2 3 4; do
    sleep "$(awk -v r=$RANDOM 'BEGIN { printf "%.2f", 1 + r % 200 / 100 }')"
    if [ $((k % 2)) = 1 ]; then
      v=$(cat "$check/holder" 2>/dev/null)   # whoever holds right now
    else
      v=${wpids[$((RANDOM % 10))]}           # most likely a queued waiter
    fi
    [ -n "$v" ] || v=${wpids[$((RANDOM % 10))]}
    kill -9 "$v" 2>/dev/null && victims+=("$v")
    # The killed holder's marker stays behind; it is not an overlap.
    [ "$(cat "$check/holder" 2>/dev/null)" = "$v" ] && rm -f "$check/holder"
  done
  wait_bounded 240 "${wpids[@]}"
  local survivors=0 bad=0 starved=0
  for k in "${!wpids[@]}"; do
    case " ${victims[*]} " in *" ${wpids[$k]} "*) continue ;; esac
    survivors=$((survivors + 1))
    [ "${exit_codes[$k]}" = 0 ] || { bad=$((bad + 1)); echo "  ${names[$k]} exited ${exit_codes[$k]}"; }
    [ "$(sum_field acquired "${names[$k]}")" -gt 0 ] || starved=$((starved + 1))
  done
  local over; over=$(sum_field overlaps "${names[@]}")
  local left; left=$(leftovers "$dir")
  if [ "$bad" != 0 ] || [ "$starved" != 0 ] || [ "$over" != 0 ] || [ -n "$left" ] \
       || [ "$survivors" -lt 6 ]; then
    fail "crash recovery: ${#victims[@]} killed, $survivors survivors, $bad failed, $over overlaps, files left: ${left:-none}"
  else
    pass "crash recovery: ${#victims[@]} killed (holders and waiters), all $survivors survivors kept getting the lock, no file left"
  fi
}

echo "== long scenarios (take-over, crash recovery, caching client, hostile directory), side by side"
long_pids=()
# long_run TAG CMD...: runs one scenario in the background; its summary lines
# go to $work/long-TAG for the parent to collect.
long_run() {
  local tag=$1
  shift
  # (stderr to a file: the shell's notes about workers it killed on purpose)
  ( summary=(); "$@"; printf '%s\n' "${summary[@]}" >"$work/long-$tag" ) 2>>"$work/long.err" &
  long_pids+=($!)
}
{ [ -z "$only" ] || [ "$only" = hostile ]; } && long_run hostile hostile_run
if [ -n "$only" ]; then :; elif [ $have_skew = 1 ]; then
  long_run tk1 takeover skew-ahead-takeover exclusive "$work/tk1" exclusive "$work/tk1" +10m "$work/tk1" 35 30 45
  long_run tk2 takeover skew-behind-takeover exclusive "$work/tk2" exclusive "$work/tk2" -10m "$work/tk2" 35 30 45
  long_run tk3 takeover skew-writer-takeover writer "$work/tk3" reader "$work/tk3" +10m "$work/tk3" 35 30 45
fi
[ -z "$only" ] && long_run crash crash_recovery
if [ -n "$only" ]; then :; elif [ $have_netfs = 1 ]; then
  mkdir -p "$NETFS_EXPORT/k1" "$NETFS_EXPORT/k2" "$NETFS_EXPORT/k3"
  long_run k1 keeps cached-exclusive-live exclusive "$NETFS_A/k1" "$NETFS_CACHED/k1" "$NETFS_EXPORT/k1"
  long_run k2 keeps cached-write-live writer "$NETFS_A/k2" "$NETFS_CACHED/k2" "$NETFS_EXPORT/k2"
  long_run k3 takeover cached-takeover exclusive "$NETFS_A/k3" exclusive "$NETFS_CACHED/k3" "" \
      "$NETFS_EXPORT/k3" 5 0 45
else
  skipped "caching-client scenarios: no network file system"
fi
pids+=("${long_pids[@]}")
wait_bounded 400 "${long_pids[@]}" || fail "long scenarios overran 400 s"
for f in "$work"/long-*; do
  [ -f "$f" ] || continue
  while IFS= read -r line; do
    [ -n "$line" ] || continue
    summary+=("$line")
    case $line in FAIL*) failures=$((failures + 1)) ;; esac
  done <"$f"
done

echo
echo "== summary"
printf '%s\n' "${summary[@]}"
if [ $failures -gt 0 ]; then
  echo "stress: $failures FAILED (logs were in $work; rerun with TMPDIR set to keep them)"
  trap - EXIT
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null; done
  [ -n "$netfs_env" ] && scripts/netfs-down "$netfs_env" >/dev/null 2>&1
  [ -n "$gluster_env" ] && scripts/glusterfs-down "$gluster_env" >/dev/null 2>&1
  exit 1
fi
echo "stress: all passed"
