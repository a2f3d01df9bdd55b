// Chorus: setup values, the per-sample voice loop against the model in
// support/chorus_model.h, block-size independence, the exports and the
// chain slots.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "effects/chorus_processor.h"
#include "support/chorus_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using dsp::ChorusProcessor;
using dsp::ChorusVoices;
using dsptest::ChorusModel;

constexpr double kPi = 3.141592653589793;

std::vector<float> noise(uint32_t frames, uint32_t seed) {
    std::vector<float> v(frames);
    uint32_t x = seed;
    for (float& s : v) {
        x = x * 1664525u + 1013904223u;
        s = static_cast<float>(static_cast<int32_t>(x >> 8) - (1 << 23)) / (1 << 23);
    }
    return v;
}

ChorusProcessor* makeChorus(uint32_t frames, uint32_t channels, uint32_t voices, float speed,
                            float mix = 40.0f, float orgMix = 70.0f) {
    return static_cast<ChorusProcessor*>(
        initChorus(frames, channels, 44100, voices, 20.0f, 2.0f, speed, mix, orgMix));
}

TEST(ChorusSetup, DelaysDepthAndPhasesFromTheSettings) {
    ChorusProcessor* c = makeChorus(256, 2, 4, 0.5f);
    ASSERT_NE(c, nullptr);
    for (const ChorusVoices& v : c->voiceSets) {
        EXPECT_EQ(v.delay, 882u);
        EXPECT_EQ(v.depth, 88.2f);
        EXPECT_EQ(v.capacity, 65536u);
        EXPECT_EQ(v.mask, 65535u);
        EXPECT_EQ(v.rate, 44100u);
        EXPECT_EQ(v.voiceCount, 4u);
        EXPECT_EQ(v.msPerSample, static_cast<float>(1000.0 / 44100.0));
        EXPECT_EQ(v.periodMs, 500.0f);
        EXPECT_EQ(v.cyclesPerMs, 0.002f);
        EXPECT_EQ(v.mix, 0.4f);
        EXPECT_EQ(v.orgMix, 0.7f);
        EXPECT_EQ(v.phaseOffsets[0], 0.0f);
        EXPECT_EQ(v.phaseOffsets[1], static_cast<float>(kPi / 2));
        EXPECT_EQ(v.phaseOffsets[2], static_cast<float>(kPi));
        EXPECT_EQ(v.phaseOffsets[3], static_cast<float>(3 * kPi / 2));
        for (uint32_t i = 0; i < 4; ++i) {
            EXPECT_EQ(v.voiceMix[i], 0.4f);
        }
    }
    EXPECT_EQ(c->inRate, 44100u);
    EXPECT_EQ(c->outRate, 44100u);
    EXPECT_EQ(termChorus(c), 1u);
}

TEST(ChorusProcess, NoVoicesGivesTheInputTimesOrgMix) {
    ChorusProcessor* c = makeChorus(512, 1, 0, 0.5f, 40.0f, 37.0f);
    ASSERT_NE(c, nullptr);
    std::vector<float> in = noise(512, 1), out(512);
    c->processChannel(0, in.data(), out.data(), 512);
    const float orgMix = static_cast<float>(0.01 * 37.0f);
    for (uint32_t i = 0; i < 512; ++i) {
        ASSERT_EQ(out[i], in[i] * orgMix) << i;
    }
    std::vector<int16_t> src(512), dst(512);
    for (uint32_t i = 0; i < 512; ++i) {
        src[i] = static_cast<int16_t>(i * 127 - 32000);
    }
    EXPECT_EQ(doChorus(c, src.data(), dst.data(), 1024), 1u);
    for (uint32_t i = 0; i < 512; ++i) {
        ASSERT_EQ(dst[i],
                  dsp::convert::floatToSample(dsp::convert::sampleToFloat(src[i]) * orgMix));
    }
    termChorus(c);
}

