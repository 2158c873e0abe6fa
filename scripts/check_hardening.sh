#!/usr/bin/env bash
# Checks that installed libraries and programs are hardened as cmake/hardening.cmake says. Only
# -fstack-clash-protection cannot be checked: it changes only functions with frames of a page or more, and there may be
# none.
#
#   scripts/check_hardening.sh FILE...
set -euo pipefail

failed=0
# refuse FILE TEXT: reports a fault of the file
refuse() {
  echo "$1: $2" >&2
  failed=1
}

for file in "$@"; do
  dynamic=$(readelf -dW "$file")
  segments=$(readelf -lW "$file")
  imports=$(nm -D --undefined-only "$file")
  grep -q 'FLAGS_1.*NOW' <<<"$dynamic" || refuse "$file" "binds late (-z now)"
  grep -q 'GNU_RELRO' <<<"$segments" || refuse "$file" "relocations stay writable (-z relro)"
  grep -q 'GNU_STACK .* RW ' <<<"$segments" || refuse "$file" "executable stack (-z noexecstack)"
  # A file may have no call that could be checked; one that formats text has some.
  if grep -qE ' v?[fsn]*printf@' <<<"$imports"; then
    grep -qE '__[a-z]+_chk(@|$)' <<<"$imports" || refuse "$file" "unchecked calls (-D_FORTIFY_SOURCE=2)"
  fi
  grep -q '__stack_chk_fail' <<<"$imports" || refuse "$file" "no stack protector"
  ! grep -q 'TEXTREL' <<<"$dynamic" || refuse "$file" "relocations in the code"
  if grep 'INTERP' <<<"$segments" >/dev/null && ! grep -q 'FLAGS_1.*PIE' <<<"$dynamic"; then
    refuse "$file" "a program at a fixed address (-pie)"
  fi
  # Folders that are searched for libraries: relative to the file's own, or none.
  paths=$(sed -nE 's/.*\((RPATH|RUNPATH)\).*\[(.*)\]/\2/p' <<<"$dynamic" | tr ':' '\n')
  if grep -vE '^\$ORIGIN(/|$)' <<<"$paths" | grep . ; then
    refuse "$file" "searches libraries outside its own tree"
  fi
done
[ "$failed" -eq 0 ]
echo "hardened: ${*##*/}"
