#include "iir_designer.h"

#include <cmath>
#include <cstddef>
#include <new>

namespace dsp {

namespace {
constexpr double kPi = 3.141592653589793;
constexpr double kHalfPi = 1.5707963267948966;
} // namespace

IirDesigner::~IirDesigner() {
    freeArrays();
}

void IirDesigner::freeArrays() {
    // One block holds all seven arrays; a1 is its start.
    delete[] a1;
    a1 = a2 = b0 = b1 = b2 = s1 = s2 = nullptr;
    allocated = 0;
}

bool IirDesigner::setOrder(int32_t newOrder, uint32_t kind) {
    kindSign = kind == 1 ? -1.0f : 1.0f;
    order = newOrder;
    int32_t previous = sections;
    int32_t count = newOrder <= 0 ? 0 : (newOrder % 2 == 0 ? newOrder / 2 : newOrder / 2 + 1);
    sections = count;
    if (!(allocated == 1 && previous >= count)) {
        freeArrays();
        size_t n = static_cast<size_t>(count > 0 ? count : 1);
        // Seven arrays in one block; a size that cannot be expressed fails
        // like an allocation that cannot be met.
        double* block =
            n <= SIZE_MAX / (7 * sizeof(double)) ? new (std::nothrow) double[7 * n] : nullptr;
        if (block == nullptr) {
            sections = 0;
            return false;
        }
        a1 = block;
        a2 = a1 + n;
        b0 = a2 + n;
        b1 = b0 + n;
        b2 = b1 + n;
        s1 = b2 + n;
        s2 = s1 + n;
    }
    for (int32_t i = 0; i < count; ++i) {
        b0[i] = 1.0;
        a1[i] = a2[i] = b1[i] = b2[i] = s1[i] = s2[i] = 0.0;
    }
    allocated = 1;
    return true;
}

double IirDesigner::prewarp(float fs, float f) {
    double prototype = kindSign <= 0.0f ? 0.5 * fs - f : static_cast<double>(f);
    rate = fs;
    frequency = static_cast<float>(prototype);
    return std::tan((kPi / fs) * prototype);
}

double IirDesigner::poleAngle(int32_t i) const {
    int32_t k = (order % 2 == 0 ? 1 : 2) + 2 * i;
    return (k * kHalfPi) / order;
}

void IirDesigner::setSecondOrder(int32_t i, double u, double m) {
    const double ks = kindSign;
    const double u2 = u * u;
    const double d = 1.0 / (1.0 + m + u2);
    a1[i] = -2.0 * ks * (u2 - 1.0) * d;
    a2[i] = -(1.0 - m + u2) * d;
    b0[i] = u2 * d;
    b1[i] = 2.0 * ks * u2 * d;
    b2[i] = u2 * d;
}

void IirDesigner::setFirstOrder(int32_t i, double p) {
    const double ks = kindSign;
    const double d = 1.0 / (1.0 + p);
    a1[i] = -ks * (p - 1.0) * d;
    b0[i] = p * d;
    b1[i] = ks * p * d;
}

namespace {

// Runs sections first..first+K-1 over x[0..len) sample by sample, each
// section's arithmetic exactly as in the plain cascade, with the group's
// state held in locals so the recursion does not wait on memory.
template <int K>
void runSectionGroup(IirDesigner& f, int32_t first, double* x, uint32_t len) {
    double ca1[K], ca2[K], cb0[K], cb1[K], cb2[K], z1[K], z2[K];
    for (int k = 0; k < K; ++k) {
        ca1[k] = f.a1[first + k];
        ca2[k] = f.a2[first + k];
        cb0[k] = f.b0[first + k];
        cb1[k] = f.b1[first + k];
        cb2[k] = f.b2[first + k];
        z1[k] = f.s1[first + k];
        z2[k] = f.s2[first + k];
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
        f.s1[first + k] = z1[k];
        f.s2[first + k] = z2[k];
    }
}

} // namespace

uint32_t IirDesigner::process(const float* in, float* out, uint32_t frames) {
    const int32_t count = sections;
    // The block runs through in chunks, a group of sections at a time over
    // each chunk; every section sees the same samples in the same order as
    // in a sample-by-sample cascade, so the output is the same.
    constexpr uint32_t kChunk = 256;
    double x[kChunk];
    uint32_t left = frames;
    while (left > 0) {
        const uint32_t len = left < kChunk ? left : kChunk;
        for (uint32_t n = 0; n < len; ++n) {
            x[n] = in[n];
        }
        // Up to four sections per pass: enough independent recursions to
        // keep the arithmetic units busy, few enough to keep them in registers.
        int32_t i = 0;
        for (; count - i >= 4; i += 4) {
            runSectionGroup<4>(*this, i, x, len);
        }
        switch (count - i) {
        case 3:
            runSectionGroup<3>(*this, i, x, len);
            break;
        case 2:
            runSectionGroup<2>(*this, i, x, len);
            break;
        case 1:
            runSectionGroup<1>(*this, i, x, len);
            break;
        default:
            break;
        }
        for (uint32_t n = 0; n < len; ++n) {
            out[n] = static_cast<float>(x[n]);
        }
        in += len;
        out += len;
        left -= len;
    }
    return frames;
}

void ButterworthDesigner::design(float fs, float f) {
    if (allocated != 1) {
        return;
    }
    const double t = prewarp(fs, f);
    // Negative orders have no sections (and no section to write).
    if (sections <= 0) {
        return;
    }
    const int32_t half = order / 2;
    for (int32_t i = 0; i < half; ++i) {
        setSecondOrder(i, t, 2.0 * t * std::cos(poleAngle(i)));
    }
    if (order % 2 != 0) {
        setFirstOrder(half, t);
    }
}

void ChebyshevDesigner::design(float fs, float f) {
    designChebyshev(fs, f, 1.0f);
}

void ChebyshevDesigner::designChebyshev(float fs, float f, float rippleDb) {
    if (allocated != 1) {
        return;
    }
    const double t = prewarp(fs, f);
    // Order 0 (or a negative order) has no sections: nothing to fill, and the
    // ripple terms below would divide by the order.
    if (sections <= 0) {
        return;
    }
    const double r = rippleDb;
    const double n = order;
    const double eps = std::sqrt(std::pow(10.0, 0.1 * r) - 1.0);
    // asinh(1/eps) / N, written out as ln(1/eps + sqrt(1/eps^2 + 1)) / N.
    const double alpha = std::log(1.0 / eps + std::sqrt(1.0 / (eps * eps) + 1.0)) / n;
    const double gain = std::pow(std::pow(10.0, -r * 0.05), 2.0 / n);
    const double sinhA = std::sinh(alpha);
    const double coshA = std::cosh(alpha);
    const int32_t half = order / 2;
    for (int32_t i = 0; i < half; ++i) {
        const double theta = poleAngle(i);
        const double sigma = sinhA * std::cos(theta);
        const double omega = coshA * std::sin(theta);
        const double radius = std::sqrt(omega * omega + sigma * sigma);
        const double u = radius * t;
        const double m = 2.0 * u * std::cos(theta) * sinhA / radius;
        setSecondOrder(i, u, m);
        if (order % 2 == 0) {
            b0[i] *= gain;
            b1[i] *= gain;
            b2[i] *= gain;
        }
    }
    if (order % 2 != 0) {
        setFirstOrder(half, sinhA * t);
    }
}

} // namespace dsp
