// Fader and cross-fader against the model in support/fader_model.h.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "effects/fader_processor.h"
#include "support/fader_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using dsp::FadeAction;
using dsp::FadeRamp;
using dsp::FaderProcessor;
using dsp::convert::floatToSample;
using dsp::convert::sampleToFloat;
using dsptest::ModelAction;
using dsptest::modelDecibelGain;
using dsptest::modelLevelReached;
using dsptest::ModelRamp;

struct Ramp {
    FadeRamp ramp;
    explicit Ramp(float level, float rate = 1000.0f) { ramp.initialise(256, rate, level); }
};

// The schedule equals `expected`, its links hold both ways, `pending` agrees.
void expectSchedule(const FadeRamp& ramp, const std::vector<ModelAction>& expected) {
    size_t i = 0;
    for (const FadeAction* a = ramp.head; a != nullptr; a = a->next, ++i) {
        ASSERT_LT(i, expected.size());
        EXPECT_EQ(a->start, expected[i].start) << "entry " << i;
        EXPECT_EQ(a->end, expected[i].end) << "entry " << i;
        EXPECT_EQ(a->target, expected[i].target) << "entry " << i;
        EXPECT_EQ(a->next != nullptr ? a->next->prev : ramp.tail, a);
    }
    EXPECT_EQ(i, expected.size());
    EXPECT_EQ(ramp.pending, expected.empty() ? 0 : 1);
}

// Runs `frames` ones through the ramp in blocks of 97; every gain must match.
void expectRampMatchesModel(FadeRamp& ramp, ModelRamp& model, uint32_t frames) {
    std::vector<float> in(97, 1.0f), out(97);
    for (uint32_t done = 0, n = 0; done < frames; done += n) {
        n = std::min(97u, frames - done);
        ASSERT_EQ(ramp.process(in.data(), out.data(), n), 1u);
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_EQ(out[i], model.step()) << "sample " << done + i;
        }
    }
}

TEST(Fader, InitialLevelsGoThroughTheDecibelTable) {
    struct Case {
        float level, gain, tolerance;
    };
    for (const Case& c : {Case{0.0f, 0.99999987f, 2e-8f}, Case{-1.0f, 0.89125f, 1e-5f},
                          Case{-40.0f, 0.0100000f, 1e-7f}, Case{-50.0f, 0.0031623f, 1e-7f}}) {
        Ramp r(c.level, 44100.0f);
        EXPECT_EQ(r.ramp.gain, modelDecibelGain(c.level)) << c.level;
        EXPECT_NEAR(r.ramp.gain, c.gain, c.tolerance) << c.level;
    }
    // -60 dB wraps to the entries of +40 dB.
    EXPECT_EQ(Ramp(-60.0f).ramp.gain, modelDecibelGain(-60.0f));
    EXPECT_NEAR(Ramp(-60.0f).ramp.gain, Ramp(40.0f).ramp.gain, 0.01f);

    void* f = initFader(16, 1, 44100, 0.0f, 0.0f, -6.0f);
    ASSERT_NE(f, nullptr);
    std::vector<int16_t> src(16, 32767), dst(16);
    EXPECT_EQ(doFade(f, 0, src.data(), dst.data(), 32), 1u);
    EXPECT_EQ(dst[0], 32766); // 32767 * 0.99999987, truncated
    EXPECT_EQ(termFader(f), 1u);
}

