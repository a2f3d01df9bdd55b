// The biquad-cascade designers: listed responses, coefficients and the
// process arithmetic against models written here, setOrder's arrays.
#include "filters/iir_designer.h"
#include "support/filter_noise.h"
#include "support/iir_response.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using dsptest::filterNoise;

constexpr uint32_t kLowPass = 0;
constexpr uint32_t kHighPass = 1;

// Direct form II per section, one sample at a time, in double.
std::vector<float> modelCascade(const dsp::IirDesigner& f, const std::vector<float>& in) {
    std::vector<double> s1(f.sections, 0.0), s2(f.sections, 0.0);
    std::vector<float> out(in.size());
    for (size_t n = 0; n < in.size(); ++n) {
        double x = in[n];
        for (int i = 0; i < f.sections; ++i) {
            double w = x + (f.a2[i] * s2[i] + f.a1[i] * s1[i]);
            x = (f.b2[i] * s2[i] + f.b1[i] * s1[i]) + f.b0[i] * w;
            s2[i] = s1[i];
            s1[i] = w;
        }
        out[n] = static_cast<float>(x);
    }
    return out;
}

// Responses quoted to 0.01 dB at 44 100 Hz, cutoff 1 000 Hz (ripple 0 means
// Butterworth); order 0 in the table stands for every order 1..10.
TEST(IirDesigner, ListedMagnitudeResponses) {
    struct Case {
        float ripple;
        int32_t order;
        uint32_t kind;
        double hz, db;
    };
    const Case cases[] = {
        {0.0f, 0, kLowPass, 1000.0, -3.01},  {0.0f, 0, kHighPass, 1000.0, -3.01},
        {1.0f, 0, kLowPass, 1000.0, -1.00},  {1.0f, 0, kHighPass, 1000.0, -1.00},
        {0.0f, 4, kLowPass, 2000.0, -24.28}, {0.0f, 4, kLowPass, 10.0, 0.00},
        {0.0f, 4, kHighPass, 500.0, -24.14}, {0.0f, 4, kHighPass, 15000.0, 0.00},
        {1.0f, 4, kLowPass, 10.0, -1.00},    {1.0f, 4, kLowPass, 2000.0, -34.07},
        {1.0f, 3, kLowPass, 10.0, -0.00},    {1.0f, 3, kLowPass, 2000.0, -22.61},
        {1.0f, 5, kLowPass, 2000.0, -45.56}, {1.0f, 4, kHighPass, 20000.0, -1.00},
        {1.0f, 4, kHighPass, 10.0, -172.25}, {0.1f, 2, kLowPass, 10.0, -0.10},
        {0.1f, 2, kLowPass, 1000.0, -0.10},  {0.1f, 2, kLowPass, 2000.0, -3.36},
    };
    for (const Case& c : cases) {
        for (int32_t order = std::max(c.order, 1); order <= (c.order == 0 ? 10 : c.order);
             ++order) {
            dsp::ButterworthDesigner b;
            dsp::ChebyshevDesigner ch;
            dsp::IirDesigner& f = c.ripple == 0.0f ? static_cast<dsp::IirDesigner&>(b) : ch;
            ASSERT_TRUE(f.setOrder(order, c.kind));
            if (c.ripple == 1.0f) {
                f.design(44100.0f, 1000.0f); // the virtual design: 1 dB for a Chebyshev
            } else if (c.ripple != 0.0f) {
                ch.designChebyshev(44100.0f, 1000.0f, c.ripple);
            } else {
                b.design(44100.0f, 1000.0f);
            }
            EXPECT_NEAR(dsptest::cascadeResponseDb(f, 44100.0, c.hz), c.db, 0.005)
                << "ripple " << c.ripple << " order " << order << " kind " << c.kind << " at "
                << c.hz;
        }
    }
}

