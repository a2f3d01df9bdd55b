// Golden runs of the fader and the cross-fader.
#include "golden/golden_runs.h"

#include "dsp.h"

GOLDEN_RUN(faderRamps) {
    void* h = initFader(512, 2, 44100, 0.0f, -3.0f, 0.0f);
    setFaderAction(h, 0, 0.005f, 0.03f, -24.0f);
    setFaderAction(h, 1, 0.0f, 0.04f, -6.0f);
    golden::feedBlocks(out, 2, 512, 4, 512 * 4,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doFade(h, 0, src, dst, bytes);
                       });
    golden::feedBlocks(out, 2, 512, 2, 512 * 4,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doFade(h, 1, src, dst, bytes);
                       });
    out.value(termFader(h));
}

GOLDEN_RUN(crossFader) {
    void* h = initFader(512, 1, 44100, -1.0f, 0.0f, -2.0f);
    setCrossFaderCurve(h, -3.0f, -40.0f, 1.0f, 1.0f);
    setCrossFaderAction(h, 0.002f, 0.03f, 0.8f);
    std::vector<int16_t> other = golden::testSignal(512 * 4, 1, 77);
    size_t offset = 0;
    golden::feedBlocks(out, 1, 512, 4, 512 * 2,
                       [h, &other, &offset](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           uint32_t r = doCrossFade(h, src, other.data() + offset, dst, bytes);
                           offset += bytes / 2;
                           return r;
                       });
    out.value(termFader(h));
}
