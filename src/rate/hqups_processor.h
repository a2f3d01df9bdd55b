// The Hqups upsampler: any source rate to 48000 Hz, then synthesised high
// harmonics per channel. Each channel runs a RateConverter and a
// HarmonicGenerator; the stereo path shares one bandwidth analysis of the
// mixed channels between both generators.
#pragma once

#include "core/processor.h"
#include "rate/harmonic_generator.h"
#include "rate/rate_converter.h"

#include <cstdint>

namespace dsp {

struct HqupsSettings {
    float harmonics = 0.0f;
    float mixPercent = 0.0f;
    uint32_t hpCutoffHz = 0;
    uint32_t interpolation = 0;
    float attenuationDb = 0.0f;
    float slopeDbPerOctave = 0.0f;
    uint32_t activeMode = 0;
    uint8_t filterOn = 0;
};

class HqupsProcessor : public DspProcessor {
public:
    static constexpr uint32_t kOutputRate = 48000;
    static constexpr uint32_t kBandTaps = 16;

    HqupsProcessor();
    ~HqupsProcessor() override;

    // Sized by the output block: the source block is the one that yields
    // dstFrames output frames. Returns null when a rate is zero, a channel
    // count is not 1 or 2, or anything cannot be allocated.
    static HqupsProcessor* createForOutput(uint32_t dstFrames, uint32_t inChannels,
                                           uint32_t outChannels, uint32_t srcRate,
                                           const HqupsSettings& settings);
    // Sized by the source block.
    static HqupsProcessor* createForSource(uint32_t srcFrames, uint32_t inChannels,
                                           uint32_t outChannels, uint32_t srcRate,
                                           const HqupsSettings& settings);

    void configure(uint32_t frames, uint32_t channels, uint32_t rate) override;
    uint32_t getDstSize(uint32_t n) override;
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

    // Source units (frames or bytes) for n output units at 48000 Hz.
    uint32_t sourceSizeFor(uint32_t n) const;

    RateConverter converters[2];
    HarmonicGenerator generators[2];
    float harmonics = 0.0f;
    float mixPercent = 0.0f;
    uint32_t hpCutoffHz = 0;
    uint32_t interpolation = 0;
    float attenuationDb = 0.0f;
    float slopeDbPerOctave = 0.0f;
    uint32_t activeMode = 0;
    uint8_t filterOn = 0;
    // Floats held by each of work[2] to work[5].
    uint32_t outputCapacity = 0;

private:
    // Rate converter setup of both channels; returns the output frames of a
    // block of `frames`, or false when a converter cannot allocate.
    bool setupConverters(uint32_t frames, uint32_t rate, uint32_t& dstFrames);
    bool setupGenerators(uint32_t frames);
    // Makes work[2] to work[5] hold at least `floats` floats; `replace`
    // takes new ones of exactly that size whatever they hold.
    bool ensureOutputBuffers(uint32_t floats, bool replace);
    void clearOutputBuffers(uint32_t floats);
    void storeSettings(const HqupsSettings& settings);
    bool buildForSource(uint32_t srcFrames, uint32_t inChannels, uint32_t outChannels,
                        uint32_t srcRate, uint32_t minOutputFrames, uint32_t& dstFrames);
};

} // namespace dsp
