// Multi-voice chorus: per channel, voiceCount swept delayed copies of the
// input plus the dry signal, each at its own level.
#pragma once

#include "chorus_voices.h"
#include "core/processor.h"

namespace dsp {

class ChorusProcessor final : public DspProcessor {
public:
    ChorusProcessor() : DspProcessor(kTagChorus) {}

    // Buffers and rate, then both voice sets started again from the stored
    // settings: histories cleared, LFO restarted, every voice at the last
    // level set.
    void configure(uint32_t frames, uint32_t channels, uint32_t rate) override;
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;

    // A ready chorus; null when the object, its buffers or its histories
    // cannot be allocated, or for more than ChorusVoices::kMaxVoices voices.
    static ChorusProcessor* create(uint32_t frames, uint32_t channels, uint32_t rate,
                                   const ChorusSettings& settings);

    // Each setter applies to both voice sets (whatever the channel count) and
    // records the value; none clears the history or restarts the LFO.
    void setOrgMix(float percent);
    // A voice index beyond the voices changes nothing.
    void setMix(uint32_t voice, float percent);
    void setSpeed(float seconds);
    void setDepth(float milliseconds);
    void setDelaytime(float milliseconds);

private:
    void startVoices(uint32_t rate);

    ChorusVoices voiceSets_[2]; // one per channel
    ChorusSettings settings_{};
};

} // namespace dsp
