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
    static constexpr uint32_t kMaxVoices = 65536;

    // One zeroed history of `capacity` samples, shared by the voices (they
    // all store the same input at the same positions).
    bool init(uint32_t sampleRate, float delayMs, uint32_t newCapacity) override;
    uint32_t process(const float* in, float* out, uint32_t frames) override;
    // Both channels of a stereo stream: the same results as process() on each.
    static void processPair(ChorusVoices& left, const float* inL, float* outL, ChorusVoices& right,
                            const float* inR, float* outR, uint32_t frames);
    // True when both voice sets would compute the same delays sample for sample.
    bool sameModulation(const ChorusVoices& other) const;

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
