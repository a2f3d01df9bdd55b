// Golden runs of the Hqups upsampler.
#include "golden/golden_runs.h"

#include "dsp.h"

namespace {

void hqupsRun(golden::Sink& out, uint32_t inChannels, uint32_t outChannels, uint32_t srcRate,
              uint32_t activeMode) {
    const uint32_t srcFrames = 1024;
    void* h = initHqupsBySrcsize(srcFrames, inChannels, outChannels, srcRate, 0.5f, 50.0f, 5000, 1,
                                 60.0f, 60.0f, activeMode, 1);
    uint32_t dstFrames = getHqupsDstSize(h, srcFrames);
    out.value(dstFrames);
    out.value(getHqupsSrcSize(h, dstFrames));
    size_t room = static_cast<size_t>(dstFrames + 64) * outChannels * 2;
    golden::feedBlocks(out, inChannels, srcFrames, 4, room,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doHqups(h, src, dst, bytes);
                       });
    setHqupsHarmonics(h, 0.8f);
    setHqupsMix(h, 30.0f);
    setHqupsActiveMode(h, 1 - activeMode);
    golden::feedBlocks(out, inChannels, srcFrames, 2, room,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doHqups(h, src, dst, bytes);
                       });
    out.value(termHqups(h));
}

} // namespace

GOLDEN_RUN(hqups44100Stereo) {
    hqupsRun(out, 2, 2, 44100, 1);
}

GOLDEN_RUN(hqups22050MonoToStereo) {
    hqupsRun(out, 1, 2, 22050, 0);
}
