#!/bin/sh
# Sets the machine up, builds everything and runs every test: the CTest suite
# (unit, tool and documentation tests), then the suite under sanitizers, the
# fuzz targets for a bounded time, and an install with consumers built
# against it. This is what CI runs.
set -eu
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake -S . -B build
cmake --build build -j2
ctest --test-dir build -j2 --output-on-failure
./scripts/ci-sanitizers.sh
./scripts/ci-fuzz.sh
./scripts/ci-install.sh
