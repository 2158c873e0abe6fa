#!/usr/bin/env bash
# Counts the instructions of each operation by owner: the library, what it calls, hiredis. Fails if the library's code,
# what it calls or the whole call has grown by more than 5% over bench/instructions.txt.
#
#   scripts/count_instructions.sh [--record] [--functions OPERATION]
#       --record      writes bench/instructions.txt again
#       --functions   also lists the library's functions in one operation, such as "GET"
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
