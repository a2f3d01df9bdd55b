// The biquad-cascade designers: magnitude responses of the designed
// coefficients, the process arithmetic against a model written here, block
// independence, and the array handling of setOrder.
#include "filters/iir_designer.h"
#include "support/iir_response.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace {

constexpr float kRate = 44100.0f;
constexpr float kCutoff = 1000.0f;
constexpr uint32_t kLowPass = 0;
constexpr uint32_t kHighPass = 1;

// The figures are quoted to 0.01 dB, so the response must round to them.
void expectDb(const dsp::IirDesigner& filter, double hz, double expectedDb) {
    double db = dsptest::cascadeResponseDb(filter, filter.rate, hz);
    EXPECT_NEAR(db, expectedDb, 0.005) << "order " << filter.order << " at " << hz << " Hz";
}

// Designed at 44 100 Hz with the cutoff at 1 000 Hz.
struct Butterworth : dsp::ButterworthDesigner {
    Butterworth(int32_t newOrder, uint32_t kind) {
        EXPECT_TRUE(setOrder(newOrder, kind));
        design(kRate, kCutoff);
    }
};

std::vector<float> noise(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> v(n);
    for (float& x : v) {
        x = dist(gen);
    }
    return v;
}

// Direct form II per section, one sample at a time, in double.
std::vector<float> modelCascade(const dsp::IirDesigner& f, const std::vector<float>& in) {
    std::vector<double> s1(f.sections, 0.0), s2(f.sections, 0.0);
    std::vector<float> out(in.size());
    for (size_t n = 0; n < in.size(); ++n) {
        double x = in[n];
        for (int i = 0; i < f.sections; ++i) {
            double w = x + (f.a2[i] * s2[i] + f.a1[i] * s1[i]);
            double y = (f.b2[i] * s2[i] + f.b1[i] * s1[i]) + f.b0[i] * w;
            s2[i] = s1[i];
            s1[i] = w;
            x = y;
        }
        out[n] = static_cast<float>(x);
    }
    return out;
}

TEST(ButterworthDesigner, ThreeDecibelsDownAtTheCutoffForEveryOrder) {
    for (int32_t order = 1; order <= 10; ++order) {
        expectDb(Butterworth(order, kLowPass), kCutoff, -3.01);
        expectDb(Butterworth(order, kHighPass), kCutoff, -3.01);
    }
}

TEST(ButterworthDesigner, OrderFourLowAndHighPass) {
    Butterworth low(4, kLowPass);
    expectDb(low, 2000.0, -24.28);
    EXPECT_NEAR(dsptest::cascadeResponseDb(low, kRate, 10.0), 0.0, 0.005);
    Butterworth high(4, kHighPass);
    expectDb(high, 500.0, -24.14);
    EXPECT_NEAR(dsptest::cascadeResponseDb(high, kRate, 15000.0), 0.0, 0.005);
}

TEST(ButterworthDesigner, OddOrderEndsWithAFirstOrderSection) {
    Butterworth f(5, kLowPass);
    ASSERT_EQ(f.sections, 3);
    EXPECT_EQ(f.a2[2], 0.0);
    EXPECT_EQ(f.b2[2], 0.0);
    // One pole at T: a1 = -(T - 1)/(1 + T), b0 = b1 = T/(1 + T).
    double t = std::tan(3.141592653589793 / 44100.0 * 1000.0);
    EXPECT_DOUBLE_EQ(f.a1[2], -(t - 1.0) / (1.0 + t));
    EXPECT_DOUBLE_EQ(f.b0[2], t / (1.0 + t));
    EXPECT_EQ(f.b1[2], f.b0[2]);
    // The high-pass turns the sign of b1 and a1 and mirrors the frequency.
    Butterworth h(5, kHighPass);
    double tm = std::tan(3.141592653589793 / 44100.0 * 21050.0);
    EXPECT_DOUBLE_EQ(h.a1[2], (tm - 1.0) / (1.0 + tm));
    EXPECT_EQ(h.b1[2], -h.b0[2]);
}

