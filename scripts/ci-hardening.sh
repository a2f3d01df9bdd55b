#!/usr/bin/env bash
# The hardening stage of CI: the whole test suite under AddressSanitizer and
# UndefinedBehaviorSanitizer, the concurrency tests under ThreadSanitizer and
# a short libFuzzer run of every fuzz target. Each step fails the run on any
# report.
#
# Debian packages needed (beyond the normal build's):
#   clang libclang-rt-14-dev valgrind
# (valgrind serves scripts/valgrind.sh, which is not run here to keep the
# stage short; clang 14 and its runtime build the fuzz targets.)
#
#   scripts/ci-hardening.sh [FUZZ_SECONDS_PER_TARGET]   (default 20)
set -euo pipefail
cd "$(dirname "$0")/.."
FUZZ_SECONDS=${1:-20}
export JOBS=${JOBS:-2}

echo "== AddressSanitizer + UndefinedBehaviorSanitizer: whole suite"
scripts/sanitize.sh build-asan

echo "== ThreadSanitizer: concurrency tests"
scripts/tsan.sh build-tsan

echo "== libFuzzer: ${FUZZ_SECONDS}s per target"
scripts/fuzz.sh "$FUZZ_SECONDS"

echo "hardening: all clean"
