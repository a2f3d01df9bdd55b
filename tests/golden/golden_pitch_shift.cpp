// Golden runs of the pitch shifter.
#include "golden/golden_runs.h"

#include "dsp.h"

namespace {

void pitchRun(golden::Sink& out, uint32_t channels, float cents) {
    void* h = initPitchShift(1024, channels, 44100, cents, -1.0f, 0.05f, 0.01f);
    golden::feedBlocks(out, channels, 1024, 4, 1024 * channels * 2,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doPitchShift(h, src, dst, bytes);
                       });
    setPitchShiftPitch(h, -cents * 0.5f);
    setPitchShiftOutLevel(h, -6.0f);
    golden::feedBlocks(out, channels, 1024, 2, 1024 * channels * 2,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doPitchShift(h, src, dst, bytes);
                       });
    out.value(termPitchShift(h));
}

} // namespace

GOLDEN_RUN(pitchShiftUpStereo) {
    pitchRun(out, 2, 300.0f);
}

GOLDEN_RUN(pitchShiftDownMono) {
    pitchRun(out, 1, -700.0f);
}
