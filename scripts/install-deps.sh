#!/usr/bin/env bash
# Installs what the build and the tests need on a fresh Debian machine
# (as root). Packages already present are left alone.
#   g++-N-multilib      the 32-bit Linux build (N: the g++ version; not the
#                       g++-multilib package, which conflicts with every cross
#                       compiler, g++-aarch64-linux-gnu among them)
#   googletest          GoogleTest sources, built inside the 32-bit and Windows builds
#   mingw-w64           the Windows cross-builds (i686 and x86_64 dsp.dll)
#   wine64              runs the 64-bit Windows test suite
#   g++-aarch64-linux-gnu, qemu-user  the 64-bit ARM Linux cross-build, its
#                       tests and golden runs under emulation
#   sox, python3        outside WAVE readers and writers for the round-trip tests
#   clang, libclang-rt-14-dev  libFuzzer targets and ThreadSanitizer runs
#   clang-format, clang-tidy   the house-rule checks (scripts/check-format.sh,
#                              scripts/check-tidy.sh; version 14)
#   pkg-config          consumes the installed library (scripts/check-install.sh)
#   libpng-dev          PNG for the tool's pictures (brings zlib1g-dev)
#   python3-venv, python3-pip, python3-setuptools, python3-wheel, python3-numpy,
#   python3-pytest, python3-distributed   the Python package, installed into a
#                       venv offline and tested there (scripts/check-python.sh)
# Optional (installed when the distribution has it; the build does without):
#   libsndfile1-dev     FLAC, Ogg Vorbis, Ogg Opus and AIFF in the dsp tool
#   python3-tqdm        the progress bar of the Python package's batches
set -euo pipefail
gxx_major=$(g++ -dumpversion 2>/dev/null | cut -d. -f1)
packages=(g++ cmake make libgtest-dev libbenchmark-dev
    "g++-${gxx_major:-12}-multilib" googletest mingw-w64 wine64 g++-aarch64-linux-gnu qemu-user sox python3 clang libclang-rt-14-dev
    clang-format clang-tidy pkg-config libpng-dev python3-venv python3-pip python3-setuptools
    python3-wheel python3-numpy python3-pytest python3-distributed "$@")
missing=()
missing_optional=()
for p in "${packages[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
optional=(libsndfile1-dev python3-tqdm)
for p in "${optional[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing_optional+=("$p")
done
export DEBIAN_FRONTEND=noninteractive
if ((${#missing[@]})) || ((${#missing_optional[@]})); then
    apt-get update -qq
fi
if ((${#missing[@]})); then
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
if ((${#missing_optional[@]})); then
    apt-get install -y -qq --no-install-recommends "${missing_optional[@]}" ||
        echo "install-deps: optional ${missing_optional[*]} not installed; building without"
fi
