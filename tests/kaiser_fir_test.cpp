// The Kaiser-window FIR: window and design against their formulas, the
// responses that follow from them, and each summation path against a model
// of its order of additions.
#include "filters/kaiser_fir.h"
#include "support/kaiser_fir_model.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using dsp::KaiserFir;
using dsptest::FirModel;
using dsptest::FirPath;

std::vector<float> noise(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> v(n);
    for (float& x : v) {
        x = dist(rng);
    }
    return v;
}

void runPath(KaiserFir& fir, FirPath path, const float* in, float* out, uint32_t n) {
    switch (path) {
    case FirPath::kPlain:
        fir.filterPlain(in, out, n);
        break;
    case FirPath::kAmd3dnow:
        fir.filter3dnow(in, out, n);
        break;
    case FirPath::kSse:
        fir.filterSse(in, out, n);
        break;
    }
}

TEST(KaiserFirWindow, BetaFollowsTheAttenuation) {
    EXPECT_NEAR(KaiserFir::kaiserBeta(100.0), 10.06126, 1e-12);
    EXPECT_NEAR(KaiserFir::kaiserBeta(50.0), 0.1102 * 41.3, 1e-12);
    EXPECT_NEAR(KaiserFir::kaiserBeta(30.0), 0.5842 * std::pow(9.0, 0.4) + 0.07886 * 9.0, 1e-12);
    EXPECT_EQ(KaiserFir::kaiserBeta(20.9), 0.0);
}

TEST(KaiserFirWindow, BesselSeriesMatchesTheLibraryFunction) {
    for (double z : {0.0, 0.5, 1.0, 3.7, 10.06126}) {
        const double expected = std::cyl_bessel_i(0.0, z);
        EXPECT_NEAR(KaiserFir::besselI0(z), expected, expected * 1e-9) << z;
    }
}

TEST(KaiserFirWindow, WindowRunsFromOneToTheReciprocalOfI0) {
    KaiserFir fir;
    ASSERT_TRUE(fir.setWindow(100.0f, 32, KaiserFir::kHighPass));
    EXPECT_EQ(fir.ready, 1);
    EXPECT_EQ(fir.half, 16);
    EXPECT_EQ(fir.mask, 31u);
    EXPECT_DOUBLE_EQ(fir.window[0], 1.0);
    EXPECT_DOUBLE_EQ(fir.window[16], 1.0 / KaiserFir::besselI0(10.06126));
    for (int i = 1; i <= 16; ++i) {
        EXPECT_LT(fir.window[i], fir.window[i - 1]);
    }
}

TEST(KaiserFirWindow, LowAttenuationGivesARectangularWindow) {
    KaiserFir fir;
    ASSERT_TRUE(fir.setWindow(20.0f, 16, KaiserFir::kLowPass));
    for (int i = 0; i <= 8; ++i) {
        EXPECT_EQ(fir.window[i], 1.0);
    }
}

TEST(KaiserFirWindow, SmallerOrderKeepsTheArraysAndClearsTheHistory) {
    KaiserFir fir;
    ASSERT_TRUE(fir.setWindow(100.0f, 32, KaiserFir::kLowPass));
    fir.design(48000.0f, 4000.0f);
    std::vector<float> in = noise(40, 1);
    std::vector<float> out(40);
    fir.filterPlain(in.data(), out.data(), 40);
    float* table = fir.table;
    ASSERT_TRUE(fir.setWindow(100.0f, 16, KaiserFir::kLowPass));
    EXPECT_EQ(fir.table, table);
    EXPECT_EQ(fir.taps, 16);
    EXPECT_EQ(fir.position, 0u);
    for (int k = 0; k < 16; ++k) {
        EXPECT_EQ(fir.state[k], 0.0f);
    }
    EXPECT_FALSE(fir.setWindow(100.0f, 12, KaiserFir::kLowPass));
    EXPECT_EQ(fir.ready, 0);
}

TEST(KaiserFirDesign, CoefficientsMatchTheWindowMethod) {
    for (int n : {8, 16, 32, 64}) {
        for (bool high : {false, true}) {
            KaiserFir fir;
            ASSERT_TRUE(fir.setWindow(100.0f, n, high ? 1u : 0u));
            fir.design(48000.0f, 5000.0f);
            std::vector<float> c = dsptest::kaiserCoefficients(100.0, n, high, 48000.0, 5000.0);
            for (int m = 0; m <= n; ++m) {
                EXPECT_EQ(fir.coefficients[m], c[m]) << n << " " << high << " " << m;
            }
            EXPECT_EQ(fir.log2Taps, static_cast<uint32_t>(std::log2(n)));
            EXPECT_EQ(reinterpret_cast<uintptr_t>(fir.coefficients) % 16, 0u);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(fir.table) % 16, 0u);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(fir.state) % 16, 0u);
        }
    }
}