TEST(ChorusProcess, SpeedZeroHoldsEachVoiceAtItsFixedDelay) {
    ChorusProcessor* c = makeChorus(2048, 1, 4, 0.0f, 25.0f, 0.0f);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->voiceSets[0].cyclesPerMs, 0.0f);
    // sin of the offsets 0, pi/2, pi, 3pi/2 through the table: 0, 1, ~0, ~-1.
    const uint32_t expectedDelay[4] = {882, 970, 882, 793};
    ChorusModel model(44100, 4, 20.0f, 2.0f, 0.0f, 25.0f, 0.0f);
    for (uint32_t v = 0; v < 4; ++v) {
        EXPECT_EQ(model.voiceDelay(v), static_cast<int32_t>(expectedDelay[v]));
    }
    std::vector<float> in(2048, 0.0f), out(2048);
    in[0] = 1.0f;
    c->processChannel(0, in.data(), out.data(), 2048);
    for (uint32_t n = 0; n < 2048; ++n) {
        float expected = 0.0f;
        if (n == 882) {
            expected = 0.5f; // voices 0 and 2
        } else if (n == 970 || n == 793) {
            expected = 0.25f;
        }
        ASSERT_EQ(out[n], expected) << n;
    }
    termChorus(c);
}

TEST(ChorusProcess, VoicesMatchTheModelSampleForSample) {
    // Fast LFO (10 ms period) so the sweep wraps many times in the run.
    const uint32_t frames = 20000;
    void* h = initChorus(frames, 1, 44100, 4, 20.0f, 2.0f, 0.01f, 40.0f, 70.0f);
    ASSERT_NE(h, nullptr);
    ChorusProcessor* c = static_cast<ChorusProcessor*>(h);
    ChorusModel model(44100, 4, 20.0f, 2.0f, 0.01f, 40.0f, 70.0f);
    std::vector<float> in = noise(frames, 7), out(frames);
    c->processChannel(0, in.data(), out.data(), frames);
    for (uint32_t n = 0; n < frames; ++n) {
        ASSERT_EQ(out[n], model.step(in[n])) << n;
    }
    // One voice's level changes alone.
    EXPECT_EQ(setChorusMix(h, 2, 90.0f), 1u);
    model.setVoiceMix(2, 90.0f);
    EXPECT_EQ(c->voiceSets[0].voiceMix[2], 0.9f);
    EXPECT_EQ(c->voiceSets[1].voiceMix[1], 0.4f);
    c->processChannel(0, in.data(), out.data(), frames);
    for (uint32_t n = 0; n < frames; ++n) {
        ASSERT_EQ(out[n], model.step(in[n])) << n;
    }
    termChorus(h);
}

TEST(ChorusProcess, DeepSweepReadsAroundTheWholeHistory) {
    // Delay 0 with a depth beyond it: negative delays wrap within the history.
    const uint32_t frames = 70000;
    void* h = initChorus(frames, 1, 8000, 3, 0.0f, 5.0f, 0.003f, 100.0f, 0.0f);
    ASSERT_NE(h, nullptr);
    ChorusModel model(8000, 3, 0.0f, 5.0f, 0.003f, 100.0f, 0.0f);
    std::vector<float> in = noise(frames, 3), out(frames);
    static_cast<ChorusProcessor*>(h)->processChannel(0, in.data(), out.data(), frames);
    for (uint32_t n = 0; n < frames; ++n) {
        ASSERT_EQ(out[n], model.step(in[n])) << n;
    }
    termChorus(h);
}

TEST(ChorusProcess, OneCallEqualsTheSameSamplesInBlocks) {
    const uint32_t frames = 6000;
    void* one = initChorus(frames, 2, 48000, 4, 12.0f, 3.0f, 0.05f, 30.0f, 80.0f);
    void* many = initChorus(frames, 2, 48000, 4, 12.0f, 3.0f, 0.05f, 30.0f, 80.0f);
    ASSERT_NE(one, nullptr);
    ASSERT_NE(many, nullptr);
    std::vector<int16_t> src(2 * frames), whole(2 * frames), pieces(2 * frames);
    std::vector<float> f = noise(2 * frames, 11);
    for (uint32_t i = 0; i < 2 * frames; ++i) {
        src[i] = static_cast<int16_t>(f[i] * 30000.0f);
    }
    EXPECT_EQ(doChorus(one, src.data(), whole.data(), frames * 4), 1u);
    uint32_t done = 0, n = 1;
    while (done < frames) {
        uint32_t take = std::min(n, frames - done);
        EXPECT_EQ(doChorus(many, &src[2 * done], &pieces[2 * done], take * 4), 1u);
        done += take;
        n = n * 7 % 997 + 1;
    }
    EXPECT_EQ(whole, pieces);
    // Both sides have identical settings: equal inputs give equal outputs.
    ChorusModel left(48000, 4, 12.0f, 3.0f, 0.05f, 30.0f, 80.0f);
    for (uint32_t i = 0; i < frames; ++i) {
        float expected = left.step(dsp::convert::sampleToFloat(src[2 * i]));
        ASSERT_EQ(whole[2 * i], dsp::convert::floatToSample(expected)) << i;
    }
    termChorus(one);
    termChorus(many);
}

