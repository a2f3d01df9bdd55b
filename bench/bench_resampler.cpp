// Resampling 44100 -> 48000 Hz stereo through doResampler on 4096-frame
// blocks, linear and cubic, filter on and off, in input frames per second.
#include "dsp.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;

void BM_Resample44100To48000Stereo(benchmark::State& state) {
    const uint32_t interpolation = static_cast<uint32_t>(state.range(0));
    const uint8_t filterOn = static_cast<uint8_t>(state.range(1));
    void* h = initResampler(kFrames, 2, 2, 44100, 48000, interpolation, 60.0f, 60.0f, filterOn);
    if (h == nullptr) {
        state.SkipWithError("initResampler failed");
        return;
    }
    std::vector<int16_t> src(2 * kFrames);
    for (uint32_t i = 0; i < 2 * kFrames; ++i) {
        src[i] = static_cast<int16_t>((i * 7919) % 30000 - 15000);
    }
    std::vector<int16_t> dst(getResamplerDstSize(h, 2 * kFrames) * 2 + 16);
    for (auto _ : state) {
        benchmark::DoNotOptimize(doResampler(h, src.data(), dst.data(), kFrames * 4));
        benchmark::ClobberMemory();
    }
    termResampler(h);
    state.SetItemsProcessed(state.iterations() * kFrames);
    state.SetLabel("items = input frames");
}

BENCHMARK(BM_Resample44100To48000Stereo)
    ->ArgNames({"cubic", "filter"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1});

} // namespace

BENCHMARK_MAIN();
