#!/usr/bin/env bash
# Builds the command-line tool and runs its demo: a few seconds of synthesised
# music through a processing chain, sliced and measured. The files land in
# build/demo/. Usage: scripts/demo.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$jobs" --target dsp_tool >/dev/null
mkdir -p "$build/demo"
"$build/bin/dsp" demo "$build/demo/demo.wav"
