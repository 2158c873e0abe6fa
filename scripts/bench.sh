#!/usr/bin/env bash
# Measures the library beside bare hiredis and a hand-written pool, and draws what it found.
# bench/tables.py makes the tables of docs/performance.md of it.
#
#   scripts/bench.sh [FOLDER] [OPTION...]
#       FOLDER   where performance.csv and the pictures go (build/plots); docs/figures for those of the guide
#       OPTION   of the benchmark, as --full or --rounds 5; --help lists them
set -euo pipefail
cd "$(dirname "$0")/.."
folder=build/plots
case ${1:-} in -* | "") ;; *) folder=$1; shift ;; esac

scripts/deps.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target ruvo_bench
mkdir -p "$folder"
build/bench/bench/ruvo_bench --csv "$folder/performance.csv" "$@"

# The columns of the CSV that are drawn: 1 operation, 2 bytes, 3 threads, 4 connections, 5 log, 6 side,
# 7 calls per second with the quartiles in 8 and 9, 15 and 17 the percentiles 50 and 99.
cd "$folder"
gnuplot <<'PLOT'
set datafile separator ","
set datafile missing NaN
set terminal svg size 900,450 font "sans,13" background "white"
set grid
set logscale x 2
set xrange [0.9:70]
set xtics (1, 2, 4, 16, 64)
set xlabel "threads"
sides = "library hiredis pool"
titles = "'library' 'bare hiredis' 'hand-written pool'"
set key below
# One operation at 100 B by one side, with so many connections (0: as many as threads); others are no
# numbers and are left out.
of(name, side, connections, value) = strcol(1) eq name && column(2) == 100 && strcol(5) eq "WARN" \
  && strcol(6) eq side && column(4) == (connections > 0 ? connections : column(3)) ? value : NaN

set output "performance_throughput.svg"
set multiplot layout 1,2 title "GET of 100 B, calls per second, thousands: median and quartiles"
set yrange [0:*]
do for [connections in "0 4"] {
  set title (connections eq "0" ? "as many connections as threads" : "4 connections")
  plot for [i = 1:3] "performance.csv" \
    using 3:(of("GET", word(sides, i), int(connections), column(7) / 1000)):(column(8) / 1000):(column(9) / 1000) \
    with yerrorlines linecolor i pointtype 7 pointsize 0.5 title word(titles, i)
}
unset multiplot

set output "performance_latency.svg"
set multiplot layout 1,2 title "Latency of GET and SET of 100 B, microseconds, as many connections as threads"
set logscale y
set yrange [10:*]
do for [name in "GET SET"] {
  set title name . ": median, and 99th percentile (dashed)"
  plot for [i = 1:3] "performance.csv" using 3:(of(name, word(sides, i), 0, column(15))) \
      with linespoints linecolor i pointtype 7 pointsize 0.5 title word(titles, i), \
    for [i = 1:3] "performance.csv" using 3:(of(name, word(sides, i), 0, column(17))) \
      with linespoints linecolor i dashtype 2 pointtype 7 pointsize 0.5 notitle
}
unset multiplot
PLOT
