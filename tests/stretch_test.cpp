// The granular time stretcher: pass-through at exactly 0, output sizes and
// their per-block truncation, the pending scale, pitch kept at every scale,
// the chain's view through the virtual operations, a per-sample model, and
// bad arguments.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "granular/stretch_processor.h"
#include "support/granular_model.h"
#include "support/tone_measure.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace {

constexpr uint32_t kRate = 44100;
constexpr float kGrain = 0.05f;
constexpr float kSpacing = 0.01f;

dsp::StretchProcessor* makeStretch(uint32_t frames, uint32_t channels, float scale,
                                   float levelDb = 0.0f) {
    return static_cast<dsp::StretchProcessor*>(
        initStretch(frames, channels, kRate, scale, levelDb, kGrain, kSpacing));
}

std::vector<float> testSignal(size_t n) {
    std::vector<float> x(n);
    uint32_t seed = 777;
    for (size_t i = 0; i < n; ++i) {
        seed = seed * 1664525u + 1013904223u;
        double noise = static_cast<double>(seed >> 8) / 16777216.0 - 0.5;
        x[i] = static_cast<float>(0.45 * std::sin(0.023 * i) + 0.25 * std::sin(0.17 * i + 2.0) +
                                  0.05 * noise);
    }
    return x;
}

std::vector<int16_t> monoPcm(size_t n) {
    std::vector<int16_t> s(n);
    for (size_t i = 0; i < n; ++i) {
        s[i] = static_cast<int16_t>(std::lround(20000.0 * std::sin(0.05 * i)));
    }
    return s;
}

// Runs `in` through channel 0 in blocks of `block` frames; returns the output.
std::vector<float> runBlocks(dsp::StretchProcessor* p, const std::vector<float>& in, size_t block) {
    std::vector<float> out;
    std::vector<float> buffer(4 * block + 16);
    for (size_t done = 0; done < in.size(); done += block) {
        size_t n = std::min(block, in.size() - done);
        uint32_t m =
            p->processChannel(0, in.data() + done, buffer.data(), static_cast<uint32_t>(n));
        out.insert(out.end(), buffer.begin(), buffer.begin() + m);
    }
    return out;
}

TEST(Stretch, ScaleZeroPassesThroughWithTheSameFrameCount) {
    void* h = initStretch(1000, 2, kRate, 0.0f, -12.0f, kGrain, kSpacing);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src(2000);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<int16_t>((static_cast<int>(i) * 4111) % 65535 - 32767);
    }
    std::vector<int16_t> expected(src.size());
    for (size_t i = 0; i < src.size(); ++i) {
        expected[i] = dsp::convert::floatToSample(dsp::convert::sampleToFloat(src[i]));
    }
    std::vector<int16_t> dst(src.size());
    for (int block = 0; block < 4; ++block) {
        EXPECT_EQ(doStretch(h, src.data(), dst.data(), 4000), 4000u);
        EXPECT_EQ(dst, expected);
    }
    auto* p = static_cast<dsp::StretchProcessor*>(h);
    std::vector<float> in = testSignal(1000), out(1000);
    EXPECT_EQ(p->processChannel(0, in.data(), out.data(), 1000), 1000u);
    EXPECT_EQ(out, in);
    EXPECT_EQ(getStretchDstSize(h, 4000), 4000u);
    EXPECT_EQ(termStretch(h), 1u);
}

