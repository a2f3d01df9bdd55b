// Granular pitch shifter (tag 7): shifts the pitch of a mono or stereo stream
// by up to an octave either way without changing its length.
#pragma once

#include "granular_processor.h"
#include "pitch_shift_channel.h"

namespace dsp {

class PitchShiftProcessor
    : public GranularProcessor<PitchShiftChannel, &PitchShiftChannel::setPitch> {
public:
    PitchShiftProcessor() : GranularProcessor(kTagPitchShift) {}

    // Buffers and both channel engines (even for mono). False when the rate
    // is 0, the grain is unusable or anything cannot be allocated.
    bool init(uint32_t frames, uint32_t channelCount, uint32_t rate, float cents, float levelDb,
              float grain, float spacing);
    // Takes over at the end of the next block.
    void setPitch(float cents) { applySetting(cents); }

    // Rebuilds the engines (resetting history and grains) only when the rate
    // changes; a rate of 0 keeps the current engines.
    void configure(uint32_t frames, uint32_t channelCount, uint32_t rate) override;
};

} // namespace dsp
