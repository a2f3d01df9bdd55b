// The per-channel rate converter: counts and chunk shares, the filter order
// estimate, both interpolations against an independent model, block-size
// independence and the guards.
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

using dsptest::noiseBlock;

constexpr float kRipple = 0.1f;

struct Setting {
    uint32_t srcRate, dstRate, interpolation;
};

// Converts one block and checks nothing is written past the count (equal
// rates copy every source frame even where the count falls one short).
std::vector<float> convertBlock(dsp::RateConverter& c, const std::vector<float>& in) {
    std::vector<float> out(in.size() * 8 + 16, -7.0f);
    uint32_t n = c.convert(in.data(), out.data(), static_cast<uint32_t>(in.size()));
    size_t written = c.direction == 0 ? std::max<size_t>(n, in.size()) : n;
    for (size_t i = written; i < out.size(); ++i) {
        EXPECT_EQ(out[i], -7.0f) << "written past the count at " << i;
    }
    out.resize(n);
    return out;
}

TEST(RateConverter, FilterOrderEstimateAndCounts) {
    dsp::RateConverter c;
    EXPECT_FALSE(c.isReady());
    EXPECT_EQ(c.setup(4096, 44100, 48000, 1, 60.0f, 60.0f, 1, kRipple), 4458u);
    EXPECT_EQ(c.direction, 1);
    EXPECT_EQ(c.filter.order, 8); // estimate 8.199, truncated
    EXPECT_EQ(c.filter.rate, 48000.0f);
    EXPECT_EQ(c.filter.frequency, 11025.0f);
    EXPECT_EQ(c.outputFramesFor(16384), 17832u);
    // Estimates 6.71, 4.93, 9.14, 11.70 truncated; the cap of 64; no valid edge.
    const struct {
        float a, s;
        int32_t order;
        float edge;
    } cases[] = {{80, 40, 6, 22050.0f / 4},
                 {96, 24, 4, 22050.0f / 16},
                 {40, 80, 9, static_cast<float>(22050.0 / std::sqrt(2.0))},
                 {100, 100, 11, 11025},
                 {60, 6000, 64, -1},
                 {5000, 60, 64, -1},
                 {60, -60, 0, -1},
                 {std::nanf(""), 60, 0, -1}};
    for (const auto& k : cases) {
        dsp::RateConverter d;
        d.setup(2048, 48000, 44100, 1, k.a, k.s, 1, kRipple);
        EXPECT_EQ(d.direction, -1);
        EXPECT_EQ(d.filter.order, k.order) << k.a << "/" << k.s;
        if (k.edge > 0) {
            EXPECT_EQ(d.filter.rate, 48000.0f);
            EXPECT_FLOAT_EQ(d.filter.frequency, k.edge);
        }
        for (float v : convertBlock(d, noiseBlock(2048, 11))) {
            ASSERT_TRUE(std::isfinite(v)) << k.a << "/" << k.s;
        }
    }
}

// 20480 frames make five chunks, the last taking the rest; halving an odd
// block leaves the one-frame chunk without output.
TEST(RateConverter, ChunkSharesAndChunkEnds) {
    const struct {
        uint32_t frames, dst, interpolation;
        std::vector<uint32_t> chunks;
    } cases[] = {{20480, 48000, 0, {4458, 4458, 4458, 4458, 4459}},
                 {4097, 22050, 0, {2048, 0}},
                 {4097, 22050, 1, {2048, 0}}};
    for (const auto& k : cases) {
        dsp::RateConverter c;
        c.setup(k.frames, 44100, k.dst, k.interpolation, 60.0f, 60.0f, 0, kRipple);
        std::vector<float> in = noiseBlock(k.frames, 1);
        std::vector<float> out = convertBlock(c, in);
        dsptest::RateModel model(44100, k.dst, k.interpolation != 0);
        EXPECT_EQ(out, model.convert(in));
        EXPECT_EQ(model.chunkSizes, k.chunks);
        if (k.interpolation == 0) { // a linear chunk ends on its last frame
            EXPECT_EQ(out[k.chunks[0] - 1], in[4095]);
        }
    }
}

