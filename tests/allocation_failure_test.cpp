// Every init… of every family, with the pool's system allocator failing at
// each of the allocations the init makes in turn: the init must return 0 and
// leave the pool exactly as it found it (a leak of a general-heap object shows
// under the sanitizer and valgrind runs).
#include "dsp.h"
#include "support/allocation_failure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace {

using dsptest::FailingPoolAllocator;
using Mode = FailingPoolAllocator::Mode;

struct Family {
    std::string name;
    std::function<void*()> init;
    std::function<uint32_t(void*)> term;
    // Runs one block through a live processor; false when the call failed.
    std::function<bool(void*)> use;
};

std::vector<int16_t> testBlock(size_t samples) {
    std::vector<int16_t> block(samples);
    for (size_t i = 0; i < samples; ++i) {
        block[i] = static_cast<int16_t>((i * 7919u) % 20000u) - 10000;
    }
    return block;
}

bool runRateKeeping(uint32_t (*fn)(void*, const int16_t*, int16_t*, uint32_t), void* h,
                    uint32_t frames, uint32_t channels) {
    std::vector<int16_t> in = testBlock(frames * channels);
    std::vector<int16_t> out(frames * channels * 8);
    return fn(h, in.data(), out.data(), frames * channels * 2) != 0;
}

bool runAnalyzer(uint32_t (*fn)(void*, const int16_t*, float*, uint32_t), void* h, uint32_t frames,
                 uint32_t channels) {
    std::vector<int16_t> in = testBlock(frames * channels);
    std::vector<float> out(1 << 16);
    fn(h, in.data(), out.data(), frames * channels * 2);
    return true;
}

std::vector<Family> families() {
    return {
        {"IirFilter", [] { return initIirFilter(256, 2, 44100, 4, 1000.0f, 0); }, termIirFilter,
         [](void* h) { return runRateKeeping(doIirFilter, h, 256, 2); }},
        {"Fader", [] { return initFader(256, 2, 44100, 0.0f, -6.0f, 0.0f); }, termFader,
         [](void* h) {
             std::vector<int16_t> in = testBlock(512), out(512);
             return doFade(h, 0, in.data(), out.data(), 1024) != 0;
         }},
        {"Chorus", [] { return initChorus(256, 2, 44100, 3, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f); },
         termChorus, [](void* h) { return runRateKeeping(doChorus, h, 256, 2); }},
        {"Resampler", [] { return initResampler(256, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1); },
         termResampler, [](void* h) { return runRateKeeping(doResampler, h, 256, 2); }},
        {"ResamplerMonoToStereo",
         [] { return initResampler(300, 1, 2, 22050, 44100, 2, 80.0f, 40.0f, 1); }, termResampler,
         [](void* h) { return runRateKeeping(doResampler, h, 300, 1); }},
        {"Hqups",
         [] { return initHqups(1000, 2, 2, 22050, 0.5f, 50.0f, 5000, 1, 60.0f, 60.0f, 1, 1); },
         termHqups, [](void* h) { return runRateKeeping(doHqups, h, 400, 2); }},
        {"HqupsBySrcsize",
         [] {
             return initHqupsBySrcsize(512, 1, 2, 32000, 0.5f, 50.0f, 5000, 0, 60.0f, 60.0f, 1, 1);
         },
         termHqups, [](void* h) { return runRateKeeping(doHqups, h, 512, 1); }},
        {"PitchShift", [] { return initPitchShift(256, 2, 44100, 300.0f, 0.0f, 0.05f, 0.01f); },
         termPitchShift, [](void* h) { return runRateKeeping(doPitchShift, h, 256, 2); }},
        {"Stretch", [] { return initStretch(256, 2, 44100, 200.0f, 0.0f, 0.05f, 0.01f); },
         termStretch, [](void* h) { return runRateKeeping(doStretch, h, 256, 2); }},
        {"Fft", [] { return initFft(256, 2, 2, 100); }, termFft,
         [](void* h) { return runAnalyzer(doFft, h, 256, 2); }},
        {"FftAnalyze", [] { return initFftAnalyze(256, 1, 512, 1024); }, termFftAnalyze,
         [](void* h) { return runAnalyzer(doFftAnalyze, h, 256, 1); }},
        {"EnvAnalyze", [] { return initEnvAnalyze(256, 2, 44100); }, termEnvAnalyze,
         [](void* h) { return runAnalyzer(doEnvAnalyze, h, 256, 2); }},
    };
}

// Number of pool allocations one successful init makes.
uint64_t countInitAllocations(const Family& family) {
    FailingPoolAllocator::install(0, Mode::OnlyAt);
    void* h = family.init();
    const uint64_t calls = FailingPoolAllocator::callCount();
    FailingPoolAllocator::restore();
    EXPECT_NE(h, nullptr) << family.name;
    if (h != nullptr) {
        EXPECT_TRUE(family.use(h)) << family.name;
        EXPECT_EQ(family.term(h), 1u) << family.name;
    }
    return calls;
}

