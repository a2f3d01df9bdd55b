// The granular pitch shifter: pass-through at exactly 0 cents, octave shifts
// measured on the spectrum, level, the one-block delay of a pitch change,
// block-size independence, a per-sample model, and bad arguments.
#include "core/fastmem_pool.h"
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

constexpr uint32_t kRate = 44100;
constexpr float kGrain = 0.05f;
constexpr float kSpacing = 0.01f;

dsp::PitchShiftProcessor* makePitch(uint32_t frames, uint32_t channels, float cents,
                                    float levelDb = 0.0f) {
    return static_cast<dsp::PitchShiftProcessor*>(
        initPitchShift(frames, channels, kRate, cents, levelDb, kGrain, kSpacing));
}

// A deterministic test signal: two tones and a little pseudo-random noise.
std::vector<float> testSignal(size_t n) {
    std::vector<float> x(n);
    uint32_t seed = 12345;
    for (size_t i = 0; i < n; ++i) {
        seed = seed * 1664525u + 1013904223u;
        double noise = static_cast<double>(seed >> 8) / 16777216.0 - 0.5;
        x[i] = static_cast<float>(0.4 * std::sin(0.031 * i) + 0.3 * std::sin(0.21 * i + 1.0) +
                                  0.05 * noise);
    }
    return x;
}

// Runs `in` through channel 0 in blocks of `block` frames.
std::vector<float> runBlocks(dsp::PitchShiftProcessor* p, const std::vector<float>& in,
                             size_t block) {
    std::vector<float> out(in.size());
    for (size_t done = 0; done < in.size(); done += block) {
        size_t n = std::min(block, in.size() - done);
        p->processChannel(0, in.data() + done, out.data() + done, static_cast<uint32_t>(n));
    }
    return out;
}

std::vector<int16_t> toPcm(const std::vector<float>& x) {
    std::vector<int16_t> s(x.size());
    for (size_t i = 0; i < x.size(); ++i) {
        s[i] = static_cast<int16_t>(std::lround(x[i] * 20000.0f));
    }
    return s;
}

TEST(PitchShift, ExactlyZeroCentsPassesInputUnchangedWithoutLevel) {
    void* h = initPitchShift(512, 2, kRate, 0.0f, -20.0f, kGrain, kSpacing);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src(1024);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<int16_t>((static_cast<int>(i) * 7919) % 65535 - 32767);
    }
    // The samples come back as the int16 -> float -> int16 conversion leaves them.
    std::vector<int16_t> expected(src.size());
    for (size_t i = 0; i < src.size(); ++i) {
        expected[i] = dsp::convert::floatToSample(dsp::convert::sampleToFloat(src[i]));
    }
    std::vector<int16_t> dst(src.size());
    for (int block = 0; block < 5; ++block) {
        EXPECT_EQ(doPitchShift(h, src.data(), dst.data(), 2048), 1u);
        EXPECT_EQ(dst, expected);
    }
    // The float stream itself is untouched.
    auto* p = static_cast<dsp::PitchShiftProcessor*>(h);
    std::vector<float> in = testSignal(700), out(700);
    p->processChannel(1, in.data(), out.data(), 700);
    EXPECT_EQ(out, in);
    // A pitch that is not a number also passes through.
    EXPECT_EQ(setPitchShiftPitch(h, std::nanf("")), 1u);
    EXPECT_EQ(doPitchShift(h, src.data(), dst.data(), 2048), 1u);
    EXPECT_EQ(doPitchShift(h, src.data(), dst.data(), 2048), 1u);
    EXPECT_EQ(dst, expected);
    EXPECT_EQ(termPitchShift(h), 1u);
}

TEST(PitchShift, TinyPitchRunsTheGrainsAndKeepsTheTone) {
    dsp::PitchShiftProcessor* p = makePitch(4096, 1, 0.001f, -6.0206f);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->channels[0].bypass, 0);
    std::vector<float> in = dsptest::sineWave(44100, 440.0, kRate, 0.8);
    std::vector<float> out = runBlocks(p, in, 4096);
    // Past the fade-in the output is the input two samples late, at half level.
    double worst = 0.0;
    for (size_t n = 8000; n < in.size(); ++n) {
        worst = std::max(worst, std::fabs(out[n] - 0.5 * in[n - 2]));
    }
    EXPECT_LT(worst, 1e-3);
    EXPECT_NEAR(dsptest::dominantFrequency(out.data() + 8192, 32768, kRate, 400, 480, 1), 440.0,
                1.0);
    termPitchShift(p);
}

