#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UBSan) into
# build-fuzz and runs each one against its seed corpus.
# Usage: scripts/fuzz.sh [short|long] [TARGET...]
#   short: ~60 s per target (CI);  long: FUZZ_SECONDS (default 600) per target.
# New inputs go to build-fuzz/corpus/<target>/ (the seeds in tests/fuzz/corpus
# stay untouched); a failing input is kept as build-fuzz/crash-<target>-*.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:-short}
shift || true
case $mode in
  short) seconds=${FUZZ_SECONDS:-60} ;;
  long) seconds=${FUZZ_SECONDS:-600} ;;
  *) echo "usage: $0 [short|long] [TARGET...]" >&2; exit 2 ;;
esac
build=${FUZZ_BUILD:-build-fuzz}

command -v clang++ >/dev/null || { echo "fuzz.sh: clang++ is needed" >&2; exit 1; }
if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DORVANE_BUILD_FUZZ=ON -DORVANE_BUILD_TESTS=OFF -DORVANE_BUILD_BENCH=OFF >/dev/null
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in tests/fuzz/*_fuzz.cc; do targets+=("$(basename "$src" .cc)"); done
fi
cmake --build "$build" --target "${targets[@]}" -j "${JOBS:-2}"
# Absolute paths: some targets change directory into their generated tree.
build=$(cd "$build" && pwd)
seeds=$(pwd)/tests/fuzz/corpus

export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1:verify_asan_link_order=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
status=0
summary=()
for t in "${targets[@]}"; do
  corpus="$build/corpus/$t"
  mkdir -p "$corpus"
  echo "== $t: ${seconds}s"
  # -timeout: one input taking over 10 s is a hang; -rss_limit_mb guards
  # against runaway allocation; the run ends after max_total_time anyway.
  if "$build/tests/fuzz/$t" "$corpus" "$seeds/$t" \
       -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
       -print_final_stats=1 -artifact_prefix="$build/crash-$t-" >"$build/$t.log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/$t.log")
    summary+=("PASS $t (${runs:-?} inputs)")
  else
    status=1
    summary+=("FAIL $t (see $build/$t.log)")
    grep -E "property failed|ERROR: |SUMMARY:" "$build/$t.log" | head -n 5 || true
  fi
done
printf '%s\n' "${summary[@]}"
exit $status
