#!/usr/bin/env bash
# Builds the command-line tool and runs its demo: a few seconds of synthesised
# music through a processing chain, sliced and measured. The files land in
# build-demo/demo/. On a fresh Debian machine (as root) it first installs a
# compiler and CMake. Usage: scripts/demo.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-demo}
if ! command -v cmake >/dev/null || ! command -v g++ >/dev/null; then
    if [[ $(id -u) == 0 ]] && command -v apt-get >/dev/null; then
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq
        apt-get install -y -qq --no-install-recommends g++ cmake make
    else
        echo "demo: needs g++ and cmake (3.20 or later)" >&2
        exit 1
    fi
fi
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DDSP_BUILD_TESTS=OFF -DDSP_BUILD_BENCH=OFF \
    >/dev/null
cmake --build "$build" -j "$jobs" --target dsp_tool >/dev/null
mkdir -p "$build/demo"
"$build/bin/dsp" demo "$build/demo/demo.wav"