// Rate pairs and uneven block sequences, with and without the filter, against
// the model plus an IIR pass of the same design where the filter is on (before
// a rate reduction, after an increase).
TEST(RateConverter, MatchesTheIndependentModelBitForBit) {
    const Setting settings[] = {
        {44100, 48000, 0}, {48000, 44100, 1}, {8000, 44100, 1}, {96000, 22050, 0}};
    for (const Setting& s : settings) {
        for (uint8_t filterOn : {0, 1}) {
            dsp::RateConverter c;
            c.setup(9000, s.srcRate, s.dstRate, s.interpolation, 60.0f, 48.0f, filterOn, kRipple);
            dsptest::RateModel model(s.srcRate, s.dstRate, s.interpolation != 0);
            dsp::ChebyshevDesigner reference;
            reference.setOrder(c.filter.order, 0);
            reference.designChebyshev(c.filter.rate, c.filter.frequency, kRipple);
            const bool down = s.srcRate > s.dstRate;
            uint32_t seed = 10;
            for (uint32_t n : {5000u, 1u, 2u, 8193u, 777u, 4097u}) {
                std::vector<float> in = noiseBlock(n, seed++);
                std::vector<float> expected = in;
                if (filterOn != 0 && down) {
                    reference.process(expected.data(), expected.data(), n);
                }
                expected = model.convert(expected);
                if (filterOn != 0 && !down) {
                    reference.process(expected.data(), expected.data(),
                                      static_cast<uint32_t>(expected.size()));
                }
                ASSERT_EQ(expected.size(), dsptest::scaledFrames(n, s.srcRate, s.dstRate));
                ASSERT_EQ(convertBlock(c, in), expected)
                    << s.srcRate << "->" << s.dstRate << " filter " << int(filterOn) << " " << n;
            }
        }
    }
}

// A pair gives what each converter gives alone, also where the left output is
// written over the right input (left is converted first).
TEST(RateConverter, ConvertPairEqualsTwoSeparateConversions) {
    dsp::RateConverter c[4];
    for (dsp::RateConverter& k : c) {
        k.setup(4096, 44100, 48000, 0, 60.0f, 60.0f, 1, 1.0f);
    }
    std::vector<float> inL = noiseBlock(4096, 77), shared = noiseBlock(4096, 78);
    shared.resize(5000, 0.0f);
    std::vector<float> solo = shared, outR(5000), soloOutR(5000);
    EXPECT_EQ(dsp::RateConverter::convertPair(c[0], inL.data(), shared.data(), c[1], shared.data(),
                                              outR.data(), 4096),
              c[2].convert(inL.data(), solo.data(), 4096));
    c[3].convert(solo.data(), soloOutR.data(), 4096);
    EXPECT_EQ(shared, solo);
    EXPECT_EQ(outR, soloOutR);
}

// Equal rates copy with either copy path. (15 / 44100) * 44100 evaluates just
// below 15: the count is one short but the copy moves all 15 frames, except
// that a full block of that length (buffers of 14 floats) is cut to the count.
TEST(RateConverter, EqualRatesCopyEveryFrame) {
    dsptest::SimdGuard guard;
    std::vector<float> in = noiseBlock(4099, 6);
    for (bool simd : {false, true}) {
        dsptest::SimdGuard::set(false, false, simd);
        dsp::RateConverter c;
        EXPECT_EQ(c.setup(4099, 44100, 44100, 1, 60.0f, 60.0f, 1, kRipple), 4099u);
        EXPECT_EQ(convertBlock(c, in), in);
        std::vector<float> part(in.begin(), in.begin() + 15);
        EXPECT_EQ(convertBlock(c, part), std::vector<float>(in.begin(), in.begin() + 14));
    }
    dsp::RateConverter full;
    ASSERT_EQ(full.setup(15, 44100, 44100, 0, 60.0f, 60.0f, 0, kRipple), 14u);
    std::vector<float> out(16, -7.0f);
    EXPECT_EQ(full.convert(in.data(), out.data(), 15), 14u);
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 14, out.begin()));
    EXPECT_EQ(out[14], -7.0f);
}

