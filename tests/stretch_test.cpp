// The granular time stretcher: pass-through at 0, output sizes, the pending
// scale, pitch kept, the chain's view, a per-sample model, bad arguments and
// the handle checks of both granular families.
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

using dsptest::granularSignal;
using dsptest::runBlocks;

constexpr uint32_t kRate = 44100;
constexpr float kGrain = 0.05f;
constexpr float kSpacing = 0.01f;

dsp::StretchProcessor* makeStretch(uint32_t frames, uint32_t channels, float scale,
                                   float levelDb = 0.0f, float grain = kGrain,
                                   float spacing = kSpacing, uint32_t rate = kRate) {
    return static_cast<dsp::StretchProcessor*>(
        initStretch(frames, channels, rate, scale, levelDb, grain, spacing));
}

TEST(Stretch, ScaleZeroPassesThroughWithTheSameFrameCount) {
    dsp::StretchProcessor* p = makeStretch(1000, 2, 0.0f, -12.0f);
    std::vector<int16_t> src(2000), expected(2000), dst(2000);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<int16_t>((static_cast<int>(i) * 4111) % 65535 - 32767);
        expected[i] = dsp::convert::floatToSample(dsp::convert::sampleToFloat(src[i]));
    }
    for (int block = 0; block < 3; ++block) {
        EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 4000u);
        EXPECT_EQ(dst, expected);
    }
    EXPECT_EQ(getStretchDstSize(p, 4000), 4000u);
    EXPECT_EQ(termStretch(p), 1u);
}

TEST(Stretch, OutputSizesTruncatePerBlockAndPerChunk) {
    std::vector<int16_t> src(1000, 1000), dst(2000);
    for (float scale : {1000.0f, -1000.0f}) { // halves, doubles
        dsp::StretchProcessor* p = makeStretch(1000, 1, scale);
        const uint32_t bytes = scale > 0 ? 1000 : 4000;
        EXPECT_EQ(p->outFrames, bytes / 2);
        EXPECT_EQ(doStretch(p, src.data(), dst.data(), 2000), bytes);
        EXPECT_EQ(getStretchDstSize(p, 2000), bytes);
        termStretch(p);
    }
    // Factor 2^-0.3 = 0.81225...: 1000 frames give 812, ten blocks 8120, not 8122.
    dsp::StretchProcessor* p = makeStretch(1000, 1, 300.0f);
    EXPECT_EQ(runBlocks(p, granularSignal(10000), 1000).size(), 8120u);
    EXPECT_EQ(getStretchDstSize(p, 10000), 8122u);
    termStretch(p);
    // One 40000-frame block runs as 32768 + 7232 frames: 26615 + 5874 = 32489.
    p = makeStretch(40000, 1, 300.0f);
    EXPECT_EQ(runBlocks(p, granularSignal(40000), 40000).size(), 32489u);
    EXPECT_EQ(getStretchDstSize(p, 40000), 32490u);
    termStretch(p);
}

TEST(Stretch, DstSizeReportsThePendingScaleWhileTheNextBlockUsesTheOld) {
    dsp::StretchProcessor* p = makeStretch(1000, 2, 0.0f);
    std::vector<int16_t> src(2000, 1000), dst(8000);
    EXPECT_EQ(setStretchScale(p, -1000.0f), 1u);
    EXPECT_EQ(getStretchDstSize(p, 4000), 8000u);
    EXPECT_GE(p->outCapacity, 2000u); // grown for the new factor
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 4000u);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 8000u);
    EXPECT_EQ(setStretchScale(p, 1000.0f), 1u);
    EXPECT_EQ(getStretchDstSize(p, 4000), 2000u);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 8000u);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 2000u);
    // A configure with fresh buffers keeps room for the block in flight.
    setStretchScale(p, -2000.0f);
    doStretch(p, src.data(), dst.data(), 4000);
    setStretchScale(p, 3000.0f);
    p->configure(4096, 1, kRate);
    EXPECT_EQ(p->outFrames, 512u);
    EXPECT_GE(p->outCapacity, 4u * 4096u); // the next block still quadruples
    std::vector<int16_t> mono(4096, 500), wide(4 * 4096);
    EXPECT_EQ(doStretch(p, mono.data(), wide.data(), 8192), 4u * 4096u * 2u);
    EXPECT_EQ(doStretch(p, mono.data(), wide.data(), 8192), 512u * 2u);
    termStretch(p);
}

