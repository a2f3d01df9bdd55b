// Cases of the granular engines that the per-area suites left open: reads
// that run ahead across the 32768-frame inner chunks of one long call.
#include "dsp.h"
#include "granular/grain_setup.h"
#include "granular/pitch_shift_processor.h"
#include "granular/stretch_processor.h"
#include "support/granular_model.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

constexpr uint32_t kRate = 44100;
constexpr uint32_t kChunk = 32768;

// Silence, then 0.5 from the second inner chunk of the call on.
std::vector<float> silenceThenStep(size_t n) {
    std::vector<float> x(n, 0.0f);
    for (size_t i = kChunk; i < n; ++i) {
        x[i] = 0.5f;
    }
    return x;
}

// Right after a change from an octave down to an octave up, grains spawned
// under the old offset read ahead of the current sample (at 2 x age). In a
// call longer than one chunk those reads reach the caller's samples after the
// first chunk: the first chunk's output must see them, although its own input
// and the history are silent.
TEST(GranularReview, PitchReadsAheadIntoTheNextChunkOfTheSameCall) {
    for (float grain : {0.3f, 0.5f}) { // with and without the tabled weights
        auto* p = static_cast<dsp::PitchShiftProcessor*>(
            initPitchShift(40000, 1, kRate, -1200.0f, 0.0f, grain, 0.01f));
        ASSERT_NE(p, nullptr);
        dsptest::PitchModel model(kRate, -1200.0f, 0.0f, grain, 0.01f);
        p->setPitch(1200.0f);
        model.setPitch(1200.0f);
        std::vector<float> lead(5000, 0.0f), out(40000);
        p->processChannel(0, lead.data(), out.data(), 5000);
        model.run(lead);

        std::vector<float> in = silenceThenStep(40000);
        p->processChannel(0, in.data(), out.data(), 40000);
        size_t heard = 0;
        for (size_t n = 0; n < kChunk; ++n) {
            heard += out[n] != 0.0f ? 1 : 0;
            ASSERT_LE(out[n], 0.5f + 1e-6f) << n;
        }
        EXPECT_GT(heard, 0u) << grain;
        EXPECT_EQ(out, model.run(in)) << grain;
        termPitchShift(p);
    }
}

// The same for the stretcher: from factor 1/8 to 4, a grain spawned near
// the end of the lead-in at input position 8 j keeps reading one sample per
// output frame while the new factor walks four output frames per input
// sample, so a long grain reaches past the first chunk.
TEST(GranularReview, StretchReadsAheadIntoTheNextChunkOfTheSameCall) {
    auto* p = static_cast<dsp::StretchProcessor*>(
        initStretch(40000, 1, kRate, 3000.0f, 0.0f, 1.0f, 0.01f));
    ASSERT_NE(p, nullptr);
    dsptest::StretchModel model(kRate, 3000.0f, 0.0f, 1.0f, 0.01f);
    p->setScale(-2000.0f);
    model.setScale(-2000.0f);
    std::vector<float> lead(kChunk, 0.0f), out(4 * 40000), expected;
    EXPECT_EQ(p->processChannel(0, lead.data(), out.data(), kChunk), kChunk / 8);
    model.run(lead, expected);

    std::vector<float> in = silenceThenStep(40000);
    expected.clear();
    model.run(in, expected);
    ASSERT_EQ(p->processChannel(0, in.data(), out.data(), 40000), 4u * 40000u);
    size_t heard = 0;
    for (size_t j = 0; j < 4 * kChunk; ++j) {
        heard += out[j] != 0.0f ? 1 : 0;
        ASSERT_LE(out[j], 0.5f + 1e-6f) << j;
    }
    EXPECT_GT(heard, 0u);
    EXPECT_EQ(out, expected);
    termStretch(p);
}

// getStretchDstSize scales any count by the pending factor: an odd byte
// count of a stereo stream gives a size that is no whole number of frames,
// while doStretch of that many bytes converts whole frames only.
TEST(GranularReview, StretchDstSizeOfAnOddByteCountIsAnEstimate) {
    void* h = initStretch(1000, 2, kRate, 1000.0f, 0.0f, 0.05f, 0.01f); // factor 0.5
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(getStretchDstSize(h, 4003), 2001u); // trunc(4003 x 0.5)
    EXPECT_EQ(getStretchDstSize(h, 1), 0u);
    std::vector<int16_t> src(2002, 100), dst(2000, 0);
    EXPECT_EQ(doStretch(h, src.data(), dst.data(), 4003), 2000u); // 1000 frames -> 500
    setStretchScale(h, -1500.0f);                                 // factor 2^1.5
    EXPECT_EQ(getStretchDstSize(h, 4003), 11322u);                // trunc(4003 x 2.8284271...)
    EXPECT_EQ(termStretch(h), 1u);
}

// A setup prepares every larger array before it installs any: a failed
// preparation leaves the held array alone, and only a prepared array replaces
// the held one.
TEST(GranularReview, ArrayGrowthReplacesTheHeldArrayOnlyWhenPrepared) {
    float* held = new float[2]{1.0f, 2.0f};
    {
        dsp::granular::ArrayGrowth<float> none;
        EXPECT_TRUE(none.prepare(false, 8));
        EXPECT_FALSE(none.install(held));
        dsp::granular::ArrayGrowth<float> huge;
        EXPECT_FALSE(huge.prepare(true, SIZE_MAX));
        EXPECT_FALSE(huge.install(held));
        EXPECT_EQ(held[1], 2.0f);
    }
    dsp::granular::ArrayGrowth<float> larger;
    ASSERT_TRUE(larger.prepare(true, 8));
    float* before = held;
    EXPECT_TRUE(larger.install(held));
    EXPECT_NE(held, before);
    EXPECT_FALSE(larger.install(held)); // installed once
    held[7] = 3.0f;                     // room for all eight
    delete[] held;
}

} // namespace
