// Exports of the chorus: check the handle, call the class.
#include "dsp.h"

#include "effects/chorus_processor.h"

namespace {

dsp::ChorusProcessor* chorus(void* handle) {
    return dsp::processorFromHandle<dsp::ChorusProcessor>(handle, dsp::kTagChorus);
}

} // namespace

extern "C" {

DSP_API void* initChorus(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t voiceCount,
                         float delayMs, float depthMs, float speed, float mixPercent,
                         float orgMixPercent) {
    return dsp::ChorusProcessor::create(frames, channels, rate, voiceCount, delayMs, depthMs, speed,
                                        mixPercent, orgMixPercent);
}

DSP_API uint32_t setChorusOrgMix(void* handle, float percent) {
    dsp::ChorusProcessor* c = chorus(handle);
    if (c == nullptr) {
        return 0;
    }
    c->setOrgMix(percent);
    return 1;
}

DSP_API uint32_t setChorusMix(void* handle, uint32_t voice, float percent) {
    dsp::ChorusProcessor* c = chorus(handle);
    if (c == nullptr) {
        return 0;
    }
    c->setMix(voice, percent);
    return 1;
}

DSP_API uint32_t setChorusSpeed(void* handle, float seconds) {
    dsp::ChorusProcessor* c = chorus(handle);
    if (c == nullptr) {
        return 0;
    }
    c->setSpeed(seconds);
    return 1;
}

DSP_API uint32_t setChorusDepth(void* handle, float milliseconds) {
    dsp::ChorusProcessor* c = chorus(handle);
    if (c == nullptr) {
        return 0;
    }
    c->setDepth(milliseconds);
    return 1;
}

DSP_API uint32_t setChorusDelaytime(void* handle, float milliseconds) {
    dsp::ChorusProcessor* c = chorus(handle);
    if (c == nullptr) {
        return 0;
    }
    c->setDelaytime(milliseconds);
    return 1;
}

DSP_API uint32_t doChorus(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    dsp::ChorusProcessor* c = chorus(handle);
    if (c == nullptr) {
        return 0;
    }
    c->processInterleaved(src, dst, bytes);
    return 1;
}

DSP_API uint32_t termChorus(void* handle) {
    dsp::ChorusProcessor* c = chorus(handle);
    if (c == nullptr) {
        return 0;
    }
    dsp::destroyProcessor(c);
    return 1;
}

} // extern "C"