TEST(KaiserFirDesign, LowPassHasUnitDcGainAndSettlesOnAConstant) {
    for (int n : {8, 16, 32}) {
        KaiserFir fir;
        ASSERT_TRUE(fir.setWindow(80.0f, n, KaiserFir::kLowPass));
        fir.design(44100.0f, 3000.0f);
        EXPECT_EQ(fir.edgeHz, 3000.0f);
        double sum = 0.0;
        for (int m = 0; m <= n; ++m) {
            sum += fir.coefficients[m];
            EXPECT_EQ(fir.coefficients[m], fir.coefficients[n - m]);
        }
        EXPECT_NEAR(sum, 1.0, 1e-6);
        std::vector<float> in(3 * n, 0.25f);
        std::vector<float> out(3 * n);
        fir.filterPlain(in.data(), out.data(), 3 * n);
        for (int t = n; t < 3 * n; ++t) {
            EXPECT_NEAR(out[t], 0.25f, 1e-6f) << t;
        }
    }
}

TEST(KaiserFirDesign, HighPassMirrorsThePrototype) {
    KaiserFir fir;
    ASSERT_TRUE(fir.setWindow(100.0f, 16, KaiserFir::kHighPass));
    fir.design(48000.0f, 5000.0f);
    EXPECT_EQ(fir.edgeHz, 19000.0f);
    KaiserFir prototype;
    ASSERT_TRUE(prototype.setWindow(100.0f, 16, KaiserFir::kLowPass));
    prototype.design(48000.0f, 19000.0f);
    // The prototype with every other coefficient negated, from the centre out.
    double dcGain = 0.0;
    for (int m = 0; m <= 16; ++m) {
        const float sign = ((m - 8) % 2) == 0 ? 1.0f : -1.0f;
        EXPECT_EQ(fir.coefficients[m], sign * prototype.coefficients[m]) << m;
        dcGain += fir.coefficients[m];
    }
    // The DC gain is the 19 kHz prototype's response at half the rate: small
    // next to the unit gain at the top, though 17 taps leave it near -21 dB.
    EXPECT_LT(std::fabs(dcGain), 0.1);

    std::vector<float> constant(64, 1.0f);
    std::vector<float> alternating(64);
    for (int t = 0; t < 64; ++t) {
        alternating[t] = (t % 2) == 0 ? 1.0f : -1.0f;
    }
    std::vector<float> out(64);
    fir.filterPlain(constant.data(), out.data(), 64);
    for (int t = 16; t < 64; ++t) {
        EXPECT_NEAR(out[t], dcGain, 1e-6) << t;
    }
    ASSERT_TRUE(fir.setWindow(100.0f, 16, KaiserFir::kHighPass));
    fir.design(48000.0f, 5000.0f);
    fir.filterPlain(alternating.data(), out.data(), 64);
    for (int t = 16; t < 64; ++t) {
        EXPECT_NEAR(out[t], alternating[t], 1e-5f) << t;
    }
}

TEST(KaiserFirFilter, ImpulseReturnsTheCoefficientsOnEveryPath) {
    for (FirPath path : {FirPath::kPlain, FirPath::kAmd3dnow, FirPath::kSse}) {
        for (int n : {16, 32}) {
            KaiserFir fir;
            ASSERT_TRUE(fir.setWindow(100.0f, n, KaiserFir::kHighPass));
            fir.design(48000.0f, 5000.0f);
            std::vector<float> in(n + 8, 0.0f);
            in[0] = 1.0f;
            std::vector<float> out(n + 8, -7.0f);
            runPath(fir, path, in.data(), out.data(), n + 8);
            for (int m = 0; m <= n; ++m) {
                EXPECT_EQ(out[m], fir.coefficients[m]) << m;
            }
            for (int m = n + 1; m < n + 8; ++m) {
                EXPECT_EQ(out[m], 0.0f);
            }
        }
    }
}

TEST(KaiserFirFilter, EachPathFollowsItsOrderOfAdditions) {
    const std::vector<float> in = noise(300, 7);
    for (FirPath path : {FirPath::kPlain, FirPath::kAmd3dnow, FirPath::kSse}) {
        for (int n : {8, 16, 32, 64}) {
            KaiserFir fir;
            ASSERT_TRUE(fir.setWindow(100.0f, n, KaiserFir::kHighPass));
            fir.design(48000.0f, 7000.0f);
            FirModel model(dsptest::kaiserCoefficients(100.0, n, true, 48000.0, 7000.0));
            std::vector<float> out(in.size());
            // Uneven block sizes: the history carries across calls.
            uint32_t done = 0;
            for (uint32_t block : {1u, 37u, 0u, 100u, 162u}) {
                runPath(fir, path, in.data() + done, out.data() + done, block);
                done += block;
            }
            ASSERT_EQ(done, in.size());
            for (size_t t = 0; t < in.size(); ++t) {
                ASSERT_EQ(out[t], model.step(in[t], path))
                    << "path " << static_cast<int>(path) << " N " << n << " t " << t;
            }
        }
    }
}

