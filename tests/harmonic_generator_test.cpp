// The harmonic generator's parts (Kaiser FIR, transfer curve, delay line,
// cutoff detection, mixing kernels), each against a direct model, and the
// generator against a composition of separately driven parts.
#include "core/fastmem_pool.h"
#include "dsp.h"
#include "filters/kaiser_fir.h"
#include "rate/cutoff_detector.h"
#include "rate/delay_line.h"
#include "rate/harmonic_generator.h"
#include "rate/harmonic_mix.h"
#include "rate/transfer_curve.h"
#include "support/allocation_failure.h"
#include "support/kaiser_fir_model.h"
#include "support/rate_model.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using dsp::ArithmeticRule;
using dsp::CurveNode;
using dsp::HarmonicGenerator;
using dsp::KaiserFir;
using dsp::TransferCurve;
using dsptest::FirModel;
using dsptest::kaiserCoefficients;
using dsptest::noise;

void setUp(KaiserFir& fir, int n, uint32_t kind, float freq) {
    ASSERT_TRUE(fir.setWindow(100.0f, n, kind));
    fir.design(48000.0f, freq);
}

// The first `length` outputs for a unit impulse: coefficient m at output m.
std::vector<float> impulseResponse(KaiserFir& fir, size_t length) {
    std::vector<float> in(length, 0.0f), out(length, -7.0f);
    in[0] = 1.0f;
    fir.filter(ArithmeticRule::kPlain, in.data(), out.data(), static_cast<uint32_t>(length));
    return out;
}

std::vector<float> withZeros(std::vector<float> coefficients, size_t length) {
    coefficients.resize(length, 0.0f);
    return coefficients;
}

// A smaller order reuses the arrays and clears the history; an order not a
// power of two leaves the filter not ready, writing nothing.
TEST(KaiserFir, SetWindowReusesItsArraysAndClearsTheHistory) {
    KaiserFir fir;
    setUp(fir, 32, KaiserFir::kHighPass, 4000.0f);
    std::vector<float> in = noise(40, 1);
    fir.filter(ArithmeticRule::kPlain, in.data(), in.data(), 40);
    dsptest::FailingHeap::arm(0, dsptest::FailMode::OnlyAt);
    ASSERT_TRUE(fir.setWindow(20.0f, 16, KaiserFir::kLowPass));
    EXPECT_EQ(dsptest::FailingHeap::disarm(), 0u);
    fir.design(48000.0f, 6000.0f);
    EXPECT_EQ(impulseResponse(fir, 24),
              withZeros(kaiserCoefficients(20.0, 16, false, 48000.0, 6000.0), 24));

    EXPECT_FALSE(fir.setWindow(100.0f, 12, KaiserFir::kLowPass));
    EXPECT_FALSE(fir.isReady());
    EXPECT_EQ(impulseResponse(fir, 4), std::vector<float>(4, -7.0f));
}

// Each rule and kind against the model of its additions: noise in uneven
// blocks (an empty one too), in place; redesigning midway keeps the history.
TEST(KaiserFir, EachRuleAndKindFollowsTheWindowMethodModel) {
    const std::vector<float> in = noise(300, 7);
    for (int n : {8, 64}) {
        for (uint32_t kind : {KaiserFir::kLowPass, KaiserFir::kHighPass}) {
            const bool high = kind == KaiserFir::kHighPass;
            const std::vector<float> first = kaiserCoefficients(100.0, n, high, 48000.0, 7000.0);
            for (ArithmeticRule rule : {ArithmeticRule::kPlain, ArithmeticRule::kTruncating,
                                        ArithmeticRule::kNearestEven}) {
                KaiserFir fir;
                setUp(fir, n, kind, 7000.0f);
                FirModel model(first);
                std::vector<float> out(in);
                uint32_t done = 0;
                for (uint32_t block : {1u, 37u, 0u, 100u, 162u}) {
                    if (done == 138) {
                        fir.design(48000.0f, 19000.0f);
                        model.setCoefficients(kaiserCoefficients(100.0, n, high, 48000.0, 19000.0));
                    }
                    fir.filter(rule, out.data() + done, out.data() + done, block);
                    for (uint32_t t = done; t < done + block; ++t) {
                        ASSERT_EQ(out[t], model.step(in[t], rule))
                            << static_cast<int>(rule) << " " << n << " " << kind << " " << t;
                    }
                    done += block;
                }
            }
        }
    }
}

struct CurvePoint {
    float x, y;
};

