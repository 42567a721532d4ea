#!/usr/bin/env bash
# Builds the fuzz targets (Clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for FUZZ_SECONDS seconds (default
# 60), one after the other, starting from its seeds in fuzz/corpus/<target>/.
# Prints per target the executions, the coverage (edges) and the findings;
# fails when any target found something. Findings are kept in
# $FUZZ_BUILD/findings/ and the grown corpora in $FUZZ_BUILD/corpus/.
#   FUZZ_TARGETS="fuzz_image fuzz_kernels"  runs only those
#   FUZZ_CMAKE_ARGS=-DPA_PORTABLE_KERNELS=ON  passes options to the build
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}
build=${FUZZ_BUILD:-build-fuzz}
all="fuzz_geometry fuzz_preprocess fuzz_detectors fuzz_tracking fuzz_image fuzz_kernels"
targets=${FUZZ_TARGETS:-$all}

bash scripts/setup.sh clang
cmake -S . -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPA_BUILD_FUZZERS=ON \
  -DPA_BUILD_TESTS=OFF -DPA_BUILD_BENCHMARKS=OFF -DPA_BUILD_EXAMPLES=OFF -DPA_PORTABLE_KERNELS=OFF ${FUZZ_CMAKE_ARGS:-} >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" -j "${JOBS:-2}" --target $targets

# Limits: one input may take 10 s, one allocation 256 MB and the process
# 2 GB (AddressSanitizer's own shadow and quarantine included).
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
summary=()
failed=0
for t in $targets; do
  corpus="$build/corpus/$t" findings="$build/findings/$t"
  rm -rf "$findings"
  mkdir -p "$corpus" "$findings"
  log="$build/$t.log"
  status=0
  "$build/fuzz/$t" -max_total_time="$seconds" -timeout=10 -malloc_limit_mb=256 -rss_limit_mb=2048 \
    -max_len=8192 -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" "fuzz/corpus/$t" >"$log" 2>&1 || status=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  found=$(find "$findings" -type f | wc -l)
  [ "$status" -ne 0 ] && [ "$found" -eq 0 ] && found=1
  summary+=("$(printf '%-16s %12s executions %6s edges %3s findings' "$t" "${execs:-?}" "${cov:-?}" "$found")")
  if [ "$found" -ne 0 ]; then
    failed=1
    echo "== $t: finding (log $log)" >&2
    grep -m1 -A12 -E '^==[0-9]+==ERROR|runtime error|promise not kept|ALARM|out-of-memory|malloc\(' "$log" >&2 || tail -20 "$log" >&2
  fi
done
echo "fuzzing, $seconds s per target:"
printf '  %s\n' "${summary[@]}"
exit $failed
