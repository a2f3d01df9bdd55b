// Throughput of the granular pitch shifter and time stretcher on stereo
// 44100 Hz blocks (grain 0.05 s, spacing 0.01 s), in input frames per second.
#include "dsp.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;
constexpr uint32_t kRate = 44100;

std::vector<int16_t> stereoBlock() {
    std::vector<int16_t> s(2 * kFrames);
    for (uint32_t i = 0; i < kFrames; ++i) {
        s[2 * i] = static_cast<int16_t>(12000.0 * std::sin(0.0627 * i));
        s[2 * i + 1] = static_cast<int16_t>(9000.0 * std::sin(0.0291 * i + 1.0));
    }
    return s;
}

void BM_PitchShift(benchmark::State& state) {
    float cents = static_cast<float>(state.range(0));
    void* h = initPitchShift(kFrames, 2, kRate, cents, 0.0f, 0.05f, 0.01f);
    std::vector<int16_t> src = stereoBlock();
    std::vector<int16_t> dst(src.size());
    for (auto _ : state) {
        doPitchShift(h, src.data(), dst.data(), kFrames * 4);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    termPitchShift(h);
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_PitchShift)->Arg(700)->Arg(-700)->Arg(0);

void BM_Stretch(benchmark::State& state) {
    float scale = static_cast<float>(state.range(0));
    void* h = initStretch(kFrames, 2, kRate, scale, 0.0f, 0.05f, 0.01f);
    std::vector<int16_t> src = stereoBlock();
    std::vector<int16_t> dst(src.size() * 4);
    for (auto _ : state) {
        doStretch(h, src.data(), dst.data(), kFrames * 4);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    termStretch(h);
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_Stretch)->Arg(1000)->Arg(-1000)->Arg(300)->Arg(0);

} // namespace

BENCHMARK_MAIN();
