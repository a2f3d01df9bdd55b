// Exports of the granular pitch shifter.
#include "dsp.h"

#include "granular/pitch_shift_processor.h"

#include <new>

namespace {

dsp::PitchShiftProcessor* pitchShiftFrom(void* handle) {
    return dsp::processorFromHandle<dsp::PitchShiftProcessor>(handle, dsp::kTagPitchShift);
}

} // namespace

extern "C" {

DSP_API void* initPitchShift(uint32_t frames, uint32_t channels, uint32_t rate, float pitchCents,
                             float outLevelDb, float grainSeconds, float spacingSeconds) {
    dsp::PitchShiftProcessor* p = new (std::nothrow) dsp::PitchShiftProcessor();
    if (p == nullptr) {
        return nullptr;
    }
    if (!p->init(frames, channels, rate, pitchCents, outLevelDb, grainSeconds, spacingSeconds)) {
        dsp::destroyProcessor(p);
        return nullptr;
    }
    return p;
}

DSP_API uint32_t setPitchShiftPitch(void* handle, float pitchCents) {
    dsp::PitchShiftProcessor* p = pitchShiftFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    p->setPitch(pitchCents);
    return 1;
}

DSP_API uint32_t setPitchShiftOutLevel(void* handle, float outLevelDb) {
    dsp::PitchShiftProcessor* p = pitchShiftFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    p->setOutLevel(outLevelDb);
    return 1;
}

DSP_API uint32_t doPitchShift(void* handle, const int16_t* src, int16_t* dst, uint32_t bytes) {
    dsp::PitchShiftProcessor* p = pitchShiftFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    p->processInterleaved(src, dst, bytes);
    return 1;
}

DSP_API uint32_t termPitchShift(void* handle) {
    dsp::PitchShiftProcessor* p = pitchShiftFrom(handle);
    if (p == nullptr) {
        return 0;
    }
    dsp::destroyProcessor(p);
    return 1;
}

} // extern "C"
