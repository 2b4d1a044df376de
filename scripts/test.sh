#!/bin/sh
# Sets the machine up, builds everything and runs every test through CTest.
set -eu
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake -S . -B build
cmake --build build -j2
ctest --test-dir build -j2 --output-on-failure
