#!/usr/bin/env bash
# Stops one of two servers below a host for a minute, without any key and with a new site's configuration, and draws
# the results of its calls, for docs/operations.md. Takes three minutes on an otherwise idle machine.
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

# The columns of the CSV: configuration, second, calls, failed, slowest call in ms, lines of the log.
cd "$folder"
gnuplot <<'PLOT'
set datafile separator ","
set terminal svg size 900,400 noenhanced font "sans,12" background "white"
set output "worst_case.svg"
set multiplot layout 1,2
set grid
set key below
set xlabel "seconds; one of two servers is stopped from 10 to 70"
set logscale y
configurations = "'no key' 'recommended'"
of(name, value) = strcol(1) eq name ? value : NaN
# A logarithmic axis has no zero: a second in which no call ended is a gap.
some(value) = value > 0 ? value : NaN
set title "calls per second"
set yrange [1:*]
plot for [n in configurations] "worst_case.csv" using 2:(of(n, some(column(3)))) with lines linewidth 2 title n
set title "slowest call, milliseconds"
set yrange [0.1:*]
plot for [n in configurations] "worst_case.csv" using 2:(of(n, column(5))) with lines linewidth 2 title n
unset multiplot
PLOT
