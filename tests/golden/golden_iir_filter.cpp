// Golden runs of the IIR filter effect.
#include "golden/golden_runs.h"

#include "dsp.h"

namespace {

void filterRun(golden::Sink& out, uint32_t channels, uint32_t order, float cutoff, uint32_t kind) {
    void* h = initIirFilter(512, channels, 44100, order, cutoff, kind);
    golden::feedBlocks(out, channels, 512, 4, 512 * channels * 2,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doIirFilter(h, src, dst, bytes);
                       });
    out.value(termIirFilter(h));
}

} // namespace

GOLDEN_RUN(iirFilterLowPassStereo) {
    filterRun(out, 2, 4, 3000.0f, 0);
}

GOLDEN_RUN(iirFilterHighPassMono) {
    filterRun(out, 1, 5, 800.0f, 1);
}
