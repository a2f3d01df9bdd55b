// Every init… of every family, with the pool's system allocator failing at
// each of the allocations the init makes in turn: the init must return 0 and
// leave the pool exactly as it found it (a leak of a general-heap object shows
// under the sanitizer and valgrind runs).
#include "dsp.h"
#include "support/allocation_failure.h"
#include "support/allocation_failure_new.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace {

using dsptest::FailingPoolAllocator;
using Mode = FailingPoolAllocator::Mode;
using dsptest::FailingHeap;
using HeapMode = FailingHeap::Mode;

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
        {"WaveSlice", [] { return initWaveSlice(256, 2, 44100, -30.0f, -50.0f, 5.0f, 0.001f); },
         termWaveSlice,
         [](void* h) {
             std::vector<int16_t> in = testBlock(512);
             if (doWaveSlice(h, in.data(), 1024) != 1) {
                 return false;
             }
             getWaveSlice(h, 0);
             return true;
         }},
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

// The same walk over the general heap: every nothrow new an init makes (the
// object, its filters, histories and tables, the pool's block records) fails
// in turn. A leak of a heap object shows under the sanitizer and valgrind
// runs; the pool's accounting is checked here.
bool heapFailureTakesEffect() {
    FailingHeap::arm(1, HeapMode::OnlyAt);
    void* probe = ::operator new(16, std::nothrow);
    FailingHeap::disarm();
    ::operator delete(probe);
    return probe == nullptr;
}

TEST(AllocationFailure, EveryInitFailsCleanlyAtEveryHeapAllocation) {
    if (!heapFailureTakesEffect()) {
        GTEST_SKIP() << "the nothrow operator new cannot be replaced on this platform";
    }
    dsptest::FailingHeapDisarm disarm;
    for (const Family& family : families()) {
        const uint32_t sizeBefore = fastmemGetAllocatedSize();
        const uint32_t countBefore = dsp::fastmemPool().blockCount();
        FailingHeap::arm(0, HeapMode::OnlyAt);
        void* reference = family.init();
        const uint64_t allocations = FailingHeap::disarm();
        ASSERT_NE(reference, nullptr) << family.name;
        EXPECT_TRUE(family.use(reference)) << family.name;
        EXPECT_EQ(family.term(reference), 1u) << family.name;
        // The object itself and the records of its six work buffers at least.
        EXPECT_GE(allocations, 7u) << family.name;
        for (HeapMode mode : {HeapMode::OnlyAt, HeapMode::FromThenOn}) {
            for (uint64_t k = 1; k <= allocations; ++k) {
                FailingHeap::arm(k, mode);
                void* h = family.init();
                FailingHeap::disarm();
                EXPECT_EQ(h, nullptr) << family.name << " with heap allocation " << k << " failing";
                if (h != nullptr) {
                    family.term(h);
                }
                EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore) << family.name << " k=" << k;
                EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore)
                    << family.name << " k=" << k;
            }
        }
    }
}

