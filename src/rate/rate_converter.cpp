#include "rate_converter.h"

#include "core/cubic_weight.h"
#include "core/numeric.h"
#include "core/sample_convert.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>

namespace dsp {

namespace {

// trunc((n / from) * to) in double, divide first.
double scaledCount(uint32_t n, uint32_t from, uint32_t to) {
    return (static_cast<double>(n) / from) * to;
}

double acoshByLog(double y) {
    return std::log(y + std::sqrt(y * y - 1.0));
}

// The two pieces of cubicWeight. For a fraction d in [0, 1) the distances
// d and |d - 1| lie in [0, 1] and d + 1 and |d - 2| in [1, 2]; at exactly 1
// and 2 both pieces (and the 0.0 beyond 2) are +0.0, so each tap can take its
// piece without the range tests and get the same double.
inline double cubicInner(double u) {
    return 1.0 - 2.0 * u * u + u * u * u;
}
inline double cubicOuter(double u) {
    return 4.0 - 8.0 * u + 5.0 * u * u - u * u * u;
}

constexpr double kCountLimit = 4294967296.0;           // counts must fit 32 bits
constexpr uint32_t kMaxFrames = (UINT32_MAX - 15) / 4; // the pool's largest float buffer

} // namespace

RateConverter::~RateConverter() {
    freeBuffers();
}

void RateConverter::freeBuffers() {
    delete[] scratch;
    delete[] history;
    scratch = nullptr;
    history = nullptr;
    ready = 0;
}

uint32_t RateConverter::setup(uint32_t frames, uint32_t newSrcRate, uint32_t newDstRate,
                              uint32_t newInterpolation, float attenuationDb,
                              float slopeDbPerOctave, uint8_t newFilterOn, float rippleDb) {
    interpolation = newInterpolation;
    filterOn = newFilterOn;
    srcRate = newSrcRate;
    dstRate = newDstRate;

    if (ready != 1 || frames > capacity) {
        freeBuffers();
        // Blocks the work buffers could not hold either are refused, which
        // also keeps frames + 3 from wrapping on 32-bit targets.
        if (frames <= kMaxFrames) {
            scratch = new (std::nothrow) float[frames];
            history = new (std::nothrow) float[static_cast<size_t>(frames) + 3];
        }
        if (scratch == nullptr || history == nullptr) {
            freeBuffers();
            capacity = 0;
            dstFrames = 0;
            convertible_ = false;
            return 0;
        }
    }
    capacity = frames;

    // A zero rate, or an output count beyond 32 bits, leaves nothing that can
    // be converted; the buffers are kept so a later setup can reuse them.
    convertible_ =
        srcRate != 0 && dstRate != 0 && scaledCount(frames, srcRate, dstRate) < kCountLimit;
    dstFrames = convertible_ ? truncToUint32(scaledCount(frames, srcRate, dstRate)) : 0;

    direction = srcRate < dstRate ? 1 : (srcRate > dstRate ? -1 : 0);
    designFilter(attenuationDb, slopeDbPerOctave, rippleDb);
    if (filter.allocated != 1) {
        freeBuffers();
        capacity = 0;
        dstFrames = 0;
        convertible_ = false;
        return 0;
    }

    std::memset(history, 0, (static_cast<size_t>(frames) + 3) * sizeof(float));
    prevChunk = frames;
    ready = 1;
    return dstFrames;
}

void RateConverter::designFilter(float attenuationDb, float slopeDbPerOctave, float rippleDb) {
    const uint32_t lo = srcRate < dstRate ? srcRate : dstRate;
    const uint32_t hi = srcRate < dstRate ? dstRate : srcRate;
    const double a = attenuationDb;
    const double octaves = a / static_cast<double>(slopeDbPerOctave);
    const double ratio = std::pow(2.0, octaves);
    const double fc = (0.5 * lo) / ratio;
    const double x = std::sqrt((std::pow(10.0, 0.1 * a) - 1.0) /
                               (std::pow(10.0, 0.1 * static_cast<double>(rippleDb)) - 1.0));
    const double estimate = acoshByLog(x) / acoshByLog(ratio) + 1.0;

    // A non-positive attenuation or slope makes the estimate NaN or negative
    // and gets no filter (order 0 passes the signal through); an estimate
    // above the cap is held at the cap. A cutoff that is not a positive
    // frequency below the higher rate's Nyquist limit gets no filter either.
    int32_t order;
    if (!(estimate >= 1.0)) {
        order = 0;
    } else if (estimate >= kMaxFilterOrder + 1.0) {
        order = kMaxFilterOrder;
    } else {
        order = truncToInt32(estimate);
    }
    const float cutoff = static_cast<float>(fc);
    if (lo == 0 || !(cutoff > 0.0f && cutoff < 0.5f * static_cast<float>(hi))) {
        order = 0;
    }
    filter.setOrder(order, 0);
    filter.designChebyshev(static_cast<float>(hi), cutoff, rippleDb);
}

uint32_t RateConverter::outputFramesFor(uint32_t n) const {
    if (srcRate == 0) {
        return 0;
    }
    return truncToUint32(dstRate * (static_cast<double>(n) / srcRate));
}

uint32_t RateConverter::convert(const float* in, float* out, uint32_t frames) {
    if (ready != 1 || !convertible_) {
        return 0;
    }
    // The buffers hold `capacity` frames; a longer block is cut short rather
    // than read past them.
    const uint32_t n = frames < capacity ? frames : capacity;
    const uint32_t total = truncToUint32(scaledCount(n, srcRate, dstRate));

    if (direction == 0) {
        // All n frames are copied, though the count is one short where
        // (n / rate) * rate evaluates below n. Callers size the output for
        // dstFrames, which is below n only for such a full block: that copy
        // stops at dstFrames.
        const uint32_t copied = n < dstFrames ? n : dstFrames;
        copyBuffer(in, out, static_cast<size_t>(copied) * sizeof(float));
        return total;
    }

    const float* source = in;
    if (direction < 0 && filterOn != 0) {
        filter.process(in, scratch, n);
        source = scratch;
    }

    interpolate(source, out, n, total);

    if (direction > 0 && filterOn != 0) {
        filter.process(out, out, total);
    }
    return total;
}

void RateConverter::interpolate(const float* source, float* out, uint32_t n, uint32_t total) {
    const double step = static_cast<double>(srcRate) / dstRate;
    const uint32_t perChunk = truncToUint32(scaledCount(kChunkFrames, srcRate, dstRate));
    uint32_t remainingIn = n;
    uint32_t remainingOut = total;
    float* target = out;
    while (remainingIn > 0) {
        const uint32_t chunkIn = remainingIn < kChunkFrames ? remainingIn : kChunkFrames;
        // The final chunk takes whatever is still owed, so that exactly
        // `total` frames are written.
        uint32_t chunkOut = remainingOut < perChunk ? remainingOut : perChunk;
        if (chunkIn == remainingIn) {
            chunkOut = remainingOut;
        }
        if (interpolation == 0) {
            linearChunk(source, chunkIn, target, chunkOut, step);
        } else {
            cubicChunk(source, chunkIn, target, chunkOut, step);
        }
        source += chunkIn;
        target += chunkOut;
        remainingIn -= chunkIn;
        remainingOut -= chunkOut;
    }
}

bool RateConverter::canPairWith(const RateConverter& other) const {
    return ready == 1 && other.ready == 1 && convertible_ && other.convertible_ && direction != 0 &&
           direction == other.direction && (filterOn != 0) == (other.filterOn != 0) &&
           srcRate == other.srcRate && dstRate == other.dstRate && capacity == other.capacity;
}

namespace {
bool overlaps(const float* a, size_t na, const float* b, size_t nb) {
    const uintptr_t pa = reinterpret_cast<uintptr_t>(a);
    const uintptr_t pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + nb * sizeof(float) && pb < pa + na * sizeof(float);
}
} // namespace

uint32_t RateConverter::convertPair(RateConverter& left, const float* inL, float* outL,
                                    RateConverter& right, const float* inR, float* outR,
                                    uint32_t frames) {
    if (!left.canPairWith(right)) {
        const uint32_t produced = left.convert(inL, outL, frames);
        right.convert(inR, outR, frames);
        return produced;
    }
    const uint32_t n = frames < left.capacity ? frames : left.capacity;
    const uint32_t total = truncToUint32(scaledCount(n, left.srcRate, left.dstRate));
    // One channel's output must not be the other's input or output, or the
    // order of the two conversions would matter.
    if (overlaps(outL, total, inR, n) || overlaps(outR, total, inL, n) ||
        overlaps(outL, total, outR, total)) {
        const uint32_t produced = left.convert(inL, outL, frames);
        right.convert(inR, outR, frames);
        return produced;
    }
    const float* sourceL = inL;
    const float* sourceR = inR;
    const bool filtered = left.filterOn != 0;
    if (left.direction < 0 && filtered) {
        IirDesigner::processPair(left.filter, inL, left.scratch, right.filter, inR, right.scratch,
                                 n);
        sourceL = left.scratch;
        sourceR = right.scratch;
    }
    if ((left.interpolation == 0) == (right.interpolation == 0)) {
        left.interpolatePair(right, sourceL, outL, sourceR, outR, n, total);
    } else {
        left.interpolate(sourceL, outL, n, total);
        right.interpolate(sourceR, outR, n, total);
    }
    if (left.direction > 0 && filtered) {
        IirDesigner::processPair(left.filter, outL, outL, right.filter, outR, outR, total);
    }
    return total;
}

void RateConverter::interpolatePair(RateConverter& right, const float* sourceL, float* outL,
                                    const float* sourceR, float* outR, uint32_t n, uint32_t total) {
    // The chunking of interpolate, shared by both channels.
    const double step = static_cast<double>(srcRate) / dstRate;
    const uint32_t perChunk = truncToUint32(scaledCount(kChunkFrames, srcRate, dstRate));
    uint32_t remainingIn = n;
    uint32_t remainingOut = total;
    while (remainingIn > 0) {
        const uint32_t chunkIn = remainingIn < kChunkFrames ? remainingIn : kChunkFrames;
        uint32_t chunkOut = remainingOut < perChunk ? remainingOut : perChunk;
        if (chunkIn == remainingIn) {
            chunkOut = remainingOut;
        }
        if (interpolation == 0) {
            linearChunkPair(sourceL, outL, sourceR, outR, chunkIn, chunkOut, step);
        } else {
            cubicChunkPair(right, sourceL, outL, sourceR, outR, chunkIn, chunkOut, step);
        }
        sourceL += chunkIn;
        sourceR += chunkIn;
        outL += chunkOut;
        outR += chunkOut;
        remainingIn -= chunkIn;
        remainingOut -= chunkOut;
    }
}

namespace {

// The walk of the linear interpolation over one chunk: for every output
// frame j but the last, the left source index i and the fraction f.
template <typename Emit>
void walkLinear(uint32_t chunkIn, uint32_t chunkOut, double step, Emit emit) {
    const int32_t last = static_cast<int32_t>(chunkIn) - 2;
    const double lastPos = last;
    double pos = 0.0;
    uint32_t j = 0;
    // While the position is below the last pair it lies in [0, 2^31): its
    // truncation is a plain conversion and equals floor(pos).
    for (; j + 1 < chunkOut && pos < lastPos; ++j) {
        const int32_t i = static_cast<int32_t>(pos);
        emit(j, i, pos - static_cast<double>(i));
        pos = pos + step;
    }
    for (; j + 1 < chunkOut; ++j) {
        // The index stops at the last pair; the fraction stays the one of
        // the unlimited position.
        const int32_t i = pos < lastPos ? truncToInt32(pos) : last;
        emit(j, i, pos - std::floor(pos));
        pos = pos + step;
    }
}

inline float linearAt(const float* src, int32_t i, double f) {
    const double a = src[i];
    const double b = src[i + 1];
    return static_cast<float>(a + f * (b - a));
}

// The four weights of one cubic output: w[k] belongs to history[i - 1 + k].
struct CubicWeights {
    double w[4];
};

// The walk of the cubic interpolation over one chunk of the history: for
// every output frame j but the last, the index i and the weights.
template <typename Emit>
void walkCubic(uint32_t chunkIn, uint32_t chunkOut, double step, Emit emit) {
    const int32_t last = chunkIn > 1 ? static_cast<int32_t>(chunkIn) - 1 : 1;
    const double lastPos = last;
    double pos = 1.0;
    uint32_t j = 0;
    // Below the last index the position lies in [1, 2^31): a plain
    // conversion truncates it, and the distances fall in the kernel's
    // inner and outer pieces as written.
    for (; j + 1 < chunkOut && pos < lastPos; ++j) {
        const int32_t i = static_cast<int32_t>(pos);
        const double d = pos - static_cast<double>(i);
        emit(j, i,
             CubicWeights{{cubicOuter(d + 1.0), cubicInner(d), cubicInner(std::fabs(d - 1.0)),
                           cubicOuter(std::fabs(d - 2.0))}});
        pos = pos + step;
    }
    for (; j + 1 < chunkOut; ++j) {
        const int32_t i = pos < lastPos ? truncToInt32(pos) : last;
        const double d = pos - std::trunc(pos);
        emit(j, i,
             CubicWeights{{cubicWeight(d + 1.0), cubicWeight(d), cubicWeight(std::fabs(d - 1.0)),
                           cubicWeight(std::fabs(d - 2.0))}});
        pos = pos + step;
    }
}

// The sum in its fixed order: i + 1, i + 2, i, i - 1.
inline float cubicAt(const float* h, int32_t i, const CubicWeights& c) {
    return static_cast<float>(c.w[2] * h[i + 1] + c.w[3] * h[i + 2] + c.w[1] * h[i] +
                              c.w[0] * h[i - 1]);
}

} // namespace

void RateConverter::linearChunkPair(const float* srcL, float* outL, const float* srcR, float* outR,
                                    uint32_t chunkIn, uint32_t chunkOut, double step) {
    if (chunkIn == 1 || chunkOut == 0) {
        linearChunk(srcL, chunkIn, outL, chunkOut, step);
        linearChunk(srcR, chunkIn, outR, chunkOut, step);
        return;
    }
    // The positions are the same for both channels: one walk serves them.
    walkLinear(chunkIn, chunkOut, step, [&](uint32_t j, int32_t i, double f) {
        outL[j] = linearAt(srcL, i, f);
        outR[j] = linearAt(srcR, i, f);
    });
    outL[chunkOut - 1] = srcL[chunkIn - 1];
    outR[chunkOut - 1] = srcR[chunkIn - 1];
}

void RateConverter::linearChunk(const float* src, uint32_t chunkIn, float* out, uint32_t chunkOut,
                                double step) {
    if (chunkOut == 0) {
        return;
    }
    if (chunkIn == 1) {
        for (uint32_t j = 0; j < chunkOut; ++j) {
            out[j] = src[0];
        }
        return;
    }
    walkLinear(chunkIn, chunkOut, step,
               [&](uint32_t j, int32_t i, double f) { out[j] = linearAt(src, i, f); });
    out[chunkOut - 1] = src[chunkIn - 1];
}

float* RateConverter::takeCubicChunk(const float* src, uint32_t chunkIn) {
    // history[k] holds source frame k - 3 of this chunk: the three samples
    // before it come from the end of the previous chunk (zeros after setup).
    float* h = history;
    h[0] = h[prevChunk];
    h[1] = h[prevChunk + 1];
    h[2] = h[prevChunk + 2];
    prevChunk = chunkIn;
    std::memcpy(h + 3, src, static_cast<size_t>(chunkIn) * sizeof(float));
    return h;
}

void RateConverter::cubicChunkPair(RateConverter& right, const float* srcL, float* outL,
                                   const float* srcR, float* outR, uint32_t chunkIn,
                                   uint32_t chunkOut, double step) {
    const float* hL = takeCubicChunk(srcL, chunkIn);
    const float* hR = right.takeCubicChunk(srcR, chunkIn);
    if (chunkOut == 0) {
        return;
    }
    // The positions, and so the weights, are the same for both channels.
    walkCubic(chunkIn, chunkOut, step, [&](uint32_t j, int32_t i, const CubicWeights& c) {
        outL[j] = cubicAt(hL, i, c);
        outR[j] = cubicAt(hR, i, c);
    });
    outL[chunkOut - 1] = hL[chunkIn];
    outR[chunkOut - 1] = hR[chunkIn];
}

void RateConverter::cubicChunk(const float* src, uint32_t chunkIn, float* out, uint32_t chunkOut,
                               double step) {
    const float* h = takeCubicChunk(src, chunkIn);
    if (chunkOut == 0) {
        return;
    }
    walkCubic(chunkIn, chunkOut, step,
              [&](uint32_t j, int32_t i, const CubicWeights& c) { out[j] = cubicAt(h, i, c); });
    out[chunkOut - 1] = h[chunkIn];
}

uint32_t sourceFramesFor(uint32_t n, uint32_t srcRate, uint32_t dstRate) {
    if (srcRate == 0 || dstRate == 0) {
        return 0;
    }
    const uint32_t s = truncToUint32(scaledCount(n, dstRate, srcRate));
    const uint32_t d = truncToUint32(scaledCount(s, srcRate, dstRate));
    if (d < n) {
        return s + 1;
    }
    if (d > n) {
        return s - 1;
    }
    return s;
}

} // namespace dsp
