// The two element-wise steps of the harmonic generator: the synthesised part
// (shaped minus band) and its mix into the output. Plain rule: per element in
// double, stored as float. Truncating rule: groups of 4 in single precision
// when n > 3; nearest-even rule: groups of 8 when n > 7. The grouped rules
// leave the n mod 4 (n mod 8) last elements to the plain arithmetic.
#pragma once

#include "core/arithmetic_rules.h"

#include <cstdint>

namespace dsp {

// band[i] = shaped[i] - band[i].
void subtractFromShaped(ArithmeticRule rule, const float* shaped, float* band, uint32_t n);
// out[i] = out[i] + gain * band[i].
void addScaled(ArithmeticRule rule, float* out, const float* band, float gain, uint32_t n);

} // namespace dsp
