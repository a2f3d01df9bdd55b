// The IIR filter effect through its exports: the listed responses, the output
// against a model built from the plain conversions and a designer of its own,
// reconfiguration, and handle checks.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "filters/iir_filter_processor.h"
#include "support/iir_response.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

namespace {

using dsp::IirFilterProcessor;

std::vector<int16_t> noise16(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    std::vector<int16_t> v(n);
    for (int16_t& s : v) {
        s = static_cast<int16_t>(dist(gen));
    }
    return v;
}

// Mono reference: plain conversion in, a designer of our own, plain out.
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

// Kind 1 is the high-pass; every other kind a low-pass (order 4, 1 000 Hz).
TEST_F(IirFilterTest, ListedResponsesOfEveryKind) {
    const double highPass[] = {-172.25, -1.00, -1.00}; // 10, 1 000, 20 000 Hz
    const double lowPass[] = {-1.00, -1.00, -34.07};   // 10, 1 000, 2 000 Hz
    for (uint32_t kind : {1u, 0u, 2u, 99u}) {
        void* h = initIirFilter(256, 2, 44100, 4, 1000.0f, kind);
        ASSERT_NE(h, nullptr);
        const double* db = kind == 1 ? highPass : lowPass;
        const double hz[] = {10.0, 1000.0, kind == 1 ? 20000.0 : 2000.0};
        for (const dsp::ChebyshevDesigner& d : static_cast<IirFilterProcessor*>(h)->filters) {
            for (int i = 0; i < 3; ++i) {
                EXPECT_NEAR(dsptest::cascadeResponseDb(d, 44100.0, hz[i]), db[i], 0.005) << kind;
            }
        }
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
    EXPECT_TRUE(std::equal(dst, dst + 6, expected));
    termIirFilter(h);
}

// Each stereo channel is its own mono cascade, across blocks shorter and
// longer than the processor's frames (the latter go through in pieces).
TEST_F(IirFilterTest, StereoChannelsMatchTheirOwnMonoCascades) {
    const uint32_t frames = 300;
    for (uint32_t order : {1u, 4u, 5u, 8u, 9u, 12u}) {
        void* h = initIirFilter(frames, 2, 48000, order, 3000.0f, order % 2);
        ASSERT_NE(h, nullptr);
        MonoModel modelL(48000.0f, static_cast<int32_t>(order), 3000.0f, order % 2);
        MonoModel modelR(48000.0f, static_cast<int32_t>(order), 3000.0f, order % 2);
        for (uint32_t block : {frames, 1000u, 7u}) {
            std::vector<int16_t> src = noise16(2 * block, order + block);
            std::vector<int16_t> left(block), right(block), dst(2 * block);
            for (uint32_t i = 0; i < block; ++i) {
                left[i] = src[2 * i];
                right[i] = src[2 * i + 1];
            }
            EXPECT_EQ(doIirFilter(h, src.data(), dst.data(), 4 * block), 1u);
            std::vector<int16_t> l = modelL.run(left), r = modelR.run(right);
            for (uint32_t i = 0; i < block; ++i) {
                ASSERT_EQ(dst[2 * i], l[i]) << order << " " << block << " " << i;
                ASSERT_EQ(dst[2 * i + 1], r[i]) << order << " " << block << " " << i;
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
    dsp::ChebyshevDesigner refL, refR;
    for (dsp::ChebyshevDesigner* d : {&refL, &refR}) {
        d->setOrder(6, 0);
        d->design(44100.0f, 900.0f);
    }
    std::vector<int16_t> pcm = noise16(2 * frames, 99);
    std::vector<float> inL(frames), inR(frames);
    for (uint32_t i = 0; i < frames; ++i) {
        inL[i] = dsp::convert::sampleToFloat(pcm[2 * i]);
        inR[i] = dsp::convert::sampleToFloat(pcm[2 * i + 1]);
    }
    std::vector<float> l(inL), r(inR), el(inL), er(inR);
    EXPECT_EQ(f->processChained(l.data(), r.data(), l.data(), r.data(), frames), frames);
    refL.process(el.data(), el.data(), frames);
    refR.process(er.data(), er.data(), frames);
    EXPECT_EQ(l, el);
    EXPECT_EQ(r, er);
    std::vector<float> shared(inR), outR(frames), expectShared(inR), expectR(frames);
    f->processChained(inL.data(), shared.data(), shared.data(), outR.data(), frames);
    refL.process(inL.data(), expectShared.data(), frames);
    refR.process(expectShared.data(), expectR.data(), frames);
    EXPECT_EQ(shared, expectShared);
    EXPECT_EQ(outR, expectR);
    EXPECT_EQ(f->processChannel(2, inR.data(), outR.data(), frames), 0u);
    termIirFilter(f);
}

TEST_F(IirFilterTest, MonoRunsTheLeftFilterAndWritesFramesSamples) {
    void* h = initIirFilter(256, 1, 44100, 4, 1000.0f, 0);
    IirFilterProcessor* f = static_cast<IirFilterProcessor*>(h);
    std::vector<int16_t> src = noise16(256, 14), dst(260, 777);
    EXPECT_EQ(doIirFilter(h, src.data(), dst.data(), 512), 1u);
    for (int i = 0; i < f->filters[1].sections; ++i) {
        EXPECT_EQ(f->filters[1].s1[i], 0.0);
        EXPECT_EQ(f->filters[1].s2[i], 0.0);
    }
    dst.resize(256);
    EXPECT_EQ(dst, MonoModel(44100.0f, 4, 1000.0f, 0).run(src));
    termIirFilter(h);
}

TEST_F(IirFilterTest, ConfigureKeepsStateAtTheSameRateAndRedesignsAtAnother) {
    void* h = initIirFilter(128, 2, 44100, 4, 1000.0f, 1);
    IirFilterProcessor* f = static_cast<IirFilterProcessor*>(h);
    std::vector<int16_t> src = noise16(256, 17), dst(256);
    doIirFilter(h, src.data(), dst.data(), 512);
    const double s1 = f->filters[1].s1[1];
    const double a1 = f->filters[0].a1[0];
    ASSERT_NE(s1, 0.0);
    f->configure(1024, 2, 44100);
    EXPECT_EQ(f->inFrames, 1024u);
    EXPECT_EQ(f->filters[1].s1[1], s1);
    EXPECT_EQ(f->filters[0].a1[0], a1);

    f->configure(1024, 1, 48000);
    EXPECT_EQ(f->inRate, 48000u);
    EXPECT_EQ(f->outRate, 48000u);
    for (const dsp::ChebyshevDesigner& d : f->filters) {
        EXPECT_EQ(d.rate, 48000.0f);
        EXPECT_EQ(d.frequency, 23000.0f);
    }
    // After the redesign the output is that of a fresh 48 kHz filter.
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
        EXPECT_EQ(doIirFilter(h, src, dst, sizeof src), 0u);
        EXPECT_EQ(termIirFilter(h), 0u);
    }
    for (int16_t s : dst) {
        EXPECT_EQ(s, 0x5a5a);
    }
    termChorus(chorus);

    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t total = fastmemGetAllocatedSize();
    const uint32_t blocks = pool.blockCount();
    pool.setSystemAllocator([](size_t) -> void* { return nullptr; });
    void* h = initIirFilter(4096, 2, 44100, 4, 1000.0f, 0);
    pool.setSystemAllocator(nullptr);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(initIirFilter(64, 3, 44100, 4, 1000.0f, 0), nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    EXPECT_EQ(pool.blockCount(), blocks);
}

} // namespace
