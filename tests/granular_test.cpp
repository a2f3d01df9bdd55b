// The granular pitch shifter and time stretcher: pitch measured on the
// spectrum, per-sample models, sizes, exports, reads ahead across the
// 32768-frame inner chunks of one call, rebuilds that cannot allocate.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "granular/pitch_shift_channel.h"
#include "granular/stretch_channel.h"
#include "support/allocation_failure.h"
#include "support/granular_model.h"
#include "support/tone_measure.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using namespace dsptest;

// At 44000 Hz with a 0.05 s spacing the octaves and scales of +-1000 step
// whole cycles of 440 Hz per grain; scale 300 steps 5.08, lifting the line
// by 0.08 x 20 Hz.
TEST(PitchShift, SineMovesByOctavesAndKeepsItsPitchWhenStretched) {
    const std::vector<float> in = sineWave(160000, 440.0, 44000, 0.5);
    const struct {
        bool pitch;
        float setting;
        double expected;
    } cases[] = {{true, 1200.0f, 880.0},
                 {true, -1200.0f, 220.0},
                 {false, -1000.0f, 440.0},
                 {false, 1000.0f, 440.0},
                 {false, 300.0f, 441.7}};
    for (const auto& c : cases) {
        std::vector<float> out;
        if (c.pitch) {
            dsp::PitchShiftProcessor* p = makePitch(4096, 1, c.setting, 0.0f, 0.1f, 0.05f, 44000);
            out = runBlocks(p, in, 4096);
            termPitchShift(p);
        } else {
            dsp::StretchProcessor* p = makeStretch(4096, 1, c.setting, 0.0f, 0.1f, 0.05f, 44000);
            out = runBlocks(p, in, 4096);
            termStretch(p);
        }
        ASSERT_GT(out.size(), 16384u + 32768u);
        const float* x = out.data() + 16384;
        EXPECT_NEAR(dominantFrequency(x, 32768, 44000, 100, 1500, 0.25), c.expected, 0.5)
            << c.setting;
        if (c.pitch) { // the input tone is gone
            EXPECT_LT(toneMagnitude(x, 32768, 440.0, 44000),
                      0.02 * toneMagnitude(x, 32768, c.expected, 44000));
        }
    }
}