// Successive grains read the tone with a phase step of (spacing x (1 - ratio)
// x f / rate) cycles, which puts the output's spectral lines at
// f x ratio + (step + m) x rate / spacing. With 44000 Hz and a 0.05 s spacing
// (2200 samples, 22 and 11 cycles of 440 Hz) the steps are whole cycles and
// the octaves land exactly on 880 and 220 Hz.
TEST(PitchShift, OctaveUpAndDownMeasuredOnTheSpectrum) {
    const uint32_t rate = 44000;
    std::vector<float> in = dsptest::sineWave(65536, 440.0, rate, 0.5);
    for (float cents : {1200.0f, -1200.0f}) {
        double expected = cents > 0 ? 880.0 : 220.0;
        auto* p = static_cast<dsp::PitchShiftProcessor*>(
            initPitchShift(4096, 1, rate, cents, 0.0f, 0.1f, 0.05f));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->channels[0].spacing, 2200u);
        std::vector<float> out = runBlocks(p, in, 4096);
        double f = dsptest::dominantFrequency(out.data() + 16384, 32768, rate, 100, 1500, 0.25);
        EXPECT_NEAR(f, expected, 0.5) << cents;
        double at440 = dsptest::toneMagnitude(out.data() + 16384, 32768, 440.0, rate);
        double atTarget = dsptest::toneMagnitude(out.data() + 16384, 32768, expected, rate);
        EXPECT_LT(at440, 0.02 * atTarget) << cents;
        termPitchShift(p);
    }
}

// With the usual 0.01 s spacing the strongest line is the one of the comb
// above nearest to the shifted tone: within half the grain rate of it.
TEST(PitchShift, ShiftedToneIsTheStrongestLineWithTheUsualSpacing) {
    std::vector<float> in = dsptest::sineWave(65536, 440.0, kRate, 0.5);
    const double halfGrainRate = 0.5 * kRate / 440.0;
    for (float cents : {1200.0f, -1200.0f, 700.0f, -500.0f}) {
        dsp::PitchShiftProcessor* p = makePitch(4096, 1, cents);
        std::vector<float> out = runBlocks(p, in, 4096);
        double expected = 440.0 * std::pow(2.0, cents / 1200.0);
        double f = dsptest::dominantFrequency(out.data() + 16384, 32768, kRate, 150, 1000, 0.5);
        EXPECT_NEAR(f, expected, halfGrainRate) << cents;
        termPitchShift(p);
    }
}

TEST(PitchShift, PitchBeyondAnOctaveIsClamped) {
    std::vector<float> in = testSignal(20000);
    const float pairs[][2] = {{2400.0f, 1200.0f}, {-5000.0f, -1200.0f}};
    for (const auto& pair : pairs) {
        dsp::PitchShiftProcessor* a = makePitch(2048, 1, pair[0]);
        dsp::PitchShiftProcessor* b = makePitch(2048, 1, pair[1]);
        EXPECT_EQ(a->channels[0].pitchCents, pair[1]);
        EXPECT_EQ(runBlocks(a, in, 2048), runBlocks(b, in, 2048));
        termPitchShift(a);
        termPitchShift(b);
    }
    dsp::PitchShiftProcessor* p = makePitch(64, 1, 100.0f);
    setPitchShiftPitch(p, std::nanf(""));
    EXPECT_EQ(p->channels[0].pitchCents, 1200.0f);
    EXPECT_EQ(p->channels[0].bypassPending, 1);
    termPitchShift(p);
}

TEST(PitchShift, MinusSixDecibelsHalvesTheOutput) {
    std::vector<float> in = testSignal(12000);
    dsp::PitchShiftProcessor* full = makePitch(1000, 1, 300.0f);
    dsp::PitchShiftProcessor* half = makePitch(1000, 1, 300.0f);
    ASSERT_EQ(setPitchShiftOutLevel(half, -6.0206f), 1u);
    EXPECT_NEAR(half->channels[0].outLevel, 0.5f, 1e-6f);
    std::vector<float> a = runBlocks(full, in, 1000);
    std::vector<float> b = runBlocks(half, in, 1000);
    for (size_t i = 0; i < in.size(); ++i) {
        ASSERT_NEAR(b[i], 0.5f * a[i], 1e-6f) << i;
    }
    termPitchShift(full);
    termPitchShift(half);
}

