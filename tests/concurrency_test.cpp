// Threads that each create, run and destroy their own processors and chains,
// sharing only the pool, get the single-threaded results and leave the pool as
// it was. Built under ThreadSanitizer by scripts/tsan.sh.
#include "core/fastmem_pool.h"
#include "dsp.h"
#include "support/core_family_runs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace {

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

TEST(Concurrency, FastmemExportsFromManyThreads) {
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    std::atomic<uint32_t> failures{0};
    inThreads(4, [&failures](uint32_t t) {
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
                failures += fastmemFree(blocks.front()) != 1;
                blocks.erase(blocks.begin());
            }
        }
        for (void* p : blocks) {
            failures += fastmemFree(p) != 1;
        }
    });
    EXPECT_EQ(failures.load(), 0u);
    EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore);
}

} // namespace
