#include "sample_convert.h"

#include "arithmetic_rules.h"

#include <cmath>
#include <cstring>

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#define DSP_HAVE_SSE2 1
#include <emmintrin.h>
#endif

namespace dsp {

namespace {

// Constants of the vector kernels (single precision, exact bit patterns).
constexpr float kKernelScale = 4.656754981624545e-10f; // 1/(32767*65536): 0x30000100
constexpr float kMixScale = 1.5259254723787308e-05f;   // 1/65534: 0x37800100
constexpr float kOutScale = 32767.0f;                  // 0x46fffe00

// ---- Per-sample arithmetic of the kernels (the scalar form of the vectors) ----

// The sample in the upper 16 bits of an int32 with its own bits repeated below.
inline float kernelToFloat(int16_t s) {
    uint32_t bits = static_cast<uint16_t>(s);
    int32_t widened = static_cast<int32_t>((bits << 16) | bits);
    return static_cast<float>(widened) * kKernelScale;
}

// L + R exactly in 32 bits, no halving.
inline float kernelMixToFloat(int16_t l, int16_t r) {
    return static_cast<float>(static_cast<int32_t>(l) + static_cast<int32_t>(r)) * kMixScale;
}

inline int16_t saturate16(int32_t v) {
    if (v < -32768) {
        return -32768;
    }
    if (v > 32767) {
        return 32767;
    }
    return static_cast<int16_t>(v);
}

// Truncating rule: toward zero with saturation to the int32 range; NaN gives
// the most negative value, as under the nearest-even rule.
inline int16_t truncatingSample(float x) {
    float p = x * kOutScale;
    int32_t v;
    if (std::isnan(p) || p < -2147483648.0f) {
        v = INT32_MIN;
    } else if (p >= 2147483648.0f) {
        v = INT32_MAX;
    } else {
        v = static_cast<int32_t>(p);
    }
    return saturate16(v);
}

// Nearest-even rule: ties to even; NaN and out-of-range give INT32_MIN.
inline int16_t nearestEvenSample(float x) {
    float p = x * kOutScale;
    int32_t v;
    if (!(p >= -2147483648.0f && p < 2147483648.0f)) {
        v = INT32_MIN;
    } else {
        v = static_cast<int32_t>(std::nearbyint(p));
    }
    return saturate16(v);
}

// ---- Vector forms (SSE2) ----
#if DSP_HAVE_SSE2

inline __m128 widenToFloat(__m128i sixteen) {
    return _mm_cvtepi32_ps(sixteen);
}

// Mono: 8 samples -> 8 floats.
inline void vecMonoToFloat(const int16_t* src, float* out) {
    __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    __m128 scale = _mm_set1_ps(kKernelScale);
    __m128 lo = _mm_mul_ps(widenToFloat(_mm_unpacklo_epi16(x, x)), scale);
    __m128 hi = _mm_mul_ps(widenToFloat(_mm_unpackhi_epi16(x, x)), scale);
    _mm_storeu_ps(out, lo);
    _mm_storeu_ps(out + 4, hi);
}

// Stereo: 4 frames -> 4 left + 4 right floats.
inline void vecStereoToFloat(const int16_t* src, float* left, float* right) {
    __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    __m128 scale = _mm_set1_ps(kKernelScale);
    __m128 a = _mm_mul_ps(widenToFloat(_mm_unpacklo_epi16(x, x)), scale); // L0 R0 L1 R1
    __m128 b = _mm_mul_ps(widenToFloat(_mm_unpackhi_epi16(x, x)), scale); // L2 R2 L3 R3
    _mm_storeu_ps(left, _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
    _mm_storeu_ps(right, _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
}

// Stereo mixed down: 4 frames -> 4 floats of (L + R) / 65534.
inline void vecMixToFloat(const int16_t* src, float* out) {
    __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    __m128i sums = _mm_madd_epi16(x, _mm_set1_epi16(1));
    _mm_storeu_ps(out, _mm_mul_ps(_mm_cvtepi32_ps(sums), _mm_set1_ps(kMixScale)));
}

// 4 floats -> 4 int32 by the truncating rule (saturating).
inline __m128i vecTruncatingToInt32(__m128 x) {
    __m128 p = _mm_mul_ps(x, _mm_set1_ps(kOutScale));
    __m128i t = _mm_cvttps_epi32(p);
    // Positive overflow came out as 0x80000000; flip it to 0x7fffffff.
    __m128i over = _mm_castps_si128(_mm_cmpge_ps(p, _mm_set1_ps(2147483648.0f)));
    return _mm_xor_si128(t, over);
}

// 4 floats -> 4 int32 by the nearest-even rule.
inline __m128i vecNearestEvenToInt32(__m128 x) {
    return _mm_cvtps_epi32(_mm_mul_ps(x, _mm_set1_ps(kOutScale)));
}

template <__m128i (*ToInt32)(__m128)>
inline void vecMonoToInt16(const float* in, int16_t* dst) {
    __m128i a = ToInt32(_mm_loadu_ps(in));
    __m128i b = ToInt32(_mm_loadu_ps(in + 4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_packs_epi32(a, b));
}

template <__m128i (*ToInt32)(__m128)>
inline void vecStereoToInt16(const float* left, const float* right, int16_t* dst) {
    __m128i l = ToInt32(_mm_loadu_ps(left));
    __m128i r = ToInt32(_mm_loadu_ps(right));
    __m128i lo = _mm_unpacklo_epi32(l, r);
    __m128i hi = _mm_unpackhi_epi32(l, r);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_packs_epi32(lo, hi));
}

// Eight frames: each channel is packed to 16 bits first, then the two are
// interleaved. Saturation is per value, so this equals two four-frame steps.
template <__m128i (*ToInt32)(__m128)>
inline void vecStereoToInt16x8(const float* left, const float* right, int16_t* dst) {
    __m128i l = _mm_packs_epi32(ToInt32(_mm_loadu_ps(left)), ToInt32(_mm_loadu_ps(left + 4)));
    __m128i r = _mm_packs_epi32(ToInt32(_mm_loadu_ps(right)), ToInt32(_mm_loadu_ps(right + 4)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_unpacklo_epi16(l, r));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 8), _mm_unpackhi_epi16(l, r));
}

template <__m128i (*ToInt32)(__m128)>
inline void vecDuplicateToInt16(const float* left, int16_t* dst) {
    __m128i l = ToInt32(_mm_loadu_ps(left));
    __m128i lo = _mm_unpacklo_epi32(l, l);
    __m128i hi = _mm_unpackhi_epi32(l, l);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_packs_epi32(lo, hi));
}

#endif // DSP_HAVE_SSE2

// ---- Kernel shares: convert [0, count) with the kernel arithmetic ----

void kernelMonoToFloat(const int16_t* src, float* out, uint32_t count) {
    size_t i = 0;
#if DSP_HAVE_SSE2
    for (; i + 8 <= count; i += 8) {
        vecMonoToFloat(src + i, out + i);
    }
#endif
    for (; i < count; ++i) {
        out[i] = kernelToFloat(src[i]);
    }
}

void kernelStereoToFloat(const int16_t* src, float* left, float* right, uint32_t frames) {
    size_t i = 0;
#if DSP_HAVE_SSE2
    // Eight frames a turn: the loop is bound by the number of vector
    // operations, and the unrolled walk saves the index arithmetic.
    for (; i + 8 <= frames; i += 8) {
        vecStereoToFloat(src + 2 * i, left + i, right + i);
        vecStereoToFloat(src + 2 * i + 8, left + i + 4, right + i + 4);
    }
    for (; i + 4 <= frames; i += 4) {
        vecStereoToFloat(src + 2 * i, left + i, right + i);
    }
#endif
    for (; i < frames; ++i) {
        left[i] = kernelToFloat(src[2 * i]);
        right[i] = kernelToFloat(src[2 * i + 1]);
    }
}

void kernelMixToFloat(const int16_t* src, float* out, uint32_t frames) {
    size_t i = 0;
#if DSP_HAVE_SSE2
    for (; i + 4 <= frames; i += 4) {
        vecMixToFloat(src + 2 * i, out + i);
    }
#endif
    for (; i < frames; ++i) {
        out[i] = kernelMixToFloat(src[2 * i], src[2 * i + 1]);
    }
}

enum class Rounding { Truncating, NearestEven };

template <Rounding R>
inline int16_t kernelToInt16(float x) {
    return R == Rounding::Truncating ? truncatingSample(x) : nearestEvenSample(x);
}

#if DSP_HAVE_SSE2
template <Rounding R>
constexpr __m128i (*vecToInt32())(__m128) {
    return R == Rounding::Truncating ? vecTruncatingToInt32 : vecNearestEvenToInt32;
}
#endif

template <Rounding R>
void kernelMonoToInt16(const float* in, int16_t* dst, uint32_t count) {
    size_t i = 0;
#if DSP_HAVE_SSE2
    for (; i + 8 <= count; i += 8) {
        vecMonoToInt16<vecToInt32<R>()>(in + i, dst + i);
    }
#endif
    for (; i < count; ++i) {
        dst[i] = kernelToInt16<R>(in[i]);
    }
}

template <Rounding R>
void kernelStereoToInt16(const float* left, const float* right, int16_t* dst, uint32_t frames) {
    size_t i = 0;
#if DSP_HAVE_SSE2
    for (; i + 8 <= frames; i += 8) {
        vecStereoToInt16x8<vecToInt32<R>()>(left + i, right + i, dst + 2 * i);
    }
    for (; i + 4 <= frames; i += 4) {
        vecStereoToInt16<vecToInt32<R>()>(left + i, right + i, dst + 2 * i);
    }
#endif
    for (; i < frames; ++i) {
        dst[2 * i] = kernelToInt16<R>(left[i]);
        dst[2 * i + 1] = kernelToInt16<R>(right[i]);
    }
}

template <Rounding R>
void kernelDuplicateToInt16(const float* left, int16_t* dst, uint32_t frames) {
    size_t i = 0;
#if DSP_HAVE_SSE2
    for (; i + 4 <= frames; i += 4) {
        vecDuplicateToInt16<vecToInt32<R>()>(left + i, dst + 2 * i);
    }
#endif
    for (; i < frames; ++i) {
        int16_t v = kernelToInt16<R>(left[i]);
        dst[2 * i] = v;
        dst[2 * i + 1] = v;
    }
}

// ---- Plain rules over a range [from, to) ----
//
// The plain rules are double-precision arithmetic, which SSE2 does two
// values at a time with the same IEEE operations (exact widening, one
// multiply, one rounding to float or one truncation), so the vector forms
// below give the very results of the scalar rules. They run whatever the
// switches say; the switches choose between rules, not between instructions.

#if DSP_HAVE_SSE2

// Four int32 -> four floats by the plain rule: s * (1/32767) in double.
inline __m128 plainVecToFloat(__m128i s) {
    const __m128d scale = _mm_set1_pd(1.0 / 32767.0);
    __m128 lo = _mm_cvtpd_ps(_mm_mul_pd(_mm_cvtepi32_pd(s), scale));
    __m128 hi = _mm_cvtpd_ps(_mm_mul_pd(_mm_cvtepi32_pd(_mm_srli_si128(s, 8)), scale));
    return _mm_movelh_ps(lo, hi);
}

// Four floats -> four int32 by the plain rule: clamp to [-1, 1] (NaN to 1),
// times 32767 in double, truncated.
inline __m128i plainVecToInt32(__m128 x) {
    // minps yields its second operand for NaN, so NaN and values above 1
    // become 1 before the lower bound is applied.
    __m128 v = _mm_max_ps(_mm_min_ps(x, _mm_set1_ps(1.0f)), _mm_set1_ps(-1.0f));
    const __m128d scale = _mm_set1_pd(32767.0);
    __m128i lo = _mm_cvttpd_epi32(_mm_mul_pd(_mm_cvtps_pd(v), scale));
    __m128i hi = _mm_cvttpd_epi32(_mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(v, v)), scale));
    return _mm_unpacklo_epi64(lo, hi);
}

