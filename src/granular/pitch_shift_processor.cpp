#include "pitch_shift_processor.h"

namespace dsp {

bool PitchShiftProcessor::init(uint32_t frames, uint32_t channelCount, uint32_t rate, float cents,
                               float levelDb, float grain, float spacing) {
    return initEngines(frames, channelCount, rate, {cents, levelDb, grain, spacing});
}

void PitchShiftProcessor::configure(uint32_t frames, uint32_t channelCount, uint32_t rate) {
    // Unlike the stretcher, the rate is taken even when the buffers fail.
    setupBuffers(frames, channelCount);
    changeRate(rate);
}

} // namespace dsp
