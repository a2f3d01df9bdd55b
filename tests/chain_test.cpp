// The processing chain: ordering, refusal, format propagation, one conversion
// per block, pieces for large blocks, and ownership.
#include "core/dsp_chain.h"
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "filters/iir_filter_processor.h"
#include "support/core_family_runs.h"
#include "support/simd_guard.h"
#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

void* lowPass(uint32_t frames, uint32_t channels, uint32_t rate = 44100) {
    return initIirFilter(frames, channels, rate, 2, 1000.0f, 0);
}

class ChainTest : public ::testing::Test {
protected:
    void SetUp() override {
        dsptest::SimdGuard::set(false, false, false);
        poolBytes_ = fastmemGetAllocatedSize();
    }
    // Every processor the chain held has been destroyed.
    void TearDown() override { EXPECT_EQ(fastmemGetAllocatedSize(), poolBytes_); }
    dsptest::SimdGuard guard_;
    uint32_t poolBytes_ = 0;
};

// An empty chain copies every byte and reports the source format; so does one
// cleared (which destroys its processors), and it can be filled again. A
// block size of 0 processes nothing instead of looping.
TEST_F(ChainTest, EmptyAndClearedChainsCopyAndReportTheSourceFormat) {
    void* chain = dspCreate(1024, 2, 44100);
    ASSERT_NE(chain, nullptr);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(dspGetDstRate(chain), 44100u);
        EXPECT_EQ(dspGetDstChannels(chain), 2u);
        EXPECT_EQ(dspGetDstSize(chain, 4103), 4103u);
        EXPECT_EQ(dspGetHandle(chain, 0), nullptr);
        const std::vector<uint8_t> src = dsptest::patternSamples(4103);
        std::vector<uint8_t> dst(4104, 0xee);
        EXPECT_EQ(dspSend(chain, reinterpret_cast<const int16_t*>(src.data()),
                          reinterpret_cast<int16_t*>(dst.data()), 4103),
                  4103u);
        EXPECT_TRUE(std::equal(src.begin(), src.end(), dst.begin()));
        EXPECT_EQ(dst[4103], 0xee);
        dspAdd(chain, lowPass(1024, 2), 3);
        dspAdd(chain, lowPass(1024, 2), 1);
        dspClear(chain);
        EXPECT_EQ(fastmemGetAllocatedSize(), poolBytes_);
    }
    // An order-0 filter passes the signal through.
    int16_t src[4] = {100, -100, 2, 3}, dst[4] = {};
    EXPECT_EQ(dspAdd(chain, initIirFilter(1024, 2, 44100, 0, 1000.0f, 0), 0), 1u);
    EXPECT_EQ(dspSend(chain, src, dst, 8), 8u);
    EXPECT_EQ(dst[0], 99);
    dspAdjust(chain, 0, 2, 44100);
    EXPECT_EQ(dspSend(chain, src, dst, 8), 0u);
    dspDestroy(chain);
}

TEST_F(ChainTest, OrdersSortAscendingAndEqualOrdersKeepTheirArrival) {
    void* chain = dspCreate(256, 1, 44100);
    void* f[6];
    const uint32_t orders[6] = {5, 1, 5, 3, 0xffffffffu, 0};
    for (uint32_t i = 0; i < 6; ++i) {
        f[i] = lowPass(256, 1);
        EXPECT_EQ(dspAdd(chain, f[i], orders[i]), i + 1);
    }
    const void* expected[6] = {f[5], f[1], f[3], f[0], f[2], f[4]};
    for (uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(dspGetHandle(chain, i), expected[i]) << i;
    }
    EXPECT_EQ(dspGetHandle(chain, 6), nullptr);
    EXPECT_EQ(dspGetHandle(chain, 0xffffffffu), nullptr);
    dspDestroy(chain);
}

TEST_F(ChainTest, RefusesUnreadyNullOrHeldProcessors) {
    void* chain = dspCreate(128, 2, 44100);
    void* filter = lowPass(128, 2);
    ASSERT_EQ(dspAdd(chain, filter, 1), 1u);
    EXPECT_EQ(dspAdd(chain, filter, 2), 1u);
    EXPECT_EQ(dspAdd(chain, nullptr, 2), 1u);
    void* unready = lowPass(128, 2);
    static_cast<dsp::DspProcessor*>(unready)->releaseBuffers();
    EXPECT_EQ(dspAdd(chain, unready, 0), 1u);
    EXPECT_EQ(dspGetHandle(chain, 0), filter);
    EXPECT_EQ(termIirFilter(unready), 1u); // still the caller's
    dspDestroy(chain);
}

