// Golden run of the wave slicer: the slices found in a signal of bursts.
#include "golden/golden_runs.h"

#include "dsp.h"

GOLDEN_RUN(waveSliceBursts) {
    const uint32_t frames = 2048;
    const int blocks = 8;
    std::vector<int16_t> signal = golden::testSignal(static_cast<size_t>(frames) * blocks, 2, 31);
    // Bursts of 3000 frames every 5000, silence between them.
    for (size_t i = 0; i < signal.size() / 2; ++i) {
        if (i % 5000 >= 3000) {
            signal[2 * i] = 0;
            signal[2 * i + 1] = 0;
        }
    }
    void* h = initWaveSlice(frames, 2, 44100, -30.0f, -40.0f, 50.0f, 0.01f);
    for (int b = 0; b < blocks; ++b) {
        out.value(doWaveSlice(h, signal.data() + static_cast<size_t>(b) * frames * 2, frames * 4));
    }
    // An index beyond the last slice returns the last one, so walk until the
    // record has no successor.
    uint32_t count = 0;
    for (uint32_t index = 0; index < 1000; ++index) {
        const SliceRecord* slice = getWaveSlice(h, index);
        if (slice == nullptr) {
            break;
        }
        ++count;
        out.value(slice->startSeconds);
        out.value(slice->endSeconds);
        if (slice->next == nullptr) {
            break;
        }
    }
    out.value(count);
    out.value(termWaveSlice(h));
}
