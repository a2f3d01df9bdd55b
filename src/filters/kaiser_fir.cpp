#include "kaiser_fir.h"

#include <cmath>
#include <utility>

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#define DSP_HAVE_SSE2 1
#include <emmintrin.h>
#endif

namespace dsp {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr size_t kAlignFloats = 4; // 16 bytes

bool isUsableOrder(int32_t n) {
    // A power of two with room for the 8-tap steps of the four-lane sum; the
    // upper bound keeps the N x N table size well inside 32 bits.
    return n >= 8 && n <= 4096 && (n & (n - 1)) == 0;
}

// The plain rule: the sum in double precision, stored as float.
float plainDot(float x, float c0, const float* state, const float* row, int32_t count) {
    double y = static_cast<double>(x) * c0;
    for (int32_t k = 0; k < count; ++k) {
        y += static_cast<double>(state[k]) * row[k];
    }
    return static_cast<float>(y);
}

// The truncating rule: two 2-lane accumulators in single precision, the
// first starting as {x * c0, 0}; each step of 4 taps adds taps k, k+1 to the
// first and k+2, k+3 to the second. At the end the accumulators are added
// lane by lane and the two lanes summed: (a0 + b0) + (a1 + b1).
float twoPairsDot(float x, float c0, const float* state, const float* row, int32_t count) {
#if DSP_HAVE_SSE2
    // Lanes 0, 1 are the first accumulator, lanes 2, 3 the second.
    __m128 acc = _mm_set_ss(x * c0);
    for (int32_t k = 0; k < count; k += 4) {
        acc = _mm_add_ps(acc, _mm_mul_ps(_mm_load_ps(state + k), _mm_load_ps(row + k)));
    }
    const __m128 pairs = _mm_add_ps(acc, _mm_movehl_ps(acc, acc));
    return _mm_cvtss_f32(pairs) + _mm_cvtss_f32(_mm_shuffle_ps(pairs, pairs, 1));
#else
    float a0 = x * c0;
    float a1 = 0.0f;
    float b0 = 0.0f;
    float b1 = 0.0f;
    for (int32_t k = 0; k < count; k += 4) {
        a0 = a0 + state[k] * row[k];
        a1 = a1 + state[k + 1] * row[k + 1];
        b0 = b0 + state[k + 2] * row[k + 2];
        b1 = b1 + state[k + 3] * row[k + 3];
    }
    return (a0 + b0) + (a1 + b1);
#endif
}

// The nearest-even rule: single precision in four lanes. N = 16: the four
// products of 4 taps each are summed as (p0 + p1) + (p2 + p3). Other N: N / 8
// steps, each adding the products of taps k..k+3 and then k+4..k+7 to the
// accumulator. The lanes are then combined as (l0 + l2) + (l1 + l3), and
// x * c0 is added last.
#if DSP_HAVE_SSE2
inline float combineLanes(__m128 acc) {
    const __m128 pairs = _mm_add_ps(acc, _mm_movehl_ps(acc, acc));
    return _mm_cvtss_f32(pairs) + _mm_cvtss_f32(_mm_shuffle_ps(pairs, pairs, 1));
}

inline __m128 products(const float* state, const float* row, int32_t k) {
    return _mm_mul_ps(_mm_load_ps(state + k), _mm_load_ps(row + k));
}

float fourLanesDot16(float x, float c0, const float* state, const float* row, int32_t) {
    const __m128 acc = _mm_add_ps(_mm_add_ps(products(state, row, 0), products(state, row, 4)),
                                  _mm_add_ps(products(state, row, 8), products(state, row, 12)));
    return combineLanes(acc) + x * c0;
}

float fourLanesDot(float x, float c0, const float* state, const float* row, int32_t count) {
    __m128 acc = _mm_setzero_ps();
    for (int32_t k = 0; k < count; k += 8) {
        acc = _mm_add_ps(acc, products(state, row, k));
        acc = _mm_add_ps(acc, products(state, row, k + 4));
    }
    return combineLanes(acc) + x * c0;
}
#else
float fourLanesDot16(float x, float c0, const float* state, const float* row, int32_t) {
    float lane[4];
    for (int j = 0; j < 4; ++j) {
        const float p0 = state[j] * row[j];
        const float p1 = state[4 + j] * row[4 + j];
        const float p2 = state[8 + j] * row[8 + j];
        const float p3 = state[12 + j] * row[12 + j];
        lane[j] = (p0 + p1) + (p2 + p3);
    }
    return (lane[0] + lane[2]) + (lane[1] + lane[3]) + x * c0;
}

float fourLanesDot(float x, float c0, const float* state, const float* row, int32_t count) {
    float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    for (int32_t k = 0; k < count; k += 8) {
        for (int j = 0; j < 4; ++j) {
            lane[j] = lane[j] + state[k + j] * row[k + j];
        }
        for (int j = 0; j < 4; ++j) {
            lane[j] = lane[j] + state[k + 4 + j] * row[k + 4 + j];
        }
    }
    return (lane[0] + lane[2]) + (lane[1] + lane[3]) + x * c0;
}
#endif

} // namespace