TEST_F(ChainTest, AFilterForAnotherFormatIsReconfiguredAndRedesigned) {
    void* chain = dspCreate(1025, 2, 48000);
    auto* f = static_cast<dsp::IirFilterProcessor*>(initIirFilter(512, 1, 44100, 4, 1000.0f, 1));
    ASSERT_EQ(dspAdd(chain, f, 0), 1u);
    EXPECT_EQ(f->inFrames(), 1025u);
    // The output is that of a filter made for 48 kHz stereo; of 4103 bytes
    // the 1025 whole frames are processed and the rest left alone.
    void* fresh = initIirFilter(1025, 2, 48000, 4, 1000.0f, 1);
    std::vector<int16_t> src = dsptest::testSignal(2052, 1), viaChain(2052, 555), direct(2052, 555);
    EXPECT_EQ(dspSend(chain, src.data(), viaChain.data(), 4103), 4100u);
    doIirFilter(fresh, src.data(), direct.data(), 4100);
    EXPECT_EQ(viaChain, direct);

    // A new block size alone keeps the state: the chain goes on as the direct
    // filter does. A new source rate redesigns and restarts the filter.
    std::vector<int16_t> next = dsptest::testSignal(4096, 2), a(4096), b(4096);
    dspAdjust(chain, 4096, 2, 48000);
    EXPECT_EQ(dspSend(chain, next.data(), a.data(), 8192), 8192u);
    doIirFilter(fresh, next.data(), b.data(), 8192);
    EXPECT_EQ(a, b);
    termIirFilter(fresh);
    dspAdjust(chain, 4096, 2, 22050);
    void* restarted = initIirFilter(4096, 2, 22050, 4, 1000.0f, 1);
    EXPECT_EQ(dspSend(chain, next.data(), a.data(), 8192), 8192u);
    doIirFilter(restarted, next.data(), b.data(), 8192);
    EXPECT_EQ(a, b);
    termIirFilter(restarted);
    dspDestroy(chain);
}

// Three filters: one conversion in, the three cascades on the float signal,
// one conversion out (no 16-bit rounding in between); a block twice the
// configured size goes through in pieces with the same result.
TEST_F(ChainTest, ThreeFiltersConvertOnceAtEachEnd) {
    const uint32_t frames = 800;
    void* chain = dspCreate(frames, 1, 44100);
    const float cutoffs[3] = {6000.0f, 300.0f, 2500.0f};
    const uint32_t kinds[3] = {0, 1, 0}, orders[3] = {4, 3, 2};
    dsp::ChebyshevDesigner model[3];
    for (uint32_t i = 0; i < 3; ++i) {
        dspAdd(chain, initIirFilter(64, 1, 44100, orders[i], cutoffs[i], kinds[i]), i);
        model[i].setOrder(static_cast<int32_t>(orders[i]), kinds[i]);
        model[i].design(44100.0f, cutoffs[i]);
    }
    for (uint32_t n : {frames, 2 * frames}) {
        std::vector<int16_t> src = dsptest::testSignal(n, n), dst(n);
        EXPECT_EQ(dspSend(chain, src.data(), dst.data(), 2 * n), 2 * n);
        std::vector<float> x(src.size());
        std::transform(src.begin(), src.end(), x.begin(), dsp::convert::sampleToFloat);
        for (dsp::ChebyshevDesigner& m : model) {
            m.process(x.data(), x.data(), n);
        }
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_EQ(dst[i], dsp::convert::floatToSample(x[i])) << n << ":" << i;
        }
    }
    dspDestroy(chain);
}

// A mono-to-stereo resampler halving the rate, then a filter made for another
// format: the filter is reconfigured for the resampler's output and gets its
// one channel on both of its own.
TEST_F(ChainTest, FormatChangesTravelDownTheChain) {
    void* chain = dspCreate(1000, 1, 44100);
    auto* resampler = static_cast<dsp::DspProcessor*>(
        initResampler(1000, 1, 2, 44100, 22050, 1, 60.0f, 60.0f, 1));
    auto* f = static_cast<dsp::IirFilterProcessor*>(lowPass(16, 1));
    EXPECT_EQ(dspAdd(chain, f, 2), 1u);
    EXPECT_EQ(dspAdd(chain, resampler, 1), 2u);
    EXPECT_EQ(f->inFrames(), resampler->outFrames());
    EXPECT_EQ(f->inChannels(), 2u);
    EXPECT_EQ(f->outRate(), 22050u);
    EXPECT_EQ(dspGetDstRate(chain), 22050u);
    EXPECT_EQ(dspGetDstChannels(chain), 2u);
    // The resampler's one channel feeds both of the filter's.
    const std::vector<int16_t> in = dsptest::testSignal(1000, 9);
    std::vector<int16_t> out(dspGetDstSamples(chain, 1000), 0x5555);
    ASSERT_EQ(dspSend(chain, in.data(), out.data(), 2000), 2000u);
    for (size_t i = 0; i < 500; ++i) {
        ASSERT_EQ(out[2 * i], out[2 * i + 1]) << i;
    }
    dspDestroy(chain);

    // An equal-rate mono-to-stereo resampler last copies its input: the mono
    // result is written to both channels.
    chain = dspCreate(1000, 1, 44100);
    dspAdd(chain, initResampler(1000, 1, 2, 44100, 44100, 1, 60.0f, 60.0f, 1), 0);
    std::vector<int16_t> src = dsptest::testSignal(1000, 5), dst(2000, 0);
    EXPECT_EQ(dspSend(chain, src.data(), dst.data(), 2000), 4000u);
    for (uint32_t i = 0; i < 1000; ++i) {
        int16_t expected = dsp::convert::floatToSample(dsp::convert::sampleToFloat(src[i]));
        ASSERT_EQ(dst[2 * i], expected) << i;
        ASSERT_EQ(dst[2 * i + 1], expected) << i;
    }
    dspDestroy(chain);
}

} // namespace
