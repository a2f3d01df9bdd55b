#!/usr/bin/env bash
# Cross-builds the 64-bit Windows library and test suite with mingw-w64 and
# runs the suite under wine64 (through ctest, which starts every test program
# with wine).
# Usage: scripts/wine-tests.sh [build-dir]   (default build-win64)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/wine-env.sh
build=${1:-build-win64}
jobs=$(nproc 2>/dev/null || echo 2)
if [[ -z $dsp_wine ]]; then
    echo "wine-tests: wine64 is not installed (apt-get install wine64)" >&2
    exit 1
fi
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DDSP_WINE64="$dsp_wine"
cmake --build "$build" -j "$jobs"
# Create the prefix once, before tests run in parallel.
"$dsp_wine" cmd /c exit >/dev/null 2>&1 || true
ctest --test-dir "$build" --output-on-failure -j "$jobs"