TEST(PitchShift, PitchChangeTakesEffectOneBlockLater) {
    std::vector<float> in = testSignal(3000);
    dsp::PitchShiftProcessor* p = makePitch(1000, 1, 0.0f);
    std::vector<float> out(1000);
    p->processChannel(0, in.data(), out.data(), 1000);
    setPitchShiftPitch(p, 500.0f);
    p->processChannel(0, in.data() + 1000, out.data(), 1000);
    EXPECT_TRUE(std::equal(out.begin(), out.end(), in.begin() + 1000)); // still bypassed
    p->processChannel(0, in.data() + 2000, out.data(), 1000);
    EXPECT_FALSE(std::equal(out.begin(), out.end(), in.begin() + 2000));
    termPitchShift(p);
}

TEST(PitchShift, MatchesThePerSampleModelAcrossPitchAndLevelChanges) {
    std::vector<float> in = testSignal(50000);
    for (float cents : {350.0f, -500.0f, 1200.0f, -1200.0f, 0.001f}) {
        dsp::PitchShiftProcessor* p = makePitch(40000, 1, cents);
        dsptest::PitchModel model(kRate, cents, 0.0f, kGrain, kSpacing);
        const size_t sizes[] = {1000, 40000, 777, 5000, 3223};
        size_t done = 0;
        for (size_t k = 0; k < 5; ++k) {
            std::vector<float> block(in.begin() + done, in.begin() + done + sizes[k]);
            std::vector<float> out(block.size());
            p->processChannel(0, block.data(), out.data(), static_cast<uint32_t>(block.size()));
            EXPECT_EQ(out, model.run(block)) << cents << " block " << k;
            done += sizes[k];
            float next = k == 1 ? -cents * 0.5f : (k == 2 ? 0.0f : cents);
            p->setPitch(next);
            model.setPitch(next);
            if (k == 3) {
                p->setOutLevel(-3.0f);
                model.setLevel(-3.0f);
            }
        }
        termPitchShift(p);
    }
}

// The engine runs grains piece by piece with tabled weights and a linear
// copy of the history; the model evaluates every grain per sample. Pitch
// changes refill the table and send read points beyond the history, short
// grains with an uneven spacing skip spawns, and the longest grains go
// without the table and the linear history.
TEST(PitchShift, FastPathsMatchThePerSampleModel) {
    struct Case {
        float grain;
        float spacing;
        size_t block;
        std::vector<float> cents;
    };
    const Case cases[] = {
        {kGrain, kSpacing, 4096, {700.0f, 700.0f, -1200.0f, 1200.0f, 700.0f, -50.0f, 0.0f, 700.0f}},
        {0.005f, 0.0005f, 1000, {700.0f, -700.0f, 1200.0f, 0.001f, -1200.0f, 300.0f}},
        {0.01f, 0.0033f, 333, {-300.0f, 1100.0f, -1200.0f, 700.0f}},
        {0.4f, 0.05f, 40000, {700.0f, -1200.0f}},
        {1.0f, 0.05f, 40000, {700.0f, -400.0f}},
    };
    std::vector<float> in = testSignal(90000);
    for (const Case& c : cases) {
        auto* p = static_cast<dsp::PitchShiftProcessor*>(
            initPitchShift(40000, 1, kRate, c.cents[0], 0.0f, c.grain, c.spacing));
        ASSERT_NE(p, nullptr);
        dsptest::PitchModel model(kRate, c.cents[0], 0.0f, c.grain, c.spacing);
        size_t done = 0;
        for (size_t k = 0; k < c.cents.size() && done < in.size(); ++k) {
            for (int rep = 0; rep < 2 && done < in.size(); ++rep) {
                size_t n = std::min(c.block, in.size() - done);
                std::vector<float> block(in.begin() + done, in.begin() + done + n);
                std::vector<float> out(n);
                p->processChannel(0, block.data(), out.data(), static_cast<uint32_t>(n));
                ASSERT_EQ(out, model.run(block)) << c.grain << " step " << k << " rep " << rep;
                done += n;
            }
            if (k + 1 < c.cents.size()) {
                p->setPitch(c.cents[k + 1]);
                model.setPitch(c.cents[k + 1]);
            }
        }
        termPitchShift(p);
    }
}

