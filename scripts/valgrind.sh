#!/usr/bin/env bash
# Runs a representative part of the test suite under valgrind memcheck: every
# processor family through its exports (the wave slicer included), the chain,
# the pool, the allocation-failure walks (pool and heap), the WAVE reader and
# writer. Any error or leak fails the run.
#   scripts/valgrind.sh [BUILD_DIR [GTEST_FILTER]]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${1:-build-valgrind}
FILTER=${2:-'AllocationFailure.*:ChainTest.*:FastmemPool.*:DspProcessor.*:IirFilterTest.*:Fader.*:CrossFader.*:Chorus.*:Resampler.*:Hqups.*:PitchShift.*:Stretch.*:GranularExports.*:GranularReview.*:DoFft.*:DoFftAnalyze.*:DoEnvAnalyze.*:WaveSlice.*:WavefileMalformed.*:WavefileReaderTest.*:WavefileWriterTest.*:Concurrency.FastmemExportsFromManyThreads'}
JOBS=${JOBS:-2}

# Debug information for readable reports; no sanitizers (valgrind replaces them).
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDSP_BUILD_BENCH=OFF -DDSP_BUILD_TOOLS=OFF
cmake --build "$BUILD_DIR" -j"$JOBS" --target dsp_tests

valgrind --tool=memcheck --error-exitcode=99 --leak-check=full \
    --show-leak-kinds=definite,indirect,possible --errors-for-leak-kinds=definite,indirect,possible \
    --track-origins=yes --num-callers=30 \
    "$BUILD_DIR/bin/dsp_tests" --gtest_filter="$FILTER" --gtest_brief=1
echo "valgrind: clean"
