#!/bin/sh
# Sanitizer job: builds everything with AddressSanitizer + UndefinedBehavior-
# Sanitizer and runs the whole CTest suite under them (LeakSanitizer included),
# halting on the first report; then builds the stress test with
# ThreadSanitizer and runs it. Exits non-zero on any failure or report.
#
#   scripts/ci-sanitizers.sh
#
# Environment: BUILD_PREFIX (default "build": build dirs build-asan and
# build-tsan), JOBS (default 2), CORVIDA_STRESS_ITERATIONS (iterations per
# thread of the stress test under TSan, default 500).
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
cmake -S . -B "$asan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVIDA_PB_SANITIZE=address,undefined
step "build ASan+UBSan"
cmake --build "$asan_dir" -j"$jobs"

step "run the whole test suite under ASan+UBSan+LSan"
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir "$asan_dir" -j"$jobs" --output-on-failure

step "configure ThreadSanitizer build of the stress test in $tsan_dir"
cmake -S . -B "$tsan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVIDA_PB_SANITIZE=thread \
    -DCORVIDA_PB_BUILD_TOOLS=OFF -DCORVIDA_PB_BUILD_EXAMPLES=OFF -DCORVIDA_PB_BUILD_BENCHMARKS=OFF
step "build the stress test with TSan"
cmake --build "$tsan_dir" -j"$jobs" --target stress_test

step "run the stress test under TSan"
CORVIDA_STRESS_ITERATIONS=${CORVIDA_STRESS_ITERATIONS:-500} TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    "$tsan_dir/tests/stress_test"

step "passed"
