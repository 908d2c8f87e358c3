# Draws the message sweep (message_bench --sweep) as cost in copies against size, encoding and
# decoding side by side. Usage: gnuplot -e "dir='DIR'; out='FILE.svg'" bench/sweep.gp, with
# DIR holding shuffled.sweep, ascending.sweep and descending.sweep.
set terminal svg size 1100,560 dynamic font "sans,11"
set output out
set multiplot layout 1,2
set logscale x 2
set logscale y 2
set format x "%.0b%B"
set xrange [16:16777216]
set yrange [0.5:32]
set xlabel "blob size (bytes)"
set ylabel "CPU time / one malloc+memcpy+free of the blob"
set grid
set key below
# Columns: size, copy, then median, lowest and highest of each contender.
do for [way in "encode decode"] {
    c = (way eq "encode") ? 3 : 9
    set title sprintf("%s one blob field (median, bars: lowest..highest round)", way)
    plot sprintf("< sort -n %s/shuffled.sweep", dir) using 1:c:c+1:c+2 with yerrorlines lw 2 title "lrpc2, shuffled", \
         sprintf("< sort -n %s/ascending.sweep", dir) using 1:c with lines title "lrpc2, ascending", \
         sprintf("< sort -n %s/descending.sweep", dir) using 1:c with lines title "lrpc2, descending", \
         sprintf("< sort -n %s/shuffled.sweep", dir) using 1:c+3 with lines dt 2 title "Protocol Buffers, shuffled", \
         sprintf("< sort -n %s/shuffled.sweep", dir) using 1:(way eq "decode" ? column(15) : NaN) with lines dt 4 title "two plain copies (decode's least), shuffled", \
         4 with lines lc "red" dt 3 title "4 copies"
}
unset multiplot
