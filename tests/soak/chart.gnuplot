# Draws the samples of a soak: gnuplot -e "csv='FILE'; svg='FILE'" chart.gnuplot
set datafile separator ','
set terminal svg size 900,700 background rgb 'white'
set output svg
set multiplot layout 3,1
set xlabel 'jobs'
set yrange [0:*]
set key outside right
set title 'memory in use (KB)'
plot csv using 1:($5/1024) with lines title 'heap' lw 2, csv using 1:($6/1024) with lines title 'working set' lw 2
set title 'handles'
plot for [i=9:14] csv using 1:i with lines title columnheader(i) lw 2
set title 'threads; keys that no read has left open'
plot csv using 1:3 with lines title 'threads' lw 2, csv using 1:8 with lines title 'keys' lw 2
unset multiplot
