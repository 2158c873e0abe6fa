#!/usr/bin/env bash
# Checks a model of the calls that share a connection: the library's own pipeline.cpp and forking.cpp on relacy. Tries
# all states of two threads, the orders of two and of three threads with few preemptions, and random orders of each
# scenario of tests/model/pipeline_model.cpp. Then plants the faults of tests/model/faults.txt, each of which must be
# found.
#
#   scripts/check_model.sh [EXECUTIONS]     of each scenario at random (20000)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build check

executions=${1:-20000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
compile=(g++ -std=c++20 -O2 -Isrc/openlib/ruvo -Isrc/core/common -Isrc/util)
# A state includes the contents of the stacks, which must not hold old values.
as_state=(-fno-omit-frame-pointer -ftrivial-auto-var-init=zero)

# The model with a given pipeline.cpp. $1: its path; $2: the program.
build() {
  "${compile[@]}" "${as_state[@]}" "-DPIPELINE_SOURCE=\"$1\"" -c tests/model/pipeline_model.cpp -o "$2.o"
  g++ "$2.o" "$work/engine.o" -o "$2"
}

# $1: what the program must do, "passes" or "fails"; the others: the program and its search.
search() {
  local expected=$1 program=$2 end=passes log
  shift 2
  log=$(mktemp -p "$work")
  "$program" "$@" >"$log" 2>&1 || end=fails
  if [ "$end" != "$expected" ]; then
    cat "$log"
    echo "check_model.sh: $* $end" >&2
    return 1
  fi
  printf '%-15s %-7s %s\n' "$1" "$2" "$(tail -n 1 "$log")"
}

"${compile[@]}" -w -c tests/model/engine.cpp -o "$work/engine.o"
build "$PWD/src/openlib/ruvo/pipeline.cpp" "$work/model"
search passes "$work/model" two states
search passes "$work/model" two bound 2
search passes "$work/model" once bound 1
for scenario in $("$work/model" names); do
  search passes "$work/model" "$scenario" random "$executions"
done

# Plants a fault. $1: the original text; $2: the replacement; $3: the file.
plant() {
  python3 - "$@" <<'CODE'
import re, sys
before, after, path = sys.argv[1:]
text = open("src/openlib/ruvo/pipeline.cpp").read()
pattern = r"\s+".join(re.escape(word) for word in before.split())
text, count = re.subn(pattern, lambda _: after, text)
if count != 1:
    sys.exit(f"check_model.sh: occurs {count} times in pipeline.cpp: {before}")
open(path, "w").write(text)
CODE
}

# $1: its number; $2: the row.
find_fault() {
  local scenario before after found program=$work/fault$1
  scenario=${2%% ~>*}
  after=${2##*~>}
  before=${2#* ~> }
  before=${before% ~>*}
  mkdir "$program.source"
  plant "$before" "${after# }" "$program.source/pipeline.cpp"
  build "$program.source/pipeline.cpp" "$program"
  found=$(search fails "$program" "$scenario" random 1000000)
  echo "found in $found: $before ~>$after"
}

mapfile -t rows < <(grep -vE '^(#|$)' tests/model/faults.txt)
[ ${#rows[@]} -gt 0 ]
for ((i = 0; i < ${#rows[@]}; i += 2)); do
  find_fault "$i" "${rows[i]}" &
  first=$!
  [ $((i + 1)) -ge ${#rows[@]} ] || find_fault $((i + 1)) "${rows[i + 1]}"
  wait "$first"
done
echo "${#rows[@]} planted faults found"