TEST(Stretch, ScaleThousandHalvesAndMinusThousandDoubles) {
    std::vector<int16_t> src = monoPcm(1000);
    std::vector<int16_t> dst(2000);
    void* half = initStretch(1000, 1, kRate, 1000.0f, 0.0f, kGrain, kSpacing);
    void* twice = initStretch(1000, 1, kRate, -1000.0f, 0.0f, kGrain, kSpacing);
    EXPECT_EQ(static_cast<dsp::StretchProcessor*>(half)->outFrames, 500u);
    EXPECT_EQ(static_cast<dsp::StretchProcessor*>(twice)->outFrames, 2000u);
    for (int block = 0; block < 3; ++block) {
        EXPECT_EQ(doStretch(half, src.data(), dst.data(), 2000), 1000u);
        EXPECT_EQ(doStretch(twice, src.data(), dst.data(), 2000), 4000u);
    }
    EXPECT_EQ(getStretchDstSize(half, 2000), 1000u);
    EXPECT_EQ(getStretchDstSize(twice, 2000), 4000u);
    termStretch(half);
    termStretch(twice);
}

TEST(Stretch, FractionOfEachBlockAndEachChunkIsDropped) {
    // factor 2^-0.3 = 0.81225...: 1000 frames give 812, ten blocks 8120, not 8122.
    dsp::StretchProcessor* p = makeStretch(1000, 1, 300.0f);
    std::vector<float> in = testSignal(10000);
    EXPECT_EQ(runBlocks(p, in, 1000).size(), 8120u);
    EXPECT_EQ(getStretchDstSize(p, 10000), 8122u);
    termStretch(p);
    // One 40000-frame block runs as 32768 + 7232 frames: 26615 + 5874 = 32489.
    dsp::StretchProcessor* big = makeStretch(40000, 1, 300.0f);
    std::vector<float> large = testSignal(40000);
    std::vector<float> out(40000);
    EXPECT_EQ(big->processChannel(0, large.data(), out.data(), 40000), 32489u);
    EXPECT_EQ(getStretchDstSize(big, 40000), 32490u);
    termStretch(big);
}

TEST(Stretch, DstSizeReportsThePendingScaleWhileTheNextBlockUsesTheOld) {
    void* h = initStretch(1000, 2, kRate, 0.0f, 0.0f, kGrain, kSpacing);
    auto* p = static_cast<dsp::StretchProcessor*>(h);
    std::vector<int16_t> src(2000, 1000);
    std::vector<int16_t> dst(4000 * 2, 0);
    EXPECT_EQ(p->outCapacity, 1000u);
    EXPECT_EQ(setStretchScale(h, -1000.0f), 1u);
    EXPECT_EQ(getStretchDstSize(h, 4000), 8000u);
    EXPECT_GE(p->outCapacity, 2000u); // grown for the new factor
    EXPECT_EQ(doStretch(h, src.data(), dst.data(), 4000), 4000u);
    EXPECT_EQ(doStretch(h, src.data(), dst.data(), 4000), 8000u);
    // Back to halving: the next block still doubles.
    EXPECT_EQ(setStretchScale(h, 1000.0f), 1u);
    EXPECT_EQ(getStretchDstSize(h, 4000), 2000u);
    EXPECT_EQ(doStretch(h, src.data(), dst.data(), 4000), 8000u);
    EXPECT_EQ(doStretch(h, src.data(), dst.data(), 4000), 2000u);
    EXPECT_GE(p->outCapacity, 2000u); // never shrunk
    termStretch(h);
}

