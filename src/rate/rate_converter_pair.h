// The two rate converters of a processor, left (or mono) and right, always
// set up alike: the resampler's whole signal path and the first stage of
// Hqups.
#pragma once

#include "rate/rate_converter.h"

#include <cstdint>

namespace dsp {

class RateConverterPair {
public:
    // Sets up both converters for blocks of up to `frames` source frames
    // (both also for a mono stream); false when either cannot get its memory.
    bool setup(uint32_t frames, uint32_t srcRate, uint32_t dstRate,
               const ConversionSettings& settings);

    // Converts the left channel, and the right one too when `stereo`;
    // returns the output frames (of each channel).
    uint32_t convert(const float* inL, const float* inR, float* outL, float* outR, uint32_t frames,
                     bool stereo);
    // One channel alone (0 left, 1 right); 0 frames for any other channel.
    uint32_t convertChannel(uint32_t channel, const float* in, float* out, uint32_t frames);

    // Output frames of a full block, and of n source units (bytes or frames).
    uint32_t blockOutputFrames() const { return converters_[0].blockOutputFrames(); }
    uint32_t outputFramesFor(uint32_t n) const { return converters_[0].outputFramesFor(n); }
    bool canConvert() const { return converters_[0].canConvert(); }
    // What convert returns for a block of `frames` frames.
    uint32_t convertedFrames(uint32_t frames) const {
        return converters_[0].convertedFrames(frames);
    }

private:
    RateConverter converters_[2];
};

} // namespace dsp
