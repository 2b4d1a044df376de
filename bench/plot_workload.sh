#!/bin/sh
# Draws the medians of bench/workload.sh: for each mix, throughput and p99
# latency against threads, the store beside raw RocksDB. Needs gnuplot
# (Debian's gnuplot-nox).
#
#   bench/plot_workload.sh WORKLOAD_TSV SVG
set -eu

tsv=$1
svg=$2
command -v gnuplot >/dev/null || {
    echo "plot_workload.sh: gnuplot not found; run scripts/setup.sh" >&2
    exit 2
}
mixes=$(awk -F'\t' 'NR > 1 && !seen[$2]++ { printf "%s ", $2 }' "$tsv")
count=$(echo "$mixes" | wc -w)
title_A="A: 50 % reads, 50 % updates"
title_B="B: 95 % reads, 5 % updates"
title_C="C: reads only"
title_E="E: shard scans, 5 % inserts"

{
    echo "set terminal svg size 1000,$((count * 280)) dynamic font 'sans,11'"
    echo "set output '$svg'"
    echo "set datafile separator '\t'"
    echo "set multiplot layout $count,2"
    echo "set key top left"
    echo "set grid"
    echo "set logscale x 2"
    echo "set xrange [0.8:10]"
    echo "set xtics (1, 2, 8)"
    echo "set xlabel 'threads'"
    for mix in $mixes; do
        eval "title=\${title_$mix:-$mix}"
        for panel in throughput latency; do
            if [ "$panel" = throughput ]; then
                column=4
                echo "set ylabel 'operations per second'"
                echo "set yrange [0:*]"
                echo "set title '$title: throughput'"
            else
                column=6
                echo "set ylabel 'p99 latency (µs)'"
                echo "set yrange [0:*]"
                echo "set title '$title: p99 latency'"
            fi
            printf "plot '%s' using (strcol(2) eq '%s' && strcol(1) eq 'store' ? \$3 : 1/0):%s with linespoints lw 2 pt 7 title 'store', " \
                "$tsv" "$mix" "$column"
            printf "'%s' using (strcol(2) eq '%s' && strcol(1) eq 'raw' ? \$3 : 1/0):%s with linespoints lw 2 pt 5 dt 2 title 'raw RocksDB'\n" \
                "$tsv" "$mix" "$column"
        done
    done
    echo "unset multiplot"
} | gnuplot
