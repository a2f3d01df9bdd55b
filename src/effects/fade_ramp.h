// One channel of one fader: a level in dB turned into a gain, changed over
// time by the ramp's schedule.
#pragma once

#include "core/lookup_tables.h"
#include "fade_schedule.h"

namespace dsp {

// The fader's gain for a level in dB: (level + 50) * 20.48 with both
// constants as floats, interpolated in double, rounded once.
inline float decibelGain(const DecibelTable& table, float levelDb) {
    return static_cast<float>(table.lookup(levelDb));
}

class FadeRamp final : public FadeSchedule {
public:
    FadeRamp();

    // (Re)starts the ramp at `level` dB with position 0; a kept schedule
    // stays armed.
    void initialise(float rate, float level);
    // Runs the schedule over a block and applies the gain; 0 if never
    // initialised, else 1.
    uint32_t process(const float* in, float* out, uint32_t frames);

private:
    float gain_ = 0.0f;
};

} // namespace dsp