inline __m128i loadFourSamples(const int16_t* src) {
    __m128i x = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src));
    return _mm_srai_epi32(_mm_unpacklo_epi16(x, x), 16);
}

// Four frames -> four left and four right int32.
inline void loadFourFrames(const int16_t* src, __m128i& l, __m128i& r) {
    __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    l = _mm_srai_epi32(_mm_slli_epi32(x, 16), 16);
    r = _mm_srai_epi32(x, 16);
}

// Results lie within [-32767, 32767]: the saturating pack is exact.
inline void storeFourSamples(int16_t* dst, __m128i v) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst), _mm_packs_epi32(v, v));
}

#endif // DSP_HAVE_SSE2

void plainToFloat(const int16_t* src, float* left, float* right, uint32_t channels, uint32_t from,
                  uint32_t to) {
    size_t i = from;
    if (channels == 2) {
        if (right != nullptr) {
#if DSP_HAVE_SSE2
            for (; i + 4 <= to; i += 4) {
                __m128i l, r;
                loadFourFrames(src + 2 * i, l, r);
                _mm_storeu_ps(left + i, plainVecToFloat(l));
                _mm_storeu_ps(right + i, plainVecToFloat(r));
            }
#endif
            for (; i < to; ++i) {
                left[i] = convert::sampleToFloat(src[2 * i]);
                right[i] = convert::sampleToFloat(src[2 * i + 1]);
            }
        } else {
#if DSP_HAVE_SSE2
            for (; i + 4 <= to; i += 4) {
                __m128i l, r;
                loadFourFrames(src + 2 * i, l, r);
                _mm_storeu_ps(left + i, plainVecToFloat(_mm_srai_epi32(_mm_add_epi32(l, r), 1)));
            }
#endif
            for (; i < to; ++i) {
                // Arithmetic shift: the halved sum rounds toward minus infinity.
                int32_t sum =
                    static_cast<int32_t>(src[2 * i]) + static_cast<int32_t>(src[2 * i + 1]);
                left[i] = convert::sampleToFloat(sum >> 1);
            }
        }
    } else {
#if DSP_HAVE_SSE2
        for (; i + 4 <= to; i += 4) {
            _mm_storeu_ps(left + i, plainVecToFloat(loadFourSamples(src + i)));
        }
#endif
        for (; i < to; ++i) {
            left[i] = convert::sampleToFloat(src[i]);
        }
    }
}

