#!/bin/sh
# Fuzz job: builds the libFuzzer targets with clang (ASan + UBSan, halting on
# the first report) and runs each for FUZZ_SECONDS over a copy of its seed
# corpus. Fails when a target crashes, leaks, times out, trips a sanitizer or
# one of its own checks, or leaves any crash/leak/timeout artifact.
#
#   scripts/ci-fuzz.sh                      # every target, 30 s each
#   FUZZ_SECONDS=600 scripts/ci-fuzz.sh value_set_unpack_fuzzer
#
# Environment: FUZZ_SECONDS (default 30), BUILD_PREFIX (default "build": build
# dir build-fuzz), JOBS (build jobs, and targets fuzzed at once, default 2),
# FUZZ_WORK (scratch dir for corpora, logs and artifacts, default
# $BUILD_PREFIX-fuzz/runs).
set -eu
cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-30}
prefix=${BUILD_PREFIX:-build}
jobs=${JOBS:-2}
build_dir="$prefix-fuzz"
work=${FUZZ_WORK:-$build_dir/runs}
targets=${*:-"fill_msg_from_field_fuzzer schema_blob_fuzzer schema_mutation_fuzzer value_set_unpack_fuzzer
    text_path_fuzzer aes_siv_decrypt_fuzzer store_read_fuzzer store_keys_fuzzer store_write_fuzzer"}
start=$(date +%s)

step() {
    echo "==> ci-fuzz: $* ($(($(date +%s) - start))s)"
}

# The dictionary of a target, when it has one.
dict_for() {
    case "$1" in
        fill_msg_from_field_fuzzer | value_set_unpack_fuzzer | store_read_fuzzer | store_write_fuzzer)
            echo fuzz/dict/value_set.dict ;;
        schema_blob_fuzzer) echo fuzz/dict/schema.dict ;;
        text_path_fuzzer) echo fuzz/dict/paths.dict ;;
        *) echo "" ;;
    esac
}

step "configure clang fuzz build in $build_dir"
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
    -DCORVIDA_PB_BUILD_FUZZERS=ON -DCORVIDA_PB_BUILD_TESTS=OFF -DCORVIDA_PB_BUILD_TOOLS=OFF \
    -DCORVIDA_PB_BUILD_EXAMPLES=OFF -DCORVIDA_PB_BUILD_BENCHMARKS=OFF -DCORVIDA_PB_BUILD_ETCD=OFF
step "build the fuzz targets"
# shellcheck disable=SC2086
cmake --build "$build_dir" -j"$jobs" --target $targets

# run_target <target>: fuzzes one target for $seconds over a copy of its seed
# corpus; its exit status goes to $work/<target>/status.
run_target() {
    target=$1
    dir="$work/$target"
    rm -rf "$dir"
    mkdir -p "$dir/corpus" "$dir/artifacts"
    cp fuzz/corpus/"$target"/* "$dir/corpus/"
    dict=$(dict_for "$target")
    status=0
    ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        "$build_dir/fuzz/$target" "$dir/corpus" ${dict:+"-dict=$dict"} \
        -max_total_time="$seconds" -timeout=25 -rss_limit_mb=4096 -error_exitcode=77 \
        -timeout_exitcode=78 -print_final_stats=1 -artifact_prefix="$dir/artifacts/" \
        >"$dir/log" 2>&1 || status=$?
    echo "$status" >"$dir/status"
}

# The targets run $jobs at a time: each fuzzer is one process on one core.
running=0
for target in $targets; do
    step "run $target for ${seconds}s"
    run_target "$target" &
    running=$((running + 1))
    if [ "$running" -ge "$jobs" ]; then
        wait
        running=0
    fi
done
wait

failed=""
for target in $targets; do
    dir="$work/$target"
    status=$(cat "$dir/status" 2>/dev/null || echo 1)
    echo "ci-fuzz: $target:"
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb|#[0-9]+ +DONE)' "$dir/log" || true
    artifacts=$(find "$dir/artifacts" -type f | head -n 5)
    if [ "$status" -ne 0 ] || [ -n "$artifacts" ]; then
        echo "ci-fuzz: $target FAILED (exit $status); artifacts: ${artifacts:-none}; last lines of $dir/log:"
        tail -n 60 "$dir/log"
        failed="$failed $target"
    fi
done

if [ -n "$failed" ]; then
    step "FAILED:$failed"
    exit 1
fi
step "passed"