// A chain built while the heap fails somewhere: dspCreate may return 0 and
// dspAdd may refuse a processor (its node cannot be allocated), which then
// stays with the caller. Whatever was built must run, and destroying it and
// the refused processors gives all memory back.
TEST(AllocationFailure, ChainBuildingSurvivesHeapFailure) {
    if (!heapFailureTakesEffect()) {
        GTEST_SKIP() << "the nothrow operator new cannot be replaced on this platform";
    }
    dsptest::FailingHeapDisarm disarm;
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    const uint32_t countBefore = dsp::fastmemPool().blockCount();
    std::vector<int16_t> in = testBlock(1024), out(8192);
    struct Candidate {
        void* handle;
        uint32_t (*term)(void*);
    };
    auto build = [](std::vector<Candidate>& refused) {
        void* chain = dspCreate(512, 2, 32000);
        const Candidate candidates[] = {
            {initResampler(256, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1), termResampler},
            {initChorus(256, 2, 44100, 2, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), termChorus},
            {initIirFilter(256, 2, 44100, 2, 2000.0f, 1), termIirFilter},
            {initWaveSlice(256, 2, 48000, -30.0f, -50.0f, 5.0f, 0.01f), termWaveSlice},
        };
        uint32_t order = 1;
        for (const Candidate& c : candidates) {
            if (c.handle == nullptr) {
                continue;
            }
            if (chain == nullptr) {
                refused.push_back(c);
                continue;
            }
            const uint32_t count = order - 1; // nodes so far
            if (dspAdd(chain, c.handle, order) == count) {
                refused.push_back(c);
            } else {
                ++order;
            }
        }
        return chain;
    };

    FailingHeap::arm(0, HeapMode::OnlyAt);
    std::vector<Candidate> none;
    void* reference = build(none);
    const uint64_t allocations = FailingHeap::disarm();
    ASSERT_NE(reference, nullptr);
    ASSERT_TRUE(none.empty());
    dspDestroy(reference);
    ASSERT_GT(allocations, 4u * 7u);

    uint32_t refusals = 0;
    for (HeapMode mode : {HeapMode::OnlyAt, HeapMode::FromThenOn}) {
        for (uint64_t k = 1; k <= allocations; ++k) {
            std::vector<Candidate> refused;
            FailingHeap::arm(k, mode);
            void* chain = build(refused);
            FailingHeap::disarm();
            refusals += static_cast<uint32_t>(refused.size());
            if (chain != nullptr) {
                // A node whose reconfiguration lost its buffers refuses to run
                // until the chain is adjusted.
                if (dspSend(chain, in.data(), out.data(), 2048) == 0) {
                    dspAdjust(chain, 512, 2, 32000);
                    dspSend(chain, in.data(), out.data(), 2048);
                }
                dspDestroy(chain);
            }
            for (const Candidate& c : refused) {
                EXPECT_EQ(c.term(c.handle), 1u) << "k=" << k;
            }
            EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore) << "k=" << k;
            EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore) << "k=" << k;
        }
    }
    EXPECT_GT(refusals, 0u);
}

// The WAVE writer and reader with each of their heap allocations failing: the
// handle is 0 or its calls report the failure (0), never a crash or a
// half-written count.
TEST(AllocationFailure, WavefilesSurviveHeapFailure) {
    if (!heapFailureTakesEffect()) {
        GTEST_SKIP() << "the nothrow operator new cannot be replaced on this platform";
    }
    dsptest::FailingHeapDisarm disarm;
    const std::string path = std::string(DSP_TEST_TMPDIR) + "/allocation_failure_heap.wav";
    const WavefileFormat format{1, 2, 22050, 22050 * 4, 4, 16, 0};
    std::vector<int16_t> samples = testBlock(2000);
    const int32_t bytes = 4000;

    auto writeFile = [&]() -> uint32_t {
        void* writer = initWavefileOut(path.c_str(), &format);
        if (writer == nullptr) {
            return 0;
        }
        const int32_t written = writeWavefileOut(writer, samples.data(), bytes);
        const uint32_t closed = termWavefileOut(writer);
        EXPECT_TRUE((written == bytes && closed == static_cast<uint32_t>(bytes)) ||
                    (written <= 0 && closed == 0))
            << written << " " << closed;
        return closed;
    };
    FailingHeap::arm(0, HeapMode::OnlyAt);
    EXPECT_EQ(writeFile(), static_cast<uint32_t>(bytes));
    const uint64_t writerAllocations = FailingHeap::disarm();
    ASSERT_GE(writerAllocations, 2u);
    for (HeapMode mode : {HeapMode::OnlyAt, HeapMode::FromThenOn}) {
        for (uint64_t k = 1; k <= writerAllocations; ++k) {
            FailingHeap::arm(k, mode);
            writeFile();
            FailingHeap::disarm();
        }
    }

    ASSERT_EQ(writeFile(), static_cast<uint32_t>(bytes));
    std::vector<int16_t> back(2000);
    auto readFile = [&]() {
        void* reader = initWavefileIn(path.c_str(), 1000);
        if (reader == nullptr) {
            return;
        }
        std::fill(back.begin(), back.end(), 0);
        const int32_t got = readWavefileIn(reader, reinterpret_cast<uint8_t*>(back.data()), 1000);
        EXPECT_TRUE(got == 0 || (got == bytes && back == samples)) << got;
        termWavefileIn(reader);
    };
    FailingHeap::arm(0, HeapMode::OnlyAt);
    readFile();
    const uint64_t readerAllocations = FailingHeap::disarm();
    ASSERT_GE(readerAllocations, 2u);
    for (HeapMode mode : {HeapMode::OnlyAt, HeapMode::FromThenOn}) {
        for (uint64_t k = 1; k <= readerAllocations; ++k) {
            FailingHeap::arm(k, mode);
            readFile();
            FailingHeap::disarm();
        }
    }
    std::remove(path.c_str());
}

} // namespace