TEST(Fader, OneToTwoSecondsAt44100RunsFrom44100UpToTheEndAt88200) {
    Ramp r(-20.0f, 44100.0f);
    EXPECT_FALSE(r.ramp.setAction(0.0f, 2.0f, 0.0f)); // starts at the position
    ASSERT_TRUE(r.ramp.setAction(1.0f, 2.0f, 0.0f));
    expectSchedule(r.ramp, {{44100, 88200, 0.0f}});
    const uint32_t frames = 90000;
    std::vector<float> in(frames, 1.0f), out(frames);
    r.ramp.process(in.data(), out.data(), frames);
    ModelRamp model(-20.0f, {{44100, 88200, 0.0f}});
    for (uint32_t n = 0; n < frames; ++n) {
        ASSERT_EQ(out[n], model.step()) << n;
        if (n <= 44100) {
            ASSERT_EQ(out[n], modelDecibelGain(-20.0f)) << n;
        } else if (n < 88200) {
            ASSERT_NE(out[n], out[n - 1]) << n; // a new gain on every sample
        } else {
            ASSERT_EQ(out[n], out[88199]) << n;
        }
    }
    EXPECT_NEAR(out[88199], 1.0f, 1e-4f);
    EXPECT_EQ(r.ramp.active, 0);
    // Starts not after the position and empty intervals are refused.
    EXPECT_FALSE(r.ramp.setAction(1.0f, 2.5f, -10.0f));
    EXPECT_FALSE(r.ramp.setAction(3.0f, 3.0f, -10.0f));
    EXPECT_FALSE(r.ramp.setAction(3.0f, 2.5f, -10.0f));
    EXPECT_FALSE(r.ramp.removeRange(1.0f, 2.0f));
    expectSchedule(r.ramp, {});
    EXPECT_TRUE(r.ramp.setAction(2.1f, 3.0f, -10.0f));
    expectSchedule(r.ramp, {{92610, 132300, -10.0f}});
}

struct Edit {
    bool remove;
    float start, end, target;
};
Edit set(float start, float end, float target) {
    return {false, start, end, target};
}
Edit del(float start, float end) {
    return {true, start, end, 0.0f};
}

// Each edit of a schedule (1 000 Hz): the resulting list, and the gains of the
// whole run against the model (which also pins the new head's slope).
TEST(Fader, ScheduleEditsGiveTheExpectedListAndGains) {
    const float r10at150 = modelLevelReached(0.0f, -10.0f, 100, 200, 150);
    const float r10at250 = modelLevelReached(0.0f, -10.0f, 100, 200, 250);
    const float r40at200 = modelLevelReached(0.0f, -40.0f, 100, 500, 200);
    // The last edit is the one under test, made after `runFirst` samples.
    auto check = [](const char* what, float level, uint32_t runFirst, std::vector<Edit> edits,
                    std::vector<ModelAction> expected) {
        SCOPED_TRACE(what);
        Ramp r(level);
        std::vector<float> ones(runFirst, 1.0f), out(runFirst);
        for (size_t i = 0; i < edits.size(); ++i) {
            if (i + 1 == edits.size()) {
                r.ramp.process(ones.data(), out.data(), runFirst);
            }
            const Edit& e = edits[i];
            ASSERT_TRUE(e.remove ? r.ramp.removeRange(e.start, e.end)
                                 : r.ramp.setAction(e.start, e.end, e.target));
        }
        expectSchedule(r.ramp, expected);
        ModelRamp model(level, expected);
        for (uint32_t i = 0; i < runFirst; ++i) {
            model.step();
        }
        expectRampMatchesModel(r.ramp, model, 700 - runFirst);
    };
    check("appended after the last, adjacent too", 0.0f, 0,
          {set(0.1f, 0.2f, -10.0f), set(0.3f, 0.4f, -20.0f), set(0.4f, 0.5f, 6.0f)},
          {{100, 200, -10.0f}, {300, 400, -20.0f}, {400, 500, 6.0f}});
    check("inside a running one", 0.0f, 200, {set(0.1f, 0.5f, -40.0f), set(0.3f, 0.6f, -10.0f)},
          {{100, 300, modelLevelReached(0.0f, -40.0f, 100, 500, 300)}, {300, 600, -10.0f}});
    check("across several", 0.0f, 0,
          {set(0.1f, 0.2f, -10.0f), set(0.25f, 0.3f, -20.0f), set(0.35f, 0.5f, -30.0f),
           set(0.55f, 0.6f, -5.0f), set(0.15f, 0.4f, 3.0f)},
          {{100, 150, r10at150}, {150, 400, 3.0f}, {400, 500, -30.0f}, {550, 600, -5.0f}});
    check("in a gap", 0.0f, 0,
          {set(0.1f, 0.2f, -10.0f), set(0.5f, 0.6f, -20.0f), set(0.25f, 0.3f, -3.0f)},
          {{100, 250, r10at250}, {250, 300, -3.0f}, {500, 600, -20.0f}});
    check("removal covering one", 0.0f, 0,
          {set(0.1f, 0.2f, -10.0f), set(0.3f, 0.4f, -20.0f), set(0.5f, 0.6f, -30.0f),
           del(0.25f, 0.45f)},
          {{100, 250, r10at250}, {500, 600, -30.0f}});
    check("removal into one", 0.0f, 0,
          {set(0.1f, 0.2f, -10.0f), set(0.3f, 0.5f, -20.0f), del(0.25f, 0.4f)},
          {{100, 250, r10at250}, {400, 500, -20.0f}});
    check("removal from none", 0.0f, 0, {del(0.1f, 0.2f)}, {});
    check("removal of all", 0.0f, 0,
          {set(0.1f, 0.2f, -10.0f), set(0.3f, 0.5f, -20.0f), del(0.05f, 0.6f)}, {});
    check("before a waiting head", -6.0f, 0, {set(0.3f, 0.4f, -20.0f), set(0.1f, 0.2f, -10.0f)},
          {{100, 200, -10.0f}, {300, 400, -20.0f}});
    check("over a waiting head", -6.0f, 0, {set(0.3f, 0.4f, -20.0f), set(0.1f, 0.35f, 0.0f)},
          {{100, 350, 0.0f}, {350, 400, -20.0f}});
    check("removal over a waiting head", -6.0f, 0, {set(0.3f, 0.4f, -20.0f), del(0.1f, 0.35f)},
          {{350, 400, -20.0f}});
    check("inside one", 0.0f, 0, {set(0.1f, 0.5f, -40.0f), set(0.2f, 0.3f, -5.0f)},
          {{100, 200, r40at200}, {200, 300, -5.0f}, {300, 500, -40.0f}});
    check("removal inside one", 0.0f, 0, {set(0.1f, 0.5f, -40.0f), del(0.2f, 0.3f)},
          {{100, 200, r40at200}, {300, 500, -40.0f}});
    check("to the end of one", 0.0f, 0, {set(0.1f, 0.5f, -40.0f), set(0.2f, 0.5f, -5.0f)},
          {{100, 200, r40at200}, {200, 500, -5.0f}});
    check("from the start of one", -3.0f, 0, {set(0.1f, 0.5f, -40.0f), set(0.1f, 0.3f, 0.0f)},
          {{100, 300, 0.0f}, {300, 500, -40.0f}});
    check("exactly over one", -3.0f, 0, {set(0.1f, 0.5f, -40.0f), set(0.1f, 0.5f, -7.0f)},
          {{100, 500, -7.0f}});
    check("from the start of a later one", 0.0f, 0,
          {set(0.1f, 0.2f, -10.0f), set(0.3f, 0.4f, -20.0f), set(0.3f, 0.35f, -1.0f)},
          {{100, 200, -10.0f}, {300, 350, -1.0f}, {350, 400, -20.0f}});
}