TEST(ChorusProcess, MonoRunsOneVoiceSetAndStereoBoth) {
    ChorusProcessor* c = makeChorus(128, 1, 2, 0.2f);
    ASSERT_NE(c, nullptr);
    std::vector<int16_t> src(128, 1000), dst(128);
    doChorus(c, src.data(), dst.data(), 256);
    EXPECT_EQ(c->voiceSets[0].writeIndex, 128u);
    EXPECT_EQ(c->voiceSets[1].writeIndex, 0u);
    EXPECT_EQ(c->voiceSets[1].lfoTime, 0.0f);
    std::vector<float> in(128, 0.5f), out(128);
    c->processChained(in.data(), nullptr, out.data(), nullptr, 128);
    EXPECT_EQ(c->voiceSets[0].writeIndex, 256u);
    EXPECT_EQ(c->voiceSets[1].writeIndex, 0u);
    termChorus(c);

    c = makeChorus(128, 2, 2, 0.2f);
    std::vector<float> inR(128, -0.25f), outR(128);
    EXPECT_EQ(c->processChained(in.data(), inR.data(), out.data(), outR.data(), 100), 100u);
    EXPECT_EQ(c->voiceSets[0].writeIndex, 100u);
    EXPECT_EQ(c->voiceSets[1].writeIndex, 100u);
    EXPECT_EQ(outR[5], -0.25f * 0.7f);
    termChorus(c);
}

TEST(ChorusSetters, ApplyToBothSetsAndConfigureStartsAgain) {
    void* h = initChorus(256, 1, 44100, 4, 20.0f, 2.0f, 0.5f, 40.0f, 70.0f);
    ChorusProcessor* c = static_cast<ChorusProcessor*>(h);
    EXPECT_EQ(setChorusOrgMix(h, 25.0f), 1u);
    EXPECT_EQ(setChorusSpeed(h, 2.0f), 1u);
    EXPECT_EQ(setChorusDepth(h, 3.0f), 1u);
    EXPECT_EQ(setChorusDelaytime(h, 10.0f), 1u);
    EXPECT_EQ(setChorusMix(h, 1, 60.0f), 1u);
    for (const ChorusVoices& v : c->voiceSets) {
        EXPECT_EQ(v.orgMix, 0.25f);
        EXPECT_EQ(v.periodMs, 2000.0f);
        EXPECT_EQ(v.cyclesPerMs, 0.0005f);
        EXPECT_EQ(v.depth, static_cast<float>(44100.0 * (0.001 * 3.0)));
        EXPECT_EQ(v.delay, 441u);
        EXPECT_EQ(v.voiceMix[1], 0.6f);
        EXPECT_EQ(v.voiceMix[0], 0.4f);
    }
    EXPECT_EQ(c->mixPercent, 60.0f);
    // A voice index beyond the voices changes nothing but still answers 1.
    EXPECT_EQ(setChorusMix(h, 4, 99.0f), 1u);
    EXPECT_EQ(c->mixPercent, 60.0f);
    EXPECT_EQ(c->voiceSets[0].mix, 0.6f);
    EXPECT_EQ(setChorusSpeed(h, 0.0f), 1u);
    EXPECT_EQ(c->voiceSets[1].cyclesPerMs, 0.0f);
    EXPECT_EQ(setChorusSpeed(h, 1.5f), 1u);

    // No setter clears the history or restarts the LFO; configure does both
    // and gives every voice the last level set.
    std::vector<float> in = noise(256, 5), out(256);
    c->processChannel(0, in.data(), out.data(), 256);
    EXPECT_NE(c->voiceSets[0].lfoTime, 0.0f);
    c->configure(128, 2, 22050);
    EXPECT_EQ(c->inRate, 22050u);
    EXPECT_EQ(c->outRate, 22050u);
    EXPECT_EQ(c->inChannels, 2u);
    for (const ChorusVoices& v : c->voiceSets) {
        EXPECT_EQ(v.lfoTime, 0.0f);
        EXPECT_EQ(v.writeIndex, 0u);
        EXPECT_EQ(v.delay, 220u);
        for (uint32_t i = 0; i < 4; ++i) {
            EXPECT_EQ(v.voiceMix[i], 0.6f);
        }
    }
    ChorusModel model(22050, 4, 10.0f, 3.0f, 1.5f, 60.0f, 25.0f);
    c->processChannel(0, in.data(), out.data(), 128);
    for (uint32_t n = 0; n < 128; ++n) {
        ASSERT_EQ(out[n], model.step(in[n])) << n;
    }
    termChorus(h);
}

