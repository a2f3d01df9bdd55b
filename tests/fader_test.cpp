// Fader and cross-fader: gains from the decibel table, action timing and the
// schedule edits, the cross-fade curve, the exports and the chain slots,
// checked against the model in support/fader_model.h.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "effects/fader_processor.h"
#include "support/fader_model.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using dsp::FadeAction;
using dsp::FadeRamp;
using dsp::FaderProcessor;
using dsptest::ModelAction;
using dsptest::modelDecibelGain;
using dsptest::modelLevelReached;
using dsptest::ModelRamp;

// A ramp at `rate` Hz starting from `level`.
struct Ramp {
    FadeRamp ramp;
    Ramp(float level, float rate = 1000.0f) { ramp.initialise(256, rate, level); }
};

std::vector<ModelAction> scheduleOf(const FadeRamp& ramp) {
    std::vector<ModelAction> out;
    for (const FadeAction* a = ramp.head; a != nullptr; a = a->next) {
        out.push_back({a->start, a->end, a->target});
        // Links must agree both ways.
        if (a->next != nullptr) {
            EXPECT_EQ(a->next->prev, a);
        } else {
            EXPECT_EQ(ramp.tail, a);
        }
    }
    return out;
}

void expectSchedule(const FadeRamp& ramp, const std::vector<ModelAction>& expected) {
    std::vector<ModelAction> got = scheduleOf(ramp);
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].start, expected[i].start) << "entry " << i;
        EXPECT_EQ(got[i].end, expected[i].end) << "entry " << i;
        EXPECT_EQ(got[i].target, expected[i].target) << "entry " << i;
    }
    EXPECT_EQ(ramp.pending, expected.empty() ? 0 : 1);
}

// Runs `frames` ones through the ramp and the model; every gain must match.
void expectRampMatchesModel(FadeRamp& ramp, ModelRamp& model, uint32_t frames,
                            uint32_t block = 97) {
    std::vector<float> in(block, 1.0f), out(block);
    uint32_t done = 0;
    while (done < frames) {
        uint32_t n = std::min(block, frames - done);
        ASSERT_EQ(ramp.process(in.data(), out.data(), n), 1u);
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_EQ(out[i], model.step()) << "sample " << done + i;
        }
        done += n;
    }
}

TEST(FaderGain, InitialLevelsGoThroughTheDecibelTable) {
    struct Case {
        float level;
        float gain;
        float tolerance;
    };
    const Case cases[] = {{0.0f, 0.99999987f, 2e-8f},
                          {-1.0f, 0.89125f, 1e-5f},
                          {-40.0f, 0.0100000f, 1e-7f},
                          {-50.0f, 0.0031623f, 1e-7f}};
    for (const Case& c : cases) {
        Ramp r(c.level, 44100.0f);
        EXPECT_EQ(r.ramp.gain, modelDecibelGain(c.level)) << c.level;
        EXPECT_NEAR(r.ramp.gain, c.gain, c.tolerance) << c.level;
    }
    EXPECT_LT(Ramp(0.0f).ramp.gain, 1.0f);
    // -50 dB is entry 0 exactly; -60 dB wraps to the gain of +40 dB.
    EXPECT_EQ(Ramp(-50.0f).ramp.gain, static_cast<float>(std::pow(10.0, -2.5)));
    // -60 dB wraps to the entries of +40 dB; the negative fraction runs
    // toward the lower entry, so the value is close to, not equal to, 100.
    EXPECT_EQ(Ramp(-60.0f).ramp.gain, modelDecibelGain(-60.0f));
    EXPECT_NEAR(Ramp(-60.0f).ramp.gain, Ramp(40.0f).ramp.gain, 0.01f);

    // The initial gain applies from the first sample through doFade.
    void* f = initFader(16, 1, 44100, 0.0f, 0.0f, -6.0f);
    ASSERT_NE(f, nullptr);
    std::vector<int16_t> src(16, 32767), dst(16);
    EXPECT_EQ(doFade(f, 0, src.data(), dst.data(), 32), 1u);
    EXPECT_EQ(dst[0], 32766); // 32767 * 0.99999987, truncated
    EXPECT_EQ(doFade(f, 1, src.data(), dst.data(), 32), 1u);
    EXPECT_EQ(dst[5], static_cast<int16_t>(32767.0 * modelDecibelGain(-6.0f)));
    EXPECT_EQ(termFader(f), 1u);
}

