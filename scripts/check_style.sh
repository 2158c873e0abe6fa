#!/usr/bin/env bash
# Format and tidy checks over all C and C++ of the project.
#
#   scripts/check_style.sh [--fix | --libraries]
#
#   --fix        only corrects the format
#   --libraries  tidy checks only of the two libraries and ruvo.hpp; all the rest takes four times as long
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t sources < <(git ls-files '*.cpp' '*.h' '*.hpp' '*.c')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${sources[@]}"
  exit
fi
clang-format --dry-run --Werror "${sources[@]}"

# The files that the build compiles, including the benchmarks; headers are checked through them. One file at a time and
# the largest first, so that the processors end together. The limits stop a template that expands without end before it
# exhausts the machine; in the foreground CTRL-C reaches it.
cmake --preset bench -B build/check -DRUVO_BUILD_TESTS=ON >/dev/null
tidied=('*.cpp' ':!examples/installed_package' ':!tests/ruvo_hpp_mistakes.cpp')
[ "${1:-}" != --libraries ] || tidied=('src/*.cpp' 'platform/*.cpp' examples/quick_start.cpp)
git ls-files -z "${tidied[@]}" | xargs -0 ls -S |
  xargs -P "$(nproc)" -n 1 prlimit --as=6000000000 timeout --foreground 600 clang-tidy -p build/check --quiet
