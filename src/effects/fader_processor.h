// Two faders (0 and 1) and a cross-fader, each with one ramp per channel.
// doFade runs one fader; doCrossFade runs fader 0 over the first input,
// fader 1 over the second and mixes them; in a chain it is fader 0 alone.
#pragma once

#include "core/processor.h"
#include "cross_fade_ramp.h"
#include "fade_ramp.h"

namespace dsp {

class FaderProcessor final : public DspProcessor {
public:
    FaderProcessor() : DspProcessor(kTagFader) {}

    // Buffers, rate and every ramp started again from the levels given at
    // creation; scheduled actions and the curve are kept, the actions
    // counting from here.
    void configure(uint32_t frames, uint32_t channels, uint32_t rate) override;
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;

    // Creates a ready fader; null when the object or its buffers cannot be had.
    static FaderProcessor* create(uint32_t frames, uint32_t channels, uint32_t rate,
                                  float crossPosition, float level0Db, float level1Db);

    // Both channel ramps of fader 0 or 1; false for another index.
    bool setFaderAction(uint32_t fader, float startSeconds, float endSeconds, float targetDb);
    bool delFaderAction(uint32_t fader, float startSeconds, float endSeconds);
    void setCrossFaderAction(float startSeconds, float endSeconds, float targetPosition);
    void delCrossFaderAction(float startSeconds, float endSeconds);
    void setCrossFaderCurve(float centreDb, float fallDb, float riseWidth, float fallWidth);

    // One fader over interleaved int16 blocks; false for a fader index other
    // than 0 or 1 or a processor without buffers.
    bool fade(uint32_t fader, const int16_t* src, int16_t* dst, uint32_t bytes);
    bool crossFade(const int16_t* srcA, const int16_t* srcB, int16_t* dst, uint32_t bytes);

    // The ramp of fader 0 or 1 for channel 0 or 1, and the cross-fader's.
    const FadeRamp& faderRamp(uint32_t fader, uint32_t channel) const {
        return faders_[fader][channel];
    }
    const CrossFadeRamp& crossFadeRamp(uint32_t channel) const { return cross_[channel]; }

private:
    void initialiseRamps(uint32_t rate);
    // Fader `fader` over one piece; the right channel only in stereo.
    void fadeChannels(uint32_t fader, const float* inL, const float* inR, float* outL, float* outR,
                      uint32_t frames);

    FadeRamp faders_[2][2]; // [fader][channel]
    CrossFadeRamp cross_[2];
    float initialLevels_[2] = {0.0f, 0.0f};
    float initialCross_ = 0.0f;
};

} // namespace dsp
