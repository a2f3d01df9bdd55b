// The biquad-cascade designers: listed responses, coefficients and the
// process arithmetic against models, setOrder's arrays. The IIR filter effect through its
// exports against plain conversions around a designer of its own.
#include "core/sample_convert.h"
#include "dsp.h"
#include "filters/iir_designer.h"
#include "filters/iir_filter_processor.h"
#include "support/iir_response.h"
#include "support/signals.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using dsp::IirFilterProcessor;
using dsptest::noise;
using dsptest::pcmNoise;

constexpr uint32_t kLowPass = 0;
constexpr uint32_t kHighPass = 1;

// Direct form II per section, one sample at a time, in double.
std::vector<float> modelCascade(const dsp::IirDesigner& f, const std::vector<float>& in) {
    std::vector<double> s1(f.sectionCount(), 0.0), s2(f.sectionCount(), 0.0);
    std::vector<float> out(in.size());
    for (size_t n = 0; n < in.size(); ++n) {
        double x = in[n];
        for (int i = 0; i < f.sectionCount(); ++i) {
            const dsp::BiquadSection& c = f.section(i);
            double w = x + (c.a2 * s2[i] + c.a1 * s1[i]);
            x = (c.b2 * s2[i] + c.b1 * s1[i]) + c.b0 * w;
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
        {0.0f, 4, kLowPass, 2000.0, -24.28}, {0.0f, 4, kHighPass, 500.0, -24.14},
        {1.0f, 4, kLowPass, 10.0, -1.00},    {1.0f, 4, kLowPass, 2000.0, -34.07},
        {1.0f, 3, kLowPass, 10.0, -0.00},    {1.0f, 5, kLowPass, 2000.0, -45.56},
        {1.0f, 4, kHighPass, 10.0, -172.25}, {0.1f, 2, kLowPass, 2000.0, -3.36},
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
                << c.ripple << " " << order << " " << c.kind << " " << c.hz;
        }
    }
}

// One section's coefficients, {a1, a2, b0, b1, b2}, from the design rules in
// double (float arithmetic would pass the listed responses); odd orders end
// with a first-order section.
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
    } settings[] = {{48000.0f, 7321.5f, 0.1f}, {22050.0f, 10.3f, 3.0f}};
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
                    ASSERT_EQ(f.sectionCount(), static_cast<int32_t>(m.size()));
                    for (int32_t i = 0; i < f.sectionCount(); ++i) {
                        const dsp::BiquadSection& s = f.section(i);
                        const std::vector<double> got = {s.a1, s.a2, s.b0, s.b1, s.b2};
                        EXPECT_EQ(got, m[i]) << cheb << " " << order << " " << kind << " " << i;
                    }
                }
            }
        }
    }
}

// design keeps the running state; setOrder resets every section to
// pass-through, shrinking in place and growing when it must.
TEST(IirDesigner, DesignKeepsTheStateAndSetOrderResetsItInPlace) {
    const std::vector<float> in = noise(64, 1);
    std::vector<float> out(64, 9.0f);
    for (int32_t order : {0, -1, -4}) {
        dsp::ButterworthDesigner f;
        ASSERT_TRUE(f.setOrder(order, kHighPass));
        EXPECT_EQ(f.sectionCount(), 0);
        f.design(44100.0f, 1000.0f);
        EXPECT_EQ(f.process(in.data(), out.data(), 64), 64u);
        EXPECT_EQ(out, in);
    }
    dsp::ButterworthDesigner f;
    ASSERT_TRUE(f.setOrder(7, kLowPass));
    EXPECT_EQ(f.sectionCount(), 4);
    f.design(44100.0f, 1000.0f);
    f.process(in.data(), out.data(), 64);
    auto state = [&f] {
        std::vector<double> s;
        for (int32_t i = 0; i < f.sectionCount(); ++i) {
            s.insert(s.end(), {f.section(i).s1, f.section(i).s2});
        }
        return s;
    };
    const std::vector<double> running = state();
    f.design(48000.0f, 5000.0f);
    EXPECT_EQ(state(), running);
    const dsp::BiquadSection* before = &f.section(0);
    ASSERT_TRUE(f.setOrder(4, kHighPass));
    EXPECT_EQ(&f.section(0), before);
    EXPECT_EQ(f.sectionCount(), 2);
    f.process(in.data(), out.data(), 64); // every section reset to pass-through
    EXPECT_EQ(out, in);
    // Growing again takes arrays large enough for the new order.
    ASSERT_TRUE(f.setOrder(12, kLowPass));
    EXPECT_EQ(f.sectionCount(), 6);
    f.design(44100.0f, 1000.0f);
    EXPECT_NEAR(dsptest::cascadeResponseDb(f, 44100.0, 1000.0), -3.01, 0.005);
}

