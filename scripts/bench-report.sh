#!/usr/bin/env bash
# Benchmark report: BUILD/bench/report.md with every benchmark next to its
# alternative and their ratio, and PNG plots (gnuplot) of the exclusive
# lock's hand-over latency distribution and of acquisitions per second
# against the number of contending processes, on the local file system and
# on a network one (scripts/netfs-up; reported as SKIPPED when unavailable).
# Then the hand-over between two clients of one directory (handover_bench),
# our lock next to the usual file-based locks, on sshfs with its default
# options and on GlusterFS (scripts/glusterfs-up), with and without cache
# invalidation; each file system that cannot be had here is SKIPPED.
#
# Usage: scripts/bench-report.sh [BUILD] [--reuse|--offline]
#   Runs every BUILD/bench/*_bench program with JSON output into
#   BUILD/bench/json/, then lock_bench and handover_bench once more on the
#   network mounts.
#   --reuse:   the programs already ran (scripts/bench.sh wrote their JSON
#              and plot data); only the network runs are added.
#   --offline: run nothing; report on what is there.
# ORVANE_BENCH_CAP_SECONDS (default 45) caps each handover_bench worker on
# the network file systems: enough for 800 acquisitions at under 20 a second
# and for a 20 s stale name on sshfs, while keeping `make bench` near ten
# minutes. The other ORVANE_BENCH_* settings of that program pass through.
set -uo pipefail
cd "$(dirname "$0")/.."

build=${1:-build-bench}
reuse=0 offline=0
case ${2:-} in
  --reuse) reuse=1 ;;
  --offline) reuse=1; offline=1 ;;
esac
out=$build/bench
json=$out/json
data=$out/data
mkdir -p "$json" "$data"
out=$(cd "$out" && pwd); json=$out/json; data=$out/data

if ! command -v gnuplot >/dev/null 2>&1 && [ "$(id -u)" = 0 ]; then
  { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq gnuplot-nox; } \
    >/dev/null 2>&1 || echo "bench-report: could not install gnuplot-nox" >&2
fi