// One section's coefficients, {a1, a2, b0, b1, b2}, from the design rules in
// double; a first-order section for odd orders last.
std::vector<std::vector<double>> modelDesign(bool chebyshev, int32_t n, uint32_t kind, float fs,
                                             float f, double r) {
    const double pi = 3.141592653589793, ks = kind == 1 ? -1.0 : 1.0;
    const double fp = ks <= 0.0 ? 0.5 * static_cast<double>(fs) - f : static_cast<double>(f);
    const double t = std::tan((pi / static_cast<double>(fs)) * fp);
    const double eps = std::sqrt(std::pow(10.0, 0.1 * r) - 1.0);
    const double alpha = std::log(1.0 / eps + std::sqrt(1.0 / (eps * eps) + 1.0)) / n;
    const double g = chebyshev && n % 2 == 0 ? std::pow(std::pow(10.0, -r * 0.05), 2.0 / n) : 1.0;
    std::vector<std::vector<double>> c;
    for (int32_t i = 0, k = n % 2 == 0 ? 1 : 2; i < n / 2; ++i, k += 2) {
        const double theta = k * (pi / 2) / n;
        double u = t, m = 2.0 * t * std::cos(theta);
        if (chebyshev) {
            const double sigma = std::sinh(alpha) * std::cos(theta);
            const double omega = std::cosh(alpha) * std::sin(theta);
            const double radius = std::sqrt(omega * omega + sigma * sigma);
            u = radius * t;
            m = 2.0 * u * std::cos(theta) * std::sinh(alpha) / radius;
        }
        const double d = 1.0 / (1.0 + m + u * u);
        c.push_back({-2.0 * ks * (u * u - 1.0) * d, -(1.0 - m + u * u) * d, u * u * d * g,
                     2.0 * ks * u * u * d * g, u * u * d * g});
    }
    if (n % 2 != 0) {
        const double p = chebyshev ? std::sinh(alpha) * t : t, d = 1.0 / (1.0 + p);
        c.push_back({-ks * (p - 1.0) * d, 0.0, p * d, ks * p * d, 0.0});
    }
    return c;
}

TEST(IirDesigner, CoefficientsFollowTheDesignArithmeticExactly) {
    struct Setting {
        float rate, cutoff, ripple;
    } settings[] = {{44100.0f, 1000.0f, 1.0f}, {48000.0f, 7321.5f, 0.1f}, {22050.0f, 10.3f, 3.0f}};
    for (const Setting& s : settings) {
        for (int32_t order = 1; order <= 9; ++order) {
            for (uint32_t kind : {kLowPass, kHighPass}) {
                dsp::ButterworthDesigner b;
                dsp::ChebyshevDesigner c;
                ASSERT_TRUE(b.setOrder(order, kind) && c.setOrder(order, kind));
                b.design(s.rate, s.cutoff);
                c.designChebyshev(s.rate, s.cutoff, s.ripple);
                for (bool cheb : {false, true}) {
                    const dsp::IirDesigner& f = cheb ? static_cast<dsp::IirDesigner&>(c) : b;
                    const auto m = modelDesign(cheb, order, kind, s.rate, s.cutoff, s.ripple);
                    ASSERT_EQ(f.sections, static_cast<int32_t>(m.size()));
                    for (int32_t i = 0; i < f.sections; ++i) {
                        const std::vector<double> got = {f.a1[i], f.a2[i], f.b0[i], f.b1[i],
                                                         f.b2[i]};
                        EXPECT_EQ(got, m[i])
                            << cheb << " order " << order << " kind " << kind << " section " << i;
                    }
                }
            }
        }
    }
    // A high-pass is designed at the mirrored frequency.
    dsp::ChebyshevDesigner h;
    ASSERT_TRUE(h.setOrder(4, kHighPass));
    h.design(44100.0f, 1000.0f);
    EXPECT_EQ(h.kindSign, -1.0f);
    EXPECT_EQ(h.frequency, 21050.0f);
}

