// Exports of the granular pitch shifter: check the handle, call the class.
#include "dsp.h"

#include "exports/family.h"
#include "granular/pitch_shift_processor.h"

namespace {
using PitchShift = dsp::ExportedFamily<dsp::PitchShiftProcessor, dsp::kTagPitchShift>;
} // namespace

extern "C" {

DSP_API void* initPitchShift(uint32_t frames, uint32_t channels, uint32_t rate, float pitchCents,
                             float outLevelDb, float grainSeconds, float spacingSeconds) {
    return PitchShift::create([&](dsp::PitchShiftProcessor& p) {
        return p.init(frames, channels, rate, pitchCents, outLevelDb, grainSeconds, spacingSeconds);
    });
}

DSP_API uint32_t setPitchShiftPitch(void* handle, float pitchCents) {
    return PitchShift::apply(handle, [&](dsp::PitchShiftProcessor& p) { p.setPitch(pitchCents); });
}

DSP_API uint32_t setPitchShiftOutLevel(void* handle, float outLevelDb) {
    return PitchShift::apply(handle,
                             [&](dsp::PitchShiftProcessor& p) { p.setOutLevel(outLevelDb); });
}

DSP_API uint32_t doPitchShift(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    return PitchShift::apply(
        handle, [&](dsp::PitchShiftProcessor& p) { p.processInterleaved(src, dst, bytes); });
}

DSP_API uint32_t termPitchShift(void* handle) {
    return PitchShift::term(handle);
}

} // extern "C"
