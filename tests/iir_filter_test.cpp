// The IIR filter effect through its exports: the designed responses, the
// output against a model built from the plain conversions and a designer of
// its own, channel independence, reconfiguration, and handle checks.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "filters/iir_filter_processor.h"
#include "support/iir_response.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <new>
#include <random>
#include <vector>

namespace {

using dsp::IirFilterProcessor;

IirFilterProcessor* asFilter(void* handle) {
    return static_cast<IirFilterProcessor*>(handle);
}

std::vector<int16_t> noise16(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    std::vector<int16_t> v(n);
    for (int16_t& s : v) {
        s = static_cast<int16_t>(dist(gen));
    }
    return v;
}

// Mono reference: plain conversion in, the cascade of a designer of our own,
// plain conversion out.
class MonoModel {
public:
    MonoModel(float rate, int32_t order, float cutoff, uint32_t kind) {
        filter_.setOrder(order, kind);
        filter_.design(rate, cutoff);
    }
    std::vector<int16_t> run(const std::vector<int16_t>& in) {
        std::vector<float> x(in.size());
        for (size_t i = 0; i < in.size(); ++i) {
            x[i] = dsp::convert::sampleToFloat(in[i]);
        }
        filter_.process(x.data(), x.data(), static_cast<uint32_t>(x.size()));
        std::vector<int16_t> out(in.size());
        for (size_t i = 0; i < in.size(); ++i) {
            out[i] = dsp::convert::floatToSample(x[i]);
        }
        return out;
    }

private:
    dsp::ChebyshevDesigner filter_;
};

class IirFilterTest : public ::testing::Test {
protected:
    void SetUp() override { dsptest::SimdGuard::set(false, false, false); }
    dsptest::SimdGuard guard_;
};

TEST_F(IirFilterTest, HighPassResponseOfBothChannels) {
    void* h = initIirFilter(512, 2, 44100, 4, 1000.0f, 1);
    ASSERT_NE(h, nullptr);
    IirFilterProcessor* f = asFilter(h);
    EXPECT_EQ(f->tag, 3u);
    EXPECT_EQ(f->inRate, 44100u);
    EXPECT_EQ(f->outRate, 44100u);
    for (const dsp::ChebyshevDesigner& d : f->filters) {
        EXPECT_NEAR(dsptest::cascadeResponseDb(d, 44100.0, 10.0), -172.25, 0.005);
        EXPECT_NEAR(dsptest::cascadeResponseDb(d, 44100.0, 1000.0), -1.00, 0.005);
        EXPECT_NEAR(dsptest::cascadeResponseDb(d, 44100.0, 20000.0), -1.00, 0.005);
    }
    EXPECT_EQ(termIirFilter(h), 1u);
}

TEST_F(IirFilterTest, EveryKindButOneIsALowPass) {
    for (uint32_t kind : {0u, 2u, 99u}) {
        void* h = initIirFilter(256, 1, 44100, 4, 1000.0f, kind);
        ASSERT_NE(h, nullptr);
        const dsp::ChebyshevDesigner& d = asFilter(h)->filters[0];
        EXPECT_EQ(d.kindSign, 1.0f);
        EXPECT_NEAR(dsptest::cascadeResponseDb(d, 44100.0, 10.0), -1.00, 0.005);
        EXPECT_NEAR(dsptest::cascadeResponseDb(d, 44100.0, 1000.0), -1.00, 0.005);
        EXPECT_NEAR(dsptest::cascadeResponseDb(d, 44100.0, 2000.0), -34.07, 0.005);
        EXPECT_EQ(termIirFilter(h), 1u);
    }
}

TEST_F(IirFilterTest, OrderZeroIsThePlainConversionRoundTrip) {
    void* h = initIirFilter(8, 1, 44100, 0, 1000.0f, 0);
    ASSERT_NE(h, nullptr);
    const int16_t src[6] = {100, -32768, 12345, 1, 32767, -2};
    const int16_t expected[6] = {99, -32767, 12345, 0, 32767, -1};
    int16_t dst[6] = {};
    EXPECT_EQ(doIirFilter(h, src, dst, sizeof src), 1u);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(dst[i], expected[i]) << i;
    }
    termIirFilter(h);
}

TEST_F(IirFilterTest, OutputMatchesTheModelAcrossCalls) {
    for (uint32_t kind : {0u, 1u}) {
        for (uint32_t order : {1u, 4u, 5u}) {
            void* h = initIirFilter(1000, 1, 48000, order, 2500.0f, kind);
            ASSERT_NE(h, nullptr);
            MonoModel model(48000.0f, static_cast<int32_t>(order), 2500.0f, kind);
            for (uint32_t block = 0; block < 3; ++block) {
                std::vector<int16_t> src = noise16(1000, 10 * order + block), dst(1000);
                ASSERT_EQ(doIirFilter(h, src.data(), dst.data(), 2000), 1u);
                ASSERT_EQ(dst, model.run(src)) << "kind " << kind << " order " << order;
            }
            termIirFilter(h);
        }
    }
}

