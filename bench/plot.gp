# The chart of a benchmark run, from the files dravinhold_bench writes with
# --summary_dir. Called by run_benchmarks.sh as
#   gnuplot -e "dir='bench/results'" bench/plot.gp
# Left: each operation, the library against raw (raw = 1), with its goal.
# Right: throughput against thread count, library and raw.
if (!exists("dir")) dir = "bench/results"
bars = dir."/bars.tsv"
threads = dir."/threads.tsv"
nbars = int(system("cat '".dir."/bars.count'"))
nblocks = int(system("cat '".dir."/threads.count'"))

set terminal pngcairo size 1800,1000 font "DejaVu Sans,10" noenhanced
set output dir."/benchmarks.png"
set datafile separator "\t"
set multiplot

# --- Library against raw ---------------------------------------------------------
set origin 0,0
set size 0.66,1
set lmargin 58
set rmargin 2
set title "libdravinhold against raw LevelDB + protobuf, medians (raw = 1; time, or peak memory)"
set yrange [nbars - 0.5 : -0.5]
set ytics nomirror font ",9"
set xrange [0 : *]
set offsets 0, 0.35, 0, 0
set xtics nomirror
set grid xtics
set xlabel "library / raw"
set key top right box opaque
set style fill solid 0.8 border -1
plot bars using (0.5):($1 - 0.2):(0):(1):($1 - 0.38):($1 - 0.02) \
       with boxxyerror lc rgb "#9e9e9e" title "raw", \
     bars using ($3 / 2):($1 + 0.2):(0):3:($1 + 0.02):($1 + 0.38):ytic(2) \
       with boxxyerror lc rgb "#1f77b4" title "library", \
     bars using ($4 > 0 ? $4 : 1/0):1 with points pt 7 ps 1.2 lc rgb "#d62728" title "goal (at most)", \
     bars using ((($3 > 1 ? $3 : 1) > $4 ? ($3 > 1 ? $3 : 1) : $4) + 0.04):1:5 \
       with labels left font ",8" notitle

# --- Throughput against threads ----------------------------------------------------
set origin 0.66,0
set size 0.34,1
set lmargin 10
unset grid
set grid ytics
set title "Throughput against thread count (all threads together)"
set offsets 0, 0, 0, 0
set xrange [0.8 : 2.2]
set xtics 1 nomirror
set yrange [* : *]
set logscale y
set ytics auto font ",9"
set xlabel "threads"
set ylabel "operations per second"
set key top left box opaque font ",8"
plot for [i=0:nblocks-1] threads index i using 2:3 with linespoints lw 2 pt 7 lc i+1 \
       title columnheader(1)." (library)", \
     for [i=0:nblocks-1] threads index i using 2:4 with linespoints lw 2 dt 2 pt 6 lc i+1 \
       title columnheader(1)." (raw)"

unset multiplot
