// The per-channel rate converter against an independent model block after
// block, its filter order estimate and guards; the resampler processor's
// channel mapping, oversize blocks and chain operations.
#include "core/sample_convert.h"
#include "dsp.h"
#include "filters/iir_designer.h"
#include "rate/rate_converter.h"
#include "rate/resampler_processor.h"
#include "support/rate_model.h"
#include "support/signals.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

using dsptest::noise;

constexpr float kRipple = 0.1f;

struct Setting {
    uint32_t srcRate, dstRate, interpolation;
};

// The output frames of a full block, after a setup that must succeed.
uint32_t setUp(dsp::RateConverter& c, uint32_t frames, uint32_t srcRate, uint32_t dstRate,
               const dsp::ConversionSettings& settings) {
    EXPECT_TRUE(c.setup(frames, srcRate, dstRate, settings));
    return c.blockOutputFrames();
}

// Converts one block and checks nothing is written past the count (equal
// rates copy every source frame even where the count falls one short).
std::vector<float> convertBlock(dsp::RateConverter& c, const std::vector<float>& in,
                                bool equalRates = false) {
    std::vector<float> out(in.size() * 8 + 16, -7.0f);
    uint32_t n = c.convert(in.data(), out.data(), static_cast<uint32_t>(in.size()));
    size_t written = equalRates ? std::max<size_t>(n, in.size()) : n;
    for (size_t i = written; i < out.size(); ++i) {
        EXPECT_EQ(out[i], -7.0f) << "written past the count at " << i;
    }
    out.resize(n);
    return out;
}

TEST(RateConverter, FilterOrderEstimateAndCounts) {
    dsp::RateConverter c;
    EXPECT_FALSE(c.isReady());
    EXPECT_EQ(setUp(c, 4096, 44100, 48000, {1, 60.0f, 60.0f, 1}), 4458u);
    EXPECT_EQ(c.lowPass().order, 8); // estimate 8.199, truncated
    EXPECT_EQ(c.lowPass().rateHz, 48000.0f);
    EXPECT_EQ(c.lowPass().edgeHz, 11025.0f);
    EXPECT_EQ(c.outputFramesFor(16384), 17832u);
    // Estimates 6.71 and 9.14 truncated; the cap of 64; no valid edge.
    const struct {
        float a, s;
        int32_t order;
        float edge;
    } cases[] = {{80, 40, 6, 22050.0f / 4},
                 {40, 80, 9, static_cast<float>(22050.0 / std::sqrt(2.0))},
                 {60, 6000, 64, -1},
                 {60, -60, 0, -1},
                 {std::nanf(""), 60, 0, -1}};
    for (const auto& k : cases) {
        dsp::RateConverter d;
        setUp(d, 2048, 48000, 44100, {1, k.a, k.s, 1});
        EXPECT_EQ(d.lowPass().order, k.order) << k.a << "/" << k.s;
        if (k.edge > 0) {
            EXPECT_FLOAT_EQ(d.lowPass().edgeHz, k.edge);
        }
    }
}

// 20480 frames make five chunks, the last taking the rest (4459 frames);
// halving an odd block leaves the one-frame chunk without output.
TEST(RateConverter, TheLastChunkTakesTheRest) {
    const Setting settings[] = {{44100, 48000, 0}, {44100, 22050, 0}, {44100, 22050, 1}};
    for (const Setting& s : settings) {
        const uint32_t frames = s.dstRate == 48000 ? 20480 : 4097;
        dsp::RateConverter c;
        setUp(c, frames, s.srcRate, s.dstRate, {s.interpolation, 60.0f, 60.0f, 0});
        const std::vector<float> in = noise(frames, 1);
        EXPECT_EQ(convertBlock(c, in),
                  dsptest::RateModel(s.srcRate, s.dstRate, s.interpolation != 0).convert(in));
    }
}

