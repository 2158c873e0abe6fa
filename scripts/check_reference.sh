#!/usr/bin/env bash
# The documents that tools check: the API reference (an undocumented public symbol is an error), the manual pages, and
# the change log, whose newest version must be the project's.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset release >/dev/null
cmake --build build/release --target reference

pages=(build/release/man/*.[135])
mandoc -T lint -W warning "${pages[@]}"
version=$(sed -nE 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/release/CMakeCache.txt)
newest=$(sed -nE 's/^## \[([0-9.]+)\].*/\1/p' CHANGELOG.md | head -n 1)
if [ "$version" != "$newest" ]; then
  echo "the newest version in CHANGELOG.md is $newest, the project's is $version" >&2
  exit 1
fi
echo "reference, ${#pages[@]} manual pages and change log are in order"