// Random edits mixed with processing: the schedule stays sorted, free of
// overlaps and zero-length entries, and a waiting head's slope matches it.
TEST(Fader, RandomEditsKeepTheScheduleConsistent) {
    Ramp r(0.0f);
    std::vector<float> in(64, 1.0f), out(64);
    uint32_t x = 12345;
    auto next = [&x](uint32_t range) { return ((x = x * 1103515245u + 12345u) >> 8) % range; };
    for (int round = 0; round < 3000; ++round) {
        float start = static_cast<float>(r.ramp.position + next(400)) / 1000.0f;
        float end = start + static_cast<float>(next(300)) / 1000.0f;
        if (next(3) == 0) {
            r.ramp.removeRange(start, end);
        } else {
            r.ramp.setAction(start, end, static_cast<float>(next(60)) - 50.0f);
        }
        uint32_t previousEnd = 0;
        for (const FadeAction* a = r.ramp.head; a != nullptr; a = a->next) {
            ASSERT_LT(a->start, a->end);
            ASSERT_LE(previousEnd, a->start);
            ASSERT_EQ(a->next == nullptr ? r.ramp.tail : a->next->prev, a);
            previousEnd = a->end;
        }
        ASSERT_EQ(r.ramp.pending, r.ramp.head != nullptr ? 1 : 0);
        if (const FadeAction* h = r.ramp.active == 0 ? r.ramp.head : nullptr) {
            // A head cut short keeps its own slope, hence the tolerance.
            double expected = (static_cast<double>(h->target) - r.ramp.startLevel) /
                              static_cast<double>(h->end - h->start);
            ASSERT_NEAR(r.ramp.slope, expected, 1e-5 * std::fabs(expected) + 1e-9);
        }
        r.ramp.process(in.data(), out.data(), next(64));
    }
}