// Uneven blocks against the model plus, with the filter on, an IIR pass of
// the same design (before a rate reduction, after an increase).
TEST(RateConverter, MatchesTheIndependentModelBitForBit) {
    const Setting settings[] = {
        {44100, 48000, 0}, {48000, 44100, 1}, {8000, 44100, 1}, {96000, 22050, 0}};
    for (const Setting& s : settings) {
        for (uint8_t filterOn : {0, 1}) {
            dsp::RateConverter c;
            setUp(c, 9000, s.srcRate, s.dstRate, {s.interpolation, 60.0f, 48.0f, filterOn});
            dsptest::RateModel model(s.srcRate, s.dstRate, s.interpolation != 0);
            dsp::ChebyshevDesigner reference;
            reference.setOrder(c.lowPass().order, 0);
            reference.designChebyshev(c.lowPass().rateHz, c.lowPass().edgeHz, kRipple);
            const bool down = s.srcRate > s.dstRate;
            uint32_t seed = 10;
            for (uint32_t n : {5000u, 1u, 2u, 8193u, 777u, 4097u}) {
                std::vector<float> in = noise(n, seed++);
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
        setUp(k, 4096, 44100, 48000, {0, 60.0f, 60.0f, 1});
    }
    std::vector<float> inL = noise(4096, 77), shared = noise(4096, 78);
    shared.resize(5000, 0.0f);
    std::vector<float> solo = shared, outR(5000), soloOutR(5000);
    EXPECT_EQ(dsp::RateConverter::convertPair(c[0], inL.data(), shared.data(), c[1], shared.data(),
                                              outR.data(), 4096),
              c[2].convert(inL.data(), solo.data(), 4096));
    c[3].convert(solo.data(), soloOutR.data(), 4096);
    EXPECT_EQ(shared, solo);
    EXPECT_EQ(outR, soloOutR);
}

// Equal rates copy with either path. (15 / 44100) * 44100 is just below 15:
// the copy moves 15 frames, except a full block of that length.
TEST(RateConverter, EqualRatesCopyEveryFrame) {
    dsptest::SimdGuard guard;
    std::vector<float> in = noise(4099, 6);
    for (bool simd : {false, true}) {
        dsptest::SimdGuard::set(false, false, simd);
        dsp::RateConverter c;
        EXPECT_EQ(setUp(c, 4099, 44100, 44100, {1, 60.0f, 60.0f, 1}), 4099u);
        EXPECT_EQ(convertBlock(c, in, true), in);
        std::vector<float> part(in.begin(), in.begin() + 15);
        EXPECT_EQ(convertBlock(c, part, true), std::vector<float>(in.begin(), in.begin() + 14));
    }
    dsp::RateConverter full;
    ASSERT_EQ(setUp(full, 15, 44100, 44100, {0, 60.0f, 60.0f, 0}), 14u);
    std::vector<float> out(16, -7.0f);
    EXPECT_EQ(full.convert(in.data(), out.data(), 15), 14u);
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 14, out.begin()));
    EXPECT_EQ(out[14], -7.0f);
}

TEST(RateConverter, ZeroRatesAndUnsizableBlocksConvertNothing) {
    std::vector<float> in = noise(64, 10);
    const uint32_t rates[][2] = {{0, 48000}, {44100, 0}, {0, 0}};
    for (const auto& r : rates) {
        dsp::RateConverter c;
        EXPECT_EQ(setUp(c, 64, r[0], r[1], {1, 60.0f, 60.0f, 1}), 0u);
        EXPECT_TRUE(c.isReady());
        EXPECT_FALSE(c.canConvert());
        EXPECT_TRUE(convertBlock(c, in).empty());
    }
    dsp::RateConverter huge; // no work buffer could hold it
    EXPECT_FALSE(huge.setup(UINT32_MAX, 44100, 48000, {0, 60.0f, 60.0f, 0}));
    EXPECT_FALSE(huge.isReady());
    EXPECT_EQ(huge.blockOutputFrames(), 0u);
    EXPECT_EQ(huge.convert(in.data(), in.data(), 64), 0u);
    dsp::RateConverter cut; // a block beyond the capacity is cut to it
    setUp(cut, 2048, 48000, 44100, {0, 60.0f, 60.0f, 1});
    EXPECT_EQ(convertBlock(cut, noise(3000, 9)).size(), 1881u);
    dsp::RateConverter wide; // an output count beyond 32 bits
    setUp(wide, 100000, 1, 4000000000u, {0, 60.0f, 60.0f, 0});
    EXPECT_FALSE(wide.canConvert());
}

