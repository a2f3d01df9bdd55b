// The arithmetic rules the host's three switches select. Inside the library
// only the rules are named; the switches themselves (SimdFlags, set through
// the C interface) are read in one place, currentRules(), which every block
// calls once and then passes the rule down.
#pragma once

#include <cstdint>

namespace dsp {

enum class ArithmeticRule : uint8_t {
    // Double precision. 16 bits in: s x (1/32767) rounded to float. Out:
    // clamp to [-1, 1] (NaN to 1), x 32767, truncate toward zero. Inner
    // loops with vector forms keep their plain double arithmetic.
    kPlain,
    // Single precision, truncating with saturation. In: the sample widened to
    // 32 bits times 0x30000100; out: x 32767, truncated and saturated to 16
    // bits. Kernel groups of 4 samples / 2 stereo frames; the Kaiser FIR
    // sums in two pairs of lanes; the harmonic mix runs in groups of 4.
    kTruncating,
    // Single precision, rounding to nearest even with saturation. Kernel
    // groups of 8 samples / 4 stereo frames; the Kaiser FIR sums in four
    // lanes; the harmonic mix runs in groups of 8.
    kNearestEven,
};

struct ArithmeticRules {
    ArithmeticRule rule = ArithmeticRule::kPlain;
    // Whole-buffer copies in 16-byte blocks instead of byte by byte (the
    // bytes copied are the same; any switch selects it).
    bool blockCopy = false;
};

// The rules the switches select right now: truncating when the "3DNow!"
// switch is on, else nearest-even when the "SSE" switch is on, else plain.
ArithmeticRules currentRules();

} // namespace dsp