TEST(ChebyshevDesigner, OneDecibelRippleAtTheCutoffForEveryOrder) {
    for (int32_t order = 1; order <= 10; ++order) {
        dsp::ChebyshevDesigner low;
        ASSERT_TRUE(low.setOrder(order, kLowPass));
        low.design(kRate, kCutoff);
        expectDb(low, kCutoff, -1.00);
        dsp::ChebyshevDesigner high;
        ASSERT_TRUE(high.setOrder(order, kHighPass));
        high.design(kRate, kCutoff);
        expectDb(high, kCutoff, -1.00);
    }
}

TEST(ChebyshevDesigner, StopBandAndPassBandFigures) {
    struct Case {
        int32_t order;
        double hz;
        double db;
    };
    const Case cases[] = {
        {4, 10.0, -1.00},    {4, 2000.0, -34.07}, {3, 10.0, -0.00},
        {3, 2000.0, -22.61}, {5, 2000.0, -45.56},
    };
    for (const Case& c : cases) {
        dsp::ChebyshevDesigner f;
        ASSERT_TRUE(f.setOrder(c.order, kLowPass));
        f.design(kRate, kCutoff);
        expectDb(f, c.hz, c.db);
    }
    // Odd orders have no gain factor: unity at DC, the ripple dips below it.
    dsp::ChebyshevDesigner odd;
    odd.setOrder(3, kLowPass);
    odd.design(kRate, kCutoff);
    EXPECT_LE(dsptest::cascadeResponseDb(odd, kRate, 10.0), 0.0);
    EXPECT_NEAR(dsptest::cascadeResponseDb(odd, kRate, 1e-3), 0.0, 1e-9);
}

TEST(ChebyshevDesigner, TenthOfADecibelRipple) {
    dsp::ChebyshevDesigner f;
    ASSERT_TRUE(f.setOrder(2, kLowPass));
    f.designChebyshev(kRate, kCutoff, 0.1f);
    expectDb(f, 10.0, -0.10);
    expectDb(f, 1000.0, -0.10);
    expectDb(f, 2000.0, -3.36);
}

TEST(ChebyshevDesigner, HighPassMirrorsTheLowPass) {
    dsp::ChebyshevDesigner f;
    ASSERT_TRUE(f.setOrder(4, kHighPass));
    f.design(kRate, kCutoff);
    EXPECT_EQ(f.kindSign, -1.0f);
    EXPECT_EQ(f.rate, kRate);
    EXPECT_EQ(f.frequency, 21050.0f);
    expectDb(f, 1000.0, -1.00);
    expectDb(f, 20000.0, -1.00);
    expectDb(f, 10.0, -172.25);
    // The low-pass at the mirrored frequency has the same coefficients but
    // for the signs of a1 and b1.
    dsp::ChebyshevDesigner mirror;
    ASSERT_TRUE(mirror.setOrder(4, kLowPass));
    mirror.design(kRate, 21050.0f);
    EXPECT_EQ(mirror.frequency, 21050.0f);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(f.a1[i], -mirror.a1[i]);
        EXPECT_EQ(f.b1[i], -mirror.b1[i]);
        EXPECT_EQ(f.a2[i], mirror.a2[i]);
        EXPECT_EQ(f.b0[i], mirror.b0[i]);
        EXPECT_EQ(f.b2[i], mirror.b2[i]);
    }
}

// The coefficients written out from the design rules, step by step in
// double, for both designers, both kinds, odd and even orders.
struct Coefficients {
    std::vector<double> a1, a2, b0, b1, b2;
};

