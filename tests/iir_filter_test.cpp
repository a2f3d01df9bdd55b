// The IIR filter effect through its exports: the output against plain
// conversions around a designer of its own, reconfiguration, handle checks.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "filters/iir_filter_processor.h"
#include "support/filter_noise.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

using dsp::IirFilterProcessor;
using dsptest::pcmNoise;

// Mono reference: plain conversion in, a designer of its own, plain out.
struct MonoModel {
    dsp::ChebyshevDesigner filter;
    MonoModel(float rate, int32_t order, float cutoff, uint32_t kind) {
        filter.setOrder(order, kind);
        filter.design(rate, cutoff);
    }
    std::vector<int16_t> run(const std::vector<int16_t>& in) {
        std::vector<float> x(in.size());
        std::transform(in.begin(), in.end(), x.begin(), dsp::convert::sampleToFloat);
        filter.process(x.data(), x.data(), static_cast<uint32_t>(x.size()));
        std::vector<int16_t> out(in.size());
        std::transform(x.begin(), x.end(), out.begin(), dsp::convert::floatToSample);
        return out;
    }
};

class IirFilterTest : public ::testing::Test {
protected:
    void SetUp() override { dsptest::SimdGuard::set(false, false, false); }
    dsptest::SimdGuard guard_;
};

TEST_F(IirFilterTest, OrderZeroIsThePlainConversionRoundTrip) {
    void* h = initIirFilter(8, 1, 44100, 0, 1000.0f, 0);
    ASSERT_NE(h, nullptr);
    const int16_t src[6] = {100, -32768, 12345, 1, 32767, -2};
    const int16_t expected[6] = {99, -32767, 12345, 0, 32767, -1};
    int16_t dst[6] = {};
    EXPECT_EQ(doIirFilter(h, src, dst, sizeof src), 1u);
    EXPECT_TRUE(std::equal(dst, dst + 6, expected));
    termIirFilter(h);
}

// Each stereo channel is its own mono cascade, across blocks shorter and
// longer than the processor's frames (the latter go through in pieces); kind
// 1 is the high-pass, every other kind a low-pass.
TEST_F(IirFilterTest, StereoChannelsMatchTheirOwnMonoCascades) {
    const uint32_t frames = 300, orders[] = {1, 4, 5, 8, 9, 12}, kinds[] = {1, 0, 2, 99};
    for (uint32_t k = 0; k < 6; ++k) {
        const uint32_t order = orders[k], kind = kinds[k % 4], modelKind = kind == 1 ? 1 : 0;
        void* h = initIirFilter(frames, 2, 48000, order, 3000.0f, kind);
        ASSERT_NE(h, nullptr);
        MonoModel model[2] = {{48000.0f, static_cast<int32_t>(order), 3000.0f, modelKind},
                              {48000.0f, static_cast<int32_t>(order), 3000.0f, modelKind}};
        for (uint32_t block : {frames, 1000u, 7u}) {
            std::vector<int16_t> src = pcmNoise(2 * block, order + block), dst(2 * block);
            EXPECT_EQ(doIirFilter(h, src.data(), dst.data(), 4 * block), 1u);
            for (uint32_t ch = 0; ch < 2; ++ch) {
                std::vector<int16_t> in(block);
                for (uint32_t i = 0; i < block; ++i) {
                    in[i] = src[2 * i + ch];
                }
                std::vector<int16_t> expected = model[ch].run(in);
                for (uint32_t i = 0; i < block; ++i) {
                    ASSERT_EQ(dst[2 * i + ch], expected[i]) << order << " " << block << " " << i;
                }
            }
        }
        termIirFilter(h);
    }
}

