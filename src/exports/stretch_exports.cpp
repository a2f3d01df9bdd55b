// Exports of the granular time stretcher: check the handle, call the class.
#include "dsp.h"

#include "exports/family.h"
#include "granular/stretch_processor.h"

namespace {
using Stretch = dsp::ExportedFamily<dsp::StretchProcessor, dsp::kTagStretch>;
} // namespace

extern "C" {

DSP_API void* initStretch(uint32_t frames, uint32_t channels, uint32_t rate, float scale,
                          float outLevelDb, float grainSeconds, float spacingSeconds) {
    return Stretch::create([&](dsp::StretchProcessor& p) {
        return p.init(frames, channels, rate, scale, outLevelDb, grainSeconds, spacingSeconds);
    });
}

// 0 also when the output buffers the new factor needs cannot be allocated;
// the scale is then left as it was.
DSP_API uint32_t setStretchScale(void* handle, float scale) {
    return Stretch::answer(handle, [&](dsp::StretchProcessor& p) { return p.setScale(scale); });
}

DSP_API uint32_t setStretchOutLevel(void* handle, float outLevelDb) {
    return Stretch::apply(handle, [&](dsp::StretchProcessor& p) { p.setOutLevel(outLevelDb); });
}

DSP_API uint32_t getStretchDstSize(void* handle, uint32_t size) {
    return Stretch::answer(handle, [&](dsp::StretchProcessor& p) { return p.getDstSize(size); });
}

DSP_API uint32_t doStretch(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    return Stretch::answer(
        handle, [&](dsp::StretchProcessor& p) { return p.processInterleaved(src, dst, bytes); });
}

DSP_API uint32_t termStretch(void* handle) {
    return Stretch::term(handle);
}

} // extern "C"
