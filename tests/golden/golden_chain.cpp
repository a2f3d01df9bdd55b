// Golden runs of the processing chain, with processors of families already
// covered on their own.
#include "golden/golden_runs.h"

#include "dsp.h"

GOLDEN_RUN(chainFilterChorusResampler) {
    void* chain = dspCreate(1024, 2, 44100);
    dspAdd(chain, initChorus(1024, 2, 44100, 3, 15.0f, 3.0f, 0.8f, 40.0f, 90.0f), 2);
    dspAdd(chain, initIirFilter(1024, 2, 44100, 4, 6000.0f, 0), 1);
    dspAdd(chain, initResampler(1024, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1), 3);
    out.value(dspGetDstRate(chain));
    out.value(dspGetDstChannels(chain));
    uint32_t dstBytes = dspGetDstSize(chain, 1024 * 4);
    out.value(dstBytes);
    golden::feedBlocks(out, 2, 1024, 4, dstBytes + 64,
                       [chain](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return dspSend(chain, src, dst, bytes);
                       });
    dspDestroy(chain);
}

GOLDEN_RUN(chainPassThrough) {
    void* chain = dspCreate(333, 1, 8000);
    golden::feedBlocks(out, 1, 333, 3, 333 * 2,
                       [chain](const int16_t* src, int16_t* dst, uint32_t bytes) {
                           return dspSend(chain, src, dst, bytes);
                       });
    dspDestroy(chain);
}