// processChained in place, and with the left output written over the right
// input (then the right filter sees the left result).
TEST_F(IirFilterTest, ChainedChannelsInPlaceAndAliased) {
    const uint32_t frames = 300;
    IirFilterProcessor* f =
        static_cast<IirFilterProcessor*>(initIirFilter(frames, 2, 44100, 6, 900.0f, 0));
    ASSERT_NE(f, nullptr);
    MonoModel refL(44100.0f, 6, 900.0f, 0), refR(44100.0f, 6, 900.0f, 0);
    std::vector<float> inL = dsptest::filterNoise(frames, 98),
                       inR = dsptest::filterNoise(frames, 99);
    std::vector<float> l(inL), r(inR), el(inL), er(inR);
    EXPECT_EQ(f->processChained(l.data(), r.data(), l.data(), r.data(), frames), frames);
    refL.filter.process(el.data(), el.data(), frames);
    refR.filter.process(er.data(), er.data(), frames);
    EXPECT_EQ(l, el);
    EXPECT_EQ(r, er);
    std::vector<float> shared(inR), outR(frames), expectShared(inR), expectR(frames);
    f->processChained(inL.data(), shared.data(), shared.data(), outR.data(), frames);
    refL.filter.process(inL.data(), expectShared.data(), frames);
    refR.filter.process(expectShared.data(), expectR.data(), frames);
    EXPECT_EQ(shared, expectShared);
    EXPECT_EQ(outR, expectR);
    EXPECT_EQ(f->processChannel(2, inR.data(), outR.data(), frames), 0u);
    termIirFilter(f);
}

TEST_F(IirFilterTest, MonoRunsTheLeftFilterAndWritesFramesSamples) {
    void* h = initIirFilter(256, 1, 44100, 4, 1000.0f, 0);
    IirFilterProcessor* f = static_cast<IirFilterProcessor*>(h);
    std::vector<int16_t> src = pcmNoise(256, 14), dst(260, 777);
    EXPECT_EQ(doIirFilter(h, src.data(), dst.data(), 512), 1u);
    EXPECT_EQ(std::vector<double>(f->filters[1].s1, f->filters[1].s1 + 2),
              std::vector<double>(2, 0.0));
    EXPECT_EQ(dst[256], 777);
    dst.resize(256);
    EXPECT_EQ(dst, MonoModel(44100.0f, 4, 1000.0f, 0).run(src));
    termIirFilter(h);
}

TEST_F(IirFilterTest, ConfigureKeepsStateAtTheSameRateAndRedesignsAtAnother) {
    void* h = initIirFilter(128, 2, 44100, 4, 1000.0f, 1);
    IirFilterProcessor* f = static_cast<IirFilterProcessor*>(h);
    std::vector<int16_t> src = pcmNoise(256, 17), dst(256);
    doIirFilter(h, src.data(), dst.data(), 512);
    const double s1 = f->filters[1].s1[1];
    const double a1 = f->filters[0].a1[0];
    ASSERT_NE(s1, 0.0);
    f->configure(1024, 2, 44100);
    EXPECT_EQ(f->inFrames, 1024u);
    EXPECT_EQ(f->filters[1].s1[1], s1);
    EXPECT_EQ(f->filters[0].a1[0], a1);
    // At a new rate the output is that of a fresh 48 kHz filter.
    f->configure(1024, 1, 48000);
    EXPECT_EQ(f->inRate, 48000u);
    EXPECT_EQ(f->outRate, 48000u);
    std::vector<int16_t> mono(1024);
    doIirFilter(h, src.data(), mono.data(), 512);
    mono.resize(256);
    EXPECT_EQ(mono, MonoModel(48000.0f, 4, 1000.0f, 1).run(src));
    termIirFilter(h);
}

TEST_F(IirFilterTest, ForeignHandlesAndFailedInitsAreRefused) {
    void* chorus = initChorus(16, 1, 44100, 1, 10.0f, 1.0f, 1.0f, 50.0f, 50.0f);
    ASSERT_NE(chorus, nullptr);
    int16_t src[16] = {1000, 2000, 3000}, dst[16];
    std::memset(dst, 0x5a, sizeof dst);
    for (void* h : {static_cast<void*>(nullptr), chorus}) {
        EXPECT_EQ(doIirFilter(h, src, dst, sizeof src) + termIirFilter(h), 0u);
    }
    EXPECT_TRUE(std::all_of(dst, dst + 16, [](int16_t s) { return s == 0x5a5a; }));
    termChorus(chorus);

    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t total = fastmemGetAllocatedSize(), blocks = pool.blockCount();
    pool.setSystemAllocator([](size_t) -> void* { return nullptr; });
    void* h = initIirFilter(4096, 2, 44100, 4, 1000.0f, 0);
    pool.setSystemAllocator(nullptr);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(initIirFilter(64, 3, 44100, 4, 1000.0f, 0), nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    EXPECT_EQ(pool.blockCount(), blocks);
}

} // namespace
