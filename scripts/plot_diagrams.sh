#!/usr/bin/env bash
# Draws the states of a server and the waits of a call, as docs/operations.md shows them, from docs/figures/*.dot and
# visits.csv.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh plot
cd docs/figures
dot -Tsvg server_states.dot >server_states.svg
gnuplot <<'PLOT'
set datafile separator ","
set terminal svg size 1000,330 noenhanced font "sans,12" background "white"
set output "visits.svg"
set key outside center top horizontal
set xlabel "milliseconds; connect_timeout 200, socket_timeout 500, call_timeout 1200 (dashed)" offset -20
set xrange [0:1300]
set yrange [0.4:6.6]
set lmargin 46
set style fill solid 0.8
set grid xtics
waits = "reply connect probe other"
array text[4] = ["for a reply", "for a connection", "for the next probe", "the reply of a server that is well"]
of(name, value) = strcol(5) eq name ? value : NaN
set arrow from 1200, graph 0 to 1200, graph 1 nohead dashtype 2
plot for [i = 1:4] "visits.csv" skip 2 using 3:(of(word(waits, i), $1)):3:4:($1 - 0.3):($1 + 0.3) \
       with boxxyerror title text[i], \
     "" skip 2 using (0):1:ytic(strcol(2) eq "" ? NaN : strcol(2)) with dots notitle
PLOT
