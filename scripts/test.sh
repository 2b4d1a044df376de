#!/bin/sh
# Sets the machine up, builds everything and runs every test: the CTest suite
# (unit, tool and documentation tests), then the suite under sanitizers, the
# fuzz targets for a bounded time, and an install with consumers built
# against it. This is what CI runs; each stage is announced with the seconds
# since the start, so that a slow stage shows in the log.
set -eu
cd "$(dirname "$0")/.."
start=$(date +%s)
stage() {
    echo "==> test.sh: $* ($(($(date +%s) - start))s)"
}
stage "set-up"
./scripts/setup.sh
stage "configure and build"
# Optimized as the default build is, without its debug information: a third
# less compile time, and a test that fails is rerun under a debugger anyway.
cmake -S . -B build -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG"
cmake --build build -j2
stage "the CTest suite"
ctest --test-dir build -j2 --output-on-failure
stage "sanitizers"
./scripts/ci-sanitizers.sh
stage "fuzzing"
./scripts/ci-fuzz.sh
stage "install"
./scripts/ci-install.sh
stage "passed"