// Two cascades side by side, every grouping of sections, each its own direct
// form II output across uneven blocks, in place or not.
TEST(IirDesigner, ProcessAndProcessPairFollowEachChannelsOwnCascade) {
    const std::vector<float> left = noise(3000, 5), right = noise(3000, 6);
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

// Mono reference: plain conversion in, a designer of its own, plain out.
struct MonoModel {
    dsp::ChebyshevDesigner filter;
    MonoModel(float rate, int32_t order, float cutoff, uint32_t kind) {
        filter.setOrder(order, kind);
        filter.design(rate, cutoff);
    }
    std::vector<int16_t> run(const std::vector<int16_t>& in) {
        std::vector<float> x(in.size());
        std::transform(in.begin(), in.end(), x.begin(), dsp::convert::sampleToFloat);
        filter.process(x.data(), x.data(), static_cast<uint32_t>(x.size()));
        std::vector<int16_t> out(in.size());
        std::transform(x.begin(), x.end(), out.begin(), dsp::convert::floatToSample);
        return out;
    }
};

// Channel c of interleaved stereo samples.
std::vector<int16_t> channel(const std::vector<int16_t>& stereo, uint32_t c) {
    std::vector<int16_t> v(stereo.size() / 2);
    for (size_t i = 0; i < v.size(); ++i) {
        v[i] = stereo[2 * i + c];
    }
    return v;
}

class IirFilterTest : public ::testing::Test {
protected:
    void SetUp() override { dsptest::SimdGuard::set(false, false, false); }
    dsptest::SimdGuard guard_;
};

// Each stereo channel is its own mono cascade in any block size; kind 1 is
// the high-pass, every other kind a low-pass.
TEST_F(IirFilterTest, StereoChannelsMatchTheirOwnMonoCascades) {
    const uint32_t frames = 300, orders[] = {1, 4, 5, 8, 9, 12, 0},
                   kinds[] = {DSP_IIR_HIGHPASS, DSP_IIR_LOWPASS, 2, 99};
    for (uint32_t k = 0; k < 7; ++k) {
        const uint32_t order = orders[k], kind = kinds[k % 4], modelKind = k % 4 == 0 ? 1 : 0;
        void* h = initIirFilter(frames, 2, 48000, order, 3000.0f, kind);
        ASSERT_NE(h, nullptr);
        MonoModel model[2] = {{48000.0f, static_cast<int32_t>(order), 3000.0f, modelKind},
                              {48000.0f, static_cast<int32_t>(order), 3000.0f, modelKind}};
        for (uint32_t block : {frames, 1000u, 7u}) {
            std::vector<int16_t> src = pcmNoise(2 * block, order + block), dst(2 * block);
            EXPECT_EQ(doIirFilter(h, src.data(), dst.data(), 4 * block), 1u);
            for (uint32_t ch = 0; ch < 2; ++ch) {
                ASSERT_EQ(channel(dst, ch), model[ch].run(channel(src, ch)))
                    << order << " " << block;
            }
        }
        termIirFilter(h);
    }
}

// processChained in place, and with the left output written over the right
// input (then the right filter sees the left result).
TEST_F(IirFilterTest, ChainedChannelsInPlaceAndAliased) {
    const uint32_t frames = 300;
    IirFilterProcessor* f =
        static_cast<IirFilterProcessor*>(initIirFilter(frames, 2, 44100, 6, 900.0f, 0));
    ASSERT_NE(f, nullptr);
    MonoModel refL(44100.0f, 6, 900.0f, 0), refR(44100.0f, 6, 900.0f, 0);
    std::vector<float> inL = dsptest::noise(frames, 98), inR = dsptest::noise(frames, 99);
    std::vector<float> l(inL), r(inR), el(inL), er(inR);
    EXPECT_EQ(f->processChained(l.data(), r.data(), l.data(), r.data(), frames), frames);
    refL.filter.process(el.data(), el.data(), frames);
    refR.filter.process(er.data(), er.data(), frames);
    EXPECT_EQ(l, el);
    EXPECT_EQ(r, er);
    std::vector<float> shared(inR), outR(frames), expectShared(inR), expectR(frames);
    f->processChained(inL.data(), shared.data(), shared.data(), outR.data(), frames);
    refL.filter.process(inL.data(), expectShared.data(), frames);
    refR.filter.process(expectShared.data(), expectR.data(), frames);
    EXPECT_EQ(shared, expectShared);
    EXPECT_EQ(outR, expectR);
    EXPECT_EQ(f->processChannel(2, inR.data(), outR.data(), frames), 0u);
    termIirFilter(f);
}

// Going stereo at the same rate the left filter continues and the right
// starts fresh; a new rate gives a fresh filter.
TEST_F(IirFilterTest, ConfigureKeepsTheStateAtTheSameRateAndRestartsAtAnother) {
    void* h = initIirFilter(256, 1, 44100, 4, 1000.0f, 0);
    IirFilterProcessor* f = static_cast<IirFilterProcessor*>(h);
    MonoModel left(44100.0f, 4, 1000.0f, 0), right(44100.0f, 4, 1000.0f, 0);
    std::vector<int16_t> src = pcmNoise(256, 14), dst(260, 777);
    EXPECT_EQ(doIirFilter(h, src.data(), dst.data(), 512), 1u);
    EXPECT_EQ(dst[256], 777);
    dst.resize(256);
    EXPECT_EQ(dst, left.run(src));
    f->configure(1024, 2, 44100);
    EXPECT_EQ(f->inFrames(), 1024u);
    std::vector<int16_t> stereo = pcmNoise(2048, 15), out(2048);
    EXPECT_EQ(doIirFilter(h, stereo.data(), out.data(), 4096), 1u);
    EXPECT_EQ(channel(out, 0), left.run(channel(stereo, 0)));
    EXPECT_EQ(channel(out, 1), right.run(channel(stereo, 1)));
    f->configure(1024, 1, 48000);
    EXPECT_EQ(f->inRate(), 48000u);
    EXPECT_EQ(f->outRate(), 48000u);
    EXPECT_EQ(doIirFilter(h, src.data(), dst.data(), 512), 1u);
    EXPECT_EQ(dst, MonoModel(48000.0f, 4, 1000.0f, 0).run(src));
    termIirFilter(h);
}

} // namespace
