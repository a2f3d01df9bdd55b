// Golden runs of the chorus.
#include "golden/golden_runs.h"

#include "dsp.h"

GOLDEN_RUN(chorusStereo) {
    void* h = initChorus(512, 2, 44100, 4, 20.0f, 2.0f, 1.0f, 50.0f, 100.0f);
    golden::feedBlocks(out, 2, 512, 3, 512 * 4,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doChorus(h, src, dst, bytes);
                       });
    setChorusMix(h, 1, 80.0f);
    setChorusDepth(h, 4.0f);
    setChorusSpeed(h, 0.5f);
    setChorusDelaytime(h, 12.0f);
    setChorusOrgMix(h, 60.0f);
    golden::feedBlocks(out, 2, 512, 3, 512 * 4,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doChorus(h, src, dst, bytes);
                       });
    out.value(termChorus(h));
}

GOLDEN_RUN(chorusMono) {
    void* h = initChorus(400, 1, 22050, 3, 10.0f, 5.0f, 0.3f, 70.0f, 50.0f);
    golden::feedBlocks(out, 1, 400, 4, 400 * 2,
                       [h](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return doChorus(h, src, dst, bytes);
                       });
    out.value(termChorus(h));
}
