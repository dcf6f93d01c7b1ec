# Draws the results of `kelo_bench --scale` (run by tools/run-bench.sh --scale).
#   gnuplot -e "dat='scale.dat'; outdir='docs'" tools/scale-plot.gp
# Blocks of the data file: index 0 = picture cache on disk, index 1 = on tmpfs.
# Columns: place dishes cold_us warm_us rewrite_us peak_growth_mb goal_mb vmhwm_mb reply_kb load
#          cloud_records_mb
set terminal pngcairo size 800,480 font ",10"
set logscale x
set xrange [70:14000]
set xtics ("100" 100, "1,000" 1000, "10,000" 10000)
set xlabel "dishes in the menu"
set key top left
set grid

set output outdir."/scale-per-dish.png"
set title "Cost per dish (median of the runs at each size)"
set ylabel "microseconds per dish"
set logscale y
plot dat index 0 using 2:3 with linespoints lw 2 title "cold sync, disk", \
     dat index 1 using 2:3 with linespoints lw 2 dt 2 title "cold sync, tmpfs", \
     dat index 0 using 2:4 with linespoints lw 2 title "warm sync, disk", \
     dat index 1 using 2:4 with linespoints lw 2 dt 2 title "warm sync, tmpfs", \
     dat index 0 using 2:5 with linespoints lw 2 title "catalogue rewrite"

set output outdir."/scale-memory.png"
set title "Peak resident memory added by one menu sync (VmHWM), against the goal"
set ylabel "MB"
unset logscale y
set yrange [0:*]
plot dat index 0 using 2:6 with linespoints lw 2 title "peak growth, disk", \
     dat index 1 using 2:6 with linespoints lw 2 dt 2 title "peak growth, tmpfs", \
     dat index 0 using 2:($6-$11) with linespoints lw 2 title "less the simulator's request records, disk", \
     dat index 0 using 2:7 with lines lw 2 lc rgb "red" title "goal: 3x reply + 20 MB"
