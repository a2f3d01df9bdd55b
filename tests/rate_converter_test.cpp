// The per-channel rate converter: counts and chunk shares, the filter order
// estimate, the exact linear and cubic paths against an independent model,
// block-size independence, the anti-alias filter and the guards.
#include "core/simd_flags.h"
#include "filters/iir_designer.h"
#include "rate/rate_converter.h"
#include "support/rate_model.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

constexpr float kRipple = 0.1f;

struct Setting {
    uint32_t srcRate;
    uint32_t dstRate;
    uint32_t interpolation;
};

std::vector<float> convertBlock(dsp::RateConverter& c, const std::vector<float>& in) {
    std::vector<float> out(in.size() * 8 + 16, -7.0f);
    uint32_t n = c.convert(in.data(), out.data(), static_cast<uint32_t>(in.size()));
    // Nothing is written past the reported count, except that equal rates
    // copy every source frame even where the count falls one short.
    size_t written = c.direction == 0 ? std::max<size_t>(n, in.size()) : n;
    for (size_t i = written; i < out.size(); ++i) {
        EXPECT_EQ(out[i], -7.0f) << "written past the count at " << i;
    }
    out.resize(n);
    return out;
}

TEST(RateConverter, WorkedFilterOrderAndCounts) {
    dsp::RateConverter c;
    EXPECT_FALSE(c.isReady());
    EXPECT_EQ(c.setup(4096, 44100, 48000, 1, 60.0f, 60.0f, 1, kRipple), 4458u);
    EXPECT_TRUE(c.isReady());
    EXPECT_TRUE(c.canConvert());
    EXPECT_EQ(c.direction, 1);
    EXPECT_EQ(c.filter.order, 8); // estimate 8.199, truncated
    EXPECT_EQ(c.filter.sections, 4);
    EXPECT_EQ(c.filter.rate, 48000.0f);      // designed at the higher rate
    EXPECT_EQ(c.filter.frequency, 11025.0f); // one octave below 22050
    EXPECT_EQ(c.outputFramesFor(4096), 4458u);
    EXPECT_EQ(c.outputFramesFor(16384), 17832u);

    // Other attenuation/slope pairs: 6.71 -> 6, 4.93 -> 4, 9.14 -> 9, 11.70 -> 11.
    const struct {
        float a, s;
        int32_t order;
        float edge;
    } cases[] = {{80, 40, 6, 22050.0f / 4},
                 {96, 24, 4, 22050.0f / 16},
                 {40, 80, 9, static_cast<float>(22050.0 / std::sqrt(2.0))},
                 {100, 100, 11, 11025}};
    for (const auto& k : cases) {
        dsp::RateConverter d;
        d.setup(1024, 48000, 44100, 0, k.a, k.s, 1, kRipple);
        EXPECT_EQ(d.direction, -1);
        EXPECT_EQ(d.filter.order, k.order) << k.a << "/" << k.s;
        EXPECT_EQ(d.filter.rate, 48000.0f);
        EXPECT_FLOAT_EQ(d.filter.frequency, k.edge);
    }
}

TEST(RateConverter, TwentyThousandFramesMakeFiveChunksOfWhichTheLastTakesTheRest) {
    dsp::RateConverter c;
    ASSERT_EQ(c.setup(20480, 44100, 48000, 0, 60.0f, 60.0f, 0, kRipple), 22291u);
    std::vector<float> in = dsptest::noiseBlock(20480, 1);
    std::vector<float> out = convertBlock(c, in);
    ASSERT_EQ(out.size(), 22291u);
    dsptest::RateModel model(44100, 48000, false);
    EXPECT_EQ(out, model.convert(in));
    EXPECT_EQ(model.chunkSizes, (std::vector<uint32_t>{4458, 4458, 4458, 4458, 4459}));
    // Every chunk ends on its last source frame.
    for (uint32_t k = 0; k < 5; ++k) {
        uint32_t lastOut = 4458 * (k + 1) - 1 + (k == 4 ? 1 : 0);
        EXPECT_EQ(out[lastOut], in[4096 * (k + 1) - 1]) << k;
    }
}

