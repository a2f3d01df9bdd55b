// The forward real transform of FftEngine: an n/2-point complex transform of
// the samples taken in pairs (split-radix, decimation in frequency, in place,
// output bit-reversed and then permuted into natural order), followed by the
// post-processing step that separates the spectra of the even and odd
// samples.
//
// Complex transforms here use the + sign: Z[m] = sum z[k] e^(+2 pi i km/M).
// A block of "kind 1" computes that plain transform; a block of "kind 2"
// computes the odd-frequency transform Y[r] = sum y[k] e^(+i pi k(2r+1)/Q),
// which is what the x0 - x2 half of a split-radix stage still needs.
//
// Table layout (twiddles, nw entries): a sub-table of size s sits at offset
// nw - 2s for s = nw/2, nw/4, ... 2. Entry 0 is 1, entry 1 is cos(pi/4),
// entries 2 and 3 are 0.5/cos(2d) and 0.5/cos(6d), and from j = 4 on, in
// steps of 4, cos(jd), sin(jd), cos(3jd), sin(3jd) with d = (pi/4)/s.
#include "fft_engine.h"

#include <cmath>
#include <cstring>

// Where the compiler targets 128-bit float vectors, the kernels take two
// complex values per register; elsewhere one position at a time.
#if defined(__SSE2__)
#include <emmintrin.h>
#define DSP_FFT_VECTOR 1
#else
#define DSP_FFT_VECTOR 0
#endif

