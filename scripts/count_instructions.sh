#!/usr/bin/env bash
# Counts the instructions of each operation, and whose they are: the library's, hiredis', the C
# library's. Fails when the library's share or the whole call has grown by more than 5% over bench/instructions.txt.
#
#   scripts/count_instructions.sh [--record] [--functions OPERATION]
#       --record      write bench/instructions.txt afresh
#       --functions   list the library's functions in one operation too, as "GET"
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target call_script

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
if ! valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$folder/dump" \
  build/bench/bench/call_script >"$folder/log" 2>&1; then
  cat "$folder/log"
  exit 1
fi
bench/instructions.py "$folder" "$@"