// The Bezier points of a bend, clamped, sorted, without repeated x.
std::vector<CurvePoint> modelCurve(float h) {
    const double a = 0.5 - h * std::cos(0.7853981633974483);
    const double b = 0.5 + h * std::sin(0.7853981633974483);
    std::vector<CurvePoint> points = {{0.0f, 0.0f}, {1.0f, 1.0f}};
    for (int k = 1; k < 64; ++k) {
        const double t = k / 64.0;
        const float x = static_cast<float>(std::clamp(2 * (1 - t) * t * a + t * t, 0.0, 1.0));
        const float y = static_cast<float>(std::clamp(2 * (1 - t) * t * b + t * t, -1.0, 1.0));
        if (std::none_of(points.begin(), points.end(),
                         [x](const CurvePoint& p) { return p.x == x; })) {
            points.push_back({x, y});
        }
    }
    std::sort(points.begin(), points.end(),
              [](const CurvePoint& l, const CurvePoint& r) { return l.x < r.x; });
    return points;
}

// Linear interpolation between the model's points, the sign of x restored.
double modelShape(const std::vector<CurvePoint>& points, float x) {
    const double a = std::fabs(static_cast<double>(x));
    if (a >= 1.0) {
        return std::copysign(1.0, x);
    }
    size_t k = 0;
    while (points[k + 1].x <= a) {
        ++k;
    }
    const CurvePoint& p = points[k];
    const CurvePoint& q = points[k + 1];
    return std::copysign(p.y + (q.y - p.y) / (q.x - p.x) * (a - p.x), x);
}

std::vector<float> shapeAll(TransferCurve& curve, const std::vector<float>& in) {
    std::vector<float> out(in.size());
    curve.shape(in.data(), out.data(), static_cast<uint32_t>(in.size()));
    return out;
}

// Without a curve the samples pass; the straight line (bend 0) passes them
// too and limits at full scale, keeping the sign of zero.
TEST(TransferCurve, ZeroBendPassesTheSignalAndLimitsAtFullScale) {
    TransferCurve curve;
    const std::vector<float> in = noise(2000, 4, 1.0f);
    EXPECT_EQ(shapeAll(curve, in), in);
    ASSERT_TRUE(curve.build(0.0f));
    EXPECT_EQ(shapeAll(curve, in), in);
    const std::vector<float> out =
        shapeAll(curve, {0.5f, -0.25f, 1.5f, -3.0f, 0.0f, -0.0f, 1.0f, -1.0f});
    EXPECT_EQ(out, (std::vector<float>{0.5f, -0.25f, 1.0f, -1.0f, 0.0f, -0.0f, 1.0f, -1.0f}));
    EXPECT_TRUE(std::signbit(out[5]));
}

// Nodes and slopes against the model's points (a bend of -1 clamps 18 onto
// the last node), the shaping as interpolation between them.
TEST(TransferCurve, BentCurveInterpolatesItsBezierPoints) {
    for (float h : {-1.0f, 0.3f, 0.7f, -0.4f}) {
        TransferCurve curve;
        ASSERT_TRUE(curve.build(h));
        const std::vector<CurvePoint> model = modelCurve(h);
        ASSERT_EQ(curve.nodeCount(), model.size());
        for (size_t k = 0; k < model.size(); ++k) {
            const CurveNode& n = curve.node(k);
            EXPECT_EQ(n.x, model[k].x) << h << " " << k;
            EXPECT_EQ(n.y, model[k].y) << h << " " << k;
            const double slope = k + 1 == model.size()
                                     ? 0.0
                                     : (static_cast<double>(model[k + 1].y) - model[k].y) /
                                           (static_cast<double>(model[k + 1].x) - model[k].x);
            EXPECT_EQ(n.slope, static_cast<float>(slope)) << h << " " << k;
        }
        if (h == -1.0f) {
            continue; // its points dip below zero, where the sign model does not hold
        }
        const std::vector<float> in = noise(3000, 9, 1.3f);
        const std::vector<float> out = shapeAll(curve, in);
        TransferCurve single; // one sample at a time: the cursor does not matter
        ASSERT_TRUE(single.build(h));
        for (size_t i = 0; i < in.size(); ++i) {
            ASSERT_NEAR(out[i], modelShape(model, in[i]), 2e-6) << h << " " << in[i];
            ASSERT_EQ(std::signbit(out[i]), std::signbit(in[i]));
            float one = 0.0f;
            single.shape(&in[i], &one, 1);
            ASSERT_EQ(one, out[i]);
        }
    }
    EXPECT_EQ(modelCurve(-1.0f).size(), 47u);
}

TEST(DelayLine, DelaysByItsLengthAcrossResizes) {
    dsp::DelayLine line;
    const std::vector<float> in = noise(40, 21);
    for (uint32_t length : {8u, 4u, 16u}) {
        ASSERT_TRUE(line.setup(length));
        for (size_t t = 0; t < in.size(); ++t) {
            ASSERT_EQ(line.tick(in[t]), t < length ? 0.0f : in[t - length]) << length;
        }
    }
    EXPECT_FALSE(line.setup(0));
}