namespace dsp {

namespace {

// y * w written to p[0], p[1].
inline void storeRotated(float* p, float yr, float yi, float wr, float wi) {
    p[0] = yr * wr - yi * wi;
    p[1] = yr * wi + yi * wr;
}

// x1 + i x3 and x1 - i x3 of a radix-4 split, left for the caller to rotate.
struct SplitOddHalf {
    float ar, ai, br, bi;
};

// The radix-4 split of a kind-1 block at one position of its first quarter
// (p0..p3 in quarters 0 to 3): with x0 = q0 + q2, x1 = q0 - q2,
// x2 = q1 + q3, x3 = q1 - q3, quarter 0 gets x0 + x2 and quarter 1 x0 - x2.
[[maybe_unused]] inline SplitOddHalf splitSums(float* p0, float* p1, const float* p2,
                                               const float* p3) {
    float x0r = p0[0] + p2[0];
    float x0i = p0[1] + p2[1];
    float x1r = p0[0] - p2[0];
    float x1i = p0[1] - p2[1];
    float x2r = p1[0] + p3[0];
    float x2i = p1[1] + p3[1];
    float x3r = p1[0] - p3[0];
    float x3i = p1[1] - p3[1];
    p0[0] = x0r + x2r;
    p0[1] = x0i + x2i;
    p1[0] = x0r - x2r;
    p1[1] = x0i - x2i;
    return {x1r - x3i, x1i + x3r, x1r + x3i, x1i - x3r};
}

// Radix-4 split stage of a kind-1 block at one position k of its first
// quarter (quarters `q` floats apart): quarter 2 gets (x1 + i x3) w^k and
// quarter 3 (x1 - i x3) w^3k.
[[maybe_unused]] inline void splitButterfly(float* a, uint32_t q, float wr, float wi, float w3r,
                                            float w3i) {
    float* p2 = a + size_t{2} * q;
    float* p3 = p2 + q;
    const SplitOddHalf odd = splitSums(a, a + q, p2, p3);
    storeRotated(p2, odd.ar, odd.ai, wr, wi);
    storeRotated(p3, odd.br, odd.bi, w3r, w3i);
}

// The same stage without twiddles (k = 0).
[[maybe_unused]] inline void splitButterflyPlain(float* a, uint32_t q) {
    float* p2 = a + size_t{2} * q;
    float* p3 = p2 + q;
    const SplitOddHalf odd = splitSums(a, a + q, p2, p3);
    p2[0] = odd.ar;
    p2[1] = odd.ai;
    p3[0] = odd.br;
    p3[1] = odd.bi;
}

// Stage of a kind-2 block at position k. With a = y0 + i y2, b = y0 - i y2,
// u = y1 + i y3, d = y1 - i y3 and e = e^(i pi/4): quarter 0 gets
// (a + e u) v^k, quarter 1 (a - e u) v^k, quarter 2 (b + e^3 d) v^3k and
// quarter 3 (b - e^3 d) v^3k, v = e^(i pi/Q).
inline void oddButterfly(float* a, uint32_t q, float c45, float vr, float vi, float v3r,
                         float v3i) {
    float* p0 = a;
    float* p1 = a + q;
    float* p2 = p1 + q;
    float* p3 = p2 + q;
    float ar = p0[0] - p2[1];
    float ai = p0[1] + p2[0];
    float br = p0[0] + p2[1];
    float bi = p0[1] - p2[0];
    float ur = p1[0] - p3[1];
    float ui = p1[1] + p3[0];
    float dr = p1[0] + p3[1];
    float di = p1[1] - p3[0];
    float eur = c45 * (ur - ui);
    float eui = c45 * (ur + ui);
    float edr = c45 * (-dr - di);
    float edi = c45 * (dr - di);
    storeRotated(p0, ar + eur, ai + eui, vr, vi);
    storeRotated(p1, ar - eur, ai - eui, vr, vi);
    storeRotated(p2, br + edr, bi + edi, v3r, v3i);
    storeRotated(p3, br - edr, bi - edi, v3r, v3i);
}

#if DSP_FFT_VECTOR

// Two complex values per vector: (r0, i0, r1, i1). The vector kernels do the
// same operations as the scalar butterflies above, two positions at a time.

inline __m128 swapPairs(__m128 x) {
    return _mm_shuffle_ps(x, x, _MM_SHUFFLE(2, 3, 0, 1));
}

// Sign masks on the real or on the imaginary parts.
inline __m128 realSigns() {
    return _mm_castsi128_ps(_mm_setr_epi32(INT32_MIN, 0, INT32_MIN, 0));
}

inline __m128 imagSigns() {
    return _mm_castsi128_ps(_mm_setr_epi32(0, INT32_MIN, 0, INT32_MIN));
}

// x * w per complex value: (xr wr - xi wi, xi wr + xr wi).
inline __m128 complexMul(__m128 x, __m128 w) {
    __m128 wr = _mm_shuffle_ps(w, w, _MM_SHUFFLE(2, 2, 0, 0));
    __m128 wi = _mm_shuffle_ps(w, w, _MM_SHUFFLE(3, 3, 1, 1));
    __m128 cross = _mm_xor_ps(_mm_mul_ps(swapPairs(x), wi), realSigns());
    return _mm_add_ps(_mm_mul_ps(x, wr), cross);
}

// i * x = (-xi, xr).
inline __m128 timesI(__m128 x) {
    return _mm_xor_ps(swapPairs(x), realSigns());
}

inline void splitButterfly2(float* a, uint32_t q, __m128 w, __m128 w3) {
    float* p0 = a;
    float* p1 = a + q;
    float* p2 = p1 + q;
    float* p3 = p2 + q;
    __m128 q0 = _mm_loadu_ps(p0);
    __m128 q1 = _mm_loadu_ps(p1);
    __m128 q2 = _mm_loadu_ps(p2);
    __m128 q3 = _mm_loadu_ps(p3);
    __m128 x0 = _mm_add_ps(q0, q2);
    __m128 x1 = _mm_sub_ps(q0, q2);
    __m128 x2 = _mm_add_ps(q1, q3);
    __m128 ix3 = timesI(_mm_sub_ps(q1, q3));
    _mm_storeu_ps(p0, _mm_add_ps(x0, x2));
    _mm_storeu_ps(p1, _mm_sub_ps(x0, x2));
    _mm_storeu_ps(p2, complexMul(_mm_add_ps(x1, ix3), w));
    _mm_storeu_ps(p3, complexMul(_mm_sub_ps(x1, ix3), w3));
}

inline void oddButterfly2(float* a, uint32_t q, __m128 c45, __m128 v, __m128 v3) {
    float* p0 = a;
    float* p1 = a + q;
    float* p2 = p1 + q;
    float* p3 = p2 + q;
    __m128 y0 = _mm_loadu_ps(p0);
    __m128 y1 = _mm_loadu_ps(p1);
    __m128 iy2 = timesI(_mm_loadu_ps(p2));
    __m128 iy3 = timesI(_mm_loadu_ps(p3));
    __m128 sa = _mm_add_ps(y0, iy2);
    __m128 sb = _mm_sub_ps(y0, iy2);
    __m128 u = _mm_add_ps(y1, iy3);
    __m128 d = _mm_sub_ps(y1, iy3);
    // e u = c45 (ur - ui, ur + ui); e^3 d = c45 (-dr - di, dr - di).
    __m128 eu = _mm_mul_ps(c45, _mm_add_ps(u, _mm_xor_ps(swapPairs(u), realSigns())));
    __m128 dRe = _mm_xor_ps(_mm_shuffle_ps(d, d, _MM_SHUFFLE(2, 2, 0, 0)), realSigns());
    __m128 dIm = _mm_shuffle_ps(d, d, _MM_SHUFFLE(3, 3, 1, 1));
    __m128 ed = _mm_mul_ps(c45, _mm_sub_ps(dRe, dIm));
    _mm_storeu_ps(p0, complexMul(_mm_add_ps(sa, eu), v));
    _mm_storeu_ps(p1, complexMul(_mm_sub_ps(sa, eu), v));
    _mm_storeu_ps(p2, complexMul(_mm_add_ps(sb, ed), v3));
    _mm_storeu_ps(p3, complexMul(_mm_sub_ps(sb, ed), v3));
}

// Kind-1 stage, two positions at a time. evenGroup(k) and oddGroup(k) give
// the entry group (w^k, w^3k) of an even and of an odd k, 0 <= k <= Q/8; the
// mirrored positions Q/4 - k take (i conj w^k, -i conj w^3k).
template <typename EvenGroup, typename OddGroup>
inline void splitStageFrom(float* a, uint32_t points, EvenGroup evenGroup, OddGroup oddGroup) {
    const uint32_t quarter = points / 4;
    const uint32_t q = 2 * quarter;
    const uint32_t half = quarter / 2;
    for (uint32_t k = 0; k < half; k += 2) {
        const __m128 lo = evenGroup(k);
        const __m128 hi = oddGroup(k + 1);
        splitButterfly2(a + size_t{2} * k, q, _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(1, 0, 1, 0)),
                        _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 2, 3, 2)));
    }
    const __m128 allSigns = _mm_set1_ps(-0.0f);
    for (uint32_t m = half; m < quarter; m += 2) {
        const uint32_t k = quarter - m;
        const __m128 first = evenGroup(k);
        const __m128 second = oddGroup(k - 1);
        const __m128 w = _mm_shuffle_ps(first, second, _MM_SHUFFLE(0, 1, 0, 1));
        const __m128 w3 =
            _mm_xor_ps(_mm_shuffle_ps(first, second, _MM_SHUFFLE(2, 3, 2, 3)), allSigns);
        splitButterfly2(a + size_t{2} * m, q, w, w3);
    }
}

