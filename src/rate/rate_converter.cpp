#include "rate_converter.h"

#include "core/cubic_weight.h"
#include "core/numeric.h"
#include "core/sample_convert.h"

#include <cmath>
#include <cstdint>
#include <cstring>

namespace dsp {

namespace {

// trunc((n / from) * to) in double, divide first.
double scaledCount(uint32_t n, uint32_t from, uint32_t to) {
    return (static_cast<double>(n) / from) * to;
}

double acoshByLog(double y) {
    return std::log(y + std::sqrt(y * y - 1.0));
}

constexpr double kCountLimit = 4294967296.0;           // counts must fit 32 bits
constexpr uint32_t kMaxFrames = (UINT32_MAX - 15) / 4; // the pool's largest float buffer

// The Chebyshev order estimate plus one, truncated: a non-positive
// attenuation or slope makes the estimate NaN or negative and gets no filter
// (order 0 passes the signal through); an estimate above the cap is held at
// the cap.
int32_t filterOrder(double attenuationDb, double ratio, double rippleDb) {
    const double x = std::sqrt((std::pow(10.0, 0.1 * attenuationDb) - 1.0) /
                               (std::pow(10.0, 0.1 * rippleDb) - 1.0));
    const double estimate = acoshByLog(x) / acoshByLog(ratio) + 1.0;
    if (!(estimate >= 1.0)) {
        return 0;
    }
    if (estimate >= RateConverter::kMaxFilterOrder + 1.0) {
        return RateConverter::kMaxFilterOrder;
    }
    return truncToInt32(estimate);
}

} // namespace

bool RateConverter::setup(uint32_t frames, uint32_t newSrcRate, uint32_t newDstRate,
                          const ConversionSettings& settings) {
    cubic_ = settings.interpolation != 0;
    filterOn_ = settings.filterOn != 0;
    srcRate_ = newSrcRate;
    dstRate_ = newDstRate;
    direction_ = srcRate_ < dstRate_ ? 1 : (srcRate_ > dstRate_ ? -1 : 0);
    if (!growBuffers(frames) || !designFilter(settings.attenuationDb, settings.slopeDbPerOctave)) {
        ready_ = false;
        convertible_ = false;
        blockFrames_ = 0;
        dstFrames_ = 0;
        return false;
    }
    blockFrames_ = frames;
    // A zero rate, or an output count beyond 32 bits, leaves nothing that can
    // be converted; the buffers are kept so a later setup can reuse them.
    convertible_ =
        srcRate_ != 0 && dstRate_ != 0 && scaledCount(frames, srcRate_, dstRate_) < kCountLimit;
    dstFrames_ = convertible_ ? outputCount(frames) : 0;
    clearHistory(frames);
    ready_ = true;
    return true;
}

bool RateConverter::growBuffers(uint32_t frames) {
    // Blocks the work buffers could not hold either are refused, which also
    // keeps frames + 3 from wrapping on 32-bit targets.
    if (frames > kMaxFrames) {
        return false;
    }
    OwnedArray<float> scratch;
    OwnedArray<float> history;
    if (!prepareGrowth(scratch_, frames, scratch) ||
        !prepareGrowth(history_, static_cast<size_t>(frames) + 3, history)) {
        return false;
    }
    installGrowth(scratch_, scratch);
    installGrowth(history_, history);
    return true;
}

// The low-pass at the higher rate whose pass band ends attenuation / slope
// octaves below the lower rate's Nyquist frequency, designed on every setup
// whatever the direction and the filter switch. A cutoff that is not a
// positive frequency below the higher rate's Nyquist limit gets no filter.
bool RateConverter::designFilter(float attenuationDb, float slopeDbPerOctave) {
    const uint32_t lo = srcRate_ < dstRate_ ? srcRate_ : dstRate_;
    const uint32_t hi = srcRate_ < dstRate_ ? dstRate_ : srcRate_;
    const double a = attenuationDb;
    const double ratio = std::pow(2.0, a / static_cast<double>(slopeDbPerOctave));
    lowPass_.rateHz = static_cast<float>(hi);
    lowPass_.edgeHz = static_cast<float>((0.5 * lo) / ratio);
    lowPass_.order = filterOrder(a, ratio, kRippleDb);
    if (lo == 0 || !(lowPass_.edgeHz > 0.0f && lowPass_.edgeHz < 0.5f * lowPass_.rateHz)) {
        lowPass_.order = 0;
    }
    if (!filter_.setOrder(lowPass_.order, 0)) {
        return false;
    }
    filter_.designChebyshev(lowPass_.rateHz, lowPass_.edgeHz, kRippleDb);
    return true;
}

// Zeros for the three carried samples and the first chunk.
void RateConverter::clearHistory(uint32_t frames) {
    std::memset(history_.data(), 0, (static_cast<size_t>(frames) + 3) * sizeof(float));
    prevChunk_ = frames;
}

uint32_t RateConverter::outputCount(uint32_t n) const {
    return truncToUint32(scaledCount(n, srcRate_, dstRate_));
}

uint32_t RateConverter::outputFramesFor(uint32_t n) const {
    if (srcRate_ == 0) {
        return 0;
    }
    return truncToUint32(dstRate_ * (static_cast<double>(n) / srcRate_));
}

uint32_t RateConverter::convertedFrames(uint32_t frames) const {
    if (!ready_ || !convertible_) {
        return 0;
    }
    return outputCount(frames < blockFrames_ ? frames : blockFrames_);
}

uint32_t RateConverter::convert(const float* in, float* out, uint32_t frames) {
    if (!ready_ || !convertible_) {
        return 0;
    }
    // The buffers hold the last setup's block; a longer block is cut short
    // rather than read past them.
    const uint32_t n = frames < blockFrames_ ? frames : blockFrames_;
    const uint32_t total = outputCount(n);

    if (direction_ == 0) {
        // All n frames are copied, though the count is one short where
        // (n / rate) * rate evaluates below n. Callers size the output for
        // dstFrames, which is below n only for such a full block: that copy
        // stops at dstFrames.
        const uint32_t copied = n < dstFrames_ ? n : dstFrames_;
        copyBuffer(in, out, static_cast<size_t>(copied) * sizeof(float));
        return total;
    }

    const float* source = in;
    if (direction_ < 0 && filterOn_) {
        filter_.process(in, scratch_.data(), n);
        source = scratch_.data();
    }

    interpolate(source, out, n, total);

    if (direction_ > 0 && filterOn_) {
        filter_.process(out, out, total);
    }
    return total;
}

template <typename Chunk>
void RateConverter::forEachChunk(uint32_t n, uint32_t total, Chunk chunk) const {
    const uint32_t perChunk = outputCount(kChunkFrames);
    uint32_t at = 0;
    uint32_t to = 0;
    while (at < n) {
        const uint32_t remainingIn = n - at;
        const uint32_t remainingOut = total - to;
        const uint32_t chunkIn = remainingIn < kChunkFrames ? remainingIn : kChunkFrames;
        // The final chunk takes whatever is still owed, so that exactly
        // `total` frames are written.
        uint32_t chunkOut = remainingOut < perChunk ? remainingOut : perChunk;
        if (chunkIn == remainingIn) {
            chunkOut = remainingOut;
        }
        chunk(at, chunkIn, to, chunkOut);
        at += chunkIn;
        to += chunkOut;
    }
}

void RateConverter::interpolate(const float* source, float* out, uint32_t n, uint32_t total) {
    const double step = static_cast<double>(srcRate_) / dstRate_;
    forEachChunk(n, total, [&](uint32_t at, uint32_t chunkIn, uint32_t to, uint32_t chunkOut) {
        if (cubic_) {
            cubicChunk(source + at, chunkIn, out + to, chunkOut, step);
        } else {
            linearChunk(source + at, chunkIn, out + to, chunkOut, step);
        }
    });
}

void RateConverter::interpolatePair(RateConverter& right, const float* sourceL, float* outL,
                                    const float* sourceR, float* outR, uint32_t n, uint32_t total) {
    const double step = static_cast<double>(srcRate_) / dstRate_;
    forEachChunk(n, total, [&](uint32_t at, uint32_t chunkIn, uint32_t to, uint32_t chunkOut) {
        if (cubic_) {
            cubicChunkPair(right, sourceL + at, outL + to, sourceR + at, outR + to, chunkIn,
                           chunkOut, step);
        } else {
            linearChunkPair(sourceL + at, outL + to, sourceR + at, outR + to, chunkIn, chunkOut,
                            step);
        }
    });
}

bool RateConverter::canPairWith(const RateConverter& other) const {
    return ready_ && other.ready_ && convertible_ && other.convertible_ && direction_ != 0 &&
           direction_ == other.direction_ && filterOn_ == other.filterOn_ &&
           srcRate_ == other.srcRate_ && dstRate_ == other.dstRate_ &&
           blockFrames_ == other.blockFrames_;
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
    const bool alike = left.canPairWith(right);
    const uint32_t n = frames < left.blockFrames_ ? frames : left.blockFrames_;
    const uint32_t total = alike ? left.outputCount(n) : 0;
    // One channel's output must not be the other's input or output, or the
    // order of the two conversions would matter.
    if (!alike || overlaps(outL, total, inR, n) || overlaps(outR, total, inL, n) ||
        overlaps(outL, total, outR, total)) {
        const uint32_t produced = left.convert(inL, outL, frames);
        right.convert(inR, outR, frames);
        return produced;
    }
    const float* sourceL = inL;
    const float* sourceR = inR;
    if (left.direction_ < 0 && left.filterOn_) {
        IirDesigner::processPair(left.filter_, inL, left.scratch_.data(), right.filter_, inR,
                                 right.scratch_.data(), n);
        sourceL = left.scratch_.data();
        sourceR = right.scratch_.data();
    }
    if (left.cubic_ == right.cubic_) {
        left.interpolatePair(right, sourceL, outL, sourceR, outR, n, total);
    } else {
        left.interpolate(sourceL, outL, n, total);
        right.interpolate(sourceR, outR, n, total);
    }
    if (left.direction_ > 0 && left.filterOn_) {
        IirDesigner::processPair(left.filter_, outL, outL, right.filter_, outR, outR, total);
    }
    return total;
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
using CubicWeights = CubicTaps;

// The walk of the cubic interpolation over one chunk of the history: for
// every output frame j but the last, the index i and the weights.
template <typename Emit>
void walkCubic(uint32_t chunkIn, uint32_t chunkOut, double step, Emit emit) {
    const int32_t last = chunkIn > 1 ? static_cast<int32_t>(chunkIn) - 1 : 1;
    const double lastPos = last;
    double pos = 1.0;
    uint32_t j = 0;
    // Below the last index the position lies in [1, 2^31): a plain
    // conversion truncates it.
    for (; j + 1 < chunkOut && pos < lastPos; ++j) {
        const int32_t i = static_cast<int32_t>(pos);
        const double d = pos - static_cast<double>(i);
        emit(j, i, cubicTaps(d));
        pos = pos + step;
    }
    for (; j + 1 < chunkOut; ++j) {
        const int32_t i = pos < lastPos ? truncToInt32(pos) : last;
        const double d = pos - std::trunc(pos);
        emit(j, i, cubicTaps(d));
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

const float* RateConverter::takeCubicChunk(const float* src, uint32_t chunkIn) {
    // history[k] holds source frame k - 3 of this chunk: the three samples
    // before it come from the end of the previous chunk (zeros after setup).
    float* h = history_.data();
    h[0] = h[prevChunk_];
    h[1] = h[prevChunk_ + 1];
    h[2] = h[prevChunk_ + 2];
    prevChunk_ = chunkIn;
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
