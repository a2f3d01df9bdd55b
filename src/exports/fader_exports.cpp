// Exports of the fader and cross-fader: check the handle, call the class.
#include "dsp.h"

#include "effects/fader_processor.h"

namespace {

dsp::FaderProcessor* fader(void* handle) {
    return dsp::processorFromHandle<dsp::FaderProcessor>(handle, dsp::kTagFader);
}

} // namespace

extern "C" {

DSP_API void* initFader(uint32_t frames, uint32_t channels, uint32_t rate, float crossPosition,
                        float level0Db, float level1Db) {
    return dsp::FaderProcessor::create(frames, channels, rate, crossPosition, level0Db, level1Db);
}

DSP_API uint32_t setFaderAction(void* handle, uint32_t index, float startSeconds, float endSeconds,
                                float targetDb) {
    dsp::FaderProcessor* f = fader(handle);
    if (f == nullptr) {
        return 0;
    }
    return f->setFaderAction(index, startSeconds, endSeconds, targetDb) ? 1 : 0;
}

DSP_API uint32_t delFaderAction(void* handle, uint32_t index, float startSeconds,
                                float endSeconds) {
    dsp::FaderProcessor* f = fader(handle);
    if (f == nullptr) {
        return 0;
    }
    return f->delFaderAction(index, startSeconds, endSeconds) ? 1 : 0;
}

DSP_API uint32_t setCrossFaderAction(void* handle, float startSeconds, float endSeconds,
                                     float targetPosition) {
    dsp::FaderProcessor* f = fader(handle);
    if (f == nullptr) {
        return 0;
    }
    f->setCrossFaderAction(startSeconds, endSeconds, targetPosition);
    return 1;
}

DSP_API uint32_t delCrossFaderAction(void* handle, float startSeconds, float endSeconds) {
    dsp::FaderProcessor* f = fader(handle);
    if (f == nullptr) {
        return 0;
    }
    f->delCrossFaderAction(startSeconds, endSeconds);
    return 1;
}

DSP_API uint32_t setCrossFaderCurve(void* handle, float centreDb, float fallDb, float riseWidth,
                                    float fallWidth) {
    dsp::FaderProcessor* f = fader(handle);
    if (f == nullptr) {
        return 0;
    }
    f->setCrossFaderCurve(centreDb, fallDb, riseWidth, fallWidth);
    return 1;
}

DSP_API uint32_t doFade(void* handle, uint32_t index, const int16_t* src, int16_t* dst,
                        uint32_t bytes) {
    dsp::FaderProcessor* f = fader(handle);
    if (f == nullptr) {
        return 0;
    }
    return f->fade(index, src, dst, bytes) ? 1 : 0;
}

DSP_API uint32_t doCrossFade(void* handle, const int16_t* srcA, const int16_t* srcB, int16_t* dst,
                             uint32_t bytes) {
    dsp::FaderProcessor* f = fader(handle);
    if (f == nullptr) {
        return 0;
    }
    return f->crossFade(srcA, srcB, dst, bytes) ? 1 : 0;
}

DSP_API uint32_t termFader(void* handle) {
    dsp::FaderProcessor* f = fader(handle);
    if (f == nullptr) {
        return 0;
    }
    dsp::destroyProcessor(f);
    return 1;
}

} // extern "C"
