#!/bin/sh
# One command's cost: corvida-pb's store commands on a store of RECORDS
# records next to RocksDB's own ldb reading or writing one key of the same
# store, as whole processes timed by hyperfine in one run; then what each
# one-shot command does besides its work, counted with strace: threads
# started, fsync and fdatasync calls, files of the store opened for writing,
# renames, and the store's files before and after; and the store's file
# count after many write commands.
#
#   bench/process_bench.sh [BUILD_DIR] [RECORDS]
#
# BUILD_DIR (default build-rel, a Release build) holds corvida-pb and
# corvida_workload_bench; RECORDS defaults to 1000000. The store is loaded
# once through the library (corvida_workload_bench load: some minutes for
# 1 M records) into $CORVIDA_BENCH_DIR/RECORDS (default /tmp/corvida-bench)
# and kept for later runs; every run works on fresh copies of it. RUNS
# (default 30) timed runs per command, in ROUNDS (default 3) rounds. Prints
# Markdown on stdout.
set -eu

build_dir=$(cd "${1:-build-rel}" && pwd)
records=${2:-1000000}
runs=${RUNS:-30}
rounds=${ROUNDS:-3}
cd "$(dirname "$0")/.."
cli="$build_dir/tools/corvida-pb"
workload="$build_dir/bench/corvida_workload_bench"
for tool in hyperfine ldb strace jq; do
    command -v "$tool" >/dev/null || {
        echo "process_bench.sh: $tool not found; run scripts/setup.sh" >&2
        exit 2
    }
done
for binary in "$cli" "$workload"; do
    [ -x "$binary" ] || {
        echo "process_bench.sh: $binary not found; build it first" >&2
        exit 2
    }
done

base=${CORVIDA_BENCH_DIR:-/tmp/corvida-bench}/$records
if [ ! -f "$base/records" ]; then
    echo "process_bench.sh: loading $records records into $base, once" >&2
    rm -rf "$base"
    "$workload" load "$base" "$records" >&2
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM
# The reads go to one copy; the writes of each tool to a copy of their own.
store="$work/store"
for copy in store ldb-writes store-writes; do cp -a "$base/store" "$work/$copy"; done

# A record from the middle: its row key (for ldb), its key fields, its index
# field and the whole record (for corvida-pb).
"$workload" record "$records" $((records / 2 + 7)) >"$work/record"
row_key=$(sed -n 1p "$work/record")
sed -n 2p "$work/record" >"$work/key.txt"
sed -n 3p "$work/record" >"$work/record.txt"
sed -n 's/.* \(level: [0-9]*\) .*/\1/p' "$work/record.txt" >"$work/level.txt"
stamp=$(ldb --db="$store" get --hex "$row_key") || {
    echo "process_bench.sh: ldb finds no row marker $row_key in $store" >&2
    exit 1
}
schema="--proto bench/protos/bench_tables.proto --table BenchRecord"
get="$cli store get --db $store $schema --text-file $work/key.txt"
find="$cli store find --db $store $schema --index by_level --text-file $work/level.txt --limit 1"
scan="$cli store scan --db $store $schema --limit 10"
ldb_get="ldb --db=$store get --hex $row_key"
put="$cli store put --db $work/store-writes $schema --text-file $work/record.txt"
ldb_put="ldb --db=$work/ldb-writes put --hex $row_key $stamp"

# The machine, as docs/performance.md records it.
cpu=$(sed -n 's/^model name[[:space:]]*:[[:space:]]*//p' /proc/cpuinfo | head -n 1)
echo "Machine: $cpu, $(getconf _NPROCESSORS_ONLN) cores, load average $(cut -d' ' -f1-3 /proc/loadavg);" \
    "$records records, $(du -sh "$store" | cut -f1) in $(ls "$store" | wc -l) files; $(date -u +%Y-%m-%d)"
echo

