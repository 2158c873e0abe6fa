#!/usr/bin/env bash
# Checks the headers for C++ hosts with GCC and Clang, as C++17, C++20 without exceptions and RTTI, and C++23: the
# examples of ruvo.hpp, optimised and not; the mistakes that must not compile; each header on its own; a hiredis of
# another major version than the library's. Needs the release build, whose headers it uses.
set -euo pipefail
cd "$(dirname "$0")/.."

warnings=(-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Werror)
configurations=("-std=c++17" "-std=c++20 -fno-exceptions -fno-rtti" "-std=c++2b")
headers=build/release/include
mistakes=tests/ruvo_hpp_mistakes.cpp
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

{
  printf '#include <ruvo/ruvo.hpp>\n#include <iostream>\nint main() {\n'
  sed -nE 's|^ */// {5}||p' src/openlib/ruvo/{ruvo,results,arguments}.hpp
  echo '}'
} >"$work/examples.cpp"

# Compiles the mistakes one by one, with a precompiled header. $1: the compiler; the others: its options.
refuse_mistakes() {
  local compiler=$1 name number sentence only step refused=0
  name=$(mktemp -d -p "$work")
  mkdir "$name/ruvo"
  local compile=("$@" "${warnings[@]}" -O1)
  if [ "$compiler" = g++ ]; then
    "${compile[@]}" -I"$headers" -x c++-header "$headers/ruvo/ruvo.hpp" -o "$name/ruvo/ruvo.hpp.gch"
    compile+=("-I$name")
  else
    "${compile[@]}" -I"$headers" -x c++-header "$headers/ruvo/ruvo.hpp" -o "$name/ruvo.pch"
    compile+=(-include-pch "$name/ruvo.pch")
  fi
  compile+=("-I$headers" -o "$name/object" "$name/code.cpp")
  sed 's|^.* //! .*||' "$mistakes" >"$name/code.cpp"
  "${compile[@]}" -c
  while read -r number only sentence; do
    if [ "$only" = any ] || [ "$only" = "$compiler" ]; then
      # GCC reports a time that is too short only if it optimises.
      step=-fsyntax-only
      sed "${number}!s|^.* //! .*||" "$mistakes" >"$name/code.cpp"
      [ "$compiler $sentence" != "g++ the time is too short" ] || step=-c
      if "${compile[@]}" "$step" -DMISTAKE 2>"$name/errors" || ! grep -qE "error: .*($sentence)" "$name/errors"; then
        cat "$name/errors" >&2
        echo "$* does not refuse line $number of $mistakes with '$sentence'" >&2
        return 1
      fi
      refused=$((refused + 1))
    fi
  done <"$work/mistakes"
  echo "$*: refuses $refused mistakes"
}

# All checks for one compiler. $1: its name.
check() {
  local configuration options level header
  for header in results arguments; do
    echo "#include <ruvo/$header.hpp>" >"$work/$1-$header.cpp"
    "$1" -std=c++17 "${warnings[@]}" -I"$headers" -fsyntax-only "$work/$1-$header.cpp"
  done
  for configuration in "${configurations[@]}"; do
    read -ra options <<<"$configuration"
    for level in 0 2; do
      "$1" "${options[@]}" "${warnings[@]}" "-O$level" -I"$headers" -c "$work/examples.cpp" -o "$work/$1-object"
    done
    refuse_mistakes "$1" "${options[@]}"
  done
}

# Number of the line, compiler or "any", sentence.
sed -nE '/ \/\/! /{=; s|.* //! (g\+\+\|clang\+\+): |\1 |; t said; s|.* //! |any |; :said; p}' "$mistakes" |
  paste -d ' ' - - >"$work/mistakes"
[ -s "$work/mistakes" ] || { echo "there are no mistakes" >&2; exit 1; }

check g++ &
with_gcc=$!
check clang++
wait "$with_gcc"

# A hiredis of another major version.
mkdir "$work/hiredis"
printf '#include_next <hiredis/hiredis.h>\n#undef HIREDIS_MAJOR\n#define HIREDIS_MAJOR 99\n' >"$work/hiredis/hiredis.h"
if g++ -std=c++17 -I"$work" -I"$headers" -fsyntax-only "$work/examples.cpp" 2>"$work/errors" ||
  ! grep -q "this libruvo was built with hiredis" "$work/errors"; then
  echo "ruvo.hpp accepts a hiredis of another major version than the library's" >&2
  exit 1
fi

# Without exceptions the program ends with a message where it would throw.
cat >"$work/no_exceptions.cpp" <<'CODE'
#include <ruvo/ruvo.hpp>
int main() { return ruvo::pool(eTempServer).increment("k").value() > 0 ? 0 : 1; }
CODE
g++ -std=c++17 -fno-exceptions -I"$headers" "$work/no_exceptions.cpp" -o "$work/no_exceptions" -Lbuild/release/src -lruvo \
  -Wl,-rpath,"$PWD/build/release/src" -Wl,-rpath-link,"$PWD/build/release/platform/stream_log"
status=0
bash -c 'ulimit -c 0; "$0"; exit $?' "$work/no_exceptions" 2>"$work/said" || status=$?
if [ "$status" -ne 134 ] || ! grep -q "ruvo: a result without a value was read: not initialised" "$work/said"; then
  cat "$work/said" >&2
  echo "value() of a failure does not end a program without exceptions: status $status" >&2
  exit 1
fi
echo "ruvo.hpp compiles with both compilers and all standards, and refuses what it should"