TEST(SourceFramesFor, CorrectsTheTruncatedEstimate) {
    // 1000 / 48000 * 22050 = 459.375 -> 459, which converts to 999: one more.
    EXPECT_EQ(dsp::sourceFramesFor(1000, 22050, 48000), 460u);
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

constexpr int16_t kSentinel = 0x5A5A;

dsp::ResamplerProcessor* asResampler(void* handle) {
    return static_cast<dsp::ResamplerProcessor*>(handle);
}

// Each channel equals a lone converter fed the converted samples; stereo in,
// mono out keeps the left; mono in, stereo out duplicates.
TEST(Resampler, ChannelMappingFollowsTheConversionRules) {
    dsptest::SimdGuard guard;
    dsptest::SimdGuard::set(false, false, false);
    const uint32_t frames = 1500;
    const std::vector<int16_t> stereo = dsptest::pcmNoise(2 * frames, 2),
                               mono = dsptest::pcmNoise(frames, 3);
    auto reference = [&](const std::vector<int16_t>& pcm, size_t channel, size_t channels) {
        std::vector<float> in, out(4000);
        for (size_t i = channel; i < pcm.size(); i += channels) {
            in.push_back(dsp::convert::sampleToFloat(pcm[i]));
        }
        dsp::RateConverter c;
        EXPECT_TRUE(c.setup(frames, 22050, 32000, {1, 50.0f, 40.0f, 1}));
        out.resize(c.convert(in.data(), out.data(), frames));
        return out;
    };
    const std::vector<float> left = reference(stereo, 0, 2), right = reference(stereo, 1, 2);
    const std::vector<float> single = reference(mono, 0, 1);
    const size_t n = left.size();
    ASSERT_EQ(n, 2176u);
    for (uint32_t in : {1u, 2u}) {
        for (uint32_t out : {1u, 2u}) {
            void* h =
                initResampler(frames, in, out, 22050, 32000, DSP_INTERP_CUBIC, 50.0f, 40.0f, 1);
            const std::vector<int16_t>& src = in == 2 ? stereo : mono;
            std::vector<int16_t> dst(2 * n + 8, kSentinel);
            uint32_t bytes =
                doResampler(h, src.data(), dst.data(), static_cast<uint32_t>(src.size() * 2));
            ASSERT_EQ(bytes, 2 * out * n);
            for (size_t i = 0; i < n; ++i) {
                ASSERT_EQ(dst[out * i], dsp::convert::floatToSample((in == 2 ? left : single)[i]));
                if (out == 2) {
                    ASSERT_EQ(dst[2 * i + 1],
                              dsp::convert::floatToSample((in == 2 ? right : single)[i]));
                }
            }
            EXPECT_EQ(dst[bytes / 2], kSentinel);
            termResampler(h);
        }
    }
}

TEST(Resampler, OversizeBlocksAreProcessedInPieces) {
    const uint32_t frames = 1000;
    std::vector<int16_t> src = dsptest::pcmNoise(2 * 3500, 5);
    void* whole = initResampler(frames, 2, 2, 48000, 22050, 1, 60.0f, 60.0f, 1);
    void* pieces = initResampler(frames, 2, 2, 48000, 22050, 1, 60.0f, 60.0f, 1);
    std::vector<int16_t> dst(4000, kSentinel), expected;
    uint32_t bytes = doResampler(whole, src.data(), dst.data(), 3500 * 4);
    for (uint32_t start = 0; start < 3500; start += frames) {
        std::vector<int16_t> out(2 * frames);
        uint32_t b = doResampler(pieces, src.data() + 2 * start, out.data(),
                                 std::min(frames, 3500 - start) * 4);
        expected.insert(expected.end(), out.begin(), out.begin() + b / 2);
    }
    EXPECT_EQ(bytes, (3 * 459 + 229) * 4u);
    ASSERT_EQ(bytes, expected.size() * 2);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), dst.begin()));
    EXPECT_EQ(dst[bytes / 2], kSentinel);
    // A chained call converts at most one configured block.
    dsp::ResamplerProcessor* p = asResampler(whole);
    std::vector<float> in = dsptest::noise(3500, 6);
    EXPECT_EQ(p->processChained(in.data(), in.data(), p->work(2), p->work(3), 3500), 459u);
    termResampler(whole);
    termResampler(pieces);
}