// Successive grains start `spacing` output samples apart but
// spacing x step input samples apart, a phase step of spacing x (step - 1)
// x f / rate cycles that offsets the output's spectral lines from f by its
// fraction of the grain rate. At 44000 Hz with a 2200-sample spacing the
// steps of -1000 and 1000 are whole cycles of 440 Hz (-11 and 22); at 300
// (5.08 cycles) the line sits 0.08 x 20 Hz above 440 Hz.
TEST(Stretch, SineKeepsItsPitchAtEveryScale) {
    const uint32_t rate = 44000;
    std::vector<float> in = dsptest::sineWave(160000, 440.0, rate, 0.5);
    const struct {
        float scale;
        double expected;
        double tolerance;
    } cases[] = {{-1000.0f, 440.0, 0.5}, {1000.0f, 440.0, 0.5}, {300.0f, 441.7, 0.5}};
    for (const auto& c : cases) {
        auto* p = static_cast<dsp::StretchProcessor*>(
            initStretch(4096, 1, rate, c.scale, 0.0f, 0.1f, 0.05f));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->channels[0].spacing, 2200u);
        std::vector<float> out = runBlocks(p, in, 4096);
        ASSERT_GT(out.size(), 16384u + 32768u);
        double f = dsptest::dominantFrequency(out.data() + 16384, 32768, rate, 200, 900, 0.25);
        EXPECT_NEAR(f, c.expected, c.tolerance) << c.scale;
        termStretch(p);
    }
    // With the usual 0.01 s spacing the tone stays within half the grain rate.
    for (float scale : {-1000.0f, 300.0f, 1000.0f}) {
        dsp::StretchProcessor* p = makeStretch(4096, 1, scale);
        std::vector<float> out = runBlocks(p, dsptest::sineWave(120000, 440.0, kRate, 0.5), 4096);
        double f = dsptest::dominantFrequency(out.data() + 16384, 32768, kRate, 200, 900, 0.25);
        EXPECT_NEAR(f, 440.0, 0.5 * kRate / 440.0) << scale;
        termStretch(p);
    }
}

TEST(Stretch, ChainSeesTheStretchedSizeThroughTheVirtualOperations) {
    dsp::StretchProcessor* p = makeStretch(1024, 2, -1000.0f);
    dsp::DspProcessor* node = p;
    // The chain reconfigures a node for its predecessor's output format.
    node->configure(2048, 2, 48000);
    EXPECT_EQ(node->inFrames, 2048u);
    EXPECT_EQ(node->outFrames, 4096u);
    EXPECT_EQ(node->inRate, 48000u);
    EXPECT_EQ(node->outRate, 48000u);
    EXPECT_EQ(p->channels[0].grainLength, 3679u); // rebuilt for the new rate
    EXPECT_EQ(node->getDstSize(8192), 16384u);
    std::vector<float> in = testSignal(2048);
    uint32_t produced =
        node->processChained(in.data(), in.data(), node->work[2], node->work[3], 2048);
    EXPECT_EQ(produced, 4096u);
    // A change of scale shows in the size at once and in the output a block later.
    setStretchScale(p, 1000.0f);
    EXPECT_EQ(node->getDstSize(8192), 4096u);
    EXPECT_EQ(node->processChained(in.data(), in.data(), node->work[2], node->work[3], 2048),
              4096u);
    EXPECT_EQ(node->processChained(in.data(), in.data(), node->work[2], node->work[3], 2048),
              1024u);
    // Same rate: the engines are kept, the output count follows the factor.
    node->configure(1000, 2, 48000);
    EXPECT_EQ(node->outFrames, 500u);
    EXPECT_EQ(p->channels[0].grainLength, 3679u);
    termStretch(p);
}

TEST(Stretch, ConfigureKeepsOutputBuffersLargeEnoughForTheBlockInFlight) {
    dsp::StretchProcessor* p = makeStretch(1024, 1, -2000.0f); // factor 4
    setStretchScale(p, 3000.0f);                               // pending 1/8
    p->configure(4096, 1, kRate);                              // fresh buffers
    EXPECT_EQ(p->outFrames, 512u);
    EXPECT_GE(p->outCapacity, 4u * 4096u); // the next block still quadruples
    std::vector<int16_t> src(4096, 500), dst(4 * 4096);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 8192), 4u * 4096u * 2u);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 8192), 512u * 2u);
    termStretch(p);
}

