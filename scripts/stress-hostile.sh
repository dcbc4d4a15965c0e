# Hostile-directory run of scripts/stress.sh, which sources this file (it
# uses that script's $W, $work, pids, wait_bounded, analyse, sum_field,
# pass and fail). Run as `bash stress-hostile.sh --junk ...` it is instead
# the junk process itself, started under an unprivileged uid.
#
# A group directory (root:65533, mode 2775) is shared by workers running as
# uid 65534 and 65533 (group 65533, umask 002) and as root. A junk process,
# uid 65533, puts at the lock names, only while a name is free (every create
# below fails if the name exists, so it never replaces a holder's file):
# FIFOs, dangling symlinks to a root-only directory outside, symlink loops,
# symlinks to a root-only canary file outside, directories, mode-000 files,
# and files aged 40 s or dated 10 years ahead. Three holders (exclusive,
# writer, reader) are SIGSTOPped inside their critical section for 35 s,
# longer than the 30 s stale age, while a taker of each waits.
#
# Fails on: any overlap (a marker met or an interval overlap, except one with
# a stopped holder that, once resumed, was told of the loss right after its
# hold); any write outside the directory (canary changed, anything created
# in the outside directory); any worker overrunning its bound; any worker
# death by signal or exception, or loss of a holder that was not stopped;
# leaked descriptors or threads; a stop scenario that was never exercised;
# anything of ours left. Acceptable leftovers: the junk itself (non-regular
# entries, and regular files still holding the junk text) since no worker is
# bound to clear a name it never needed after the last one left.

hostile_gid=65533

# ---- The junk process ---------------------------------------------------------
if [ "${1:-}" = --junk ]; then
  # --junk initial|loop DIR STAGE OUTSIDE CANARY PIDFILE SECONDS
  set -u
  phase=$2 dir=$3 stage=$4 outside=$5 canary=$6 pidfile=$7 secs=$8
  seq=0
  place() {  # KIND NAME: creates junk at NAME only if NAME is free
    local kind=$1 name=$2 p="$3/$2" s
    seq=$((seq + 1))
    case $kind in
      fifo) mkfifo "$p" ;;
      dangling) ln -sT "$outside/ghost$name" "$p" ;;
      olddangling) ln -sT "$outside/ghost$name" "$p" && touch -h -d '-40 seconds' "$p" ;;
      loop) ln -sT "$name" "$dir/loop.$seq" && ln -sT "loop.$seq" "$p" ;;
      canary) ln -sT "$canary" "$p" ;;
      dir) mkdir "$p" && echo "$(date +%s) $p" >>"$stage/dirs" ;;
      noperm | old | future)
        s="$stage/f.$seq"
        printf 'orvane-hostile-junk\n' >"$s"
        case $kind in
          noperm) chmod 000 "$s" ;;
          old) touch -d '-40 seconds' "$s" ;;
          future) touch -d '+10 years' "$s" ;;
        esac
        ln -T "$s" "$p"; rm -f "$s" ;;
    esac
  } 2>/dev/null
  [ "$phase" = none ] && exit 0
  if [ "$phase" = initial ]; then
    place canary .deploy_lock.0 "$dir"
    place loop .deploy_lock.1 "$dir"
    place fifo .deploy_lock.2 "$dir"
    place noperm .deploy_lock.3 "$dir"
    # Aged: a fresh one would keep every reader and writer out for the
    # first 33 s, and the stopped holders from ever holding.
    place olddangling .deploy_write_lock "$dir"
    place dir .deploy_read_lock.1 "$dir"
    place old .deploy_read_lock.2 "$dir"
    place future .deploy_read_lock.3 "$dir"
    place fifo .deploy_read_lock.5 "$dir"
    place canary .deploy_read_lock.8 "$dir"
    place noperm .deploy_read_lock.13 "$dir"
    exit 0
  fi
  kinds=(fifo dangling loop canary dir noperm old future)
  # The loop starts once every holder to be stopped holds (the harness says
  # "go"): junk renewed at the write-lock name from the first second would
  # keep a writer out for the whole run, and its stop would never happen.
  for i in $(seq 1 1000); do [ -e "$stage/go" ] && break; sleep 0.1; done
  end=$(( $(date +%s) + secs ))
  for round in $(seq 1 60); do
    [ "$(date +%s)" -lt "$end" ] || break
    names=(.deploy_lock.0 .deploy_lock.1 .deploy_lock.2 .deploy_lock.3 .deploy_write_lock
           .deploy_read_lock.4 .deploy_read_lock.21)
    # The first two numbers each reader tries (its pid, then twice it).
    for r in $(cat "$pidfile" 2>/dev/null); do
      names+=(".deploy_read_lock.$r" ".deploy_read_lock.$((2 * r))")
    done
    place "${kinds[$((RANDOM % ${#kinds[@]}))]}" "${names[$((RANDOM % ${#names[@]}))]}" "$dir"
    # Our directories go after 10 s (rmdir removes nothing else), so that a
    # lock is not kept from its name for the whole run.
    if [ -f "$stage/dirs" ]; then
      now=$(date +%s)
      while read -r t p; do
        [ $((now - t)) -ge 10 ] && rmdir "$p" 2>/dev/null
      done <"$stage/dirs"
    fi
    sleep "$(awk -v r=$RANDOM 'BEGIN { printf "%.2f", 0.5 + r % 100 / 100 }')"
  done
  exit 0