// configure rebuilds for the new input format and clears the converter state:
// processChained then equals a fresh converter block after block.
TEST(Resampler, ChainConfigureRebuildsForTheNewInputFormat) {
    void* h = initResampler(1024, 2, 1, 44100, 48000, DSP_INTERP_LINEAR, 60.0f, 60.0f, 1);
    dsp::ResamplerProcessor* p = asResampler(h);
    const std::vector<float> lead = dsptest::noise(1024, 1);
    p->processChained(lead.data(), lead.data(), p->work(2), p->work(3), 1024);
    p->configure(2048, 1, 22050);
    EXPECT_EQ(p->outChannels(), 1u);
    EXPECT_EQ(p->outRate(), 48000u);
    EXPECT_EQ(p->outFrames(), 4458u);
    EXPECT_EQ(p->getDstSize(4096), 8916u);
    dsp::RateConverter reference;
    ASSERT_TRUE(reference.setup(2048, 22050, 48000, {0, 60.0f, 60.0f, 1}));
    std::vector<float> expected(4458);
    for (uint32_t seed = 7; seed < 10; ++seed) {
        std::vector<float> in = dsptest::noise(2048, seed);
        ASSERT_EQ(p->processChained(in.data(), nullptr, p->work(2), p->work(3), 2048), 4458u);
        reference.convert(in.data(), expected.data(), 2048);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), p->work(2))) << seed;
    }
    EXPECT_EQ(p->processChannel(2, expected.data(), p->work(2), 2048), 0u);
    termResampler(h);
}

// A configure that needs more output room grows the buffers (no overrun).
TEST(Resampler, ConfigureGrowsTheOutputBuffersOnlyWhenNeeded) {
    dsp::ResamplerProcessor* p =
        asResampler(initResampler(1024, 1, 1, 22050, 44100, 0, 60.0f, 60.0f, 0));
    p->configure(512, 1, 8000); // trunc(512 / 8000 * 44100) = 2822 > 2048
    EXPECT_GE(p->workCapacity(2), 2822u);
    p->configure(4096, 2, 88200);
    std::vector<int16_t> src = dsptest::pcmNoise(8192, 9), dst(4096 + 8, kSentinel);
    EXPECT_EQ(p->processInterleaved(src.data(), dst.data(), 16384), 8192u);
    EXPECT_EQ(dst[4096], kSentinel);
    termResampler(p);
}

// An absurd filter setting and a block size of 0 are served without harm, and
// their term gives back what init took.
TEST(Resampler, AbsurdFiltersAndEmptyBlocksAreHarmless) {
    const uint32_t total = fastmemGetAllocatedSize();
    std::vector<int16_t> src = dsptest::pcmNoise(256, 10), dst(256, kSentinel);
    void* h = initResampler(256, 1, 1, 48000, 44100, 1, 60.0f, -1.0f, 1);
    EXPECT_EQ(doResampler(h, src.data(), dst.data(), 512), 2u * 235);
    termResampler(h);
    h = initResampler(0, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1); // produces nothing
    EXPECT_EQ(doResampler(h, src.data(), dst.data(), 512), 0u);
    termResampler(h);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
}

} // namespace
