#!/usr/bin/env bash
# Builds for arm64 with Debian's cross compiler and libraries (unpacked into a folder; no arm64 package is installed),
# and runs the unit tests and ruvo_chaos for a short time with qemu-user.
#
#   scripts/check_arm64.sh [FOLDER]     FOLDER is kept, so that the next run is shorter
#
# Not part of the regular checks: it takes about ten minutes on two cores.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build run arm64
if [ $# -gt 0 ]; then
  work=$(mkdir -p "$1" && realpath "$1")
else
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  trap 'exit 130' INT TERM
fi
root=$work/root build=$work/build
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
if [ ! -d "$root/usr/include/hiredis" ]; then
  scripts/unpack_packages.sh "$root" "$suite" arm64 libc6-dev libstdc++-12-dev libhiredis-dev libace-dev libgtest-dev \
    libcli11-dev nlohmann-json3-dev libffi-dev
  # Absolute links are redirected into the folder.
  find "$root" -type l -lname '/*' | while read -r link; do
    ln -sfn "$root$(readlink "$link")" "$link"
  done
fi

cat >"$work/arm64.cmake" <<END
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_SYSROOT $root)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc-12)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++-12)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;$root)
END
export PKG_CONFIG_SYSROOT_DIR=$root
export PKG_CONFIG_LIBDIR=$root/usr/lib/aarch64-linux-gnu/pkgconfig:$root/usr/share/pkgconfig
cmake -G Ninja -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$work/arm64.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DRUVO_BUILD_EXAMPLES=OFF >"$work/log"

# Tests that measure no time, since they run ten times slower here, and that need no tool of their own.
tests=(stream_log sutils busin_config key_format log_line log_sink startup pools raw operations strings lifecycle
       exchange exports threads log_events latency_histogram judge)
cmake --build "$build" --target "${tests[@]/%/_test}" ruvo_chaos >"$work/log" 2>&1 || { tail -n 20 "$work/log"; exit 1; }
file -L "$build/src/libruvo.so.1" | grep -q 'ARM aarch64'

passed=0 failed=0
# A "threadsafe" death test executes its own file, and the kernel cannot run that of another processor.
export GTEST_FILTER=-Memory.WithoutAnInstanceOrMemoryEveryCallSaysSo
for test in "${tests[@]}"; do
  if timeout 600 qemu-aarch64 -L "$root" "$build/tests/${test}_test" >"$work/log" 2>&1; then
    passed=$((passed + $(sed -nE 's/^\[  PASSED  \] ([0-9]+) tests?\.$/\1/p' "$work/log")))
  else
    failed=$((failed + 1))
    echo "failed: ${test}_test"
    grep -E '^\[  FAILED  \].*ms\)' "$work/log" || tail -n 5 "$work/log"
  fi
done
timeout 300 qemu-aarch64 -L "$root" "$build/tools/chaos/ruvo_chaos" --seconds 20 --threads 4 --connect-timeout 4000 \
  --socket-timeout 4000 | tee "$work/log" | grep -E '^(operations|held|BROKEN|HANG)' || failed=$((failed + 1))
! grep -qE '^(BROKEN|HANG)' "$work/log" || failed=$((failed + 1))
echo "arm64: $passed tests passed, $failed programs failed"
[ "$failed" -eq 0 ]
