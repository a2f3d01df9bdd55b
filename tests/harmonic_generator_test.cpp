// The harmonic generator and its parts: the transfer curve, the delay line,
// the cutoff detection and the mixing kernels, each against a direct model,
// and the generator against a composition of separately driven parts.
#include "rate/cutoff_detector.h"
#include "rate/delay_line.h"
#include "rate/harmonic_generator.h"
#include "rate/harmonic_mix.h"
#include "rate/transfer_curve.h"
#include "support/kaiser_fir_model.h"
#include "support/rate_model.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using dsp::CurveNode;
using dsp::HarmonicGenerator;
using dsp::TransferCurve;
using dsptest::noiseBlock;

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

TEST(TransferCurve, IdentityAndZeroBendPassTheSignalAndLimitAtFullScale) {
    TransferCurve reset;
    ASSERT_TRUE(reset.resetIdentity());
    const std::vector<float> out =
        shapeAll(reset, {0.5f, -0.25f, 1.5f, -3.0f, 0.0f, -0.0f, 1.0f, -1.0f});
    EXPECT_EQ(out, (std::vector<float>{0.5f, -0.25f, 1.0f, -1.0f, 0.0f, -0.0f, 1.0f, -1.0f}));
    EXPECT_TRUE(std::signbit(out[5]));

    TransferCurve zero;
    ASSERT_TRUE(zero.build(0.0f));
    EXPECT_EQ(zero.count, 65);
    const std::vector<float> in = noiseBlock(2000, 4, 1.0f);
    EXPECT_EQ(shapeAll(zero, in), in);
}

