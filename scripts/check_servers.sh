#!/usr/bin/env bash
# Runs the tests that need a Redis, and ruvo_chaos for half a minute in each of two modes, against other servers and
# versions: those of Debian's suites, unpacked into a folder and started from there. Prints a table of the results.
#
#   scripts/check_servers.sh [SUITE/PACKAGE...]     (no argument: all of the list below)
#
# SERVERS_SECONDS in the environment: how long ruvo_chaos runs in each mode, instead of 30 s.
# Not part of the regular checks: it takes some minutes for each server.
set -euo pipefail
cd "$(dirname "$0")/.."

servers=("$@")
[ ${#servers[@]} -gt 0 ] ||
  servers=(bullseye/redis-server bookworm/redis-server trixie/redis-server sid/redis-server
           trixie/valkey-server sid/valkey-server sid/redict-server)

scripts/deps.sh build test
cmake --preset release >/dev/null
mapfile -t tests < <(grep -l 'RedisServer' tests/*_test.cpp | sed -E 's|tests/(.*)\.cpp|\1|')
cmake --build --preset release --target "${tests[@]}" ruvo_chaos ruvo_cli >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM

# Puts PROGRAM of the unpacked package into the first folder of PATH, under Redis' name. It runs with the loader and
# the libraries of its own suite.
put() {
  local root=$1 program=$2 name=$3 loader
  loader=$(find "$root" -name 'ld-linux-*.so.*' | head -n 1)
  local libraries
  libraries=$(find "$root" -name '*.so.*' -printf '%h\n' | sort -u | paste -sd :)
  cat >"$work/bin/$name" <<END
#!/bin/sh
exec $loader --library-path $libraries $root/usr/bin/$program "\$@"
END
  chmod +x "$work/bin/$name"
}

failed=0
rows=()
for server in "${servers[@]}"; do
  suite=${server%/*} package=${server#*/}
  root=$work/root
  rm -rf "$root" "$work/bin"
  mkdir -p "$work/bin"
  if ! scripts/unpack_packages.sh "$root" "$suite" "$(dpkg --print-architecture)" "$package"; then
    echo "$server: the package cannot be unpacked" >&2
    failed=1
    continue
  fi
  kind=${package%-server}
  put "$root" "$kind-server" redis-server
  put "$root" "$kind-cli" redis-cli
  version=$(PATH=$work/bin:$PATH redis-server --version | sed -nE 's/.* v=([^ ]+).*/\1/p')
  echo "=== $kind $version of $suite"
  passed=0
  broken=()
  for test in "${tests[@]}"; do
    if PATH=$work/bin:$PATH timeout 300 "build/release/tests/$test" >"$work/log" 2>&1; then
      passed=$((passed + $(sed -nE 's/^\[  PASSED  \] ([0-9]+) tests?\.$/\1/p' "$work/log")))
    else
      grep -E '^\[  FAILED  \].*ms\)' "$work/log" || tail -n 3 "$work/log"
      broken+=("$test")
    fi
  done
  operations=0
  for mode in "" "--plain --connections 8"; do
    # shellcheck disable=SC2086  # words
    if ! PATH=$work/bin:$PATH build/release/tools/chaos/ruvo_chaos --seconds "${SERVERS_SECONDS:-30}" $mode \
      >"$work/log" 2>&1; then
      grep -E '^(BROKEN|HANG)' "$work/log" || tail -n 3 "$work/log"
      broken+=("chaos $mode")
    fi
    operations=$((operations + $(sed -nE 's/^operations +([0-9]+)$/\1/p' "$work/log")))
  done
  [ ${#broken[@]} -eq 0 ] || failed=1
  rows+=("| $kind | $version | $suite | $passed | $operations | ${broken[*]:-none} |")
done

echo
echo "| Server | Version | Debian suite | Tests passed | Operations under chaos | Failed |"
echo "|---|---|---|---|---|---|"
printf '%s\n' "${rows[@]}"
exit "$failed"