TEST(FaderAction, OneToTwoSecondsAt44100RunsFrom44100UpToTheEndAt88200) {
    Ramp r(-20.0f, 44100.0f);
    ASSERT_TRUE(r.ramp.setAction(1.0f, 2.0f, 0.0f));
    expectSchedule(r.ramp, {{44100, 88200, 0.0f}});
    EXPECT_EQ(r.ramp.slope, static_cast<float>(20.0 / 44100.0));

    const uint32_t frames = 90000;
    std::vector<float> in(frames, 1.0f), out(frames);
    r.ramp.process(in.data(), out.data(), frames);
    ModelRamp model(-20.0f, {{44100, 88200, 0.0f}});
    for (uint32_t n = 0; n < frames; ++n) {
        ASSERT_EQ(out[n], model.step()) << n;
    }
    const float initial = modelDecibelGain(-20.0f);
    for (uint32_t n = 0; n <= 44100; ++n) {
        ASSERT_EQ(out[n], initial) << n; // the first evaluation gives the start level
    }
    // Evaluated on every position from the start up to the end (exclusive);
    // the end sample and what follows keep the last gain.
    for (uint32_t n = 44101; n < 88200; ++n) {
        ASSERT_NE(out[n], out[n - 1]) << n;
    }
    for (uint32_t n = 88200; n < frames; ++n) {
        ASSERT_EQ(out[n], out[88199]) << n;
    }
    EXPECT_NEAR(out[88199], 1.0f, 1e-4f);
    EXPECT_EQ(r.ramp.head, nullptr);
    EXPECT_EQ(r.ramp.pending, 0);
    EXPECT_EQ(r.ramp.active, 0);
    EXPECT_EQ(r.ramp.startLevel, 0.0f);
    EXPECT_EQ(r.ramp.position, frames);
}

TEST(FaderAction, RefusesStartsNotAfterThePositionAndEmptyIntervals) {
    Ramp r(0.0f, 44100.0f);
    std::vector<float> in(44100, 1.0f), out(44100);
    r.ramp.process(in.data(), out.data(), 44100);
    EXPECT_FALSE(r.ramp.setAction(1.0f, 2.0f, -10.0f)); // start == position
    EXPECT_FALSE(r.ramp.setAction(0.5f, 2.0f, -10.0f));
    EXPECT_FALSE(r.ramp.setAction(3.0f, 3.0f, -10.0f));
    EXPECT_FALSE(r.ramp.setAction(3.0f, 2.5f, -10.0f));
    EXPECT_FALSE(r.ramp.removeRange(1.0f, 2.0f));
    expectSchedule(r.ramp, {});
    EXPECT_TRUE(r.ramp.setAction(1.1f, 2.0f, -10.0f));
    expectSchedule(r.ramp, {{48510, 88200, -10.0f}});
}

TEST(FaderAction, AppendedActionStartsFromThePreviousTarget) {
    Ramp r(0.0f);
    ASSERT_TRUE(r.ramp.setAction(0.1f, 0.2f, -10.0f));
    ASSERT_TRUE(r.ramp.setAction(0.3f, 0.4f, -20.0f));
    ASSERT_TRUE(r.ramp.setAction(0.4f, 0.5f, 6.0f)); // adjacent: appended too
    expectSchedule(r.ramp, {{100, 200, -10.0f}, {300, 400, -20.0f}, {400, 500, 6.0f}});
    ModelRamp model(0.0f, scheduleOf(r.ramp));
    expectRampMatchesModel(r.ramp, model, 600);
    // Between the actions the first target holds.
    EXPECT_EQ(r.ramp.startLevel, 6.0f);
    EXPECT_EQ(r.ramp.gain,
              modelDecibelGain(static_cast<float>(-20.0 + 99.0 * static_cast<double>(0.26f))));
}

TEST(FaderAction, NewActionInsideARunningOneCutsItAtTheLevelReached) {
    Ramp r(0.0f);
    ASSERT_TRUE(r.ramp.setAction(0.1f, 0.5f, -40.0f));
    std::vector<float> in(200, 1.0f), out(200);
    r.ramp.process(in.data(), out.data(), 200);
    ASSERT_EQ(r.ramp.active, 1);
    ASSERT_TRUE(r.ramp.setAction(0.3f, 0.6f, -10.0f));
    const float reached = modelLevelReached(0.0f, -40.0f, 100, 500, 300);
    EXPECT_NEAR(reached, -20.0f, 1e-5f);
    expectSchedule(r.ramp, {{100, 300, reached}, {300, 600, -10.0f}});
    // The running ramp keeps its slope; only its end and target changed.
    EXPECT_EQ(r.ramp.slope, static_cast<float>(-40.0 / 400.0));

    Ramp fresh(0.0f);
    fresh.ramp.setAction(0.1f, 0.5f, -40.0f);
    fresh.ramp.process(in.data(), out.data(), 200);
    ModelRamp model(0.0f, {{100, 300, reached}, {300, 600, -10.0f}});
    for (int i = 0; i < 200; ++i) {
        model.step();
    }
    expectRampMatchesModel(r.ramp, model, 500);
}

