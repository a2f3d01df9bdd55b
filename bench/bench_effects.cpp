// Throughput of the fader (an action running over every block) and of the
// chorus (four voices, stereo and mono), in frames per second, through their
// do calls on 4096-frame blocks.
#include "dsp.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;
constexpr uint32_t kRate = 44100;

std::vector<int16_t> stereoInput() {
    std::vector<int16_t> v(2 * kFrames);
    for (uint32_t i = 0; i < 2 * kFrames; ++i) {
        v[i] = static_cast<int16_t>(static_cast<int32_t>((i * 7919u) % 60000u) - 30000);
    }
    return v;
}

// A fade that never ends within the run: every sample recomputes its gain.
void BM_FaderRunningAction(benchmark::State& state) {
    std::vector<int16_t> src = stereoInput(), dst(2 * kFrames);
    void* fader = initFader(kFrames, 2, kRate, 0.0f, 0.0f, 0.0f);
    setFaderAction(fader, 0, 0.001f, 90000.0f, -40.0f);
    for (auto _ : state) {
        doFade(fader, 0, src.data(), dst.data(), kFrames * 4);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFrames);
    termFader(fader);
}
BENCHMARK(BM_FaderRunningAction);

// The same fader with no action: one multiplication per sample.
void BM_FaderIdle(benchmark::State& state) {
    std::vector<int16_t> src = stereoInput(), dst(2 * kFrames);
    void* fader = initFader(kFrames, 2, kRate, 0.0f, -6.0f, 0.0f);
    for (auto _ : state) {
        doFade(fader, 0, src.data(), dst.data(), kFrames * 4);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFrames);
    termFader(fader);
}
BENCHMARK(BM_FaderIdle);

// Cross-fade with both faders and the cross-fader running.
void BM_CrossFadeRunning(benchmark::State& state) {
    std::vector<int16_t> a = stereoInput(), b = stereoInput(), dst(2 * kFrames);
    void* fader = initFader(kFrames, 2, kRate, -1.0f, 0.0f, 0.0f);
    setFaderAction(fader, 0, 0.001f, 90000.0f, -20.0f);
    setFaderAction(fader, 1, 0.001f, 90000.0f, -20.0f);
    setCrossFaderAction(fader, 0.001f, 90000.0f, 1.0f);
    for (auto _ : state) {
        doCrossFade(fader, a.data(), b.data(), dst.data(), kFrames * 4);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFrames);
    termFader(fader);
}
BENCHMARK(BM_CrossFadeRunning);

void BM_ChorusStereoFourVoices(benchmark::State& state) {
    std::vector<int16_t> src = stereoInput(), dst(2 * kFrames);
    void* chorus = initChorus(kFrames, 2, kRate, 4, 20.0f, 2.0f, 0.5f, 40.0f, 70.0f);
    for (auto _ : state) {
        doChorus(chorus, src.data(), dst.data(), kFrames * 4);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFrames);
    termChorus(chorus);
}
BENCHMARK(BM_ChorusStereoFourVoices);

// The mono path: one voice set, no delays shared with a second channel.
void BM_ChorusMonoFourVoices(benchmark::State& state) {
    std::vector<int16_t> src = stereoInput(), dst(kFrames);
    void* chorus = initChorus(kFrames, 1, kRate, 4, 20.0f, 2.0f, 0.5f, 40.0f, 70.0f);
    for (auto _ : state) {
        doChorus(chorus, src.data(), dst.data(), kFrames * 2);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kFrames);
    termChorus(chorus);
}
BENCHMARK(BM_ChorusMonoFourVoices);

} // namespace

BENCHMARK_MAIN();
