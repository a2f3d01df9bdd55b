// Several threads each create, run and destroy their own processors and
// chains at the same time, sharing only the pool: every thread must get the
// results a single-threaded run gets, and the pool must end where it began.
// Built under ThreadSanitizer by scripts/tsan.sh.
#include "core/fastmem_pool.h"
#include "dsp.h"
#include "support/core_family_runs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace {

using dsptest::familyRuns;
using dsptest::kFamilyFrames;
using dsptest::testSignal;

// FNV-1a over everything a workload produced.
struct Digest {
    uint64_t value = 1469598103934665603ull;
    void add(const void* data, size_t bytes) {
        for (size_t i = 0; i < bytes; ++i) {
            value = (value ^ static_cast<const unsigned char*>(data)[i]) * 1099511628211ull;
        }
    }
};

// Every family driven standalone, then a chain of four whose source differs
// from its processors' (so dspAdd reconfigures them), adjusted halfway.
uint64_t workload(uint32_t variant) {
    Digest digest;
    std::vector<uint8_t> out(dsptest::kFamilyOutBytes);
    for (const dsptest::FamilyRun& family : familyRuns()) {
        void* h = family.init();
        if (h == nullptr) {
            return 0;
        }
        if (family.prepare != nullptr) {
            family.prepare(h);
        }
        for (uint32_t block = 0; block < 4; ++block) {
            const uint32_t samples = kFamilyFrames * family.channels;
            std::vector<int16_t> in = testSignal(samples, block + variant);
            const uint32_t result = family.run(h, in.data(), out.data(), samples * 2);
            digest.add(&result, sizeof result);
            digest.add(out.data(), out.size());
        }
        family.term(h);
    }
    void* chain = dspCreate(512, 2, 32000);
    dspAdd(chain, initResampler(256, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1), 1);
    dspAdd(chain, initChorus(256, 2, 44100, 3, 20.0f, 2.0f, 1.5f, 40.0f, 60.0f), 2);
    dspAdd(chain, initIirFilter(256, 2, 44100, 4, 3000.0f, 1), 3);
    dspAdd(chain, initPitchShift(256, 2, 44100, -100.0f, -3.0f, 0.04f, 0.01f), 4);
    for (uint32_t block = 0; block < 6; ++block) {
        if (block == 3) {
            dspAdjust(chain, 256, 2, 22050);
        }
        std::vector<int16_t> in = testSignal(1024, block * 3 + variant);
        const uint32_t n = dspSend(chain, in.data(), reinterpret_cast<int16_t*>(out.data()), 2048);
        digest.add(&n, sizeof n);
        digest.add(out.data(), n);
    }
    dspDestroy(chain);
    return digest.value;
}

TEST(Concurrency, ThreadsWithOwnProcessorsMatchSingleThreadedRuns) {
    constexpr uint32_t kThreads = 4, kRounds = 3;
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    const uint32_t countBefore = dsp::fastmemPool().blockCount();
    std::vector<uint64_t> expected(kThreads);
    for (uint32_t t = 0; t < kThreads; ++t) {
        expected[t] = workload(t);
        ASSERT_NE(expected[t], 0u);
    }
    std::vector<std::vector<uint64_t>> results(kThreads, std::vector<uint64_t>(kRounds));
    std::atomic<uint32_t> waiting{kThreads};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &results, &waiting] {
            --waiting; // start together so the inits and terms overlap
            while (waiting.load() != 0) {
                std::this_thread::yield();
            }
            for (uint64_t& result : results[t]) {
                result = workload(t);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (uint32_t t = 0; t < kThreads; ++t) {
        EXPECT_EQ(results[t], std::vector<uint64_t>(kRounds, expected[t])) << "thread " << t;
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), sizeBefore);
    EXPECT_EQ(dsp::fastmemPool().blockCount(), countBefore);
}

TEST(Concurrency, FastmemExportsFromManyThreads) {
    const uint32_t sizeBefore = fastmemGetAllocatedSize();
    std::vector<std::thread> threads;
    std::atomic<uint32_t> failures{0};
    for (uint32_t t = 0; t < 4; ++t) {
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
