// The forward real transform plus the dB magnitudes, per transform (block
// engine, tables already built), and the transform alone, for N = 256, 1024,
// 4096 and 32768. Reported as time per iteration = one transform.
#include "analysis/fft_engine.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <new>
#include <random>
#include <vector>

namespace {

std::vector<float> testSignal(uint32_t n) {
    std::mt19937 rng(n);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> x(n);
    for (float& v : x) {
        v = dist(rng);
    }
    return x;
}

// Per iteration the dB magnitudes of a block engine whose tables are built,
// each after a fresh analysis of the block when `analyze` is set.
void runSpectrum(benchmark::State& state, bool analyze) {
    const uint32_t n = static_cast<uint32_t>(state.range(0));
    std::unique_ptr<dsp::BlockFftEngine> engine(new (std::nothrow) dsp::BlockFftEngine());
    if (!engine || !engine->setup(0, 0, n, 120.0f)) {
        state.SkipWithError("setup failed");
        return;
    }
    std::vector<float> x = testSignal(n);
    std::vector<float> out(n / 2);
    engine->analyze(x.data()); // builds the tables
    for (auto _ : state) {
        if (analyze) {
            engine->analyze(x.data());
        }
        engine->magnitudesDb(out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_AnalyzeAndMagnitudes(benchmark::State& state) {
    runSpectrum(state, true);
}

void BM_RealFft(benchmark::State& state) {
    const uint32_t n = static_cast<uint32_t>(state.range(0));
    std::unique_ptr<dsp::FftEngine> engine(new (std::nothrow) dsp::FftEngine());
    if (!engine) {
        state.SkipWithError("allocation failed");
        return;
    }
    std::vector<float> x = testSignal(n);
    std::vector<float> a(x);
    engine->realFft(a.data(), n);
    for (auto _ : state) {
        // Restart from the same input so the values stay bounded.
        std::copy(x.begin(), x.end(), a.begin());
        engine->realFft(a.data(), n);
        benchmark::DoNotOptimize(a.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Magnitudes(benchmark::State& state) {
    runSpectrum(state, false);
}

} // namespace

BENCHMARK(BM_AnalyzeAndMagnitudes)->Arg(256)->Arg(1024)->Arg(4096)->Arg(32768);
BENCHMARK(BM_RealFft)->Arg(256)->Arg(1024)->Arg(4096)->Arg(32768);
BENCHMARK(BM_Magnitudes)->Arg(256)->Arg(1024)->Arg(4096)->Arg(32768);

BENCHMARK_MAIN();
