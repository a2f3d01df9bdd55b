// Fader and cross-fader against the model in support/fader_model.h.
#include "core/lookup_tables.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "effects/fader_processor.h"
#include "support/allocation_failure.h"
#include "support/fader_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using dsp::CrossFadeCurve;
using dsp::CrossFadeRamp;
using dsp::FadeAction;
using dsp::FadeRamp;
using dsp::FaderProcessor;
using dsp::FadeSchedule;
using dsp::convert::floatToSample;
using dsp::convert::sampleToFloat;
using dsptest::ModelAction;
using dsptest::modelDecibelGain;
using dsptest::modelLevelReached;
using dsptest::ModelRamp;

struct Ramp {
    FadeRamp ramp;
    explicit Ramp(float level, float rate = 1000.0f) { ramp.initialise(rate, level); }
};

void expectSchedule(const FadeSchedule& ramp, const std::vector<ModelAction>& expected) {
    const auto& actions = ramp.actions();
    ASSERT_EQ(actions.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(actions[i].start, expected[i].start) << "entry " << i;
        EXPECT_EQ(actions[i].end, expected[i].end) << "entry " << i;
        EXPECT_EQ(actions[i].target, expected[i].target) << "entry " << i;
    }
}

// Runs `frames` ones through `process(in, out, n)` in blocks of 97; every
// gain must match.
template <typename Process>
void expectGainsMatchModel(Process process, ModelRamp& model, uint32_t frames) {
    std::vector<float> in(97, 1.0f), out(97);
    for (uint32_t done = 0, n = 0; done < frames; done += n) {
        n = std::min(97u, frames - done);
        process(in.data(), out.data(), n);
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_EQ(out[i], model.step()) << "sample " << done + i;
        }
    }
}

void expectRampMatchesModel(FadeRamp& ramp, ModelRamp& model, uint32_t frames) {
    expectGainsMatchModel(
        [&](const float* in, float* out, uint32_t n) { ASSERT_EQ(ramp.process(in, out, n), 1u); },
        model, frames);
}

// The gain a ramp applies to its next sample.
float nextGain(FadeRamp& ramp) {
    const float one = 1.0f;
    float out = 0.0f;
    ramp.process(&one, &out, 1);
    return out;
}

// A ramp's initial level goes through the decibel table, with wrapped
// interpolation (-60 dB lands on +40 dB).
TEST(Fader, InitialLevelsGoThroughTheDecibelTable) {
    const dsp::DecibelTable& t = dsp::decibelTable(); // entries: checked by the model's own
    EXPECT_EQ(static_cast<float>(t.lookup(-50.0)), t.entry(0));
    for (float level : {0.0f, -1.0f, -50.0f, -60.0f}) {
        Ramp r(level, 44100.0f);
        EXPECT_EQ(nextGain(r.ramp), modelDecibelGain(level)) << level;
    }
    EXPECT_NEAR(modelDecibelGain(-60.0f), 99.9977f, 1e-3f);
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
    }
    EXPECT_NEAR(out[88199], 1.0f, 1e-4f);
    EXPECT_FALSE(r.ramp.isRunning());
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
                    const std::vector<ModelAction>& expected) {
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
        float start = static_cast<float>(r.ramp.position() + next(400)) / 1000.0f;
        float end = start + static_cast<float>(next(300)) / 1000.0f;
        if (next(3) == 0) {
            r.ramp.removeRange(start, end);
        } else {
            r.ramp.setAction(start, end, static_cast<float>(next(60)) - 50.0f);
        }
        uint32_t previousEnd = 0;
        for (const FadeAction& a : r.ramp.actions()) {
            ASSERT_LT(a.start, a.end);
            ASSERT_LE(previousEnd, a.start);
            previousEnd = a.end;
        }
        if (!r.ramp.isRunning() && !r.ramp.actions().empty()) {
            // A head cut short keeps its own slope, hence the tolerance.
            const FadeAction& h = r.ramp.actions().front();
            double expected = (static_cast<double>(h.target) - r.ramp.startLevel()) /
                              static_cast<double>(h.end - h.start);
            ASSERT_NEAR(r.ramp.slope(), expected, 1e-5 * std::fabs(expected) + 1e-9);
        }
        r.ramp.process(in.data(), out.data(), next(64));
    }
}

