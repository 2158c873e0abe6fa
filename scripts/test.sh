#!/usr/bin/env bash
# Installs what is missing, builds, and runs the tests. Needs no server: the tests start their own.
#
#   scripts/test.sh [preset]     release (the default), debug, asan or tsan
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}

scripts/deps.sh build test
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" --parallel "$(nproc)"
