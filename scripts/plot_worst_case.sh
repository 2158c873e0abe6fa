#!/usr/bin/env bash
# Injects faults into one of a host's two servers: it hangs for a minute, is down, restarts, becomes a replica. The host
# runs once without any key and once with a new site's configuration. Draws the calls served and the slowest call, for
# docs/operations.md. Takes six minutes on an otherwise idle machine.
#
#   scripts/plot_worst_case.sh [FOLDER]     where worst_case.csv and the picture go (docs/figures)
#   scripts/plot_worst_case.sh --draw       only draws the CSV that is there
set -euo pipefail
cd "$(dirname "$0")/.."
folder=docs/figures
[ "${1:-}" = --draw ] || folder=${1:-$folder}

if [ "${1:-}" != --draw ]; then
  scripts/deps.sh build test plot
  cmake --preset bench >/dev/null
  cmake --build --preset bench --target worst_case
  mkdir -p "$folder"
  build/bench/bench/worst_case >"$folder/worst_case.csv"
fi

# The columns of the CSV: fault, configuration, second, calls, failed, slowest call in ms, lines of the log.
cd "$folder"
gnuplot <<'PLOT'
set datafile separator ","
set terminal svg size 1000,500 noenhanced font "sans,12" background "white"
set output "worst_case.svg"
set multiplot layout 2,4
set grid
set key top right samplen 1 spacing 0.9
configurations = "'no key' 'recommended'"
array fault[4] = ["hang", "kill", "restart", "failover"]
array text[4] = ["hangs, 10 to 70", "is gone, 10 to 25", "restarts at 10", "a replica, 10 to 25"]
array end[4] = [80, 35, 25, 35]
of(number, name, value) = strcol(1) eq fault[number] && strcol(2) eq name ? value : NaN
set yrange [0:*]
set ylabel "thousand calls served/s"
do for [i = 1:4] {
  set xrange [0:end[i]]
  set xtics end[i] > 50 ? 20 : 10
  set title "one of 2 " . text[i]
  plot for [n in configurations] "worst_case.csv" using 3:(of(i, n, (column(4) - column(5)) / 1000)) \
    with lines linewidth 2 notitle
  unset ylabel
}
set logscale y
set yrange [1:10000]
set ylabel "slowest call, milliseconds"
set xlabel "seconds"
unset title
do for [i = 1:4] {
  set xrange [0:end[i]]
  set xtics end[i] > 50 ? 20 : 10
  plot for [n in configurations] "worst_case.csv" using 3:(of(i, n, column(6))) with lines linewidth 2 \
    title i == 4 ? n : ""
  unset ylabel
}
unset multiplot
PLOT
