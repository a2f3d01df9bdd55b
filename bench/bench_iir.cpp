// IIR filter throughput in frames per second: an order-4 filter over 4096-frame
// stereo blocks, the bare designer cascade on floats, and three filters in a
// chain (one conversion in and out) against the same three filters called one
// after another (three conversions each way).
#include "dsp.h"
#include "filters/iir_designer.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;
constexpr uint32_t kRate = 44100;

std::vector<int16_t> stereoSignal() {
    std::vector<int16_t> v(2 * kFrames);
    for (uint32_t i = 0; i < v.size(); ++i) {
        v[i] = static_cast<int16_t>((i * 7919) % 65536 - 32768);
    }
    return v;
}

void BM_IirFilterStereo(benchmark::State& state) {
    const uint32_t order = static_cast<uint32_t>(state.range(0));
    void* filter = initIirFilter(kFrames, 2, kRate, order, 1000.0f, 0);
    std::vector<int16_t> src = stereoSignal(), dst(2 * kFrames);
    for (auto _ : state) {
        doIirFilter(filter, src.data(), dst.data(), 4 * kFrames);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    termIirFilter(filter);
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_IirFilterStereo)->Arg(4)->Arg(8);

void BM_DesignerCascadeMono(benchmark::State& state) {
    dsp::ChebyshevDesigner filter;
    filter.setOrder(static_cast<int32_t>(state.range(0)), 0);
    filter.design(static_cast<float>(kRate), 1000.0f);
    std::vector<float> in(kFrames), out(kFrames);
    for (uint32_t i = 0; i < kFrames; ++i) {
        in[i] = static_cast<float>(i % 200) / 100.0f - 1.0f;
    }
    for (auto _ : state) {
        filter.process(in.data(), out.data(), kFrames);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_DesignerCascadeMono)->Arg(1)->Arg(2)->Arg(4)->Arg(6)->Arg(8)->Arg(12);

void* makeFilter(int i) {
    return initIirFilter(kFrames, 2, kRate, 2, 500.0f + 1000.0f * i, i == 1 ? 1 : 0);
}

void BM_ChainOfThreeFilters(benchmark::State& state) {
    void* chain = dspCreate(kFrames, 2, kRate);
    for (int i = 0; i < 3; ++i) {
        dspAdd(chain, makeFilter(i), static_cast<uint32_t>(i));
    }
    std::vector<int16_t> src = stereoSignal(), dst(2 * kFrames);
    for (auto _ : state) {
        dspSend(chain, src.data(), dst.data(), 4 * kFrames);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    dspDestroy(chain);
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_ChainOfThreeFilters);

void BM_ThreeSeparateFilters(benchmark::State& state) {
    void* filters[3];
    for (int i = 0; i < 3; ++i) {
        filters[i] = makeFilter(i);
    }
    std::vector<int16_t> src = stereoSignal(), a(2 * kFrames), b(2 * kFrames);
    for (auto _ : state) {
        doIirFilter(filters[0], src.data(), a.data(), 4 * kFrames);
        doIirFilter(filters[1], a.data(), b.data(), 4 * kFrames);
        doIirFilter(filters[2], b.data(), a.data(), 4 * kFrames);
        benchmark::DoNotOptimize(a.data());
        benchmark::ClobberMemory();
    }
    for (void* f : filters) {
        termIirFilter(f);
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
}
BENCHMARK(BM_ThreeSeparateFilters);

} // namespace

BENCHMARK_MAIN();
