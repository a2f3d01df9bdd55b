// Exports of the fader and cross-fader: check the handle, call the class.
#include "dsp.h"

#include "effects/fader_processor.h"
#include "exports/family.h"

namespace {
using Fader = dsp::ExportedFamily<dsp::FaderProcessor, dsp::kTagFader>;
} // namespace

extern "C" {

DSP_API void* initFader(uint32_t frames, uint32_t channels, uint32_t rate, float crossPosition,
                        float level0Db, float level1Db) {
    return dsp::FaderProcessor::create(frames, channels, rate, crossPosition, level0Db, level1Db);
}

DSP_API uint32_t setFaderAction(void* handle, uint32_t index, float startSeconds, float endSeconds,
                                float targetDb) {
    return Fader::answer(handle, [&](dsp::FaderProcessor& f) {
        return f.setFaderAction(index, startSeconds, endSeconds, targetDb);
    });
}

DSP_API uint32_t delFaderAction(void* handle, uint32_t index, float startSeconds,
                                float endSeconds) {
    return Fader::answer(handle, [&](dsp::FaderProcessor& f) {
        return f.delFaderAction(index, startSeconds, endSeconds);
    });
}

DSP_API uint32_t setCrossFaderAction(void* handle, float startSeconds, float endSeconds,
                                     float targetPosition) {
    return Fader::apply(handle, [&](dsp::FaderProcessor& f) {
        f.setCrossFaderAction(startSeconds, endSeconds, targetPosition);
    });
}

DSP_API uint32_t delCrossFaderAction(void* handle, float startSeconds, float endSeconds) {
    return Fader::apply(
        handle, [&](dsp::FaderProcessor& f) { f.delCrossFaderAction(startSeconds, endSeconds); });
}

DSP_API uint32_t setCrossFaderCurve(void* handle, float centreDb, float fallDb, float riseWidth,
                                    float fallWidth) {
    return Fader::apply(handle, [&](dsp::FaderProcessor& f) {
        f.setCrossFaderCurve(centreDb, fallDb, riseWidth, fallWidth);
    });
}

DSP_API uint32_t doFade(void* handle, uint32_t index, const int16_t* src, int16_t* dst,
                        uint32_t bytes) {
    return Fader::answer(handle,
                         [&](dsp::FaderProcessor& f) { return f.fade(index, src, dst, bytes); });
}

DSP_API uint32_t doCrossFade(void* handle, const int16_t* srcA, const int16_t* srcB, int16_t* dst,
                             uint32_t bytes) {
    return Fader::answer(
        handle, [&](dsp::FaderProcessor& f) { return f.crossFade(srcA, srcB, dst, bytes); });
}

DSP_API uint32_t termFader(void* handle) {
    return Fader::term(handle);
}

} // extern "C"
