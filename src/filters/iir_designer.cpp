#include "iir_designer.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace dsp {

namespace {
constexpr double kPi = 3.141592653589793;
constexpr double kHalfPi = 1.5707963267948966;
} // namespace

bool IirDesigner::setOrder(int32_t newOrder, uint32_t kind) {
    kindSign_ = kind == 1 ? -1.0f : 1.0f;
    order_ = newOrder;
    const int32_t count = newOrder <= 0 ? 0 : (newOrder % 2 == 0 ? newOrder / 2 : newOrder / 2 + 1);
    OwnedArray<BiquadSection> fresh;
    if (!prepareGrowth(sections_, static_cast<size_t>(count), fresh)) {
        // Without sections the filter passes the signal through and its
        // holder sees that it is not allocated.
        sections_.reset();
        sectionCount_ = 0;
        return false;
    }
    installGrowth(sections_, fresh);
    sectionCount_ = count;
    for (int32_t i = 0; i < count; ++i) {
        sections_[static_cast<size_t>(i)] = BiquadSection{};
    }
    return true;
}

double IirDesigner::prewarp(float fs, float f) {
    double prototype = kindSign_ <= 0.0f ? 0.5 * fs - f : static_cast<double>(f);
    rate_ = fs;
    frequency_ = static_cast<float>(prototype);
    return std::tan((kPi / fs) * prototype);
}

double IirDesigner::poleAngle(int32_t i) const {
    int32_t k = (order_ % 2 == 0 ? 1 : 2) + 2 * i;
    return (k * kHalfPi) / order_;
}

void IirDesigner::setSecondOrder(int32_t i, double u, double m) {
    BiquadSection& s = sections_[static_cast<size_t>(i)];
    const double ks = kindSign_;
    const double u2 = u * u;
    const double d = 1.0 / (1.0 + m + u2);
    s.a1 = -2.0 * ks * (u2 - 1.0) * d;
    s.a2 = -(1.0 - m + u2) * d;
    s.b0 = u2 * d;
    s.b1 = 2.0 * ks * u2 * d;
    s.b2 = u2 * d;
}

void IirDesigner::setFirstOrder(int32_t i, double p) {
    BiquadSection& s = sections_[static_cast<size_t>(i)];
    const double ks = kindSign_;
    const double d = 1.0 / (1.0 + p);
    s.a1 = -ks * (p - 1.0) * d;
    s.b0 = p * d;
    s.b1 = ks * p * d;
}

void IirDesigner::scaleGain(int32_t i, double gain) {
    BiquadSection& s = sections_[static_cast<size_t>(i)];
    s.b0 *= gain;
    s.b1 *= gain;
    s.b2 *= gain;
}

