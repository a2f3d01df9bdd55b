// The Hqups upsampler: any source rate to 48000 Hz, then synthesised high
// harmonics per channel. Each channel runs a rate converter and a
// HarmonicGenerator; the stereo path shares one bandwidth analysis of the
// mixed channels between both generators.
#pragma once

#include "core/processor.h"
#include "rate/harmonic_generator.h"
#include "rate/rate_converter_pair.h"

#include <cstdint>

namespace dsp {

// The host's settings of an Hqups processor; configure rebuilds from them.
struct HqupsSettings {
    float harmonics = 0.0f;  // bend of the waveshaper's curve
    float mixPercent = 0.0f; // level of the synthesised part
    uint32_t hpCutoffHz = 0; // edge of the band fed to the waveshaper
    uint32_t activeMode = 0; // 1: confine the synthesised part above the source's band
    ConversionSettings conversion;
};

class HqupsProcessor : public DspProcessor {
public:
    static constexpr uint32_t kOutputRate = 48000;
    static constexpr uint32_t kBandTaps = 16;

    // What the `frames` given at creation count.
    enum class SizedBy { kSource, kOutput };

    explicit HqupsProcessor(const HqupsSettings& settings);
    ~HqupsProcessor() override;

    // Sized by the source block, or by the output block (the source block is
    // then the one that yields that many output frames). Returns null when
    // the rate is zero, a channel count is not 1 or 2, or anything cannot be
    // allocated.
    static HqupsProcessor* create(SizedBy sizedBy, uint32_t frames, uint32_t inChannels,
                                  uint32_t outChannels, uint32_t srcRate,
                                  const HqupsSettings& settings);

    void configure(uint32_t frames, uint32_t channels, uint32_t rate) override;
    uint32_t getDstSize(uint32_t n) override;
    uint32_t pieceOutputBound(uint32_t frames) const override {
        return converters_.convertedFrames(frames);
    }
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override;

    // The setters act on both generators at once. setHarmonics is false when
    // a new curve cannot be allocated (the old ones are kept).
    bool setHarmonics(float value);
    void setMix(float mixPercent);
    void setActiveMode(uint32_t mode);

    // Floats each of work[2] to work[5] holds (0 when one is missing).
    uint32_t outputCapacity() const;
    // Source units (frames or bytes) for n output units at 48000 Hz.
    uint32_t sourceSizeFor(uint32_t n) const;
    const HqupsSettings& settings() const { return settings_; }
    const HarmonicGenerator& generator(int channel) const { return generators_[channel]; }

private:
    // Sets up buffers, converters and generators for a source block; the
    // output side holds at least `minOutputFrames`. Stores the converted
    // block's output frames in `converted`.
    bool build(uint32_t srcFrames, uint32_t inChannels, uint32_t outChannels, uint32_t srcRate,
               uint32_t minOutputFrames, uint32_t& converted);
    bool setupGenerators(uint32_t frames);
    // Makes work[2] to work[5] hold at least `floats` floats; `replace`
    // takes new ones of exactly that size whatever they hold.
    bool ensureOutputBuffers(uint32_t floats, bool replace);
    void clearOutputBuffers(uint32_t floats);

    RateConverterPair converters_;
    HarmonicGenerator generators_[2];
    HqupsSettings settings_;
};

} // namespace dsp