// Tabled weights and linear history against per-sample grains, through pitch
// changes beyond an octave, skipped spawns, untabled long and empty grains.
// The setting before block k is cents[k]; the level changes at k = 4.
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
        {1.0f, 0.05f, {40000, 40000, 10000}, {700, 700, -400}},
        {0.001f, 0.0f, {2000}, {100}}, // a spacing of 0 samples counts as 1
        {0.0f, kSpacing, {2000}, {0}}, // no grains: 0 cents still passes the input
    };
    std::vector<float> in = granularSignal(90000);
    for (const auto& c : cases) {
        dsp::PitchShiftProcessor* p = makePitch(40000, 1, c.cents[0], 0.0f, c.grain, c.spacing);
        ASSERT_NE(p, nullptr);
        PitchModel model(kRate, c.cents[0], 0.0f, c.grain, c.spacing);
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

// At the same rate (or 0 Hz) the engines carry on; a new rate restarts them
// as in a fresh processor.
TEST(PitchShift, ConfigureRebuildsOnlyForANewRate) {
    const std::vector<float> lead = granularSignal(256), in = granularSignal(1024);
    dsp::PitchShiftProcessor* p = makePitch(256, 1, 1200.0f);
    dsp::PitchShiftProcessor* kept = makePitch(1024, 2, 1200.0f);
    dsp::PitchShiftProcessor* fresh = makePitch(1024, 2, 1200.0f, 0.0f, kGrain, kSpacing, 22050);
    runBlocks(p, lead, 256);
    runBlocks(kept, lead, 256);
    p->configure(1024, 2, kRate);
    EXPECT_EQ(p->inChannels(), 2u);
    EXPECT_EQ(runBlocks(p, in, 1024), runBlocks(kept, in, 1024));
    p->configure(1024, 2, 22050);
    EXPECT_EQ(runBlocks(p, in, 1024), runBlocks(fresh, in, 1024));
    p->configure(1024, 2, 0);
    EXPECT_EQ(runBlocks(p, in, 1024), runBlocks(fresh, in, 1024));
    for (dsp::PitchShiftProcessor* q : {p, kept, fresh}) {
        termPitchShift(q);
    }
}

// Odd byte counts are scaled as they are, and blocks convert whole frames.
// Term gives back every buffer, the grown ones too.
TEST(Stretch, DstSizeReportsThePendingScaleWhileTheNextBlockUsesTheOld) {
    const uint32_t before = fastmemGetAllocatedSize();
    dsp::StretchProcessor* p = makeStretch(1000, 2, 0.0f);
    std::vector<int16_t> src(2002, 1000), dst(8000);
    EXPECT_EQ(setStretchScale(p, -1000.0f), 1u);
    EXPECT_EQ(getStretchDstSize(p, 4000), 8000u);
    EXPECT_GE(p->workCapacity(2), 2000u); // grown for the new factor
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 4000u);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 8000u);
    EXPECT_EQ(setStretchScale(p, 1000.0f), 1u);
    EXPECT_EQ(getStretchDstSize(p, 4000), 2000u);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 8000u);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4000), 2000u);
    EXPECT_EQ(getStretchDstSize(p, 4003), 2001u);
    EXPECT_EQ(getStretchDstSize(p, 1), 0u);
    EXPECT_EQ(doStretch(p, src.data(), dst.data(), 4003), 2000u);
    setStretchScale(p, -1500.0f);                  // factor 2^1.5
    EXPECT_EQ(getStretchDstSize(p, 4003), 11322u); // trunc(4003 x 2.8284271...)
    // A configure with fresh buffers keeps room for the block in flight.
    setStretchScale(p, -2000.0f);
    doStretch(p, src.data(), dst.data(), 4000);
    setStretchScale(p, 3000.0f);
    p->configure(4096, 1, kRate);
    EXPECT_EQ(p->outFrames(), 512u);
    EXPECT_GE(p->workCapacity(2), 4u * 4096u); // the next block still quadruples
    std::vector<int16_t> mono(4096, 500), wide(4 * 4096);
    EXPECT_EQ(doStretch(p, mono.data(), wide.data(), 8192), 4u * 4096u * 2u);
    EXPECT_EQ(doStretch(p, mono.data(), wide.data(), 8192), 512u * 2u);
    termStretch(p);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(Stretch, ChainSeesTheStretchedSizeThroughTheVirtualOperations) {
    dsp::StretchProcessor* p = makeStretch(1024, 2, -1000.0f);
    dsp::DspProcessor* node = p;
    node->configure(2048, 2, 48000);
    EXPECT_EQ(node->outFrames(), 4096u);
    EXPECT_EQ(node->outRate(), 48000u);
    EXPECT_EQ(node->getDstSize(8192), 16384u);
    std::vector<float> in = granularSignal(2048);
    auto chained = [&] {
        return node->processChained(in.data(), in.data(), node->work(2), node->work(3), 2048);
    };
    EXPECT_EQ(chained(), 4096u);
    // Rebuilt for the new rate: as a fresh stretcher at 48000 Hz.
    dsp::StretchProcessor* fresh = makeStretch(2048, 1, -1000.0f, 0.0f, kGrain, kSpacing, 48000);
    EXPECT_EQ(std::vector<float>(node->work(3), node->work(3) + 4096), runBlocks(fresh, in, 2048));
    termStretch(fresh);
    // A change of scale shows in the size at once and in the output a block later.
    setStretchScale(p, 1000.0f);
    EXPECT_EQ(node->getDstSize(8192), 4096u);
    EXPECT_EQ(chained(), 4096u);
    EXPECT_EQ(chained(), 1024u);
    node->configure(1000, 2, 48000); // same rate: engines kept
    EXPECT_EQ(node->outFrames(), 500u);
    termStretch(p);
}

