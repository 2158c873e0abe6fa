#!/usr/bin/env bash
# Installs the release build into a folder of its own, checks its hardening, and builds the installed examples in
# place: the hosts and a program through the CMake package, one in C through pkg-config. Runs the programs. Then checks
# the project as a part of another one, and that it refuses unsupported options.
set -euo pipefail
cd "$(dirname "$0")/.."

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install build/release --prefix "$prefix" >/dev/null

missing=0
for file in include/ruvo/{ruvo,stats,busin_config,sutils}.h include/ruvo/{ruvo,results,arguments}.hpp include/stream_log/logger.h \
  lib/libruvo.so.1 lib/libstream_log.so.1 lib/cmake/ruvo/ruvoConfig.cmake \
  lib/pkgconfig/{ruvo,stream_log}.pc include/ruvo/log_{io,mutex,cfg}.h; do
  [ -e "$prefix/$file" ] || { echo "not installed: $file" >&2; missing=1; }
done
[ "$missing" -eq 0 ]
scripts/check_hardening.sh "$prefix"/lib/lib{ruvo,stream_log}.so.1 "$prefix"/bin/ruvo_{cli,chaos}

examples=$prefix/share/doc/libruvo-dev/examples
cmake -S "$examples" -B "$work/hosts" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/hosts" >/dev/null
cmake -S "$examples/installed_package" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/program"
"$work/build/program_17"

export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
# shellcheck disable=SC2046  # pkg-config prints words
cc -std=c99 -Wall -Wextra -Wpedantic -Werror "$examples/installed_package/program.c" -o "$work/program_c" \
  $(pkg-config --cflags --libs ruvo stream_log) -Wl,-rpath,"$prefix/lib" -Wl,-rpath-link,"$prefix/lib"
"$work/program_c"

mkdir "$work/host"
cat >"$work/host/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(host LANGUAGES C CXX)
set(CMAKE_CXX_STANDARD 17)
set(BUILD_SHARED_LIBS OFF)
add_subdirectory($PWD ruvo)
CMAKE
# Prints the project's files that the host installs with these options: only documents, since these need no build.
installed_by_host() {
  rm -rf "$work/host_build" "$work/host_prefix"
  cmake -S "$work/host" -B "$work/host_build" -G Ninja "$@" >/dev/null
  cmake --install "$work/host_build" --prefix "$work/host_prefix" --component tools >/dev/null
  find "$work/host_prefix" -type f 2>/dev/null || true
}
files=$(installed_by_host)
[ -z "$files" ] || { echo "installed although another project includes this one: $files" >&2; exit 1; }
[[ $(installed_by_host -DRUVO_INSTALL=ON) == *ruvo.conf.5.gz* ]] || { echo "RUVO_INSTALL=ON installs nothing" >&2; exit 1; }

for wish in BUILD_SHARED_LIBS=OFF CMAKE_CXX_STANDARD=17; do
  if cmake -S . -B "$work/$wish" -G Ninja "-D$wish" >/dev/null 2>"$work/refusal" ||
    ! grep -qF "$wish: libruvo is" "$work/refusal"; then
    echo "$wish is not refused" >&2
    exit 1
  fi
done
echo "the installed package works"