TEST(KaiserFirFilter, PathsAgreeUpToRoundingAndFilterFollowsTheSwitches) {
    dsptest::SimdGuard guard;
    const std::vector<float> in = noise(200, 3);
    std::vector<float> plain(200);
    std::vector<float> other(200);
    std::vector<float> expected(200);
    struct Case {
        bool amd3dnow, sse;
        FirPath path;
    };
    for (Case c : {Case{false, false, FirPath::kPlain}, Case{true, false, FirPath::kAmd3dnow},
                   Case{false, true, FirPath::kSse}, Case{true, true, FirPath::kAmd3dnow}}) {
        KaiserFir a;
        KaiserFir b;
        KaiserFir ref;
        for (KaiserFir* f : {&a, &b, &ref}) {
            ASSERT_TRUE(f->setWindow(100.0f, 32, KaiserFir::kHighPass));
            f->design(48000.0f, 9000.0f);
        }
        a.filterPlain(in.data(), plain.data(), 200);
        dsptest::SimdGuard::set(true, c.amd3dnow, c.sse);
        b.filter(in.data(), other.data(), 200);
        runPath(ref, c.path, in.data(), expected.data(), 200);
        for (int t = 0; t < 200; ++t) {
            EXPECT_EQ(other[t], expected[t]);
            EXPECT_NEAR(other[t], plain[t], 1e-6f);
        }
    }
}

TEST(KaiserFirFilter, InPlaceFilteringEqualsSeparateBuffers) {
    for (FirPath path : {FirPath::kPlain, FirPath::kAmd3dnow, FirPath::kSse}) {
        KaiserFir a;
        KaiserFir b;
        for (KaiserFir* f : {&a, &b}) {
            ASSERT_TRUE(f->setWindow(100.0f, 16, KaiserFir::kHighPass));
            f->design(48000.0f, 5000.0f);
        }
        std::vector<float> buffer = noise(64, 11);
        std::vector<float> separate(64);
        runPath(a, path, buffer.data(), separate.data(), 64);
        runPath(b, path, buffer.data(), buffer.data(), 64);
        EXPECT_EQ(buffer, separate);
    }
}

TEST(KaiserFirFilter, RedesignBetweenBlocksKeepsTheHistory) {
    const std::vector<float> in = noise(96, 5);
    for (FirPath path : {FirPath::kPlain, FirPath::kAmd3dnow, FirPath::kSse}) {
        KaiserFir fir;
        ASSERT_TRUE(fir.setWindow(100.0f, 32, KaiserFir::kHighPass));
        fir.design(48000.0f, 16000.0f);
        FirModel model(dsptest::kaiserCoefficients(100.0, 32, true, 48000.0, 16000.0));
        std::vector<float> out(96);
        runPath(fir, path, in.data(), out.data(), 50);
        const uint32_t position = fir.position;
        fir.design(48000.0f, 19000.0f);
        EXPECT_EQ(fir.position, position);
        runPath(fir, path, in.data() + 50, out.data() + 50, 46);
        for (int t = 0; t < 50; ++t) {
            ASSERT_EQ(out[t], model.step(in[t], path)) << t;
        }
        model.setCoefficients(dsptest::kaiserCoefficients(100.0, 32, true, 48000.0, 19000.0));
        for (int t = 50; t < 96; ++t) {
            ASSERT_EQ(out[t], model.step(in[t], path)) << t;
        }
    }
}

TEST(KaiserFirFilter, EmptyBlockChangesNothing) {
    KaiserFir fir;
    ASSERT_TRUE(fir.setWindow(100.0f, 16, KaiserFir::kHighPass));
    fir.design(48000.0f, 5000.0f);
    std::vector<float> in = noise(5, 2);
    std::vector<float> out(5);
    fir.filterSse(in.data(), out.data(), 5);
    std::vector<float> state(fir.state, fir.state + 16);
    const uint32_t position = fir.position;
    float sentinel = 3.0f;
    fir.filter(in.data(), &sentinel, 0);
    EXPECT_EQ(sentinel, 3.0f);
    EXPECT_EQ(fir.position, position);
    EXPECT_EQ(std::vector<float>(fir.state, fir.state + 16), state);
}

} // namespace