TEST(RateConverter, HalvingAnOddBlockLeavesTheOneFrameChunkWithoutOutput) {
    for (uint32_t interpolation : {0u, 1u}) {
        dsp::RateConverter c;
        c.setup(4097, 44100, 22050, interpolation, 60.0f, 60.0f, 0, kRipple);
        std::vector<float> in = dsptest::noiseBlock(4097, 2);
        std::vector<float> out = convertBlock(c, in);
        ASSERT_EQ(out.size(), 2048u);
        dsptest::RateModel model(44100, 22050, interpolation != 0);
        EXPECT_EQ(out, model.convert(in));
        EXPECT_EQ(model.chunkSizes, (std::vector<uint32_t>{2048, 0}));
        if (interpolation == 0) {
            EXPECT_EQ(out[2047], in[4095]);
        }
    }
}

TEST(RateConverter, DoublingIsExactLinearInterpolation) {
    dsp::RateConverter c;
    ASSERT_EQ(c.setup(4096, 22050, 44100, 0, 60.0f, 60.0f, 0, kRipple), 8192u);
    std::vector<float> in = dsptest::noiseBlock(4096, 3);
    std::vector<float> out = convertBlock(c, in);
    ASSERT_EQ(out.size(), 8192u);
    for (size_t k = 0; k <= 4094; ++k) {
        ASSERT_EQ(out[2 * k], in[k]) << k;
        double a = in[k];
        double b = in[k + 1];
        ASSERT_EQ(out[2 * k + 1], static_cast<float>(a + 0.5 * (b - a))) << k;
    }
    // Chunk end: the index stops at 4094 (fraction 0), then the last frame.
    EXPECT_EQ(out[8190], in[4094]);
    EXPECT_EQ(out[8191], in[4095]);
}

TEST(RateConverter, CubicLagsTwoFramesBehindAZeroHistory) {
    dsp::RateConverter c;
    c.setup(1024, 22050, 44100, 1, 60.0f, 60.0f, 0, kRipple);
    std::vector<float> first = dsptest::noiseBlock(1024, 4);
    std::vector<float> out = convertBlock(c, first);
    ASSERT_EQ(out.size(), 2048u);
    // Output 2k sits at source position k - 2: integer positions reproduce
    // the sample, and the first two come from the zero history.
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[2], 0.0f);
    EXPECT_EQ(out[1], static_cast<float>(-0.125 * first[0])); // only K(1.5) meets frame 0
    for (size_t k = 2; k < 1023; ++k) {
        ASSERT_EQ(out[2 * k], first[k - 2]) << k;
    }
    // The next block starts from the last three frames of this one.
    std::vector<float> second = dsptest::noiseBlock(1024, 5);
    out = convertBlock(c, second);
    EXPECT_EQ(out[0], first[1022]);
    EXPECT_EQ(out[2], first[1023]);
    EXPECT_EQ(out[4], second[0]);
    // A new setup clears the history again.
    c.setup(1024, 22050, 44100, 1, 60.0f, 60.0f, 0, kRipple);
    out = convertBlock(c, second);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[2], 0.0f);
    EXPECT_EQ(out[4], second[0]);
}