void plainToInt16(const float* left, const float* right, int16_t* dst, uint32_t channels,
                  uint32_t from, uint32_t to) {
    size_t i = from;
    if (channels == 2) {
        if (right != nullptr) {
#if DSP_HAVE_SSE2
            for (; i + 4 <= to; i += 4) {
                __m128i l = plainVecToInt32(_mm_loadu_ps(left + i));
                __m128i r = plainVecToInt32(_mm_loadu_ps(right + i));
                __m128i lr = _mm_packs_epi32(l, r); // L0..L3 R0..R3
                _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 2 * i),
                                 _mm_unpacklo_epi16(lr, _mm_srli_si128(lr, 8)));
            }
#endif
            for (; i < to; ++i) {
                dst[2 * i] = convert::floatToSample(left[i]);
                dst[2 * i + 1] = convert::floatToSample(right[i]);
            }
        } else {
#if DSP_HAVE_SSE2
            for (; i + 4 <= to; i += 4) {
                __m128i l = plainVecToInt32(_mm_loadu_ps(left + i));
                __m128i ll = _mm_packs_epi32(l, l);
                _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 2 * i),
                                 _mm_unpacklo_epi16(ll, ll));
            }
#endif
            for (; i < to; ++i) {
                int16_t v = convert::floatToSample(left[i]);
                dst[2 * i] = v;
                dst[2 * i + 1] = v;
            }
        }
    } else {
#if DSP_HAVE_SSE2
        for (; i + 4 <= to; i += 4) {
            storeFourSamples(dst + i, plainVecToInt32(_mm_loadu_ps(left + i)));
        }
#endif
        for (; i < to; ++i) {
            dst[i] = convert::floatToSample(left[i]);
        }
    }
}

