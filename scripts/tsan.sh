#!/usr/bin/env bash
# Builds the test program with ThreadSanitizer in build-tsan/ and runs the
# concurrency tests (threads creating, running and destroying their own
# processors and chains at once, sharing the pool); any report fails.
#   scripts/tsan.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${1:-build-tsan}
JOBS=${JOBS:-2}
TSAN_FLAGS="-fsanitize=thread -fno-omit-frame-pointer"

cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDSP_BUILD_BENCH=OFF -DDSP_BUILD_TOOLS=OFF \
    -DCMAKE_CXX_FLAGS="$TSAN_FLAGS" -DCMAKE_C_FLAGS="$TSAN_FLAGS" \
    -DCMAKE_EXE_LINKER_FLAGS="$TSAN_FLAGS" -DCMAKE_SHARED_LINKER_FLAGS="$TSAN_FLAGS"
cmake --build "$BUILD_DIR" -j"$JOBS" --target dsp_tests

export TSAN_OPTIONS="halt_on_error=1:abort_on_error=1:second_deadlock_stack=1:${TSAN_OPTIONS:-}"
# Run a few times: interleavings differ from run to run.
for run in 1 2 3; do
    "$BUILD_DIR/bin/dsp_tests" --gtest_filter='Concurrency.*' --gtest_brief=1
done
echo "tsan: clean"
