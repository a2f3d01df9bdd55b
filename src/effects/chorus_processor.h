// Multi-voice chorus: per channel, voiceCount swept delayed copies of the
// input plus the dry signal, each at its own level.
#pragma once

#include "chorus_voices.h"
#include "core/processor.h"

namespace dsp {

class ChorusProcessor final : public DspProcessor {
public:
    ChorusProcessor() { tag = kTagChorus; }

    // Buffers and rate, then both voice sets set up again from the stored
    // settings: histories cleared, LFO restarted, every voice at mixPercent.
    void configure(uint32_t frames, uint32_t channels, uint32_t rate) override;
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override;

    // A ready chorus; null when the object, its buffers or its histories
    // cannot be allocated.
    static ChorusProcessor* create(uint32_t frames, uint32_t channels, uint32_t rate,
                                   uint32_t voices, float delay, float depth, float lfoSeconds,
                                   float mix, float orgMix);

    // Each setter applies to both voice sets and records the value.
    void setOrgMix(float percent);
    void setMix(uint32_t voice, float percent);
    void setSpeed(float seconds);
    void setDepth(float milliseconds);
    void setDelaytime(float milliseconds);

    ChorusVoices voiceSets[2];
    uint32_t voiceCount = 0;
    float delayMs = 0.0f;
    float depthMs = 0.0f;
    float speed = 0.0f;
    float mixPercent = 0.0f;
    float orgMixPercent = 0.0f;

private:
    bool setupVoices(uint32_t rate);
};

} // namespace dsp