// Groups 0 and Q/8 of a kind-1 table are not stored: (1, 1) and the eighth
// turn (e^(i pi/4), e^(3 i pi/4)).
inline __m128 unitGroup() {
    return _mm_setr_ps(1.0f, 0.0f, 1.0f, 0.0f);
}

inline __m128 eighthGroup(float c45) {
    return _mm_setr_ps(c45, c45, -c45, c45);
}

// Kind-1 stage of a block whose sub-table `t` holds group k at entry 4k.
void splitStage(float* a, uint32_t points, const float* t) {
    const uint32_t half = points / 8;
    const __m128 unit = unitGroup();
    const __m128 eighth = eighthGroup(t[1]);
    splitStageFrom(
        a, points,
        [&](uint32_t k) {
            return k == 0 ? unit : (k == half ? eighth : _mm_loadu_ps(t + size_t{4} * k));
        },
        [&](uint32_t k) { return _mm_loadu_ps(t + size_t{4} * k); });
}

// Kind-1 stage from the half-as-fine table of the top level: even k read
// entry 2k, odd k interpolate their even neighbours.
void splitStageInterpolated(float* a, uint32_t points, const float* t) {
    const uint32_t half = points / 8;
    const __m128 unit = unitGroup();
    const __m128 eighth = eighthGroup(t[1]);
    const __m128 csc = _mm_setr_ps(t[2], t[2], t[3], t[3]);
    auto even = [&](uint32_t k) {
        return k == 0 ? unit : (k == half ? eighth : _mm_loadu_ps(t + size_t{2} * k));
    };
    splitStageFrom(a, points, even, [&](uint32_t k) {
        return _mm_mul_ps(_mm_add_ps(even(k - 1), even(k + 1)), csc);
    });
}

void oddStage(float* a, uint32_t points, const float* t) {
    const uint32_t quarter = points / 4;
    const uint32_t q = 2 * quarter;
    const __m128 c45 = _mm_set1_ps(t[1]);
    const __m128 unit = unitGroup();
    for (uint32_t k = 0; k < quarter; k += 2) {
        __m128 lo = k == 0 ? unit : _mm_loadu_ps(t + size_t{4} * k);
        __m128 hi = _mm_loadu_ps(t + size_t{4} * k + 4);
        oddButterfly2(a + size_t{2} * k, q, c45, _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(1, 0, 1, 0)),
                      _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 2, 3, 2)));
    }
}

