#!/usr/bin/env bash
# Installs what the build and the tests need on a fresh Debian machine
# (as root). Packages already present are left alone.
set -euo pipefail
packages=(g++ cmake make libgtest-dev libbenchmark-dev "$@")
missing=()
for p in "${packages[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if ((${#missing[@]})); then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq "${missing[@]}"
fi