TEST_F(IirFilterTest, AnySplitGivesTheSameOutputAsOneCall) {
    const uint32_t frames = 4096;
    std::vector<int16_t> src = noise16(2 * frames, 11);
    void* whole = initIirFilter(frames, 2, 44100, 6, 3000.0f, 0);
    void* split = initIirFilter(frames, 2, 44100, 6, 3000.0f, 0);
    ASSERT_NE(whole, nullptr);
    ASSERT_NE(split, nullptr);
    std::vector<int16_t> expected(2 * frames), out(2 * frames);
    doIirFilter(whole, src.data(), expected.data(), 4 * frames);
    std::mt19937 gen(12);
    uint32_t pos = 0;
    while (pos < frames) {
        uint32_t len = std::min<uint32_t>(gen() % 700, frames - pos);
        doIirFilter(split, src.data() + 2 * pos, out.data() + 2 * pos, 4 * len);
        pos += len;
    }
    EXPECT_EQ(out, expected);
    termIirFilter(whole);
    termIirFilter(split);
}

TEST_F(IirFilterTest, BlocksLargerThanConfiguredGoThroughInPieces) {
    std::vector<int16_t> src = noise16(2 * 1000, 13);
    void* small = initIirFilter(300, 2, 44100, 3, 800.0f, 1);
    void* large = initIirFilter(1000, 2, 44100, 3, 800.0f, 1);
    std::vector<int16_t> a(2000), b(2000);
    EXPECT_EQ(doIirFilter(small, src.data(), a.data(), 4000), 1u);
    EXPECT_EQ(doIirFilter(large, src.data(), b.data(), 4000), 1u);
    EXPECT_EQ(a, b);
    termIirFilter(small);
    termIirFilter(large);
}

TEST_F(IirFilterTest, MonoNeverTouchesTheRightFilterAndWritesFramesSamples) {
    void* h = initIirFilter(256, 1, 44100, 4, 1000.0f, 0);
    IirFilterProcessor* f = asFilter(h);
    std::vector<int16_t> src = noise16(256, 14), dst(260, 777);
    EXPECT_EQ(doIirFilter(h, src.data(), dst.data(), 512), 1u);
    for (int i = 0; i < f->filters[1].sections; ++i) {
        EXPECT_EQ(f->filters[1].s1[i], 0.0);
        EXPECT_EQ(f->filters[1].s2[i], 0.0);
    }
    EXPECT_NE(f->filters[0].s1[0], 0.0);
    EXPECT_NE(dst[255], 777);
    for (int i = 256; i < 260; ++i) {
        EXPECT_EQ(dst[i], 777);
    }
    termIirFilter(h);
}

TEST_F(IirFilterTest, StereoChannelsKeepSeparateState) {
    const uint32_t frames = 500;
    std::vector<int16_t> left = noise16(frames, 15), right = noise16(frames, 16);
    std::vector<int16_t> same(2 * frames), mixed(2 * frames);
    for (uint32_t i = 0; i < frames; ++i) {
        same[2 * i] = same[2 * i + 1] = left[i];
        mixed[2 * i] = left[i];
        mixed[2 * i + 1] = right[i];
    }
    void* h = initIirFilter(frames, 2, 44100, 5, 1200.0f, 0);
    std::vector<int16_t> out(2 * frames);
    doIirFilter(h, same.data(), out.data(), 4 * frames);
    for (uint32_t i = 0; i < frames; ++i) {
        ASSERT_EQ(out[2 * i], out[2 * i + 1]) << i;
    }
    termIirFilter(h);

    h = initIirFilter(frames, 2, 44100, 5, 1200.0f, 0);
    MonoModel modelL(44100.0f, 5, 1200.0f, 0), modelR(44100.0f, 5, 1200.0f, 0);
    for (int block = 0; block < 2; ++block) {
        doIirFilter(h, mixed.data(), out.data(), 4 * frames);
        std::vector<int16_t> l = modelL.run(left), r = modelR.run(right);
        for (uint32_t i = 0; i < frames; ++i) {
            ASSERT_EQ(out[2 * i], l[i]) << i;
            ASSERT_EQ(out[2 * i + 1], r[i]) << i;
        }
    }
    termIirFilter(h);
}