fi

# ---- The run, inside scripts/stress.sh ----------------------------------------

# hstart NAME UID ARGS...: one worker under umask 002 as UID (0: root),
# results writable by it. Sets $last_pid (the worker's own pid: exec).
hstart() {
  local name=$1 uid=$2 f run=("$W")
  shift 2
  for f in res ev ready; do : >"$work/$name.$f"; chmod 666 "$work/$name.$f"; done
  [ "$uid" != 0 ] && run=(setpriv --reuid="$uid" --regid="$hostile_gid" --clear-groups "$W")
  ( umask 002; exec "${run[@]}" "$@" --result "$work/$name.res" --events "$work/$name.ev" ) \
    >"$work/$name.log" 2>&1 &
  last_pid=$!
  pids+=("$last_pid")
  hpid[$name]=$last_pid   # hostile_run's table
  res_of[$last_pid]="$work/$name.res"
}

res_field() { grep -o "$2=[^ ]*" "$work/$1.res" 2>/dev/null | cut -d= -f2; }

hostile_run() {
  local label=hostile
  declare -A hpid
  idx() { local j; for j in "${!all[@]}"; do [ "${all[$j]}" = "$1" ] && echo "$j"; done; }
  if [ "$(id -u)" != 0 ] || ! command -v setpriv >/dev/null; then
    skipped "hostile directory: needs root and setpriv (util-linux)"; return
  fi
  local base="$work/hostile" dir="$work/hostile/dir" stage="$work/hostile/stage"
  local outside="$work/hostile/outside" canary="$work/hostile/canary" pidfile="$work/hostile/readers"
  local cx="$work/check-hostile-x" crw="$work/check-hostile-rw"
  chmod 711 "$work"   # the workers' own results live there
  mkdir -p "$base" "$dir" "$stage" "$outside" "$cx" "$crw"
  chmod 755 "$base" "$outside"
  chown "root:$hostile_gid" "$dir" "$cx" "$crw"
  chmod 2775 "$dir" "$cx" "$crw"
  chown "$hostile_gid:$hostile_gid" "$stage"; chmod 700 "$stage"
  : >"$pidfile"; chmod 644 "$pidfile"
  printf 'root-only canary\n' >"$canary"; chmod 600 "$canary"; touch -d '2001-02-03 04:05:06' "$canary"
  local canary_before
  canary_before="$(stat -c '%s %Y %a %U' "$canary") $(md5sum <"$canary")"
  local junk=(setpriv --reuid=$hostile_gid --regid=$hostile_gid --clear-groups
              bash scripts/stress-hostile.sh --junk)
  # STRESS_HOSTILE_JUNK=0: the same run without junk (checks the harness).
  local jsecs=50 phase=initial
  [ "${STRESS_HOSTILE_JUNK:-1}" = 0 ] && { jsecs=0; phase=none; }
  ( umask 002; "${junk[@]}" "$phase" "$dir" "$stage" "$outside" "$canary" "$pidfile" 0 )
  local initial; initial=$(ls -A "$dir" | wc -l)
  ( umask 002; exec "${junk[@]}" loop "$dir" "$stage" "$outside" "$canary" "$pidfile" $jsecs ) \
    >"$work/hostile-junk.log" 2>&1 &
  local jpid=$! ; pids+=("$jpid")

  local xnames=() rwnames=() all=() entry mode uid k=0 ck

  # Holders to stop (VICTIM:MODE:UID:CHECK) and the taker started for each
  # once it is stopped (MODE:UID). Started before the crowd below, the
  # writer first: a writer that must wait for a moment without readers among
  # five busy ones got in only once they had ended, about 100 s in, and
  # twice in three runs missed the 110 s it is given to hold.
  local vnames=() vpids=() tspecs=() vstop=() vcont=() tnames=() vk
  local w
  for entry in writer:65533:rw:writer:0 exclusive:65534:x:exclusive:65533 reader:0:rw:writer:65534; do
    IFS=: read -r mode uid ck tmode tuid <<<"$entry"
    [ "$ck" = x ] && ck=$cx || ck=$crw
    local name="$label-stopped-$mode"
    hstart "$name" "$uid" --mode "$mode" --dir "$dir" --check-dir "$ck" --iterations 1 \
      --hold-ms 4000 --timeout-ms 110000 --ready "$work/$name.ready"
    [ "$mode" = reader ] && echo "$last_pid" >>"$pidfile"
    vnames+=("$name"); vpids+=("$last_pid"); tspecs+=("$tmode:$tuid:$ck"); vstop+=(""); vcont+=("")
    all+=("$name")
    [ "$ck" = "$cx" ] && xnames+=("$name") || rwnames+=("$name")
    # The writer holds first (at most 10 s), before the reader or the crowd.
    if [ "$mode" = writer ]; then
      for w in $(seq 1 100); do [ -s "$work/$name.ready" ] && break; sleep 0.1; done
    fi
  done

  # Contenders: MODE:UID, each for 55 s, 45 s per acquisition at most.
  for entry in exclusive:65534 exclusive:65534 exclusive:65533 exclusive:65533 exclusive:0 \
              writer:65534 writer:65533 writer:0 reader:65534 reader:65534 reader:65533 \
              reader:65533 reader:0; do
    IFS=: read -r mode uid <<<"$entry"
    k=$((k + 1))
    local name="$label-$mode-$uid-$k" hold=2
    [ "$mode" = reader ] && hold=5
    if [ "$mode" = exclusive ]; then ck=$cx; xnames+=("$name"); else ck=$crw; rwnames+=("$name"); fi
    hstart "$name" "$uid" --mode "$mode" --dir "$dir" --check-dir "$ck" --duration 55 \
      --iterations 100000 --hold-ms $hold --gap-ms 20 --timeout-ms 45000
    all+=("$name")
    [ "$mode" = reader ] && echo "$last_pid" >>"$pidfile"
  done

  local started; started=$(date +%s)

  # Stop each victim as soon as it holds (inside its 4 s hold), start its
  # taker, resume it 35 s later; 160 s at most. (The reader may wait behind
  # the other two while they are stopped.)
  local t
  for t in $(seq 1 900); do
    local pending=0
    for vk in "${!vnames[@]}"; do
      local v=${vnames[$vk]}
      if [ -z "${vstop[$vk]}" ]; then
        if [ -s "$work/$v.ready" ] && kill -STOP "${vpids[$vk]}" 2>/dev/null; then
          vstop[$vk]=$(now)
          IFS=: read -r tmode tuid ck <<<"${tspecs[$vk]}"
          hstart "$v-taker" "$tuid" --mode "$tmode" --dir "$dir" --check-dir "$ck" --iterations 1 \
            --hold-ms 8000 --timeout-ms 150000 --ready "$work/$v-taker.ready"
          tnames+=("$v-taker"); all+=("$v-taker")
          [ "$ck" = "$cx" ] && xnames+=("$v-taker") || rwnames+=("$v-taker")
        elif [ $(( $(date +%s) - started )) -lt 110 ] && kill -0 "${vpids[$vk]}" 2>/dev/null; then
          pending=1
        fi
      elif [ -z "${vcont[$vk]}" ]; then
        if later_than "$(now)" "$(awk -v s="${vstop[$vk]}" 'BEGIN { printf "%.3f", s + 35 }')"; then
          kill -CONT "${vpids[$vk]}"; vcont[$vk]=$(now)
        else
          pending=1
        fi
      fi
    done
    local held=1
    for vk in "${!vnames[@]}"; do [ -z "${vstop[$vk]}" ] && held=0; done
    if [ $held = 1 ] || [ $(( $(date +%s) - started )) -ge 110 ]; then touch "$stage/go"; fi
    [ $pending = 0 ] && break
    [ $(( $(date +%s) - started )) -lt 160 ] || break
    sleep 0.1
  done
  touch "$stage/go"
  for vk in "${!vnames[@]}"; do   # never leave one stopped
    [ -n "${vstop[$vk]}" ] && [ -z "${vcont[$vk]}" ] && kill -CONT "${vpids[$vk]}" 2>/dev/null
  done

  # Every worker's own bound ends within 260 s of the start (a taker may wait
  # behind another stopped holder); 280 s is a hang.
  local apids=() n
  for n in "${all[@]}"; do apids+=("${hpid[$n]}"); done
  local killed=0 wait_s=$(( 280 - ($(date +%s) - started) ))
  [ $wait_s -lt 5 ] && wait_s=5
  wait_bounded "$wait_s" "${apids[@]}" "$jpid" || killed=1
  local elapsed=$(( $(date +%s) - started ))

  # Exits. A stopped holder may exit 5 (it lost the lock); nobody else may.
  local excused=" " i code notes=() hung=0 signalled=0 threw=0 lostlive=0 otherbad=0
  for vk in "${!vnames[@]}"; do
    [ "$(res_field "${vnames[$vk]}" lost)" = 1 ] && excused+="${vpids[$vk]} "
  done
  for i in "${!all[@]}"; do
    n=${all[$i]} code=${exit_codes[$i]}
    case $code in
      0 | 4 | 1) continue ;;   # time-outs are allowed; overlaps and leaks are judged below
      5) case " ${vnames[*]} " in *" $n "*) continue ;; esac; lostlive=$((lostlive + 1)) ;;
      3) threw=$((threw + 1)) ;;
      137) if [ $killed = 1 ]; then hung=$((hung + 1)); else signalled=$((signalled + 1)); fi ;;
      *) if [ "$code" -gt 128 ]; then signalled=$((signalled + 1)); else otherbad=$((otherbad + 1)); fi ;;
    esac
    notes+=("$n exited $code: $(tail -n 1 "$work/$n.log" | cut -c1-160)")
  done

  # Overlaps: markers met (excused only when every owner met is a stopped
  # holder that reported the loss) and event intervals (lost tenures write
  # none).
  local real=0 excusedn=0 ov op p ok
  for n in "${all[@]}"; do
    ov=$(res_field "$n" overlaps); [ "${ov:-0}" -gt 0 ] || continue
    op=$(res_field "$n" overlap_pids); ok=1
    for p in ${op//,/ } ""; do
      [ -z "$p" ] && continue
      case $excused in *" $p "*) ;; *) ok=0 ;; esac
    done
    [ -z "$op" ] && ok=0
    if [ $ok = 1 ]; then excusedn=$((excusedn + ov)); else real=$((real + ov)); fi
  done
  local evx evrw totx totrw
  read -r _ _ _ evx _ totx <<<"$(analyse "${xnames[@]}")"
  read -r _ _ _ evrw _ totrw <<<"$(analyse "${rwnames[@]}")"
  local fdleak thleak timeouts
  fdleak=$(sum_field fd_leak "${all[@]}"); thleak=$(sum_field thread_leak "${all[@]}")
  timeouts=$(sum_field failed "${all[@]}")

  # Writes outside the directory.
  local canary_after outside_new
  canary_after="$(stat -c '%s %Y %a %U' "$canary") $(md5sum <"$canary")"
  outside_new=$(ls -A "$outside")

  # The stop scenarios.
  local stops="" unexercised=0 v took
  for vk in "${!vnames[@]}"; do
    v=${vnames[$vk]}
    if [ -z "${vstop[$vk]}" ]; then
      stops+="${v#$label-}: never held; "; unexercised=$((unexercised + 1)); continue
    fi
    took=$(awk -v a="$(cat "$work/$v-taker.ready" 2>/dev/null)" -v w="$(res_field "$v-taker" longest_wait_ms)" \
           'BEGIN { if (a == "") print "never"; else printf "%.1f s", w / 1000 }')
    [ "$took" = never ] && unexercised=$((unexercised + 1))
    stops+="${v#$label-}: taker in after $took, resumed holder lost=$(res_field "$v" lost)"
    stops+=" ($(res_field "$v" lost_reason)), exit ${exit_codes[$(idx "$v")]}; "
  done

  # Leftovers: the junk may stay; a regular file without the junk text is ours.
  local f b ours="" junkleft=0
  for f in "$dir"/* "$dir"/.[!.]*; do
    [ -e "$f" ] || [ -L "$f" ] || continue
    b=$(basename "$f")
    if [ -L "$f" ] || [ -p "$f" ] || [ -d "$f" ] || grep -qs orvane-hostile-junk "$f"; then
      junkleft=$((junkleft + 1))
    else
      ours+="$b ($(( $(date +%s) - $(stat -c %Y "$f") ))s old) "
    fi
  done
  for f in "$cx"/* "$crw"/*; do [ -e "$f" ] && ours+="check:$(basename "$f") "; done

  for n in "${notes[@]}"; do echo "  $n"; done
  echo "  $label: ${#all[@]} workers (uids 65534, 65533, 0), $initial junk entries at the start," \
       "$(grep -c . "$stage/dirs" 2>/dev/null || echo 0) junk directories made; exclusive" \
       "$totx acquisitions, read/write $totrw; time-outs $timeouts; overlaps $real markers" \
       "($excusedn excused) / $evx+$evrw intervals; fd leak $fdleak, thread leak $thleak;" \
       "hung $hung, killed by a signal $signalled, threw $threw, lost while not stopped $lostlive;" \
       "junk left $junkleft; ${elapsed} s"
  echo "  $label stops: $stops"
  local why=""
  [ "$real" != 0 ] || [ "$evx" != 0 ] || [ "$evrw" != 0 ] && why+="overlaps ($real markers, $evx+$evrw intervals); "
  [ "$canary_after" != "$canary_before" ] && why+="canary outside changed ($canary_before -> $canary_after); "
  [ -n "$outside_new" ] && why+="created outside: $outside_new; "
  [ "$hung" != 0 ] || [ "$killed" = 1 ] && why+="$hung workers hung; "
  [ "$signalled" != 0 ] && why+="$signalled workers killed by a signal (abort 134 etc.); "
  [ "$threw" != 0 ] && why+="$threw workers threw; "
  [ "$lostlive" != 0 ] && why+="$lostlive live holders lost the lock; "
  [ "$otherbad" != 0 ] && why+="$otherbad workers failed; "
  [ "$fdleak" -gt 0 ] || [ "$thleak" -gt 0 ] && why+="leaked descriptors/threads; "
  [ "$unexercised" != 0 ] && why+="$unexercised stop scenarios not exercised; "
  [ -n "$ours" ] && why+="ours left: $ours; "
  if [ -z "$why" ]; then
    pass "$label: junk at every lock name, 3 holders stopped 35 s; 0 overlaps, nothing written outside, no hang or abort, only junk left ($junkleft)"
  else
    fail "$label: $why"
  fi
}
