// Throughput of every conversion path, in samples per second, next to a plain
// memcpy of the same bytes (the memory limit). Two workloads:
//  - Stream*: a streaming host's pass over 60 s of 44100 Hz stereo in
//    4096-frame blocks. Each block goes between the long interleaved stream and
//    a processor's float work buffers (which stay in cache); the memcpy moves
//    each block's 16-bit bytes between the stream and a block buffer.
//  - the rest: one 4096-frame block, everything in the first-level cache. Here
//    memcpy runs at the cache's peak and the conversions are compute-bound.
#include "core/sample_convert.h"
#include "core/simd_flags.h"
#include "peer_input.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr uint32_t kFrames = 4096;

// The float work buffers of one block, 16-byte aligned as the pool gives them.
struct WorkBuffers {
    float* left = static_cast<float*>(aligned_alloc(16, kFrames * sizeof(float)));
    float* right = static_cast<float*>(aligned_alloc(16, kFrames * sizeof(float)));
    WorkBuffers() {
        for (uint32_t i = 0; i < kFrames; ++i) {
            left[i] = static_cast<float>(i % 200) / 100.0f - 1.0f;
            right[i] = -left[i];
        }
    }
    ~WorkBuffers() {
        free(left);
        free(right);
    }
};

// One interleaved block and its work buffers.
struct Buffers : WorkBuffers {
    std::vector<int16_t> interleaved = std::vector<int16_t>(2 * kFrames);
    Buffers() {
        for (uint32_t i = 0; i < 2 * kFrames; ++i) {
            interleaved[i] = static_cast<int16_t>((i * 7919) % 65536 - 32768);
        }
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
        dsp::convertToFloat(dsp::currentRules().rule, b.interleaved.data(), kFrames * 4, b.left,
                            b.right, 2);
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
        dsp::convertToFloat(dsp::currentRules().rule, b.interleaved.data(), kFrames * 4, b.left,
                            nullptr, 2);
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
        dsp::convertToInt16(dsp::currentRules().rule, b.left, b.right, kFrames,
                            b.interleaved.data(), 2);
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
        dsp::convertToInt16(dsp::currentRules().rule, b.left, nullptr, kFrames,
                            b.interleaved.data(), 2);
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

// ---- Streaming over 60 s ----

constexpr size_t kStreamSamples = static_cast<size_t>(peerbench::kFrames) * 2;

// Calls step(offsetInSamples, frames) for each block of the 60 s stream.
template <typename Step>
void forEachBlock(Step step) {
    for (size_t frame = 0; frame < peerbench::kFrames; frame += kFrames) {
        uint32_t frames =
            static_cast<uint32_t>(std::min<size_t>(kFrames, peerbench::kFrames - frame));
        step(2 * frame, frames);
    }
}

void BM_StreamSplitToFloat(benchmark::State& state) {
    const std::vector<int16_t>& stream = peerbench::input();
    WorkBuffers w;
    selectPath(static_cast<Path>(state.range(0)));
    for (auto _ : state) {
        forEachBlock([&](size_t at, uint32_t frames) {
            dsp::convertToFloat(dsp::currentRules().rule, stream.data() + at, frames * 4, w.left,
                                w.right, 2);
            benchmark::ClobberMemory();
        });
    }
    selectPath(kPlain);
    state.SetItemsProcessed(state.iterations() * kStreamSamples);
}

void BM_StreamMergeToInt16(benchmark::State& state) {
    std::vector<int16_t> stream(kStreamSamples);
    WorkBuffers w;
    selectPath(static_cast<Path>(state.range(0)));
    for (auto _ : state) {
        forEachBlock([&](size_t at, uint32_t frames) {
            dsp::convertToInt16(dsp::currentRules().rule, w.left, w.right, frames,
                                stream.data() + at, 2);
            benchmark::ClobberMemory();
        });
    }
    selectPath(kPlain);
    state.SetItemsProcessed(state.iterations() * kStreamSamples);
}

void BM_StreamMemcpyFromStream(benchmark::State& state) {
    const std::vector<int16_t>& stream = peerbench::input();
    std::vector<int16_t> block(2 * kFrames);
    for (auto _ : state) {
        forEachBlock([&](size_t at, uint32_t frames) {
            std::memcpy(block.data(), stream.data() + at, frames * 4);
            benchmark::ClobberMemory();
        });
    }
    state.SetItemsProcessed(state.iterations() * kStreamSamples);
}

void BM_StreamMemcpyToStream(benchmark::State& state) {
    std::vector<int16_t> stream(kStreamSamples);
    std::vector<int16_t> block(2 * kFrames, 1);
    for (auto _ : state) {
        forEachBlock([&](size_t at, uint32_t frames) {
            std::memcpy(stream.data() + at, block.data(), frames * 4);
            benchmark::ClobberMemory();
        });
    }
    state.SetItemsProcessed(state.iterations() * kStreamSamples);
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
BENCHMARK(BM_StreamSplitToFloat)->Apply(pathArgs);
BENCHMARK(BM_StreamMergeToInt16)->Apply(pathArgs);
BENCHMARK(BM_StreamMemcpyFromStream);
BENCHMARK(BM_StreamMemcpyToStream);

} // namespace

BENCHMARK_MAIN();
