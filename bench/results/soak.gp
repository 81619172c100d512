# Draws the rows of a soak run (bench/soak): RSS and descriptors above,
# check lateness below, against the minutes since qorhost started.
#   gnuplot -e "csv='soak.csv'; png='soak.png'; heading='...'" soak.gp
# bench/soak --plot PNG runs it so.
if (!exists("csv")) csv = "soak-60min.csv"
if (!exists("png")) png = "soak-60min.png"
if (!exists("heading")) heading = "qorhost soak"

set terminal pngcairo size 1000,800 font ",10"
set output png
set datafile separator ","
set key autotitle columnhead top left
set grid
set multiplot layout 2,1 title heading

set title "Memory and descriptors"
set xlabel "minute"
set ylabel "RSS (MiB)"
set y2label "descriptors, threads"
set ytics nomirror
set y2tics
set y2range [0:*]
plot csv using 1:($2/1024.0) with linespoints title "RSS (MiB)" axes x1y1, \
     csv using 1:3 with steps title "descriptors" axes x1y2, \
     csv using 1:4 with steps title "threads" axes x1y2

set title "Check lateness per minute"
set ylabel "lateness (ms)"
unset y2label
unset y2tics
set ytics mirror
set logscale y
plot csv using 1:6 with linespoints title "median", \
     csv using 1:7 with linespoints title "p99", \
     csv using 1:8 with linespoints title "max"
unset multiplot
