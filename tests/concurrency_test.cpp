// Several threads each create, run and destroy their own processors and
// chains at the same time, sharing only the pool: every thread must get the
// results a single-threaded run gets, and the pool must end where it began.
// Built under ThreadSanitizer by scripts/tsan.sh.
#include "core/fastmem_pool.h"
#include "dsp.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t kFrames = 256;
constexpr uint32_t kBlocks = 6;

std::vector<int16_t> sourceBlock(uint32_t block, uint32_t samples) {
    std::vector<int16_t> data(samples);
    uint32_t state = 12345u + block * 977u;
    for (uint32_t i = 0; i < samples; ++i) {
        state = state * 1664525u + 1013904223u;
        data[i] = static_cast<int16_t>(static_cast<int32_t>(state >> 16) - 32768) / 2;
    }
    return data;
}

// FNV-1a over everything a workload produced.
struct Digest {
    uint64_t value = 1469598103934665603ull;
    void add(const void* data, size_t bytes) {
        const unsigned char* p = static_cast<const unsigned char*>(data);
        for (size_t i = 0; i < bytes; ++i) {
            value = (value ^ p[i]) * 1099511628211ull;
        }
    }
    void add(uint32_t v) { add(&v, sizeof v); }
};

// One processor of each family driven standalone, then a chain of four.
uint64_t workload(uint32_t variant) {
    Digest digest;
    std::vector<int16_t> out(kFrames * 2 * 8);
    std::vector<float> spectra(1 << 15);

    void* iir = initIirFilter(kFrames, 2, 44100, 2 + variant % 3, 800.0f + 100.0f * variant, 0);
    void* chorus = initChorus(kFrames, 2, 44100, 2, 15.0f, 2.0f, 1.0f, 50.0f, 50.0f);
    void* fader = initFader(kFrames, 2, 44100, 0.0f, -6.0f, 0.0f);
    void* resampler = initResampler(kFrames, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1);
    void* hqups =
        initHqupsBySrcsize(kFrames, 2, 2, 22050, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1);
    void* pitch = initPitchShift(kFrames, 2, 44100, 300.0f, 0.0f, 0.05f, 0.01f);
    void* stretch = initStretch(kFrames, 2, 44100, 150.0f, 0.0f, 0.05f, 0.01f);
    void* fft = initFft(kFrames, 2, 2, 100);
    void* env = initEnvAnalyze(kFrames, 2, 44100);
    void* sliding = initFftAnalyze(kFrames, 2, 512, 1024);
    void* slicer = initWaveSlice(kFrames, 2, 48000, -30.0f, -50.0f, 5.0f, 0.001f);
    if (iir == nullptr || chorus == nullptr || fader == nullptr || resampler == nullptr ||
        hqups == nullptr || pitch == nullptr || stretch == nullptr || fft == nullptr ||
        env == nullptr || sliding == nullptr || slicer == nullptr) {
        return 0;
    }
    setFaderAction(fader, 0, 0.0f, 0.01f, -20.0f);
    for (uint32_t block = 0; block < kBlocks; ++block) {
        std::vector<int16_t> in = sourceBlock(block + variant, kFrames * 2);
        const uint32_t bytes = kFrames * 4;
        digest.add(doIirFilter(iir, in.data(), out.data(), bytes));
        digest.add(out.data(), bytes);
        digest.add(doChorus(chorus, in.data(), out.data(), bytes));
        digest.add(out.data(), bytes);
        digest.add(doFade(fader, 0, in.data(), out.data(), bytes));
        digest.add(out.data(), bytes);
        uint32_t n = doResampler(resampler, in.data(), out.data(), bytes);
        digest.add(n);
        digest.add(out.data(), n);
        n = doHqups(hqups, in.data(), out.data(), bytes);
        digest.add(n);
        digest.add(out.data(), n);
        digest.add(doPitchShift(pitch, in.data(), out.data(), bytes));
        digest.add(out.data(), bytes);
        n = doStretch(stretch, in.data(), out.data(), bytes);
        digest.add(n);
        digest.add(out.data(), n);
        digest.add(doFft(fft, in.data(), spectra.data(), bytes));
        digest.add(spectra.data(), 2 * 128 * sizeof(float));
        digest.add(doEnvAnalyze(env, in.data(), spectra.data(), bytes));
        digest.add(spectra.data(), 2 * sizeof(float));
        digest.add(doFftAnalyze(sliding, in.data(), spectra.data(), bytes));
        digest.add(spectra.data(), 2 * 256 * sizeof(float));
        digest.add(doWaveSlice(slicer, in.data(), bytes));
    }
    for (uint32_t index = 0; index < 4; ++index) {
        const SliceRecord* slice = getWaveSlice(slicer, index);
        digest.add(slice != nullptr ? 1u : 0u);
        if (slice != nullptr) {
            digest.add(&slice->startSeconds, sizeof slice->startSeconds);
            digest.add(&slice->endSeconds, sizeof slice->endSeconds);
        }
    }
    termIirFilter(iir);
    termChorus(chorus);
    termFader(fader);
    termResampler(resampler);
    termHqups(hqups);
    termPitchShift(pitch);
    termStretch(stretch);
    termFft(fft);
    termEnvAnalyze(env);
    termFftAnalyze(sliding);
    termWaveSlice(slicer);

    // A chain whose source block differs from its processors' (so dspAdd
    // reconfigures them) and is adjusted halfway.
    void* chain = dspCreate(kFrames * 2, 2, 32000);
    if (chain == nullptr) {
        return 0;
    }
    dspAdd(chain, initResampler(kFrames, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1), 1);
    dspAdd(chain, initChorus(kFrames, 2, 44100, 3, 20.0f, 2.0f, 1.5f, 40.0f, 60.0f), 2);
    dspAdd(chain, initIirFilter(kFrames, 2, 44100, 4, 3000.0f, 1), 3);
    dspAdd(chain, initPitchShift(kFrames, 2, 44100, -100.0f, -3.0f, 0.04f, 0.01f), 4);
    std::vector<int16_t> chainOut(kFrames * 2 * 2 * 4);
    for (uint32_t block = 0; block < kBlocks; ++block) {
        if (block == kBlocks / 2) {
            dspAdjust(chain, kFrames, 2, 22050);
        }
        std::vector<int16_t> in = sourceBlock(block * 3 + variant, kFrames * 2 * 2);
        const uint32_t n =
            dspSend(chain, in.data(), chainOut.data(), static_cast<uint32_t>(in.size() * 2));
        digest.add(n);
        digest.add(chainOut.data(), n);
    }
    dspDestroy(chain);
    return digest.value;
}

