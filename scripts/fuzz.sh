#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (library instrumented for coverage,
# AddressSanitizer and UndefinedBehaviorSanitizer) in build-fuzz/, writes the
# seed corpora, and runs each target for the given number of seconds.
#   scripts/fuzz.sh [SECONDS_PER_TARGET [TARGET...]]
# Targets: wavefile_reader wavefile_roundtrip processor_sequence tool_wave_reader
# (default all).
# Corpora grow in build-fuzz/corpus/<target>; findings land in
# build-fuzz/findings/<target>/ and fail the run.
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_PER_TARGET=${1:-60}
shift || true
TARGETS=("$@")
if [ ${#TARGETS[@]} -eq 0 ]; then
    TARGETS=(wavefile_reader wavefile_roundtrip processor_sequence tool_wave_reader)
fi
BUILD_DIR=${FUZZ_BUILD_DIR:-build-fuzz}
JOBS=${JOBS:-2}
CC_BIN=${FUZZ_CC:-clang-14}
CXX_BIN=${FUZZ_CXX:-clang++-14}
command -v "$CXX_BIN" >/dev/null || { CC_BIN=clang; CXX_BIN=clang++; }
SAN_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -g"

cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_COMPILER="$CC_BIN" -DCMAKE_CXX_COMPILER="$CXX_BIN" \
    -DDSP_BUILD_FUZZ=ON -DDSP_BUILD_TESTS=OFF -DDSP_BUILD_BENCH=OFF -DDSP_BUILD_TOOLS=OFF \
    -DCMAKE_CXX_FLAGS="$SAN_FLAGS" -DCMAKE_C_FLAGS="$SAN_FLAGS" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined"
build_targets=(fuzz_seed_corpus)
for t in "${TARGETS[@]}"; do build_targets+=("fuzz_$t"); done
cmake --build "$BUILD_DIR" -j"$JOBS" --target "${build_targets[@]}"

export ASAN_OPTIONS="allocator_may_return_null=1:detect_leaks=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
SEEDS="$BUILD_DIR/seeds"
rm -rf "$SEEDS"
"$BUILD_DIR/bin/fuzz_seed_corpus" "$SEEDS"

status=0
for t in "${TARGETS[@]}"; do
    corpus="$BUILD_DIR/corpus/$t"
    findings="$BUILD_DIR/findings/$t"
    mkdir -p "$corpus" "$findings"
    echo "== fuzz_$t for ${SECONDS_PER_TARGET}s"
    if ! (cd "$findings" && "../../bin/fuzz_$t" -max_total_time="$SECONDS_PER_TARGET" \
            -max_len=65536 -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 \
            "../../corpus/$t" "../../seeds/$t"); then
        echo "fuzz_$t: finding in $findings" >&2
        status=1
    fi
done
exit $status
