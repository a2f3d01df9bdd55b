// Exports of the wave slicer (tag 4): cuts a signal into slices at its attacks.
#include "dsp.h"

#include "analysis/wave_slice_processor.h"
#include "exports/family.h"

namespace {
using WaveSlice = dsp::ExportedFamily<dsp::WaveSliceProcessor, dsp::kTagWaveSlice>;
} // namespace

extern "C" {

DSP_API void* initWaveSlice(uint32_t frames, uint32_t channels, uint32_t rate, float startGateDb,
                            float endGateDb, float risePercent, float minSeconds) {
    return dsp::WaveSliceProcessor::create(frames, channels, rate, startGateDb, endGateDb,
                                           risePercent, minSeconds);
}

DSP_API uint32_t doWaveSlice(void* handle, const int16_t* src, uint32_t bytes) {
    return WaveSlice::answer(handle,
                             [&](dsp::WaveSliceProcessor& p) { return p.analyze(src, bytes); });
}

DSP_API SliceRecord* getWaveSlice(void* handle, uint32_t index) {
    dsp::WaveSliceProcessor* p = WaveSlice::from(handle);
    return p == nullptr ? nullptr : p->getSlice(index);
}

DSP_API uint32_t termWaveSlice(void* handle) {
    return WaveSlice::term(handle);
}

} // extern "C"