#else

// Portable stages, one position at a time.

// Positions k and Q/4 - k of a kind-1 stage from w = (w^k, w^3k): the mirror
// takes w^(Q/4-k) = i conj(w^k) and w^3(Q/4-k) = -i conj(w^3k).
inline void splitButterflyAndMirror(float* a, uint32_t q, uint32_t quarter, uint32_t k,
                                    const float* w) {
    splitButterfly(a + 2 * k, q, w[0], w[1], w[2], w[3]);
    splitButterfly(a + 2 * (quarter - k), q, w[1], w[0], -w[3], -w[2]);
}

// Kind-1 stage of a block of Q complex points: the plain butterfly at k = 0,
// positions k and Q/4 - k from group(k, w) = (w^k, w^3k), w = e^(2 pi i/Q),
// for 0 < k < Q/8, and the eighth turn at Q/8.
template <typename Group>
void splitStageFrom(float* a, uint32_t points, float c45, Group group) {
    const uint32_t quarter = points / 4;
    const uint32_t q = 2 * quarter;
    splitButterflyPlain(a, q);
    if (quarter < 2) {
        return;
    }
    const uint32_t half = quarter / 2;
    for (uint32_t k = 1; k < half; ++k) {
        float w[4];
        group(k, w);
        splitButterflyAndMirror(a, q, quarter, k, w);
    }
    splitButterfly(a + 2 * half, q, c45, c45, -c45, c45);
}

// Kind-1 stage of a block whose sub-table `t` holds group k at entry 4k.
void splitStage(float* a, uint32_t points, const float* t) {
    splitStageFrom(a, points, t[1],
                   [t](uint32_t k, float* w) { std::memcpy(w, t + 4 * k, 4 * sizeof(float)); });
}

// Kind-1 stage from a sub-table half as fine (group k at entry 2k for even
// k < Q/8); odd k are interpolated: w^k = (w^(k-1) + w^(k+1)) * 0.5/cos(2 pi/Q),
// and likewise w^3k with 0.5/cos(6 pi/Q).
void splitStageInterpolated(float* a, uint32_t points, const float* t) {
    const uint32_t half = points / 8;
    const float c45 = t[1];
    // Entries 2 and 3 exist only in tables of 8 entries and more.
    const float csc1 = half > 1 ? t[2] : 0.0f;
    const float csc3 = half > 1 ? t[3] : 0.0f;
    auto even = [&](uint32_t k, float* w) {
        const float unit[4] = {1.0f, 0.0f, 1.0f, 0.0f};
        const float eighth[4] = {c45, c45, -c45, c45};
        std::memcpy(w, k == 0 ? unit : (k == half ? eighth : t + 2 * k), 4 * sizeof(float));
    };
    splitStageFrom(a, points, c45, [&](uint32_t k, float* w) {
        if (k % 2 == 0) {
            even(k, w);
            return;
        }
        float lower[4];
        float upper[4];
        even(k - 1, lower);
        even(k + 1, upper);
        w[0] = (lower[0] + upper[0]) * csc1;
        w[1] = (lower[1] + upper[1]) * csc1;
        w[2] = (lower[2] + upper[2]) * csc3;
        w[3] = (lower[3] + upper[3]) * csc3;
    });
}

// Kind-2 stage of a block of Q complex points whose sub-table `t` holds
// v^k = e^(i pi k/Q) at entry 4k for 0 < k < Q/4.
void oddStage(float* a, uint32_t points, const float* t) {
    const uint32_t quarter = points / 4;
    const uint32_t q = 2 * quarter;
    const float c45 = t[1];
    oddButterfly(a, q, c45, 1.0f, 0.0f, 1.0f, 0.0f);
    for (uint32_t k = 1; k < quarter; ++k) {
        oddButterfly(a + 2 * k, q, c45, t[4 * k], t[4 * k + 1], t[4 * k + 2], t[4 * k + 3]);
    }
}

#endif

// Constants of the small blocks: cos(pi/4), and w^1, w^3 of the 16-point
// transform interpolated from the size-4 sub-table (entries 2 and 3 are
// 0.5/cos(pi/8) and 0.5/cos(3 pi/8)).
struct LeafConstants {
    float c45;
    float c1, s1; // w^1 = (w^0 + w^2) * 0.5/cos(pi/8)
    float c3, s3; // w^3 = (w^0 + w^6) * 0.5/cos(3 pi/8)
};

