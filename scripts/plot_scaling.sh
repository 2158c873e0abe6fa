#!/usr/bin/env bash
# Runs the simulation of docs/scaling.md and draws its pictures. Gives the same numbers each time.
#
#   scripts/plot_scaling.sh [FOLDER]     where scaling.csv and the pictures go (docs/figures)
set -euo pipefail
cd "$(dirname "$0")/.."
folder=${1:-docs/figures}

scripts/deps.sh build test plot
cmake --preset bench >/dev/null
cmake --build --preset bench --target scaling_simulation
mkdir -p "$folder"
build/bench/simulation/scaling_simulation >"$folder/scaling.csv"

# The columns of the CSV: series, hosts, threads, connections, servers, requests per second, mean, p50, p99.
cd "$folder"
gnuplot <<'PLOT'
set datafile separator ","
set terminal svg size 900,430 noenhanced font "sans,13" background "white"
set grid
set key below maxrows 3
# The points of one picture and one number of threads; all others become NaN, which is not drawn.
of(name, threads, value) = strcol(1) eq name && column(3) == threads ? value : NaN

set output "scaling_connections.svg"
set multiplot layout 1,2
set logscale x 2
set xrange [1:128]
set xlabel "connections to each of two servers"
set ylabel "requests per second, thousands"
threads = "4 16 64"
plot for [i = 1:3] "scaling.csv" using 4:(of("connections", int(word(threads, i)), column(6) / 1000)) \
    with linespoints linecolor i pointtype 7 pointsize 0.5 title word(threads, i) . " threads", \
  for [i = 1:3] "scaling.csv" using 4:(of("shared", int(word(threads, i)), column(6) / 1000)) \
    with linespoints linecolor i dashtype 2 pointtype 6 pointsize 0.5 title word(threads, i) . ", auto_pipelining"
set logscale y
set ylabel "99th percentile, milliseconds"
plot for [i = 1:3] "scaling.csv" using 4:(of("connections", int(word(threads, i)), column(9) / 1000)) \
    with linespoints linecolor i pointtype 7 pointsize 0.5 title word(threads, i) . " threads", \
  for [i = 1:3] "scaling.csv" using 4:(of("shared", int(word(threads, i)), column(9) / 1000)) \
    with linespoints linecolor i dashtype 2 pointtype 6 pointsize 0.5 title word(threads, i) . ", auto_pipelining"
unset multiplot
unset logscale

set output "scaling_servers.svg"
set multiplot layout 1,2
set xrange [1:8]
set xlabel "servers"
set ylabel "requests per second, thousands"
plot for [t in "4 16 64"] "scaling.csv" using 5:(of("servers", int(t), column(6) / 1000)) \
  with linespoints pointtype 7 pointsize 0.5 title "8 hosts x " . t . " threads"
set logscale y
set ylabel "99th percentile, milliseconds"
plot for [t in "4 16 64"] "scaling.csv" using 5:(of("servers", int(t), column(9) / 1000)) \
  with linespoints pointtype 7 pointsize 0.5 title "8 hosts x " . t . " threads"
unset multiplot
PLOT
