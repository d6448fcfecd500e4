# Time against rule count: cfgupgrade, the I/O floor and the scripted peer.
# Called by bench/run.sh with results='DIR' and out='FILE.png'.
set terminal pngcairo size 900,560 font ",11"
set output out
set title "Whole-process time of a first run in mode dev, typical image, by rule count"
set xlabel "rules in the rule file"
set ylabel "wall time, ms (median)"
set logscale xy
set grid xtics ytics mxtics mytics
set key top left
set format y "%g"
set xrange [70:14000]
set datafile missing "NaN"
data = "< sort -n " . results . "/scaling.dat"
plot data using 1:2 with linespoints lw 2 pt 7 title "cfgupgrade", \
     data using 1:3 with linespoints lw 2 pt 5 title "I/O floor", \
     data using 1:4 with linespoints lw 2 pt 9 title "scripted peer (crudini)"
