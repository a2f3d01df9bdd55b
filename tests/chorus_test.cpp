// Chorus: setup values, the voice loop against the model in
// support/chorus_model.h, block and channel independence, setters, exports.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "effects/chorus_processor.h"
#include "support/chorus_model.h"
#include "support/filter_noise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

using dsp::ChorusProcessor;
using dsp::ChorusVoices;
using dsp::convert::floatToSample;
using dsp::convert::sampleToFloat;
using dsptest::ChorusModel;
using dsptest::filterNoise;

ChorusProcessor* makeChorus(uint32_t frames, uint32_t channels, uint32_t voices, float speed,
                            float mix, float orgMix) {
    return static_cast<ChorusProcessor*>(
        initChorus(frames, channels, 44100, voices, 20.0f, 2.0f, speed, mix, orgMix));
}

TEST(Chorus, SetupValuesAndFixedDelaysAtSpeedZero) {
    ChorusProcessor* c = makeChorus(2048, 2, 4, 0.0f, 25.0f, 0.0f);
    ASSERT_NE(c, nullptr);
    const double pi = 3.141592653589793;
    const float phases[] = {0.0f, static_cast<float>(pi / 2), static_cast<float>(pi),
                            static_cast<float>(3 * pi / 2)};
    for (const ChorusVoices& v : c->voiceSets) {
        EXPECT_EQ(v.delay, 882u);
        EXPECT_EQ(v.depth, 88.2f);
        EXPECT_EQ(v.mask, 65535u);
        EXPECT_TRUE(std::equal(phases, phases + 4, v.phaseOffsets));
    }
    // sin of the offsets through the table (0, 1, ~0, ~-1): delays 882, 970,
    // 882 and 793 for an impulse.
    std::vector<float> in(2048, 0.0f), out(2048);
    in[0] = 1.0f;
    c->processChannel(0, in.data(), out.data(), 2048);
    for (uint32_t n = 0; n < 2048; ++n) {
        ASSERT_EQ(out[n], n == 882 ? 0.5f : (n == 970 || n == 793) ? 0.25f : 0.0f) << n;
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
        std::vector<float> in = filterNoise(k.frames, 7), out(k.frames);
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
// a mono processor runs voiceSets[0] only.
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

    ChorusProcessor* c = makeChorus(128, 1, 2, 0.2f, 40.0f, 70.0f);
    std::vector<float> in(128, 0.5f), out(128);
    c->processChained(in.data(), nullptr, out.data(), nullptr, 128);
    EXPECT_EQ(c->voiceSets[0].writeIndex, 128u);
    EXPECT_EQ(c->voiceSets[1].writeIndex, 0u);
    EXPECT_EQ(c->voiceSets[1].lfoTime, 0.0f);
    termChorus(c);
}

// Setters reach both sets and keep the history and the LFO; configure
// restarts both and gives every voice the last level set.
TEST(Chorus, SettersApplyToBothSetsAndConfigureStartsAgain) {
    void* h = initChorus(256, 1, 44100, 4, 20.0f, 2.0f, 0.5f, 40.0f, 70.0f);
    ChorusProcessor* c = static_cast<ChorusProcessor*>(h);
    EXPECT_EQ(setChorusOrgMix(h, 25.0f) + setChorusSpeed(h, 1.5f) + setChorusDepth(h, 3.0f) +
                  setChorusDelaytime(h, 10.0f) + setChorusMix(h, 1, 60.0f),
              5u);
    EXPECT_EQ(setChorusMix(h, 4, 99.0f), 1u); // beyond the voices: ignored
    for (const ChorusVoices& v : c->voiceSets) {
        EXPECT_EQ(v.orgMix, 0.25f);
        EXPECT_EQ(v.periodMs, 1500.0f);
        EXPECT_EQ(v.delay, 441u);
        EXPECT_EQ(v.voiceMix[0], 0.4f);
        EXPECT_EQ(v.voiceMix[1], 0.6f);
    }
    std::vector<float> in = filterNoise(256, 5), out(256);
    c->processChannel(0, in.data(), out.data(), 256);
    EXPECT_NE(c->voiceSets[0].lfoTime, 0.0f);
    c->configure(128, 2, 22050);
    EXPECT_EQ(c->outRate, 22050u);
    ChorusModel model(22050, 4, 10.0f, 3.0f, 1.5f, 60.0f, 25.0f);
    c->processChannel(1, in.data(), out.data(), 128);
    for (uint32_t n = 0; n < 128; ++n) {
        ASSERT_EQ(out[n], model.step(in[n])) << n;
    }
    termChorus(h);
}

TEST(Chorus, ForeignHandlesAndFailedInitsAreRefused) {
    void* fader = initFader(64, 1, 44100, 0.0f, 0.0f, 0.0f);
    int16_t buf[64] = {};
    for (void* h : {static_cast<void*>(nullptr), fader}) {
        EXPECT_EQ(setChorusOrgMix(h, 1.0f) + setChorusMix(h, 0, 1.0f) + setChorusSpeed(h, 1.0f) +
                      setChorusDepth(h, 1.0f) + setChorusDelaytime(h, 1.0f) +
                      doChorus(h, buf, buf, 64) + termChorus(h),
                  0u);
    }
    termFader(fader);

    const uint32_t total = fastmemGetAllocatedSize();
    // Histories of a billion voices cannot exist.
    EXPECT_EQ(initChorus(256, 2, 44100, 1000000000u, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), nullptr);
    EXPECT_EQ(initChorus(256, 2, 44100, 0xFFFFFFFFu, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), nullptr);
    dsp::fastmemPool().setSystemAllocator([](size_t) -> void* { return nullptr; });
    void* h = initChorus(256, 2, 44100, 2, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f);
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
}

} // namespace