TEST(IirDesigner, SetOrderResetsPassThroughSectionsAndShrinksInPlace) {
    const std::vector<float> in = filterNoise(64, 1);
    std::vector<float> out(64, 9.0f);
    for (int32_t order : {0, -1, -4}) {
        dsp::ButterworthDesigner f;
        ASSERT_TRUE(f.setOrder(order, kHighPass));
        EXPECT_EQ(f.sections, 0);
        f.design(44100.0f, 1000.0f);
        EXPECT_EQ(f.process(in.data(), out.data(), 64), 64u);
        EXPECT_EQ(out, in);
    }
    dsp::ButterworthDesigner f;
    ASSERT_TRUE(f.setOrder(7, kLowPass));
    EXPECT_EQ(f.sections, 4);
    f.design(44100.0f, 1000.0f);
    f.process(in.data(), out.data(), 64);
    double* before[] = {f.a1, f.a2, f.b0, f.b1, f.b2, f.s1, f.s2};
    ASSERT_TRUE(f.setOrder(4, kHighPass));
    double* after[] = {f.a1, f.a2, f.b0, f.b1, f.b2, f.s1, f.s2};
    EXPECT_TRUE(std::equal(before, before + 7, after));
    EXPECT_EQ(f.sections, 2);
    EXPECT_EQ(f.kindSign, -1.0f);
    f.process(in.data(), out.data(), 64); // every section reset to pass-through
    EXPECT_EQ(out, in);
    // Growing again takes arrays large enough for the new order.
    ASSERT_TRUE(f.setOrder(12, kLowPass));
    EXPECT_EQ(f.sections, 6);
    f.design(44100.0f, 1000.0f);
    EXPECT_NEAR(dsptest::cascadeResponseDb(f, 44100.0, 1000.0), -3.01, 0.005);
}

TEST(IirDesigner, RedesignKeepsTheState) {
    dsp::ChebyshevDesigner f;
    f.setOrder(4, kLowPass);
    f.design(44100.0f, 1000.0f);
    std::vector<float> in = filterNoise(50, 7), out(50);
    f.process(in.data(), out.data(), 50);
    const std::vector<double> state = {f.s1[0], f.s1[1], f.s2[0], f.s2[1]};
    f.design(48000.0f, 5000.0f);
    EXPECT_EQ(state, (std::vector<double>{f.s1[0], f.s1[1], f.s2[0], f.s2[1]}));
    EXPECT_EQ(f.frequency, 5000.0f);
}

// Two cascades side by side, every grouping of sections, each gives its own
// direct form II output across uneven blocks (empty too, and across the
// internal chunks), in place or not; different orders take the single path.
TEST(IirDesigner, ProcessAndProcessPairFollowEachChannelsOwnCascade) {
    const std::vector<float> left = filterNoise(3000, 5), right = filterNoise(3000, 6);
    for (int32_t order = 0; order <= 13; ++order) {
        for (int32_t otherOrder : {order, order + 3}) {
            dsp::ChebyshevDesigner a;
            dsp::ButterworthDesigner b;
            a.setOrder(order, kLowPass);
            a.designChebyshev(48000.0f, 3000.0f, 0.5f);
            b.setOrder(otherOrder, kHighPass);
            b.design(48000.0f, 700.0f);
            const std::vector<float> expectedLeft = modelCascade(a, left);
            const std::vector<float> expectedRight = modelCascade(b, right);
            std::vector<float> outLeft(left.size()), inPlaceRight(right);
            size_t done = 0;
            for (uint32_t block : {1u, 0u, 255u, 257u, 1000u, 1487u}) {
                dsp::IirDesigner::processPair(a, left.data() + done, outLeft.data() + done, b,
                                              inPlaceRight.data() + done,
                                              inPlaceRight.data() + done, block);
                done += block;
            }
            ASSERT_EQ(outLeft, expectedLeft) << order << " / " << otherOrder;
            ASSERT_EQ(inPlaceRight, expectedRight) << order << " / " << otherOrder;
        }
    }
}

} // namespace