AlignedFloats::AlignedFloats(AlignedFloats&& other) noexcept
    : block_(std::move(other.block_)), start_(std::exchange(other.start_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

AlignedFloats& AlignedFloats::operator=(AlignedFloats&& other) noexcept {
    if (this != &other) {
        block_ = std::move(other.block_);
        start_ = std::exchange(other.start_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

AlignedFloats AlignedFloats::allocate(size_t count) {
    AlignedFloats array;
    if (count > SIZE_MAX / sizeof(float) - kAlignFloats) {
        return array;
    }
    array.block_ = OwnedArray<float>::allocate(count + kAlignFloats - 1);
    if (!array.block_) {
        return array;
    }
    // Floats are 4-byte aligned: up to three more reach a 16-byte boundary.
    const uintptr_t misalignment = reinterpret_cast<uintptr_t>(array.block_.data()) & 15;
    array.start_ = array.block_.data() + ((16 - misalignment) & 15) / sizeof(float);
    array.size_ = count;
    for (size_t i = 0; i < count; ++i) {
        array.start_[i] = 0.0f;
    }
    return array;
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

void KaiserFir::releaseArrays() {
    coefficients_ = AlignedFloats();
    table_ = AlignedFloats();
    state_ = AlignedFloats();
    response_.reset();
    window_.reset();
}

bool KaiserFir::growArrays(size_t n) {
    if (state_.size() >= n) {
        return true;
    }
    // All five or none: a failed growth leaves the arrays as they were. Fresh
    // coefficients and table are 0, so until the first design nothing passes.
    AlignedFloats coefficients = AlignedFloats::allocate(n + 1);
    AlignedFloats table = AlignedFloats::allocate(n * n);
    AlignedFloats state = AlignedFloats::allocate(n);
    OwnedArray<double> response = OwnedArray<double>::allocate(n / 2 + 1);
    OwnedArray<double> window = OwnedArray<double>::allocate(n / 2 + 1);
    if (!coefficients || !table || !state || !response || !window) {
        return false;
    }
    coefficients_ = std::move(coefficients);
    table_ = std::move(table);
    state_ = std::move(state);
    response_ = std::move(response);
    window_ = std::move(window);
    return true;
}

bool KaiserFir::setWindow(float attenuation, int32_t n, uint32_t filterKind) {
    kind_ = filterKind;
    if (!isUsableOrder(n) || !growArrays(static_cast<size_t>(n))) {
        releaseArrays();
        return false;
    }
    taps_ = n;
    for (int32_t i = 0; i < n; ++i) {
        state_[i] = 0.0f;
    }
    mask_ = static_cast<uint32_t>(n - 1);
    half_ = n / 2;
    position_ = 0;
    computeWindow(attenuation);
    return true;
}

void KaiserFir::computeWindow(double attenuationDb) {
    const double beta = kaiserBeta(attenuationDb);
    const double i0Beta = besselI0(beta);
    for (int32_t i = 0; i <= half_; ++i) {
        const double u = 2.0 * i / taps_;
        window_[i] = besselI0(beta * std::sqrt(1.0 - u * u)) / i0Beta;
    }
}

void KaiserFir::design(float rate, float freq) {
    if (!isReady()) {
        return;
    }
    // A high-pass is built from the low-pass whose edge mirrors freq about a
    // quarter of the rate.
    const double r = rate;
    const float edge = kind_ == kHighPass ? static_cast<float>(0.5 * r - freq) : freq;
    designPrototype(r, edge);
    normaliseToUnitDcGain();
    if (kind_ == kHighPass) {
        mirrorToHighPass();
    }
    storeCoefficients();
    fillRotatedTable();
    log2Taps_ = static_cast<uint32_t>(std::log(static_cast<double>(taps_)) / std::log(2.0));
}

void KaiserFir::designPrototype(double rate, double edge) {
    response_[0] = 2.0 * edge / rate;
    for (int32_t i = 1; i <= half_; ++i) {
        response_[i] = window_[i] / (kPi * i) * std::sin(2.0 * kPi * edge * i / rate);
    }
}

void KaiserFir::normaliseToUnitDcGain() {
    double tail = 0.0;
    for (int32_t i = 1; i <= half_; ++i) {
        tail += response_[i];
    }
    const double scale = 1.0 / (response_[0] + 2.0 * tail);
    for (int32_t i = 0; i <= half_; ++i) {
        response_[i] *= scale;
    }
}

// Alternating signs move the prototype to the top of the band.
void KaiserFir::mirrorToHighPass() {
    for (int32_t i = 0; i <= half_; ++i) {
        response_[i] *= std::cos(i * kPi);
    }
}

// Symmetric about N/2: linear phase, a delay of N/2 samples.
void KaiserFir::storeCoefficients() {
    for (int32_t i = 1; i <= half_; ++i) {
        coefficients_[half_ - i] = static_cast<float>(response_[i]);
    }
    for (int32_t i = 0; i <= half_; ++i) {
        coefficients_[half_ + i] = static_cast<float>(response_[i]);
    }
}

// Row p serves history position p: entry k holds the coefficient of the
// input that sits in state[k] when position is p.
void KaiserFir::fillRotatedTable() {
    const uint32_t n = static_cast<uint32_t>(taps_);
    for (uint32_t p = 0; p < n; ++p) {
        float* row = table_.data() + static_cast<size_t>(n) * p;
        for (uint32_t k = 0; k < n; ++k) {
            row[k] = coefficients_[((n - p + k) & mask_) + 1];
        }
    }
}

template <KaiserFir::DotProduct dot>
void KaiserFir::run(const float* in, float* out, uint32_t n) {
    if (!isReady()) {
        return;
    }
    const int32_t count = taps_;
    const float c0 = coefficients_[0];
    float* state = state_.data();
    const float* table = table_.data();
    for (uint32_t i = 0; i < n; ++i) {
        const float x = in[i];
        const float y =
            dot(x, c0, state, table + (static_cast<size_t>(position_) << log2Taps_), count);
        position_ = (position_ - 1) & mask_;
        state[position_] = x;
        out[i] = y;
    }
}

void KaiserFir::filter(ArithmeticRule rule, const float* in, float* out, uint32_t n) {
    switch (rule) {
    case ArithmeticRule::kTruncating:
        run<twoPairsDot>(in, out, n);
        break;
    case ArithmeticRule::kNearestEven:
        if (taps_ == 16) {
            run<fourLanesDot16>(in, out, n);
        } else {
            run<fourLanesDot>(in, out, n);
        }
        break;
    case ArithmeticRule::kPlain:
        run<plainDot>(in, out, n);
        break;
    }
}

} // namespace dsp