// Scans from the top bin down for the first rise of 25 dB over the floor.
TEST(DetectCutoff, FindsTheFirstRiseOf25DbFromTheTop) {
    const struct {
        std::vector<std::pair<int, float>> peaks;
        float expected;
    } cases[] = {
        {{{89, -80.0f}, {88, -60.0f}}, 16500.0f},
        {{}, 23812.5f},
        {{{110, -110.0f}, {109, -95.0f}}, 109 * 187.5f},                            // exactly 25 dB
        {{{100, -100.0f}, {99, -100.0f}, {98, -96.0f}, {97, -95.0f}}, 97 * 187.5f}, // a plateau
        {{{100, -119.0f}, {99, -150.0f}}, 99 * 187.5f}, // a fall ends it too
        {{{85, -119.0f}, {84, 0.0f}}, 23812.5f},        // below bin 85: unseen
        {{{86, -119.0f}, {85, 0.0f}}, 85 * 187.5f},
    };
    for (const auto& c : cases) {
        std::vector<float> db(128, -120.0f);
        for (const auto& p : c.peaks) {
            db[p.first] = p.second;
        }
        EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), c.expected) << c.expected;
    }
    std::vector<float> db(128, -120.0f);
    EXPECT_EQ(dsp::detectCutoff(db.data(), 0, 48000), 0.0f);
}

// The mixing steps under each rule: the grouped share in single precision,
// the rest in double.
TEST(HarmonicMix, RulesSplitIntoGroupsAndRemainder) {
    const struct {
        dsp::ArithmeticRule rule;
        uint32_t group;
    } rules[] = {{dsp::ArithmeticRule::kPlain, 0},
                 {dsp::ArithmeticRule::kTruncating, 4},
                 {dsp::ArithmeticRule::kNearestEven, 8}};
    const std::vector<float> shaped = noise(64, 31), band0 = noise(64, 32), out0 = noise(64, 33);
    const float gain = 0.37f;
    for (const auto& r : rules) {
        for (uint32_t n : {0u, 3u, 4u, 7u, 8u, 13u, 64u}) {
            std::vector<float> band = band0, out = out0;
            dsp::subtractFromShaped(r.rule, shaped.data(), band.data(), n);
            dsp::addScaled(r.rule, out.data(), band.data(), gain, n);
            const uint32_t share = r.group == 0 || n < r.group ? 0 : n - n % r.group;
            for (uint32_t i = 0; i < 64; ++i) {
                float d = band0[i], o = out0[i];
                if (i < share) {
                    d = shaped[i] - band0[i];
                    o = out0[i] + gain * d;
                } else if (i < n) {
                    d = static_cast<float>(static_cast<double>(shaped[i]) - band0[i]);
                    o = static_cast<float>(out0[i] + static_cast<double>(gain) * d);
                }
                ASSERT_EQ(band[i], d) << r.group << " " << n << " " << i;
                ASSERT_EQ(out[i], o) << r.group << " " << n << " " << i;
            }
        }
    }
}

constexpr uint32_t kBlock = 256;

void setUpGenerator(HarmonicGenerator& g, float harmonics, float mix, uint32_t mode,
                    uint32_t frames = kBlock) {
    ASSERT_EQ(g.setup(frames, 48000, harmonics, mix, 5000, mode, 16), 1u);
}

// A smaller block with the same bend allocates nothing; a larger one takes
// two band buffers; an unknown mode leaves the delay as it was.
TEST(HarmonicGenerator, SetupSizesTheHistoryAndReusesWhatFits) {
    using dsptest::FailingHeap;
    using dsptest::FailingPool;
    using dsptest::FailMode;
    HarmonicGenerator g;
    setUpGenerator(g, 0.4f, 35.0f, 1);
    FailingHeap::arm(0, FailMode::OnlyAt);
    FailingPool::arm(0, FailMode::OnlyAt);
    setUpGenerator(g, 0.4f, 10.0f, 0, 128);
    EXPECT_EQ(FailingHeap::disarm(), 0u);
    EXPECT_EQ(FailingPool::disarm(), 0u);
    EXPECT_EQ(g.blockFrames(), 128u);
    EXPECT_EQ(g.dryDelayLength(), 8u);
    const uint32_t poolBytes = fastmemGetAllocatedSize();
    FailingPool::arm(0, FailMode::OnlyAt);
    ASSERT_EQ(g.setup(200, 48000, -1.0f, 10.0f, 5000, 7, 16), 1u);
    EXPECT_EQ(FailingPool::disarm(), 2u);
    EXPECT_EQ(fastmemGetAllocatedSize(), poolBytes - 2 * 256 * 4 + 2 * 200 * 4);
    EXPECT_EQ(g.curve().nodeCount(), 47u);
    EXPECT_EQ(g.dryDelayLength(), 8u);
}

