// Exports of the granular time stretcher.
#include "dsp.h"

#include "granular/stretch_processor.h"

#include <new>

namespace {

dsp::StretchProcessor* stretchFrom(void* handle) {
    return dsp::processorFromHandle<dsp::StretchProcessor>(handle, dsp::kTagStretch);
}

} // namespace

extern "C" {

DSP_API void* initStretch(uint32_t frames, uint32_t channels, uint32_t rate, float scale,
                          float outLevelDb, float grainSeconds, float spacingSeconds) {
    dsp::StretchProcessor* p = new (std::nothrow) dsp::StretchProcessor();
    if (p == nullptr) {
        return nullptr;
    }
    if (!p->init(frames, channels, rate, scale, outLevelDb, grainSeconds, spacingSeconds)) {
        dsp::destroyProcessor(p);
        return nullptr;
    }
    return p;
}

// 0 also when the output buffers the new factor needs cannot be allocated;
// the scale is then left as it was.
DSP_API uint32_t setStretchScale(void* handle, float scale) {
    dsp::StretchProcessor* p = stretchFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    return p->setScale(scale) ? 1 : 0;
}

DSP_API uint32_t setStretchOutLevel(void* handle, float outLevelDb) {
    dsp::StretchProcessor* p = stretchFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    p->setOutLevel(outLevelDb);
    return 1;
}

DSP_API uint32_t getStretchDstSize(void* handle, uint32_t size) {
    dsp::StretchProcessor* p = stretchFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    return p->getDstSize(size);
}

DSP_API uint32_t doStretch(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    dsp::StretchProcessor* p = stretchFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    return p->processInterleaved(src, dst, bytes);
}

DSP_API uint32_t termStretch(void* handle) {
    dsp::StretchProcessor* p = stretchFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    dsp::destroyProcessor(p);
    return 1;
}

} // extern "C"