TEST(FaderAction, NewActionAcrossSeveralReplacesThemAndTrimsTheLast) {
    Ramp r(0.0f);
    r.ramp.setAction(0.1f, 0.2f, -10.0f);
    r.ramp.setAction(0.25f, 0.3f, -20.0f);
    r.ramp.setAction(0.35f, 0.5f, -30.0f);
    r.ramp.setAction(0.55f, 0.6f, -5.0f);
    ASSERT_TRUE(r.ramp.setAction(0.15f, 0.4f, 3.0f));
    const float reached = modelLevelReached(0.0f, -10.0f, 100, 200, 150);
    expectSchedule(r.ramp,
                   {{100, 150, reached}, {150, 400, 3.0f}, {400, 500, -30.0f}, {550, 600, -5.0f}});
    ModelRamp model(0.0f, scheduleOf(r.ramp));
    expectRampMatchesModel(r.ramp, model, 700);
}

TEST(FaderAction, NewActionInAGapProlongsThePrecedingRamp) {
    Ramp r(0.0f);
    r.ramp.setAction(0.1f, 0.2f, -10.0f);
    r.ramp.setAction(0.5f, 0.6f, -20.0f);
    ASSERT_TRUE(r.ramp.setAction(0.25f, 0.3f, -3.0f));
    const float reached = modelLevelReached(0.0f, -10.0f, 100, 200, 250);
    EXPECT_NEAR(reached, -15.0f, 1e-5f);
    expectSchedule(r.ramp, {{100, 250, reached}, {250, 300, -3.0f}, {500, 600, -20.0f}});
}

TEST(FaderRemoval, RangeCoveringAnActionDropsItAndTheLevelHolds) {
    Ramp r(0.0f);
    r.ramp.setAction(0.1f, 0.2f, -10.0f);
    r.ramp.setAction(0.3f, 0.4f, -20.0f);
    r.ramp.setAction(0.5f, 0.6f, -30.0f);
    ASSERT_TRUE(r.ramp.removeRange(0.25f, 0.45f));
    const float reached = modelLevelReached(0.0f, -10.0f, 100, 200, 250);
    expectSchedule(r.ramp, {{100, 250, reached}, {500, 600, -30.0f}});
    ModelRamp model(0.0f, scheduleOf(r.ramp));
    std::vector<float> in(700, 1.0f), out(700);
    r.ramp.process(in.data(), out.data(), 700);
    for (uint32_t n = 0; n < 700; ++n) {
        ASSERT_EQ(out[n], model.step()) << n;
    }
    // From the range's start to the next action the level holds.
    // (the gain computed for 249 holds; the next action starts at 500 from
    // the level reached at 250).
    for (uint32_t n = 250; n < 500; ++n) {
        ASSERT_EQ(out[n], out[249]) << n;
    }
    EXPECT_EQ(out[500], modelDecibelGain(reached));
}

TEST(FaderRemoval, ActionRunningOutOfTheRangeBeginsAtItsEnd) {
    Ramp r(0.0f);
    r.ramp.setAction(0.1f, 0.2f, -10.0f);
    r.ramp.setAction(0.3f, 0.5f, -20.0f);
    ASSERT_TRUE(r.ramp.removeRange(0.25f, 0.4f));
    const float reached = modelLevelReached(0.0f, -10.0f, 100, 200, 250);
    expectSchedule(r.ramp, {{100, 250, reached}, {400, 500, -20.0f}});
    // Removing beyond everything or from an empty schedule changes nothing.
    ASSERT_TRUE(r.ramp.removeRange(0.6f, 0.7f));
    expectSchedule(r.ramp, {{100, 250, reached}, {400, 500, -20.0f}});
    Ramp empty(0.0f);
    EXPECT_TRUE(empty.ramp.removeRange(0.1f, 0.2f));
    expectSchedule(empty.ramp, {});
    // Removing everything leaves the ramp idle.
    ASSERT_TRUE(r.ramp.removeRange(0.05f, 0.6f));
    expectSchedule(r.ramp, {});
}