// The setting before block k is scales[k]; the last block is a single frame.
TEST(Stretch, MatchesThePerSampleModelAcrossScaleChanges) {
    std::vector<float> in = granularSignal(60000);
    const size_t blocks[] = {1000, 40000, 777, 5000, 3223, 1};
    for (float scale : {300.0f, -700.0f, 3000.0f, -2000.0f, 150.0f}) {
        dsp::StretchProcessor* p = makeStretch(40000, 1, scale);
        StretchModel model(kRate, scale, 0.0f, kGrain, kSpacing);
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
    // Out of range scales are clamped; one that is not a number passes through
    // and reports the pass-through size.
    dsp::StretchProcessor* p = makeStretch(800, 1, 9000.0f);
    EXPECT_EQ(p->outFrames(), 100u);
    setStretchScale(p, -9000.0f);
    EXPECT_EQ(getStretchDstSize(p, 800), 3200u);
    setStretchScale(p, std::nanf(""));
    EXPECT_EQ(getStretchDstSize(p, 800), 800u);
    std::vector<float> in = granularSignal(800);
    EXPECT_EQ(runBlocks(p, in, 800).size(), 100u); // 1/8 still in use
    EXPECT_EQ(runBlocks(p, in, 800), in);
    termStretch(p);
    // A spacing of 0 samples counts as 1.
    p = makeStretch(800, 1, 500.0f, 0.0f, 0.001f, 0.0f);
    EXPECT_EQ(runBlocks(p, in, 800), StretchModel(kRate, 500.0f, 0.0f, 0.001f, 0.0f).run(in));
    termStretch(p);
    // A scale whose larger output buffers cannot be had is refused and the
    // pending one kept.
    p = makeStretch(1000, 1, 0.0f);
    dsp::fastmemPool().setSystemAllocator([](size_t) -> void* { return nullptr; });
    EXPECT_EQ(setStretchScale(p, -1000.0f), 0u);
    EXPECT_EQ(getStretchDstSize(p, 1000), 1000u);
    EXPECT_EQ(setStretchScale(p, 1000.0f), 1u); // needs no more room
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(getStretchDstSize(p, 1000), 500u);
    EXPECT_EQ(p->workCapacity(2), 1000u);
    termStretch(p);
}

// A granular family behind its exports. run returns the bytes written (the
// pitch shifter writes as many as it is given).
struct Family {
    const char* name;
    void* (*init)(uint32_t, uint32_t, uint32_t, float, float, float, float);
    uint32_t (*set)(void*, float);
    uint32_t (*run)(void*, const int16_t*, int16_t*, uint32_t);
    uint32_t (*term)(void*);
    float setting; // a shift that sounds
};
const Family kFamilies[] = {
    {"pitch", initPitchShift, setPitchShiftPitch,
     [](void* h, const int16_t* src, int16_t* dst, uint32_t bytes) {
         return doPitchShift(h, src, dst, bytes) == 1 ? bytes : 0u;
     },
     termPitchShift, 400.0f},
    {"stretch", initStretch, setStretchScale, doStretch, termStretch, -700.0f},
};

// 0 and NaN pass the input through without the level; a grain of 0 samples
// leaves no grains, so a setting that sounds gives silence.
TEST(GranularExports, ZeroPassesTheInputThroughAndEmptyGrainsAreSilent) {
    std::vector<int16_t> src(2000), expected(2000), dst(2000);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<int16_t>((static_cast<int>(i) * 7919) % 65535 - 32767);
        expected[i] = dsp::convert::floatToSample(dsp::convert::sampleToFloat(src[i]));
    }
    for (const Family& f : kFamilies) {
        void* h = f.init(1000, 2, kRate, 0.0f, -20.0f, kGrain, kSpacing);
        for (float setting : {0.0f, std::nanf("")}) {
            EXPECT_EQ(f.set(h, setting), 1u);
            for (int block = 0; block < 3; ++block) {
                EXPECT_EQ(f.run(h, src.data(), dst.data(), 4000), 4000u);
                EXPECT_EQ(dst, expected) << f.name;
            }
        }
        EXPECT_EQ(f.term(h), 1u);
        h = f.init(1000, 1, kRate, f.setting, 0.0f, 0.0f, kSpacing);
        std::vector<int16_t> loud(1000, 5000), out(2000, 1);
        const uint32_t frames = f.run(h, loud.data(), out.data(), 2000) / 2;
        ASSERT_GT(frames, 0u) << f.name;
        EXPECT_EQ(std::vector<int16_t>(out.begin(), out.begin() + frames),
                  std::vector<int16_t>(frames, 0));
        EXPECT_EQ(f.term(h), 1u);
    }
}

