#!/usr/bin/env bash
# Measures the library, with and without auto_pipelining, beside bare hiredis and a hand-written pool, draws what it
# found, and tells how it stands to the aims.
#
#   scripts/bench.sh [FOLDER] [OPTION...]
#       FOLDER   where performance.csv and the pictures go (build/plots); docs/figures for those of the guide,
#                whose tables are then made anew too
#       OPTION   of the benchmark, as --full or --rounds 5; --help lists them
#
#   scripts/bench.sh --quick
#       auto_pipelining on one connection beside bare hiredis, on loopback and over a network, in half a minute:
#       what whoever changes it looks at; draws nothing
set -euo pipefail
cd "$(dirname "$0")/.."
folder=build/plots
case ${1:-} in -* | "") ;; *) folder=$1; shift ;; esac
guide=()
if [ "$folder" -ef docs/figures ]; then guide=(docs/performance.md); fi

scripts/deps.sh build bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target ruvo_bench
mkdir -p "$folder"
build/bench/bench/ruvo_bench --csv "$folder/performance.csv" "$@"
echo
bench/tables.py "$folder/performance.csv" "${guide[@]}"
case " $* " in *" --quick "*) exit ;; esac

cd "$folder"
gnuplot <<'PLOT'
set datafile separator ","
set datafile columnheaders
set datafile missing NaN
set terminal svg size 900,450 noenhanced font "sans,13" background "white"
set grid
set logscale x 2
set xrange [0.9:70]
set xtics (1, 2, 4, 8, 16, 64)
sides = "library shared hiredis pool"
titles = "'library' 'shared: with auto_pipelining' 'bare hiredis' 'hand-written pool'"
set key below
# An operation at 100 B on loopback by one side; others are no numbers and are left out.
of(name, side, value) = strcol("operation") eq name && column("bytes") == 100 && strcol("log") eq "WARN" \
  && column("round_trip_ms") == 0 && strcol("side") eq side ? value : NaN
# With so many connections (0: as many as threads), and with so many threads.
on(connections, value) = column("connections") == (connections > 0 ? connections : column("threads")) ? value : NaN
by(threads, value) = column("threads") == threads ? value : NaN
thousands(name) = column(name) / 1000

set output "performance_throughput.svg"
set multiplot layout 1,2 title "GET of 100 B, calls per second, thousands: median and quartiles"
set xlabel "threads"
set yrange [0:*]
do for [connections in "0 4"] {
  set title (connections eq "0" ? "as many connections as threads" : "4 connections")
  plot for [i = 1:words(sides)] "performance.csv" \
    using "threads":(of("GET", word(sides, i), on(int(connections), thousands("calls_per_s")))):(thousands("calls_per_s_q1")):(thousands("calls_per_s_q3")) \
    with yerrorlines linecolor i pointtype 7 pointsize 0.5 title word(titles, i)
}
unset multiplot

set output "performance_latency.svg"
set multiplot layout 1,2 title "Latency of GET and SET of 100 B, microseconds, as many connections as threads"
set logscale y
set yrange [10:*]
do for [name in "GET SET"] {
  set title name . ": median, and 99th percentile (dashed)"
  plot for [i = 1:words(sides)] "performance.csv" \
      using "threads":(of(name, word(sides, i), on(0, column("p50_us")))) \
      with linespoints linecolor i pointtype 7 pointsize 0.5 title word(titles, i), \
    for [i = 1:words(sides)] "performance.csv" using "threads":(of(name, word(sides, i), on(0, column("p99_us")))) \
      with linespoints linecolor i dashtype 2 pointtype 7 pointsize 0.5 notitle
}
unset multiplot

set output "performance_sharing.svg"
set multiplot layout 1,2 title "GET of 100 B in 64 threads, fewer connections (bare hiredis: always 64)"
set xlabel "connections"
unset logscale y
set yrange [0:*]
set title "calls per second, thousands: median and quartiles"
plot for [i = 1:words(sides)] "performance.csv" \
  using "connections":(of("GET", word(sides, i), by(64, thousands("calls_per_s")))):(thousands("calls_per_s_q1")):(thousands("calls_per_s_q3")) \
  with yerrorlines linecolor i pointtype 7 pointsize 0.5 title word(titles, i)
set logscale y
set yrange [10:*]
set title "latency, µs: median, and 99th percentile (dashed)"
plot for [i = 1:words(sides)] "performance.csv" \
    using "connections":(of("GET", word(sides, i), by(64, column("p50_us")))) \
    with linespoints linecolor i pointtype 7 pointsize 0.5 title word(titles, i), \
  for [i = 1:words(sides)] "performance.csv" \
    using "connections":(of("GET", word(sides, i), by(64, column("p99_us")))) \
    with linespoints linecolor i dashtype 2 pointtype 7 pointsize 0.5 notitle
unset multiplot
PLOT
