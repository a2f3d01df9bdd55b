// The voices of one channel: voiceCount copies of the input, each read from
// its own history at a delay that a shared sine LFO sweeps around the base
// delay, spread evenly over the LFO cycle.
#pragma once

#include "chorus_delay_line.h"

namespace dsp {

class ChorusVoices final : public ModulatedDelay {
public:
    ChorusVoices() = default;
    ~ChorusVoices() override;

    // Frees the histories and the per-voice arrays.
    void release() override;
    // One zeroed history of `capacity` samples per voice.
    bool init(uint32_t sampleRate, float delayMs, uint32_t newCapacity) override;
    uint32_t process(const float* in, float* out, uint32_t frames) override;

    // Full setup: histories cleared, LFO restarted, every voice at mixPercent.
    // False when the histories or per-voice arrays cannot be allocated.
    bool setup(uint32_t sampleRate, uint32_t voices, float delayMs, float depthMs, float speed,
               float mixPercent, float orgMixPercent, uint32_t newCapacity);
    // Level of one voice; an index beyond the voices changes nothing.
    void setVoiceMix(uint32_t voice, float percent);

    uint32_t voiceCount = 0;
    float* phaseOffsets = nullptr;
    float* voiceMix = nullptr;

private:
    void releaseVoiceArrays();
    uint32_t arrayVoices = 0; // voices the two arrays were allocated for
};

} // namespace dsp