// Several rate pairs and uneven block sequences, with and without the filter,
// against the model (plus an IIR pass of the same design where it is on).
TEST(RateConverter, MatchesTheIndependentModelBitForBit) {
    const Setting settings[] = {{44100, 48000, 0}, {44100, 48000, 1}, {48000, 44100, 0},
                                {48000, 44100, 1}, {8000, 44100, 1},  {96000, 22050, 0},
                                {96000, 22050, 1}, {11025, 48000, 0}, {44100, 8000, 1}};
    const uint32_t blocks[] = {5000, 4096, 1, 2, 3, 8193, 777, 4097, 6000};
    for (const Setting& s : settings) {
        for (uint8_t filterOn : {0, 1}) {
            dsp::RateConverter c;
            c.setup(9000, s.srcRate, s.dstRate, s.interpolation, 60.0f, 48.0f, filterOn, kRipple);
            dsptest::RateModel model(s.srcRate, s.dstRate, s.interpolation != 0);
            dsp::ChebyshevDesigner reference;
            reference.setOrder(c.filter.order, 0);
            reference.designChebyshev(c.filter.rate, c.filter.frequency, kRipple);
            uint32_t seed = 10;
            for (uint32_t n : blocks) {
                std::vector<float> in = dsptest::noiseBlock(n, seed++);
                std::vector<float> out = convertBlock(c, in);
                std::vector<float> expected;
                if (filterOn != 0 && s.srcRate > s.dstRate) {
                    std::vector<float> filtered(n);
                    reference.process(in.data(), filtered.data(), n);
                    expected = model.convert(filtered);
                } else {
                    expected = model.convert(in);
                    if (filterOn != 0) {
                        reference.process(expected.data(), expected.data(),
                                          static_cast<uint32_t>(expected.size()));
                    }
                }
                ASSERT_EQ(out.size(), dsptest::scaledFrames(n, s.srcRate, s.dstRate));
                ASSERT_EQ(out, expected)
                    << s.srcRate << "->" << s.dstRate << " interpolation " << s.interpolation
                    << " filter " << int(filterOn) << " block " << n;
            }
        }
    }
}

// Two channels converted as a pair (low-passes side by side) give what each
// converter gives alone, for both directions, both interpolations and with
// the filter off; overlapping channel buffers fall back to one at a time.
TEST(RateConverter, ConvertPairEqualsTwoSeparateConversions) {
    const Setting settings[] = {{44100, 48000, 0},
                                {44100, 48000, 1},
                                {48000, 44100, 0},
                                {96000, 22050, 1},
                                {44100, 44100, 0}};
    const uint32_t blocks[] = {4096, 1, 5000, 777, 9000};
    for (const Setting& s : settings) {
        for (uint8_t filterOn : {0, 1}) {
            dsp::RateConverter pairL, pairR, soloL, soloR;
            for (dsp::RateConverter* c : {&pairL, &pairR, &soloL, &soloR}) {
                c->setup(9000, s.srcRate, s.dstRate, s.interpolation, 60.0f, 60.0f, filterOn, 1.0f);
            }
            uint32_t seed = 40;
            for (uint32_t n : blocks) {
                std::vector<float> inL = dsptest::noiseBlock(n, seed++);
                std::vector<float> inR = dsptest::noiseBlock(n, seed++);
                std::vector<float> expectedL = convertBlock(soloL, inL);
                std::vector<float> expectedR = convertBlock(soloR, inR);
                std::vector<float> outL(expectedL.size() + 8, -7.0f), outR(outL.size(), -7.0f);
                uint32_t produced = dsp::RateConverter::convertPair(
                    pairL, inL.data(), outL.data(), pairR, inR.data(), outR.data(), n);
                ASSERT_EQ(produced, expectedL.size());
                outL.resize(produced + 8);
                EXPECT_EQ(std::vector<float>(outL.begin(), outL.begin() + produced), expectedL);
                EXPECT_EQ(std::vector<float>(outR.begin(), outR.begin() + produced), expectedR)
                    << s.srcRate << "->" << s.dstRate << " filter " << int(filterOn) << " " << n;
                // The equal-rate copy moves every source frame.
                const size_t end = s.srcRate == s.dstRate ? n : produced;
                EXPECT_EQ(outL[end], -7.0f);
                EXPECT_EQ(outR[end], -7.0f);
            }
        }
    }
    // Left output written over the right input: left first, then right reads it.
    dsp::RateConverter pairL, pairR, soloL, soloR;
    for (dsp::RateConverter* c : {&pairL, &pairR, &soloL, &soloR}) {
        c->setup(4096, 44100, 48000, 0, 60.0f, 60.0f, 1, 1.0f);
    }
    std::vector<float> inL = dsptest::noiseBlock(4096, 77);
    std::vector<float> shared(5000, 0.0f);
    std::vector<float> solo(5000, 0.0f);
    std::vector<float> outR(5000), soloOutR(5000);
    std::vector<float> seedR = dsptest::noiseBlock(4096, 78);
    std::copy(seedR.begin(), seedR.end(), shared.begin());
    std::copy(seedR.begin(), seedR.end(), solo.begin());
    uint32_t a = dsp::RateConverter::convertPair(pairL, inL.data(), shared.data(), pairR,
                                                 shared.data(), outR.data(), 4096);
    uint32_t b = soloL.convert(inL.data(), solo.data(), 4096);
    soloR.convert(solo.data(), soloOutR.data(), 4096);
    EXPECT_EQ(a, b);
    EXPECT_EQ(shared, solo);
    EXPECT_EQ(outR, soloOutR);
}