notes=()
status=0
[ $offline = 0 ] && rm -f "$json/lock_bench-netfs.json" "$data"/*-net-*.txt "$data/rate-net.txt" \
  "$json"/handover_bench-*.json "$data"/hwait-{sshfs,gluster,gluster-inval}-*.txt \
  "$data"/hrate-{sshfs,gluster,gluster-inval}.txt "$data/handover-fs.txt"
if [ $reuse = 0 ]; then
  rm -f "$json"/*.json "$data"/*.txt
  for exe in "$build"/bench/*_bench; do
    [ -x "$exe" ] || continue
    name=$(basename "$exe")
    echo "== $name"
    ORVANE_BENCH_DATA=$data ORVANE_BENCH_TAG=local "$exe" --benchmark_counters_tabular=true \
      --benchmark_out="$json/$name.json" --benchmark_out_format=json || status=1
  done
fi

# The contention benchmark again, with half the processes on each of two
# network clients of one directory.
if [ $offline = 0 ] && [ -x "$build/bench/lock_bench" ]; then
  state=$(mktemp -d "${TMPDIR:-/tmp}/orvane-bench-netfs.XXXXXX")
  msg=$(scripts/netfs-up "$state" 2>"$state.log"); rc=$?
  if [ $rc = 0 ]; then
    # shellcheck disable=SC1090
    . "$state/env"
    mkdir -p "$NETFS_EXPORT/bench"
    echo "== lock_bench on the network file system"
    ORVANE_BENCH_DATA=$data ORVANE_BENCH_TAG=net \
      ORVANE_BENCH_LOCK_DIRS="$NETFS_A/bench:$NETFS_B/bench" "$build/bench/lock_bench" \
      --benchmark_counters_tabular=true --benchmark_out="$json/lock_bench-netfs.json" \
      --benchmark_out_format=json || status=1
    scripts/netfs-down "$state" >/dev/null 2>&1
  elif [ $rc = 77 ]; then
    notes+=("Network file system runs SKIPPED: ${msg#SKIPPED: }")
    rm -rf "$state"
  else
    notes+=("Network file system runs FAILED to start: $(tail -n 2 "$state.log" | tr '\n' ' ')")
    rm -rf "$state"
    status=1
  fi
  rm -f "$state.log"
fi

# ---- Hand-over between two clients of one directory ------------------------
# handover_bench once per network file system, its workers split between two
# client mounts of one directory. Its local figures are those of the run of
# every program above. Each file system's outcome goes to handover-fs.txt as
# TAG|ran, SKIPPED: why, or FAILED: why|what it is.
hfs=$data/handover-fs.txt
handover_on() {  # TAG DIR_A DIR_B
  echo "== handover_bench on $1"
  ORVANE_BENCH_DATA=$data ORVANE_BENCH_TAG=$1 ORVANE_BENCH_CAP_SECONDS=${ORVANE_BENCH_CAP_SECONDS:-45} \
    ORVANE_BENCH_LOCK_DIRS="$2:$3" "$build/bench/handover_bench" --benchmark_counters_tabular=true \
    --benchmark_out="$json/handover_bench-$1.json" --benchmark_out_format=json
}
# A directory made through one client, once the other one shows it.
shared_dir() {  # DIR_A DIR_B
  mkdir -p "$1" || return 1
  for _ in $(seq 1 200); do [ -d "$2" ] && return 0; sleep 0.1; done
  return 1
}
fs_outcome() {  # TAG OUTCOME DESCRIPTION
  echo "$1|$2|$3" >>"$hfs"
  case $2 in
    ran) ;;
    SKIPPED*) notes+=("Hand-over on $3: $2") ;;
    *) notes+=("Hand-over on $3: $2"); status=1 ;;
  esac
}
if [ $offline = 0 ] && [ -x "$build/bench/handover_bench" ]; then
  : >"$hfs"
  if [ -s "$json/handover_bench.json" ]; then
    fs_outcome local ran "the local file system"
  else
    fs_outcome local "FAILED: no figures from the local run" "the local file system"
  fi

  what="sshfs with default options, two clients"
  state=$(mktemp -d "${TMPDIR:-/tmp}/orvane-bench-sshfs.XXXXXX")
  msg=$(NETFS_PLAIN_OPTIONS='' scripts/netfs-up "$state" 2>"$state.log"); rc=$?
  if [ $rc = 0 ]; then
    # shellcheck disable=SC1090
    . "$state/env"
    if shared_dir "$NETFS_A/handover" "$NETFS_B/handover" &&
       handover_on sshfs "$NETFS_A/handover" "$NETFS_B/handover"; then
      fs_outcome sshfs ran "$what"
    else
      fs_outcome sshfs "FAILED: handover_bench did not complete" "$what"
    fi
    scripts/netfs-down "$state" >/dev/null 2>&1
  elif [ $rc = 77 ]; then
    fs_outcome sshfs "SKIPPED: ${msg#SKIPPED: }" "$what"
    rm -rf "$state"
  else
    fs_outcome sshfs "FAILED to start: $(tail -n 2 "$state.log" | tr '\n' ' ')" "$what"
    rm -rf "$state"
  fi
  rm -f "$state.log"

  for variant in gluster gluster-inval; do
    what="GlusterFS replica 3, two clients"
    opt=()
    [ $variant = gluster-inval ] && { what+=", cache invalidation on"; opt=(--invalidation); }
    if [ ! -x scripts/glusterfs-up ]; then
      fs_outcome $variant "SKIPPED: scripts/glusterfs-up is not in this tree" "$what"
      continue
    fi
    state=$(mktemp -d "${TMPDIR:-/tmp}/orvane-bench-gluster.XXXXXX")
    msg=$(scripts/glusterfs-up "$state" "${opt[@]}" 2>"$state.log"); rc=$?
    if [ $rc = 0 ]; then
      # shellcheck disable=SC1090
      . "$(printf '%s\n' "$msg" | tail -n 1)"
      if shared_dir "$GLUSTER_A/orvane-handover" "$GLUSTER_B/orvane-handover" &&
         handover_on $variant "$GLUSTER_A/orvane-handover" "$GLUSTER_B/orvane-handover"; then
        fs_outcome $variant ran "$what"
      else
        fs_outcome $variant "FAILED: handover_bench did not complete" "$what"
      fi
      scripts/glusterfs-down "$state" >/dev/null 2>&1
    elif [ $rc = 77 ]; then
      why=$(printf '%s\n' "$msg" | grep -m1 '^SKIPPED' | sed 's/^SKIPPED: *//')
      [ -n "$why" ] || why=$(tail -n 1 "$state.log")
      fs_outcome $variant "SKIPPED: $why" "$what"
      rm -rf "$state"
    else
      fs_outcome $variant "FAILED to start: $(tail -n 2 "$state.log" | tr '\n' ' ')" "$what"
      scripts/glusterfs-down "$state" >/dev/null 2>&1
      rm -rf "$state"
    fi
    rm -f "$state.log"
  done
