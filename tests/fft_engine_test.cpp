// The forward real transform against a direct DFT for every supported size,
// the magnitude rule, the window and the two ways of bringing samples in.
#include "analysis/fft_engine.h"
#include "support/fft_reference.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <new>
#include <random>
#include <vector>

namespace {

using dsp::BlockFftEngine;
using dsp::FftEngine;
using dsptest::DirectDft;

std::unique_ptr<FftEngine> makeEngine() {
    return std::unique_ptr<FftEngine>(new (std::nothrow) FftEngine());
}

std::unique_ptr<BlockFftEngine> makeBlockEngine() {
    return std::unique_ptr<BlockFftEngine>(new (std::nothrow) BlockFftEngine());
}

std::vector<float> randomSignal(uint32_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> x(n);
    for (float& v : x) {
        v = dist(rng);
    }
    return x;
}

// Bound on the error of any output value: 2^-22 * max|x| * sqrt(N) * log2(N),
// a few float roundings per stage on values of the size of the outputs (the
// errors seen stay below a quarter of it).
double errorBound(uint32_t n, double maxAbs) {
    return std::ldexp(1.0, -22) * maxAbs * std::sqrt(static_cast<double>(n)) *
           std::log2(static_cast<double>(n));
}

// Transforms x with `engine` and compares every output (or, for N >= 4096, a
// spread of bins and the DC and Nyquist terms) with the direct DFT.
void expectMatchesDft(FftEngine& engine, const std::vector<float>& x) {
    const uint32_t n = static_cast<uint32_t>(x.size());
    std::vector<float> a(x);
    engine.realFft(a.data(), n);
    std::vector<double> xd(x.begin(), x.end());
    double maxAbs = 0.0;
    for (double v : xd) {
        maxAbs = std::max(maxAbs, std::fabs(v));
    }
    const double bound = errorBound(n, maxAbs);
    double dc = 0.0;
    double nyquist = 0.0;
    for (uint32_t j = 0; j < n; ++j) {
        dc += xd[j];
        nyquist += (j % 2 == 0) ? xd[j] : -xd[j];
    }
    EXPECT_NEAR(a[0], dc, bound) << "N = " << n;
    EXPECT_NEAR(a[1], nyquist, bound) << "N = " << n;
    DirectDft dft(n);
    const uint32_t stride = n >= 4096 ? n / 512 + 1 : 1;
    for (uint32_t k = 1; k < n / 2; k += stride) {
        dsptest::DftBin b = dft.bin(xd, k);
        ASSERT_NEAR(a[2 * k], b.re, bound) << "N = " << n << ", bin " << k;
        ASSERT_NEAR(a[2 * k + 1], b.im, bound) << "N = " << n << ", bin " << k;
    }
    // The highest bins too, where the mirrored twiddles are used.
    for (uint32_t k = n / 2 - 3; k < n / 2 && k > 0; ++k) {
        dsptest::DftBin b = dft.bin(xd, k);
        ASSERT_NEAR(a[2 * k], b.re, bound) << "N = " << n << ", bin " << k;
        ASSERT_NEAR(a[2 * k + 1], b.im, bound) << "N = " << n << ", bin " << k;
    }
}

TEST(RealFft, MatchesDirectDftForEverySize) {
    auto engine = makeEngine();
    ASSERT_NE(engine, nullptr);
    for (uint32_t n = 4; n <= 32768; n *= 2) {
        // A fresh engine per size, so every size builds its own tables.
        auto fresh = makeEngine();
        ASSERT_NE(fresh, nullptr);
        expectMatchesDft(*fresh, randomSignal(n, n));
    }
}

TEST(RealFft, TablesBuiltForALargerSizeServeSmallerOnes) {
    auto engine = makeEngine();
    ASSERT_NE(engine, nullptr);
    std::vector<float> big = randomSignal(32768, 1);
    engine->realFft(big.data(), 32768);
    for (uint32_t n = 4; n <= 32768; n *= 2) {
        expectMatchesDft(*engine, randomSignal(n, 100 + n));
    }
    // Growing again in small steps rebuilds the tables each time.
    auto growing = makeEngine();
    ASSERT_NE(growing, nullptr);
    for (uint32_t n = 4; n <= 4096; n *= 2) {
        expectMatchesDft(*growing, randomSignal(n, 200 + n));
    }
}

TEST(RealFft, SingleBinSignalsLandInTheirBinWithThePlusSineSign) {
    auto engine = makeEngine();
    ASSERT_NE(engine, nullptr);
    const uint32_t n = 1024;
    const double twoPi = 8.0 * std::atan(1.0);
    for (uint32_t k : {1u, 3u, 100u, 256u, 511u}) {
        std::vector<float> x(n);
        for (uint32_t j = 0; j < n; ++j) {
            x[j] = static_cast<float>(std::sin(twoPi * j * k / n));
        }
        engine->realFft(x.data(), n);
        // sum sin^2 = N/2 lands in the imaginary part with a + sign.
        EXPECT_NEAR(x[2 * k + 1], n / 2.0, 1e-3);
        EXPECT_NEAR(x[2 * k], 0.0, 1e-3);
        for (uint32_t m = 1; m < n / 2; ++m) {
            if (m != k) {
                ASSERT_NEAR(x[2 * m], 0.0, 1e-3) << m;
                ASSERT_NEAR(x[2 * m + 1], 0.0, 1e-3) << m;
            }
        }
    }
}

TEST(RealFft, TwiddleTablesHoldTheDescribedValues) {
    auto engine = makeEngine();
    ASSERT_NE(engine, nullptr);
    std::vector<float> x(1024, 0.0f);
    engine->realFft(x.data(), 1024);
    const uint32_t nw = 256;
    const uint32_t nc = 256;
    EXPECT_EQ(engine->bitrevWork[0], static_cast<int32_t>(nw));
    EXPECT_EQ(engine->bitrevWork[1], static_cast<int32_t>(nc));
    const double pi = 4.0 * std::atan(1.0);
    // Sub-table of size s at nw - 2s: 1, cos45, 0.5/cos(2d), 0.5/cos(6d), then
    // cos/sin of jd and 3jd.
    for (uint32_t s = nw / 2; s >= 8; s /= 2) {
        const float* t = engine->twiddles + (nw - 2 * s);
        const double d = (pi / 4.0) / s;
        EXPECT_EQ(t[0], 1.0f);
        EXPECT_NEAR(t[1], std::cos(pi / 4.0), 1e-7);
        EXPECT_NEAR(t[2], 0.5 / std::cos(2 * d), 1e-6);
        EXPECT_NEAR(t[3], 0.5 / std::cos(6 * d), 1e-6);
        for (uint32_t j = 4; j < s; j += 4) {
            ASSERT_NEAR(t[j], std::cos(j * d), 1e-7);
            ASSERT_NEAR(t[j + 1], std::sin(j * d), 1e-7);
            ASSERT_NEAR(t[j + 2], std::cos(3 * j * d), 1e-7);
            ASSERT_NEAR(t[j + 3], std::sin(3 * j * d), 1e-7);
        }
    }
    const float* pt = engine->twiddles + nw;
    const double d = (pi / 4.0) / (nc / 2);
    EXPECT_NEAR(pt[0], std::cos(pi / 4.0), 1e-7);
    EXPECT_EQ(pt[nc / 2], 0.5f * pt[0]);
    for (uint32_t j = 1; j < nc / 2; ++j) {
        ASSERT_NEAR(pt[j], 0.5 * std::cos(j * d), 1e-7);
        ASSERT_NEAR(pt[nc - j], 0.5 * std::sin(j * d), 1e-7);
    }
}

// The tables bit for bit, for every size: each entry built here in double
// from its construction rule and rounded to float once; the nested sub-tables
// copy the float entries, and their first 0.5/x entries divide the stored
// floats. Entries the rules leave unset are not compared.
TEST(RealFft, TablesEqualTheirConstructionRulesExactly) {
    for (uint32_t n = 8; n <= 32768; n *= 2) {
        auto engine = makeEngine();
        ASSERT_NE(engine, nullptr);
        std::vector<float> x(n, 0.0f);
        engine->realFft(x.data(), n);
        const uint32_t nw = n / 4;
        const uint32_t nc = n / 4;
        ASSERT_EQ(engine->bitrevWork[0], static_cast<int32_t>(nw));
        ASSERT_EQ(engine->bitrevWork[1], static_cast<int32_t>(nc));
        std::vector<float> w(nw + nc, 0.0f);
        std::vector<bool> set(nw + nc, false);
        auto put = [&](uint32_t i, float v) {
            w[i] = v;
            set[i] = true;
        };
        if (nw > 2) {
            uint32_t h = nw / 2;
            const double d = std::atan(1.0) / h;
            const double c45 = std::cos(d * h);
            put(0, 1.0f);
            put(1, static_cast<float>(c45));
            if (h >= 4) {
                put(2, static_cast<float>(0.5 / std::cos(2.0 * d)));
                put(3, static_cast<float>(0.5 / std::cos(6.0 * d)));
            }
            for (uint32_t j = 4; j < h; j += 4) {
                put(j, static_cast<float>(std::cos(j * d)));
                put(j + 1, static_cast<float>(std::sin(j * d)));
                put(j + 2, static_cast<float>(std::cos(3 * j * d)));
                put(j + 3, static_cast<float>(std::sin(3 * j * d)));
            }
            uint32_t base = 0;
            while (h > 2) {
                const uint32_t next = base + h;
                h /= 2;
                put(next, 1.0f);
                put(next + 1, static_cast<float>(c45));
                if (h >= 4) {
                    put(next + 2, static_cast<float>(0.5 / w[base + 4]));
                    put(next + 3, static_cast<float>(0.5 / w[base + 6]));
                }
                for (uint32_t j = 4; j < h; j += 4) {
                    for (uint32_t e = 0; e < 4; ++e) {
                        put(next + j + e, w[base + 2 * j + e]);
                    }
                }
                base = next;
            }
        }
        {
            const uint32_t h = nc / 2;
            const double d = std::atan(1.0) / h;
            put(nw, static_cast<float>(std::cos(d * h)));
            put(nw + h, 0.5f * w[nw]);
            for (uint32_t j = 1; j < h; ++j) {
                put(nw + j, static_cast<float>(0.5 * std::cos(j * d)));
                put(nw + nc - j, static_cast<float>(0.5 * std::sin(j * d)));
            }
        }
        for (uint32_t i = 0; i < nw + nc; ++i) {
            if (set[i]) {
                ASSERT_EQ(engine->twiddles[i], w[i]) << "N = " << n << ", entry " << i;
            }
        }
    }
}

TEST(FftEngine, SetupComputesTheShiftedHannWindowAndFloor) {
    auto engine = makeEngine();
    ASSERT_NE(engine, nullptr);
    ASSERT_TRUE(engine->setup(64, 512, 256, 90.0f));
    EXPECT_EQ(engine->ready, 1);
    EXPECT_EQ(engine->floorDb, -90.0f);
    EXPECT_EQ(engine->keepCount, 448u);
    EXPECT_EQ(engine->historyLength, 512u);
    EXPECT_EQ(engine->fftSize, 256u);
    for (uint32_t i = 0; i < 256; ++i) {
        ASSERT_EQ(engine->window[i], static_cast<float>(dsptest::referenceWindow(i, 256))) << i;
    }
    // Evaluated at i - 0.5: window[0] is small but not zero.
    EXPECT_GT(engine->window[0], 0.0f);
}

TEST(FftEngine, SetupRefusesSizesTheTransformDoesNotSupport) {
    auto engine = makeEngine();
    ASSERT_NE(engine, nullptr);
    for (uint32_t n : {0u, 2u, 3u, 96u, 65536u}) {
        EXPECT_FALSE(engine->setup(1, 65536, n, 120.0f)) << n;
        EXPECT_EQ(engine->ready, 0);
    }
    ASSERT_TRUE(engine->setup(16, 64, 64, 120.0f));
    EXPECT_FALSE(engine->setup(16, 64, 48, 120.0f));
    EXPECT_EQ(engine->fftSize, 64u);
}

TEST(FftEngine, SilenceReadsTheFloorInEveryBin) {
    for (uint32_t n : {4u, 16u, 256u, 4096u}) {
        auto engine = makeBlockEngine();
        ASSERT_NE(engine, nullptr);
        ASSERT_TRUE(engine->setup(0, 0, n, 120.0f));
        std::vector<float> silence(n, 0.0f);
        engine->analyze(silence.data());
        std::vector<float> out(n / 2, 1.0f);
        EXPECT_EQ(engine->magnitudesDb(out.data()), n / 2);
        for (float v : out) {
            ASSERT_EQ(v, -120.0f);
        }
    }
}

// bin 0 = 20 log10(N/2), bin 1 (constant) or bin N/2-1 (alternating) =
// 20 log10(N/4), everything else far below.
void expectTwoBinSpectrum(FftEngine& engine, uint32_t n, uint32_t secondBin) {
    std::vector<float> out(n / 2);
    ASSERT_EQ(engine.magnitudesDb(out.data()), n / 2);
    EXPECT_NEAR(out[0], 20.0 * std::log10(n / 2.0), 1e-3) << "N = " << n;
    EXPECT_NEAR(out[secondBin], 20.0 * std::log10(n / 4.0), 1e-3) << "N = " << n;
    for (uint32_t k = 0; k < n / 2; ++k) {
        if (k != 0 && k != secondBin) {
            ASSERT_LT(out[k], 20.0 * std::log10(n / 4.0) - 80.0) << "N = " << n << ", bin " << k;
        }
    }
}

TEST(FftEngine, ConstantAndAlternatingFramesGiveTheirTwoBins) {
    for (uint32_t n = 8; n <= 32768; n *= 2) {
        auto engine = makeBlockEngine();
        ASSERT_NE(engine, nullptr);
        ASSERT_TRUE(engine->setup(0, 0, n, 200.0f));
        std::vector<float> x(n, 1.0f);
        engine->analyze(x.data());
        expectTwoBinSpectrum(*engine, n, 1);
        for (uint32_t j = 1; j < n; j += 2) {
            x[j] = -1.0f;
        }
        engine->analyze(x.data());
        expectTwoBinSpectrum(*engine, n, n / 2 - 1);
        // Bin 0 of the alternating frame is the Nyquist term alone.
        EXPECT_NEAR(std::fabs(engine->frame[0]), 0.0, 1e-3);
        EXPECT_NEAR(std::fabs(engine->frame[1]), n / 2.0, 1e-2);
    }
}

TEST(FftEngine, MagnitudesFollowTheDbRuleOfTheFrame) {
    auto engine = makeBlockEngine();
    ASSERT_NE(engine, nullptr);
    ASSERT_TRUE(engine->setup(0, 0, 64, 30.0f));
    std::vector<float> x = randomSignal(64, 7);
    for (uint32_t i = 0; i < 64; ++i) {
        x[i] *= 0.01f * static_cast<float>(i % 5);
    }
    engine->analyze(x.data());
    std::vector<float> out(32);
    engine->magnitudesDb(out.data());
    for (uint32_t k = 0; k < 32; ++k) {
        double expected =
            dsptest::referenceDb(engine->frame[2 * k], engine->frame[2 * k + 1], -30.0);
        ASSERT_NEAR(out[k], expected, 1e-4) << k;
        ASSERT_GE(out[k], -30.0f);
    }
}

TEST(FftEngine, BlockVariantWindowsTheFirstNSamples) {
    auto engine = makeBlockEngine();
    ASSERT_NE(engine, nullptr);
    ASSERT_TRUE(engine->setup(0, 0, 128, 120.0f));
    std::vector<float> x = randomSignal(200, 3);
    engine->loadFrame(x.data());
    for (uint32_t i = 0; i < 128; ++i) {
        ASSERT_EQ(engine->frame[i], engine->window[i] * x[i]);
    }
}

TEST(FftEngine, SlidingHistoryShiftsByTheHop) {
    for (int switches = 0; switches < 2; ++switches) {
        dsptest::SimdGuard guard;
        dsptest::SimdGuard::set(false, false, switches == 1);
        auto engine = makeEngine();
        ASSERT_NE(engine, nullptr);
        const uint32_t hop = 37;
        const uint32_t length = 300;
        const uint32_t n = 256;
        ASSERT_TRUE(engine->setup(hop, length, n, 120.0f));
        std::vector<float> stream = randomSignal(hop * 20, 11);
        // First frame: length - hop zeros, then the hop's samples.
        engine->loadFrame(stream.data());
        for (uint32_t i = 0; i < length; ++i) {
            float expected = i < length - hop ? 0.0f : stream[i - (length - hop)];
            ASSERT_EQ(engine->history[i], expected) << i;
        }
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_EQ(engine->frame[i], engine->history[length - n + i] * engine->window[i]);
        }
        // Later frames: the newest `length` samples of the stream.
        for (uint32_t call = 1; call < 20; ++call) {
            engine->loadFrame(stream.data() + call * hop);
        }
        const uint32_t end = 20 * hop;
        for (uint32_t i = 0; i < length; ++i) {
            ASSERT_EQ(engine->history[i], stream[end - length + i]) << i;
        }
    }
}