TEST(PitchShift, OutputDoesNotDependOnTheBlockSize) {
    // At +1200 cents every read point is a whole sample, so the stream is the
    // same to the bit whatever the blocks; a pending change moves with them.
    std::vector<float> in = testSignal(80000);
    std::vector<float> reference;
    for (size_t block : {size_t(1), size_t(4096), size_t(40000), size_t(80000)}) {
        dsp::PitchShiftProcessor* p = makePitch(80000, 1, 1200.0f);
        std::vector<float> out = runBlocks(p, in, block);
        if (reference.empty()) {
            reference = out;
        } else {
            EXPECT_EQ(out, reference) << block;
        }
        termPitchShift(p);
    }
    // Other pitches follow the model at every block size.
    for (size_t block : {size_t(1), size_t(4096), size_t(40000)}) {
        dsp::PitchShiftProcessor* p = makePitch(40000, 1, -300.0f);
        dsptest::PitchModel model(kRate, -300.0f, 0.0f, kGrain, kSpacing);
        std::vector<float> part(in.begin(), in.begin() + 45000);
        std::vector<float> expected;
        for (size_t done = 0; done < part.size(); done += block) {
            std::vector<float> b(part.begin() + done,
                                 part.begin() + std::min(part.size(), done + block));
            std::vector<float> o = model.run(b);
            expected.insert(expected.end(), o.begin(), o.end());
        }
        EXPECT_EQ(runBlocks(p, part, block), expected) << block;
        termPitchShift(p);
    }
}

TEST(PitchShift, StereoChannelsAreIndependentAndBlocksBeyondInFramesArePieced) {
    std::vector<float> left = testSignal(3000);
    std::vector<float> right = dsptest::sineWave(3000, 1000.0, kRate, 0.3);
    std::vector<int16_t> l16 = toPcm(left), r16 = toPcm(right);
    std::vector<int16_t> src(6000);
    for (size_t i = 0; i < 3000; ++i) {
        src[2 * i] = l16[i];
        src[2 * i + 1] = r16[i];
    }
    // One call with 3000 frames on a 256-frame processor against 256-frame calls.
    void* whole = initPitchShift(256, 2, kRate, 400.0f, 0.0f, kGrain, kSpacing);
    void* pieces = initPitchShift(256, 2, kRate, 400.0f, 0.0f, kGrain, kSpacing);
    std::vector<int16_t> a(6000, 0), b(6000, 0);
    EXPECT_EQ(doPitchShift(whole, src.data(), a.data(), 12000), 1u);
    for (size_t f = 0; f < 3000; f += 256) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(256, 3000 - f));
        doPitchShift(pieces, src.data() + 2 * f, b.data() + 2 * f, n * 4);
    }
    EXPECT_EQ(a, b);
    // The right channel equals a mono processor fed the right channel alone.
    void* mono = initPitchShift(256, 1, kRate, 400.0f, 0.0f, kGrain, kSpacing);
    std::vector<int16_t> m(3000);
    for (size_t f = 0; f < 3000; f += 256) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(256, 3000 - f));
        doPitchShift(mono, r16.data() + f, m.data() + f, n * 2);
    }
    for (size_t i = 0; i < 3000; ++i) {
        ASSERT_EQ(a[2 * i + 1], m[i]) << i;
    }
    termPitchShift(whole);
    termPitchShift(pieces);
    termPitchShift(mono);
}

TEST(PitchShift, SetupStaggersTheGrainsAndDerivesTheSizes) {
    dsp::PitchShiftProcessor* p = makePitch(256, 1, 1200.0f);
    const dsp::PitchShiftChannel& c = p->channels[0];
    EXPECT_EQ(c.grainLength, 3380u); // trunc(44100 * 0.05 * 325/212)
    EXPECT_EQ(c.spacing, 440u);      // trunc(44100 * 0.01f) in double
    EXPECT_EQ(c.grainCount, 7u);
    EXPECT_EQ(c.ratio, 2.0f);
    EXPECT_EQ(c.offset, -3380);
    EXPECT_EQ(c.span, 6763u);
    for (uint32_t k = 0; k < c.grainCount; ++k) {
        EXPECT_EQ(c.grains[k].active, 1);
        EXPECT_EQ(c.grains[k].start, static_cast<int32_t>((k + 1) * 440) - 6763);
        EXPECT_EQ(c.grains[k].age, static_cast<int32_t>(3380 - (k + 1) * 440));
    }
    EXPECT_NEAR(c.window[1690], 1.0f, 1e-6f);
    EXPECT_NEAR(c.window[0], std::exp(-0.25 * 6.5 * 6.5), 1e-9);
    setPitchShiftPitch(p, -1200.0f);
    EXPECT_EQ(c.offsetPending, 0);
    EXPECT_EQ(c.spanPending, 1693u);
    EXPECT_EQ(c.ratio, 2.0f); // in use until the next block ends
    termPitchShift(p);
}

