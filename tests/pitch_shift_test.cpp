// The granular pitch shifter: pass-through at 0 cents, octaves measured on the
// spectrum, the level, a per-sample model, stereo, configure, bad arguments.
#include "core/sample_convert.h"
#include "dsp.h"
#include "granular/pitch_shift_processor.h"
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

dsp::PitchShiftProcessor* makePitch(uint32_t frames, uint32_t channels, float cents,
                                    float levelDb = 0.0f, float grain = kGrain,
                                    float spacing = kSpacing, uint32_t rate = kRate) {
    return static_cast<dsp::PitchShiftProcessor*>(
        initPitchShift(frames, channels, rate, cents, levelDb, grain, spacing));
}

// Exactly 0 cents, and a pitch that is not a number, pass the input through
// without the level.
TEST(PitchShift, ZeroCentsPassesTheInputUnchanged) {
    dsp::PitchShiftProcessor* p = makePitch(512, 2, 0.0f, -20.0f);
    std::vector<int16_t> src(1024), expected(1024), dst(1024);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<int16_t>((static_cast<int>(i) * 7919) % 65535 - 32767);
        expected[i] = dsp::convert::floatToSample(dsp::convert::sampleToFloat(src[i]));
    }
    for (float cents : {0.0f, std::nanf("")}) {
        EXPECT_EQ(setPitchShiftPitch(p, cents), 1u);
        for (int block = 0; block < 3; ++block) {
            EXPECT_EQ(doPitchShift(p, src.data(), dst.data(), 2048), 1u);
            EXPECT_EQ(dst, expected);
        }
    }
    EXPECT_EQ(termPitchShift(p), 1u);
}

// Successive grains read the tone with a phase step of spacing x (1 - ratio)
// x f / rate cycles. At 44000 Hz with a 0.05 s spacing (22 and 11 cycles of
// 440 Hz) the steps are whole cycles and the octaves land on 880 and 220 Hz.
TEST(PitchShift, OctaveUpAndDownMeasuredOnTheSpectrum) {
    std::vector<float> in = dsptest::sineWave(65536, 440.0, 44000, 0.5);
    for (float cents : {1200.0f, -1200.0f}) {
        const double expected = cents > 0 ? 880.0 : 220.0;
        dsp::PitchShiftProcessor* p = makePitch(4096, 1, cents, 0.0f, 0.1f, 0.05f, 44000);
        std::vector<float> out = runBlocks(p, in, 4096);
        const float* x = out.data() + 16384;
        EXPECT_NEAR(dsptest::dominantFrequency(x, 32768, 44000, 100, 1500, 0.25), expected, 0.5);
        EXPECT_LT(dsptest::toneMagnitude(x, 32768, 440.0, 44000),
                  0.02 * dsptest::toneMagnitude(x, 32768, expected, 44000))
            << cents;
        termPitchShift(p);
    }
}

// The level is 10^(0.05 dB) as computed: not held below the float range,
// not replaced for NaN.
TEST(PitchShift, OutputLevelIsComputedAsGiven) {
    dsp::PitchShiftProcessor* p = makePitch(1000, 1, 300.0f, 1e6f);
    EXPECT_EQ(p->channels[0].outLevel, std::numeric_limits<float>::infinity());
    EXPECT_EQ(setPitchShiftOutLevel(p, std::nanf("")), 1u);
    EXPECT_TRUE(std::isnan(p->channels[0].outLevel));
    setPitchShiftOutLevel(p, 20.0f);
    EXPECT_EQ(p->channels[0].outLevel, 10.0f);
    termPitchShift(p);
}

// The engine's tabled weights and linear history against per-sample grains:
// pitch changes (some beyond an octave) refill the table and read beyond the
// history, uneven spacings skip spawns, the longest grains go without the
// table. The setting before block k is cents[k]; the level changes at k = 4.
TEST(PitchShift, MatchesThePerSampleModelAcrossPitchLevelAndBlockChanges) {
    const struct {
        float grain, spacing;
        std::vector<size_t> blocks;
        std::vector<float> cents;
    } cases[] = {
        {kGrain,
         kSpacing,
         {1000, 40000, 777, 5000, 3223, 1, 2, 4096, 4096, 4096, 4096, 4096},
         {350, 350, -175, 0, 350, 350, 350, 700, -5000, 2400, -50, 0.001f}},
        {0.005f,
         0.0005f,
         std::vector<size_t>(8, 1000),
         {700, 700, -700, -700, 1200, 0.001f, -1200, 300}},
        {0.01f,
         0.0033f,
         std::vector<size_t>(8, 333),
         {-300, -300, 1100, 1100, -1200, -1200, 700, 700}},
        {0.4f, 0.05f, {40000, 40000, 10000}, {700, 700, -1200}},
        {1.0f, 0.05f, {40000, 40000, 10000}, {700, 700, -400}},
    };
    std::vector<float> in = granularSignal(90000);
    for (const auto& c : cases) {
        dsp::PitchShiftProcessor* p = makePitch(40000, 1, c.cents[0], 0.0f, c.grain, c.spacing);
        ASSERT_NE(p, nullptr);
        dsptest::PitchModel model(kRate, c.cents[0], 0.0f, c.grain, c.spacing);
        size_t done = 0;
        for (size_t k = 0; k < c.blocks.size(); ++k) {
            p->setPitch(c.cents[k]);
            model.setPitch(c.cents[k]);
            if (k == 4) {
                p->setOutLevel(-3.0f);
                model.setLevel(-3.0f);
            }
            std::vector<float> block(in.begin() + done, in.begin() + done + c.blocks[k]);
            ASSERT_EQ(runBlocks(p, block, block.size()), model.run(block))
                << c.grain << " block " << k;
            done += c.blocks[k];
        }
        termPitchShift(p);
    }
}