LeafConstants leafConstants(const float* w, uint32_t nw) {
    LeafConstants c;
    c.c45 = w[1];
    if (nw >= 8) {
        const float* t = w + nw - 8;
        c.c1 = (1.0f + c.c45) * t[2];
        c.s1 = c.c45 * t[2];
        c.c3 = (1.0f - c.c45) * t[3];
        c.s3 = c.c45 * t[3];
    } else {
        c.c1 = c.s1 = c.c3 = c.s3 = 0.0f;
    }
    return c;
}

// Two-point blocks: a plain butterfly (kind 1), y0 +- i y1 (kind 2).
inline void pair1(float* a) {
    float y0r = a[0];
    float y0i = a[1];
    a[0] = y0r + a[2];
    a[1] = y0i + a[3];
    a[2] = y0r - a[2];
    a[3] = y0i - a[3];
}

inline void pair2(float* a) {
    float y0r = a[0];
    float y0i = a[1];
    float y1r = a[2];
    float y1i = a[3];
    a[0] = y0r - y1i;
    a[1] = y0i + y1r;
    a[2] = y0r + y1i;
    a[3] = y0i - y1r;
}

// Four-point blocks: a single butterfly, whose quarters are single points.
inline void quad1(float* a) {
#if DSP_FFT_VECTOR
    // (z0, z1) and (z2, z3) give (x0, x2) and (x1, x3); the outputs are
    // (x0 + x2, x0 - x2) and (x1 + i x3, x1 - i x3).
    const __m128 upperSigns = _mm_castsi128_ps(_mm_setr_epi32(0, 0, INT32_MIN, INT32_MIN));
    __m128 first = _mm_loadu_ps(a);
    __m128 second = _mm_loadu_ps(a + 4);
    __m128 sum = _mm_add_ps(first, second);
    __m128 diff = _mm_sub_ps(first, second);
    __m128 x0 = _mm_shuffle_ps(sum, sum, _MM_SHUFFLE(1, 0, 1, 0));
    __m128 x2 = _mm_shuffle_ps(sum, sum, _MM_SHUFFLE(3, 2, 3, 2));
    __m128 x1 = _mm_shuffle_ps(diff, diff, _MM_SHUFFLE(1, 0, 1, 0));
    __m128 ix3 = timesI(_mm_shuffle_ps(diff, diff, _MM_SHUFFLE(3, 2, 3, 2)));
    _mm_storeu_ps(a, _mm_add_ps(x0, _mm_xor_ps(x2, upperSigns)));
    _mm_storeu_ps(a + 4, _mm_add_ps(x1, _mm_xor_ps(ix3, upperSigns)));
#else
    splitButterflyPlain(a, 2);
#endif
}

inline void quad2(float* a, float c45) {
    oddButterfly(a, 2, c45, 1.0f, 0.0f, 1.0f, 0.0f);
}

// An 8-point block of the given kind: its radix-4 stage, then its 2-point
// quarters of kinds 1, 2, 1 and Kind. t: the sub-table of size 8
// (v^1 = e^(i pi/8) at entry 4), read by kind 2 only.
template <int Kind>
void leaf8(float* a, const float* t, const LeafConstants& c) {
    if constexpr (Kind == 1) {
#if DSP_FFT_VECTOR
        splitButterfly2(a, 4, _mm_setr_ps(1.0f, 0.0f, c.c45, c.c45),
                        _mm_setr_ps(1.0f, 0.0f, -c.c45, c.c45));
#else
        splitButterflyPlain(a, 4);
        splitButterfly(a + 2, 4, c.c45, c.c45, -c.c45, c.c45);
#endif
        pair1(a + 12);
    } else {
#if DSP_FFT_VECTOR
        oddButterfly2(a, 4, _mm_set1_ps(c.c45), _mm_setr_ps(1.0f, 0.0f, t[4], t[5]),
                      _mm_setr_ps(1.0f, 0.0f, t[6], t[7]));
#else
        oddButterfly(a, 4, c.c45, 1.0f, 0.0f, 1.0f, 0.0f);
        oddButterfly(a + 2, 4, c.c45, t[4], t[5], t[6], t[7]);
#endif
        pair2(a + 12);
    }
    pair1(a);
    pair2(a + 4);
    pair1(a + 8);
}