inline uint32_t roundDown(uint32_t n, uint32_t group) {
    return n - n % group;
}

uint32_t framesIn(uint32_t bytes, uint32_t channels) {
    return channels == 2 ? bytes / 4 : bytes / 2;
}

// Frames per kernel step of the two single-precision rules.
struct KernelGroups {
    uint32_t mono;
    uint32_t stereo;
    uint32_t mixedOrDuplicated; // int16 -> float: mixed down; float -> int16: duplicated
};
constexpr KernelGroups kTruncatingGroups{4, 2, 4};
constexpr KernelGroups kNearestEvenToFloat{8, 4, 8};

// The kernel share by the single-precision arithmetic, the rest by the plain
// rules, continuing where the kernel stopped.
uint32_t kernelToFloat(const KernelGroups& groups, const int16_t* src, uint32_t bytes, float* left,
                       float* right, uint32_t channels) {
    const uint32_t frames = framesIn(bytes, channels);
    uint32_t kernel;
    if (channels == 2 && right != nullptr) {
        kernel = roundDown(frames, groups.stereo);
        kernelStereoToFloat(src, left, right, kernel);
    } else if (channels == 2) {
        kernel = roundDown(frames, groups.mixedOrDuplicated);
        kernelMixToFloat(src, left, kernel);
    } else {
        kernel = roundDown(frames, groups.mono);
        kernelMonoToFloat(src, left, kernel);
    }
    plainToFloat(src, left, right, channels, kernel, frames);
    return frames;
}