TEST(Fader, ReconfigurationKeepsTheScheduleRunningFromTheNewStart) {
    FaderProcessor* f = FaderProcessor::create(64, 1, 1000, 0.0f, 0.0f, 0.0f);
    ASSERT_NE(f, nullptr);
    FadeRamp& ramp = f->faders[0][0];
    ramp.setAction(0.1f, 0.2f, -10.0f);
    ramp.setAction(0.3f, 0.5f, -30.0f);
    std::vector<float> in(256, 1.0f), out(256);
    f->processChained(in.data(), nullptr, out.data(), nullptr, 256);
    f->configure(64, 2, 1000);
    EXPECT_EQ(ramp.position, 0u);
    expectSchedule(ramp, {{300, 500, -30.0f}});
    ModelRamp model(0.0f, {{300, 500, -30.0f}});
    expectRampMatchesModel(ramp, model, 600);
    EXPECT_TRUE(ramp.setAction(0.7f, 0.8f, -6.0f));
    EXPECT_EQ(ramp.pending, 1);
    dsp::destroyProcessor(f);
}

TEST(CrossFader, DefaultCurveGainsAtTheListedPositions) {
    struct Case {
        float x;
        bool first;
        float gain, tolerance; // tolerance 0: exact
    };
    const Case cases[] = {
        {0.0f, true, modelDecibelGain(-1.0f), 0.0f},
        {0.0f, false, modelDecibelGain(-1.0f), 0.0f},
        {0.0f, true, 0.89125f, 1e-5f},
        {0.05f, true, 0.99999987f, 2e-8f},
        {0.05f, false, modelDecibelGain(-1.0f - 48.75f * 0.05f), 0.0f},
        {0.06f, true, 1.0f, 0.0f},
        {0.8f, true, 1.0f, 0.0f},
        {0.8f, false, 0.0100000f, 1e-7f},
        {0.81f, false, 0.0f, 0.0f},
        {-0.05f, false, 0.99999987f, 2e-8f},
        {-0.06f, false, 1.0f, 0.0f},
        {-0.8f, true, 0.0100000f, 1e-7f},
        {-0.81f, true, 0.0f, 0.0f},
    };
    dsp::CrossFadeRamp r;
    for (const Case& c : cases) {
        EXPECT_EQ(r.levelToGain(c.x), 0.0f);
        EXPECT_NEAR(c.first ? r.gainA : r.gainB, c.gain, c.tolerance) << c.x << " " << c.first;
    }
    // Positions are clamped to -1 .. +1 while a ramp runs.
    r.initialise(16, 1000.0f, 0.0f);
    r.setAction(0.001f, 0.003f, 5.0f); // 0 at position 1, 2.5 at 2
    std::vector<float> a(4, 1.0f), b(4, 1.0f), out(4);
    r.mix(a.data(), b.data(), out.data(), 4);
    EXPECT_EQ(r.level, 1.0f);
    EXPECT_EQ(out[2], 1.0f);
    EXPECT_EQ(r.gainB, 0.0f);
}

TEST(CrossFader, NewCurveWaitsForTheNextCrossFaderAction) {
    void* h = initFader(64, 1, 1000, 0.0f, 0.0f, 0.0f);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(setCrossFaderCurve(h, -6.0f, -60.0f, -0.1f, 0.5f), 1u);
    std::vector<int16_t> a(64, 20000), b(64, 10000), dst(64);
    const float fa = sampleToFloat(20000) * modelDecibelGain(0.0f);
    const float fb = sampleToFloat(10000) * modelDecibelGain(0.0f);
    auto mixed = [&](float db) {
        const float g = modelDecibelGain(db);
        return floatToSample(fb * g + fa * g);
    };
    doCrossFade(h, a.data(), b.data(), dst.data(), 128);
    EXPECT_EQ(dst[10], mixed(-1.0f));
    EXPECT_EQ(setCrossFaderAction(h, 0.1f, 0.2f, 0.0f), 1u);
    doCrossFade(h, a.data(), b.data(), dst.data(), 128); // positions 64..127
    EXPECT_EQ(dst[99 - 64], mixed(-1.0f));
    EXPECT_EQ(dst[100 - 64], mixed(-6.0f)); // the action's first sample, new curve
    termFader(h);
}