TEST(RateConverter, EqualRatesCopyTheBlockWithEitherCopyPath) {
    dsptest::SimdGuard guard;
    std::vector<float> in = dsptest::noiseBlock(4099, 6);
    for (bool simd : {false, true}) {
        dsptest::SimdGuard::set(false, false, simd);
        dsp::RateConverter c;
        EXPECT_EQ(c.setup(4099, 44100, 44100, 1, 60.0f, 60.0f, 1, kRipple), 4099u);
        EXPECT_EQ(c.direction, 0);
        EXPECT_EQ(convertBlock(c, in), in);
        std::vector<float> part(in.begin(), in.begin() + 1021);
        EXPECT_EQ(convertBlock(c, part), part);
    }
}

// (15 / 44100) * 44100 evaluates just below 15, so the count is one frame
// short; the copy still moves all 15 source frames. Only a full block of
// such a length (whose output buffers hold dstFrames = 14 floats) is cut to
// the count.
TEST(RateConverter, EqualRatesCopyEveryFrameWhenTheCountFallsShort) {
    std::vector<float> in = dsptest::noiseBlock(16, 12);
    dsp::RateConverter c;
    ASSERT_EQ(c.setup(16, 44100, 44100, 0, 60.0f, 60.0f, 0, kRipple), 16u);
    std::vector<float> out(16, -7.0f);
    EXPECT_EQ(c.convert(in.data(), out.data(), 15), 14u);
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 15, out.begin()));
    EXPECT_EQ(out[15], -7.0f);

    dsp::RateConverter full;
    ASSERT_EQ(full.setup(15, 44100, 44100, 0, 60.0f, 60.0f, 0, kRipple), 14u);
    std::fill(out.begin(), out.end(), -7.0f);
    EXPECT_EQ(full.convert(in.data(), out.data(), 15), 14u);
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 14, out.begin()));
    EXPECT_EQ(out[14], -7.0f);
}

// Blocks of 4096 frames cut the signal where the chunks do, so the filter,
// the cubic history and the chunk positions run exactly as in one call over
// the whole signal, as long as the output counts add up (4 x 4458 = 17832 =
// trunc(16384 / 44100 * 48000)). Other splits restart the interpolation
// position and are not bit-exact.
TEST(RateConverter, BlocksOfWholeChunksAreBitExactWithOneLongBlock) {
    const Setting settings[] = {
        {44100, 48000, 0}, {44100, 48000, 1}, {48000, 44100, 0}, {48000, 44100, 1}};
    std::vector<float> signal = dsptest::noiseBlock(16384, 7);
    for (const Setting& s : settings) {
        for (uint8_t filterOn : {0, 1}) {
            dsp::RateConverter whole;
            dsp::RateConverter pieces;
            whole.setup(16384, s.srcRate, s.dstRate, s.interpolation, 60, 60, filterOn, kRipple);
            pieces.setup(4096, s.srcRate, s.dstRate, s.interpolation, 60, 60, filterOn, kRipple);
            std::vector<float> expected = convertBlock(whole, signal);
            std::vector<float> joined;
            for (size_t k = 0; k < 4; ++k) {
                std::vector<float> block(signal.begin() + 4096 * k,
                                         signal.begin() + 4096 * (k + 1));
                std::vector<float> out = convertBlock(pieces, block);
                joined.insert(joined.end(), out.begin(), out.end());
            }
            ASSERT_EQ(joined, expected) << s.srcRate << "->" << s.dstRate << " interpolation "
                                        << s.interpolation << " filter " << int(filterOn);
        }
    }
}

