// Exports of the Hqups upsampler: thin wrappers that check the handle's tag
// and call the processor.
#include "dsp.h"

#include "rate/hqups_processor.h"

namespace {

dsp::HqupsProcessor* hqupsFrom(void* handle) {
    return dsp::processorFromHandle<dsp::HqupsProcessor>(handle, dsp::kTagHqups);
}

dsp::HqupsSettings settingsOf(float harmonics, float mixPercent, uint32_t hpCutoffHz,
                              uint32_t interpolation, float attenuationDb, float slopeDbPerOctave,
                              uint32_t activeMode, uint8_t filterOn) {
    dsp::HqupsSettings s;
    s.harmonics = harmonics;
    s.mixPercent = mixPercent;
    s.hpCutoffHz = hpCutoffHz;
    s.interpolation = interpolation;
    s.attenuationDb = attenuationDb;
    s.slopeDbPerOctave = slopeDbPerOctave;
    s.activeMode = activeMode;
    s.filterOn = filterOn;
    return s;
}

} // namespace

extern "C" {

DSP_API void* initHqups(uint32_t dstFrames, uint32_t inChannels, uint32_t outChannels,
                        uint32_t srcRate, float harmonics, float mixPercent, uint32_t hpCutoffHz,
                        uint32_t interpolation, float attenuationDb, float slopeDbPerOctave,
                        uint32_t activeMode, uint8_t filterOn) {
    return dsp::HqupsProcessor::createForOutput(dstFrames, inChannels, outChannels, srcRate,
                                                settingsOf(harmonics, mixPercent, hpCutoffHz,
                                                           interpolation, attenuationDb,
                                                           slopeDbPerOctave, activeMode, filterOn));
}

DSP_API void* initHqupsBySrcsize(uint32_t srcFrames, uint32_t inChannels, uint32_t outChannels,
                                 uint32_t srcRate, float harmonics, float mixPercent,
                                 uint32_t hpCutoffHz, uint32_t interpolation, float attenuationDb,
                                 float slopeDbPerOctave, uint32_t activeMode, uint8_t filterOn) {
    return dsp::HqupsProcessor::createForSource(srcFrames, inChannels, outChannels, srcRate,
                                                settingsOf(harmonics, mixPercent, hpCutoffHz,
                                                           interpolation, attenuationDb,
                                                           slopeDbPerOctave, activeMode, filterOn));
}

DSP_API uint32_t setHqupsHarmonics(void* handle, float harmonics) {
    dsp::HqupsProcessor* p = hqupsFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    return p->setHarmonics(harmonics) ? 1 : 0;
}

DSP_API uint32_t setHqupsMix(void* handle, float mixPercent) {
    dsp::HqupsProcessor* p = hqupsFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    p->setMix(mixPercent);
    return 1;
}

DSP_API uint32_t setHqupsActiveMode(void* handle, uint32_t activeMode) {
    dsp::HqupsProcessor* p = hqupsFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    p->setActiveMode(activeMode);
    return 1;
}

DSP_API uint32_t doHqups(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    dsp::HqupsProcessor* p = hqupsFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    return p->processInterleaved(src, dst, bytes);
}

DSP_API uint32_t getHqupsDstSize(void* handle, uint32_t n) {
    dsp::HqupsProcessor* p = hqupsFrom(handle);
    return p == nullptr ? 0 : p->getDstSize(n);
}

DSP_API uint32_t getHqupsSrcSize(void* handle, uint32_t n) {
    dsp::HqupsProcessor* p = hqupsFrom(handle);
    return p == nullptr ? 0 : p->sourceSizeFor(n);
}

DSP_API uint32_t termHqups(void* handle) {
    dsp::HqupsProcessor* p = hqupsFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    dsp::destroyProcessor(p);
    return 1;
}

} // extern "C"
