// Converts one channel of float samples from one sample rate to another. The
// source block is cut into chunks of at most 4096 frames; each chunk is mapped
// onto its share of the output by linear or 4-point cubic interpolation with a
// position that restarts at every chunk. A Chebyshev low-pass runs at the
// higher of the two rates: before the interpolation when downsampling (anti-
// alias), after it when upsampling (anti-image). Equal rates copy the block.
#pragma once

#include "filters/iir_designer.h"

#include <cstdint>

namespace dsp {

class RateConverter {
public:
    static constexpr uint32_t kChunkFrames = 4096;
    // Caps the estimated filter order: attenuation/slope pairs whose estimate
    // is larger (a slope far steeper than any audio use, or an infinite
    // attenuation) get this order instead of an endless cascade.
    static constexpr int32_t kMaxFilterOrder = 64;

    RateConverter() = default;
    virtual ~RateConverter();
    RateConverter(const RateConverter&) = delete;
    RateConverter& operator=(const RateConverter&) = delete;

    // Sizes the buffers for blocks of up to `frames` source frames (reused
    // when large enough), designs the low-pass at the higher rate, clears the
    // cubic history and returns the output frames of a full block. Returns 0
    // with ready 0 when the buffers cannot be allocated.
    uint32_t setup(uint32_t frames, uint32_t srcRate, uint32_t dstRate, uint32_t interpolation,
                   float attenuationDb, float slopeDbPerOctave, uint8_t filterOn, float rippleDb);

    // Converts `frames` source frames (at most `capacity`; more are not read)
    // and writes exactly the returned number of output frames,
    // trunc((frames / srcRate) * dstRate).
    uint32_t convert(const float* in, float* out, uint32_t frames);

    // left.convert(inL, outL, frames) and right.convert(inR, outR, frames),
    // with the two low-passes run side by side and one position sum for both
    // linear interpolations when the converters are set up alike (same
    // results, sample for sample). Returns left's count.
    static uint32_t convertPair(RateConverter& left, const float* inL, float* outL,
                                RateConverter& right, const float* inR, float* outR,
                                uint32_t frames);

    // trunc(dstRate * (n / srcRate)); callers use it on byte counts too.
    uint32_t outputFramesFor(uint32_t n) const;

    // True once setup has the buffers.
    bool isReady() const { return ready == 1; }
    // True when both rates are nonzero and a full block's output count fits
    // 32 bits; otherwise convert writes nothing and returns 0.
    bool canConvert() const { return convertible_; }

    uint8_t ready = 0;
    ChebyshevDesigner filter;
    int32_t direction = 0; // +1 upsampling, -1 downsampling, 0 equal rates
    uint32_t srcRate = 0;
    uint32_t dstRate = 0;
    uint32_t capacity = 0;      // source frames the buffers are sized for
    uint32_t dstFrames = 0;     // output frames for a block of capacity frames
    uint32_t prevChunk = 0;     // length of the last chunk converted
    float* scratch = nullptr;   // the filtered source block when downsampling
    float* history = nullptr;   // three carried samples, then the current chunk
    uint32_t interpolation = 0; // 0 linear, anything else cubic
    uint8_t filterOn = 0;

private:
    void freeBuffers();
    // Both converters ready and convertible, changing the rate the same way
    // with the filter on or off alike, with the same capacity.
    bool canPairWith(const RateConverter& other) const;
    // The chunked interpolation of n source frames into total output frames.
    void interpolate(const float* source, float* out, uint32_t n, uint32_t total);
    void designFilter(float attenuationDb, float slopeDbPerOctave, float rippleDb);
    static void linearChunk(const float* src, uint32_t chunkIn, float* out, uint32_t chunkOut,
                            double step);
    // interpolate for two channels at once (this one left, `right` right),
    // both linear or both cubic: the positions and weights serve both.
    void interpolatePair(RateConverter& right, const float* sourceL, float* outL,
                         const float* sourceR, float* outR, uint32_t n, uint32_t total);
    static void linearChunkPair(const float* srcL, float* outL, const float* srcR, float* outR,
                                uint32_t chunkIn, uint32_t chunkOut, double step);
    void cubicChunk(const float* src, uint32_t chunkIn, float* out, uint32_t chunkOut, double step);
    // Appends a chunk to the cubic history; returns the history.
    float* takeCubicChunk(const float* src, uint32_t chunkIn);
    void cubicChunkPair(RateConverter& right, const float* srcL, float* outL, const float* srcR,
                        float* outR, uint32_t chunkIn, uint32_t chunkOut, double step);

    bool convertible_ = false;
};

// Source units that yield n output units: s = trunc((n / dstRate) * srcRate),
// plus one when s converts to fewer than n, minus one when to more. Zero rates
// give 0.
uint32_t sourceFramesFor(uint32_t n, uint32_t srcRate, uint32_t dstRate);

} // namespace dsp
