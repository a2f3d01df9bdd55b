// Reads that run ahead across the 32768-frame inner chunks of one long call,
// the stretch size estimate of odd byte counts, and array growth.
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
    std::fill(x.begin() + kChunk, x.end(), 0.5f);
    return x;
}

// The first chunk's output hears the step (its own input and history are
// silent) and stays within it.
void expectHeardAhead(const std::vector<float>& out, size_t frames) {
    size_t heard = 0;
    for (size_t n = 0; n < frames; ++n) {
        heard += out[n] != 0.0f ? 1 : 0;
        ASSERT_LE(out[n], 0.5f + 1e-6f) << n;
    }
    EXPECT_GT(heard, 0u);
}

// After a change from an octave down to one up, grains spawned under the old
// offset read ahead (at 2 x age) into the caller's samples past the chunk.
TEST(GranularReview, PitchReadsAheadIntoTheNextChunkOfTheSameCall) {
    for (float grain : {0.3f, 0.5f}) { // with and without the tabled weights
        auto* p = static_cast<dsp::PitchShiftProcessor*>(
            initPitchShift(40000, 1, kRate, -1200.0f, 0.0f, grain, 0.01f));
        dsptest::PitchModel model(kRate, -1200.0f, 0.0f, grain, 0.01f);
        p->setPitch(1200.0f);
        model.setPitch(1200.0f);
        const std::vector<float> lead(5000, 0.0f);
        dsptest::runBlocks(p, lead, 5000);
        model.run(lead);
        const std::vector<float> in = silenceThenStep(40000);
        const std::vector<float> out = dsptest::runBlocks(p, in, 40000);
        expectHeardAhead(out, kChunk);
        EXPECT_EQ(out, model.run(in)) << grain;
        termPitchShift(p);
    }
}

// From factor 1/8 to 4, a long grain spawned late in the lead-in reads one
// sample per output frame, four times the new walk, past the first chunk.
TEST(GranularReview, StretchReadsAheadIntoTheNextChunkOfTheSameCall) {
    auto* p = static_cast<dsp::StretchProcessor*>(
        initStretch(40000, 1, kRate, 3000.0f, 0.0f, 1.0f, 0.01f));
    dsptest::StretchModel model(kRate, 3000.0f, 0.0f, 1.0f, 0.01f);
    p->setScale(-2000.0f);
    model.setScale(-2000.0f);
    const std::vector<float> lead(kChunk, 0.0f);
    EXPECT_EQ(dsptest::runBlocks(p, lead, kChunk).size(), kChunk / 8);
    model.run(lead);
    const std::vector<float> in = silenceThenStep(40000);
    const std::vector<float> out = dsptest::runBlocks(p, in, 40000);
    ASSERT_EQ(out.size(), 4u * 40000u);
    expectHeardAhead(out, 4 * kChunk);
    EXPECT_EQ(out, model.run(in));
    termStretch(p);
}

// getStretchDstSize scales any count by the pending factor; doStretch
// converts whole frames only.
TEST(GranularReview, StretchDstSizeOfAnOddByteCountIsAnEstimate) {
    void* h = initStretch(1000, 2, kRate, 1000.0f, 0.0f, 0.05f, 0.01f); // factor 0.5
    EXPECT_EQ(getStretchDstSize(h, 4003), 2001u);
    EXPECT_EQ(getStretchDstSize(h, 1), 0u);
    std::vector<int16_t> src(2002, 100), dst(2000, 0);
    EXPECT_EQ(doStretch(h, src.data(), dst.data(), 4003), 2000u); // 1000 frames -> 500
    setStretchScale(h, -1500.0f);                                 // factor 2^1.5
    EXPECT_EQ(getStretchDstSize(h, 4003), 11322u);                // trunc(4003 x 2.8284271...)
    EXPECT_EQ(termStretch(h), 1u);
}

// A failed preparation leaves the held array alone; only a prepared array
// replaces it, once.
TEST(GranularReview, ArrayGrowthReplacesTheHeldArrayOnlyWhenPrepared) {
    float* held = new float[2]{1.0f, 2.0f};
    {
        dsp::granular::ArrayGrowth<float> none, huge;
        EXPECT_TRUE(none.prepare(false, 8));
        EXPECT_FALSE(none.install(held));
        EXPECT_FALSE(huge.prepare(true, SIZE_MAX));
        EXPECT_FALSE(huge.install(held));
        EXPECT_EQ(held[1], 2.0f);
    }
    dsp::granular::ArrayGrowth<float> larger;
    ASSERT_TRUE(larger.prepare(true, 8));
    float* before = held;
    EXPECT_TRUE(larger.install(held));
    EXPECT_NE(held, before);
    EXPECT_FALSE(larger.install(held));
    held[7] = 3.0f; // room for all eight
    delete[] held;
}

} // namespace