// A 16-point block of the given kind: its stage, then its 4-point quarters of
// kinds 1, 2, 1 and Kind. t: the sub-table of size 16 (v^k = e^(i pi k/16)
// at entry 4k), read by kind 2 only.
template <int Kind>
void leaf16(float* a, const float* t, const LeafConstants& c) {
    if constexpr (Kind == 1) {
#if DSP_FFT_VECTOR
        splitButterfly2(a, 8, _mm_setr_ps(1.0f, 0.0f, c.c1, c.s1),
                        _mm_setr_ps(1.0f, 0.0f, c.c3, c.s3));
        splitButterfly2(a + 4, 8, _mm_setr_ps(c.c45, c.c45, c.s1, c.c1),
                        _mm_setr_ps(-c.c45, c.c45, -c.s3, -c.c3));
#else
        splitButterflyPlain(a, 8);
        splitButterfly(a + 2, 8, c.c1, c.s1, c.c3, c.s3);
        splitButterfly(a + 4, 8, c.c45, c.c45, -c.c45, c.c45);
        splitButterfly(a + 6, 8, c.s1, c.c1, -c.s3, -c.c3);
#endif
        quad1(a + 24);
    } else {
#if DSP_FFT_VECTOR
        const __m128 c45 = _mm_set1_ps(c.c45);
        __m128 t1 = _mm_loadu_ps(t + 4);
        __m128 t2 = _mm_loadu_ps(t + 8);
        __m128 t3 = _mm_loadu_ps(t + 12);
        const __m128 unit = unitGroup();
        oddButterfly2(a, 8, c45, _mm_shuffle_ps(unit, t1, _MM_SHUFFLE(1, 0, 1, 0)),
                      _mm_shuffle_ps(unit, t1, _MM_SHUFFLE(3, 2, 3, 2)));
        oddButterfly2(a + 4, 8, c45, _mm_shuffle_ps(t2, t3, _MM_SHUFFLE(1, 0, 1, 0)),
                      _mm_shuffle_ps(t2, t3, _MM_SHUFFLE(3, 2, 3, 2)));
#else
        oddButterfly(a, 8, c.c45, 1.0f, 0.0f, 1.0f, 0.0f);
        for (uint32_t k = 1; k < 4; ++k) {
            oddButterfly(a + 2 * k, 8, c.c45, t[4 * k], t[4 * k + 1], t[4 * k + 2], t[4 * k + 3]);
        }
#endif
        quad2(a + 24, c.c45);
    }
    quad1(a);
    quad2(a + 8, c.c45);
    quad1(a + 16);
}

void finishQuarters(float* a, uint32_t points, int lastKind, const float* w, uint32_t nw,
                    const LeafConstants& c);

// Finishes a block of `points` complex values of the given kind (its output
// bit-reversed).
void finishBlock(float* a, uint32_t points, int kind, const float* w, uint32_t nw,
                 const LeafConstants& c) {
    switch (points) {
    case 1:
        return;
    case 2:
        kind == 1 ? pair1(a) : pair2(a);
        return;
    case 4:
        kind == 1 ? quad1(a) : quad2(a, c.c45);
        return;
    case 8:
        kind == 1 ? leaf8<1>(a, nullptr, c) : leaf8<2>(a, w + nw - 16, c);
        return;
    case 16:
        kind == 1 ? leaf16<1>(a, nullptr, c) : leaf16<2>(a, w + nw - 32, c);
        return;
    default:
        break;
    }
    if (kind == 1) {
        splitStage(a, points, w + nw - points);
    } else {
        oddStage(a, points, w + nw - size_t{2} * points);
    }
    finishQuarters(a, points, kind, w, nw, c);
}

// The four quarters of a block of `points` whose own stage has been applied:
// those of a kind-1 block are of kinds 1, 2, 1, 1, those of a kind-2 block
// 1, 2, 1, 2.
void finishQuarters(float* a, uint32_t points, int lastKind, const float* w, uint32_t nw,
                    const LeafConstants& c) {
    const uint32_t quarter = points / 4;
    const uint32_t q = 2 * quarter;
    finishBlock(a, quarter, 1, w, nw, c);
    finishBlock(a + q, quarter, 2, w, nw, c);
    finishBlock(a + size_t{2} * q, quarter, 1, w, nw, c);
    finishBlock(a + size_t{3} * q, quarter, lastKind, w, nw, c);
}

// Swaps the complex values at float offsets i and j, moved as 8-byte units.
inline void swapComplex(float* a, uint32_t i, uint32_t j) {
    uint64_t x;
    uint64_t y;
    std::memcpy(&x, a + i, sizeof x);
    std::memcpy(&y, a + j, sizeof y);
    std::memcpy(a + i, &y, sizeof y);
    std::memcpy(a + j, &x, sizeof x);
}

