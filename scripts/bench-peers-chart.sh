#!/usr/bin/env bash
# Draws the peer benchmark's chart from its results.tsv (scripts/bench-peers.sh):
# bytes on disk per event for each contender, and the three questions' times
# (log scale), side by side. Needs gnuplot (scripts/install-bench-deps.sh).
#   scripts/bench-peers-chart.sh results.tsv peers.png
set -euo pipefail
tsv=$1
png=$2
title=${TITLE:-$(awk -F '\t' 'NR == 2 { print $2 " events" }' "$tsv")}

gnuplot <<GNUPLOT
set terminal pngcairo size 1400,560 font "DejaVu Sans,11"
set output "$png"
set datafile separator "\t"
set key autotitle columnhead
set style data histograms
set style fill solid 0.85 border -1
set boxwidth 0.8
set grid ytics
set xtics rotate by -30 nomirror
set multiplot layout 1,2 title "The store and its peers on the same events ($title)"

set title "Bytes on disk per event"
set ylabel "bytes per event"
set yrange [0:*]
set style histogram clustered gap 1
unset key
plot "$tsv" using 4:xtic(1) linecolor rgb "#3b6ea5", \
     "" using 0:4:(sprintf("%.1f", \$4)) with labels offset 0,0.7 notitle

set title "Question time (median of the runs)"
set ylabel "seconds (log scale)"
stats "$tsv" using 12 nooutput name "H"
stats "$tsv" using 13 nooutput name "S"
stats "$tsv" using 14 nooutput name "J"
lowest = H_min < S_min ? (H_min < J_min ? H_min : J_min) : (S_min < J_min ? S_min : J_min)
highest = H_max > S_max ? (H_max > J_max ? H_max : J_max) : (S_max > J_max ? S_max : J_max)
set logscale y
set format y "%g"
set yrange [lowest / 3:highest * 12]
set key top left
set style histogram clustered gap 1
plot "$tsv" using 12:xtic(1) title "one hour of process starts" linecolor rgb "#3b6ea5", \
     "" using 13 title "scan of every event" linecolor rgb "#e07b39", \
     "" using 14 title "join on puid" linecolor rgb "#5a9e5a"
unset multiplot
GNUPLOT
