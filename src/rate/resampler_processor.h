// The processor that changes the sample rate of a 16-bit stream, mono or
// stereo, between any two rates, and can turn mono into stereo (or keep only
// the left channel of stereo) on the way out. Two rate converters, one per
// channel, do the signal work.
#pragma once

#include "core/processor.h"
#include "rate/rate_converter_pair.h"

#include <cstdint>

namespace dsp {

class ResamplerProcessor : public DspProcessor {
public:
    explicit ResamplerProcessor(const ConversionSettings& settings)
        : DspProcessor(kTagResampler), settings_(settings) {}
    ~ResamplerProcessor() override = default;

    // Builds a ready resampler, or returns null when a rate is zero, a channel
    // count is not 1 or 2, or memory runs out (nothing is left allocated).
    static ResamplerProcessor* create(uint32_t frames, uint32_t inChannels, uint32_t outChannels,
                                      uint32_t srcRate, uint32_t dstRate,
                                      const ConversionSettings& settings);

    // New input format from a chain: the output channels follow the input,
    // the destination rate stays; the converters are rebuilt (filter state
    // and cubic history cleared) and the output buffers grow when needed.
    // On an allocation failure the processor is left not ready.
    void configure(uint32_t frames, uint32_t channels, uint32_t rate) override;
    // trunc(outRate * (n / inRate)), for byte and frame counts alike.
    uint32_t getDstSize(uint32_t srcBytes) override;
    uint32_t pieceOutputBound(uint32_t frames) const override {
        return converters_.convertedFrames(frames);
    }
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    // At most inFrames frames are converted: the output buffers hold the
    // output of one configured block.
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;
    // Returns the bytes written (outChannels channels).
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override;

private:
    // New output buffers of exactly `floats` floats.
    bool replaceOutputBuffers(uint32_t floats);
    // Output buffers of at least `floats` floats, replaced only when smaller.
    bool holdOutput(uint32_t floats);

    RateConverterPair converters_;
    ConversionSettings settings_; // as given at init, reused by every configure
};

} // namespace dsp
