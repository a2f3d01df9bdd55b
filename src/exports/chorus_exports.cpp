// Exports of the chorus: check the handle, call the class.
#include "dsp.h"

#include "effects/chorus_processor.h"
#include "exports/family.h"

namespace {
using Chorus = dsp::ExportedFamily<dsp::ChorusProcessor, dsp::kTagChorus>;
} // namespace

extern "C" {

DSP_API void* initChorus(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t voiceCount,
                         float delayMs, float depthMs, float speed, float mixPercent,
                         float orgMixPercent) {
    return dsp::ChorusProcessor::create(
        frames, channels, rate,
        dsp::ChorusSettings{voiceCount, delayMs, depthMs, speed, mixPercent, orgMixPercent});
}

DSP_API uint32_t setChorusOrgMix(void* handle, float percent) {
    return Chorus::apply(handle, [&](dsp::ChorusProcessor& c) { c.setOrgMix(percent); });
}

DSP_API uint32_t setChorusMix(void* handle, uint32_t voice, float percent) {
    return Chorus::apply(handle, [&](dsp::ChorusProcessor& c) { c.setMix(voice, percent); });
}

DSP_API uint32_t setChorusSpeed(void* handle, float seconds) {
    return Chorus::apply(handle, [&](dsp::ChorusProcessor& c) { c.setSpeed(seconds); });
}

DSP_API uint32_t setChorusDepth(void* handle, float milliseconds) {
    return Chorus::apply(handle, [&](dsp::ChorusProcessor& c) { c.setDepth(milliseconds); });
}

DSP_API uint32_t setChorusDelaytime(void* handle, float milliseconds) {
    return Chorus::apply(handle, [&](dsp::ChorusProcessor& c) { c.setDelaytime(milliseconds); });
}

DSP_API uint32_t doChorus(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    return Chorus::apply(handle,
                         [&](dsp::ChorusProcessor& c) { c.processInterleaved(src, dst, bytes); });
}

DSP_API uint32_t termChorus(void* handle) {
    return Chorus::term(handle);
}

} // extern "C"
