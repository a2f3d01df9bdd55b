// Every init…, a chain being built and the WAVE files, with each allocation
// failing in turn from the pool and from the heap: a clean 0 or refusal, and
// the pool ends as it began (leaked heap objects show under the sanitizers).
// And what fresh pool memory holds never shows in an output.
#include "core/fastmem_pool.h"
#include "dsp.h"
#include "support/allocation_failure.h"
#include "support/core_family_runs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using dsptest::FailingHeap;
using dsptest::FailingPool;
using dsptest::FailMode;

struct Injector {
    const char* name;
    void (*arm)(uint64_t, FailMode);
    uint64_t (*disarm)();
};
const Injector kPool{"pool", FailingPool::arm, FailingPool::disarm};
const Injector kHeap{"heap", FailingHeap::arm, FailingHeap::disarm};

class AllocationFailure : public ::testing::TestWithParam<Injector> {
protected:
    void SetUp() override {
        if (heap() && !FailingHeap::works()) {
            GTEST_SKIP() << dsptest::kNoFailingHeap;
        }
        size_ = fastmemGetAllocatedSize();
        count_ = dsp::fastmemPool().blockCount();
    }
    void TearDown() override { GetParam().disarm(); }
    // make() counting only (k = 0), then failing at each allocation k alone
    // and from then on; returns the allocation count.
    template <typename Make, typename Check>
    uint64_t walk(Make make, Check check) {
        GetParam().arm(0, FailMode::OnlyAt);
        auto reference = make();
        const uint64_t allocations = GetParam().disarm();
        check(reference, 0);
        for (FailMode mode : {FailMode::OnlyAt, FailMode::FromThenOn}) {
            for (uint64_t k = 1; k <= allocations; ++k) {
                GetParam().arm(k, mode);
                auto result = make();
                GetParam().disarm();
                check(result, k);
                EXPECT_EQ(fastmemGetAllocatedSize(), size_) << "k=" << k;
                EXPECT_EQ(dsp::fastmemPool().blockCount(), count_) << "k=" << k;
            }
        }
        return allocations;
    }
    bool heap() const { return GetParam().arm == FailingHeap::arm; }
    uint32_t size_ = 0, count_ = 0;
};

TEST_P(AllocationFailure, EveryInitFailsCleanlyAtEveryAllocation) {
    std::vector<uint8_t> out(dsptest::kFamilyOutBytes);
    for (const dsptest::FamilyRun& family : dsptest::familyRuns()) {
        SCOPED_TRACE(family.name);
        const std::vector<int16_t> in = dsptest::testSignal(384 * family.channels, 1);
        const uint64_t allocations = walk(family.init, [&](void* h, uint64_t k) {
            if (k == 0) { // unfailed: the processor works
                ASSERT_NE(h, nullptr);
                EXPECT_NE(family.run(h, in.data(), out.data(), 384 * family.channels * 2), 0u);
            } else {
                EXPECT_EQ(h, nullptr) << "allocation " << k << " failing";
            }
            if (h != nullptr) {
                EXPECT_EQ(family.term(h), 1u);
            }
        });
        // The six work buffers (for the heap their records and the object too).
        EXPECT_GE(allocations, heap() ? 7u : 6u);
    }
}

// dspAdd reconfigures each processor for the chain's format; one left without
// buffers makes the chain refuse to send until adjusted, and then give the
// undisturbed output. A node that cannot be allocated leaves its processor
// with the caller.
TEST_P(AllocationFailure, ChainBuildingFailsCleanly) {
    struct Built {
        void* chain;
        std::vector<std::pair<void*, uint32_t (*)(void*)>> refused;
        bool complete;
    };
    auto build = [] {
        Built b{dspCreate(512, 2, 32000), {}, true};
        const std::pair<void*, uint32_t (*)(void*)> candidates[] = {
            {initResampler(256, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1), termResampler},
            {initChorus(256, 2, 44100, 2, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), termChorus},
            {initIirFilter(256, 2, 44100, 2, 2000.0f, 1), termIirFilter},
            {initPitchShift(256, 2, 44100, -200.0f, 0.0f, 0.05f, 0.01f), termPitchShift},
        };
        uint32_t nodes = 0;
        for (const auto& c : candidates) {
            if (c.first == nullptr || b.chain == nullptr || dspAdd(b.chain, c.first, 1) == nodes) {
                b.complete = false;
                if (c.first != nullptr) {
                    b.refused.push_back(c);
                }
            } else {
                ++nodes;
            }
        }
        return b;
    };
    std::vector<int16_t> in = dsptest::testSignal(1024, 2), expected(8192), out(8192);
    uint32_t expectedBytes = 0, refusedSends = 0, refusedAdds = 0;
    const uint64_t allocations = walk(build, [&](Built& b, uint64_t k) {
        refusedAdds += static_cast<uint32_t>(b.refused.size());
        if (b.chain != nullptr) {
            uint32_t bytes = dspSend(b.chain, in.data(), out.data(), 2048);
            if (bytes == 0) {
                ++refusedSends;
                dspAdjust(b.chain, 512, 2, 32000);
                bytes = dspSend(b.chain, in.data(), out.data(), 2048);
            }
            if (k == 0) {
                ASSERT_TRUE(b.complete);
                expectedBytes = bytes;
                expected = out;
            } else if (b.complete) {
                EXPECT_EQ(bytes, expectedBytes) << "k=" << k;
                EXPECT_TRUE(std::equal(out.begin(), out.begin() + bytes / 2, expected.begin()))
                    << "k=" << k;
            }
            dspDestroy(b.chain);
        }
        for (const auto& r : b.refused) {
            EXPECT_EQ(r.second(r.first), 1u) << "k=" << k;
        }
    });
    EXPECT_GT(expectedBytes, 0u);
    EXPECT_GT(allocations, 24u);
    // Buffers lost in reconfiguration were seen, and under heap failure nodes.
    EXPECT_GT(refusedSends, 0u);
    if (heap()) {
        EXPECT_GT(refusedAdds, 0u);
    }
}

