#!/usr/bin/env bash
# Checks that a 64-bit ARM build of the library contains no fused
# multiply-add instruction: every product is rounded before it is added, as
# on x86, so both give the same bytes. First proves that the check sees such
# instructions where the compiler is allowed to fuse.
#   scripts/check-no-fma.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: check-no-fma.sh BUILD_DIR}
cc=${AARCH64_CC:-aarch64-linux-gnu-g++}
objdump=${AARCH64_OBJDUMP:-aarch64-linux-gnu-objdump}
fused='[[:space:]](fmadd|fmsub|fnmadd|fnmsub|fmla|fmls)[[:space:]]'

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
printf 'double f(double a, double b, double c) { return a * b + c; }\n' >"$scratch/fused.cpp"
"$cc" -O2 -ffp-contract=fast -c "$scratch/fused.cpp" -o "$scratch/fused.o"
if ! "$objdump" -d "$scratch/fused.o" | grep -qE "$fused"; then
    echo "check-no-fma: the check finds no fused instruction even in code built to have one" >&2
    exit 1
fi

library=$(readlink -f "$build/lib/libdsp.so")
"$objdump" -d "$library" >"$scratch/library.s"
count=$(grep -cE "$fused" "$scratch/library.s" || true)
products=$(grep -cE '[[:space:]]fmul[[:space:]]' "$scratch/library.s" || true)
if ((count > 0)); then
    echo "check-no-fma: $library has $count fused multiply-add instructions:" >&2
    grep -E "$fused" "$scratch/library.s" | head -20 >&2
    exit 1
fi
echo "OK $library: no fused multiply-add among $products multiplications"
