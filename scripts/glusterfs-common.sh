# Shared by scripts/glusterfs-up, glusterfs-down and glusterfs-brick (sourced).

# One machine-wide lock: starting or stopping glusterd and creating or
# deleting volumes are decided under it, so that two state directories
# brought up or down at once neither start two daemons nor stop one that
# the other still uses.
gl_lockfile=/run/orvane-glusterfs.lock
# The pid of a glusterd that these scripts started (or that our package
# installation started): the last of our volumes to go stops it.
gl_started_marker=/run/orvane-glusterd.pid

gl_lock() {
  exec 9>"$gl_lockfile" || return 1
  flock -w 300 9
}
gl_unlock() { exec 9>&-; }

# gl ARGS...: the gluster command line, bounded in time, tried again (for up
# to about 30 s) while another transaction holds glusterd's own lock: anyone's
# volume commands on this machine, ours included, take turns there.
gl() {
  local out rc i
  for i in $(seq 1 30); do
    out=$(timeout 100 gluster --mode=script --timeout=90 "$@" 2>&1 9>&-); rc=$?
    case $out in
      *"Another transaction is in progress"* | *"Locking failed"* | *"locking failed"*) sleep 1 ;;
      *) break ;;
    esac
  done
  printf '%s\n' "$out"
  return $rc
}

glusterd_pid() { pgrep -x glusterd | head -n 1; }

# brick_table VOLUME: one line per brick, "PATH ONLINE PID CLIENTS", from
# the status in XML (the table for people wraps long paths).
brick_table() {
  gl volume status "$1" clients --xml | awk '
    /<node>/ { path = ""; st = ""; pid = ""; cl = 0 }
    /<path>/ { path = $0; sub(/.*<path>/, "", path); sub(/<\/path>.*/, "", path) }
    /<status>/ { st = $0; sub(/.*<status>/, "", st); sub(/<\/status>.*/, "", st) }
    /<pid>/ { pid = $0; sub(/.*<pid>/, "", pid); sub(/<\/pid>.*/, "", pid) }
    /<clientCount>/ { cl = $0; sub(/.*<clientCount>/, "", cl); sub(/<\/clientCount>.*/, "", cl) }
    /<\/node>/ { if (path ~ /^\//) print path, st, pid, cl }'
}

# brick_pid_is DIR PID: PID is a brick process serving DIR.
brick_pid_is() {
  tr '\0' '\n' <"/proc/$2/cmdline" 2>/dev/null | grep -A1 -x -- --brick-name | tail -n 1 \
    | grep -qxF -- "$1"
}

# brick_pids DIR: live brick processes serving DIR, whatever glusterd knows.
brick_pids() {
  local pid
  for pid in $(pgrep -x glusterfsd); do
    brick_pid_is "$1" "$pid" && echo "$pid"
  done
  return 0
}

is_gluster_mounted() { grep -q " $1 fuse" /proc/mounts; }
