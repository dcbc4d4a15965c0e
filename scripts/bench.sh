#!/usr/bin/env bash
# Runs every benchmark program of a bench build and prints their results.
# Each program reports our figure next to its alternative's and their ratio.
set -euo pipefail
build=${1:-build-bench}
status=0
# JSON results and raw plot data for scripts/bench-report.sh.
mkdir -p "$build/bench/json" "$build/bench/data"
rm -f "$build"/bench/json/*.json "$build"/bench/data/*.txt
data=$(cd "$build/bench/data" && pwd)
for exe in "$build"/bench/*_bench; do
  [ -x "$exe" ] || continue
  echo "== $(basename "$exe")"
  ORVANE_BENCH_DATA=$data ORVANE_BENCH_TAG=local "$exe" --benchmark_counters_tabular=true \
    --benchmark_out="$build/bench/json/$(basename "$exe").json" --benchmark_out_format=json || status=1
  echo
done
# The report: every figure beside its alternative, the lock benchmark once
# more on a network file system, and plots.
if [ -x scripts/bench-report.sh ]; then
  scripts/bench-report.sh "$build" --reuse || status=1
fi
exit $status