fi

# ---- Plots --------------------------------------------------------------------
plots=()
if command -v gnuplot >/dev/null 2>&1; then
  for tag in local net; do
    files=()
    for n in 2 4 8 16; do
      f=$data/handover-$tag-orvane-$n.txt
      [ -s "$f" ] && { sort -g "$f" | awk '{ a[NR] = $1 } END { for (i = 1; i <= NR; i++) print a[i], i / NR }' >"$f.cdf"; files+=("$n"); }
    done
    [ ${#files[@]} -gt 0 ] || continue
    where="local file system"; [ $tag = net ] && where="network file system (sshfs, two clients)"
    cmd="set terminal pngcairo size 900,560 noenhanced; set output '$out/handover-$tag.png';"
    cmd+=" set title 'Exclusive lock: hand-over latency, $where';"
    cmd+=" set xlabel 'release to next holder (ms)'; set ylabel 'fraction of hand-overs';"
    cmd+=" set grid; set key bottom right; set xrange [0:*]; set yrange [0:1];"
    cmd+=" set arrow from 5, graph 0 to 5, graph 1 nohead dt 2 lc rgb 'gray';"
    cmd+=" set label '5 ms polling cycle' at 5.2, graph 0.5 tc rgb 'gray'; plot "
    sep=""
    for n in "${files[@]}"; do
      cmd+="$sep'$data/handover-$tag-orvane-$n.txt.cdf' using 1:2 with lines lw 2 title '$n processes'"
      sep=", "
    done
    gnuplot -e "$cmd" 2>>"$out/gnuplot.log" && plots+=("handover-$tag.png")
  done
  series=""
  for tag in local net; do
    f=$data/rate-$tag.txt
    [ -s "$f" ] || continue
    for impl in orvane naive; do
      awk -v i=$impl '$1 == i { print $2, $3 }' "$f" | sort -n >"$data/rate-$tag-$impl.dat"
      [ -s "$data/rate-$tag-$impl.dat" ] || continue
      label="$impl lock, $tag"
      [ $impl = naive ] && label="naive O_EXCL polling, $tag"
      style="lw 2"; [ $impl = naive ] && style="lw 1 dt 2"
      series+="${series:+, }'$data/rate-$tag-$impl.dat' using 1:2 with linespoints $style title '$label'"
    done
  done
  if [ -n "$series" ]; then
    gnuplot -e "set terminal pngcairo size 900,560 noenhanced; set output '$out/acquisitions.png';
      set title 'Exclusive lock: acquisitions per second against contending processes (1 ms held)';
      set xlabel 'contending processes'; set ylabel 'acquisitions per second'; set logscale x 2;
      set xrange [0.8:20]; set xtics (1, 2, 4, 8, 16); set grid; set key outside bottom center horizontal; set yrange [0:*];
      plot $series" 2>>"$out/gnuplot.log" && plots+=("acquisitions.png")
  fi
  # Hand-over between clients: every implementation's rate on every file
  # system, solid where it was correct, hatched where not; and the
  # distribution of its waits, one panel per file system, drawn as the share
  # of waits at least this long so that the rare long ones show.
  impls="oexcl mkdir hardlink flock orvane"
  tags=()
  for t in local sshfs gluster gluster-inval; do [ -s "$data/hrate-$t.txt" ] && tags+=("$t"); done
  if [ ${#tags[@]} -gt 0 ]; then
    : >"$data/hrate.dat"
    xtics="" f=0
    for t in "${tags[@]}"; do
      awk -v f=$f -v order="$impls" 'BEGIN { n = split(order, o, " "); for (i = 1; i <= n; i++) at[o[i]] = i }
        ($1 in at) { print f * 6 + at[$1], ($2 > 0 ? $2 : 0.01), $3, at[$1] }' "$data/hrate-$t.txt" >>"$data/hrate.dat"
      xtics+="${xtics:+, }'$t' $((f * 6 + 3))"
      f=$((f + 1))
    done
    keys="" i=1
    for m in $impls; do keys+=", NaN with boxes fs solid lc $i title '$m'"; i=$((i + 1)); done
    gnuplot -e "set terminal pngcairo size 900,560 noenhanced; set output '$out/handover-rates.png';
      set title 'Lock hand-over between two clients: acquisitions per second (hatched: overlaps or unfinished workers)';
      set ylabel 'acquisitions per second'; set logscale y; set yrange [0.5:*]; set boxwidth 0.9;
      set xtics ($xtics) scale 0; set xrange [0:$((f * 6))]; set grid ytics; set key outside bottom center horizontal;
      plot '$data/hrate.dat' using 1:(\$3 == 1 ? \$2 : 1/0):4 with boxes fs solid 0.8 lc variable notitle,
           '$data/hrate.dat' using 1:(\$3 == 1 ? 1/0 : \$2):4 with boxes fs pattern 4 lc variable notitle$keys" \
      2>>"$out/gnuplot.log" && plots+=("handover-rates.png")
    cmd="set terminal pngcairo size 1100,$((360 * ((${#tags[@]} + 1) / 2))) noenhanced; set output '$out/handover-waits.png';"
    cmd+=" set multiplot layout $(((${#tags[@]} + 1) / 2)),2 title 'Lock hand-over between two clients: waits (asking to getting)';"
    cmd+=" set logscale xy; set xrange [0.001:60000]; set yrange [0.0005:1.05]; set grid;"
    cmd+=" set xtics ('10 us' 0.01, '1 ms' 1, '0.1 s' 100, '10 s' 10000); set mxtics 10;"
    cmd+=" set ytics ('1' 1, '0.1' 0.1, '0.01' 0.01, '0.001' 0.001);"
    cmd+=" set key outside right top font ',9';"
    cmd+=" set xlabel 'wait'; set ylabel 'fraction of waits this long or longer';"
    for t in "${tags[@]}"; do
      series="" i=1
      for m in $impls; do
        f=$data/hwait-$t-$m.txt
        if [ -s "$f" ]; then
          sort -g "$f" | awk '{ a[NR] = $1 } END { for (i = 1; i <= NR; i++) print (a[i] > 0.001 ? a[i] : 0.001), 1 - (i - 1) / NR }' >"$f.cdf"
          series+="${series:+, }'$f.cdf' using 1:2 with lines lw 2 lc $i title '$m'"
        fi
        i=$((i + 1))
      done
      [ -n "$series" ] && cmd+=" set title '$t'; plot $series;"
    done
    gnuplot -e "$cmd unset multiplot" 2>>"$out/gnuplot.log" && plots+=("handover-waits.png")
  fi
else
  notes+=("Plots SKIPPED: gnuplot is not installed")
fi

# ---- The report ------------------------------------------------------------------
printf '%s\n' "${notes[@]}" >"$out/notes.txt"
printf '%s\n' "${plots[@]}" >"$out/plots.txt"
python3 - "$out" <<'EOF'
import glob, json, os, sys

out = sys.argv[1]
OURS = {"ours", "orvane", "Layer"}

def fmt(v):
    if isinstance(v, (int, float)):
        a = abs(v)
        if a == 0: return "0"
        if a >= 1000: return f"{v:,.0f}"
        if a >= 10: return f"{v:.1f}"
        if a >= 0.1: return f"{v:.3f}"
        return f"{v:.3g}"
    return str(v)

def split(name):
    """(group, variant): 'Collapse/ours' -> ('Collapse', 'ours');
    'Contention/naive/8/iterations:1' -> ('Contention/8/...', 'naive');
    'BM_Refresh_Layer' -> ('BM_Refresh', 'Layer')."""
    if "/" in name:
        t = name.split("/")
        return "/".join([t[0]] + t[2:]), t[1]
    if "_" in name:
        g, v = name.rsplit("_", 1)
        return g, v
    return name, ""

lines = ["# Benchmark report", ""]
notes = [l for l in open(os.path.join(out, "notes.txt")).read().splitlines() if l]
for n in notes: lines += [f"> {n}", ""]
lines += ["Every figure is ours next to its alternative; ratio = ours / alternative "
          "(for times: below 1 means we are faster; for rates such as acq_per_s: above 1 "
          "means we are faster). Times are real time per iteration.", ""]

for path in sorted(glob.glob(os.path.join(out, "json", "*.json"))):
    if os.path.basename(path).startswith("handover_bench"): continue  # its own section below
    try:
        doc = json.load(open(path))
    except Exception as e:
        lines += [f"## {os.path.basename(path)}", "", f"unreadable: {e}", ""]
        continue
    prog = os.path.basename(path)[:-5]
    allrows = doc.get("benchmarks", [])
    # Repeated benchmarks: their median stands for them.
    medians = {b["run_name"]: dict(b, name=b["run_name"]) for b in allrows
               if b.get("run_type") == "aggregate" and b.get("aggregate_name") == "median"}
    rows, seen = [], set()
    for b in allrows:
        if b.get("run_type", "iteration") != "iteration": continue
        rn = b.get("run_name", b["name"])
        if rn in medians:
            if rn not in seen: rows.append(medians[rn]); seen.add(rn)
        else:
            rows.append(b)
    rows += [m for rn, m in medians.items() if rn not in seen]  # aggregates only
    ctx = doc.get("context", {})
    lines += [f"## {prog}", "",
              f"{ctx.get('date', '')}, {ctx.get('num_cpus', '?')} CPUs, "
              f"load {ctx.get('load_avg', '')}", ""]
    errors = [b for b in rows if b.get("error_occurred")]
    # Pairs by name: ours against the other variant of the same group.
    groups = {}
    for b in rows:
        if b.get("error_occurred"): continue
        g, v = split(b["name"])
        groups.setdefault(g, {})[v] = b
    pairs = []
    for g, vs in groups.items():
        ours = [v for v in vs if v in OURS]
        alts = [v for v in vs if v not in OURS]
        # Fixed-length runs (manual time) compare by their counters instead.
        if len(ours) == 1 and len(alts) == 1 and "manual_time" not in g:
            pairs.append((g, vs[ours[0]], vs[alts[0]], alts[0]))
    if pairs:
        lines += ["| benchmark | ours | alternative | ours time | alternative time | ratio |",
                  "|---|---|---|---|---|---|"]
        for g, o, a, an in pairs:
            unit = o.get("time_unit", "ns")
            ratio = o["real_time"] / a["real_time"] if a["real_time"] else float("nan")
            lines.append(f"| {g} | {split(o['name'])[1]} | {an} | {fmt(o['real_time'])} {unit} | "
                         f"{fmt(a['real_time'])} {a.get('time_unit', 'ns')} | {ratio:.2f} |")
        lines.append("")
    std = {"name", "family_index", "per_family_instance_index", "run_name", "run_type",
           "repetitions", "repetition_index", "threads", "iterations", "real_time", "cpu_time",
           "time_unit", "error_occurred", "error_message", "aggregate_name", "aggregate_unit"}
    std |= {"threads"}
    counted = [b for b in rows if not b.get("error_occurred") and set(b) - std]
    if counted:
        keys = []
        for b in counted:
            for k in b:
                if k not in std and k not in keys: keys.append(k)
        lines += ["| benchmark | time | " + " | ".join(keys) + " |",
                  "|---|---|" + "---|" * len(keys)]
        for b in counted:
            lines.append(f"| {b['name']} | {fmt(b['real_time'])} {b.get('time_unit', 'ns')} | " +
                         " | ".join(fmt(b[k]) if k in b else "" for k in keys) + " |")
        lines.append("")
    for b in errors:
        lines.append(f"- **{b['name']}** failed: {b.get('error_message', '')}")
    if errors: lines.append("")

# ---- Hand-over between two clients of one directory ----
IMPLS = ["oexcl", "mkdir", "hardlink", "flock", "orvane"]
RW_IMPLS = ["flock-rw", "orvane-rw"]
fs_rows = []
fs_path = os.path.join(out, "data", "handover-fs.txt")
if os.path.exists(fs_path):
    fs_rows = [l.split("|", 2) for l in open(fs_path).read().splitlines() if l.count("|") >= 2]
elif os.path.exists(os.path.join(out, "json", "handover_bench.json")):
    fs_rows = [["local", "ran", "the local file system"]]
if fs_rows:
    runs, ctx = {}, {}
    for tag, state, what in fs_rows:
        path = os.path.join(out, "json", "handover_bench.json" if tag == "local" else f"handover_bench-{tag}.json")
        if state != "ran" or not os.path.exists(path): continue
        try:
            doc = json.load(open(path))
        except Exception:
            continue
        ctx[tag] = doc.get("context", {})
        for b in doc.get("benchmarks", []):
            kind, impl = b["name"].split("/")[:2]
            runs.setdefault(tag, {}).setdefault(kind, {})[impl] = b
    ran = [r for r in fs_rows if r[0] in runs]
    lines += ["## Lock hand-over between two clients of one directory (handover_bench)", ""]
    c = next(iter(ctx.values()), {})
    lines += [f"{c.get('handover_workers', '?')} worker processes take the lock "
              f"{c.get('handover_rounds', '?')} times each and hold it {c.get('handover_hold_us', '?')} us; "
              "on a network file system, half of them lock through each of two client mounts of one directory. "
              "Inside the lock each worker creates a marker file exclusively in a local directory; a marker "
              "already there is an overlap. Each worker stops at its time cap "
              + ", ".join(f"{t}: {float(ctx[t].get('handover_cap_s', 0)):.0f} s" for t in ctx) + ". "
              "A run is *correct* with no overlap and every worker finished. "
              "oexcl: exclusive create retried every 5 ms, no stale rule; mkdir: lock directory touched every "
              "second, stale after 30 s; hardlink: link a unique file to the lock name, trust the link count, "
              "stale after 30 s; flock: flock(2) on a lock file; orvane: ovDirectoryExclusiveLock. "
              "The -rw runs mix readers and writers, each client having both: orvane-rw is "
              "ovDirectoryReadWriteLock, flock-rw flock(2) shared and exclusive; a correct exclusive lock is "
              "a correct read/write lock too, so the exclusive runs count as its alternatives. "
              "Waits run from asking to getting; a hand-over is the lock passing to another worker, its "
              "latency from the release to the next worker's getting it. Polling locks let the releasing "
              "worker take the lock again at once, so their rate counts few hand-overs.", ""]
    for tag, state, what in fs_rows:
        if tag not in runs: lines += [f"> {what}: {state}", ""]

    def res(tag, impl):
        return runs.get(tag, {}).get("Handover", {}).get(impl)

    def correct(b):
        return b is not None and not b.get("error_occurred") and b.get("correct") == 1

    def verdict(b):
        if b is None: return "not run"
        if b.get("error_occurred"): return "error: " + b.get("error_message", "")
        why = []
        if b.get("overlaps"): why.append(f"{b['overlaps']:.0f} overlaps")
        if b.get("finished", 0) < b.get("workers", 0): why.append(f"{b['finished']:.0f}/{b['workers']:.0f} finished")
        return "yes" if not why else "NO: " + ", ".join(why)

    if ran:
        lines += ["### Acquisitions per second (marked ✗ where not correct)", "",
                  "| implementation | " + " | ".join(r[0] for r in ran) + " |",
                  "|---|" + "---|" * len(ran)]
        for impl in IMPLS:
            cells = []
            for tag, _, _ in ran:
                b = res(tag, impl)
                if b is None or b.get("error_occurred"): cells.append(verdict(b)); continue
                cells.append(fmt(b["acq_per_s"]) + ("" if correct(b) else " ✗"))
            lines.append(f"| {impl} | " + " | ".join(cells) + " |")
        lines += ["", "### orvane against the best correct alternative", "",
                  "Hand-overs per second count only the lock passing to another worker. The ceiling is what any "
                  "lock that creates a file to acquire and removes it to release can reach: the two calls, one "
                  "after the other, per acquisition (the uncontended O_EXCL pair). Where twice the best "
                  "alternative lies above it, no such lock can be twice as fast there.", "",
                  "| file system | ours | acq/s | correct | best correct alternative | its acq/s | ratio | "
                  "hand-overs/s ratio | ours longest wait ms | its longest wait ms | ceiling acq/s | "
                  "2 × best within it |",
                  "|---|---|---|---|---|---|---|---|---|---|---|---|"]

        def per_second(b):
            return b.get("handovers_per_s", 0)

        for tag, _, what in ran:
            pair = runs[tag].get("Uncontended", {}).get("oexcl")
            ceiling = 1000.0 / pair["pair_median_ms"] if pair and not pair.get("error_occurred") \
                and pair.get("pair_median_ms") else None
            for ours, group in (("orvane", IMPLS), ("orvane-rw", IMPLS + RW_IMPLS)):
                o = res(tag, ours)
                if o is None: continue
                if o.get("error_occurred"):
                    lines.append(f"| {tag} | {ours} | {verdict(o)} | | | | | | | | | |"); continue
                alts = [(res(tag, i)["acq_per_s"], i) for i in group
                        if not i.startswith("orvane") and correct(res(tag, i))]
                cells = f"| {tag} | {ours} | {fmt(o['acq_per_s'])} | {verdict(o)} |"
                if not alts:
                    lines.append(cells + f" none | | | | {fmt(o['wait_max_ms'])} | | "
                                 f"{fmt(ceiling) if ceiling else ''} | |"); continue
                rate, name = max(alts)
                a = res(tag, name)
                ho = per_second(a)
                within = "" if ceiling is None else ("yes" if 2 * rate <= ceiling else "no")
                lines.append(cells + f" {name} | {fmt(rate)} | {o['acq_per_s'] / rate:.3f} | "
                             f"{(per_second(o) / ho) if ho else float('inf'):.3g} | {fmt(o['wait_max_ms'])} | "
                             f"{fmt(a['wait_max_ms'])} | {fmt(ceiling) if ceiling else ''} | {within} |")
        lines.append("")
        for tag, _, what in ran:
            lines += [f"### {tag}: {what}", "",
                      "| implementation | acq/s | hand-overs | hand-over p50 ms | hand-over max ms | wait p50 ms | wait p99 ms | wait max ms | overlaps | finished | correct |",
                      "|---|---|---|---|---|---|---|---|---|---|---|"]
            for impl in IMPLS + RW_IMPLS:
                b = res(tag, impl)
                if b is None and impl in RW_IMPLS: continue
                if b is None or b.get("error_occurred"):
                    lines.append(f"| {impl} | {verdict(b)} | | | | | | | | | |"); continue
                lines.append(f"| {impl} | {fmt(b['acq_per_s'])} | {b['handovers']:.0f} | {fmt(b['handover_p50_ms'])} | "
                             f"{fmt(b['handover_max_ms'])} | {fmt(b['wait_p50_ms'])} | {fmt(b['wait_p99_ms'])} | "
                             f"{fmt(b['wait_max_ms'])} | {b['overlaps']:.0f} | {b['finished']:.0f}/{b['workers']:.0f} | "
                             f"{verdict(b)} |")
            for impl in IMPLS + RW_IMPLS:
                b = res(tag, impl)
                if b is not None and b.get("label"): lines.append(f"- {impl}: {b['label']}")
            lines.append("")
        pairs = c.get("handover_pairs", "?")
        lines += [f"### Uncontended: median ms of {pairs} acquire + release pairs by one process", "",
                  "| implementation | " + " | ".join(r[0] for r in ran) + " |", "|---|" + "---|" * len(ran)]
        for impl in IMPLS:
            cells = []
            for tag, _, _ in ran:
                b = runs[tag].get("Uncontended", {}).get(impl)
                cells.append("" if b is None else ("error: " + b.get("error_message", "")) if b.get("error_occurred")
                             else fmt(b["pair_median_ms"]))
            lines.append(f"| {impl} | " + " | ".join(cells) + " |")
        lines += ["", "orvane's calls on its file-system interface (ovAbstractFS) per uncontended acquire + release; "
                  "each is at least one round trip to the file server:", "",
                  "| file system | calls per pair | by kind |", "|---|---|---|"]
        for tag, _, _ in ran:
            b = runs[tag].get("Uncontended", {}).get("orvane")
            if b is None or b.get("error_occurred"): continue
            kinds = ", ".join(f"{k[3:]} {fmt(v)}" for k, v in sorted(b.items())
                              if k.startswith("fs_") and k != "fs_calls_per_pair")
            lines.append(f"| {tag} | {fmt(b.get('fs_calls_per_pair', 0))} | {kinds} |")
        lines.append("")
        contended = [(t, res(t, "orvane")) for t, _, _ in ran]
        contended = [(t, b) for t, b in contended if b is not None and "fs_calls_per_acq" in b]
        if contended:
            lines += ["Under contention, orvane's calls per acquisition (acquire and release, all workers): " +
                      ", ".join(f"{t} {fmt(b['fs_calls_per_acq'])}" for t, b in contended) + ".", ""]

plots = [l for l in open(os.path.join(out, "plots.txt")).read().splitlines() if l]
if plots:
    lines += ["## Plots", ""]
    for p in plots: lines += [f"![{p}]({p})", ""]
open(os.path.join(out, "report.md"), "w").write("\n".join(lines) + "\n")
print(os.path.join(out, "report.md"))
EOF
exit $status