// One call of 3000 frames on a 256-frame processor equals calls of 256; the
// right channel is what a mono processor makes of it.
TEST(GranularExports, CallsBeyondTheBlockSizeArePieced) {
    std::vector<int16_t> src(6000), right(3000);
    for (size_t i = 0; i < 6000; ++i) {
        src[i] = static_cast<int16_t>(std::lround(20000.0 * std::sin(0.05 * i + (i % 2) * 0.3)));
        if (i % 2 == 1) {
            right[i / 2] = src[i];
        }
    }
    for (const Family& f : kFamilies) {
        void* whole = f.init(256, 2, kRate, f.setting, 0.0f, kGrain, kSpacing);
        void* pieces = f.init(256, 2, kRate, f.setting, 0.0f, kGrain, kSpacing);
        void* mono = f.init(256, 1, kRate, f.setting, 0.0f, kGrain, kSpacing);
        std::vector<int16_t> a(12000), b(12000), m(6000);
        const uint32_t bytes = f.run(whole, src.data(), a.data(), 12000);
        uint32_t total = 0, monoTotal = 0;
        for (size_t n0 = 0; n0 < 3000; n0 += 256) {
            const uint32_t n = static_cast<uint32_t>(std::min<size_t>(256, 3000 - n0));
            total += f.run(pieces, src.data() + 2 * n0, b.data() + total / 2, n * 4);
            monoTotal += f.run(mono, right.data() + n0, m.data() + monoTotal / 2, n * 2);
        }
        EXPECT_EQ(bytes, total) << f.name;
        EXPECT_EQ(a, b) << f.name;
        ASSERT_EQ(2 * monoTotal, total) << f.name;
        for (size_t i = 0; i < monoTotal / 2; ++i) {
            ASSERT_EQ(a[2 * i + 1], m[i]) << f.name << " " << i;
        }
        for (void* h : {whole, pieces, mono}) {
            f.term(h);
        }
    }
}

// The level is 10^(0.05 dB) as computed, unclamped: past the float range no
// output is finite, and a NaN level makes every output NaN.
TEST(GranularExports, OutputLevelIsComputedAsGiven) {
    const std::vector<float> in = granularSignal(1000);
    auto check = [&](auto* p, uint32_t (*setLevel)(void*, float)) {
        for (float x : runBlocks(p, in, 1000)) {
            ASSERT_FALSE(std::isfinite(x));
        }
        setLevel(p, std::nanf(""));
        for (float x : runBlocks(p, in, 1000)) {
            ASSERT_TRUE(std::isnan(x));
        }
    };
    dsp::PitchShiftProcessor* pitch = makePitch(1000, 1, 300.0f, 1e6f);
    check(pitch, setPitchShiftOutLevel);
    termPitchShift(pitch);
    dsp::StretchProcessor* stretch = makeStretch(1000, 1, 300.0f, 1e6f);
    check(stretch, setStretchOutLevel);
    termStretch(stretch);
}

constexpr uint32_t kChunk = 32768;

// Silence, then 0.5 from the second inner chunk of the call on.
std::vector<float> silenceThenStep(size_t n) {
    std::vector<float> x(n, 0.0f);
    std::fill(x.begin() + kChunk, x.end(), 0.5f);
    return x;
}