TEST(ChorusExports, WrongHandlesAreRefused) {
    void* fader = initFader(64, 1, 44100, 0.0f, 0.0f, 0.0f);
    int16_t buf[64] = {};
    for (void* h : {static_cast<void*>(nullptr), fader}) {
        EXPECT_EQ(setChorusOrgMix(h, 1.0f), 0u);
        EXPECT_EQ(setChorusMix(h, 0, 1.0f), 0u);
        EXPECT_EQ(setChorusSpeed(h, 1.0f), 0u);
        EXPECT_EQ(setChorusDepth(h, 1.0f), 0u);
        EXPECT_EQ(setChorusDelaytime(h, 1.0f), 0u);
        EXPECT_EQ(doChorus(h, buf, buf, 64), 0u);
        EXPECT_EQ(termChorus(h), 0u);
    }
    termFader(fader);
}

void* failingAlloc(size_t) {
    return nullptr;
}

TEST(ChorusExports, InitFailsCleanlyWhenAllocationFails) {
    uint32_t total = fastmemGetAllocatedSize();
    // Histories of a billion voices cannot exist.
    EXPECT_EQ(initChorus(256, 2, 44100, 1000000000u, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), nullptr);
    EXPECT_EQ(initChorus(256, 2, 44100, 0xFFFFFFFFu, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f), nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    dsp::fastmemPool().setSystemAllocator(failingAlloc);
    void* h = initChorus(256, 2, 44100, 2, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f);
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
}

} // namespace

namespace {

// Stereo runs both channels together; each must equal a mono processor fed
// that channel alone, also after one channel's settings were changed.
TEST(ChorusStereo, EachChannelEqualsAMonoProcessor) {
    const uint32_t frames = 3000;
    std::vector<int16_t> stereo(2 * frames), left(frames), right(frames);
    uint32_t noise = 7;
    for (uint32_t i = 0; i < frames; ++i) {
        noise = noise * 1664525u + 1013904223u;
        left[i] = static_cast<int16_t>((noise >> 16) - 32768);
        right[i] = static_cast<int16_t>(9000.0 * std::sin(0.01 * i));
        stereo[2 * i] = left[i];
        stereo[2 * i + 1] = right[i];
    }
    void* s = initChorus(1024, 2, 44100, 4, 10.0f, 3.0f, 0.05f, 40.0f, 70.0f);
    void* l = initChorus(1024, 1, 44100, 4, 10.0f, 3.0f, 0.05f, 40.0f, 70.0f);
    void* r = initChorus(1024, 1, 44100, 4, 10.0f, 3.0f, 0.05f, 40.0f, 70.0f);
    std::vector<int16_t> outS(2 * frames), outL(frames), outR(frames);
    for (uint32_t at = 0; at < frames; at += 1000) {
        if (at == 2000) {
            for (void* h : {s, l, r}) {
                setChorusMix(h, 2, 90.0f);
            }
        }
        doChorus(s, stereo.data() + 2 * at, outS.data() + 2 * at, 4000);
        doChorus(l, left.data() + at, outL.data() + at, 2000);
        doChorus(r, right.data() + at, outR.data() + at, 2000);
    }
    for (uint32_t i = 0; i < frames; ++i) {
        ASSERT_EQ(outS[2 * i], outL[i]) << i;
        ASSERT_EQ(outS[2 * i + 1], outR[i]) << i;
    }
    for (void* h : {s, l, r}) {
        termChorus(h);
    }
}

} // namespace