// The node list against the model's points (a bend of -1 clamps 18 points
// onto the tail), and the shaping as interpolation between them.
TEST(TransferCurve, BentCurveInterpolatesItsBezierPoints) {
    for (float h : {-1.0f, 0.3f, 0.7f, -0.4f}) {
        TransferCurve curve;
        ASSERT_TRUE(curve.build(h));
        const std::vector<CurvePoint> model = modelCurve(h);
        ASSERT_EQ(curve.count, static_cast<int32_t>(model.size()));
        size_t k = 0;
        const CurveNode* last = nullptr;
        for (const CurveNode* n = curve.head; n != nullptr; last = n, n = n->next, ++k) {
            EXPECT_EQ(n->prev, last);
            EXPECT_EQ(n->x, model[k].x) << h << " " << k;
            EXPECT_EQ(n->y, model[k].y) << h << " " << k;
        }
        EXPECT_EQ(last, curve.tail);
        if (h == -1.0f) {
            continue; // its points dip below zero, where the sign model does not hold
        }
        const std::vector<float> in = noiseBlock(3000, 9, 1.3f);
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
    const std::vector<float> in = noiseBlock(40, 21);
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
        {{{100, -100.0f}, {99, -96.0f}, {98, -110.0f}}, 23812.5f}, // below 25 dB
        {{{110, -110.0f}, {109, -95.0f}}, 109 * 187.5f},           // exactly 25 dB
        {{{120, -20.0f}, {119, -20.0f}}, 119 * 187.5f},            // enter, then meet
        {{{100, -119.0f}, {99, -150.0f}}, 99 * 187.5f},            // a fall ends it too
        {{{85, -119.0f}, {84, 0.0f}}, 23812.5f},                   // below bin 85: unseen
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

// The mixing kernels: the vector share in single precision, the rest in
// double; the switches pick 3DNow! before SSE.
TEST(HarmonicMix, KernelsSplitIntoGroupsAndRemainder) {
    using Kernel = void (*)(const float*, float*, uint32_t);
    using AddKernel = void (*)(float*, const float*, float, uint32_t);
    const struct {
        Kernel subtract;
        AddKernel add;
        uint32_t group;
        bool amd3dnow, sse;
    } paths[] = {{dsp::mix::subtractPlain, dsp::mix::addScaledPlain, 0, false, false},
                 {dsp::mix::subtract3dnow, dsp::mix::addScaled3dnow, 4, true, true},
                 {dsp::mix::subtractSse, dsp::mix::addScaledSse, 8, false, true}};
    const std::vector<float> shaped = noiseBlock(64, 31), band0 = noiseBlock(64, 32),
                             out0 = noiseBlock(64, 33);
    const float gain = 0.37f;
    dsptest::SimdGuard guard;
    for (const auto& path : paths) {
        for (uint32_t n : {0u, 3u, 4u, 7u, 8u, 13u, 64u}) {
            std::vector<float> band = band0, out = out0;
            path.subtract(shaped.data(), band.data(), n);
            path.add(out.data(), band.data(), gain, n);
            const uint32_t share = path.group == 0 || n < path.group ? 0 : n - n % path.group;
            for (uint32_t i = 0; i < 64; ++i) {
                float d = band0[i], o = out0[i];
                if (i < share) {
                    d = shaped[i] - band0[i];
                    o = out0[i] + gain * d;
                } else if (i < n) {
                    d = static_cast<float>(static_cast<double>(shaped[i]) - band0[i]);
                    o = static_cast<float>(out0[i] + static_cast<double>(gain) * d);
                }
                ASSERT_EQ(band[i], d) << path.group << " " << n << " " << i;
                ASSERT_EQ(out[i], o) << path.group << " " << n << " " << i;
            }
        }
        dsptest::SimdGuard::set(false, path.amd3dnow, path.sse);
        std::vector<float> viaSwitch = out0, direct = out0;
        dsp::addScaled(viaSwitch.data(), band0.data(), gain, 13);
        path.add(direct.data(), band0.data(), gain, 13);
        EXPECT_EQ(viaSwitch, direct) << path.group;
    }
}

constexpr uint32_t kBlock = 256;

void setUpGenerator(HarmonicGenerator& g, float harmonics, float mix, uint32_t mode,
                    uint32_t frames = kBlock) {
    ASSERT_EQ(g.setup(frames, 48000, harmonics, mix, 5000, mode, 16), 1u);
}

// History of trunc(frames * 2.3333), at least one transform; a smaller block
// keeps the buffers and the same bend the curve.
TEST(HarmonicGenerator, SetupSizesTheHistoryAndReusesWhatFits) {
    HarmonicGenerator g;
    setUpGenerator(g, 0.4f, 35.0f, 1);
    EXPECT_EQ(g.analyzer.historyLength, 597u);
    const CurveNode* head = g.curve.head;
    float* band = g.band;
    setUpGenerator(g, 0.4f, 10.0f, 0, 128);
    EXPECT_EQ(g.curve.head, head);
    EXPECT_EQ(g.band, band);
    EXPECT_EQ(g.analyzer.historyLength, 298u);
    setUpGenerator(g, 0.4f, 10.0f, 0, 20);
    EXPECT_EQ(g.analyzer.historyLength, 256u);
    // An unknown mode leaves the delay as it was.
    ASSERT_EQ(g.setup(kBlock, 48000, -1.0f, 10.0f, 5000, 7, 16), 1u);
    EXPECT_EQ(g.dryDelay.length, 8u);
}

// Against separately driven parts: the filters by the FIR model, the shaper by
// its own curve, the delay and the mix written out (plain path).
TEST(HarmonicGenerator, ProcessMatchesItsPartsComposedByHand) {
    using dsptest::FirModel;
    using dsptest::FirPath;
    for (uint32_t mode : {0u, 1u}) {
        HarmonicGenerator g;
        setUpGenerator(g, 0.8f, 60.0f, mode);
        FirModel bandModel(dsptest::kaiserCoefficients(100.0, 16, true, 48000.0, 5000.0));
        FirModel limitModel(dsptest::kaiserCoefficients(100.0, 32, true, 48000.0, 5000.0));
        TransferCurve curve;
        ASSERT_TRUE(curve.build(0.8f));
        std::vector<float> past(16, 0.0f);
        const std::vector<float> in = noiseBlock(4 * kBlock, 77);
        const float cutoffs[] = {16500.0f, 20000.0f, 17062.5f, 23812.5f};
        for (uint32_t b = 0; b < 4; ++b) {
            std::vector<float> out(kBlock);
            const float* block = in.data() + b * kBlock;
            const uint32_t n = b == 2 ? 100 : kBlock; // a short block too
            g.process(block, out.data(), cutoffs[b], n);
            limitModel.setCoefficients(
                dsptest::kaiserCoefficients(100.0, 32, true, 48000.0, cutoffs[b]));
            for (uint32_t i = 0; i < n; ++i) {
                const float filtered = bandModel.step(block[i], FirPath::kPlain);
                float shaped = 0.0f;
                curve.shape(&filtered, &shaped, 1);
                float part = static_cast<float>(static_cast<double>(shaped) - filtered);
                if (mode == 1) {
                    part = limitModel.step(part, FirPath::kPlain);
                }
                past.push_back(block[i]);
                const float dry = past[past.size() - 1 - (mode == 1 ? 16 : 8)];
                ASSERT_EQ(out[i], static_cast<float>(dry + static_cast<double>(g.mixGain) * part))
                    << mode << " " << b << " " << i;
            }
        }
    }
}

TEST(HarmonicGenerator, DetectingAnalysesEachBlockWithTheSlidingSpectrum) {
    HarmonicGenerator g, supplied;
    setUpGenerator(g, 0.8f, 60.0f, 1);
    setUpGenerator(supplied, 0.8f, 60.0f, 1);
    dsp::FftEngine reference;
    ASSERT_TRUE(reference.setup(kBlock, 597, 256, 120.0f));
    std::vector<float> db(128);
    // Silence first, then a tone.
    std::vector<float> in(4 * kBlock, 0.0f);
    for (size_t t = 2 * kBlock; t < in.size(); ++t) {
        in[t] = static_cast<float>(0.5 * std::sin(2 * M_PI * 3000.0 * t / 48000.0));
    }
    for (uint32_t b = 0; b < 4; ++b) {
        const float* block = in.data() + b * kBlock;
        reference.analyze(block);
        reference.magnitudesDb(db.data());
        const float expected = dsp::detectCutoff(db.data(), 128, 48000);
        std::vector<float> out(kBlock), viaCutoff(kBlock);
        g.processDetecting(block, out.data(), kBlock);
        supplied.process(block, viaCutoff.data(), expected, kBlock);
        EXPECT_EQ(g.cutoffHz, b < 2 ? 23812.5f : expected) << b;
        EXPECT_EQ(out, viaCutoff) << b;
    }
    // An empty block changes nothing.
    const uint32_t bandPosition = g.bandFilter.position;
    const int32_t delayIndex = g.dryDelay.index;
    float sentinel = 5.0f;
    g.processDetecting(in.data(), &sentinel, 0);
    g.process(in.data(), &sentinel, g.cutoffHz, 0);
    EXPECT_EQ(sentinel, 5.0f);
    EXPECT_EQ(g.bandFilter.position, bandPosition);
    EXPECT_EQ(g.dryDelay.index, delayIndex);
    // Mode 0 neither analyses nor limits.
    g.setActiveMode(0);
    const float before = g.cutoffHz;
    std::vector<float> out(kBlock);
    g.processDetecting(in.data(), out.data(), kBlock);
    EXPECT_EQ(g.cutoffHz, before);
}

} // namespace
