#!/bin/sh
# The YCSB-style mixes of corvida_workload_bench (A, B, C, E) on the table
# store and on raw RocksDB doing the same key-value work, with 1, 2 and 8
# threads; then the plot of their throughput and p99 latency.
#
#   bench/workload.sh [BUILD_DIR] [RECORDS]
#
# BUILD_DIR (default build-rel, a Release build) holds corvida_workload_bench;
# RECORDS defaults to 1000000. The records are loaded once (some minutes for
# 1 M) into $CORVIDA_BENCH_DIR/RECORDS (default /tmp/corvida-bench), the
# store and a copy of its files for raw RocksDB, and kept for later runs.
# Each run is its own process (so its resident memory is its own), store and
# raw RocksDB one after the other for each mix and thread count, and the
# whole sequence is repeated ROUNDS times (default 3); a run lasts SECONDS
# seconds (default 10) after a warm-up of a fifth of that. Every run goes to
# OUT/runs.tsv, the medians over the rounds to OUT/workload.tsv and, drawn by
# bench/plot_workload.sh, OUT/workload.svg (OUT: default docs). Prints the
# medians as a Markdown table.
set -eu

build_dir=$(cd "${1:-build-rel}" && pwd)
records=${2:-1000000}
rounds=${ROUNDS:-3}
seconds=${SECONDS_PER_RUN:-10}
threads=${THREADS:-1 2 8}
mixes=${MIXES:-A B C E}
cd "$(dirname "$0")/.."
out=${OUT:-docs}
workload="$build_dir/bench/corvida_workload_bench"
[ -x "$workload" ] || {
    echo "workload.sh: $workload not found; build the corvida_workload_bench target first" >&2
    exit 2
}

base=${CORVIDA_BENCH_DIR:-/tmp/corvida-bench}/$records
if [ ! -f "$base/records" ]; then
    echo "workload.sh: loading $records records into $base, once" >&2
    rm -rf "$base"
    "$workload" load "$base" "$records" >&2
fi

mkdir -p "$out"
runs="$out/runs.tsv"
"$workload" --header >"$runs"
round=1
while [ "$round" -le "$rounds" ]; do
    for mix in $mixes; do
        for t in $threads; do
            for engine in store raw; do
                "$workload" run "$base" "$engine" "$mix" "$t" "$seconds" >>"$runs"
                tail -n 1 "$runs" >&2
            done
        done
    done
    round=$((round + 1))
done

# The median of each column over the rounds, per engine, mix and threads.
median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
medians="$out/workload.tsv"
printf 'engine\tmix\tthreads\tops_per_s\tp50_us\tp99_us\tp999_us\trss_mib\thwm_mib\n' >"$medians"
for mix in $mixes; do
    for t in $threads; do
        for engine in store raw; do
            line="$engine	$mix	$t"
            for column in 6 7 8 9 10 11; do
                value=$(awk -F'\t' -v e="$engine" -v m="$mix" -v t="$t" -v c="$column" \
                    'NR > 1 && $1 == e && $2 == m && $3 == t { print $c }' "$runs" | median)
                line="$line	$value"
            done
            printf '%s\n' "$line" >>"$medians"
        done
    done
done

cpu=$(sed -n 's/^model name[[:space:]]*:[[:space:]]*//p' /proc/cpuinfo | head -n 1)
echo "Machine: $cpu, $(getconf _NPROCESSORS_ONLN) cores, load average $(cut -d' ' -f1-3 /proc/loadavg);" \
    "$records records; medians of $rounds rounds of $seconds s; $(date -u +%Y-%m-%d)"
echo
echo "| mix | threads | store ops/s | raw ops/s | store / raw | store p50 / p99 / p99.9 µs | raw p50 / p99 / p99.9 µs | store RSS MiB | raw RSS MiB |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|"
awk -F'\t' 'NR > 1 {
        key = $2 "\t" $3
        if (!(key in seen)) { seen[key] = 1; order[++n] = key }
        ops[$1, key] = $4; lat[$1, key] = $5 " / " $6 " / " $7; rss[$1, key] = $8
    }
    END {
        for (i = 1; i <= n; ++i) {
            k = order[i]; split(k, f, "\t")
            printf "| %s | %s | %.0f | %.0f | %.2f | %s | %s | %s | %s |\n", f[1], f[2], ops["store", k], ops["raw", k],
                ops["store", k] / ops["raw", k], lat["store", k], lat["raw", k], rss["store", k], rss["raw", k]
        }
    }' "$medians"

"$(dirname "$0")/plot_workload.sh" "$medians" "$out/workload.svg"
