// Throughput of doHqups from 44100 Hz stereo to 48000 Hz, in input frames
// per second, with the bandwidth analysis and limit filter (active mode) on
// and off, on the plain and SSE paths.
#include "dsp.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;

// The host's switches: SSE (with MMX) or none.
void setSwitches(bool sse) {
    dspEnableMmx(sse ? 1 : 0);
    dspEnable3dnow(0);
    dspEnableSse(sse ? 1 : 0);
}

void BM_DoHqups(benchmark::State& state) {
    const uint32_t activeMode = static_cast<uint32_t>(state.range(0));
    const bool sse = state.range(1) != 0;
    setSwitches(sse);
    void* handle =
        initHqupsBySrcsize(kFrames, 2, 2, 44100, 0.5f, 50.0f, 5000, 0, 60.0f, 60.0f, activeMode, 1);
    if (handle == nullptr) {
        state.SkipWithError("initHqupsBySrcsize failed");
        return;
    }
    std::vector<int16_t> src(2 * kFrames);
    for (uint32_t t = 0; t < kFrames; ++t) {
        const double x = 0.4 * std::sin(2 * M_PI * 3000.0 * t / 44100.0) +
                         0.2 * std::sin(2 * M_PI * 9000.0 * t / 44100.0);
        src[2 * t] = static_cast<int16_t>(x * 32767.0);
        src[2 * t + 1] = static_cast<int16_t>(-x * 32767.0);
    }
    std::vector<int16_t> dst(2 * (getHqupsDstSize(handle, kFrames) + 1));
    for (auto _ : state) {
        benchmark::DoNotOptimize(doHqups(handle, src.data(), dst.data(), kFrames * 4));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFrames);
    termHqups(handle);
    setSwitches(false);
}

BENCHMARK(BM_DoHqups)
    ->ArgNames({"active", "sse"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1});

} // namespace

BENCHMARK_MAIN();