void truncatingToInt16(const float* left, const float* right, uint32_t frames, int16_t* dst,
                       uint32_t channels) {
    uint32_t kernel;
    if (channels == 2 && right != nullptr) {
        kernel = roundDown(frames, kTruncatingGroups.stereo);
        kernelStereoToInt16<Rounding::Truncating>(left, right, dst, kernel);
    } else if (channels == 2) {
        kernel = roundDown(frames, kTruncatingGroups.mixedOrDuplicated);
        kernelDuplicateToInt16<Rounding::Truncating>(left, dst, kernel);
    } else {
        kernel = roundDown(frames, kTruncatingGroups.mono);
        kernelMonoToInt16<Rounding::Truncating>(left, dst, kernel);
    }
    plainToInt16(left, right, dst, channels, kernel, frames);
}

// Groups of 8 samples or 4 stereo frames; duplication has no kernel. Frames
// before the first 16-byte boundary of `left` go by the plain rules.
void nearestEvenToInt16(const float* left, const float* right, uint32_t frames, int16_t* dst,
                        uint32_t channels) {
    if (channels == 2 && right == nullptr) {
        plainToInt16(left, right, dst, channels, 0, frames);
        return;
    }
    uint32_t lead = 0;
    while (lead < frames && lead < 4 && (reinterpret_cast<uintptr_t>(left + lead) & 15) != 0) {
        ++lead;
    }
    plainToInt16(left, right, dst, channels, 0, lead);
    const uint32_t rest = frames - lead;
    uint32_t kernel;
    if (channels == 2) {
        kernel = roundDown(rest, 4);
        kernelStereoToInt16<Rounding::NearestEven>(left + lead, right + lead,
                                                   dst + size_t{2} * lead, kernel);
    } else {
        kernel = roundDown(rest, 8);
        kernelMonoToInt16<Rounding::NearestEven>(left + lead, dst + lead, kernel);
    }
    plainToInt16(left, right, dst, channels, lead + kernel, frames);
}

} // namespace

uint32_t convertToFloat(ArithmeticRule rule, const int16_t* src, uint32_t bytes, float* left,
                        float* right, uint32_t channels) {
    switch (rule) {
    case ArithmeticRule::kTruncating:
        return kernelToFloat(kTruncatingGroups, src, bytes, left, right, channels);
    case ArithmeticRule::kNearestEven:
        return kernelToFloat(kNearestEvenToFloat, src, bytes, left, right, channels);
    case ArithmeticRule::kPlain:
        break;
    }
    const uint32_t frames = framesIn(bytes, channels);
    plainToFloat(src, left, right, channels, 0, frames);
    return frames;
}

uint32_t convertToInt16(ArithmeticRule rule, const float* left, const float* right, uint32_t frames,
                        int16_t* dst, uint32_t channels) {
    switch (rule) {
    case ArithmeticRule::kTruncating:
        truncatingToInt16(left, right, frames, dst, channels);
        break;
    case ArithmeticRule::kNearestEven:
        nearestEvenToInt16(left, right, frames, dst, channels);
        break;
    case ArithmeticRule::kPlain:
        plainToInt16(left, right, dst, channels, 0, frames);
        break;
    }
    return frames * 2 * channels;
}

void blockCopy16(const void* src, void* dst, size_t bytes) {
    const unsigned char* s = static_cast<const unsigned char*>(src);
    unsigned char* d = static_cast<unsigned char*>(dst);
    size_t blocks = bytes & ~size_t(15);
    size_t i = 0;
    for (; i < blocks; i += 16) {
#if DSP_HAVE_SSE2
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i)));
#else
        std::memcpy(d + i, s + i, 16);
#endif
    }
    for (; i < bytes; ++i) {
        d[i] = s[i];
    }
}

void copyBuffer(const void* src, void* dst, size_t bytes) {
    if (src == dst || bytes == 0) {
        return;
    }
    if (currentRules().blockCopy) {
        blockCopy16(src, dst, bytes);
    } else {
        // A byte copy; memcpy moves the same bytes, only faster.
        std::memcpy(dst, src, bytes);
    }
}

void passThroughCopy(const void* src, void* dst, uint32_t bytes) {
    copyBuffer(src, dst, bytes);
}

} // namespace dsp