// After a change from an octave down to one up, grains spawned under the old
// offset read ahead (at 2 x age) into the caller's samples past the chunk.
TEST(GranularReview, PitchReadsAheadIntoTheNextChunkOfTheSameCall) {
    for (float grain : {0.3f, 0.5f}) { // with and without the tabled weights
        dsp::PitchShiftProcessor* p = makePitch(40000, 1, -1200.0f, 0.0f, grain);
        PitchModel model(kRate, -1200.0f, 0.0f, grain, 0.01f);
        p->setPitch(1200.0f);
        model.setPitch(1200.0f);
        const std::vector<float> lead(5000, 0.0f);
        runBlocks(p, lead, 5000);
        model.run(lead);
        const std::vector<float> in = silenceThenStep(40000);
        const std::vector<float> out = runBlocks(p, in, 40000);
        EXPECT_EQ(out, model.run(in)) << grain;
        termPitchShift(p);
    }
}

// From factor 1/8 to 4, a long grain spawned late in the lead-in reads one
// sample per output frame, four times the new walk, past the first chunk.
TEST(GranularReview, StretchReadsAheadIntoTheNextChunkOfTheSameCall) {
    dsp::StretchProcessor* p = makeStretch(40000, 1, 3000.0f, 0.0f, 1.0f);
    StretchModel model(kRate, 3000.0f, 0.0f, 1.0f, 0.01f);
    p->setScale(-2000.0f);
    model.setScale(-2000.0f);
    const std::vector<float> lead(kChunk, 0.0f);
    EXPECT_EQ(runBlocks(p, lead, kChunk).size(), kChunk / 8);
    model.run(lead);
    const std::vector<float> in = silenceThenStep(40000);
    const std::vector<float> out = runBlocks(p, in, 40000);
    ASSERT_EQ(out.size(), 4u * 40000u);
    EXPECT_EQ(out, model.run(in));
    termStretch(p);
}

// A rebuild whose allocation fails leaves the engine as if not tried; one for
// a shorter grain allocates nothing.
template <class Channel>
void expectFailedRebuildsLeaveTheEngine() {
    const std::vector<float> in = granularSignal(2000);
    std::vector<float> tried(1000), untouched(1000);
    uint64_t failures = 0;
    for (uint64_t k = 1;; ++k) {
        Channel channel, twin;
        ASSERT_TRUE(channel.setup(22050, 700.0f, 0.0f, 0.05f, 0.01f));
        ASSERT_TRUE(twin.setup(22050, 700.0f, 0.0f, 0.05f, 0.01f));
        channel.process(in.data(), tried.data(), 1000);
        twin.process(in.data(), untouched.data(), 1000);
        FailingHeap::arm(k, FailMode::OnlyAt);
        const bool rebuilt = channel.setup(44100, -300.0f, 6.0f, 0.05f, 0.005f);
        FailingHeap::disarm();
        if (rebuilt) {
            FailingHeap::arm(1, FailMode::FromThenOn);
            EXPECT_TRUE(channel.setup(22050, 700.0f, 0.0f, 0.02f, 0.01f));
            FailingHeap::disarm();
            break;
        }
        ++failures;
        EXPECT_EQ(channel.process(in.data() + 1000, tried.data(), 1000),
                  twin.process(in.data() + 1000, untouched.data(), 1000));
        EXPECT_EQ(tried, untouched) << "allocation " << k << " failing";
    }
    EXPECT_GE(failures, 3u); // history, window and grain records at least
}

TEST(GranularReview, FailedRebuildsLeaveTheEngineAsItWas) {
    if (!FailingHeap::works()) {
        GTEST_SKIP() << kNoFailingHeap;
    }
    expectFailedRebuildsLeaveTheEngine<dsp::PitchShiftChannel>();
    expectFailedRebuildsLeaveTheEngine<dsp::StretchChannel>();
}

} // namespace
