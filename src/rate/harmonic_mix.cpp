#include "harmonic_mix.h"

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#define DSP_HAVE_SSE2 1
#include <emmintrin.h>
#endif

namespace dsp {

namespace {

// Single-precision kernels over [0, count), count a multiple of 4. The output
// buffers may be any caller's, so the loads and stores do not assume alignment
// (the results do not depend on it).
void subtractSingle(const float* shaped, float* band, uint32_t count) {
#if DSP_HAVE_SSE2
    for (uint32_t i = 0; i < count; i += 4) {
        _mm_storeu_ps(band + i, _mm_sub_ps(_mm_loadu_ps(shaped + i), _mm_loadu_ps(band + i)));
    }
#else
    for (uint32_t i = 0; i < count; ++i) {
        band[i] = shaped[i] - band[i];
    }
#endif
}

void addScaledSingle(float* out, const float* band, float gain, uint32_t count) {
#if DSP_HAVE_SSE2
    const __m128 g = _mm_set1_ps(gain);
    for (uint32_t i = 0; i < count; i += 4) {
        _mm_storeu_ps(out + i,
                      _mm_add_ps(_mm_loadu_ps(out + i), _mm_mul_ps(g, _mm_loadu_ps(band + i))));
    }
#else
    for (uint32_t i = 0; i < count; ++i) {
        out[i] = out[i] + gain * band[i];
    }
#endif
}

// The share of n the single-precision kernels take under a rule: groups of 4
// or 8, when n is at least one group; the remainder goes to the plain rule.
uint32_t groupedShare(ArithmeticRule rule, uint32_t n) {
    const uint32_t group = rule == ArithmeticRule::kTruncating    ? 4
                           : rule == ArithmeticRule::kNearestEven ? 8
                                                                  : 0;
    return group != 0 && n >= group ? n - n % group : 0;
}

void subtractPlain(const float* shaped, float* band, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        band[i] = static_cast<float>(static_cast<double>(shaped[i]) - band[i]);
    }
}

void addScaledPlain(float* out, const float* band, float gain, uint32_t n) {
    const double g = gain;
    for (uint32_t i = 0; i < n; ++i) {
        out[i] = static_cast<float>(out[i] + g * band[i]);
    }
}

} // namespace

void subtractFromShaped(ArithmeticRule rule, const float* shaped, float* band, uint32_t n) {
    const uint32_t share = groupedShare(rule, n);
    subtractSingle(shaped, band, share);
    subtractPlain(shaped + share, band + share, n - share);
}

void addScaled(ArithmeticRule rule, float* out, const float* band, float gain, uint32_t n) {
    const uint32_t share = groupedShare(rule, n);
    addScaledSingle(out, band, gain, share);
    addScaledPlain(out + share, band + share, gain, n - share);
}

} // namespace dsp
