# Draws performance.csv for docs/performance.md. Runs in the folder of that file, which also gets the output.
set datafile separator ","
set datafile columnheaders
set datafile missing NaN
set terminal svg size 900,640 noenhanced font "sans,11" background "white"
set grid
set logscale x 2
set key below samplen 2
sides = "hiredis pipelined library"
titles = "'bare hiredis' 'auto_pipelining' 'without it'"

# GET of 100 B over a network of this round trip by one side; all others become NaN, which is not drawn.
of(round_trip, side, value) = strcol("operation") eq "GET" && column("bytes") == 100 && strcol("log") eq "WARN" \
  && column("round_trip_ms") == round_trip && strcol("side") eq side ? value : NaN
# With this many connections (0: as many as threads). Bare hiredis, with a connection for each thread, is measured
# again in each of these cases.
on(connections, value) = column("connections") == (connections > 0 ? connections : column("threads")) ? value : NaN
with_threads(threads, value) = column("threads") == threads ? value : NaN
thousands(name) = column(name) / 1000

name(round_trip) = round_trip == 0 ? "loopback" : sprintf("RTT %g ms", round_trip)

set output "performance_network.svg"
set multiplot layout 2,3 title "GET of 100 B over a network: auto_pipelining on one connection, bare hiredis on one for each thread"
set xrange [0.9:70]
set xtics (1, 2, 4, 8, 16, 64)
set xlabel "threads"
do for [row = 1:2] {
  do for [round_trip in "0.2 1 5"] {
    set logscale y
    set title name(real(round_trip)) . (row == 1 ? ", thousand calls/s" : ", ms: p50, p99 (dashed)")
    set yrange [*:*]
    if (row == 1) {
      plot for [i = 1:2] "performance.csv" \
        using "threads":(of(real(round_trip), word(sides, i), on(1, thousands("calls_per_s")))) \
        with linespoints linecolor i pointtype 7 pointsize 0.5 title word(titles, i)
    } else {
      plot for [i = 1:2] "performance.csv" \
          using "threads":(of(real(round_trip), word(sides, i), on(1, thousands("p50_us")))) \
          with linespoints linecolor i pointtype 7 pointsize 0.5 notitle, \
        for [i = 1:2] "performance.csv" \
          using "threads":(of(real(round_trip), word(sides, i), on(1, thousands("p99_us")))) \
          with linespoints linecolor i dashtype 2 pointtype 7 pointsize 0.5 notitle
    }
  }
}
unset multiplot

set output "performance_loopback.svg"
set multiplot layout 2,2 title "GET of 100 B on loopback"
do for [row = 1:2] {
  do for [connections = 0:1] {
    where = connections == 0 ? "as many connections as threads" : "one connection"
    if (row == 1) {
      unset logscale y
      set yrange [0:*]
      set title where . ", thousand calls/s"
      plot for [i = 1:3] "performance.csv" \
        using "threads":(of(0, word(sides, i), on(connections, thousands("calls_per_s")))):(thousands("calls_per_s_q1")):(thousands("calls_per_s_q3")) \
        with yerrorlines linecolor i pointtype 7 pointsize 0.5 title word(titles, i)
    } else {
      set logscale y
      set yrange [*:*]
      set title where . ", µs: p50, p99 (dashed)"
      plot for [i = 1:3] "performance.csv" \
          using "threads":(of(0, word(sides, i), on(connections, column("p50_us")))) \
          with linespoints linecolor i pointtype 7 pointsize 0.5 notitle, \
        for [i = 1:3] "performance.csv" \
          using "threads":(of(0, word(sides, i), on(connections, column("p99_us")))) \
          with linespoints linecolor i dashtype 2 pointtype 7 pointsize 0.5 notitle
    }
  }
}
unset multiplot

set output "performance_connections.svg"
set multiplot layout 2,2 title "GET of 100 B, 64 threads on fewer connections"
set xlabel "connections"
do for [row = 1:2] {
  do for [round_trip = 1:0:-1] {
    set logscale y
    set yrange [*:*]
    set title name(round_trip) . (row == 1 ? ", thousand calls/s" : ", ms: p50, p99 (dashed)")
    if (row == 1) {
      plot for [i = 1:3] "performance.csv" \
        using "connections":(of(round_trip, word(sides, i), with_threads(64, thousands("calls_per_s")))) \
        with linespoints linecolor i pointtype 7 pointsize 0.5 title word(titles, i)
    } else {
      plot for [i = 1:3] "performance.csv" \
          using "connections":(of(round_trip, word(sides, i), with_threads(64, thousands("p50_us")))) \
          with linespoints linecolor i pointtype 7 pointsize 0.5 notitle, \
        for [i = 1:3] "performance.csv" \
          using "connections":(of(round_trip, word(sides, i), with_threads(64, thousands("p99_us")))) \
          with linespoints linecolor i dashtype 2 pointtype 7 pointsize 0.5 notitle
    }
  }
}
unset multiplot
