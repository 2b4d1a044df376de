#!/bin/sh
# Runs corvida_bench (and corvida_store_bench, when the table store is built)
# and prints one table: each operation next to its baseline, with the median
# CPU time per call of both and their ratio.
#
#   bench/run.sh [BUILD_DIR] [extra corvida_bench flags...]
#
# BUILD_DIR (default: build) must be an optimised build (Release or
# RelWithDebInfo). The benchmarks' own output goes to stderr; the table, in
# Markdown, to stdout, after one line that names the machine. REPETITIONS
# (default 5) and MIN_TIME (seconds per repetition, default 0.05) tune the
# run; the defaults finish in about a minute. The exit status is non-zero when
# a benchmark found a wrong result.
set -eu

build_dir=${1:-build}
[ $# -gt 0 ] && shift
bench="$build_dir/bench/corvida_bench"
if [ ! -x "$bench" ]; then
    echo "run.sh: $bench not found; build the corvida_bench target first" >&2
    exit 2
fi
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build_dir/CMakeCache.txt" 2>/dev/null || true)
case "$build_type" in
    Release | RelWithDebInfo) ;;
    *) echo "run.sh: warning: '$build_dir' is a '$build_type' build; timings need Release or RelWithDebInfo" >&2 ;;
esac

json=$(mktemp)
store_json=$(mktemp)
trap 'rm -f "$json" "$store_json"' EXIT INT TERM

status=0
for binary in "$bench" "$build_dir/bench/corvida_store_bench"; do
    [ -x "$binary" ] || continue
    "$binary" --benchmark_repetitions="${REPETITIONS:-5}" --benchmark_min_time="${MIN_TIME:-0.05}" \
        --benchmark_report_aggregates_only=true --benchmark_out="$store_json" --benchmark_out_format=json "$@" >&2 ||
        status=$?
    cat "$store_json" >>"$json"
done

# The machine, as docs/performance.md records it.
cpu=$(sed -n 's/^model name[[:space:]]*:[[:space:]]*//p' /proc/cpuinfo | head -n 1)
cores=$(getconf _NPROCESSORS_ONLN)
cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build_dir/CMakeCache.txt" 2>/dev/null || true)
compiler=$("${cxx:-c++}" --version 2>/dev/null | head -n 1)
protobuf=$(sed -n 's/^Protobuf_VERSION:[A-Z]*=//p' "$build_dir/CMakeCache.txt" 2>/dev/null || true)
[ -n "$protobuf" ] || protobuf=$(protoc --version 2>/dev/null | sed 's/^libprotoc //')
echo "Machine: $cpu, $cores cores; $compiler; protobuf $protobuf; $build_type build; $(date -u +%Y-%m-%d)"
echo

# Each line: an operation and its baseline, both as benchmark names without
# "BM_"; every variant of the operation (/proto3, /proto2/8, ...) is paired
# with the same variant of the baseline. An operation without a baseline is
# listed with "-".
pairs='ExtractMsgKey Baseline_KeyOnlySerialize
ExtractMsgKey Baseline_ReflectionKeyCopy
ExtractFieldKey Baseline_KeyOnlySerialize
ExtractFieldKey Baseline_ReflectionKeyCopy
ExtractMsgKeyEncrypted ExtractMsgKey
FillValueSetWithMsg Baseline_SerializeFields
FillValueSetWithMsg Peer_TrimAndSerialize
FillMsgFromField Baseline_ParseFromArray
FillMsgFromField Peer_ParseAndMergeTo
FillMessageGroup Baseline_BuildPool
GetMetaAndCompare Baseline_BuildPool
FieldValue2GenericValue Baseline_FieldGetter
DisabledLogLine Baseline_CategoryTest
ValueSetBufferReset -
StorePut Baseline_RocksDBPut
StoreUpdate2 Baseline_RocksDBUpdate2
StoreGet Baseline_RocksDBGet
StoreFindByIndex Baseline_RocksDBFindByIndex'

# Benchmark's JSON writes one key per line. The median of the repetitions is
# used (a single run's own figure without repetitions), CPU time in ns.
printf '%s\n' "$pairs" | awk -v json="$json" '
    function ns(value, unit) {
        if (unit == "us") return value * 1e3
        if (unit == "ms") return value * 1e6
        if (unit == "s") return value * 1e9
        return value
    }
    function field(line) {
        sub(/^[^:]*:[ ]*/, "", line)
        sub(/,$/, "", line)
        gsub(/"/, "", line)
        return line
    }
    function flush() {
        if (run != "" && cpu != "") {
            if (aggregate == "median") median[run] = ns(cpu, unit)
            else if (aggregate == "") single[run] = ns(cpu, unit)
        }
        run = ""; aggregate = ""; cpu = ""; unit = ""
    }
    BEGIN {
        while ((getline line < json) > 0) {
            if (line ~ /^ *"run_name":/) run = field(line)
            else if (line ~ /^ *"aggregate_name":/) aggregate = field(line)
            else if (line ~ /^ *"cpu_time":/) cpu = field(line) + 0
            else if (line ~ /^ *"time_unit":/) unit = field(line)
            else if (line ~ /^ *"error_occurred": *true/) failed[run] = 1
            else if (line ~ /^ *}/) flush()
            if (run != "" && !(run in seen)) { seen[run] = 1; order[++count] = run }
        }
        for (r in single) if (!(r in median)) median[r] = single[r]
        print "| operation | ns/call | baseline | baseline ns | ratio |"
        print "|---|---:|---|---:|---:|"
    }
    # The time of a benchmark as printed: "error" when it found a wrong result,
    # "-" when it did not run (filtered out).
    function show(name) {
        if (name in failed) return "error"
        if (!(name in median)) return "-"
        t = median[name]
        return t < 100 ? sprintf("%.1f", t) : sprintf("%.0f", t)
    }
    function usable(name) { return (name in median) && !(name in failed) && median[name] > 0 }
    {
        op = $1; base = $2
        for (i = 1; i <= count; ++i) {
            name = order[i]
            if (index(name, "BM_" op "/") != 1 && name != "BM_" op) continue
            if (base == "-") {
                printf "| %s | %s | - | - | - |\n", substr(name, 4), show(name)
                continue
            }
            b = "BM_" base substr(name, length("BM_" op) + 1)
            ratio = (usable(name) && usable(b)) ? sprintf("%.2f", median[name] / median[b]) : "-"
            printf "| %s | %s | %s | %s | %s |\n", substr(name, 4), show(name), substr(b, 4), show(b), ratio
        }
    }'

if [ "$status" -ne 0 ]; then
    echo "run.sh: corvida_bench exited with status $status (a benchmark found a wrong result)" >&2
fi
exit "$status"
