// Exports of the Hqups upsampler: check the handle, call the class.
#include "dsp.h"

#include "exports/family.h"
#include "rate/hqups_processor.h"

namespace {

using Hqups = dsp::ExportedFamily<dsp::HqupsProcessor, dsp::kTagHqups>;

dsp::HqupsSettings settingsOf(float harmonics, float mixPercent, uint32_t hpCutoffHz,
                              uint32_t interpolation, float attenuationDb, float slopeDbPerOctave,
                              uint32_t activeMode, uint8_t filterOn) {
    dsp::HqupsSettings s;
    s.harmonics = harmonics;
    s.mixPercent = mixPercent;
    s.hpCutoffHz = hpCutoffHz;
    s.activeMode = activeMode;
    s.conversion = {interpolation, attenuationDb, slopeDbPerOctave, filterOn};
    return s;
}

} // namespace

extern "C" {

DSP_API void* initHqups(uint32_t dstFrames, uint32_t inChannels, uint32_t outChannels,
                        uint32_t srcRate, float harmonics, float mixPercent, uint32_t hpCutoffHz,
                        uint32_t interpolation, float attenuationDb, float slopeDbPerOctave,
                        uint32_t activeMode, uint8_t filterOn) {
    return dsp::HqupsProcessor::create(
        dsp::HqupsProcessor::SizedBy::kOutput, dstFrames, inChannels, outChannels, srcRate,
        settingsOf(harmonics, mixPercent, hpCutoffHz, interpolation, attenuationDb,
                   slopeDbPerOctave, activeMode, filterOn));
}

DSP_API void* initHqupsBySrcsize(uint32_t srcFrames, uint32_t inChannels, uint32_t outChannels,
                                 uint32_t srcRate, float harmonics, float mixPercent,
                                 uint32_t hpCutoffHz, uint32_t interpolation, float attenuationDb,
                                 float slopeDbPerOctave, uint32_t activeMode, uint8_t filterOn) {
    return dsp::HqupsProcessor::create(
        dsp::HqupsProcessor::SizedBy::kSource, srcFrames, inChannels, outChannels, srcRate,
        settingsOf(harmonics, mixPercent, hpCutoffHz, interpolation, attenuationDb,
                   slopeDbPerOctave, activeMode, filterOn));
}

DSP_API uint32_t setHqupsHarmonics(void* handle, float harmonics) {
    return Hqups::answer(handle, [&](dsp::HqupsProcessor& p) { return p.setHarmonics(harmonics); });
}

DSP_API uint32_t setHqupsMix(void* handle, float mixPercent) {
    return Hqups::apply(handle, [&](dsp::HqupsProcessor& p) { p.setMix(mixPercent); });
}

DSP_API uint32_t setHqupsActiveMode(void* handle, uint32_t activeMode) {
    return Hqups::apply(handle, [&](dsp::HqupsProcessor& p) { p.setActiveMode(activeMode); });
}

DSP_API uint32_t doHqups(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    return Hqups::answer(
        handle, [&](dsp::HqupsProcessor& p) { return p.processInterleaved(src, dst, bytes); });
}

DSP_API uint32_t getHqupsDstSize(void* handle, uint32_t n) {
    return Hqups::answer(handle, [&](dsp::HqupsProcessor& p) { return p.getDstSize(n); });
}

DSP_API uint32_t getHqupsSrcSize(void* handle, uint32_t n) {
    return Hqups::answer(handle, [&](dsp::HqupsProcessor& p) { return p.sourceSizeFor(n); });
}

DSP_API uint32_t termHqups(void* handle) {
    return Hqups::term(handle);
}

} // extern "C"
