#!/usr/bin/env bash
# The headers for C++ hosts: each on its own; the examples of ruvo.hpp as C++17 and C++20, with GCC and Clang,
# unoptimised and not; and the mistakes that must not compile. Wants the release build, whose headers it takes.
set -euo pipefail
cd "$(dirname "$0")/.."

warnings=(-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Werror)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
compile() { "$@" "${warnings[@]}" -Ibuild/release/include -c -o "$work/object"; }

for header in results arguments; do
  echo "#include <ruvo/$header.hpp>" >"$work/$header.cpp"
  compile clang++ -std=c++17 "$work/$header.cpp"
done

{
  printf '#include <ruvo/ruvo.hpp>\n#include <iostream>\nint main() {\n'
  sed -nE 's|^ */// {5}||p' src/openlib/ruvo/{ruvo,results}.hpp
  echo '}'
} >"$work/examples.cpp"
for compiler in g++ clang++; do
  for standard in 17 20; do
    for level in 0 2; do
      compile "$compiler" "-std=c++$standard" "-O$level" "$work/examples.cpp"
    done
  done
done

# GCC sees a time only when it optimises.
refused=0
for compiler in "g++ -O1" "clang++ -O0"; do
  read -ra words <<<"$compiler -std=c++17"
  compile "${words[@]}" -DMISTAKE=0 tests/ruvo_hpp_mistakes.cpp
  while read -r number sentence; do
    if compile "${words[@]}" "-DMISTAKE=$number" tests/ruvo_hpp_mistakes.cpp 2>"$work/errors" ||
      ! grep -q "error: .*ruvo: .*$sentence" "$work/errors"; then
      cat "$work/errors" >&2
      echo "$compiler does not refuse mistake $number with '$sentence'" >&2
      exit 1
    fi
    refused=$((refused + 1))
  done < <(sed -nE 's|^#elif MISTAKE == ([0-9]+) +// (.*)|\1 \2|p' tests/ruvo_hpp_mistakes.cpp)
done
if [ "$refused" -ne $((2 * $(grep -c '#elif MISTAKE' tests/ruvo_hpp_mistakes.cpp))) ]; then
  echo "a mistake stands there without its sentence" >&2
  exit 1
fi
echo "ruvo.hpp compiles with both compilers and standards; $refused mistakes are refused"
