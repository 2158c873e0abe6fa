#!/usr/bin/env bash
# Installs missing packages, builds, and runs the tests. Needs no server: the tests start their own.
#
#   scripts/test.sh [PRESET] [ARGUMENT OF CTEST...]
#       PRESET    release (the default), debug, asan or tsan
#       ARGUMENT  such as -R Walk (only tests with this in their names), --repeat until-fail:20, -j 1
set -euo pipefail
cd "$(dirname "$0")/.."
preset=release
case ${1:-} in -* | "") ;; *) preset=$1; shift ;; esac

scripts/deps.sh build test
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" --parallel "$(nproc)" "$@"
