// Golden runs of the time stretcher.
#include "golden/golden_runs.h"

#include "dsp.h"

namespace {

void stretchRun(golden::Sink& out, uint32_t channels, float scale) {
    const uint32_t frames = 1024;
    void* h = initStretch(frames, channels, 44100, scale, 0.0f, 0.05f, 0.01f);
    uint32_t dstBytes = getStretchDstSize(h, frames * channels * 2);
    out.value(dstBytes);
    golden::feedBlocks(out, channels, frames, 4, dstBytes + 64,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doStretch(h, src, dst, bytes);
                       });
    setStretchScale(h, -scale);
    setStretchOutLevel(h, -3.0f);
    golden::feedBlocks(out, channels, frames, 2, frames * channels * 2 * 4,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doStretch(h, src, dst, bytes);
                       });
    out.value(termStretch(h));
}

} // namespace

GOLDEN_RUN(stretchLongerStereo) {
    stretchRun(out, 2, -300.0f);
}

GOLDEN_RUN(stretchShorterMono) {
    stretchRun(out, 1, 500.0f);
}
