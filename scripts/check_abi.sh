#!/usr/bin/env bash
# Does the release build keep the binary interface of each version in tests/abi? Additions are allowed.
#
#   scripts/check_abi.sh                   compare
#   scripts/check_abi.sh --record VERSION  keep the interface of this build as that of VERSION
set -euo pipefail
cd "$(dirname "$0")/.."

options=(--suppressions tests/abi/suppressions.ini --drop-private-types --exported-interfaces-only)
declare -A libraries=([libruvo]=build/release/src/libruvo.so.1
                      [libstream_log]=build/release/platform/stream_log/libstream_log.so.1)
for library in "${libraries[@]}"; do
  readelf -SW "$library" | grep -q '\.debug_info' || { echo "$library: no debug information" >&2; exit 1; }
done

if [ "${1:-}" = --record ]; then
  folder=tests/abi/${2:?VERSION}
  mkdir -p "$folder"
  for name in "${!libraries[@]}"; do
    abidw "${options[@]}" --drop-undefined-syms --no-corpus-path --no-comp-dir-path --no-elf-needed --no-show-locs \
      --no-parameter-names --no-write-default-sizes --out-file "$folder/$name.abi" "${libraries[$name]}"
  done
  exit 0
fi

compared=0
for baseline in tests/abi/*/*.abi; do
  library=${libraries[$(basename "$baseline" .abi)]}
  if ! abidiff "${options[@]}" --no-added-syms --no-show-locs "$baseline" "$library"; then
    echo "$library does not keep the interface in $baseline" >&2
    exit 1
  fi
  compared=$((compared + 1))
done
[ "$compared" -gt 0 ]
echo "binary interface: as in $compared recorded libraries"
