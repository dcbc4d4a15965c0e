#!/usr/bin/env bash
# Benchmark report: BUILD/bench/report.md with every benchmark next to its
# alternative and their ratio, and PNG plots (gnuplot) of the exclusive
# lock's hand-over latency distribution and of acquisitions per second
# against the number of contending processes, on the local file system and
# on a network one (scripts/netfs-up; reported as SKIPPED when unavailable).
#
# Usage: scripts/bench-report.sh [BUILD] [--reuse|--offline]
#   Runs every BUILD/bench/*_bench program with JSON output into
#   BUILD/bench/json/, then lock_bench once more on the network mounts.
#   --reuse:   the programs already ran (scripts/bench.sh wrote their JSON
#              and plot data); only the network run is added.
#   --offline: run nothing; report on what is there.
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
[ $offline = 0 ] && rm -f "$json/lock_bench-netfs.json" "$data"/*-net-*.txt "$data/rate-net.txt"
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

plots = [l for l in open(os.path.join(out, "plots.txt")).read().splitlines() if l]
if plots:
    lines += ["## Plots", ""]
    for p in plots: lines += [f"![{p}]({p})", ""]
open(os.path.join(out, "report.md"), "w").write("\n".join(lines) + "\n")
print(os.path.join(out, "report.md"))
EOF
exit $status