# Times the commands (hyperfine's -n label, then the command, for each) in
# ROUNDS rounds of RUNS / ROUNDS runs each, all commands in every round, so
# that a change of the machine's load falls on all of them; prints one row
# per command over all runs: median, mean, min and CPU times in ms.
timed() {
    round=1
    while [ "$round" -le "$rounds" ]; do
        hyperfine -N --warmup 2 --runs $((runs / rounds)) --style none --export-json "$work/times-$round.json" "$@" \
            >/dev/null 2>"$work/hyperfine.err" || {
            cat "$work/hyperfine.err" >&2
            exit 1
        }
        round=$((round + 1))
    done
    jq -rs '(.[0].results | map(.command)) as $order | [.[].results[]] as $all | $order[] as $c
        | [$all[] | select(.command == $c)] as $r | ($r | map(.times[]) | sort) as $t
        | "| \($c) | \($t[($t | length) / 2 | floor] * 1000 | round) | \($t | add / length * 1000 | round) | \($t[0] * 1000 | round) | \($r | map(.user) | add / length * 1000 | round) | \($r | map(.system) | add / length * 1000 | round) |"' \
        "$work"/times-*.json
    rm -f "$work"/times-*.json
}

echo "| command | median ms | mean ms | min ms | user ms | system ms |"
echo "|---|---:|---:|---:|---:|---:|"
timed -n "ldb get (one key)" "$ldb_get" -n "store get" "$get" -n "store find --limit 1" "$find" \
    -n "store scan --limit 10" "$scan"
timed -n "ldb put (one key)" "$ldb_put" -n "store put (a whole record)" "$put"
echo

# What one run of a command on the store in directory $2 does besides its
# work.
traced() {
    ls -l --time-style=full-iso "$2" >"$work/before"
    # shellcheck disable=SC2086
    strace -f -qq -o "$work/trace" -e trace=fsync,fdatasync,openat,rename,renameat,renameat2,clone,clone3 \
        $3 >/dev/null
    ls -l --time-style=full-iso "$2" >"$work/after"
    threads=$(grep -cE ' clone3?\(' "$work/trace" || true)
    syncs=$(grep -cE ' f(data)?sync\(' "$work/trace" || true)
    written=$(grep -F "$2/" "$work/trace" | grep -E ' openat\(' | grep -cE 'O_WRONLY|O_RDWR|O_CREAT' || true)
    renames=$(grep -cE ' rename(at2?)?\(' "$work/trace" || true)
    changed=$(diff "$work/before" "$work/after" | grep -c '^[<>]' || true)
    echo "| $1 | $threads | $syncs | $written | $renames | $changed |"
}

echo "| command | threads started | fsync + fdatasync | store files opened for writing | renames | lines of the listing changed |"
echo "|---|---:|---:|---:|---:|---:|"
traced "ldb get" "$store" "$ldb_get"
traced "store get" "$store" "$get"
traced "store find --limit 1" "$store" "$find"
traced "store scan --limit 10" "$store" "$scan"
traced "ldb put" "$work/ldb-writes" "$ldb_put"
traced "store put" "$work/store-writes" "$put"
echo

# Files of a fresh copy of the store after many write commands, each
# putting another record (ldb: another key).
counts="1 2 5 10 20 50 100"
printf '| write commands | 0 |'
for n in $counts; do printf ' %s |' "$n"; done
echo
printf '|---|---:|'
for n in $counts; do printf -- '---:|'; done
echo
for tool in store ldb; do
    copy="$work/$tool-count"
    cp -a "$base/store" "$copy"
    printf '| files of the store (%s put) | %s |' "$tool" "$(ls "$copy" | wc -l)"
    done_puts=0
    for n in $counts; do
        while [ "$done_puts" -lt "$n" ]; do
            "$workload" record "$records" "$((records + done_puts))" >"$work/new"
            if [ "$tool" = store ]; then
                sed -n 3p "$work/new" >"$work/new.txt"
                # shellcheck disable=SC2086
                "$cli" store put --db "$copy" $schema --text-file "$work/new.txt" >/dev/null
            else
                ldb --db="$copy" put --hex "$(sed -n 1p "$work/new")" "$stamp" >/dev/null
            fi
            done_puts=$((done_puts + 1))
        done
        printf ' %s |' "$(ls "$copy" | wc -l)"
    done
    echo
    rm -rf "$copy"
done
