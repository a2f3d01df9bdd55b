// Exports of the analyzers (tag 1): block spectra, sliding spectra and
// amplitude envelopes. The three term names are one operation.
#include "dsp.h"

#include "analysis/analyzer_processor.h"
#include "exports/family.h"

namespace {
using Analyzer = dsp::ExportedFamily<dsp::AnalyzerProcessor, dsp::kTagAnalyzer>;
} // namespace

extern "C" {

DSP_API void* initFft(uint32_t frames, uint32_t channels, uint32_t spectra, uint32_t rangeDb) {
    return dsp::AnalyzerProcessor::createFft(frames, channels, spectra, rangeDb);
}

DSP_API void* initFftAnalyze(uint32_t frames, uint32_t channels, uint32_t fftSize,
                             uint32_t historyLength) {
    return dsp::AnalyzerProcessor::createFftAnalyze(frames, channels, fftSize, historyLength);
}

DSP_API void* initEnvAnalyze(uint32_t frames, uint32_t channels, uint32_t rate) {
    return dsp::AnalyzerProcessor::createEnvAnalyze(frames, channels, rate);
}

DSP_API uint32_t doFft(void* handle, const int16_t* src, float* out, uint32_t bytes) {
    return Analyzer::answer(handle,
                            [&](dsp::AnalyzerProcessor& p) { return p.doFft(src, out, bytes); });
}

DSP_API uint32_t doFftAnalyze(void* handle, const int16_t* src, float* out, uint32_t bytes) {
    return Analyzer::answer(
        handle, [&](dsp::AnalyzerProcessor& p) { return p.doFftAnalyze(src, out, bytes); });
}

DSP_API uint32_t doEnvAnalyze(void* handle, const int16_t* src, float* out, uint32_t bytes) {
    return Analyzer::answer(
        handle, [&](dsp::AnalyzerProcessor& p) { return p.doEnvAnalyze(src, out, bytes); });
}

DSP_API uint32_t termFft(void* handle) {
    return Analyzer::term(handle);
}

DSP_API uint32_t termFftAnalyze(void* handle) {
    return Analyzer::term(handle);
}

DSP_API uint32_t termEnvAnalyze(void* handle) {
    return Analyzer::term(handle);
}

} // extern "C"
