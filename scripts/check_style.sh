#!/usr/bin/env bash
# Format and tidy checks over all C and C++ of the project. Needs a configured build/release.
#
#   scripts/check_style.sh [--fix]     --fix: put the format right
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t sources < <(git ls-files '*.cpp' '*.h' '*.c')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${sources[@]}"
  exit
fi
clang-format --dry-run --Werror "${sources[@]}"
# The files that the build compiles; headers are looked at where they are included.
mapfile -t compiled < <(git ls-files 'src/*.cpp' 'platform/*.cpp' 'tools/*.cpp' 'examples/*.cpp' 'tests/*_test.cpp' 'tests/support/*.cpp')
printf '%s\n' "${compiled[@]}" | xargs -P "$(nproc)" -n 4 clang-tidy -p build/release --quiet