// The WAVE writer and reader with each heap allocation failing: the handle is
// 0 or its calls report the failure, never a crash or a half-written count.
TEST_P(AllocationFailure, WavefilesSurviveHeapFailure) {
    if (!heap()) {
        GTEST_SKIP() << "the WAVE reader and writer take nothing from the pool";
    }
    const std::string path = std::string(DSP_TEST_TMPDIR) + "/allocation_failure_heap.wav";
    const WavefileFormat format{1, 2, 22050, 22050 * 4, 4, 16, 0};
    const std::vector<int16_t> samples = dsptest::testSignal(2000, 3);
    const int32_t bytes = 4000;
    auto writeFile = [&] {
        void* writer = initWavefileOut(path.c_str(), &format);
        const int32_t written = writer ? writeWavefileOut(writer, samples.data(), bytes) : 0;
        return std::make_pair(written, writer ? termWavefileOut(writer) : 0u);
    };
    const uint64_t writes = walk(writeFile, [&](std::pair<int32_t, uint32_t> r, uint64_t k) {
        EXPECT_TRUE((r.first == bytes && r.second == uint32_t(bytes)) ||
                    (k != 0 && r.first <= 0 && r.second == 0))
            << "k=" << k << ": " << r.first << " " << r.second;
    });
    ASSERT_EQ(writeFile().second, uint32_t(bytes));
    auto readFile = [&] {
        std::vector<int16_t> back(2000);
        void* reader = initWavefileIn(path.c_str(), 1000);
        const int32_t got =
            reader ? readWavefileIn(reader, reinterpret_cast<uint8_t*>(back.data()), 1000) : 0;
        if (reader != nullptr) {
            termWavefileIn(reader);
        }
        return got == 0 ? 0 : got == bytes && back == samples ? 1 : 2; // 1: read it all back
    };
    const uint64_t reads = walk(readFile, [](int32_t r, uint64_t k) {
        EXPECT_TRUE(r == 1 || (k != 0 && r == 0)) << "k=" << k << ": " << r;
    });
    EXPECT_GE(writes, 2u);
    EXPECT_GE(reads, 2u);
    std::remove(path.c_str());
}

// Fresh pool memory is never read before it is written: every family and the
// chain give the same output whether the pool hands out memory holding zeros,
// NaNs, huge finite values or a loud tone. (A Hqups processor once read its
// output buffers past a short block.)
enum class Fill { Zeros, NaNs, Huge, Tone };
Fill fill = Fill::Zeros;

void* filledAllocation(size_t bytes) {
    void* p = std::malloc(bytes);
    if (p != nullptr && fill == Fill::Tone) {
        // A stray peak at 0.4 of the rate, where the Hqups bandwidth analysis
        // looks for the source's cut-off.
        float* f = static_cast<float*>(p);
        for (size_t i = 0; i < bytes / sizeof(float); ++i) {
            f[i] = 0.8f * static_cast<float>(std::sin(2.0 * 3.141592653589793 * 0.4 * i));
        }
    } else if (p != nullptr) { // floats of 0, NaN or about 3.4e38
        std::memset(p, fill == Fill::Zeros ? 0 : fill == Fill::NaNs ? 0xFF : 0x7F, bytes);
    }
    return p;
}

std::vector<uint8_t> runWithFill(Fill value, const dsptest::FamilyRun& family) {
    fill = value;
    dsp::fastmemPool().setSystemAllocator(&filledAllocation);
    std::vector<uint8_t> out = dsptest::familyOutput(family, 1);
    dsp::fastmemPool().setSystemAllocator(nullptr);
    return out;
}

TEST(FreshMemory, OutputsDoNotDependOnWhatFreshPoolMemoryHolds) {
    std::vector<dsptest::FamilyRun> cases = dsptest::familyRuns();
    cases.push_back(dsptest::chainRun());
    for (const dsptest::FamilyRun& c : cases) {
        const std::vector<uint8_t> zeros = runWithFill(Fill::Zeros, c);
        ASSERT_FALSE(zeros.empty()) << c.name;
        for (Fill other : {Fill::NaNs, Fill::Huge, Fill::Tone}) {
            EXPECT_EQ(runWithFill(other, c), zeros) << c.name << " fill " << int(other);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, AllocationFailure, ::testing::Values(kPool, kHeap),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