TEST(RateConverter, AntiAliasFilterRemovesAToneAboveTheNewNyquistLimit) {
    const uint32_t n = 8192;
    auto outputLevel = [&](double frequency, uint8_t filterOn) {
        dsp::RateConverter c;
        c.setup(n, 44100, 22050, 1, 60.0f, 60.0f, filterOn, kRipple);
        std::vector<float> out;
        for (size_t k = 0; k < 4; ++k) { // let the filter settle
            out = convertBlock(c, dsptest::sineBlock(n, frequency, 44100, 0.5, k * n));
        }
        return 20.0 * std::log10(dsptest::rms(out, 0, out.size()) / (0.5 / std::sqrt(2.0)));
    };
    // 15 kHz aliases to 7050 Hz at 22050 Hz unless the low-pass removes it.
    EXPECT_GT(outputLevel(15000.0, 0), -3.0);
    EXPECT_LT(outputLevel(15000.0, 1), -60.0);
    // A tone in the pass band (edge 5512.5 Hz) keeps its level.
    EXPECT_NEAR(outputLevel(1000.0, 1), 0.0, 0.2);
}

TEST(RateConverter, SetupReusesBuffersUntilABlockGrows) {
    dsp::RateConverter c;
    c.setup(4096, 44100, 48000, 1, 60.0f, 60.0f, 1, kRipple);
    float* scratch = c.scratch;
    float* history = c.history;
    EXPECT_EQ(c.setup(1024, 48000, 44100, 0, 60.0f, 60.0f, 1, kRipple), 940u);
    EXPECT_EQ(c.scratch, scratch);
    EXPECT_EQ(c.history, history);
    EXPECT_EQ(c.capacity, 1024u);
    EXPECT_EQ(c.prevChunk, 1024u);
    c.setup(2048, 48000, 44100, 0, 60.0f, 60.0f, 1, kRipple);
    EXPECT_EQ(c.capacity, 2048u);
    // A block beyond the capacity is cut to it rather than read past.
    std::vector<float> in = dsptest::noiseBlock(3000, 9);
    EXPECT_EQ(convertBlock(c, in).size(), dsptest::scaledFrames(2048, 48000, 44100));
}

TEST(RateConverter, ZeroRatesConvertNothing) {
    std::vector<float> in = dsptest::noiseBlock(64, 10);
    const uint32_t rates[][2] = {{0, 48000}, {44100, 0}, {0, 0}};
    for (const auto& r : rates) {
        dsp::RateConverter c;
        EXPECT_EQ(c.setup(64, r[0], r[1], 1, 60.0f, 60.0f, 1, kRipple), 0u);
        EXPECT_TRUE(c.isReady());
        EXPECT_FALSE(c.canConvert());
        EXPECT_EQ(c.outputFramesFor(64), 0u);
        EXPECT_TRUE(convertBlock(c, in).empty());
    }
    // A block no work buffer could hold is refused outright.
    dsp::RateConverter huge;
    EXPECT_EQ(huge.setup(UINT32_MAX, 44100, 48000, 0, 60.0f, 60.0f, 0, kRipple), 0u);
    EXPECT_FALSE(huge.isReady());
    EXPECT_EQ(huge.convert(in.data(), in.data(), 64), 0u);
    // An output count beyond 32 bits cannot be sized either.
    dsp::RateConverter c;
    c.setup(100000, 1, 4000000000u, 0, 60.0f, 60.0f, 0, kRipple);
    EXPECT_FALSE(c.canConvert());
}

