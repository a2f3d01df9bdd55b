// Throughput of every conversion path on 4096-frame stereo blocks, in samples
// per second, next to a plain memcpy of the same bytes (the memory limit).
#include "core/sample_convert.h"
#include "core/simd_flags.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;

struct Buffers {
    std::vector<int16_t> interleaved = std::vector<int16_t>(2 * kFrames);
    float* left;
    float* right;
    Buffers() {
        left = static_cast<float*>(aligned_alloc(16, kFrames * sizeof(float)));
        right = static_cast<float*>(aligned_alloc(16, kFrames * sizeof(float)));
        for (uint32_t i = 0; i < 2 * kFrames; ++i) {
            interleaved[i] = static_cast<int16_t>((i * 7919) % 65536 - 32768);
        }
        for (uint32_t i = 0; i < kFrames; ++i) {
            left[i] = static_cast<float>(i % 200) / 100.0f - 1.0f;
            right[i] = -left[i];
        }
    }
    ~Buffers() {
        free(left);
        free(right);
    }
};

enum Path { kPlain = 0, kAmd3dnow = 1, kSse = 2 };

void selectPath(Path path) {
    dsp::simdFlags.mmx = 0;
    dsp::simdFlags.amd3dnow = path == kAmd3dnow ? 1 : 0;
    dsp::simdFlags.sse = path == kSse ? 1 : 0;
}

void BM_SplitStereoToFloat(benchmark::State& state) {
    Buffers b;
    selectPath(static_cast<Path>(state.range(0)));
    for (auto _ : state) {
        dsp::convertToFloat(b.interleaved.data(), kFrames * 4, b.left, b.right, 2);
        benchmark::DoNotOptimize(b.left);
        benchmark::ClobberMemory();
    }
    selectPath(kPlain);
    state.SetItemsProcessed(state.iterations() * 2 * kFrames);
}

void BM_MixDownStereoToFloat(benchmark::State& state) {
    Buffers b;
    selectPath(static_cast<Path>(state.range(0)));
    for (auto _ : state) {
        dsp::convertToFloat(b.interleaved.data(), kFrames * 4, b.left, nullptr, 2);
        benchmark::DoNotOptimize(b.left);
        benchmark::ClobberMemory();
    }
    selectPath(kPlain);
    state.SetItemsProcessed(state.iterations() * 2 * kFrames);
}

void BM_MergeStereoToInt16(benchmark::State& state) {
    Buffers b;
    selectPath(static_cast<Path>(state.range(0)));
    for (auto _ : state) {
        dsp::convertToInt16(b.left, b.right, kFrames, b.interleaved.data(), 2);
        benchmark::DoNotOptimize(b.interleaved.data());
        benchmark::ClobberMemory();
    }
    selectPath(kPlain);
    state.SetItemsProcessed(state.iterations() * 2 * kFrames);
}

void BM_DuplicateMonoToStereo(benchmark::State& state) {
    Buffers b;
    selectPath(static_cast<Path>(state.range(0)));
    for (auto _ : state) {
        dsp::convertToInt16(b.left, nullptr, kFrames, b.interleaved.data(), 2);
        benchmark::DoNotOptimize(b.interleaved.data());
        benchmark::ClobberMemory();
    }
    selectPath(kPlain);
    state.SetItemsProcessed(state.iterations() * 2 * kFrames);
}

void BM_MemcpyStereoBlock(benchmark::State& state) {
    Buffers b;
    std::vector<int16_t> dst(2 * kFrames);
    for (auto _ : state) {
        std::memcpy(dst.data(), b.interleaved.data(), kFrames * 4);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * 2 * kFrames);
}

void pathArgs(benchmark::internal::Benchmark* b) {
    b->ArgName("path(0=plain,1=3dnow,2=sse)");
    b->Arg(kPlain)->Arg(kAmd3dnow)->Arg(kSse);
}

BENCHMARK(BM_SplitStereoToFloat)->Apply(pathArgs);
BENCHMARK(BM_MixDownStereoToFloat)->Apply(pathArgs);
BENCHMARK(BM_MergeStereoToInt16)->Apply(pathArgs);
BENCHMARK(BM_DuplicateMonoToStereo)->Apply(pathArgs);
BENCHMARK(BM_MemcpyStereoBlock);

} // namespace

BENCHMARK_MAIN();