// Grains start `spacing` output but spacing x step input samples apart: at
// 44000 Hz with a 2200-sample spacing, scales -1000 and 1000 step whole cycles
// of 440 Hz; 300 steps 5.08 cycles, which lifts the line by 0.08 x 20 Hz.
TEST(Stretch, SineKeepsItsPitchAtEveryScale) {
    std::vector<float> in = dsptest::sineWave(160000, 440.0, 44000, 0.5);
    const struct {
        float scale;
        double expected;
    } cases[] = {{-1000.0f, 440.0}, {1000.0f, 440.0}, {300.0f, 441.7}};
    for (const auto& c : cases) {
        dsp::StretchProcessor* p = makeStretch(4096, 1, c.scale, 0.0f, 0.1f, 0.05f, 44000);
        std::vector<float> out = runBlocks(p, in, 4096);
        ASSERT_GT(out.size(), 16384u + 32768u);
        EXPECT_NEAR(dsptest::dominantFrequency(out.data() + 16384, 32768, 44000, 200, 900, 0.25),
                    c.expected, 0.5)
            << c.scale;
        termStretch(p);
    }
}

TEST(Stretch, ChainSeesTheStretchedSizeThroughTheVirtualOperations) {
    dsp::StretchProcessor* p = makeStretch(1024, 2, -1000.0f);
    dsp::DspProcessor* node = p;
    node->configure(2048, 2, 48000);
    EXPECT_EQ(node->outFrames, 4096u);
    EXPECT_EQ(node->outRate, 48000u);
    EXPECT_EQ(p->channels[0].grainLength, 3679u); // rebuilt for the new rate
    EXPECT_EQ(node->getDstSize(8192), 16384u);
    std::vector<float> in = granularSignal(2048);
    auto chained = [&] {
        return node->processChained(in.data(), in.data(), node->work[2], node->work[3], 2048);
    };
    EXPECT_EQ(chained(), 4096u);
    // A change of scale shows in the size at once and in the output a block later.
    setStretchScale(p, 1000.0f);
    EXPECT_EQ(node->getDstSize(8192), 4096u);
    EXPECT_EQ(chained(), 4096u);
    EXPECT_EQ(chained(), 1024u);
    node->configure(1000, 2, 48000); // same rate: engines kept
    EXPECT_EQ(node->outFrames, 500u);
    termStretch(p);
}

TEST(Stretch, BlocksLargerThanInFramesArePieced) {
    std::vector<int16_t> src(2500);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<int16_t>(std::lround(20000.0 * std::sin(0.05 * i)));
    }
    dsp::StretchProcessor* whole = makeStretch(1000, 1, -700.0f);
    dsp::StretchProcessor* pieces = makeStretch(1000, 1, -700.0f);
    std::vector<int16_t> a(8000, 0), b(8000, 0);
    uint32_t bytes = doStretch(whole, src.data(), a.data(), 5000);
    uint32_t total = 0;
    for (size_t f = 0; f < 2500; f += 1000) {
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>(1000, 2500 - f));
        total += doStretch(pieces, src.data() + f, b.data() + total / 2, n * 2);
    }
    EXPECT_EQ(bytes, total);
    EXPECT_EQ(a, b);
    termStretch(whole);
    termStretch(pieces);
}

// The setting before block k is scales[k]; the last block is a single frame.
TEST(Stretch, MatchesThePerSampleModelAcrossScaleChanges) {
    std::vector<float> in = granularSignal(60000);
    const size_t blocks[] = {1000, 40000, 777, 5000, 3223, 1};
    for (float scale : {300.0f, -700.0f, 3000.0f, -2000.0f, 150.0f}) {
        dsp::StretchProcessor* p = makeStretch(40000, 1, scale);
        dsptest::StretchModel model(kRate, scale, 0.0f, kGrain, kSpacing);
        const float scales[] = {scale, scale, -scale * 0.5f, 0.0f, scale, scale};
        size_t done = 0;
        for (size_t k = 0; k < 6; ++k) {
            p->setScale(scales[k]);
            model.setScale(scales[k]);
            std::vector<float> block(in.begin() + done, in.begin() + done + blocks[k]);
            ASSERT_EQ(runBlocks(p, block, block.size()), model.run(block))
                << scale << " block " << k;
            done += blocks[k];
        }
        termStretch(p);
    }
}

