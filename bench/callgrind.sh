#!/bin/sh
# Instructions per call of benchmarks of corvida_bench, counted by
# valgrind's callgrind: repeatable where timings on a shared machine are not.
#
#   bench/callgrind.sh [BUILD_DIR] [REGEX] [BINARY]
#
# Each benchmark whose name matches REGEX (default: all of them) runs twice
# under callgrind with a fixed number of iterations (CORVIDA_BENCH_ITERATIONS,
# SHORT and LONG, default 200 and 1200); the difference of the two totals
# divided by the difference of the iterations cancels the set-up and leaves the
# instructions (Ir) of one iteration. Prints one Markdown row per benchmark.
# BINARY is the benchmark program under BUILD_DIR/bench (default
# corvida_bench; corvida_store_bench counts the table store's operations).
set -eu

build_dir=${1:-build}
regex=${2:-.}
short=${SHORT:-200}
long=${LONG:-1200}
binary=${3:-corvida_bench}
bench="$build_dir/bench/$binary"
if [ ! -x "$bench" ]; then
    echo "callgrind.sh: $bench not found; build the $binary target first" >&2
    exit 2
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM

# Total instructions of one run of benchmark $1 with $2 iterations.
total() {
    CORVIDA_BENCH_ITERATIONS=$2 valgrind --tool=callgrind --callgrind-out-file="$work/out" \
        "$bench" --benchmark_filter="^$1(/iterations:[0-9]+)?\$" >/dev/null 2>"$work/log" || {
        cat "$work/log" >&2
        exit 1
    }
    sed -n 's/^summary: *//p' "$work/out"
}

echo "| benchmark | Ir per call |"
echo "|---|---:|"
"$bench" --benchmark_list_tests=true --benchmark_filter="$regex" | while read -r name; do
    a=$(total "$name" "$short")
    b=$(total "$name" "$long")
    echo "| ${name#BM_} | $(((b - a) / (long - short))) |"
done
