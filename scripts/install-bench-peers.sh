#!/usr/bin/env bash
# Installs the peer libraries of the side-by-side benchmarks and the tools of
# bench/compare and bench/quality on Debian (as root). The library itself
# needs none of them.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq pkg-config libsamplerate0-dev libspeexdsp-dev libsoxr-dev \
    libsoundtouch-dev librubberband-dev libfftw3-dev libkissfft-dev libsndfile1-dev \
    sox hyperfine python3 python3-numpy