TEST(Concurrency, ThreadsWithOwnProcessorsMatchSingleThreadedRuns) {
    constexpr uint32_t kThreads = 4;
    constexpr uint32_t kRounds = 3;
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    const uint32_t countBefore = dsp::fastmemPool().blockCount();

    std::vector<uint64_t> expected(kThreads);
    for (uint32_t t = 0; t < kThreads; ++t) {
        expected[t] = workload(t);
        ASSERT_NE(expected[t], 0u);
    }
    ASSERT_EQ(fastmemGetAllocatedSize(), sizeBefore);

    std::vector<std::vector<uint64_t>> results(kThreads, std::vector<uint64_t>(kRounds));
    std::atomic<uint32_t> waiting{kThreads};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &results, &waiting] {
            // Start together so the inits and terms overlap.
            --waiting;
            while (waiting.load() != 0) {
                std::this_thread::yield();
            }
            for (uint32_t round = 0; round < kRounds; ++round) {
                results[t][round] = workload(t);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (uint32_t t = 0; t < kThreads; ++t) {
        for (uint32_t round = 0; round < kRounds; ++round) {
            EXPECT_EQ(results[t][round], expected[t]) << "thread " << t << " round " << round;
        }
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore);
    EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore);
}

TEST(Concurrency, FastmemExportsFromManyThreads) {
    constexpr uint32_t kThreads = 4;
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    std::vector<std::thread> threads;
    std::atomic<uint32_t> failures{0};
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            std::vector<void*> blocks;
            for (uint32_t i = 0; i < 500; ++i) {
                void* p = fastmemAlloc(16 + (i * 37 + t) % 300);
                if (p == nullptr || reinterpret_cast<uintptr_t>(p) % 16 != 0) {
                    ++failures;
                    continue;
                }
                static_cast<unsigned char*>(p)[0] = static_cast<unsigned char>(t);
                blocks.push_back(p);
                if (i % 3 == 0) {
                    failures += fastmemFree(blocks.front()) == 1 ? 0 : 1;
                    blocks.erase(blocks.begin());
                }
            }
            for (void* p : blocks) {
                failures += fastmemFree(p) == 1 ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0u);
    EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore);
}

} // namespace