TEST(FaderOverlap, ActionBeforeAWaitingHeadBecomesTheHead) {
    Ramp r(-6.0f);
    r.ramp.setAction(0.3f, 0.4f, -20.0f);
    ASSERT_TRUE(r.ramp.setAction(0.1f, 0.2f, -10.0f));
    expectSchedule(r.ramp, {{100, 200, -10.0f}, {300, 400, -20.0f}});
    EXPECT_EQ(r.ramp.slope, static_cast<float>(-4.0 / 100.0));

    // Overlapping the head: the head now begins at the new end.
    Ramp o(-6.0f);
    o.ramp.setAction(0.3f, 0.4f, -20.0f);
    ASSERT_TRUE(o.ramp.setAction(0.1f, 0.35f, 0.0f));
    expectSchedule(o.ramp, {{100, 350, 0.0f}, {350, 400, -20.0f}});
    EXPECT_EQ(o.ramp.slope, static_cast<float>(6.0 / 250.0));
    ModelRamp model(-6.0f, scheduleOf(o.ramp));
    expectRampMatchesModel(o.ramp, model, 500);

    // A removal there: the trimmed head ramps from the start level.
    Ramp d(-6.0f);
    d.ramp.setAction(0.3f, 0.4f, -20.0f);
    ASSERT_TRUE(d.ramp.removeRange(0.1f, 0.35f));
    expectSchedule(d.ramp, {{350, 400, -20.0f}});
    EXPECT_EQ(d.ramp.slope, static_cast<float>(-14.0 / 50.0));
}

TEST(FaderOverlap, ActionInsideOneActionSplitsIt) {
    Ramp r(0.0f);
    r.ramp.setAction(0.1f, 0.5f, -40.0f);
    ASSERT_TRUE(r.ramp.setAction(0.2f, 0.3f, -5.0f));
    const float reached = modelLevelReached(0.0f, -40.0f, 100, 500, 200);
    expectSchedule(r.ramp, {{100, 200, reached}, {200, 300, -5.0f}, {300, 500, -40.0f}});
    EXPECT_EQ(r.ramp.slope, static_cast<float>(-40.0 / 400.0));
    ModelRamp model(0.0f, scheduleOf(r.ramp));
    expectRampMatchesModel(r.ramp, model, 600);

    // A removal splits without a middle part: the rest ramps from the level
    // reached at the range's start.
    Ramp d(0.0f);
    d.ramp.setAction(0.1f, 0.5f, -40.0f);
    ASSERT_TRUE(d.ramp.removeRange(0.2f, 0.3f));
    expectSchedule(d.ramp, {{100, 200, reached}, {300, 500, -40.0f}});

    // A remainder of zero length is dropped.
    Ramp z(0.0f);
    z.ramp.setAction(0.1f, 0.5f, -40.0f);
    ASSERT_TRUE(z.ramp.setAction(0.2f, 0.5f, -5.0f));
    expectSchedule(z.ramp, {{100, 200, reached}, {200, 500, -5.0f}});
}

TEST(FaderOverlap, ActionCutToZeroLengthIsDropped) {
    Ramp r(-3.0f);
    r.ramp.setAction(0.1f, 0.5f, -40.0f);
    ASSERT_TRUE(r.ramp.setAction(0.1f, 0.3f, 0.0f));
    expectSchedule(r.ramp, {{100, 300, 0.0f}, {300, 500, -40.0f}});
    EXPECT_EQ(r.ramp.slope, static_cast<float>(3.0 / 200.0));
    ModelRamp model(-3.0f, scheduleOf(r.ramp));
    expectRampMatchesModel(r.ramp, model, 600);

    // Exactly covering the only action replaces it.
    Ramp same(-3.0f);
    same.ramp.setAction(0.1f, 0.5f, -40.0f);
    ASSERT_TRUE(same.ramp.setAction(0.1f, 0.5f, -7.0f));
    expectSchedule(same.ramp, {{100, 500, -7.0f}});
    EXPECT_EQ(same.ramp.slope, static_cast<float>(-4.0 / 400.0));
    ASSERT_TRUE(same.ramp.removeRange(0.1f, 0.5f));
    expectSchedule(same.ramp, {});

    // A later entry cut to zero length at the new start.
    Ramp later(0.0f);
    later.ramp.setAction(0.1f, 0.2f, -10.0f);
    later.ramp.setAction(0.3f, 0.4f, -20.0f);
    ASSERT_TRUE(later.ramp.setAction(0.3f, 0.35f, -1.0f));
    expectSchedule(later.ramp, {{100, 200, -10.0f}, {300, 350, -1.0f}, {350, 400, -20.0f}});
}

