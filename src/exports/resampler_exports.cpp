// Exports of the resampler: check the handle, call the class.
#include "dsp.h"

#include "exports/family.h"
#include "rate/resampler_processor.h"

namespace {
using Resampler = dsp::ExportedFamily<dsp::ResamplerProcessor, dsp::kTagResampler>;
} // namespace

extern "C" {

DSP_API void* initResampler(uint32_t frames, uint32_t inChannels, uint32_t outChannels,
                            uint32_t srcRate, uint32_t dstRate, uint32_t interpolation,
                            float attenuationDb, float slopeDbPerOctave, uint8_t filterOn) {
    return dsp::ResamplerProcessor::create(
        frames, inChannels, outChannels, srcRate, dstRate,
        dsp::ConversionSettings{interpolation, attenuationDb, slopeDbPerOctave, filterOn});
}

DSP_API uint32_t doResampler(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    return Resampler::answer(
        handle, [&](dsp::ResamplerProcessor& p) { return p.processInterleaved(src, dst, bytes); });
}

DSP_API uint32_t getResamplerDstSize(void* handle, uint32_t n) {
    return Resampler::answer(handle, [&](dsp::ResamplerProcessor& p) { return p.getDstSize(n); });
}

DSP_API uint32_t termResampler(void* handle) {
    return Resampler::term(handle);
}

} // extern "C"
