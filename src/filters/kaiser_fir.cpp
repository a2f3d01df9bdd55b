#include "kaiser_fir.h"

#include "core/simd_flags.h"

#include <cmath>
#include <new>

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#define DSP_HAVE_SSE2 1
#include <emmintrin.h>
#endif

namespace dsp {

namespace {

constexpr double kPi = 3.14159265358979323846;

// Rounds a raw allocation up to the next multiple of 16 bytes.
float* alignedStart(void* block) {
    uintptr_t p = reinterpret_cast<uintptr_t>(block);
    return reinterpret_cast<float*>((p + 15) & ~static_cast<uintptr_t>(15));
}

void* allocateBytes(size_t bytes) {
    return new (std::nothrow) unsigned char[bytes];
}

void freeBytes(void* block) {
    delete[] static_cast<unsigned char*>(block);
}

bool isUsableOrder(int32_t n) {
    // A power of two with room for the 8-tap steps of the SSE path; the upper
    // bound keeps the N x N table size well inside 32 bits.
    return n >= 8 && n <= 4096 && (n & (n - 1)) == 0;
}

} // namespace

KaiserFir::~KaiserFir() {
    freeArrays();
}

void KaiserFir::freeArrays() {
    if (ready) {
        freeBytes(coefficientsBlock);
        freeBytes(tableBlock);
        freeBytes(stateBlock);
        delete[] response;
        delete[] window;
    }
    coefficientsBlock = tableBlock = stateBlock = nullptr;
    coefficients = table = state = nullptr;
    response = window = nullptr;
    ready = 0;
}

bool KaiserFir::allocateArrays(int32_t n) {
    const size_t un = static_cast<size_t>(n);
    coefficientsBlock = allocateBytes(un * 4 + 20);
    tableBlock = allocateBytes(un * un * 4 + 16);
    stateBlock = allocateBytes(un * 4 + 16);
    response = new (std::nothrow) double[un / 2 + 1];
    window = new (std::nothrow) double[un / 2 + 1];
    // ready marks the arrays as owned, so freeArrays returns whatever was taken.
    ready = 1;
    if (coefficientsBlock == nullptr || tableBlock == nullptr || stateBlock == nullptr ||
        response == nullptr || window == nullptr) {
        freeArrays();
        return false;
    }
    coefficients = alignedStart(coefficientsBlock);
    table = alignedStart(tableBlock);
    state = alignedStart(stateBlock);
    // Until the first design the filter passes nothing.
    for (size_t i = 0; i <= un; ++i) {
        coefficients[i] = 0.0f;
    }
    for (size_t i = 0; i < un * un; ++i) {
        table[i] = 0.0f;
    }
    return true;
}

double KaiserFir::kaiserBeta(double a) {
    if (a >= 50.0) {
        return 0.1102 * (a - 8.7);
    }
    if (a >= 21.0) {
        return 0.5842 * std::pow(a - 21.0, 0.4) + 0.07886 * (a - 21.0);
    }
    return 0.0;
}

double KaiserFir::besselI0(double z) {
    const double halfZ = z / 2.0;
    double term = 1.0;
    double sum = 1.0;
    for (int k = 1; k < 20; ++k) {
        term = term * (halfZ / k);
        sum += term * term;
    }
    return sum;
}

bool KaiserFir::setWindow(float attenuation, int32_t n, uint32_t filterKind) {
    kind = filterKind;
    attenuationDb = attenuation;
    if (!isUsableOrder(n)) {
        freeArrays();
        return false;
    }
    if (!ready || n > taps) {
        freeArrays();
        if (!allocateArrays(n)) {
            return false;
        }
    }
    taps = n;
    for (int32_t i = 0; i < n; ++i) {
        state[i] = 0.0f;
    }
    mask = static_cast<uint32_t>(n - 1);
    half = n / 2;
    position = 0;

    const double beta = kaiserBeta(attenuation);
    const double i0Beta = besselI0(beta);
    for (int32_t i = 0; i <= half; ++i) {
        const double u = 2.0 * i / n;
        window[i] = besselI0(beta * std::sqrt(1.0 - u * u)) / i0Beta;
    }
    ready = 1;
    return true;
}

void KaiserFir::design(float sampleRate, float freq) {
    if (!ready) {
        return;
    }
    rate = sampleRate;
    const double r = sampleRate;
    edgeHz = kind == kHighPass ? static_cast<float>(0.5 * r - freq) : freq;
    const double edge = edgeHz;

    // Low-pass prototype by distance from the centre.
    response[0] = 2.0 * edge / r;
    for (int32_t i = 1; i <= half; ++i) {
        response[i] = window[i] / (kPi * i) * std::sin(2.0 * kPi * edge * i / r);
    }
    // Unit gain at DC.
    double tail = 0.0;
    for (int32_t i = 1; i <= half; ++i) {
        tail += response[i];
    }
    const double scale = 1.0 / (response[0] + 2.0 * tail);
    for (int32_t i = 0; i <= half; ++i) {
        response[i] *= scale;
    }
    // The high-pass: the prototype moved to the top of the band by
    // alternating the signs, which mirrors the edge about a quarter of the rate.
    if (kind == kHighPass) {
        for (int32_t i = 0; i <= half; ++i) {
            response[i] *= std::cos(i * kPi);
        }
    }
    for (int32_t i = 1; i <= half; ++i) {
        coefficients[half - i] = static_cast<float>(response[i]);
    }
    for (int32_t i = 0; i <= half; ++i) {
        coefficients[half + i] = static_cast<float>(response[i]);
    }
    // Row p serves history position p: entry k holds the coefficient of the
    // input that sits in state[k] when position is p.
    const uint32_t n = static_cast<uint32_t>(taps);
    for (uint32_t p = 0; p < n; ++p) {
        float* row = table + static_cast<size_t>(n) * p;
        for (uint32_t k = 0; k < n; ++k) {
            row[k] = coefficients[((n - p + k) & mask) + 1];
        }
    }
    log2Taps = static_cast<uint32_t>(std::log(static_cast<double>(n)) / std::log(2.0));
}

void KaiserFir::filter(const float* in, float* out, uint32_t n) {
    if (simdFlags.amd3dnow) {
        filter3dnow(in, out, n);
    } else if (simdFlags.sse) {
        filterSse(in, out, n);
    } else {
        filterPlain(in, out, n);
    }
}

void KaiserFir::filterPlain(const float* in, float* out, uint32_t n) {
    if (!ready) {
        return;
    }
    const int32_t count = taps;
    for (uint32_t i = 0; i < n; ++i) {
        const float x = in[i];
        const float* row = currentRow();
        double y = static_cast<double>(x) * coefficients[0];
        for (int32_t k = 0; k < count; ++k) {
            y += static_cast<double>(state[k]) * row[k];
        }
        push(x);
        out[i] = static_cast<float>(y);
    }
}

// Two 2-lane accumulators in single precision: the first starts as
// {x * c0, 0}; each step of 4 taps adds taps k, k+1 to the first and k+2, k+3
// to the second. At the end the accumulators are added lane by lane and the
// two lanes summed: (a0 + b0) + (a1 + b1).
void KaiserFir::filter3dnow(const float* in, float* out, uint32_t n) {
    if (!ready) {
        return;
    }
    const int32_t count = taps;
    for (uint32_t i = 0; i < n; ++i) {
        const float x = in[i];
        const float* row = currentRow();
#if DSP_HAVE_SSE2
        // Lanes 0, 1 are the first accumulator, lanes 2, 3 the second.
        __m128 acc = _mm_set_ss(x * coefficients[0]);
        for (int32_t k = 0; k < count; k += 4) {
            acc = _mm_add_ps(acc, _mm_mul_ps(_mm_load_ps(state + k), _mm_load_ps(row + k)));
        }
        const __m128 pairs = _mm_add_ps(acc, _mm_movehl_ps(acc, acc));
        const float y = _mm_cvtss_f32(pairs) + _mm_cvtss_f32(_mm_shuffle_ps(pairs, pairs, 1));
#else
        float a0 = x * coefficients[0];
        float a1 = 0.0f;
        float b0 = 0.0f;
        float b1 = 0.0f;
        for (int32_t k = 0; k < count; k += 4) {
            a0 = a0 + state[k] * row[k];
            a1 = a1 + state[k + 1] * row[k + 1];
            b0 = b0 + state[k + 2] * row[k + 2];
            b1 = b1 + state[k + 3] * row[k + 3];
        }
        const float y = (a0 + b0) + (a1 + b1);
#endif
        push(x);
        out[i] = y;
    }
}

// Single precision with 4-lane partial sums. N = 16: the four products of
// 4 taps each are summed as (p0 + p1) + (p2 + p3). Other N: N / 8 steps, each
// adding the products of taps k..k+3 and then k+4..k+7 to the accumulator.
// The lanes are then combined as (l0 + l2) + (l1 + l3), and x * c0 is added last.
void KaiserFir::filterSse(const float* in, float* out, uint32_t n) {
    if (!ready) {
        return;
    }
    const int32_t count = taps;
    for (uint32_t i = 0; i < n; ++i) {
        const float x = in[i];
        const float* row = currentRow();
#if DSP_HAVE_SSE2
        __m128 acc;
        if (count == 16) {
            const __m128 p0 = _mm_mul_ps(_mm_load_ps(state), _mm_load_ps(row));
            const __m128 p1 = _mm_mul_ps(_mm_load_ps(state + 4), _mm_load_ps(row + 4));
            const __m128 p2 = _mm_mul_ps(_mm_load_ps(state + 8), _mm_load_ps(row + 8));
            const __m128 p3 = _mm_mul_ps(_mm_load_ps(state + 12), _mm_load_ps(row + 12));
            acc = _mm_add_ps(_mm_add_ps(p0, p1), _mm_add_ps(p2, p3));
        } else {
            acc = _mm_setzero_ps();
            for (int32_t k = 0; k < count; k += 8) {
                acc = _mm_add_ps(acc, _mm_mul_ps(_mm_load_ps(state + k), _mm_load_ps(row + k)));
                acc = _mm_add_ps(acc,
                                 _mm_mul_ps(_mm_load_ps(state + k + 4), _mm_load_ps(row + k + 4)));
            }
        }
        const __m128 pairs = _mm_add_ps(acc, _mm_movehl_ps(acc, acc));
        const float dot = _mm_cvtss_f32(pairs) + _mm_cvtss_f32(_mm_shuffle_ps(pairs, pairs, 1));
#else
        float lane[4];
        if (count == 16) {
            for (int j = 0; j < 4; ++j) {
                const float p0 = state[j] * row[j];
                const float p1 = state[4 + j] * row[4 + j];
                const float p2 = state[8 + j] * row[8 + j];
                const float p3 = state[12 + j] * row[12 + j];
                lane[j] = (p0 + p1) + (p2 + p3);
            }
        } else {
            for (int j = 0; j < 4; ++j) {
                lane[j] = 0.0f;
            }
            for (int32_t k = 0; k < count; k += 8) {
                for (int j = 0; j < 4; ++j) {
                    lane[j] = lane[j] + state[k + j] * row[k + j];
                }
                for (int j = 0; j < 4; ++j) {
                    lane[j] = lane[j] + state[k + 4 + j] * row[k + 4 + j];
                }
            }
        }
        const float dot = (lane[0] + lane[2]) + (lane[1] + lane[3]);
#endif
        push(x);
        out[i] = dot + x * coefficients[0];
    }
}

} // namespace dsp
