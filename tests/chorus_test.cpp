// Chorus: the sine table, the voice loop against support/chorus_model.h,
// block and channel independence, setters.
#include "core/lookup_tables.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "effects/chorus_processor.h"
#include "support/chorus_model.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

using dsp::ChorusProcessor;
using dsp::convert::floatToSample;
using dsp::convert::sampleToFloat;
using dsptest::ChorusModel;
using dsptest::noise;

// The chorus LFO's table read with wrapped interpolation in both directions
// (its entries are checked through the chorus model's own table): index 1140
// wraps to 116; at -1.0 the negative fraction interpolates toward the lower entry.
TEST(SineTable, LookupWrapsInBothDirectionsAndRebuilds) {
    const dsp::SineTable& t = dsp::sineTable();
    EXPECT_NEAR(t.lookup(7.0), 0.65698, 1e-5);
    EXPECT_NEAR(t.lookup(-1.0), -0.84150, 1e-5);
    dsp::SineTable small; // a built table rebuilt smaller
    ASSERT_TRUE(small.build(6.283185307179586, 1024) && small.build(6.283185307179586, 256));
    EXPECT_EQ(small.mask(), 255u);
    EXPECT_NEAR(small.lookup(1.0), std::sin(1.0), 1e-3);
}

ChorusProcessor* makeChorus(uint32_t frames, uint32_t channels, uint32_t voices, float speed,
                            float mix, float orgMix) {
    return static_cast<ChorusProcessor*>(
        initChorus(frames, channels, 44100, voices, 20.0f, 2.0f, speed, mix, orgMix));
}

TEST(Chorus, SetupValuesAndFixedDelaysAtSpeedZero) {
    ChorusProcessor* c = makeChorus(2048, 2, 4, 0.0f, 25.0f, 0.0f);
    ASSERT_NE(c, nullptr);
    // 20 ms and 2 ms at 44100 Hz are 882 and 88.2 samples; sin of the phase
    // offsets (0, pi/2, pi, 3pi/2) through the table is 0, 1, ~0 and ~-1:
    // delays 882, 970, 882 and 793 for an impulse, on either channel.
    std::vector<float> in(2048, 0.0f), out(2048);
    in[0] = 1.0f;
    for (uint32_t channel = 0; channel < 2; ++channel) {
        c->processChannel(channel, in.data(), out.data(), 2048);
        for (uint32_t n = 0; n < 2048; ++n) {
            ASSERT_EQ(out[n], n == 882 ? 0.5f : (n == 970 || n == 793) ? 0.25f : 0.0f) << n;
        }
    }
    termChorus(c);

    c = makeChorus(512, 1, 0, 0.5f, 40.0f, 37.0f); // no voices: the input times orgMix
    std::vector<int16_t> src(512), dst(512);
    for (uint32_t i = 0; i < 512; ++i) {
        src[i] = static_cast<int16_t>(i * 127 - 32000);
    }
    EXPECT_EQ(doChorus(c, src.data(), dst.data(), 1024), 1u);
    for (uint32_t i = 0; i < 512; ++i) {
        ASSERT_EQ(dst[i], floatToSample(sampleToFloat(src[i]) * static_cast<float>(0.01 * 37.0f)));
    }
    termChorus(c);
}

// A fast LFO wrapping many times, and a sweep deeper than the delay whose
// negative delays wrap within the history; one voice's level set midway.
TEST(Chorus, VoicesMatchTheModelSampleForSample) {
    struct Case {
        uint32_t frames, rate, voices;
        float delayMs, depthMs, speed, mix, orgMix;
    };
    for (const Case& k : {Case{20000, 44100, 4, 20.0f, 2.0f, 0.01f, 40.0f, 70.0f},
                          Case{70000, 8000, 3, 0.0f, 5.0f, 0.003f, 100.0f, 0.0f}}) {
        void* h = initChorus(k.frames, 1, k.rate, k.voices, k.delayMs, k.depthMs, k.speed, k.mix,
                             k.orgMix);
        ASSERT_NE(h, nullptr);
        ChorusModel model(k.rate, k.voices, k.delayMs, k.depthMs, k.speed, k.mix, k.orgMix);
        std::vector<float> in = noise(k.frames, 7), out(k.frames);
        for (int pass = 0; pass < 2; ++pass) {
            static_cast<ChorusProcessor*>(h)->processChannel(0, in.data(), out.data(), k.frames);
            for (uint32_t n = 0; n < k.frames; ++n) {
                ASSERT_EQ(out[n], model.step(in[n])) << pass << " " << n;
            }
            EXPECT_EQ(setChorusMix(h, 2, 90.0f), 1u);
            model.setVoiceMix(2, 90.0f);
        }
        termChorus(h);
    }
}

