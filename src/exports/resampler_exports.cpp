// Exports of the resampler family.
#include "dsp.h"

#include "rate/resampler_processor.h"

namespace {

dsp::ResamplerProcessor* resampler(void* handle) {
    return dsp::processorFromHandle<dsp::ResamplerProcessor>(handle, dsp::kTagResampler);
}

} // namespace

extern "C" {

DSP_API void* initResampler(uint32_t frames, uint32_t inChannels, uint32_t outChannels,
                            uint32_t srcRate, uint32_t dstRate, uint32_t interpolation,
                            float attenuationDb, float slopeDbPerOctave, uint8_t filterOn) {
    return dsp::ResamplerProcessor::create(frames, inChannels, outChannels, srcRate, dstRate,
                                           interpolation, attenuationDb, slopeDbPerOctave,
                                           filterOn);
}

DSP_API uint32_t doResampler(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    dsp::ResamplerProcessor* p = resampler(handle);
    return p != nullptr ? p->processInterleaved(src, dst, bytes) : 0;
}

DSP_API uint32_t getResamplerDstSize(void* handle, uint32_t n) {
    dsp::ResamplerProcessor* p = resampler(handle);
    return p != nullptr ? p->getDstSize(n) : 0;
}

DSP_API uint32_t termResampler(void* handle) {
    dsp::ResamplerProcessor* p = resampler(handle);
    if (p == nullptr) {
        return 0;
    }
    dsp::destroyProcessor(p);
    return 1;
}

} // extern "C"