// Faders 0 and 1 and the cross-fader per channel through the models, against
// doCrossFade in uneven blocks; the curve is set before its action runs.
TEST(CrossFader, StereoMatchesTheModelInAnyBlocks) {
    const uint32_t frames = 3000, block = 256;
    void* h = initFader(block, 2, 1000, 0.5f, -3.0f, 0.0f);
    ASSERT_NE(h, nullptr);
    setFaderAction(h, 0, 0.2f, 1.0f, -30.0f);
    setFaderAction(h, 1, 0.5f, 1.5f, -12.0f);
    setCrossFaderAction(h, 0.1f, 2.0f, -0.9f);
    setCrossFaderCurve(h, -3.0f, -50.0f, 0.1f, 0.7f);
    std::vector<int16_t> a(2 * frames), b(2 * frames), dst(2 * frames);
    for (uint32_t i = 0; i < 2 * frames; ++i) {
        a[i] = static_cast<int16_t>((i * 7919u) % 50000u) - 25000;
        b[i] = static_cast<int16_t>((i * 104729u) % 60000u) - 30000;
    }
    for (uint32_t done = 0, step = 37, n = 0; done < frames;
         done += n, step = step * 3 % block + 1) {
        n = std::min(step, frames - done);
        ASSERT_EQ(doCrossFade(h, &a[2 * done], &b[2 * done], &dst[2 * done], n * 4), 1u);
    }
    float initialA, initialB;
    dsptest::modelCrossGains(dsptest::ModelCurve(), 0.5f, initialA, initialB);
    for (uint32_t ch = 0; ch < 2; ++ch) {
        ModelRamp fa(-3.0f, {{200, 1000, -30.0f}});
        ModelRamp fb(0.0f, {{500, 1500, -12.0f}});
        ModelRamp x(0.5f, {{100, 2000, -0.9f}}, true, {-3.0f, -50.0f, 0.1f, 0.7f});
        for (uint32_t n = 0; n < frames; ++n) {
            const double va = sampleToFloat(a[2 * n + ch]) * fa.step();
            const double vb = sampleToFloat(b[2 * n + ch]) * fb.step();
            x.step();
            const double gA = n < 100 ? initialA : x.gainA();
            const double gB = n < 100 ? initialB : x.gainB();
            ASSERT_EQ(dst[2 * n + ch], floatToSample(static_cast<float>(vb * gB + va * gA)))
                << "channel " << ch << " frame " << n;
        }
    }
    termFader(h);
}

TEST(Fader, MonoAdvancesOnlyTheChannelZeroRamps) {
    FaderProcessor* f = static_cast<FaderProcessor*>(initFader(32, 1, 44100, 0.0f, 0.0f, 0.0f));
    ASSERT_NE(f, nullptr);
    std::vector<int16_t> src(64, 1000), dst(64);
    doFade(f, 0, src.data(), dst.data(), 64);
    doFade(f, 1, src.data(), dst.data(), 20);
    doCrossFade(f, src.data(), src.data(), dst.data(), 40);
    EXPECT_EQ(f->faders[0][0].position, 32u + 20u);
    EXPECT_EQ(f->faders[1][0].position, 10u + 20u);
    EXPECT_EQ(f->cross[0].position, 20u);
    EXPECT_EQ(f->faders[0][1].position + f->faders[1][1].position + f->cross[1].position, 0u);
    termFader(f);
}