// Stereo in uneven blocks: each channel equals the model fed that channel;
// a mono processor runs the left voice set only.
TEST(Chorus, StereoInAnyBlocksEqualsTheModelPerChannel) {
    const uint32_t frames = 6000;
    void* h = initChorus(1024, 2, 48000, 4, 12.0f, 3.0f, 0.05f, 30.0f, 80.0f);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src = dsptest::pcmNoise(2 * frames, 11), dst(2 * frames);
    for (uint32_t done = 0, n = 1, take = 0; done < frames; done += take, n = n * 7 % 997 + 1) {
        take = std::min(n, frames - done);
        EXPECT_EQ(doChorus(h, &src[2 * done], &dst[2 * done], take * 4), 1u);
    }
    for (uint32_t ch = 0; ch < 2; ++ch) {
        ChorusModel model(48000, 4, 12.0f, 3.0f, 0.05f, 30.0f, 80.0f);
        for (uint32_t i = 0; i < frames; ++i) {
            const float expected = model.step(sampleToFloat(src[2 * i + ch]));
            ASSERT_EQ(dst[2 * i + ch], floatToSample(expected)) << ch << " " << i;
        }
    }
    termChorus(h);

    // Mono: the chain slot runs set 0; set 1 has not moved, so its first
    // block is a fresh chorus's.
    ChorusProcessor* c = makeChorus(128, 1, 2, 0.2f, 40.0f, 70.0f);
    std::vector<float> in = noise(256, 3), out(256);
    ChorusModel set0(44100, 2, 20.0f, 2.0f, 0.2f, 40.0f, 70.0f), set1 = set0;
    c->processChained(in.data(), nullptr, out.data(), nullptr, 128);
    c->processChannel(1, in.data() + 128, out.data() + 128, 128);
    for (uint32_t n = 0; n < 128; ++n) {
        ASSERT_EQ(out[n], set0.step(in[n])) << n;
        ASSERT_EQ(out[128 + n], set1.step(in[128 + n])) << n;
    }
    termChorus(c);
}

// Setters reach both sets and keep the history and the LFO running; configure
// restarts both and gives every voice the last level set.
TEST(Chorus, SettersApplyToBothSetsAndConfigureStartsAgain) {
    void* h = initChorus(256, 2, 44100, 4, 20.0f, 2.0f, 0.5f, 40.0f, 70.0f);
    ChorusProcessor* c = static_cast<ChorusProcessor*>(h);
    const ChorusModel started(44100, 4, 20.0f, 2.0f, 0.5f, 40.0f, 70.0f);
    ChorusModel models[2] = {started, started};
    std::vector<float> in = noise(512, 5), out(256);
    auto expectBothMatch = [&](const float* block, uint32_t frames) {
        for (uint32_t channel = 0; channel < 2; ++channel) {
            c->processChannel(channel, block, out.data(), frames);
            for (uint32_t n = 0; n < frames; ++n) {
                ASSERT_EQ(out[n], models[channel].step(block[n])) << channel << " " << n;
            }
        }
    };
    expectBothMatch(in.data(), 256);
    EXPECT_EQ(setChorusOrgMix(h, 25.0f) + setChorusSpeed(h, 1.5f) + setChorusDepth(h, 3.0f) +
                  setChorusDelaytime(h, 10.0f) + setChorusMix(h, 1, 60.0f),
              5u);
    EXPECT_EQ(setChorusMix(h, 4, 99.0f), 1u); // beyond the voices: ignored
    for (ChorusModel& m : models) {
        m.setOrgMix(25.0f);
        m.setSpeed(1.5f);
        m.setDepth(3.0f);
        m.setDelayTime(10.0f);
        m.setVoiceMix(1, 60.0f);
    }
    expectBothMatch(in.data() + 256, 256);
    c->configure(128, 2, 22050);
    EXPECT_EQ(c->outRate(), 22050u);
    models[0] = models[1] = ChorusModel(22050, 4, 10.0f, 3.0f, 1.5f, 60.0f, 25.0f);
    expectBothMatch(in.data(), 128);
    termChorus(h);
}

} // namespace