TEST(FftEngine, SecondSetupWithASmallerSizeReusesBuffersAndStaysCorrect) {
    auto engine = makeBlockEngine();
    ASSERT_NE(engine, nullptr);
    ASSERT_TRUE(engine->setup(0, 0, 4096, 120.0f));
    std::vector<float> x = randomSignal(4096, 5);
    engine->analyze(x.data());
    float* frame = engine->frame;
    float* window = engine->window;
    ASSERT_TRUE(engine->setup(0, 0, 512, 100.0f));
    EXPECT_EQ(engine->frame, frame);
    EXPECT_EQ(engine->window, window);
    EXPECT_EQ(engine->bitrevWork[0], 1024); // tables of the larger size kept
    EXPECT_EQ(engine->fftSize, 512u);
    engine->analyze(x.data());
    // Compare with the windowed direct DFT.
    std::vector<double> windowed(512);
    for (uint32_t i = 0; i < 512; ++i) {
        windowed[i] = static_cast<double>(engine->window[i] * x[i]);
    }
    DirectDft dft(512);
    std::vector<float> out(256);
    engine->magnitudesDb(out.data());
    const double bound = errorBound(512, 1.0);
    for (uint32_t k = 1; k < 256; ++k) {
        dsptest::DftBin b = dft.bin(windowed, k);
        ASSERT_NEAR(engine->frame[2 * k], b.re, bound) << k;
        ASSERT_NEAR(engine->frame[2 * k + 1], b.im, bound) << k;
        if (std::hypot(b.re, b.im) > 1e-2) {
            ASSERT_NEAR(out[k], dsptest::referenceDb(b.re, b.im, -100.0), 1e-2) << k;
        }
    }
}

TEST(FftEngine, FullScaleSineAtABinCentreReadsAboutNOverFour) {
    auto engine = makeBlockEngine();
    ASSERT_NE(engine, nullptr);
    const uint32_t n = 2048;
    ASSERT_TRUE(engine->setup(0, 0, n, 120.0f));
    std::vector<float> x(n);
    for (uint32_t j = 0; j < n; ++j) {
        x[j] = static_cast<float>(std::sin(8.0 * std::atan(1.0) * j * 100 / n));
    }
    engine->analyze(x.data());
    std::vector<float> out(n / 2);
    engine->magnitudesDb(out.data());
    EXPECT_NEAR(out[100], 20.0 * std::log10(n / 4.0), 0.01);
}

} // namespace
