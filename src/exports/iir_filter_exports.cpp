// Exports of the IIR filter effect.
#include "dsp.h"

#include "filters/iir_filter_processor.h"

#include <new>

namespace {

dsp::IirFilterProcessor* iirFilterFromHandle(void* handle) {
    return dsp::processorFromHandle<dsp::IirFilterProcessor>(handle, dsp::kTagIirFilter);
}

} // namespace

extern "C" {

DSP_API void* initIirFilter(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t order,
                            float cutoff, uint32_t kind) {
    dsp::IirFilterProcessor* filter = new (std::nothrow) dsp::IirFilterProcessor;
    if (filter == nullptr) {
        return nullptr;
    }
    if (!filter->init(frames, channels, rate, order, cutoff, kind)) {
        dsp::destroyProcessor(filter);
        return nullptr;
    }
    return filter;
}

DSP_API uint32_t doIirFilter(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    dsp::IirFilterProcessor* filter = iirFilterFromHandle(handle);
    if (filter == nullptr) {
        return 0;
    }
    filter->processInterleaved(src, dst, bytes);
    return 1;
}

DSP_API uint32_t termIirFilter(void* handle) {
    dsp::IirFilterProcessor* filter = iirFilterFromHandle(handle);
    if (filter == nullptr) {
        return 0;
    }
    dsp::destroyProcessor(filter);
    return 1;
}

} // extern "C"