TEST(PitchShift, OutputDoesNotDependOnTheBlockSize) {
    // At +1200 cents every read point is a whole sample, so the stream is the
    // same to the bit whatever the blocks.
    std::vector<float> in = granularSignal(80000);
    std::vector<float> reference;
    for (size_t block : {80000, 1, 4096}) {
        dsp::PitchShiftProcessor* p = makePitch(80000, 1, 1200.0f);
        std::vector<float> out = runBlocks(p, in, block);
        if (reference.empty()) {
            reference = out;
        }
        EXPECT_EQ(out, reference) << block;
        termPitchShift(p);
    }
}

TEST(PitchShift, StereoChannelsAreIndependentAndBlocksBeyondInFramesArePieced) {
    std::vector<int16_t> src(6000), right(3000);
    for (size_t i = 0; i < 6000; ++i) {
        src[i] = static_cast<int16_t>(std::lround(20000.0 * std::sin(0.05 * i + (i % 2) * 0.3)));
        if (i % 2 == 1) {
            right[i / 2] = src[i];
        }
    }
    // One call of 3000 frames on a 256-frame processor against 256-frame calls.
    dsp::PitchShiftProcessor* whole = makePitch(256, 2, 400.0f);
    dsp::PitchShiftProcessor* pieces = makePitch(256, 2, 400.0f);
    dsp::PitchShiftProcessor* mono = makePitch(256, 1, 400.0f);
    std::vector<int16_t> a(6000), b(6000), m(3000);
    EXPECT_EQ(doPitchShift(whole, src.data(), a.data(), 12000), 1u);
    for (size_t f = 0; f < 3000; f += 256) {
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>(256, 3000 - f));
        doPitchShift(pieces, src.data() + 2 * f, b.data() + 2 * f, n * 4);
        doPitchShift(mono, right.data() + f, m.data() + f, n * 2);
    }
    EXPECT_EQ(a, b);
    for (size_t i = 0; i < 3000; ++i) { // the right channel alone
        ASSERT_EQ(a[2 * i + 1], m[i]) << i;
    }
    termPitchShift(whole);
    termPitchShift(pieces);
    termPitchShift(mono);
}

TEST(PitchShift, ConfigureRebuildsOnlyForANewRate) {
    dsp::PitchShiftProcessor* p = makePitch(256, 1, 1200.0f);
    EXPECT_EQ(p->channels[0].grainLength, 3380u); // trunc(44100 * 0.05 * 325/212)
    EXPECT_EQ(p->channels[0].spacing, 440u);
    std::vector<float> in = granularSignal(256);
    runBlocks(p, in, 256);
    p->configure(1024, 2, kRate);
    EXPECT_NE(p->channels[0].writeIndex, 0u); // history kept
    EXPECT_EQ(p->inChannels, 2u);
    p->configure(1024, 2, 22050);
    EXPECT_EQ(p->channels[1].grainLength, 1690u);
    EXPECT_EQ(p->channels[0].writeIndex, 0u);
    p->configure(1024, 2, 0); // no engine at 0 Hz: the old one stays
    EXPECT_EQ(p->channels[0].grainLength, 1690u);
    termPitchShift(p);
}

TEST(PitchShift, BadArgumentsAreSafe) {
    EXPECT_EQ(makePitch(256, 1, 100.0f, 0.0f, kGrain, kSpacing, 0), nullptr);
    EXPECT_EQ(makePitch(256, 3, 100.0f), nullptr);
    for (float grain : {std::nanf(""), 1e9f, -1.0f}) {
        EXPECT_EQ(makePitch(256, 1, 100.0f, 0.0f, grain), nullptr) << grain;
    }
    std::vector<float> in = granularSignal(2000);
    // A spacing that truncates to 0 samples counts as 1.
    dsp::PitchShiftProcessor* tiny = makePitch(2000, 1, 100.0f, 0.0f, 0.001f, 0.0f);
    ASSERT_NE(tiny, nullptr);
    EXPECT_EQ(tiny->channels[0].spacing, 1u);
    EXPECT_EQ(tiny->channels[0].grainCount, tiny->channels[0].grainLength);
    runBlocks(tiny, in, 2000);
    termPitchShift(tiny);
    // A grain of 0 samples: silence, or the input at exactly 0 cents.
    dsp::PitchShiftProcessor* none = makePitch(2000, 1, 100.0f, 0.0f, 0.0f);
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(runBlocks(none, in, 2000), std::vector<float>(2000, 0.0f));
    none->setPitch(0.0f);
    runBlocks(none, in, 2000);
    EXPECT_EQ(runBlocks(none, in, 2000), in);
    termPitchShift(none);
}

} // namespace