TEST(PitchShift, ConfigureRebuildsOnlyForANewRate) {
    dsp::PitchShiftProcessor* p = makePitch(512, 1, 300.0f);
    std::vector<float> in = testSignal(512), out(512);
    p->processChannel(0, in.data(), out.data(), 512);
    p->configure(1024, 2, kRate);
    EXPECT_NE(p->channels[0].writeIndex, 0u); // history kept
    EXPECT_EQ(p->inFrames, 1024u);
    EXPECT_EQ(p->inChannels, 2u);
    EXPECT_EQ(p->inRate, kRate);
    p->configure(1024, 2, 22050);
    EXPECT_EQ(p->outRate, 22050u);
    EXPECT_EQ(p->channels[1].grainLength, 1690u);
    EXPECT_EQ(p->channels[0].writeIndex, 0u);
    p->configure(1024, 2, 0); // no engine at 0 Hz: the old one stays
    EXPECT_EQ(p->channels[0].grainLength, 1690u);
    termPitchShift(p);
}

TEST(PitchShift, BadArgumentsAreSafe) {
    EXPECT_EQ(initPitchShift(256, 1, 0, 100.0f, 0.0f, kGrain, kSpacing), nullptr);
    EXPECT_EQ(initPitchShift(256, 3, kRate, 100.0f, 0.0f, kGrain, kSpacing), nullptr);
    EXPECT_EQ(initPitchShift(256, 1, kRate, 100.0f, 0.0f, std::nanf(""), kSpacing), nullptr);
    EXPECT_EQ(initPitchShift(256, 1, kRate, 100.0f, 0.0f, 1e9f, kSpacing), nullptr);
    EXPECT_EQ(initPitchShift(256, 1, kRate, 100.0f, 0.0f, -1.0f, kSpacing), nullptr);

    std::vector<float> in = testSignal(2000), out(2000);
    // A spacing that truncates to 0 samples counts as 1.
    auto* tiny = static_cast<dsp::PitchShiftProcessor*>(
        initPitchShift(2000, 1, kRate, 100.0f, 0.0f, 0.001f, 0.0f));
    ASSERT_NE(tiny, nullptr);
    EXPECT_EQ(tiny->channels[0].spacing, 1u);
    EXPECT_EQ(tiny->channels[0].grainCount, tiny->channels[0].grainLength);
    tiny->processChannel(0, in.data(), out.data(), 2000);
    termPitchShift(tiny);
    // A grain of 0 samples: silence, or the input at exactly 0 cents.
    auto* none = static_cast<dsp::PitchShiftProcessor*>(
        initPitchShift(2000, 1, kRate, 100.0f, 0.0f, 0.0f, kSpacing));
    ASSERT_NE(none, nullptr);
    none->processChannel(0, in.data(), out.data(), 2000);
    EXPECT_EQ(out, std::vector<float>(2000, 0.0f));
    none->setPitch(0.0f);
    none->processChannel(0, in.data(), out.data(), 2000);
    none->processChannel(0, in.data(), out.data(), 2000);
    EXPECT_EQ(out, in);
    termPitchShift(none);
    // Levels are not limited: beyond float range the level is infinite, and a
    // NaN level stays NaN.
    dsp::PitchShiftProcessor* loud = makePitch(2000, 1, 100.0f, 1e6f);
    EXPECT_EQ(loud->channels[0].outLevel, std::numeric_limits<float>::infinity());
    loud->processChannel(0, in.data(), out.data(), 2000);
    setPitchShiftOutLevel(loud, std::nanf(""));
    EXPECT_TRUE(std::isnan(loud->channels[0].outLevel));
    setPitchShiftOutLevel(loud, 20.0f);
    EXPECT_EQ(loud->channels[0].outLevel, 10.0f);
    termPitchShift(loud);
}

TEST(PitchShift, WrongHandlesAreRefused) {
    void* stretch = initStretch(64, 1, kRate, 100.0f, 0.0f, kGrain, kSpacing);
    int16_t buf[128] = {};
    EXPECT_EQ(setPitchShiftPitch(stretch, 100.0f), 0u);
    EXPECT_EQ(setPitchShiftOutLevel(stretch, 0.0f), 0u);
    EXPECT_EQ(doPitchShift(stretch, buf, buf, 128), 0u);
    EXPECT_EQ(termPitchShift(stretch), 0u);
    EXPECT_EQ(doPitchShift(nullptr, buf, buf, 128), 0u);
    EXPECT_EQ(termStretch(stretch), 1u);
}

TEST(PitchShift, TermReturnsEveryPoolBuffer) {
    uint32_t before = fastmemGetAllocatedSize();
    void* h = initPitchShift(1024, 2, kRate, 100.0f, 0.0f, kGrain, kSpacing);
    EXPECT_GT(fastmemGetAllocatedSize(), before);
    EXPECT_EQ(termPitchShift(h), 1u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

} // namespace
