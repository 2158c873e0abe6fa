#!/usr/bin/env bash
# Puts faults on one of two servers below a host (it hangs for a minute, is gone, restarts, turns into a replica),
# without any key and as a new site is configured, and draws the host's goodput, as docs/operations.md shows it. Takes
# six minutes of a machine that does nothing else.
#
#   scripts/plot_worst_case.sh [FOLDER]     where worst_case.csv and the picture go (docs/figures)
#   scripts/plot_worst_case.sh --draw       only draws what the CSV has
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
set terminal svg size 1200,600 noenhanced font "sans,12" background "white"
set output "worst_case.svg"
set multiplot layout 2,4
set grid
set key below
set xtics 10
set logscale y
configurations = "'no key' 'recommended'"
array fault[4] = ["hang", "kill", "restart", "failover"]
array text[4] = ["hangs, second 10 to 70", "gone, second 10 to 25", "restarts at second 10", "a replica, second 10 to 25"]
of(number, name, value) = strcol(1) eq fault[number] && strcol(2) eq name ? value : NaN
# A logarithmic axis has no place for none: a second in which no call was served is a gap.
some(value) = value > 0 ? value : NaN
set yrange [1:*]
set ylabel "calls served per second"
do for [i = 1:4] {
  set title "one of two servers " . text[i]
  plot for [n in configurations] "worst_case.csv" using 3:(of(i, n, some(column(4) - column(5)))) \
    with lines linewidth 2 title n
  unset ylabel
}
set yrange [0.1:*]
set ylabel "slowest call, milliseconds"
set xlabel "seconds"
unset title
do for [i = 1:4] {
  plot for [n in configurations] "worst_case.csv" using 3:(of(i, n, column(6))) with lines linewidth 2 title n
  unset ylabel
}
unset multiplot
PLOT