Coefficients modelDesign(bool chebyshev, int32_t n, uint32_t kind, float fs, float f,
                         float rippleDb) {
    const double pi = 3.141592653589793;
    const double ks = kind == 1 ? -1.0 : 1.0;
    const double fp =
        ks <= 0.0 ? 0.5 * static_cast<double>(fs) - static_cast<double>(f) : static_cast<double>(f);
    const double t = std::tan((pi / static_cast<double>(fs)) * fp);
    const int32_t sections = n % 2 == 0 ? n / 2 : (n + 1) / 2;
    Coefficients c;
    c.a1.assign(sections, 0.0);
    c.a2.assign(sections, 0.0);
    c.b0.assign(sections, 1.0);
    c.b1.assign(sections, 0.0);
    c.b2.assign(sections, 0.0);
    const double r = rippleDb;
    const double eps = std::sqrt(std::pow(10.0, 0.1 * r) - 1.0);
    const double alpha = std::log(1.0 / eps + std::sqrt(1.0 / (eps * eps) + 1.0)) / n;
    const double g = std::pow(std::pow(10.0, -r * 0.05), 2.0 / n);
    int32_t k = n % 2 == 0 ? 1 : 2;
    for (int32_t i = 0; i < n / 2; ++i, k += 2) {
        const double theta = k * (pi / 2) / n;
        double u = t;
        double m = 2.0 * t * std::cos(theta);
        if (chebyshev) {
            const double sigma = std::sinh(alpha) * std::cos(theta);
            const double omega = std::cosh(alpha) * std::sin(theta);
            const double radius = std::sqrt(omega * omega + sigma * sigma);
            u = radius * t;
            m = 2.0 * u * std::cos(theta) * std::sinh(alpha) / radius;
        }
        const double d = 1.0 / (1.0 + m + u * u);
        c.a1[i] = -2.0 * ks * (u * u - 1.0) * d;
        c.a2[i] = -(1.0 - m + u * u) * d;
        c.b0[i] = u * u * d;
        c.b1[i] = 2.0 * ks * u * u * d;
        c.b2[i] = u * u * d;
        if (chebyshev && n % 2 == 0) {
            c.b0[i] *= g;
            c.b1[i] *= g;
            c.b2[i] *= g;
        }
    }
    if (n % 2 != 0) {
        const double p = chebyshev ? std::sinh(alpha) * t : t;
        const double d = 1.0 / (1.0 + p);
        c.a1[n / 2] = -ks * (p - 1.0) * d;
        c.b0[n / 2] = p * d;
        c.b1[n / 2] = ks * p * d;
    }
    return c;
}

void expectCoefficients(const dsp::IirDesigner& f, const Coefficients& c, const char* what) {
    ASSERT_EQ(f.sections, static_cast<int32_t>(c.a1.size())) << what;
    for (int32_t i = 0; i < f.sections; ++i) {
        EXPECT_EQ(f.a1[i], c.a1[i]) << what << " order " << f.order << " section " << i;
        EXPECT_EQ(f.a2[i], c.a2[i]) << what << " order " << f.order << " section " << i;
        EXPECT_EQ(f.b0[i], c.b0[i]) << what << " order " << f.order << " section " << i;
        EXPECT_EQ(f.b1[i], c.b1[i]) << what << " order " << f.order << " section " << i;
        EXPECT_EQ(f.b2[i], c.b2[i]) << what << " order " << f.order << " section " << i;
    }
}

TEST(IirDesigner, CoefficientsFollowTheDesignArithmeticExactly) {
    struct Setting {
        float rate, cutoff, ripple;
    } settings[] = {{44100.0f, 1000.0f, 1.0f}, {48000.0f, 7321.5f, 0.1f}, {22050.0f, 10.3f, 3.0f}};
    for (const Setting& s : settings) {
        for (int32_t order = 1; order <= 9; ++order) {
            for (uint32_t kind : {kLowPass, kHighPass}) {
                dsp::ButterworthDesigner b;
                ASSERT_TRUE(b.setOrder(order, kind));
                b.design(s.rate, s.cutoff);
                expectCoefficients(b, modelDesign(false, order, kind, s.rate, s.cutoff, 1.0f),
                                   "Butterworth");
                dsp::ChebyshevDesigner c;
                ASSERT_TRUE(c.setOrder(order, kind));
                c.designChebyshev(s.rate, s.cutoff, s.ripple);
                expectCoefficients(c, modelDesign(true, order, kind, s.rate, s.cutoff, s.ripple),
                                   "Chebyshev");
            }
        }
    }
}