// One group of swaps of the bit-reversal permutation. A complex index splits
// into a low part j (below m), one or two middle bits and a high part;
// reversing swaps the low and high parts, each reversed, and reverses the
// middle bits; p (m offsets) supplies the reversed parts. Index (j, mid, k)
// goes to (k, reversedMid, j): each pair is swapped once, from the side with
// j < k (or, allJ, from mid 1 when mids 1 and 2 trade). The pairs go in
// tiles of 8 x 8, so that each tile touches 16 cache lines; row by row, the
// strided side would evict itself at large sizes.
void swapReversedPairs(float* a, const int32_t* p, uint32_t m, uint32_t mid, uint32_t reversedMid,
                       bool allJ) {
    const uint32_t stride = 2 * m;
    const uint32_t tile = m < 8 ? m : 8;
    for (uint32_t kb = 0; kb < m; kb += tile) {
        const uint32_t jbEnd = allJ ? m : kb + tile;
        for (uint32_t jb = 0; jb < jbEnd; jb += tile) {
            for (uint32_t k = kb; k < kb + tile; ++k) {
                const uint32_t high = static_cast<uint32_t>(p[k]) + mid * stride;
                const uint32_t low = 2 * k + reversedMid * stride;
                uint32_t jEnd = jb + tile;
                if (!allJ && jEnd > k) {
                    jEnd = k;
                }
                for (uint32_t j = jb; j < jEnd; ++j) {
                    swapComplex(a, 2 * j + high, low + static_cast<uint32_t>(p[j]));
                }
            }
        }
    }
}

} // namespace

void FftEngine::buildTwiddles(uint32_t nw) {
    complexTableSize_ = nw;
    // The post-processing table sits right after this one: rebuild it too.
    postTableSize_ = 1;
    if (nw <= 2) {
        return;
    }
    float* w = twiddles_;
    uint32_t h = nw / 2;
    const double delta = std::atan(1.0) / static_cast<double>(h);
    const double cos45 = std::cos(delta * static_cast<double>(h));
    w[0] = 1.0f;
    w[1] = static_cast<float>(cos45);
    if (h >= 4) {
        w[2] = static_cast<float>(0.5 / std::cos(delta * 2.0));
        w[3] = static_cast<float>(0.5 / std::cos(delta * 6.0));
    }
    for (uint32_t j = 4; j < h; j += 4) {
        double angle = delta * static_cast<double>(j);
        double angle3 = delta * static_cast<double>(3 * j);
        w[j] = static_cast<float>(std::cos(angle));
        w[j + 1] = static_cast<float>(std::sin(angle));
        w[j + 2] = static_cast<float>(std::cos(angle3));
        w[j + 3] = static_cast<float>(std::sin(angle3));
    }
    // Each smaller sub-table takes every other entry of the one before it.
    uint32_t base = 0;
    while (h > 2) {
        uint32_t next = base + h;
        h /= 2;
        w[next] = 1.0f;
        w[next + 1] = static_cast<float>(cos45);
        if (h >= 4) {
            w[next + 2] = static_cast<float>(0.5 / static_cast<double>(w[base + 4]));
            w[next + 3] = static_cast<float>(0.5 / static_cast<double>(w[base + 6]));
        }
        for (uint32_t j = 4; j < h; j += 4) {
            w[next + j] = w[base + 2 * j];
            w[next + j + 1] = w[base + 2 * j + 1];
            w[next + j + 2] = w[base + 2 * j + 2];
            w[next + j + 3] = w[base + 2 * j + 3];
        }
        base = next;
    }
}

void FftEngine::buildPostTable(uint32_t nc) {
    postTableSize_ = nc;
    if (nc <= 1) {
        return;
    }
    float* pt = twiddles_ + complexTableSize_;
    uint32_t h = nc / 2;
    const double delta = std::atan(1.0) / static_cast<double>(h);
    pt[0] = static_cast<float>(std::cos(delta * static_cast<double>(h)));
    pt[h] = 0.5f * pt[0];
    for (uint32_t j = 1; j < h; ++j) {
        double angle = delta * static_cast<double>(j);
        pt[j] = static_cast<float>(0.5 * std::cos(angle));
        pt[nc - j] = static_cast<float>(0.5 * std::sin(angle));
    }
}

