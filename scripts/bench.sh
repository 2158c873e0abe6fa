#!/usr/bin/env bash
# Measures the library, with and without auto_pipelining, beside bare hiredis and a hand-written pool, over a network
# and on loopback, draws what it found, and tells how it stands to the aims. Takes some eight minutes of a machine that
# does nothing else; with RUVO_BENCH_ROUNDS=1 in the environment half a minute, to see that it runs.
#
#   scripts/bench.sh [FOLDER] [OPTION...]
#       FOLDER   where performance.csv and the pictures go (build/plots); docs/figures for those of the guide,
#                whose tables are then made anew too
#       OPTION   of the benchmark, as --rounds 5 or --full; --help lists them. Those that choose cases leave the
#                pictures and the guide as they are
#
#   scripts/bench.sh --quick
#       auto_pipelining on one connection beside bare hiredis, on loopback and over a network, in half a minute:
#       what whoever changes it looks at; draws nothing
set -euo pipefail
cd "$(dirname "$0")/.."
folder=build/plots
case ${1:-} in -* | "") ;; *) folder=$1; shift ;; esac
# What measures only some cases leaves the guide and the pictures alone.
case " $* " in
  *" --quick "* | *" --full "* | *" --operation "* | *" --bytes "* | *" --threads "* | *" --connections "* | \
    *" --round-trip "* | *" --sides "*) whole= ;;
  *) whole=yes ;;
esac
guide=()
if [ -n "$whole" ] && [ "$folder" -ef docs/figures ]; then guide=(docs/performance.md); fi

scripts/deps.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target ruvo_bench
mkdir -p "$folder"
build/bench/bench/ruvo_bench --csv "$folder/performance.csv" "$@"
echo
bench/tables.py "$folder/performance.csv" "${guide[@]}"
[ -n "$whole" ] || exit 0

plots=$PWD/bench/performance.gnuplot
cd "$folder"
gnuplot "$plots"
