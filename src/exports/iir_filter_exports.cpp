// Exports of the IIR filter effect: check the handle, call the class.
#include "dsp.h"

#include "exports/family.h"
#include "filters/iir_filter_processor.h"

namespace {
using IirFilter = dsp::ExportedFamily<dsp::IirFilterProcessor, dsp::kTagIirFilter>;
} // namespace

extern "C" {

DSP_API void* initIirFilter(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t order,
                            float cutoff, uint32_t kind) {
    return IirFilter::create([&](dsp::IirFilterProcessor& f) {
        return f.init(frames, channels, rate, order, cutoff, kind);
    });
}

DSP_API uint32_t doIirFilter(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    return IirFilter::apply(
        handle, [&](dsp::IirFilterProcessor& f) { f.processInterleaved(src, dst, bytes); });
}

DSP_API uint32_t termIirFilter(void* handle) {
    return IirFilter::term(handle);
}

} // extern "C"
