#!/usr/bin/env bash
# Builds the library and the whole test suite with AddressSanitizer and
# UndefinedBehaviorSanitizer in build-asan/ and runs every test; any report
# fails the run.
#   scripts/sanitize.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${1:-build-asan}
JOBS=${JOBS:-2}
SAN_FLAGS="-fsanitize=address,undefined -fno-sanitize-recover -fno-omit-frame-pointer"

cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDSP_BUILD_BENCH=OFF -DDSP_BUILD_TOOLS=ON \
    -DCMAKE_CXX_FLAGS="$SAN_FLAGS" -DCMAKE_C_FLAGS="$SAN_FLAGS" \
    -DCMAKE_EXE_LINKER_FLAGS="$SAN_FLAGS" -DCMAKE_SHARED_LINKER_FLAGS="$SAN_FLAGS"
cmake --build "$BUILD_DIR" -j"$JOBS"

# Some tests ask for huge blocks on purpose and expect a clean failure.
export ASAN_OPTIONS="allocator_may_return_null=1:detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
ctest --test-dir "$BUILD_DIR" --output-on-failure -j"$JOBS"
