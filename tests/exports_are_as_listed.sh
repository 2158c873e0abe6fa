#!/bin/sh
# Compares the libraries' exports with packaging/libruvo1.symbols: they must match exactly.
#
#   tests/exports_are_as_listed.sh LIBRARY...
set -eu
list=$(dirname "$0")/../packaging/libruvo1.symbols

for library in "$@"; do
  soname=$(readelf -d "$library" | sed -nE 's/.*\(SONAME\).*\[(.*)\]/\1/p')
  # ' RUVO_Init@Base 1.0.0' or ' (c++)"vop_config::close()@Base" 1.0.0', below the line of the library.
  listed=$(sed -nE "/^$soname /,/^[^ ]/s/^ (\(c\+\+\)\")?(.*)@Base\"? .*/\2/p" "$list" | LC_ALL=C sort -u)
  exported=$(nm -DC --defined-only --format=just-symbols "$library" | LC_ALL=C sort -u)
  if [ -z "$listed" ] || [ "$listed" != "$exported" ]; then
    printf '%s exports\n%s\n\nand packaging/libruvo1.symbols lists for it\n%s\n' \
      "$soname" "$exported" "$listed" >&2
    exit 1
  fi
done