// Random edits mixed with processing: the schedule must stay sorted, free of
// overlaps and zero-length entries, and its head slope must match its ramp.
TEST(FaderOverlap, RandomEditsKeepTheScheduleConsistent) {
    Ramp r(0.0f);
    std::vector<float> in(64, 1.0f), out(64);
    uint32_t x = 12345;
    auto next = [&x](uint32_t range) {
        x = x * 1103515245u + 12345u;
        return (x >> 8) % range;
    };
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
        if (r.ramp.head != nullptr && r.ramp.active == 0) {
            // A waiting head ramps from the start level to its target (a head
            // that was cut short keeps its own slope, hence the tolerance).
            const FadeAction* h = r.ramp.head;
            double expected = (static_cast<double>(h->target) - r.ramp.startLevel) /
                              static_cast<double>(h->end - h->start);
            ASSERT_NEAR(r.ramp.slope, expected, 1e-5 * std::fabs(expected) + 1e-9);
        }
        r.ramp.process(in.data(), out.data(), next(64));
    }
}

TEST(FaderProcessor, ReconfigurationKeepsTheScheduleRunningFromTheNewStart) {
    FaderProcessor* f = FaderProcessor::create(64, 1, 1000, 0.0f, 0.0f, 0.0f);
    ASSERT_NE(f, nullptr);
    FadeRamp& ramp = f->faders[0][0];
    ramp.setAction(0.1f, 0.2f, -10.0f);
    ramp.setAction(0.3f, 0.5f, -30.0f);
    std::vector<float> in(64, 1.0f), out(64);
    for (int i = 0; i < 4; ++i) {
        f->processChained(in.data(), nullptr, out.data(), nullptr, 64);
    }
    ASSERT_EQ(ramp.startLevel, -10.0f); // the first action has completed
    EXPECT_EQ(ramp.slope, static_cast<float>(-20.0 / 200.0));

    f->configure(64, 2, 1000);
    EXPECT_EQ(ramp.position, 0u);
    EXPECT_EQ(ramp.pending, 1);
    EXPECT_EQ(ramp.active, 0);
    EXPECT_EQ(ramp.startLevel, 0.0f);
    EXPECT_EQ(ramp.slope, static_cast<float>(-30.0 / 200.0));
    expectSchedule(ramp, {{300, 500, -30.0f}});
    EXPECT_EQ(f->inChannels, 2u);
    EXPECT_EQ(f->inRate, 1000u);
    EXPECT_EQ(f->outRate, 1000u);

    ModelRamp model(0.0f, {{300, 500, -30.0f}});
    expectRampMatchesModel(ramp, model, 600);
    // Setting actions after the reconfiguration works as before.
    EXPECT_TRUE(ramp.setAction(0.7f, 0.8f, -6.0f));
    EXPECT_EQ(ramp.pending, 1);
    dsp::destroyProcessor(f);
}

TEST(CrossFadeCurve, DefaultCurveGainsAtTheListedPositions) {
    dsp::CrossFadeRamp r;
    r.levelToGain(0.0f);
    EXPECT_EQ(r.gainA, modelDecibelGain(-1.0f));
    EXPECT_EQ(r.gainB, modelDecibelGain(-1.0f));
    EXPECT_NEAR(r.gainA, 0.89125f, 1e-5f);
    r.levelToGain(0.05f);
    EXPECT_NEAR(r.gainA, 0.99999987f, 2e-8f);
    EXPECT_LT(r.gainA, 1.0f);
    EXPECT_EQ(r.gainB, modelDecibelGain(-1.0f - 48.75f * 0.05f));
    r.levelToGain(0.06f);
    EXPECT_EQ(r.gainA, 1.0f);
    r.levelToGain(0.8f);
    EXPECT_NEAR(r.gainB, 0.0100000f, 1e-7f);
    EXPECT_EQ(r.gainA, 1.0f);
    r.levelToGain(0.81f);
    EXPECT_EQ(r.gainB, 0.0f);
    // Mirror image for the second input.
    r.levelToGain(-0.05f);
    EXPECT_NEAR(r.gainB, 0.99999987f, 2e-8f);
    r.levelToGain(-0.06f);
    EXPECT_EQ(r.gainB, 1.0f);
    r.levelToGain(-0.8f);
    EXPECT_NEAR(r.gainA, 0.0100000f, 1e-7f);
    r.levelToGain(-0.81f);
    EXPECT_EQ(r.gainA, 0.0f);
    EXPECT_EQ(r.levelToGain(0.3f), 0.0f);
    // Positions are clamped to -1 .. +1 while a ramp runs.
    r.initialise(16, 1000.0f, 0.0f);
    r.setAction(0.001f, 0.003f, 5.0f); // 0 at position 1, 2.5 at 2
    std::vector<float> a(4, 1.0f), b(4, 1.0f), out(4);
    r.mix(a.data(), b.data(), out.data(), 4);
    EXPECT_EQ(r.level, 1.0f);
    EXPECT_EQ(out[2], 1.0f);
    EXPECT_EQ(r.gainB, 0.0f);
}

