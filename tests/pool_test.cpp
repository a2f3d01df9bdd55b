// The fastmem pool through its exports; threads that each run their own
// processors and chains, sharing only the pool, get the single-threaded
// results and leave the pool as it was (see scripts/tsan.sh).
#include "core/fastmem_pool.h"
#include "dsp.h"
#include "support/core_family_runs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

TEST(FastmemPool, BlocksAreAlignedAndAccountSizePlus15InAnyReleaseOrder) {
    const uint32_t before = fastmemGetAllocatedSize(), count = dsp::fastmemPool().blockCount();
    std::vector<void*> blocks;
    uint32_t expected = before;
    for (uint32_t i = 0; i < 200; ++i) { // sizes 0, 3, 6, …
        blocks.push_back(fastmemAlloc(i * 3));
        ASSERT_NE(blocks.back(), nullptr);
        ASSERT_EQ(reinterpret_cast<uintptr_t>(blocks.back()) % 16, 0u);
        std::memset(blocks.back(), 0xAB, i * 3); // the whole block is usable
        expected += i * 3 + 15;
        ASSERT_EQ(fastmemGetAllocatedSize(), expected);
    }
    EXPECT_EQ(dsp::fastmemPool().blockCount(), count + 200);
    for (size_t i = 0; i < blocks.size(); i += 2) { // oldest first, then newest first
        EXPECT_EQ(fastmemFree(blocks[i]), 1u);
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 100 * 15 + 3 * 10000); // the odd sizes
    for (size_t i = blocks.size() - 1; i < blocks.size(); i -= 2) {
        EXPECT_EQ(fastmemFree(blocks[i]), 1u);
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
    EXPECT_EQ(dsp::fastmemPool().blockCount(), count);
}

TEST(FastmemPool, UnknownDoubleInteriorOversizedAndFailedRequestsAreRefused) {
    const uint32_t before = fastmemGetAllocatedSize();
    void* p = fastmemAlloc(64);
    int onStack = 0;
    EXPECT_EQ(fastmemFree(&onStack), 0u);
    EXPECT_EQ(fastmemFree(static_cast<char*>(p) + 16), 0u);
    EXPECT_EQ(fastmemFree(nullptr), 0u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 79);
    EXPECT_EQ(fastmemFree(p), 1u);
    EXPECT_EQ(fastmemFree(p), 0u);
    // Sizes whose + 15 would overflow the accounting.
    EXPECT_EQ(fastmemAlloc(UINT32_MAX), nullptr);
    EXPECT_EQ(fastmemAlloc(UINT32_MAX - 14), nullptr);
    dsp::fastmemPool().setSystemAllocator([](size_t) -> void* { return nullptr; });
    EXPECT_EQ(fastmemAlloc(128), nullptr);
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(FastmemPool, ReleaseAllEmptiesAPrivatePool) {
    dsp::FastmemPool pool;
    pool.allocate(1);
    pool.allocate(2);
    EXPECT_EQ(pool.allocatedSize(), 33u);
    pool.releaseAll();
    EXPECT_EQ(pool.allocatedSize(), 0u);
    EXPECT_EQ(pool.blockCount(), 0u);
    pool.releaseAll(); // nothing to do
    EXPECT_TRUE(pool.release(pool.allocate(5)));
}

std::vector<uint8_t> workload(uint32_t seed) {
    std::vector<uint8_t> all = dsptest::familyOutput(dsptest::chainRun(), seed);
    for (const dsptest::FamilyRun& family : dsptest::familyRuns()) {
        const std::vector<uint8_t> out = dsptest::familyOutput(family, seed);
        all.insert(all.end(), out.begin(), out.end());
    }
    return all;
}

template <typename Body>
void inThreads(uint32_t count, Body body) {
    std::atomic<uint32_t> waiting{count};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < count; ++t) {
        threads.emplace_back([t, &waiting, &body] {
            --waiting; // start together so the inits and terms overlap
            while (waiting.load() != 0) {
                std::this_thread::yield();
            }
            body(t);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(Concurrency, ThreadsWithOwnProcessorsMatchSingleThreadedRuns) {
    constexpr uint32_t kThreads = 4, kRounds = 3;
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    const uint32_t countBefore = dsp::fastmemPool().blockCount();
    std::vector<std::vector<uint8_t>> expected(kThreads);
    for (uint32_t t = 0; t < kThreads; ++t) {
        expected[t] = workload(t);
        ASSERT_EQ(expected[t].size(), // every run made its five blocks
                  (dsptest::familyRuns().size() + 1) * 5 * (dsptest::kFamilyOutBytes + 4));
    }
    std::vector<uint32_t> mismatches(kThreads, 0);
    inThreads(kThreads, [&](uint32_t t) {
        for (uint32_t round = 0; round < kRounds; ++round) {
            mismatches[t] += workload(t) != expected[t];
        }
    });
    EXPECT_EQ(mismatches, std::vector<uint32_t>(kThreads, 0));
    EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore);
    EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore);
}

} // namespace