TEST_F(IirFilterTest, ConfigureKeepsStateAtTheSameRateAndRedesignsAtAnother) {
    void* h = initIirFilter(128, 2, 44100, 4, 1000.0f, 1);
    IirFilterProcessor* f = asFilter(h);
    std::vector<int16_t> src = noise16(256, 17), dst(256);
    doIirFilter(h, src.data(), dst.data(), 512);
    const double s1 = f->filters[1].s1[1];
    const double a1 = f->filters[0].a1[0];
    ASSERT_NE(s1, 0.0);

    f->configure(1024, 2, 44100);
    EXPECT_EQ(f->inFrames, 1024u);
    EXPECT_EQ(f->inRate, 44100u);
    EXPECT_EQ(f->filters[1].s1[1], s1);
    EXPECT_EQ(f->filters[0].a1[0], a1);

    f->configure(1024, 1, 48000);
    EXPECT_EQ(f->inRate, 48000u);
    EXPECT_EQ(f->outRate, 48000u);
    for (const dsp::ChebyshevDesigner& d : f->filters) {
        EXPECT_EQ(d.rate, 48000.0f);
        EXPECT_EQ(d.frequency, 23000.0f);
        for (int i = 0; i < d.sections; ++i) {
            EXPECT_EQ(d.s1[i], 0.0);
            EXPECT_EQ(d.s2[i], 0.0);
        }
        EXPECT_NEAR(dsptest::cascadeResponseDb(d, 48000.0, 1000.0), -1.00, 0.005);
    }
    // After the redesign the output is that of a fresh 48 kHz filter.
    MonoModel model(48000.0f, 4, 1000.0f, 1);
    std::vector<int16_t> mono(1024);
    doIirFilter(h, src.data(), mono.data(), 512);
    mono.resize(256);
    EXPECT_EQ(mono, model.run(src));
    termIirFilter(h);
}

TEST_F(IirFilterTest, ProcessChainedMatchesProcessChannel) {
    void* a = initIirFilter(64, 2, 44100, 3, 5000.0f, 0);
    void* b = initIirFilter(64, 2, 44100, 3, 5000.0f, 0);
    IirFilterProcessor* fa = asFilter(a);
    IirFilterProcessor* fb = asFilter(b);
    std::vector<float> l(64), r(64), ol(64), or1(64), cl(64), cr(64);
    for (int i = 0; i < 64; ++i) {
        l[i] = std::sin(0.3f * i);
        r[i] = std::cos(0.7f * i);
    }
    EXPECT_EQ(fa->processChained(l.data(), r.data(), ol.data(), or1.data(), 64), 64u);
    EXPECT_EQ(fb->processChannel(0, l.data(), cl.data(), 64), 64u);
    EXPECT_EQ(fb->processChannel(1, r.data(), cr.data(), 64), 64u);
    EXPECT_EQ(ol, cl);
    EXPECT_EQ(or1, cr);
    EXPECT_EQ(fb->processChannel(2, r.data(), cr.data(), 64), 0u);
    termIirFilter(a);
    termIirFilter(b);
}

TEST_F(IirFilterTest, HandlesOfAnotherFamilyAreRefused) {
    struct Other : dsp::DspProcessor {
        Other() { tag = dsp::kTagChorus; }
        uint32_t processChannel(uint32_t, const float*, float*, uint32_t) override { return 0; }
        uint32_t processChained(const float*, const float*, float*, float*, uint32_t) override {
            return 0;
        }
        uint32_t processInterleaved(const int16_t*, int16_t*, uint32_t) override { return 0; }
    } other;
    ASSERT_TRUE(other.setupBuffers(16, 1));
    int16_t src[16] = {1000, 2000, 3000}, dst[16];
    std::memset(dst, 0x5a, sizeof dst);
    EXPECT_EQ(doIirFilter(&other, src, dst, sizeof src), 0u);
    EXPECT_EQ(termIirFilter(&other), 0u);
    EXPECT_EQ(doIirFilter(nullptr, src, dst, sizeof src), 0u);
    EXPECT_EQ(termIirFilter(nullptr), 0u);
    for (int16_t s : dst) {
        EXPECT_EQ(s, 0x5a5a);
    }
}

TEST_F(IirFilterTest, ADestroyedFilterReadsTagZero) {
    alignas(IirFilterProcessor) unsigned char storage[sizeof(IirFilterProcessor)];
    IirFilterProcessor* f = new (storage) IirFilterProcessor;
    ASSERT_TRUE(f->init(32, 1, 44100, 2, 1000.0f, 0));
    const size_t tagOffset = reinterpret_cast<unsigned char*>(&f->tag) - storage;
    f->~IirFilterProcessor();
    uint32_t tag;
    std::memcpy(&tag, storage + tagOffset, sizeof tag);
    EXPECT_EQ(tag, 0u);
    int16_t src[4] = {}, dst[4] = {7, 7, 7, 7};
    EXPECT_EQ(doIirFilter(storage, src, dst, sizeof src), 0u);
    EXPECT_EQ(dst[0], 7);
}

void* failingAlloc(size_t) {
    return nullptr;
}

TEST_F(IirFilterTest, InitWithoutBuffersReturnsZeroAndLeavesThePoolAsItWas) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t total = fastmemGetAllocatedSize();
    const uint32_t blocks = pool.blockCount();
    pool.setSystemAllocator(failingAlloc);
    void* h = initIirFilter(4096, 2, 44100, 4, 1000.0f, 0);
    pool.setSystemAllocator(nullptr);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(initIirFilter(64, 3, 44100, 4, 1000.0f, 0), nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    EXPECT_EQ(pool.blockCount(), blocks);
}

} // namespace