TEST(Stretch, BlocksLargerThanInFramesArePieced) {
    std::vector<int16_t> src = monoPcm(2500);
    void* whole = initStretch(1000, 1, kRate, -700.0f, 0.0f, kGrain, kSpacing);
    void* pieces = initStretch(1000, 1, kRate, -700.0f, 0.0f, kGrain, kSpacing);
    std::vector<int16_t> a(8000, 0), b(8000, 0);
    uint32_t bytes = doStretch(whole, src.data(), a.data(), 5000);
    uint32_t total = 0;
    for (size_t f = 0; f < 2500; f += 1000) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(1000, 2500 - f));
        total += doStretch(pieces, src.data() + f, b.data() + total / 2, n * 2);
    }
    EXPECT_EQ(bytes, total);
    EXPECT_EQ(a, b);
    termStretch(whole);
    termStretch(pieces);
}

TEST(Stretch, MatchesThePerSampleModelAcrossScaleChanges) {
    std::vector<float> in = testSignal(60000);
    for (float scale : {300.0f, -700.0f, 3000.0f, -2000.0f, 150.0f}) {
        dsp::StretchProcessor* p = makeStretch(40000, 1, scale);
        dsptest::StretchModel model(kRate, scale, 0.0f, kGrain, kSpacing);
        const size_t sizes[] = {1000, 40000, 777, 5000, 3223, 1};
        std::vector<float> out(4 * 40000);
        size_t done = 0;
        for (size_t k = 0; k < 6; ++k) {
            std::vector<float> block(in.begin() + done, in.begin() + done + sizes[k]);
            std::vector<float> expected;
            model.run(block, expected);
            uint32_t m =
                p->processChannel(0, block.data(), out.data(), static_cast<uint32_t>(block.size()));
            ASSERT_EQ(m, expected.size()) << scale << " block " << k;
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), out.begin()))
                << scale << " block " << k;
            done += sizes[k];
            float next = k == 1 ? -scale * 0.5f : (k == 2 ? 0.0f : scale);
            p->setScale(next);
            model.setScale(next);
        }
        termStretch(p);
    }
}

TEST(Stretch, SetupDerivesSizesAndStaggersTheGrains) {
    dsp::StretchProcessor* p = makeStretch(1000, 1, 1000.0f);
    const dsp::StretchChannel& c = p->channels[0];
    EXPECT_EQ(c.grainLength, 3380u);
    EXPECT_EQ(c.spacing, 440u);
    EXPECT_EQ(c.grainCount, 7u);
    EXPECT_EQ(c.ringCapacity, 8u * 3380u);
    EXPECT_EQ(c.factor, 0.5f);
    EXPECT_EQ(c.step, 2.0f);
    EXPECT_EQ(c.span, 6760u);
    EXPECT_EQ(c.offset, 0u);
    for (uint32_t k = 0; k < c.grainCount; ++k) {
        EXPECT_EQ(c.grains[k].start, static_cast<int32_t>((k + 1) * 880) - 6760);
        EXPECT_EQ(c.grains[k].age, static_cast<int32_t>(3380 - (k + 1) * 440));
    }
    setStretchScale(p, -1000.0f);
    EXPECT_EQ(c.spanPending, 3380u);
    EXPECT_EQ(c.offsetPending, 3380u);
    EXPECT_EQ(c.factor, 0.5f);
    termStretch(p);
}

