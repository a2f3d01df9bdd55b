// The chain driven in 16-bit samples and in float, side by side: a resampler
// (44100 to 48000 Hz) and a chorus over 60 s of 44100 Hz stereo in 4096-frame
// blocks. One iteration is the whole minute; items are input frames.
#include "dsp.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;
constexpr uint32_t kRate = 44100;
constexpr uint32_t kBlocks = (60 * kRate + kFrames - 1) / kFrames;

void* resamplerAndChorus() {
    void* chain = dspCreate(kFrames, 2, kRate);
    dspAdd(chain, initResampler(kFrames, 2, 2, kRate, 48000, 1, 60.0f, 60.0f, 1), 1);
    dspAdd(chain, initChorus(kFrames, 2, 48000, 3, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), 2);
    return chain;
}

// One block of a two-tone signal at half scale, in both sample types.
struct Input {
    std::vector<int16_t> int16;
    std::vector<float> floats;
};

Input input() {
    Input in;
    for (uint32_t i = 0; i < 2 * kFrames; ++i) {
        const uint32_t frame = i / 2;
        const double t = static_cast<double>(frame) / kRate;
        const double x =
            0.3 * std::sin(2 * M_PI * 440.0 * t) + 0.2 * std::sin(2 * M_PI * 3000.0 * t);
        in.int16.push_back(static_cast<int16_t>(std::lrint(x * 32767.0)));
        in.floats.push_back(static_cast<float>(in.int16.back() / 32767.0));
    }
    return in;
}

void BM_ChainInt16(benchmark::State& state) {
    void* chain = resamplerAndChorus();
    const Input in = input();
    std::vector<int16_t> out(dspGetDstSamples(chain, kFrames));
    for (auto _ : state) {
        for (uint32_t b = 0; b < kBlocks; ++b) {
            dspSend(chain, in.int16.data(), out.data(), kFrames * 4);
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBlocks * kFrames);
    dspDestroy(chain);
}
BENCHMARK(BM_ChainInt16)->Unit(benchmark::kMillisecond);

void BM_ChainFloat(benchmark::State& state) {
    void* chain = resamplerAndChorus();
    const Input in = input();
    std::vector<float> out(dspGetDstSamples(chain, kFrames));
    for (auto _ : state) {
        for (uint32_t b = 0; b < kBlocks; ++b) {
            dspSendFloat(chain, in.floats.data(), out.data(), kFrames);
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBlocks * kFrames);
    dspDestroy(chain);
}
BENCHMARK(BM_ChainFloat)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
