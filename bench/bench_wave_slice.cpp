// Throughput of the wave slicer in input frames per second: two 16th-order
// band filters, the envelope and the slice rules over 4096-frame blocks of a
// signal with regular attacks.
#include "dsp.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;

// Bursts of a 5 kHz tone, 3000 frames on, 2000 off, over 16 blocks.
std::vector<int16_t> burstSignal(uint32_t channels, uint32_t rate) {
    const uint32_t frames = 16 * kFrames;
    std::vector<int16_t> v(static_cast<size_t>(frames) * channels, 0);
    for (uint32_t i = 0; i < frames; ++i) {
        if (i % 5000 < 3000) {
            const double s = 16000.0 * std::sin(2.0 * 3.14159265358979 * 5000.0 * i / rate);
            for (uint32_t c = 0; c < channels; ++c) {
                v[static_cast<size_t>(i) * channels + c] = static_cast<int16_t>(s);
            }
        }
    }
    return v;
}

void runSlicer(benchmark::State& state, uint32_t channels, uint32_t rate) {
    const std::vector<int16_t> src = burstSignal(channels, rate);
    const uint32_t blocks = static_cast<uint32_t>(src.size() / (kFrames * channels));
    void* h = initWaveSlice(kFrames, channels, rate, -30.0f, -40.0f, 50.0f, 0.01f);
    uint32_t block = 0;
    for (auto _ : state) {
        doWaveSlice(h, src.data() + static_cast<size_t>(block) * kFrames * channels,
                    kFrames * 2 * channels);
        block = (block + 1) % blocks;
    }
    benchmark::DoNotOptimize(getWaveSlice(h, 0));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFrames);
    termWaveSlice(h);
}

void BM_WaveSliceStereo44100(benchmark::State& state) {
    runSlicer(state, 2, 44100);
}
BENCHMARK(BM_WaveSliceStereo44100);

void BM_WaveSliceMono48000(benchmark::State& state) {
    runSlicer(state, 1, 48000);
}
BENCHMARK(BM_WaveSliceMono48000);

// At 32000 Hz the 20000 Hz low-pass is left out: one band filter only.
void BM_WaveSliceMono32000(benchmark::State& state) {
    runSlicer(state, 1, 32000);
}
BENCHMARK(BM_WaveSliceMono32000);

} // namespace

BENCHMARK_MAIN();