TEST(Stretch, BadArgumentsAreSafe) {
    EXPECT_EQ(initStretch(256, 1, 0, 100.0f, 0.0f, kGrain, kSpacing), nullptr);
    EXPECT_EQ(initStretch(256, 0, kRate, 100.0f, 0.0f, kGrain, kSpacing), nullptr);
    EXPECT_EQ(initStretch(256, 1, kRate, 100.0f, 0.0f, std::nanf(""), kSpacing), nullptr);
    EXPECT_EQ(initStretch(256, 1, kRate, 100.0f, 0.0f, 1e9f, kSpacing), nullptr);

    // Out of range scales are clamped; one that is not a number passes through
    // and reports the pass-through size.
    dsp::StretchProcessor* p = makeStretch(800, 1, 9000.0f);
    EXPECT_EQ(p->outFrames, 100u);
    setStretchScale(p, -9000.0f);
    EXPECT_EQ(getStretchDstSize(p, 800), 3200u);
    setStretchScale(p, std::nanf(""));
    EXPECT_EQ(p->channels[0].factorPending, 0.125f);
    EXPECT_EQ(getStretchDstSize(p, 800), 800u);
    std::vector<float> in = testSignal(800), out(3200);
    EXPECT_EQ(p->processChannel(0, in.data(), out.data(), 800), 100u); // 1/8 still in use
    EXPECT_EQ(p->processChannel(0, in.data(), out.data(), 800), 800u);
    EXPECT_TRUE(std::equal(in.begin(), in.end(), out.begin()));
    termStretch(p);

    // A spacing of 0 samples counts as 1; a grain of 0 samples gives silence.
    auto* tiny =
        static_cast<dsp::StretchProcessor*>(initStretch(800, 1, kRate, 500.0f, 0.0f, 0.001f, 0.0f));
    ASSERT_NE(tiny, nullptr);
    EXPECT_EQ(tiny->channels[0].spacing, 1u);
    tiny->processChannel(0, in.data(), out.data(), 800);
    termStretch(tiny);
    auto* none = static_cast<dsp::StretchProcessor*>(
        initStretch(800, 1, kRate, -500.0f, 0.0f, 0.0f, kSpacing));
    ASSERT_NE(none, nullptr);
    uint32_t m = none->processChannel(0, in.data(), out.data(), 800);
    EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + m), std::vector<float>(m, 0.0f));
    termStretch(none);

    // Levels are not limited: beyond float range the level is infinite, and a
    // NaN level stays NaN.
    dsp::StretchProcessor* loud = makeStretch(800, 1, 200.0f, 1e6f);
    EXPECT_EQ(loud->channels[0].outLevel, std::numeric_limits<float>::infinity());
    m = loud->processChannel(0, in.data(), out.data(), 800);
    setStretchOutLevel(loud, std::nanf(""));
    EXPECT_TRUE(std::isnan(loud->channels[0].outLevel));
    setStretchOutLevel(loud, 20.0f);
    EXPECT_EQ(loud->channels[0].outLevel, 10.0f);
    termStretch(loud);
}

void* failingAlloc(size_t) {
    return nullptr;
}

TEST(Stretch, ScaleIsRefusedWhenTheLargerOutputBuffersCannotBeHad) {
    dsp::StretchProcessor* p = makeStretch(1000, 1, 0.0f);
    dsp::fastmemPool().setSystemAllocator(failingAlloc);
    EXPECT_EQ(setStretchScale(p, -1000.0f), 0u);
    EXPECT_EQ(setStretchScale(p, 1000.0f), 1u); // needs no more room
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(p->channels[0].factorPending, 0.5f);
    EXPECT_EQ(p->outCapacity, 1000u);
    termStretch(p);
}

TEST(Stretch, WrongHandlesAreRefusedAndTermReturnsThePool) {
    uint32_t before = fastmemGetAllocatedSize();
    void* pitch = initPitchShift(64, 1, kRate, 100.0f, 0.0f, kGrain, kSpacing);
    int16_t buf[128] = {};
    EXPECT_EQ(setStretchScale(pitch, 100.0f), 0u);
    EXPECT_EQ(setStretchOutLevel(pitch, 0.0f), 0u);
    EXPECT_EQ(getStretchDstSize(pitch, 100), 0u);
    EXPECT_EQ(doStretch(pitch, buf, buf, 128), 0u);
    EXPECT_EQ(termStretch(pitch), 0u);
    EXPECT_EQ(getStretchDstSize(nullptr, 100), 0u);
    EXPECT_EQ(termPitchShift(pitch), 1u);
    void* h = initStretch(1000, 2, kRate, -1500.0f, 0.0f, kGrain, kSpacing);
    setStretchScale(h, -2000.0f);
    EXPECT_EQ(termStretch(h), 1u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

} // namespace