TEST(CrossFadeCurve, NewCurveWaitsForTheNextCrossFaderAction) {
    void* h = initFader(64, 1, 1000, 0.0f, 0.0f, 0.0f);
    ASSERT_NE(h, nullptr);
    FaderProcessor* f = static_cast<FaderProcessor*>(h);
    EXPECT_EQ(setCrossFaderCurve(h, -6.0f, -60.0f, -0.1f, 0.5f), 1u);
    EXPECT_EQ(f->cross[0].riseWidth, 0.1f);
    EXPECT_EQ(f->curveSet, 1);
    EXPECT_EQ(f->cross[1].gainA, modelDecibelGain(-1.0f));
    std::vector<int16_t> a(64, 20000), b(64, 10000), dst(64);
    doCrossFade(h, a.data(), b.data(), dst.data(), 128);
    const float g0 = modelDecibelGain(0.0f);
    const float old = modelDecibelGain(-1.0f);
    float fa = dsp::convert::sampleToFloat(20000) * g0;
    float fb = dsp::convert::sampleToFloat(10000) * g0;
    EXPECT_EQ(dst[10], dsp::convert::floatToSample(fb * old + fa * old));

    EXPECT_EQ(setCrossFaderAction(h, 0.1f, 0.2f, 0.0f), 1u);
    doCrossFade(h, a.data(), b.data(), dst.data(), 128); // positions 64..127
    EXPECT_EQ(dst[99 - 64], dsp::convert::floatToSample(fb * old + fa * old));
    // The action's first sample evaluates position 0 with the new curve.
    const float now = modelDecibelGain(-6.0f);
    EXPECT_EQ(dst[100 - 64], dsp::convert::floatToSample(fb * now + fa * now));
    termFader(h);
}

// Runs fader 0 over a, fader 1 over b and the cross-fader, per channel,
// through the models; compares with doCrossFade in uneven blocks.
TEST(FaderProcessor, CrossFadeMatchesTheModelInStereo) {
    const uint32_t frames = 3000, block = 256;
    void* h = initFader(block, 2, 1000, 0.5f, -3.0f, 0.0f);
    ASSERT_NE(h, nullptr);
    setFaderAction(h, 0, 0.2f, 1.0f, -30.0f);
    setFaderAction(h, 1, 0.5f, 1.5f, -12.0f);
    setCrossFaderAction(h, 0.1f, 2.0f, -0.9f);
    setCrossFaderCurve(h, -3.0f, -50.0f, 0.1f, 0.7f); // before the action runs
    std::vector<int16_t> a(2 * frames), b(2 * frames), dst(2 * frames);
    for (uint32_t i = 0; i < 2 * frames; ++i) {
        a[i] = static_cast<int16_t>((i * 7919u) % 50000u) - 25000;
        b[i] = static_cast<int16_t>((i * 104729u) % 60000u) - 30000;
    }
    uint32_t done = 0, step = 37;
    while (done < frames) {
        uint32_t n = std::min(step, frames - done);
        ASSERT_EQ(doCrossFade(h, &a[2 * done], &b[2 * done], &dst[2 * done], n * 4), 1u);
        done += n;
        step = step * 3 % block + 1;
    }
    dsptest::ModelCurve curve{-3.0f, -50.0f, 0.1f, 0.7f};
    for (uint32_t ch = 0; ch < 2; ++ch) {
        ModelRamp fa(-3.0f, {{200, 1000, -30.0f}});
        ModelRamp fb(0.0f, {{500, 1500, -12.0f}});
        ModelRamp x(0.5f, {{100, 2000, -0.9f}}, true, curve);
        // The gains in force before the action ran came from the default curve.
        float initialA, initialB;
        dsptest::modelCrossGains(dsptest::ModelCurve(), 0.5f, initialA, initialB);
        for (uint32_t n = 0; n < frames; ++n) {
            float va = dsp::convert::sampleToFloat(a[2 * n + ch]) * fa.step();
            float vb = dsp::convert::sampleToFloat(b[2 * n + ch]) * fb.step();
            x.step();
            float gA = n < 100 ? initialA : x.gainA();
            float gB = n < 100 ? initialB : x.gainB();
            ASSERT_EQ(dst[2 * n + ch],
                      dsp::convert::floatToSample(static_cast<float>(static_cast<double>(vb) * gB +
                                                                     static_cast<double>(va) * gA)))
                << "channel " << ch << " frame " << n;
        }
    }
    termFader(h);
}

