#!/usr/bin/env bash
# Runs cppcheck on all of the project, and GCC's analyser on its C. The analyser of GCC 12 is not sound for C++: it
# takes the result of `new` for null and a returned object for uninitialised, and reported nothing else here.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset bench -B build/check -DRUVO_BUILD_TESTS=ON >/dev/null
cppcheck --project=build/check/compile_commands.json --enable=warning,performance,portability \
  --library=googletest --suppress='*:/usr/*' --inline-suppr --error-exitcode=1 --quiet -j "$(nproc)"

# The C example for hosts; it includes the headers.
gcc -std=c99 -Wall -Wextra -Werror -fanalyzer -Ibuild/check/include -c -o /dev/null \
  examples/installed_package/program.c
echo "cppcheck and the analyser find nothing"