namespace {

// Audio goes through the cascade in chunks of this many samples, a group of
// sections at a time over each chunk; every section sees the same samples in
// the same order as in a sample-by-sample cascade, so the output is the same.
constexpr uint32_t kChunk = 256;

// Calls run(offset, length) for consecutive chunks of `frames`. The callers
// take a pointer to each chunk (not p[offset + n]): a 32-bit index sum that
// might wrap keeps the compiler from vectorising the conversion loops.
template <typename Run>
void forEachChunk(uint32_t frames, Run run) {
    for (uint32_t done = 0; done < frames;) {
        const uint32_t len = frames - done < kChunk ? frames - done : kChunk;
        run(done, len);
        done += len;
    }
}

// Calls run(std::integral_constant<int, K>, first) for consecutive groups of
// K sections, K at most four: enough independent recursions to keep the
// arithmetic units busy, few enough to keep them in registers.
template <typename Run>
void forEachSectionGroup(int32_t count, Run run) {
    int32_t i = 0;
    for (; count - i >= 4; i += 4) {
        run(std::integral_constant<int, 4>(), i);
    }
    switch (count - i) {
    case 3:
        run(std::integral_constant<int, 3>(), i);
        break;
    case 2:
        run(std::integral_constant<int, 2>(), i);
        break;
    case 1:
        run(std::integral_constant<int, 1>(), i);
        break;
    default:
        break;
    }
}

// Runs sections s[0..K) over x[0..len) sample by sample, each section's
// arithmetic exactly as in the plain cascade, with the group's state held in
// locals so the recursion does not wait on memory.
template <int K>
void runSectionGroup(BiquadSection* s, double* x, uint32_t len) {
    double ca1[K], ca2[K], cb0[K], cb1[K], cb2[K], z1[K], z2[K];
    for (int k = 0; k < K; ++k) {
        ca1[k] = s[k].a1;
        ca2[k] = s[k].a2;
        cb0[k] = s[k].b0;
        cb1[k] = s[k].b1;
        cb2[k] = s[k].b2;
        z1[k] = s[k].s1;
        z2[k] = s[k].s2;
    }
    for (uint32_t n = 0; n < len; ++n) {
        double v = x[n];
        for (int k = 0; k < K; ++k) {
            double w = v + (ca2[k] * z2[k] + ca1[k] * z1[k]);
            v = (cb2[k] * z2[k] + cb1[k] * z1[k]) + cb0[k] * w;
            z2[k] = z1[k];
            z1[k] = w;
        }
        x[n] = v;
    }
    for (int k = 0; k < K; ++k) {
        s[k].s1 = z1[k];
        s[k].s2 = z2[k];
    }
}

#if defined(__SSE2__)
// runSectionGroup for two cascades at once: lane 0 holds f, lane 1 g. Packed
// double arithmetic rounds each lane as the scalar code does, and the
// operations come in the same order, so each lane's results are those of its
// own cascade.
template <int K>
void runSectionGroupPair(BiquadSection* f, BiquadSection* g, double* x, uint32_t len) {
    __m128d ca1[K], ca2[K], cb0[K], cb1[K], cb2[K], z1[K], z2[K];
    for (int k = 0; k < K; ++k) {
        ca1[k] = _mm_set_pd(g[k].a1, f[k].a1);
        ca2[k] = _mm_set_pd(g[k].a2, f[k].a2);
        cb0[k] = _mm_set_pd(g[k].b0, f[k].b0);
        cb1[k] = _mm_set_pd(g[k].b1, f[k].b1);
        cb2[k] = _mm_set_pd(g[k].b2, f[k].b2);
        z1[k] = _mm_set_pd(g[k].s1, f[k].s1);
        z2[k] = _mm_set_pd(g[k].s2, f[k].s2);
    }
    for (uint32_t n = 0; n < len; ++n) {
        __m128d v = _mm_load_pd(x + size_t{2} * n);
        for (int k = 0; k < K; ++k) {
            __m128d w =
                _mm_add_pd(v, _mm_add_pd(_mm_mul_pd(ca2[k], z2[k]), _mm_mul_pd(ca1[k], z1[k])));
            v = _mm_add_pd(_mm_add_pd(_mm_mul_pd(cb2[k], z2[k]), _mm_mul_pd(cb1[k], z1[k])),
                           _mm_mul_pd(cb0[k], w));
            z2[k] = z1[k];
            z1[k] = w;
        }
        _mm_store_pd(x + size_t{2} * n, v);
    }
    for (int k = 0; k < K; ++k) {
        _mm_storel_pd(&f[k].s1, z1[k]);
        _mm_storeh_pd(&g[k].s1, z1[k]);
        _mm_storel_pd(&f[k].s2, z2[k]);
        _mm_storeh_pd(&g[k].s2, z2[k]);
    }
}

bool overlaps(const float* a, const float* b, uint32_t frames) {
    const uintptr_t pa = reinterpret_cast<uintptr_t>(a);
    const uintptr_t pb = reinterpret_cast<uintptr_t>(b);
    const uintptr_t bytes = static_cast<uintptr_t>(frames) * sizeof(float);
    return pa < pb + bytes && pb < pa + bytes;
}
#endif

} // namespace