// Against separately driven parts: the filters by the FIR model, the shaper by
// its own curve, the delay and the mix written out (plain path).
TEST(HarmonicGenerator, ProcessMatchesItsPartsComposedByHand) {
    for (uint32_t mode : {0u, 1u}) {
        HarmonicGenerator g;
        setUpGenerator(g, 0.8f, 60.0f, mode);
        FirModel bandModel(dsptest::kaiserCoefficients(100.0, 16, true, 48000.0, 5000.0));
        FirModel limitModel(dsptest::kaiserCoefficients(100.0, 32, true, 48000.0, 5000.0));
        TransferCurve curve;
        ASSERT_TRUE(curve.build(0.8f));
        const float gain = static_cast<float>(60.0 * 0.01);
        std::vector<float> past(16, 0.0f);
        const std::vector<float> in = noise(4 * kBlock, 77);
        const float cutoffs[] = {16500.0f, 20000.0f, 17062.5f, 23812.5f};
        for (uint32_t b = 0; b < 4; ++b) {
            std::vector<float> out(kBlock);
            const float* block = in.data() + b * kBlock;
            const uint32_t n = b == 2 ? 100 : kBlock; // a short block too
            g.process(dsp::ArithmeticRule::kPlain, block, out.data(), cutoffs[b], n);
            limitModel.setCoefficients(
                dsptest::kaiserCoefficients(100.0, 32, true, 48000.0, cutoffs[b]));
            for (uint32_t i = 0; i < n; ++i) {
                const float filtered = bandModel.step(block[i], dsp::ArithmeticRule::kPlain);
                float shaped = 0.0f;
                curve.shape(&filtered, &shaped, 1);
                float part = static_cast<float>(static_cast<double>(shaped) - filtered);
                if (mode == 1) {
                    part = limitModel.step(part, dsp::ArithmeticRule::kPlain);
                }
                past.push_back(block[i]);
                const float dry = past[past.size() - 1 - (mode == 1 ? 16 : 8)];
                ASSERT_EQ(out[i], static_cast<float>(dry + static_cast<double>(gain) * part))
                    << mode << " " << b << " " << i;
            }
        }
    }
}

// processDetecting equals process with the cutoff a separate sliding spectrum
// finds; an empty block changes nothing; mode 0 does not analyse.
TEST(HarmonicGenerator, DetectingAnalysesEachBlockWithTheSlidingSpectrum) {
    const dsp::ArithmeticRule rule = dsp::ArithmeticRule::kPlain;
    HarmonicGenerator g, supplied, twin;
    for (HarmonicGenerator* each : {&g, &supplied, &twin}) {
        setUpGenerator(*each, 0.8f, 60.0f, 1);
    }
    dsp::FftEngine reference;
    ASSERT_TRUE(reference.setup(kBlock, 597, 256, 120.0f));
    std::vector<float> db(128);
    // Silence first, then a tone.
    std::vector<float> in(5 * kBlock, 0.0f);
    for (size_t t = 2 * kBlock; t < in.size(); ++t) {
        in[t] = static_cast<float>(0.5 * std::sin(2 * M_PI * 3000.0 * t / 48000.0));
    }
    std::vector<float> out(kBlock), viaCutoff(kBlock), twinOut(kBlock);
    for (uint32_t b = 0; b < 4; ++b) {
        const float* block = in.data() + b * kBlock;
        reference.analyze(block);
        reference.magnitudesDb(db.data());
        const float expected = dsp::detectCutoff(db.data(), 128, 48000);
        g.processDetecting(rule, block, out.data(), kBlock);
        twin.processDetecting(rule, block, twinOut.data(), kBlock);
        supplied.process(rule, block, viaCutoff.data(), expected, kBlock);
        EXPECT_EQ(g.cutoffHz(), b < 2 ? 23812.5f : expected) << b;
        EXPECT_EQ(out, viaCutoff) << b;
    }
    float sentinel = 5.0f;
    g.processDetecting(rule, in.data(), &sentinel, 0);
    g.process(rule, in.data(), &sentinel, g.cutoffHz(), 0);
    EXPECT_EQ(sentinel, 5.0f);
    const float* last = in.data() + 4 * kBlock;
    g.processDetecting(rule, last, out.data(), kBlock);
    twin.processDetecting(rule, last, twinOut.data(), kBlock);
    EXPECT_EQ(out, twinOut);

    g.setActiveMode(0);
    const float before = g.cutoffHz();
    g.processDetecting(rule, in.data(), out.data(), kBlock);
    EXPECT_EQ(g.cutoffHz(), before);
}

} // namespace
