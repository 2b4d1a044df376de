#!/bin/sh
# Sanitizer job: builds everything with AddressSanitizer + UndefinedBehavior-
# Sanitizer and runs the whole CTest suite under them (LeakSanitizer included),
# halting on the first report; then builds the stress tests of the bridge and
# of the table store with ThreadSanitizer and runs them. Exits non-zero on any
# failure or report.
#
#   scripts/ci-sanitizers.sh
#
# Environment: BUILD_PREFIX (default "build": build dirs build-asan and
# build-tsan), JOBS (default 2), CORVIDA_STRESS_ITERATIONS (iterations per
# thread of the stress test under TSan, default 500),
# CORVIDA_STORE_STRESS_ITERATIONS (operations per thread of the store's
# concurrency test under TSan, default 300).
set -eu
cd "$(dirname "$0")/.."

prefix=${BUILD_PREFIX:-build}
jobs=${JOBS:-2}
asan_dir="$prefix-asan"
tsan_dir="$prefix-tsan"
start=$(date +%s)

step() {
    echo "==> ci-sanitizers: $* ($(($(date +%s) - start))s)"
}

step "configure ASan+UBSan build in $asan_dir"
# -O1 with line tables only: half the compile time of -O2 -g under the
# sanitizers, with every report still naming file and line. Indirect
# inlining stays on: protobuf's always-inline writers are passed by pointer.
# The benchmarks are left out: the main build runs their smoke tests.
cmake -S . -B "$asan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVIDA_PB_SANITIZE=address,undefined \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -findirect-inlining -g1 -DNDEBUG" \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" \
    -DCORVIDA_PB_BUILD_BENCHMARKS=OFF
step "build ASan+UBSan"
cmake --build "$asan_dir" -j"$jobs"

step "run the whole test suite under ASan+UBSan+LSan"
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir "$asan_dir" -j"$jobs" --output-on-failure

step "configure ThreadSanitizer build of the stress tests in $tsan_dir"
cmake -S . -B "$tsan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVIDA_PB_SANITIZE=thread \
    -DCORVIDA_PB_BUILD_TOOLS=OFF -DCORVIDA_PB_BUILD_EXAMPLES=OFF -DCORVIDA_PB_BUILD_BENCHMARKS=OFF \
    -DCORVIDA_PB_BUILD_ETCD=OFF
step "build the stress tests with TSan"
cmake --build "$tsan_dir" -j"$jobs" --target stress_test store_concurrency_test

step "run the stress test under TSan"
CORVIDA_STRESS_ITERATIONS=${CORVIDA_STRESS_ITERATIONS:-500} TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    "$tsan_dir/tests/stress_test"

# RocksDB (like libstdc++ and protobuf) is Debian's uninstrumented build: the
# atomics with which its write groups and memtable hand data between threads
# are invisible to TSan, so the memcpy calls such libraries make are not
# checked (ignore_noninstrumented_modules). Every access of the store's own
# code is.
step "run the store's concurrency test under TSan"
CORVIDA_STORE_STRESS_ITERATIONS=${CORVIDA_STORE_STRESS_ITERATIONS:-300} \
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1 \
    "$tsan_dir/tests/store/store_concurrency_test"

step "passed"
