#!/usr/bin/env bash
# Runs the golden runs program (dsp_golden: fixed processing runs of every
# family under every SIMD setting, one digest per run) of each given build and
# compares the digests with those of the first build. Windows builds (.exe)
# run under wine64, 64-bit ARM builds under qemu-aarch64 (qemu-user).
# Usage: scripts/compare-builds.sh [build-dir...]
#   default build dirs: build build-x86
# Exits 1 when any digest differs or a build's program cannot run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/scripts/wine-env.sh"

builds=()
for arg in "$@"; do
    case $arg in
    -*)
        echo "compare-builds: unknown option $arg" >&2
        exit 2
        ;;
    *) builds+=("$arg") ;;
    esac
done
((${#builds[@]})) || builds=(build build-x86)
if ((${#builds[@]} < 2)); then
    echo "compare-builds: give at least two build directories" >&2
    exit 2
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# True for a 64-bit ARM ELF program (byte 18 of the header: machine 0xB7).
is_aarch64() {
    [[ $(od -An -tx1 -j18 -N2 "$1" | tr -d ' ') == b700 ]]
}

# Runs a build's dsp_golden inside the scratch directory (some runs write
# files there).
run_golden() {
    local build
    build=$(cd "$1" && pwd)
    if [[ -x $build/bin/dsp_golden ]] && is_aarch64 "$build/bin/dsp_golden" &&
        [[ $(uname -m) != aarch64 ]]; then
        command -v qemu-aarch64 >/dev/null || {
            echo "compare-builds: qemu-aarch64 (qemu-user) is needed for $1" >&2
            return 1
        }
        (cd "$scratch" && qemu-aarch64 -L /usr/aarch64-linux-gnu "$build/bin/dsp_golden")
    elif [[ -x $build/bin/dsp_golden ]]; then
        (cd "$scratch" && "$build/bin/dsp_golden")
    elif [[ -f $build/bin/dsp_golden.exe ]]; then
        [[ -n $dsp_wine ]] || {
            echo "compare-builds: wine64 is needed for $1" >&2
            return 1
        }
        (cd "$scratch" && "$dsp_wine" "$build/bin/dsp_golden.exe") | tr -d '\r'
    else
        echo "compare-builds: no dsp_golden in $build/bin (build it first)" >&2
        return 1
    fi
}

status=0
reference=${builds[0]}
run_golden "$reference" >"$scratch/out.0"
runs=$(wc -l <"$scratch/out.0")
for i in "${!builds[@]}"; do
    ((i > 0)) || continue
    build=${builds[$i]}
    run_golden "$build" >"$scratch/out.$i"
    differing=$(diff <(awk '{print $1, $2, $3, $4}' "$scratch/out.0") \
        <(awk '{print $1, $2, $3, $4}' "$scratch/out.$i") | grep -c '^>' || true)
    if ((differing == 0)); then
        echo "SAME $build: all $runs digests equal those of $reference"
    else
        status=1
        echo "DIFF $build: $differing of $runs digests differ from $reference (setting, run):"
        # Lines as "setting run" pairs, one per differing digest.
        join -j1 <(awk '{print $1 "/" $2, $4}' "$scratch/out.0" | sort) \
            <(awk '{print $1 "/" $2, $4}' "$scratch/out.$i" | sort) |
            awk '$2 != $3 {print "  " $1}'
        # Runs present in only one of the two programs.
        comm -3 <(awk '{print $1 "/" $2}' "$scratch/out.0" | sort) \
            <(awk '{print $1 "/" $2}' "$scratch/out.$i" | sort) | sed 's/^[[:space:]]*/  only in one build: /'
    fi
done
exit $status