// An edit the schedule cannot make room for is refused and changes nothing.
TEST(Fader, AnEditThatCannotAllocateChangesNothing) {
    using dsptest::FailingHeap;
    if (!FailingHeap::works()) {
        GTEST_SKIP() << dsptest::kNoFailingHeap;
    }
    Ramp r(0.0f);
    ASSERT_TRUE(r.ramp.setAction(0.1f, 0.5f, -40.0f));
    // Appended, inside the one action, a removal splitting it.
    for (const Edit& e : {set(0.6f, 0.7f, -3.0f), set(0.2f, 0.3f, -5.0f), del(0.2f, 0.3f)}) {
        FailingHeap::arm(1, dsptest::FailMode::FromThenOn);
        const bool done = e.remove ? r.ramp.removeRange(e.start, e.end)
                                   : r.ramp.setAction(e.start, e.end, e.target);
        FailingHeap::disarm();
        EXPECT_FALSE(done);
        expectSchedule(r.ramp, {{100, 500, -40.0f}});
    }
    ModelRamp model(0.0f, {{100, 500, -40.0f}});
    expectRampMatchesModel(r.ramp, model, 600);
}

TEST(Fader, ReconfigurationKeepsTheScheduleRunningFromTheNewStart) {
    FaderProcessor* f = FaderProcessor::create(64, 1, 1000, 0.0f, 0.0f, 0.0f);
    ASSERT_NE(f, nullptr);
    const FadeRamp& ramp = f->faderRamp(0, 0);
    f->setFaderAction(0, 0.1f, 0.2f, -10.0f);
    f->setFaderAction(0, 0.3f, 0.5f, -30.0f);
    std::vector<float> in(256, 1.0f), out(256);
    f->processChained(in.data(), nullptr, out.data(), nullptr, 256);
    f->configure(64, 2, 1000);
    EXPECT_EQ(ramp.position(), 0u);
    expectSchedule(ramp, {{300, 500, -30.0f}});
    ModelRamp model(0.0f, {{300, 500, -30.0f}});
    expectGainsMatchModel(
        [&](const float* i, float* o, uint32_t n) { EXPECT_EQ(f->processChannel(0, i, o, n), n); },
        model, 600);
    f->setFaderAction(0, 0.7f, 0.8f, -6.0f);
    expectSchedule(ramp, {{700, 800, -6.0f}});
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
    for (const Case& c : cases) {
        const dsp::CrossFadeGains g = CrossFadeCurve().gainsAt(c.x, dsp::decibelTable());
        EXPECT_NEAR(c.first ? g.a : g.b, c.gain, c.tolerance) << c.x << " " << c.first;
    }
}

// A rise width of 2 tells a clamped position 1 from 2.5: the clamp holds
// while a ramp runs and where a new action cuts it.
TEST(CrossFader, PositionsAreClampedToPlusMinusOne) {
    const dsptest::ModelCurve wide{-1.0f, -40.0f, 2.0f, 0.8f};
    float atOneA, atOneB;
    dsptest::modelCrossGains(wide, 1.0f, atOneA, atOneB);
    CrossFadeRamp r;
    r.setCurve(CrossFadeCurve(wide.centre, wide.fall, wide.rise, wide.fallWidth));
    r.initialise(1000.0f, 0.0f);
    r.setAction(0.001f, 0.003f, 5.0f); // 0 at position 1, 2.5 at 2
    std::vector<float> a(4, 1.0f), b(4, 0.0f), out(4);
    EXPECT_EQ(r.mix(a.data(), b.data(), out.data(), 4), 1u);
    EXPECT_EQ(out[2], atOneA);
    EXPECT_NE(out[2], 1.0f);

    CrossFadeRamp cut;
    cut.initialise(1000.0f, 0.0f);
    cut.setAction(0.001f, 0.011f, 5.0f); // 0.5 per sample from position 1
    cut.mix(a.data(), b.data(), out.data(), 4);
    cut.setAction(0.008f, 0.02f, 0.0f); // cuts it where it reaches 3.5
    expectSchedule(cut, {{1, 8, 1.0f}, {8, 20, 0.0f}});
}

