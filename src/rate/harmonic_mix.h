// The two element-wise steps of the harmonic generator: the synthesised part
// (shaped minus band) and its mix into the output. Plain: per element in
// double, stored as float. 3DNow!: groups of 4 in single precision when n > 3.
// SSE: groups of 8 in single precision when n > 7. The vector paths leave the
// n mod 4 (n mod 8) last elements to the plain rule.
#pragma once

#include <cstdint>

namespace dsp {

// band[i] = shaped[i] - band[i], by the path the SIMD switches select.
void subtractFromShaped(const float* shaped, float* band, uint32_t n);
// out[i] = out[i] + gain * band[i], by the path the SIMD switches select.
void addScaled(float* out, const float* band, float gain, uint32_t n);

namespace mix {

void subtractPlain(const float* shaped, float* band, uint32_t n);
void subtract3dnow(const float* shaped, float* band, uint32_t n);
void subtractSse(const float* shaped, float* band, uint32_t n);

void addScaledPlain(float* out, const float* band, float gain, uint32_t n);
void addScaled3dnow(float* out, const float* band, float gain, uint32_t n);
void addScaledSse(float* out, const float* band, float gain, uint32_t n);

} // namespace mix

} // namespace dsp