TEST(IirDesigner, SetOrderGivesPassThroughSectionsAndCountsThem) {
    const int32_t expected[] = {0, 1, 1, 2, 2, 3, 3, 4};
    for (int32_t order = 0; order < 8; ++order) {
        dsp::ChebyshevDesigner f;
        ASSERT_TRUE(f.setOrder(order, kHighPass));
        EXPECT_EQ(f.sections, expected[order]);
        EXPECT_EQ(f.order, order);
        EXPECT_EQ(f.allocated, 1);
        EXPECT_EQ(f.kindSign, -1.0f);
        for (int i = 0; i < f.sections; ++i) {
            EXPECT_EQ(f.b0[i], 1.0);
            EXPECT_EQ(f.a1[i] + f.a2[i] + f.b1[i] + f.b2[i] + f.s1[i] + f.s2[i], 0.0);
        }
    }
}

TEST(IirDesigner, SmallerOrderKeepsTheArraysAndResetsEverySection) {
    dsp::ButterworthDesigner f;
    ASSERT_TRUE(f.setOrder(7, kLowPass));
    f.design(kRate, kCutoff);
    std::vector<float> in = noise(64, 1), out(64);
    f.process(in.data(), out.data(), 64);
    double* arrays[] = {f.a1, f.a2, f.b0, f.b1, f.b2, f.s1, f.s2};
    ASSERT_TRUE(f.setOrder(4, kHighPass));
    double* after[] = {f.a1, f.a2, f.b0, f.b1, f.b2, f.s1, f.s2};
    for (int k = 0; k < 7; ++k) {
        EXPECT_EQ(arrays[k], after[k]);
    }
    EXPECT_EQ(f.sections, 2);
    EXPECT_EQ(f.kindSign, -1.0f);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(f.b0[i], 1.0);
        EXPECT_EQ(f.a1[i], 0.0);
        EXPECT_EQ(f.a2[i], 0.0);
        EXPECT_EQ(f.b1[i], 0.0);
        EXPECT_EQ(f.b2[i], 0.0);
        EXPECT_EQ(f.s1[i], 0.0);
        EXPECT_EQ(f.s2[i], 0.0);
    }
    // Pass-through sections: the output is the input.
    f.process(in.data(), out.data(), 64);
    EXPECT_EQ(in, out);
    // Growing again takes arrays large enough for the new order.
    ASSERT_TRUE(f.setOrder(12, kLowPass));
    EXPECT_EQ(f.sections, 6);
    f.design(kRate, kCutoff);
    expectDb(f, kCutoff, -3.01);
}

TEST(IirDesigner, OrderZeroAndNegativeOrdersCopy) {
    std::vector<float> in = noise(100, 2);
    for (int32_t order : {0, -1, -3, -4}) {
        dsp::ChebyshevDesigner f;
        ASSERT_TRUE(f.setOrder(order, kLowPass));
        EXPECT_EQ(f.sections, 0);
        f.design(kRate, kCutoff);
        std::vector<float> out(100, 9.0f);
        EXPECT_EQ(f.process(in.data(), out.data(), 100), 100u);
        EXPECT_EQ(out, in);
        dsp::ButterworthDesigner b;
        ASSERT_TRUE(b.setOrder(order, kHighPass));
        b.design(kRate, kCutoff);
        std::vector<float> copy(in);
        b.process(copy.data(), copy.data(), 100);
        EXPECT_EQ(copy, in);
    }
}

TEST(IirDesigner, ProcessFollowsTheDirectFormTwoCascade) {
    // Long enough to cross the internal chunks; orders up to 16 cover every
    // grouping of sections.
    std::vector<float> in = noise(3000, 3);
    for (int32_t order = 1; order <= 16; ++order) {
        dsp::ChebyshevDesigner f;
        f.setOrder(order, order % 2 == 0 ? kLowPass : kHighPass);
        f.design(48000.0f, 3000.0f);
        std::vector<float> expected = modelCascade(f, in);
        std::vector<float> out(in.size());
        EXPECT_EQ(f.process(in.data(), out.data(), static_cast<uint32_t>(in.size())), in.size());
        ASSERT_EQ(out, expected) << "order " << order;
    }
}

