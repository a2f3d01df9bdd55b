#include "fade_ramp.h"

#include <limits>

namespace dsp {

// A fader's level is not bounded.
FadeRamp::FadeRamp()
    : FadeSchedule(-std::numeric_limits<float>::infinity(),
                   std::numeric_limits<float>::infinity()) {}

void FadeRamp::initialise(float rate, float level) {
    restart(rate, level);
    gain_ = decibelGain(decibelTable(), level);
}

uint32_t FadeRamp::process(const float* in, float* out, uint32_t frames) {
    if (!isInitialised()) {
        return 0;
    }
    const DecibelTable& table = decibelTable();
    float gain = gain_;
    run(
        frames, [&](float level) { gain = decibelGain(table, level); },
        [&](uint32_t n) { out[n] = in[n] * gain; });
    gain_ = gain;
    return 1;
}

} // namespace dsp
