#!/usr/bin/env bash
# Measures the library, with and without auto_pipelining, together with bare hiredis and a hand-written pool, over a
# network and on loopback, draws the results, and compares them with the aims. Takes some eight minutes on an otherwise
# idle machine; with RUVO_BENCH_ROUNDS=1 in the environment half a minute, as a trial run.
#
#   scripts/bench.sh [FOLDER] [OPTION...]
#       FOLDER   where performance.csv and the pictures go (build/plots); docs/figures for those of the guide,
#                whose tables the script then updates, too
#       OPTION   of the benchmark, such as --rounds 5 or --full; --help lists them. One that chooses cases leaves
#                the pictures, their data and the guide unchanged.
#
#   scripts/bench.sh --quick
#       auto_pipelining on one connection and bare hiredis, on loopback and over a network, in half a minute:
#       for a quick check of a change.
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
cp "$measured" "$folder/performance.csv"  # complete, or unchanged
guide=()
if [ "$folder" -ef docs/figures ]; then guide=(docs/performance.md); fi
bench/tables.py "$folder/performance.csv" "${guide[@]}"

plots=$PWD/bench/performance.gnuplot
cd "$folder"
gnuplot "$plots"