// Blocks of 4096 frames cut where the chunks do, so filter, cubic history and
// chunk positions run as in one call (4 x 4458 = trunc(16384 / 44100 * 48000)).
TEST(RateConverter, BlocksOfWholeChunksAreBitExactWithOneLongBlock) {
    std::vector<float> signal = noiseBlock(16384, 7);
    for (const Setting& s : {Setting{44100, 48000, 1}, Setting{48000, 44100, 0}}) {
        for (uint8_t filterOn : {0, 1}) {
            dsp::RateConverter whole, pieces;
            whole.setup(16384, s.srcRate, s.dstRate, s.interpolation, 60, 60, filterOn, kRipple);
            pieces.setup(4096, s.srcRate, s.dstRate, s.interpolation, 60, 60, filterOn, kRipple);
            std::vector<float> joined;
            for (auto at = signal.begin(); at != signal.end(); at += 4096) {
                std::vector<float> out = convertBlock(pieces, std::vector<float>(at, at + 4096));
                joined.insert(joined.end(), out.begin(), out.end());
            }
            ASSERT_EQ(joined, convertBlock(whole, signal)) << s.srcRate << " " << int(filterOn);
        }
    }
}

TEST(RateConverter, ZeroRatesAndUnsizableBlocksConvertNothing) {
    std::vector<float> in = noiseBlock(64, 10);
    const uint32_t rates[][2] = {{0, 48000}, {44100, 0}, {0, 0}};
    for (const auto& r : rates) {
        dsp::RateConverter c;
        EXPECT_EQ(c.setup(64, r[0], r[1], 1, 60.0f, 60.0f, 1, kRipple), 0u);
        EXPECT_TRUE(c.isReady());
        EXPECT_FALSE(c.canConvert());
        EXPECT_TRUE(convertBlock(c, in).empty());
    }
    dsp::RateConverter huge; // no work buffer could hold it
    EXPECT_EQ(huge.setup(UINT32_MAX, 44100, 48000, 0, 60.0f, 60.0f, 0, kRipple), 0u);
    EXPECT_FALSE(huge.isReady());
    EXPECT_EQ(huge.convert(in.data(), in.data(), 64), 0u);
    dsp::RateConverter cut; // a block beyond the capacity is cut to it
    cut.setup(2048, 48000, 44100, 0, 60.0f, 60.0f, 1, kRipple);
    EXPECT_EQ(convertBlock(cut, noiseBlock(3000, 9)).size(), 1881u);
    dsp::RateConverter wide; // an output count beyond 32 bits
    wide.setup(100000, 1, 4000000000u, 0, 60.0f, 60.0f, 0, kRipple);
    EXPECT_FALSE(wide.canConvert());
}

TEST(SourceFramesFor, CorrectsTheTruncatedEstimate) {
    // 1000 / 48000 * 22050 = 459.375 -> 459, which converts to 999: one more.
    EXPECT_EQ(dsp::sourceFramesFor(1000, 22050, 48000), 460u);
    EXPECT_EQ(dsp::sourceFramesFor(4458, 44100, 48000), 4096u);
    EXPECT_EQ(dsp::sourceFramesFor(1024, 48000, 48000), 1024u);
    EXPECT_EQ(dsp::sourceFramesFor(0, 44100, 48000), 0u);
    EXPECT_EQ(dsp::sourceFramesFor(1024, 0, 48000), 0u);
    EXPECT_EQ(dsp::sourceFramesFor(1024, 44100, 0), 0u);
    // One correction step only: 27 / 48000 * 96000 gives 53 (converts to 26).
    EXPECT_EQ(dsp::sourceFramesFor(27, 96000, 48000), 54u);
    // Upsampling to 48000 Hz: the least count that suffices.
    for (uint32_t rate : {8000u, 11025u, 44100u}) {
        for (uint32_t n = 1; n < 3000; ++n) {
            uint32_t s = dsp::sourceFramesFor(n, rate, 48000);
            ASSERT_GE(dsptest::scaledFrames(s, rate, 48000), n) << rate << " " << n;
            ASSERT_LT(dsptest::scaledFrames(s - 1, rate, 48000), n) << rate << " " << n;
        }
    }
}

} // namespace