TEST(RateConverter, AbsurdFilterSettingsGiveABoundedOrderAndFiniteOutput) {
    const struct {
        float a, s;
        int32_t order;
    } cases[] = {
        {60.0f, 6000.0f, 64},      // estimate 81: capped
        {5000.0f, 60.0f, 64},      // infinite attenuation ratio: capped
        {60.0f, 0.1f, 0},          // the pass-band edge underflows to 0 Hz
        {4000.0f, 4000.0f, 64},    // infinite attenuation ratio: capped
        {60.0f, 0.0f, 0},          // infinite octaves: no edge
        {60.0f, -60.0f, 0},        // edge above the Nyquist limit
        {0.0f, 60.0f, 0},          // no attenuation asked: NaN estimate
        {-60.0f, 60.0f, 0},        // negative attenuation
        {0.05f, 60.0f, 0},         // less than the ripple: NaN estimate
        {std::nanf(""), 60.0f, 0}, // NaN
        {60.0f, INFINITY, 64},     // no octaves: edge at the Nyquist limit, capped
    };
    for (const auto& k : cases) {
        for (uint32_t dst : {48000u, 22050u}) {
            dsp::RateConverter c;
            c.setup(2048, 44100, dst, 1, k.a, k.s, 1, kRipple);
            EXPECT_EQ(c.filter.order, k.order) << k.a << "/" << k.s;
            std::vector<float> out = convertBlock(c, dsptest::noiseBlock(2048, 11));
            for (float v : out) {
                ASSERT_TRUE(std::isfinite(v)) << k.a << "/" << k.s;
            }
        }
    }
}

TEST(SourceFramesFor, CorrectsTheTruncatedEstimate) {
    // 1000 / 48000 * 22050 = 459.375 -> 459, which converts to 999: one more.
    EXPECT_EQ(dsp::sourceFramesFor(1000, 22050, 48000), 460u);
    EXPECT_EQ(dsptest::scaledFrames(460, 22050, 48000), 1001u);
    // Exact ratios need no correction.
    EXPECT_EQ(dsp::sourceFramesFor(4458, 44100, 48000), 4096u);
    EXPECT_EQ(dsp::sourceFramesFor(1024, 24000, 48000), 512u);
    EXPECT_EQ(dsp::sourceFramesFor(1024, 48000, 48000), 1024u);
    EXPECT_EQ(dsp::sourceFramesFor(0, 44100, 48000), 0u);
    EXPECT_EQ(dsp::sourceFramesFor(1024, 0, 48000), 0u);
    EXPECT_EQ(dsp::sourceFramesFor(1024, 44100, 0), 0u);
    // Upsampling to 48000 Hz (the Hqups use), over a range of counts: the
    // result never converts to fewer than n frames, and one frame less does.
    for (uint32_t rate : {8000u, 11025u, 22050u, 32000u, 44100u}) {
        for (uint32_t n = 1; n < 3000; ++n) {
            uint32_t s = dsp::sourceFramesFor(n, rate, 48000);
            ASSERT_GE(dsptest::scaledFrames(s, rate, 48000), n) << rate << " " << n;
            ASSERT_LT(dsptest::scaledFrames(s - 1, rate, 48000), n) << rate << " " << n;
        }
    }
    // One correction step only: 27 / 48000 * 96000 gives 53, which converts
    // to 26, so 54 is returned, which converts to 26 as well.
    EXPECT_EQ(dsp::sourceFramesFor(27, 96000, 48000), 54u);
    EXPECT_EQ(dsptest::scaledFrames(54, 96000, 48000), 26u);
}

} // namespace
