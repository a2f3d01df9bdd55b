// The Kaiser-window FIR: window and design against their formulas, the listed
// responses, and each summation path against a model of its additions.
#include "filters/kaiser_fir.h"
#include "support/filter_noise.h"
#include "support/kaiser_fir_model.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using dsp::KaiserFir;
using dsptest::filterNoise;
using dsptest::FirModel;
using dsptest::FirPath;

void setUp(KaiserFir& fir, int n, uint32_t kind, float freq, float attenuation = 100.0f) {
    ASSERT_TRUE(fir.setWindow(attenuation, n, kind));
    fir.design(48000.0f, freq);
}

TEST(KaiserFir, WindowAndItsArrays) {
    EXPECT_NEAR(KaiserFir::kaiserBeta(100.0), 10.06126, 1e-12);
    EXPECT_NEAR(KaiserFir::kaiserBeta(50.0), 4.55126, 1e-12);
    EXPECT_NEAR(KaiserFir::kaiserBeta(30.0), 0.5842 * std::pow(9.0, 0.4) + 0.07886 * 9.0, 1e-12);
    EXPECT_EQ(KaiserFir::kaiserBeta(20.9), 0.0);
    for (double z : {0.0, 1.0, 3.7, 10.06126}) {
        EXPECT_NEAR(KaiserFir::besselI0(z), std::cyl_bessel_i(0.0, z),
                    1e-9 * std::cyl_bessel_i(0.0, z));
    }
    KaiserFir fir;
    setUp(fir, 32, KaiserFir::kHighPass, 4000.0f);
    EXPECT_EQ(fir.window[0], 1.0);
    EXPECT_DOUBLE_EQ(fir.window[16], 1.0 / KaiserFir::besselI0(10.06126));
    std::vector<float> in = filterNoise(40, 1), out(40);
    fir.filterPlain(in.data(), out.data(), 40);
    // A smaller order keeps the arrays and clears the history; below 21 dB
    // the window is rectangular; an order not a power of two is refused.
    float* table = fir.table;
    ASSERT_TRUE(fir.setWindow(20.0f, 16, KaiserFir::kLowPass));
    EXPECT_EQ(fir.table, table);
    EXPECT_EQ(fir.position, 0u);
    EXPECT_EQ(std::vector<float>(fir.state, fir.state + 16), std::vector<float>(16, 0.0f));
    EXPECT_EQ(std::vector<double>(fir.window, fir.window + 9), std::vector<double>(9, 1.0));
    EXPECT_FALSE(fir.setWindow(100.0f, 12, KaiserFir::kLowPass));
    EXPECT_EQ(fir.ready, 0);
}

TEST(KaiserFir, CoefficientsMatchTheWindowMethodAndPassDcOrNyquist) {
    for (int n : {8, 16, 32, 64}) {
        for (uint32_t kind : {KaiserFir::kLowPass, KaiserFir::kHighPass}) {
            KaiserFir fir;
            setUp(fir, n, kind, 5000.0f);
            EXPECT_EQ(std::vector<float>(fir.coefficients, fir.coefficients + n + 1),
                      dsptest::kaiserCoefficients(100.0, n, kind == 1, 48000.0, 5000.0))
                << n;
            EXPECT_EQ(reinterpret_cast<uintptr_t>(fir.table) % 16, 0u);
            // Low-pass: unit DC gain; high-pass: unit gain at half the rate.
            std::vector<float> in(3 * n), out(3 * n);
            for (int t = 0; t < 3 * n; ++t) {
                in[t] = kind == 0 ? 0.25f : (t % 2 == 0 ? 1.0f : -1.0f);
            }
            fir.filterPlain(in.data(), out.data(), 3 * n);
            for (int t = n; t < 3 * n; ++t) {
                EXPECT_NEAR(out[t], in[t], 1e-5f) << n << " " << kind << " " << t;
            }
        }
    }
    // The high-pass is the mirrored prototype with alternate signs.
    KaiserFir high, prototype;
    setUp(high, 16, KaiserFir::kHighPass, 5000.0f);
    setUp(prototype, 16, KaiserFir::kLowPass, 19000.0f);
    EXPECT_EQ(high.edgeHz, 19000.0f);
    for (int m = 0; m <= 16; ++m) {
        EXPECT_EQ(high.coefficients[m], (m % 2 == 0 ? 1.0f : -1.0f) * prototype.coefficients[m]);
    }
}

// filter() under each setting of the switches (3DNow! wins over SSE): an
// impulse, then noise in uneven blocks (an empty one too), in place, each
// against the model of its path; redesigning midway keeps the history.
TEST(KaiserFir, EachSwitchSelectsItsPathAndItsOrderOfAdditions) {
    dsptest::SimdGuard guard;
    struct Case {
        bool amd3dnow, sse;
        FirPath path;
    };
    const std::vector<float> in = filterNoise(300, 7);
    for (Case c : {Case{false, false, FirPath::kPlain}, Case{true, false, FirPath::kAmd3dnow},
                   Case{false, true, FirPath::kSse}, Case{true, true, FirPath::kAmd3dnow}}) {
        dsptest::SimdGuard::set(true, c.amd3dnow, c.sse);
        for (int n : {8, 16, 32, 64}) {
            KaiserFir fir;
            setUp(fir, n, KaiserFir::kHighPass, 7000.0f);
            FirModel model(dsptest::kaiserCoefficients(100.0, n, true, 48000.0, 7000.0));
            std::vector<float> out(in);
            uint32_t done = 0;
            for (uint32_t block : {1u, 37u, 0u, 100u, 162u}) {
                if (done == 138) {
                    fir.design(48000.0f, 19000.0f);
                    model.setCoefficients(
                        dsptest::kaiserCoefficients(100.0, n, true, 48000.0, 19000.0));
                }
                fir.filter(out.data() + done, out.data() + done, block);
                for (uint32_t t = done; t < done + block; ++t) {
                    ASSERT_EQ(out[t], model.step(in[t], c.path))
                        << "path " << static_cast<int>(c.path) << " N " << n << " t " << t;
                }
                done += block;
            }
        }
        KaiserFir fir;
        setUp(fir, 32, KaiserFir::kHighPass, 5000.0f);
        std::vector<float> impulse(40, 0.0f), out(40);
        impulse[0] = 1.0f;
        fir.filter(impulse.data(), out.data(), 40);
        for (int m = 0; m < 40; ++m) {
            EXPECT_EQ(out[m], m <= 32 ? fir.coefficients[m] : 0.0f) << m;
        }
    }
}

} // namespace