TEST(Stretch, BadArgumentsAreSafe) {
    EXPECT_EQ(makeStretch(256, 1, 100.0f, 0.0f, kGrain, kSpacing, 0), nullptr);
    EXPECT_EQ(makeStretch(256, 0, 100.0f), nullptr);
    EXPECT_EQ(makeStretch(256, 1, 100.0f, 0.0f, std::nanf("")), nullptr);
    EXPECT_EQ(makeStretch(256, 1, 100.0f, 0.0f, 1e9f), nullptr);
    // Out of range scales are clamped; one that is not a number passes through
    // and reports the pass-through size.
    dsp::StretchProcessor* p = makeStretch(800, 1, 9000.0f);
    EXPECT_EQ(p->outFrames, 100u);
    setStretchScale(p, -9000.0f);
    EXPECT_EQ(getStretchDstSize(p, 800), 3200u);
    setStretchScale(p, std::nanf(""));
    EXPECT_EQ(getStretchDstSize(p, 800), 800u);
    std::vector<float> in = granularSignal(800);
    EXPECT_EQ(runBlocks(p, in, 800).size(), 100u); // 1/8 still in use
    EXPECT_EQ(runBlocks(p, in, 800), in);
    termStretch(p);
    // A spacing of 0 samples counts as 1; a grain of 0 samples gives silence.
    p = makeStretch(800, 1, 500.0f, 0.0f, 0.001f, 0.0f);
    EXPECT_EQ(p->channels[0].spacing, 1u);
    runBlocks(p, in, 800);
    termStretch(p);
    p = makeStretch(800, 1, -500.0f, 0.0f, 0.0f);
    std::vector<float> out = runBlocks(p, in, 800);
    EXPECT_EQ(out, std::vector<float>(out.size(), 0.0f));
    // The level is 10^(0.05 dB) as computed, infinite beyond the float range.
    EXPECT_EQ(setStretchOutLevel(p, 1e6f), 1u);
    EXPECT_EQ(p->channels[0].outLevel, std::numeric_limits<float>::infinity());
    termStretch(p);
    // A scale whose larger output buffers cannot be had is refused.
    p = makeStretch(1000, 1, 0.0f);
    dsp::fastmemPool().setSystemAllocator([](size_t) -> void* { return nullptr; });
    EXPECT_EQ(setStretchScale(p, -1000.0f), 0u);
    EXPECT_EQ(setStretchScale(p, 1000.0f), 1u); // needs no more room
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(p->channels[0].factorPending, 0.5f);
    EXPECT_EQ(p->outCapacity, 1000u);
    termStretch(p);
}

TEST(GranularExports, WrongHandlesAreRefusedAndTermReturnsThePool) {
    const uint32_t before = fastmemGetAllocatedSize();
    void* pitch = initPitchShift(64, 1, kRate, 100.0f, 0.0f, kGrain, kSpacing);
    void* stretch = initStretch(1000, 2, kRate, -1500.0f, 0.0f, kGrain, kSpacing);
    setStretchScale(stretch, -2000.0f);
    int16_t buf[128] = {};
    for (void* wrong : {pitch, static_cast<void*>(nullptr)}) {
        EXPECT_EQ(setStretchScale(wrong, 100.0f), 0u);
        EXPECT_EQ(setStretchOutLevel(wrong, 0.0f), 0u);
        EXPECT_EQ(getStretchDstSize(wrong, 100), 0u);
        EXPECT_EQ(doStretch(wrong, buf, buf, 128), 0u);
        EXPECT_EQ(termStretch(wrong), 0u);
    }
    for (void* wrong : {stretch, static_cast<void*>(nullptr)}) {
        EXPECT_EQ(setPitchShiftPitch(wrong, 100.0f), 0u);
        EXPECT_EQ(setPitchShiftOutLevel(wrong, 0.0f), 0u);
        EXPECT_EQ(doPitchShift(wrong, buf, buf, 128), 0u);
        EXPECT_EQ(termPitchShift(wrong), 0u);
    }
    EXPECT_EQ(termPitchShift(pitch), 1u);
    EXPECT_EQ(termStretch(stretch), 1u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

} // namespace
