// The forward real transform against a direct DFT, its tables bit for bit,
// the window and the sliding history.
#include "analysis/fft_engine.h"
#include "support/fft_reference.h"
#include "support/signals.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <new>
#include <vector>

namespace {

using dsp::BlockFftEngine;
using dsp::FftEngine;
using dsptest::DirectDft;

// A few float roundings per stage: 2^-22 * max|x| * sqrt(N) * log2(N).
double errorBound(uint32_t n, double maxAbs) {
    return std::ldexp(1.0, -22) * maxAbs * std::sqrt(double(n)) * std::log2(double(n));
}

// Bin 0 packs DC and Nyquist; the other bins (a spread for N >= 4096, and the
// top three, where the mirrored twiddles are used) against the direct DFT.
void expectMatchesDft(FftEngine& engine, const std::vector<float>& x) {
    const uint32_t n = static_cast<uint32_t>(x.size());
    std::vector<float> a(x);
    engine.realFft(a.data(), n);
    std::vector<double> xd(x.begin(), x.end());
    double dc = 0.0, nyquist = 0.0, maxAbs = 0.0;
    for (uint32_t j = 0; j < n; ++j) {
        dc += xd[j];
        nyquist += (j % 2 == 0) ? xd[j] : -xd[j];
        maxAbs = std::max(maxAbs, std::fabs(xd[j]));
    }
    const double bound = errorBound(n, maxAbs);
    EXPECT_NEAR(a[0], dc, bound) << "N = " << n;
    EXPECT_NEAR(a[1], nyquist, bound) << "N = " << n;
    DirectDft dft(n);
    auto check = [&](uint32_t k) {
        dsptest::DftBin b = dft.bin(xd, k);
        ASSERT_NEAR(a[2 * k], b.re, bound) << "N = " << n << ", bin " << k;
        ASSERT_NEAR(a[2 * k + 1], b.im, bound) << "N = " << n << ", bin " << k;
    };
    const uint32_t stride = n >= 4096 ? n / 512 + 1 : 1;
    for (uint32_t k = 1; k < n / 2; k += stride) {
        check(k);
    }
    for (uint32_t k = n / 2 - 3; k < n / 2 && k > 0; ++k) {
        check(k);
    }
}

TEST(RealFft, MatchesDirectDftFreshAndWithTablesOfALargerSize) {
    auto big = std::unique_ptr<FftEngine>(new (std::nothrow) FftEngine());
    ASSERT_NE(big, nullptr);
    std::vector<float> warmUp = dsptest::noise(32768, 1);
    big->realFft(warmUp.data(), 32768);
    for (uint32_t n = 4; n <= 32768; n *= 2) {
        auto fresh = std::unique_ptr<FftEngine>(new (std::nothrow) FftEngine());
        ASSERT_NE(fresh, nullptr);
        expectMatchesDft(*fresh, dsptest::noise(n, n));
        expectMatchesDft(*big, dsptest::noise(n, 100 + n));
    }
}

// Each entry built in double and rounded to float once (the DFT bound would
// pass float arithmetic); sub-tables copy and divide the stored floats.
TEST(RealFft, TablesEqualTheirConstructionRulesExactly) {
    for (uint32_t n = 8; n <= 32768; n *= 2) {
        FftEngine engine;
        std::vector<float> x(n, 0.0f);
        engine.realFft(x.data(), n);
        const uint32_t nw = n / 4, nc = n / 4;
        ASSERT_EQ(engine.complexTableSize(), nw);
        ASSERT_EQ(engine.postTableSize(), nc);
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
            for (uint32_t base = 0; h > 2;) {
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
        const uint32_t h = nc / 2;
        const double d = std::atan(1.0) / h;
        put(nw, static_cast<float>(std::cos(d * h)));
        put(nw + h, 0.5f * w[nw]);
        for (uint32_t j = 1; j < h; ++j) {
            put(nw + j, static_cast<float>(0.5 * std::cos(j * d)));
            put(nw + nc - j, static_cast<float>(0.5 * std::sin(j * d)));
        }
        for (uint32_t i = 0; i < nw + nc; ++i) {
            if (set[i]) {
                ASSERT_EQ(engine.twiddles()[i], w[i]) << "N = " << n << ", entry " << i;
            }
        }
    }
}

// Silence reads the floor, -rangeDb, in every bin.
TEST(FftEngine, SetupBuildsTheShiftedHannWindowAndRefusesUnsupportedSizes) {
    FftEngine engine;
    for (uint32_t n : {0u, 2u, 3u, 96u, 65536u}) {
        EXPECT_FALSE(engine.setup(1, 65536, n, 120.0f)) << n;
        EXPECT_EQ(engine.window(), nullptr);
    }
    ASSERT_TRUE(engine.setup(64, 512, 256, 90.0f));
    EXPECT_EQ(engine.historyLength(), 512u);
    for (uint32_t i = 0; i < 256; ++i) {
        ASSERT_EQ(engine.window()[i], static_cast<float>(dsptest::referenceWindow(i, 256))) << i;
    }
    const std::vector<float> silence(64, 0.0f);
    std::vector<float> db(128, 0.0f);
    engine.analyze(silence.data());
    EXPECT_EQ(engine.magnitudesDb(db.data()), 128u);
    EXPECT_EQ(db, std::vector<float>(128, -90.0f));
    EXPECT_FALSE(engine.setup(16, 64, 48, 120.0f));
    EXPECT_EQ(engine.fftSize(), 256u);
}

// With a switch on, the history moves by the 16-byte block copy.
TEST(FftEngine, SlidingHistoryShiftsByTheHopWithAndWithoutTheBlockCopy) {
    const uint32_t hop = 37, length = 300, n = 256;
    for (bool blockCopy : {false, true}) {
        dsptest::SimdGuard guard;
        dsptest::SimdGuard::set(false, false, blockCopy);
        FftEngine engine;
        ASSERT_TRUE(engine.setup(hop, length, n, 120.0f));
        std::vector<float> stream = dsptest::noise(hop * 20, 11);
        // First frame: length - hop zeros, then the hop's samples.
        engine.loadFrame(stream.data());
        const float* history = engine.history();
        for (uint32_t i = 0; i < length; ++i) {
            ASSERT_EQ(history[i], i < length - hop ? 0.0f : stream[i - (length - hop)]) << i;
        }
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_EQ(engine.frame()[i], history[length - n + i] * engine.window()[i]);
        }
        for (uint32_t call = 1; call < 20; ++call) {
            engine.loadFrame(stream.data() + call * hop);
        }
        for (uint32_t i = 0; i < length; ++i) {
            ASSERT_EQ(history[i], stream[20 * hop - length + i]) << i;
        }
    }
}

// The tables of the larger size stay; the frame is the windowed block's transform.
TEST(FftEngine, ASmallerSecondSetupReusesBuffersAndStaysCorrect) {
    BlockFftEngine engine;
    ASSERT_TRUE(engine.setup(0, 0, 4096, 120.0f));
    std::vector<float> x = dsptest::noise(4096, 5);
    engine.analyze(x.data());
    const float* frame = engine.frame();
    ASSERT_TRUE(engine.setup(0, 0, 512, 100.0f));
    EXPECT_EQ(engine.frame(), frame);
    EXPECT_EQ(engine.complexTableSize(), 1024u);
    engine.analyze(x.data());
    std::vector<float> windowed(512);
    for (uint32_t i = 0; i < 512; ++i) {
        windowed[i] = engine.window()[i] * x[i];
    }
    std::vector<float> frameCopy(frame, frame + 512);
    expectMatchesDft(engine, windowed);
    engine.realFft(windowed.data(), 512);
    EXPECT_EQ(frameCopy, windowed);
}

} // namespace