// Both faders and the cross-fader per channel against the models in uneven
// blocks; a new curve waits for the next cross-fader action.
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
        a[i] = static_cast<int16_t>(static_cast<int32_t>((i * 7919u) % 50000u) - 25000);
        b[i] = static_cast<int16_t>(static_cast<int32_t>((i * 104729u) % 60000u) - 30000);
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

// Fader 0 in one block, in pieces of any size, and through the chain slot.
TEST(Fader, OneBlockEqualsPiecesAndTheChainSlot) {
    const uint32_t frames = 4096;
    std::vector<int16_t> src(2 * frames), whole(2 * frames), pieces(2 * frames), slot(2 * frames);
    for (uint32_t i = 0; i < 2 * frames; ++i) {
        src[i] = static_cast<int16_t>(static_cast<int32_t>((i * 31337u) % 65535u) - 32767);
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

// Mono: indices beyond 1 are refused; requests reach both channels' ramps,
// processing advances only channel 0's.
TEST(Fader, BadIndicesRequestsForBothChannelsAndMonoProcessing) {
    void* h = initFader(32, 1, 1000, 0.0f, 0.0f, 0.0f);
    FaderProcessor* f = static_cast<FaderProcessor*>(h);
    EXPECT_EQ(setFaderAction(h, 2, 0.1f, 0.2f, -10.0f), 0u);
    EXPECT_EQ(delFaderAction(h, 7, 0.1f, 0.2f), 0u);
    std::vector<int16_t> src(32, 100), dst(32, -5);
    EXPECT_EQ(doFade(h, 2, src.data(), dst.data(), 64), 0u);
    EXPECT_EQ(dst[0], -5);
    EXPECT_EQ(f->faderRamp(0, 0).position(), 0u);
    EXPECT_EQ(setFaderAction(h, 1, 0.2f, 0.1f, -10.0f), 1u);
    EXPECT_EQ(setFaderAction(h, 1, 0.1f, 0.2f, -10.0f), 1u);
    EXPECT_EQ(setCrossFaderAction(h, 0.1f, 0.2f, 1.0f), 1u);
    for (int ch = 0; ch < 2; ++ch) {
        expectSchedule(f->faderRamp(1, ch), {{100, 200, -10.0f}});
        expectSchedule(f->crossFadeRamp(ch), {{100, 200, 1.0f}});
    }
    EXPECT_EQ(delFaderAction(h, 1, 0.1f, 0.2f) + delCrossFaderAction(h, 0.1f, 0.2f), 2u);
    for (int ch = 0; ch < 2; ++ch) {
        expectSchedule(f->faderRamp(1, ch), {});
        expectSchedule(f->crossFadeRamp(ch), {});
    }
    std::vector<int16_t> block(64, 1000), out(64);
    doFade(f, 0, block.data(), out.data(), 64);
    doFade(f, 1, block.data(), out.data(), 20);
    doCrossFade(f, block.data(), block.data(), out.data(), 40);
    EXPECT_EQ(f->faderRamp(0, 0).position(), 32u + 20u);
    EXPECT_EQ(f->faderRamp(1, 0).position(), 10u + 20u);
    EXPECT_EQ(f->crossFadeRamp(0).position(), 20u);
    EXPECT_EQ(f->faderRamp(0, 1).position() + f->faderRamp(1, 1).position() +
                  f->crossFadeRamp(1).position(),
              0u);
    EXPECT_EQ(termFader(h), 1u);
}

} // namespace
