// Golden runs of the resampler.
#include "golden/golden_runs.h"

#include "dsp.h"

namespace {

void resamplerRun(golden::Sink& out, uint32_t inChannels, uint32_t outChannels, uint32_t srcRate,
                  uint32_t dstRate, uint32_t interpolation, uint8_t filterOn) {
    const uint32_t frames = 1024;
    void* h = initResampler(frames, inChannels, outChannels, srcRate, dstRate, interpolation, 60.0f,
                            60.0f, filterOn);
    uint32_t dstBytes = getResamplerDstSize(h, frames * inChannels * 2);
    out.value(dstBytes);
    // The size scales the input by the rate ratio; mono to stereo doubles it.
    golden::feedBlocks(out, inChannels, frames, 4, dstBytes * outChannels / inChannels + 64,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doResampler(h, src, dst, bytes);
                       });
    out.value(termResampler(h));
}

} // namespace

GOLDEN_RUN(resampler44100To48000Stereo) {
    resamplerRun(out, 2, 2, 44100, 48000, 1, 1);
}

GOLDEN_RUN(resampler48000To22050Mono) {
    resamplerRun(out, 1, 1, 48000, 22050, 1, 1);
}

GOLDEN_RUN(resampler22050To32000MonoToStereo) {
    resamplerRun(out, 1, 2, 22050, 32000, 0, 0);
}