void IirDesigner::processPair(IirDesigner& first, const float* inFirst, float* outFirst,
                              IirDesigner& second, const float* inSecond, float* outSecond,
                              uint32_t frames) {
#if defined(__SSE2__)
    // When the first output lands on the second channel's buffers (or the
    // second output on the first input), the order of the two calls matters:
    // those take the two calls.
    if (first.sectionCount_ == second.sectionCount_ && !overlaps(outFirst, inSecond, frames) &&
        !overlaps(outFirst, outSecond, frames) && !overlaps(outSecond, inFirst, frames)) {
        BiquadSection* f = first.sections_.data();
        BiquadSection* g = second.sections_.data();
        alignas(16) double x[2 * kChunk];
        forEachChunk(frames, [&](uint32_t at, uint32_t len) {
            const float* fromFirst = inFirst + at;
            const float* fromSecond = inSecond + at;
            for (uint32_t n = 0; n < len; ++n) {
                x[size_t{2} * n] = fromFirst[n];
                x[2 * n + 1] = fromSecond[n];
            }
            forEachSectionGroup(first.sectionCount_, [&](auto group, int32_t i) {
                runSectionGroupPair<decltype(group)::value>(f + i, g + i, x, len);
            });
            float* toFirst = outFirst + at;
            float* toSecond = outSecond + at;
            for (uint32_t n = 0; n < len; ++n) {
                toFirst[n] = static_cast<float>(x[size_t{2} * n]);
                toSecond[n] = static_cast<float>(x[2 * n + 1]);
            }
        });
        return;
    }
#endif
    first.process(inFirst, outFirst, frames);
    second.process(inSecond, outSecond, frames);
}

uint32_t IirDesigner::process(const float* in, float* out, uint32_t frames) {
    BiquadSection* s = sections_.data();
    double x[kChunk];
    forEachChunk(frames, [&](uint32_t at, uint32_t len) {
        const float* from = in + at;
        for (uint32_t n = 0; n < len; ++n) {
            x[n] = from[n];
        }
        forEachSectionGroup(sectionCount_, [&](auto group, int32_t i) {
            runSectionGroup<decltype(group)::value>(s + i, x, len);
        });
        float* to = out + at;
        for (uint32_t n = 0; n < len; ++n) {
            to[n] = static_cast<float>(x[n]);
        }
    });
    return frames;
}

void ButterworthDesigner::design(float fs, float f) {
    if (!isAllocated()) {
        return;
    }
    const double t = prewarp(fs, f);
    // Negative orders have no sections (and no section to write).
    if (sectionCount() <= 0) {
        return;
    }
    const int32_t half = order() / 2;
    for (int32_t i = 0; i < half; ++i) {
        setSecondOrder(i, t, 2.0 * t * std::cos(poleAngle(i)));
    }
    if (order() % 2 != 0) {
        setFirstOrder(half, t);
    }
}

void ChebyshevDesigner::design(float fs, float f) {
    designChebyshev(fs, f, 1.0f);
}

namespace {

// What the ripple and the order fix of a Chebyshev type I prototype: sinh and
// cosh of alpha = asinh(1/eps) / N, eps = sqrt(10^(r/10) - 1), and the gain
// that puts the pass-band peak of an even order at 0 dB.
struct ChebyshevTerms {
    double sinhA;
    double coshA;
    double gain;
};

ChebyshevTerms chebyshevTerms(double r, double n) {
    const double eps = std::sqrt(std::pow(10.0, 0.1 * r) - 1.0);
    // asinh(1/eps) / N, written out as ln(1/eps + sqrt(1/eps^2 + 1)) / N.
    const double alpha = std::log(1.0 / eps + std::sqrt(1.0 / (eps * eps) + 1.0)) / n;
    const double gain = std::pow(std::pow(10.0, -r * 0.05), 2.0 / n);
    return {std::sinh(alpha), std::cosh(alpha), gain};
}

} // namespace

void ChebyshevDesigner::designChebyshev(float fs, float f, float rippleDb) {
    if (!isAllocated()) {
        return;
    }
    const double t = prewarp(fs, f);
    // Order 0 (or a negative order) has no sections: nothing to fill, and the
    // ripple terms would divide by the order.
    if (sectionCount() <= 0) {
        return;
    }
    const ChebyshevTerms c = chebyshevTerms(rippleDb, order());
    const int32_t half = order() / 2;
    for (int32_t i = 0; i < half; ++i) {
        const double theta = poleAngle(i);
        const double sigma = c.sinhA * std::cos(theta);
        const double omega = c.coshA * std::sin(theta);
        const double radius = std::sqrt(omega * omega + sigma * sigma);
        const double u = radius * t;
        setSecondOrder(i, u, 2.0 * u * std::cos(theta) * c.sinhA / radius);
        // Even orders peak at 0 dB and start the pass band at -ripple.
        if (order() % 2 == 0) {
            scaleGain(i, c.gain);
        }
    }
    if (order() % 2 != 0) {
        setFirstOrder(half, c.sinhA * t);
    }
}

} // namespace dsp