TEST(AllocationFailure, EveryInitFailsCleanlyAtEveryPoolAllocation) {
    dsptest::PoolAllocatorRestore restoreAllocator;
    for (const Family& family : families()) {
        const uint32_t sizeBefore = fastmemGetAllocatedSize();
        const uint32_t countBefore = dsp::fastmemPool().blockCount();
        const uint64_t allocations = countInitAllocations(family);
        // Every processor takes at least its six work buffers from the pool.
        EXPECT_GE(allocations, 6u) << family.name;
        for (Mode mode : {Mode::OnlyAt, Mode::FromThenOn}) {
            for (uint64_t k = 1; k <= allocations; ++k) {
                FailingPoolAllocator::install(k, mode);
                void* h = family.init();
                FailingPoolAllocator::restore();
                EXPECT_EQ(h, nullptr) << family.name << " with allocation " << k << " failing";
                if (h != nullptr) {
                    family.term(h);
                }
                EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore) << family.name << " k=" << k;
                EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore)
                    << family.name << " k=" << k;
            }
        }
        // And the family still works once the allocator is back.
        EXPECT_EQ(countInitAllocations(family), allocations) << family.name;
        EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore) << family.name;
        EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore) << family.name;
    }
}

// A chain whose source format differs from its processors' makes dspAdd
// reconfigure them; a failure there leaves the processor without buffers. The
// chain must then refuse to send until it is reconfigured, produce what an
// undisturbed chain produces after that, and give all memory back on
// dspDestroy.
struct ChainRun {
    void* chain = nullptr;
    bool added = true;
};

ChainRun buildChain() {
    ChainRun run;
    run.chain = dspCreate(512, 2, 32000);
    if (run.chain == nullptr) {
        run.added = false;
        return run;
    }
    void* resampler = initResampler(256, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1);
    void* chorus = initChorus(256, 2, 44100, 2, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f);
    void* filter = initIirFilter(256, 2, 44100, 2, 2000.0f, 1);
    void* pitch = initPitchShift(256, 2, 44100, -200.0f, 0.0f, 0.05f, 0.01f);
    uint32_t order = 1;
    for (void* p : {resampler, chorus, filter, pitch}) {
        if (p == nullptr) {
            run.added = false;
            continue;
        }
        run.added = dspAdd(run.chain, p, order++) != 0 && run.added;
    }
    return run;
}

TEST(AllocationFailure, ChainReconfigurationFailsCleanly) {
    dsptest::PoolAllocatorRestore restoreAllocator;
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    const uint32_t countBefore = dsp::fastmemPool().blockCount();

    FailingPoolAllocator::install(0, Mode::OnlyAt);
    ChainRun reference = buildChain();
    const uint64_t allocations = FailingPoolAllocator::callCount();
    FailingPoolAllocator::restore();
    ASSERT_NE(reference.chain, nullptr);
    ASSERT_TRUE(reference.added);
    std::vector<int16_t> in = testBlock(1024), expected(8192), out(8192);
    const uint32_t expectedBytes = dspSend(reference.chain, in.data(), expected.data(), 2048);
    ASSERT_GT(expectedBytes, 0u);
    dspDestroy(reference.chain);
    ASSERT_EQ(fastmemGetAllocatedSize(), sizeBefore);
    ASSERT_GT(allocations, 24u);

    uint32_t refusals = 0;
    for (Mode mode : {Mode::OnlyAt, Mode::FromThenOn}) {
        for (uint64_t k = 1; k <= allocations; ++k) {
            FailingPoolAllocator::install(k, mode);
            ChainRun run = buildChain();
            FailingPoolAllocator::restore();
            if (run.chain == nullptr) {
                continue;
            }
            if (run.added) {
                // A processor that lost its buffers is configured again by the
                // next dspAdd; only the last one added stays without them, and
                // then the chain must refuse to run until dspAdjust.
                uint32_t bytes = dspSend(run.chain, in.data(), out.data(), 2048);
                if (bytes == 0) {
                    ++refusals;
                    dspAdjust(run.chain, 512, 2, 32000);
                    bytes = dspSend(run.chain, in.data(), out.data(), 2048);
                }
                EXPECT_EQ(bytes, expectedBytes) << "k=" << k;
                EXPECT_TRUE(
                    std::equal(out.begin(), out.begin() + expectedBytes / 2, expected.begin()))
                    << "k=" << k;
            }
            dspDestroy(run.chain);
            EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore) << "k=" << k;
            EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore) << "k=" << k;
        }
    }
    // Failures in the last processor's reconfiguration were seen and refused.
    EXPECT_GT(refusals, 0u);
}

TEST(AllocationFailure, FastmemAllocFailureLeavesNoTrace) {
    dsptest::PoolAllocatorRestore restoreAllocator;
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    const uint32_t countBefore = dsp::fastmemPool().blockCount();
    FailingPoolAllocator::install(1, Mode::OnlyAt);
    EXPECT_EQ(fastmemAlloc(100), nullptr);
    void* second = fastmemAlloc(100);
    FailingPoolAllocator::restore();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore + 115);
    EXPECT_EQ(fastmemFree(second), 1u);
    EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore);
    EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore);
}

} // namespace
