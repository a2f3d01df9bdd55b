// The processor that changes the sample rate of a 16-bit stream, mono or
// stereo, between any two rates, and can turn mono into stereo (or keep only
// the left channel of stereo) on the way out. Two rate converters, one per
// channel, do the signal work.
#pragma once

#include "core/processor.h"
#include "rate/rate_converter.h"

#include <cstdint>

namespace dsp {

class ResamplerProcessor : public DspProcessor {
public:
    ResamplerProcessor() { tag = kTagResampler; }
    ~ResamplerProcessor() override = default;

    // Builds a ready resampler, or returns null when a rate is zero, a channel
    // count is not 1 or 2, or memory runs out (nothing is left allocated).
    static ResamplerProcessor* create(uint32_t frames, uint32_t inChannels, uint32_t outChannels,
                                      uint32_t srcRate, uint32_t dstRate, uint32_t interpolation,
                                      float attenuationDb, float slopeDbPerOctave,
                                      uint8_t filterOn);

    // New input format from a chain: the output channels follow the input,
    // the destination rate stays; the converters are rebuilt (filter state
    // and cubic history cleared) and the output buffers grow when needed.
    // On an allocation failure the processor is left not ready.
    void configure(uint32_t frames, uint32_t channels, uint32_t rate) override;
    // trunc(outRate * (n / inRate)), for byte and frame counts alike.
    uint32_t getDstSize(uint32_t srcBytes) override;
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    // At most inFrames frames are converted: the output buffers hold the
    // output of one configured block.
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;
    // Converts in, resamples, converts out with outChannels channels and
    // returns the bytes written. A block larger than inFrames is processed in
    // pieces of inFrames frames.
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override;

    // Floats that work[2] and work[3] hold.
    uint32_t outputCapacity() const { return outputCapacity_; }

    RateConverter converters[2];
    uint32_t interpolation = 0;
    float attenuationDb = 0.0f;
    float slopeDbPerOctave = 0.0f;
    uint8_t filterOn = 0;

private:
    // Sets up both converters for the current input format and outRate;
    // false when either cannot get its buffers.
    bool setupConverters(uint32_t frames, uint32_t rate, uint32_t* outputFrames);
    bool replaceOutputBuffers(uint32_t floats);

    uint32_t outputCapacity_ = 0;
};

} // namespace dsp
