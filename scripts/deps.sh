#!/usr/bin/env bash
# Installs missing packages from Debian; does nothing if there are none.
#
#   scripts/deps.sh [build] [package] [run] [site] [test] [bench] [check] [plot] [arm64]     (no argument: all but arm64)
#
#   build    compiler, build tools, hiredis and ACE
#   package  tools that make Debian packages of the build
#   run      Redis and the proxy that the demo starts
#   site     servers of scripts/site.sh: Redis, whose program also runs as Sentinel, and HAProxy
#   test     Redis, the proxy, GoogleTest
#   bench    Redis, the proxy, valgrind and gnuplot, for the benchmark, its pictures and the count of instructions
#   check    format, tidy and static checks, binary interface, model, fuzzing, reference, manual pages, packages, the
#            examples of the guides
#   plot     the pictures of docs/scaling.md
#   arm64    cross compiler and emulator of scripts/check_arm64.sh
set -euo pipefail

declare -A packages=(
  [build]="g++ cmake ninja-build pkg-config libhiredis-dev libace-dev libcli11-dev nlohmann-json3-dev"
  [package]="dpkg-dev file"
  [run]="redis-server nutcracker"
  [site]="redis-server haproxy"
  [test]="redis-server nutcracker libgtest-dev binutils"
  [bench]="redis-server nutcracker valgrind gnuplot-nox python3"
  [check]="git clang clang-format clang-tidy libclang-rt-14-dev cppcheck abigail-tools relacy-dev doxygen mandoc binutils
           debootstrap lintian prometheus python3 libspdlog-dev stunnel4 openssl"
  [plot]="gnuplot-nox graphviz"
  [arm64]="g++-12-aarch64-linux-gnu qemu-user file"
)
groups=("$@")
[ ${#groups[@]} -gt 0 ] || groups=(build package run site test bench check plot)

missing=()
for group in "${groups[@]}"; do
  [ -n "${packages[$group]:-}" ] || { echo "deps.sh: no group named '$group'" >&2; exit 2; }
  for package in ${packages[$group]}; do
    state=$(dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null || true)
    case $state in ii*) ;; *) missing+=("$package") ;; esac
  done
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "deps.sh: needs root or sudo to install: ${missing[*]}" >&2; exit 1; }
  as_root=(sudo)
fi
echo "installing: ${missing[*]}"
"${as_root[@]}" apt-get update -q
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "${missing[@]}"
