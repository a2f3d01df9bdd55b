// Granular pitch shifter (tag 7): shifts the pitch of a mono or stereo stream
// by up to an octave either way without changing its length.
#pragma once

#include "core/processor.h"
#include "pitch_shift_channel.h"

namespace dsp {

class PitchShiftProcessor : public DspProcessor {
public:
    PitchShiftProcessor() { tag = kTagPitchShift; }

    // Buffers and both channel engines (even for mono). False when the rate
    // is 0, the grain is unusable or anything cannot be allocated.
    bool init(uint32_t frames, uint32_t channelCount, uint32_t rate, float cents, float levelDb,
              float grain, float spacing);
    void setPitch(float cents);
    void setOutLevel(float levelDb);

    // Rebuilds the engines (resetting history and grains) only when the rate
    // changes; a rate of 0 keeps the current engines.
    void configure(uint32_t frames, uint32_t channelCount, uint32_t rate) override;
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override;

    PitchShiftChannel channels[2];
    float pitchCents = 0.0f; // as given, unclamped
    float outLevelDb = 0.0f;
    float grainSeconds = 0.0f;
    float spacingSeconds = 0.0f;
};

} // namespace dsp
