#!/usr/bin/env bash
# Runs the configuration reader, the text helpers, the expansion of keys and the calls that share a connection on
# inputs from libFuzzer. The script leaves a failing input in build/fuzz; run the target with it to reproduce the fault:
#
#   build/fuzz/tests/fuzz/config_fuzz build/fuzz/config_fuzz-crash-...
#
#   scripts/fuzz.sh [seconds]     for all targets together (60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
targets=(config_fuzz text_fuzz key_fuzz pipeline_fuzz)
# A reply may announce more elements than there is memory for.
export ASAN_OPTIONS=allocator_may_return_null=1:max_allocation_size_mb=256

scripts/deps.sh build check
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
corpus=$(mktemp -d)  # new inputs go there, so that the tree stays unchanged
fuzzer=
finish() {
  [ -z "$fuzzer" ] || kill "$fuzzer" 2>/dev/null || true
  rm -rf "$corpus"
}
trap finish EXIT
trap 'exit 130' INT TERM
cp -r tests/fuzz/corpus/. "$corpus"
for target in "${targets[@]}"; do
  log=build/fuzz/$target.log
  build/fuzz/tests/fuzz/"$target" -max_total_time=$((seconds / ${#targets[@]})) -max_len=4096 -len_control=0 \
    -timeout=10 -malloc_limit_mb=100000 -print_final_stats=1 -artifact_prefix="build/fuzz/$target-" \
    "$corpus/$target" >"$log" 2>&1 &
  fuzzer=$!  # in the background, so that a signal to this script ends it at once
  wait "$fuzzer" || { cat "$log"; exit 1; }
  fuzzer=
  echo "$target: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs, none fails"
done