TEST(IirDesigner, InPlaceEqualsOutOfPlace) {
    std::vector<float> in = noise(777, 4);
    dsp::ButterworthDesigner a, b;
    for (dsp::ButterworthDesigner* f : {&a, &b}) {
        f->setOrder(5, kLowPass);
        f->design(kRate, 2500.0f);
    }
    std::vector<float> out(in.size());
    a.process(in.data(), out.data(), 777);
    std::vector<float> inPlace(in);
    b.process(inPlace.data(), inPlace.data(), 777);
    EXPECT_EQ(out, inPlace);
}

TEST(IirDesigner, AnySplitIntoBlocksGivesTheSameOutputBitForBit) {
    std::vector<float> in = noise(5000, 5);
    std::mt19937 gen(6);
    for (int32_t order : {1, 2, 3, 4, 7, 8}) {
        dsp::ChebyshevDesigner whole, pieces;
        for (dsp::ChebyshevDesigner* f : {&whole, &pieces}) {
            f->setOrder(order, order == 3 ? kHighPass : kLowPass);
            f->designChebyshev(kRate, 1500.0f, 0.5f);
        }
        std::vector<float> expected(in.size()), out(in.size());
        whole.process(in.data(), expected.data(), static_cast<uint32_t>(in.size()));
        size_t pos = 0;
        while (pos < in.size()) {
            size_t len = std::min<size_t>(gen() % 300, in.size() - pos); // zero-length blocks too
            pieces.process(in.data() + pos, out.data() + pos, static_cast<uint32_t>(len));
            pos += len;
        }
        ASSERT_EQ(out, expected) << "order " << order;
    }
}

TEST(IirDesigner, RedesignKeepsTheState) {
    dsp::ChebyshevDesigner f;
    f.setOrder(4, kLowPass);
    f.design(kRate, kCutoff);
    std::vector<float> in = noise(50, 7), out(50);
    f.process(in.data(), out.data(), 50);
    std::vector<double> s1(f.s1, f.s1 + 2), s2(f.s2, f.s2 + 2);
    f.design(48000.0f, 5000.0f);
    EXPECT_EQ(std::vector<double>(f.s1, f.s1 + 2), s1);
    EXPECT_EQ(std::vector<double>(f.s2, f.s2 + 2), s2);
    EXPECT_EQ(f.rate, 48000.0f);
    EXPECT_EQ(f.frequency, 5000.0f);
}

} // namespace

// Two cascades run side by side must each give exactly their own direct form
// II output, with the state carried across uneven blocks, in place or not;
// cascades of different lengths take the one-at-a-time path.
TEST(IirDesigner, ProcessPairFollowsEachChannelsOwnCascade) {
    std::vector<float> left = noise(3000, 5);
    std::vector<float> right = noise(3000, 6);
    for (int32_t order = 0; order <= 13; ++order) {
        for (int32_t otherOrder : {order, order + 3}) {
            dsp::ChebyshevDesigner a;
            dsp::ButterworthDesigner b;
            a.setOrder(order, kLowPass);
            a.designChebyshev(48000.0f, 3000.0f, 0.5f);
            b.setOrder(otherOrder, kHighPass);
            b.design(48000.0f, 700.0f);
            std::vector<float> expectedLeft = modelCascade(a, left);
            std::vector<float> expectedRight = modelCascade(b, right);
            std::vector<float> outLeft(left.size());
            std::vector<float> inPlaceRight(right);
            size_t done = 0;
            for (size_t block : {size_t(1), size_t(255), size_t(257), size_t(1000), size_t(1487)}) {
                dsp::IirDesigner::processPair(
                    a, left.data() + done, outLeft.data() + done, b, inPlaceRight.data() + done,
                    inPlaceRight.data() + done, static_cast<uint32_t>(block));
                done += block;
            }
            ASSERT_EQ(done, left.size());
            ASSERT_EQ(outLeft, expectedLeft) << order << " / " << otherOrder;
            ASSERT_EQ(inPlaceRight, expectedRight) << order << " / " << otherOrder;
        }
    }
}