// Fader 0 in one block, in pieces of any size, and through the chain slot.
TEST(Fader, OneBlockEqualsPiecesAndTheChainSlot) {
    const uint32_t frames = 4096;
    std::vector<int16_t> src(2 * frames), whole(2 * frames), pieces(2 * frames), slot(2 * frames);
    for (uint32_t i = 0; i < 2 * frames; ++i) {
        src[i] = static_cast<int16_t>((i * 31337u) % 65535u) - 32767;
    }
    void* one = initFader(frames, 2, 8000, 0.0f, -2.0f, 0.0f);
    void* many = initFader(frames, 2, 8000, 0.0f, -2.0f, 0.0f);
    FaderProcessor* chained = FaderProcessor::create(frames, 2, 8000, 0.0f, -2.0f, 0.0f);
    for (void* h : {one, many, static_cast<void*>(chained)}) {
        setFaderAction(h, 0, 0.05f, 0.2f, -25.0f);
        setFaderAction(h, 0, 0.2f, 0.3f, 0.0f);
        setFaderAction(h, 0, 0.4f, 0.45f, -10.0f);
    }
    doFade(one, 0, src.data(), whole.data(), frames * 4);
    for (uint32_t done = 0, n = 1, take = 0; done < frames; done += take, n = n * 5 % 613 + 1) {
        take = std::min(n, frames - done);
        doFade(many, 0, &src[2 * done], &pieces[2 * done], take * 4);
    }
    EXPECT_EQ(chained->processInterleaved(src.data(), slot.data(), frames * 4), frames * 4);
    EXPECT_EQ(whole, pieces);
    EXPECT_EQ(whole, slot);
    ModelRamp left(-2.0f, {{400, 1600, -25.0f}, {1600, 2400, 0.0f}, {3200, 3600, -10.0f}});
    for (uint32_t i = 0; i < frames; ++i) {
        ASSERT_EQ(whole[2 * i], floatToSample(sampleToFloat(src[2 * i]) * left.step())) << i;
    }
    termFader(one);
    termFader(many);
    dsp::destroyProcessor(chained);
}

TEST(Fader, ForeignHandlesBadIndicesAndFailedInitsAreRefused) {
    void* chorus = initChorus(64, 1, 44100, 1, 10.0f, 1.0f, 1.0f, 50.0f, 50.0f);
    ASSERT_NE(chorus, nullptr);
    int16_t buf[64] = {};
    for (void* h : {static_cast<void*>(nullptr), chorus}) {
        EXPECT_EQ(setFaderAction(h, 0, 1.0f, 2.0f, 0.0f) + delFaderAction(h, 0, 1.0f, 2.0f) +
                      setCrossFaderAction(h, 1.0f, 2.0f, 0.0f) +
                      delCrossFaderAction(h, 1.0f, 2.0f) +
                      setCrossFaderCurve(h, 0.0f, 0.0f, 0.0f, 0.0f) + doFade(h, 0, buf, buf, 64) +
                      doCrossFade(h, buf, buf, buf, 64) + termFader(h),
                  0u);
    }
    termChorus(chorus);

    void* h = initFader(32, 1, 1000, 0.0f, 0.0f, 0.0f);
    FaderProcessor* f = static_cast<FaderProcessor*>(h);
    EXPECT_EQ(setFaderAction(h, 2, 0.1f, 0.2f, -10.0f), 0u);
    EXPECT_EQ(delFaderAction(h, 7, 0.1f, 0.2f), 0u);
    std::vector<int16_t> src(32, 100), dst(32, -5);
    EXPECT_EQ(doFade(h, 2, src.data(), dst.data(), 64), 0u);
    EXPECT_EQ(dst[0], -5);
    EXPECT_EQ(f->faders[0][0].position, 0u);
    // Refused and accepted requests both answer 1; both channels get them.
    const FadeRamp* fader1[] = {&f->faders[1][0], &f->faders[1][1]};
    const FadeRamp* cross[] = {&f->cross[0], &f->cross[1]};
    EXPECT_EQ(setFaderAction(h, 1, 0.2f, 0.1f, -10.0f), 1u);
    EXPECT_EQ(setFaderAction(h, 1, 0.1f, 0.2f, -10.0f), 1u);
    EXPECT_EQ(setCrossFaderAction(h, 0.1f, 0.2f, 1.0f), 1u);
    for (int ch = 0; ch < 2; ++ch) {
        expectSchedule(*fader1[ch], {{100, 200, -10.0f}});
        expectSchedule(*cross[ch], {{100, 200, 1.0f}});
    }
    EXPECT_EQ(delFaderAction(h, 1, 0.1f, 0.2f) + delCrossFaderAction(h, 0.1f, 0.2f), 2u);
    for (int ch = 0; ch < 2; ++ch) {
        expectSchedule(*fader1[ch], {});
        expectSchedule(*cross[ch], {});
    }
    EXPECT_EQ(termFader(h), 1u);

    const uint32_t total = fastmemGetAllocatedSize();
    dsp::fastmemPool().setSystemAllocator([](size_t) -> void* { return nullptr; });
    h = initFader(1024, 2, 44100, 0.0f, 0.0f, 0.0f);
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    EXPECT_EQ(initFader(16, 3, 44100, 0.0f, 0.0f, 0.0f), nullptr);
}

} // namespace
