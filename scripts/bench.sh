#!/usr/bin/env bash
# Measures the library, with and without auto_pipelining, beside bare hiredis and a hand-written pool, over a network
# and on loopback, draws what it found, and tells how it stands to the aims. Takes some eight minutes of a machine that
# does nothing else; with RUVO_BENCH_ROUNDS=1 in the environment half a minute, to see that it runs.
#
#   scripts/bench.sh [FOLDER] [OPTION...]
#       FOLDER   where performance.csv and the pictures go (build/plots); docs/figures for those of the guide,
#                whose tables are then made anew too
#       OPTION   of the benchmark, as --rounds 5 or --full; --help lists them. One that chooses cases leaves the
#                pictures, their data and the guide alone.
#
#   scripts/bench.sh --quick
#       auto_pipelining on one connection beside bare hiredis, on loopback and over a network, in half a minute:
#       what whoever changes it looks at.
set -euo pipefail
cd "$(dirname "$0")/.."
folder=build/plots
case ${1:-} in -* | "") ;; *) folder=$1; shift ;; esac

scripts/deps.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target ruvo_bench
whole=yes
for option in "$@"; do
  case $option in
    --help | -h) sed -nE '/^#!/d; /^#/!q; s/^# ?//p' scripts/bench.sh; exec build/bench/bench/ruvo_bench --help ;;
    --quick | --full | --operation* | --bytes* | --threads* | --connections* | --round-trip* | --sides*) whole= ;;
  esac
done
measured=$(mktemp)
trap 'rm -f "$measured"' EXIT
build/bench/bench/ruvo_bench --csv "$measured" "$@"
echo
if [ -z "$whole" ]; then
  bench/tables.py "$measured"
  exit
fi
mkdir -p "$folder"
cp "$measured" "$folder/performance.csv"  # whole, or as it was
guide=()
if [ "$folder" -ef docs/figures ]; then guide=(docs/performance.md); fi
bench/tables.py "$folder/performance.csv" "${guide[@]}"

plots=$PWD/bench/performance.gnuplot
cd "$folder"
gnuplot "$plots"
