# Draws a shop day of `kelo_bench --day` (run by tools/run-bench.sh --day).
#   gnuplot -e "dat='day.dat'; out='docs/shop-day.png'" tools/day-plot.gp
# Blocks of the data file: index 0 = samples (t_s rss_mb fds), index 1 = calls (t_s outcome_s
# outcome kind; outcome 0 answered, 1 app error, 2 network error, 3 none within the deadline),
# index 2 = link events (start_s end_s type; 0 blackhole, 1 loss, 2 4g, 3 cloud restart).
set terminal pngcairo size 1000,800 font ",10"
set output out
set multiplot layout 3,1 title "A shop day on the network lab"
set grid
set key bottom right
set xlabel "seconds into the day"
# One time axis for the three panels: the day's length from the samples.
stats dat index 0 using 1 nooutput
set xrange [0:STATS_max]

set title "Resident memory and open descriptors (sampled every second)"
set ylabel "MB"
set y2label "descriptors"
set ytics nomirror
set y2tics
plot dat index 0 using 1:2 with lines lw 2 title "resident memory", \
     dat index 0 using 1:3 axes x1y2 with steps lw 1 title "open descriptors"
unset y2label
unset y2tics
set ytics mirror

set title "Time to each call's outcome"
set ylabel "seconds"
set logscale y
plot dat index 1 using 1:($3 == 0 ? $2 : 1/0) with points pt 7 ps 0.5 title "answered", \
     dat index 1 using 1:($3 == 1 ? $2 : 1/0) with points pt 5 ps 0.6 title "app error", \
     dat index 1 using 1:($3 == 2 ? $2 : 1/0) with points pt 9 ps 0.8 title "network error", \
     dat index 1 using 1:($3 == 3 ? $2 : 1/0) with points pt 3 ps 1.2 lc rgb "red" title "no outcome (deadline)"
unset logscale y

set title "Link events"
set ylabel ""
set yrange [-0.5:3.5]
set ytics ("blackhole" 0, "loss" 1, "4g" 2, "cloud restart" 3)
set key off
plot dat index 2 using 1:3:1:2:($3-0.3):($3+0.3) with boxxyerror fs solid 0.5 lw 1 title "events"
unset multiplot