TEST(FaderProcessor, MonoAdvancesOnlyTheChannelZeroRamps) {
    FaderProcessor* f = static_cast<FaderProcessor*>(initFader(32, 1, 44100, 0.0f, 0.0f, 0.0f));
    ASSERT_NE(f, nullptr);
    std::vector<int16_t> src(64, 1000), dst(64);
    doFade(f, 0, src.data(), dst.data(), 64);
    doFade(f, 1, src.data(), dst.data(), 20);
    doCrossFade(f, src.data(), src.data(), dst.data(), 40);
    EXPECT_EQ(f->faders[0][0].position, 32u + 20u);
    EXPECT_EQ(f->faders[1][0].position, 10u + 20u);
    EXPECT_EQ(f->cross[0].position, 20u);
    EXPECT_EQ(f->faders[0][1].position, 0u);
    EXPECT_EQ(f->faders[1][1].position, 0u);
    EXPECT_EQ(f->cross[1].position, 0u);
    termFader(f);

    f = static_cast<FaderProcessor*>(initFader(32, 2, 44100, 0.0f, 0.0f, 0.0f));
    doFade(f, 1, src.data(), dst.data(), 64);
    doCrossFade(f, src.data(), src.data(), dst.data(), 40);
    EXPECT_EQ(f->faders[0][1].position, 10u);
    EXPECT_EQ(f->faders[1][1].position, 26u);
    EXPECT_EQ(f->cross[1].position, 10u);
    termFader(f);
}

TEST(FaderProcessor, ChainSlotsRunFaderZero) {
    FaderProcessor* f = FaderProcessor::create(128, 2, 1000, 0.0f, -6.0f, -40.0f);
    ASSERT_NE(f, nullptr);
    f->faders[0][0].setAction(0.01f, 0.05f, -20.0f);
    f->faders[0][1].setAction(0.02f, 0.06f, 3.0f);
    std::vector<float> inL(128), inR(128), outL(128), outR(128);
    for (uint32_t i = 0; i < 128; ++i) {
        inL[i] = 0.001f * i;
        inR[i] = -0.5f + 0.002f * i;
    }
    EXPECT_EQ(f->processChained(inL.data(), inR.data(), outL.data(), outR.data(), 128), 128u);
    ModelRamp left(-6.0f, {{10, 50, -20.0f}}), right(-6.0f, {{20, 60, 3.0f}});
    for (uint32_t i = 0; i < 128; ++i) {
        ASSERT_EQ(outL[i], inL[i] * left.step()) << i;
        ASSERT_EQ(outR[i], inR[i] * right.step()) << i;
    }
    EXPECT_EQ(f->processChannel(1, inR.data(), outR.data(), 16), 16u);
    EXPECT_EQ(f->faders[0][1].position, 144u);
    EXPECT_EQ(f->faders[1][0].position, 0u);
    // processInterleaved is doFade with fader 0.
    std::vector<int16_t> src(256, 3000), viaSlot(256), viaExport(256);
    FaderProcessor* g = FaderProcessor::create(128, 2, 1000, 0.0f, -6.0f, -40.0f);
    FaderProcessor* h = FaderProcessor::create(128, 2, 1000, 0.0f, -6.0f, -40.0f);
    g->setFaderAction(0, 0.01f, 0.1f, 0.0f);
    h->setFaderAction(0, 0.01f, 0.1f, 0.0f);
    EXPECT_EQ(g->processInterleaved(src.data(), viaSlot.data(), 512), 512u);
    EXPECT_EQ(doFade(h, 0, src.data(), viaExport.data(), 512), 1u);
    EXPECT_EQ(viaSlot, viaExport);
    dsp::destroyProcessor(f);
    dsp::destroyProcessor(g);
    dsp::destroyProcessor(h);
}