void FftEngine::realFft(float* a, uint32_t n) {
    if (n < 2) {
        return;
    }
    if (n > 4 * complexTableSize_) {
        buildTwiddles(n / 4);
    }
    if (n > 4 * postTableSize_) {
        buildPostTable(n / 4);
    }
    if (n > 4) {
        complexFft(a, n);
        postProcess(a, n);
    } else if (n == 4) {
        complexFft(a, n);
    }
    float t = a[0] - a[1];
    a[0] = a[0] + a[1];
    a[1] = t;
}

void FftEngine::complexFft(float* a, uint32_t n) {
    if (n == 4) {
        pair1(a); // the 2-point transform
        return;
    }
    if (n == 8) {
        quad1(a); // the 4-point transform, then its two middle points swapped
        swapComplex(a, 2, 4);
        return;
    }
    const uint32_t nw = complexTableSize_;
    const float* w = twiddles_;
    const LeafConstants c = leafConstants(w, nw);
    if (n == 16) {
        leaf8<1>(a, nullptr, c);
        swapComplex(a, 2, 8);
        swapComplex(a, 6, 12);
    } else if (n == 32) {
        leaf16<1>(a, nullptr, c);
        static const uint8_t kPairs[6][2] = {{1, 8}, {2, 4}, {3, 12}, {5, 10}, {7, 14}, {11, 13}};
        for (const auto& pair : kPairs) {
            swapComplex(a, 2u * pair[0], 2u * pair[1]);
        }
    } else {
        splitStageInterpolated(a, n / 2, w + nw - n / 4);
        finishQuarters(a, n / 2, 1, w, nw, c);
        bitReverse(a, n);
    }
}

void FftEngine::postProcess(float* a, uint32_t n) const {
    const uint32_t nc = postTableSize_;
    const float* pt = twiddles_ + complexTableSize_;
    const uint32_t m = n / 2;
    const uint32_t step = 2 * nc / m;
    uint32_t idx = 0;
    uint32_t j = 2;
#if DSP_FFT_VECTOR
    // Two positions at a time from each end while the pairs stay apart:
    // j, j + 2 from below and k, k - 2 from above.
    const __m128 imag = imagSigns();
    const __m128 real = realSigns();
    for (; j + 2 < m; j += 4) {
        uint32_t k = n - j;
        uint32_t idx1 = idx + step;
        uint32_t idx2 = idx1 + step;
        idx = idx2;
        __m128 w = _mm_setr_ps(0.5f - pt[nc - idx1], pt[idx1], 0.5f - pt[nc - idx2], pt[idx2]);
        __m128 low = _mm_loadu_ps(a + j);
        __m128 highRaw = _mm_loadu_ps(a + k - 2);
        __m128 high = _mm_shuffle_ps(highRaw, highRaw, _MM_SHUFFLE(1, 0, 3, 2));
        __m128 x = _mm_add_ps(low, _mm_xor_ps(high, real));
        __m128 y = complexMul(x, w);
        low = _mm_sub_ps(low, y);
        high = _mm_add_ps(high, _mm_xor_ps(y, imag));
        _mm_storeu_ps(a + j, low);
        _mm_storeu_ps(a + k - 2, _mm_shuffle_ps(high, high, _MM_SHUFFLE(1, 0, 3, 2)));
    }
#endif
    for (; j < m; j += 2) {
        uint32_t k = n - j;
        idx += step;
        float wr = 0.5f - pt[nc - idx];
        float wi = pt[idx];
        float xr = a[j] - a[k];
        float xi = a[j + 1] + a[k + 1];
        float yr = wr * xr - wi * xi;
        float yi = wr * xi + wi * xr;
        a[j] -= yr;
        a[j + 1] -= yi;
        a[k] += yr;
        a[k + 1] -= yi;
    }
}

void FftEngine::bitReverse(float* a, uint32_t n) {
    // p[j] = float offset of the bit-reversed complex index of j, for j < m.
    int32_t* p = bitrevOffsets_;
    p[0] = 0;
    uint32_t l = n;
    uint32_t m = 1;
    do {
        l >>= 1;
        for (uint32_t j = 0; j < m; ++j) {
            p[m + j] = p[j] + static_cast<int32_t>(l);
        }
        m <<= 1;
    } while (l > 8 * m);
    if (8 * m == l) {
        swapReversedPairs(a, p, m, 0, 0, false);
        swapReversedPairs(a, p, m, 1, 2, true);
        swapReversedPairs(a, p, m, 3, 3, false);
    } else {
        swapReversedPairs(a, p, m, 0, 0, false);
        swapReversedPairs(a, p, m, 1, 1, false);
    }
}

} // namespace dsp
