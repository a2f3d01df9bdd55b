#!/usr/bin/env bash
# Builds the library, the tool, the tests and the benchmarks (Release) and
# runs the whole test suite.
# Usage: scripts/test.sh [build-dir [extra cmake configure arguments...]]
#   e.g. scripts/test.sh build-x86 -DCMAKE_TOOLCHAIN_FILE=cmake/linux-x86.cmake
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release "$@"
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" --output-on-failure -j "$jobs"