TEST(FaderProcessor, OneBlockEqualsTheSameSamplesInPieces) {
    const uint32_t frames = 4096;
    std::vector<int16_t> src(2 * frames), whole(2 * frames), pieces(2 * frames);
    for (uint32_t i = 0; i < 2 * frames; ++i) {
        src[i] = static_cast<int16_t>((i * 31337u) % 65535u) - 32767;
    }
    void* one = initFader(frames, 2, 8000, 0.0f, -2.0f, 0.0f);
    void* many = initFader(frames, 2, 8000, 0.0f, -2.0f, 0.0f);
    for (void* h : {one, many}) {
        setFaderAction(h, 0, 0.05f, 0.2f, -25.0f);
        setFaderAction(h, 0, 0.2f, 0.3f, 0.0f);
        setFaderAction(h, 0, 0.4f, 0.45f, -10.0f);
    }
    doFade(one, 0, src.data(), whole.data(), frames * 4);
    uint32_t done = 0, n = 1;
    while (done < frames) {
        uint32_t take = std::min(n, frames - done);
        doFade(many, 0, &src[2 * done], &pieces[2 * done], take * 4);
        done += take;
        n = n * 5 % 613 + 1;
    }
    EXPECT_EQ(whole, pieces);
    termFader(one);
    termFader(many);
}

TEST(FaderExports, WrongHandlesAndFaderIndicesAreRefused) {
    void* chorus = initChorus(64, 1, 44100, 1, 10.0f, 1.0f, 1.0f, 50.0f, 50.0f);
    ASSERT_NE(chorus, nullptr);
    int16_t buf[64] = {};
    for (void* h : {static_cast<void*>(nullptr), chorus}) {
        EXPECT_EQ(setFaderAction(h, 0, 1.0f, 2.0f, 0.0f), 0u);
        EXPECT_EQ(delFaderAction(h, 0, 1.0f, 2.0f), 0u);
        EXPECT_EQ(setCrossFaderAction(h, 1.0f, 2.0f, 0.0f), 0u);
        EXPECT_EQ(delCrossFaderAction(h, 1.0f, 2.0f), 0u);
        EXPECT_EQ(setCrossFaderCurve(h, 0.0f, 0.0f, 0.0f, 0.0f), 0u);
        EXPECT_EQ(doFade(h, 0, buf, buf, 64), 0u);
        EXPECT_EQ(doCrossFade(h, buf, buf, buf, 64), 0u);
        EXPECT_EQ(termFader(h), 0u);
    }
    termChorus(chorus);

    void* h = initFader(32, 1, 1000, 0.0f, 0.0f, 0.0f);
    FaderProcessor* f = static_cast<FaderProcessor*>(h);
    EXPECT_EQ(setFaderAction(h, 2, 0.1f, 0.2f, -10.0f), 0u);
    EXPECT_EQ(delFaderAction(h, 7, 0.1f, 0.2f), 0u);
    int16_t src[32], dst[32];
    std::fill(src, src + 32, 100);
    std::fill(dst, dst + 32, -5);
    EXPECT_EQ(doFade(h, 2, src, dst, 64), 0u);
    EXPECT_EQ(dst[0], -5);
    for (auto& pair : f->faders) {
        for (FadeRamp& r : pair) {
            EXPECT_EQ(r.head, nullptr);
            EXPECT_EQ(r.position, 0u);
        }
    }
    // Refused and accepted requests both answer 1.
    EXPECT_EQ(setFaderAction(h, 1, 0.2f, 0.1f, -10.0f), 1u);
    EXPECT_EQ(setFaderAction(h, 1, 0.1f, 0.2f, -10.0f), 1u);
    expectSchedule(f->faders[1][0], {{100, 200, -10.0f}});
    expectSchedule(f->faders[1][1], {{100, 200, -10.0f}});
    EXPECT_EQ(delFaderAction(h, 1, 0.1f, 0.2f), 1u);
    expectSchedule(f->faders[1][1], {});
    EXPECT_EQ(setCrossFaderAction(h, 0.1f, 0.2f, 1.0f), 1u);
    expectSchedule(f->cross[1], {{100, 200, 1.0f}});
    EXPECT_EQ(delCrossFaderAction(h, 0.1f, 0.2f), 1u);
    expectSchedule(f->cross[0], {});
    EXPECT_EQ(termFader(h), 1u);
}

void* failingAlloc(size_t) {
    return nullptr;
}

TEST(FaderExports, InitFailsCleanlyWhenThePoolFails) {
    uint32_t total = fastmemGetAllocatedSize();
    dsp::fastmemPool().setSystemAllocator(failingAlloc);
    void* h = initFader(1024, 2, 44100, 0.0f, 0.0f, 0.0f);
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    EXPECT_EQ(initFader(16, 3, 44100, 0.0f, 0.0f, 0.0f), nullptr);
}

} // namespace
