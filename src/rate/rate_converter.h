// Converts one channel of float samples from one sample rate to another. The
// source block is cut into chunks of at most 4096 frames; each chunk is mapped
// onto its share of the output by linear or 4-point cubic interpolation with a
// position that restarts at every chunk. A Chebyshev low-pass runs at the
// higher of the two rates: before the interpolation when downsampling (anti-
// alias), after it when upsampling (anti-image). Equal rates copy the block.
#pragma once

#include "core/owned_array.h"
#include "filters/iir_designer.h"

#include <cstdint>

namespace dsp {

// How a converter interpolates and filters, as the host gives it.
struct ConversionSettings {
    uint32_t interpolation = 0;    // 0 linear, anything else 4-point cubic
    float attenuationDb = 0.0f;    // the low-pass's pass band ends attenuationDb /
    float slopeDbPerOctave = 0.0f; // slopeDbPerOctave octaves below the lower Nyquist
    uint8_t filterOn = 0;          // nonzero runs the low-pass
};

// The low-pass a setup designed: its order (0: none), the rate it runs at and
// its pass-band edge.
struct LowPassDesign {
    int32_t order = 0;
    float rateHz = 0.0f;
    float edgeHz = 0.0f;
};

class RateConverter {
public:
    static constexpr uint32_t kChunkFrames = 4096;
    // Pass-band ripple of the low-pass.
    static constexpr float kRippleDb = 0.1f;
    // Caps the estimated filter order: attenuation/slope pairs whose estimate
    // is larger (a slope far steeper than any audio use, or an infinite
    // attenuation) get this order instead of an endless cascade.
    static constexpr int32_t kMaxFilterOrder = 64;

    RateConverter() = default;
    RateConverter(const RateConverter&) = delete;
    RateConverter& operator=(const RateConverter&) = delete;

    // Sizes the buffers for blocks of up to `frames` source frames (reused
    // when large enough), designs the low-pass at the higher rate and clears
    // the cubic history. False when memory runs out: the converter then
    // converts nothing until a setup succeeds.
    bool setup(uint32_t frames, uint32_t srcRate, uint32_t dstRate,
               const ConversionSettings& settings);

    // Converts `frames` source frames (at most the block of the last setup;
    // more are not read) and writes exactly the returned number of output
    // frames, trunc((frames / srcRate) * dstRate).
    uint32_t convert(const float* in, float* out, uint32_t frames);

    // left.convert(inL, outL, frames) and right.convert(inR, outR, frames),
    // with the two low-passes run side by side and one position walk for both
    // interpolations when the converters are set up alike (same results,
    // sample for sample). Returns left's count.
    static uint32_t convertPair(RateConverter& left, const float* inL, float* outL,
                                RateConverter& right, const float* inR, float* outR,
                                uint32_t frames);

    // trunc(dstRate * (n / srcRate)); callers use it on byte counts too.
    uint32_t outputFramesFor(uint32_t n) const;
    // What convert returns for a block of `frames` frames.
    uint32_t convertedFrames(uint32_t frames) const;

    // True once a setup succeeded.
    bool isReady() const { return ready_; }
    // True when both rates are nonzero and a full block's output count fits
    // 32 bits; otherwise convert writes nothing and returns 0.
    bool canConvert() const { return convertible_; }
    // Output frames for a block of the last setup's frames.
    uint32_t blockOutputFrames() const { return dstFrames_; }
    const LowPassDesign& lowPass() const { return lowPass_; }

private:
    // The steps of setup.
    bool growBuffers(uint32_t frames);
    bool designFilter(float attenuationDb, float slopeDbPerOctave);
    void clearHistory(uint32_t frames);

    // Output frames of n source frames.
    uint32_t outputCount(uint32_t n) const;
    // Both converters ready and convertible, changing the rate the same way
    // with the filter on or off alike, with the same block.
    bool canPairWith(const RateConverter& other) const;
    // The chunks of n source frames and `total` output frames: calls
    // chunk(sourceOffset, chunkIn, outputOffset, chunkOut) for each.
    template <typename Chunk>
    void forEachChunk(uint32_t n, uint32_t total, Chunk chunk) const;
    // The chunked interpolation of n source frames into total output frames.
    void interpolate(const float* source, float* out, uint32_t n, uint32_t total);
    // interpolate for two channels at once (this one left, `right` right,
    // both linear or both cubic): the positions and weights serve both.
    void interpolatePair(RateConverter& right, const float* sourceL, float* outL,
                         const float* sourceR, float* outR, uint32_t n, uint32_t total);
    static void linearChunk(const float* src, uint32_t chunkIn, float* out, uint32_t chunkOut,
                            double step);
    static void linearChunkPair(const float* srcL, float* outL, const float* srcR, float* outR,
                                uint32_t chunkIn, uint32_t chunkOut, double step);
    void cubicChunk(const float* src, uint32_t chunkIn, float* out, uint32_t chunkOut, double step);
    void cubicChunkPair(RateConverter& right, const float* srcL, float* outL, const float* srcR,
                        float* outR, uint32_t chunkIn, uint32_t chunkOut, double step);
    // Appends a chunk to the cubic history; returns the history.
    const float* takeCubicChunk(const float* src, uint32_t chunkIn);

    bool ready_ = false;
    bool convertible_ = false;
    ChebyshevDesigner filter_;
    LowPassDesign lowPass_;
    int32_t direction_ = 0; // +1 upsampling, -1 downsampling, 0 equal rates
    uint32_t srcRate_ = 0;
    uint32_t dstRate_ = 0;
    uint32_t blockFrames_ = 0;  // source frames of the last setup's block
    uint32_t dstFrames_ = 0;    // output frames for such a block
    uint32_t prevChunk_ = 0;    // length of the last chunk converted
    OwnedArray<float> scratch_; // the filtered source block when downsampling
    OwnedArray<float> history_; // three carried samples, then the current chunk
    bool cubic_ = false;
    bool filterOn_ = false;
};

// Source units that yield n output units: s = trunc((n / dstRate) * srcRate),
// plus one when s converts to fewer than n, minus one when to more. Zero rates
// give 0.
uint32_t sourceFramesFor(uint32_t n, uint32_t srcRate, uint32_t dstRate);

} // namespace dsp
