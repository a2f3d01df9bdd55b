// The harmonic generator and its parts: the transfer curve, the delay line,
// the cutoff detection and the mixing kernels, each against a direct model,
// and the generator against a composition of separately driven parts.
#include "rate/cutoff_detector.h"
#include "rate/delay_line.h"
#include "rate/harmonic_generator.h"
#include "rate/harmonic_mix.h"
#include "rate/transfer_curve.h"
#include "support/kaiser_fir_model.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using dsp::CurveNode;
using dsp::TransferCurve;
using dsptest::FirModel;
using dsptest::FirPath;

std::vector<float> noise(size_t n, uint32_t seed, float amplitude = 1.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-amplitude, amplitude);
    std::vector<float> v(n);
    for (float& x : v) {
        x = dist(rng);
    }
    return v;
}

// The Bezier points of a bend, clamped, sorted, without repeated x.
struct CurvePoint {
    float x;
    float y;
};

std::vector<CurvePoint> modelCurve(float h) {
    const double a = 0.5 - h * std::cos(0.7853981633974483);
    const double b = 0.5 + h * std::sin(0.7853981633974483);
    std::vector<CurvePoint> points = {{0.0f, 0.0f}, {1.0f, 1.0f}};
    for (int k = 1; k < 64; ++k) {
        const double t = k / 64.0;
        const float x = static_cast<float>(std::clamp(2 * (1 - t) * t * a + t * t, 0.0, 1.0));
        const float y = static_cast<float>(std::clamp(2 * (1 - t) * t * b + t * t, -1.0, 1.0));
        const bool seen = std::any_of(points.begin(), points.end(),
                                      [x](const CurvePoint& p) { return p.x == x; });
        if (!seen) {
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

std::vector<CurvePoint> listOf(const TransferCurve& curve) {
    std::vector<CurvePoint> nodes;
    const CurveNode* last = nullptr;
    for (const CurveNode* n = curve.head; n != nullptr; n = n->next) {
        EXPECT_EQ(n->prev, last);
        nodes.push_back({n->x, n->y});
        last = n;
    }
    EXPECT_EQ(last, curve.tail);
    return nodes;
}

TEST(TransferCurve, IdentityResetHasTwoNodesAndLimitsAtFullScale) {
    TransferCurve curve;
    ASSERT_TRUE(curve.resetIdentity());
    EXPECT_EQ(curve.count, 2);
    EXPECT_EQ(curve.cursor, curve.tail);
    EXPECT_EQ(curve.head->slope, 1.0f);
    EXPECT_EQ(curve.tail->slope, 0.0f);
    const std::vector<float> in = {0.5f, -0.25f, 1.5f, -3.0f, 0.0f, -0.0f, 1.0f, -1.0f};
    std::vector<float> out(in.size());
    curve.shape(in.data(), out.data(), static_cast<uint32_t>(in.size()));
    const std::vector<float> expected = {0.5f, -0.25f, 1.0f, -1.0f, 0.0f, -0.0f, 1.0f, -1.0f};
    EXPECT_EQ(out, expected);
    EXPECT_TRUE(std::signbit(out[5]));
    // A second reset keeps the existing curve.
    CurveNode* head = curve.head;
    ASSERT_TRUE(curve.resetIdentity());
    EXPECT_EQ(curve.head, head);
}

TEST(TransferCurve, ZeroBendIsTheExactIdentityWith65Nodes) {
    TransferCurve curve;
    ASSERT_TRUE(curve.build(0.0f));
    EXPECT_EQ(curve.count, 65);
    const std::vector<CurvePoint> nodes = listOf(curve);
    ASSERT_EQ(nodes.size(), 65u);
    for (size_t k = 0; k < nodes.size(); ++k) {
        EXPECT_EQ(nodes[k].x, k / 64.0f);
        EXPECT_EQ(nodes[k].y, k / 64.0f);
    }
    const std::vector<float> in = noise(2000, 4);
    std::vector<float> out(in.size());
    curve.shape(in.data(), out.data(), static_cast<uint32_t>(in.size()));
    EXPECT_EQ(out, in);
}

TEST(TransferCurve, NegativeBendSkipsThePointsClampedToTheEnd) {
    TransferCurve curve;
    ASSERT_TRUE(curve.build(-1.0f));
    // x reaches 1.0 from k = 46 on; those 18 points coincide with the tail.
    EXPECT_EQ(curve.count, 47);
    const std::vector<CurvePoint> nodes = listOf(curve);
    const std::vector<CurvePoint> model = modelCurve(-1.0f);
    ASSERT_EQ(nodes.size(), model.size());
    for (size_t k = 0; k < nodes.size(); ++k) {
        EXPECT_EQ(nodes[k].x, model[k].x);
        EXPECT_EQ(nodes[k].y, model[k].y);
    }
}

TEST(TransferCurve, BentCurveInterpolatesItsBezierPoints) {
    for (float h : {0.3f, 0.7f, -0.4f}) {
        TransferCurve curve;
        ASSERT_TRUE(curve.build(h));
        const std::vector<CurvePoint> model = modelCurve(h);
        EXPECT_EQ(curve.count, static_cast<int32_t>(model.size()));
        for (const CurveNode* n = curve.head; n->next != nullptr; n = n->next) {
            EXPECT_NEAR(n->slope, (n->next->y - n->y) / (n->next->x - n->x), 1e-5);
        }
        const std::vector<float> in = noise(3000, 9, 1.3f);
        std::vector<float> out(in.size());
        curve.shape(in.data(), out.data(), static_cast<uint32_t>(in.size()));
        for (size_t i = 0; i < in.size(); ++i) {
            ASSERT_NEAR(out[i], modelShape(model, in[i]), 2e-6) << h << " " << in[i];
            ASSERT_EQ(std::signbit(out[i]), std::signbit(in[i]));
        }
    }
    TransferCurve compressing;
    ASSERT_TRUE(compressing.build(0.5f));
    const float quarter = 0.25f;
    float shaped = 0.0f;
    compressing.shape(&quarter, &shaped, 1);
    EXPECT_GT(shaped, 0.25f);
}

TEST(TransferCurve, ResultDoesNotDependOnTheBlockingOrCursor) {
    const std::vector<float> in = noise(500, 12);
    TransferCurve whole;
    TransferCurve pieces;
    ASSERT_TRUE(whole.build(0.6f));
    ASSERT_TRUE(pieces.build(0.6f));
    std::vector<float> a(in.size());
    std::vector<float> b(in.size());
    whole.shape(in.data(), a.data(), 500);
    for (size_t i = 0; i < in.size(); ++i) {
        pieces.shape(&in[i], &b[i], 1);
    }
    EXPECT_EQ(a, b);
    // Rebuilding replaces the list and leaves the cursor on the tail.
    ASSERT_TRUE(whole.build(0.2f));
    EXPECT_EQ(whole.cursor, whole.tail);
}

TEST(DelayLine, DelaysByItsLengthAcrossBlocks) {
    dsp::DelayLine line;
    ASSERT_TRUE(line.setup(8));
    const std::vector<float> in = noise(40, 21);
    std::vector<float> out;
    for (float x : in) {
        out.push_back(line.tick(x));
    }
    for (size_t t = 0; t < in.size(); ++t) {
        EXPECT_EQ(out[t], t < 8 ? 0.0f : in[t - 8]);
    }
    float* buffer = line.buffer;
    ASSERT_TRUE(line.setup(4));
    EXPECT_EQ(line.buffer, buffer);
    for (size_t t = 0; t < 12; ++t) {
        EXPECT_EQ(line.tick(in[t]), t < 4 ? 0.0f : in[t - 4]);
    }
    ASSERT_TRUE(line.setup(16));
    EXPECT_EQ(line.length, 16u);
    EXPECT_FALSE(line.setup(0));
}

// Levels at the floor except the listed bins.
std::vector<float> spectrum(std::initializer_list<std::pair<int, float>> peaks) {
    std::vector<float> db(128, -120.0f);
    for (const auto& p : peaks) {
        db[p.first] = p.second;
    }
    return db;
}

TEST(DetectCutoff, FindsTheFirstRiseOf25DbFromTheTop) {
    std::vector<float> db = spectrum({{89, -80.0f}, {88, -60.0f}});
    EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), 16500.0f);
    db = spectrum({});
    EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), 23812.5f);
    // A rise that stays below 25 dB over the floor is not a cutoff.
    db = spectrum({{100, -100.0f}, {99, -96.0f}, {98, -110.0f}});
    EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), 23812.5f);
    // Exactly 25 dB counts; the step that enters the rise is not tested.
    db = spectrum({{110, -110.0f}, {109, -95.0f}});
    EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), 109 * 187.5f);
    // A steep single step: entering the rise and meeting it takes two bins.
    db = spectrum({{120, -20.0f}, {119, -20.0f}});
    EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), 119 * 187.5f);
    // While rising, a fall of 25 dB below the floor also ends the scan.
    db = spectrum({{100, -119.0f}, {99, -150.0f}});
    EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), 99 * 187.5f);
    // Bins below trunc(0.666 * 128) = 85 are never looked at.
    db = spectrum({{85, -119.0f}, {84, 0.0f}});
    EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), 23812.5f);
    db = spectrum({{86, -119.0f}, {85, 0.0f}});
    EXPECT_EQ(dsp::detectCutoff(db.data(), 128, 48000), 85 * 187.5f);
    EXPECT_EQ(dsp::detectCutoff(db.data(), 0, 48000), 0.0f);
}

// The mixing kernels: the vector share in single precision, the rest in double.
TEST(HarmonicMix, KernelsSplitIntoGroupsAndRemainder) {
    using Kernel = void (*)(const float*, float*, uint32_t);
    using AddKernel = void (*)(float*, const float*, float, uint32_t);
    struct Path {
        Kernel subtract;
        AddKernel add;
        uint32_t group;
    };
    const Path paths[] = {{dsp::mix::subtractPlain, dsp::mix::addScaledPlain, 0},
                          {dsp::mix::subtract3dnow, dsp::mix::addScaled3dnow, 4},
                          {dsp::mix::subtractSse, dsp::mix::addScaledSse, 8}};
    const std::vector<float> shaped = noise(64, 31);
    const std::vector<float> band0 = noise(64, 32);
    const std::vector<float> out0 = noise(64, 33);
    const float gain = 0.37f;
    for (const Path& path : paths) {
        for (uint32_t n : {0u, 3u, 4u, 7u, 8u, 12u, 13u, 64u}) {
            std::vector<float> band = band0;
            std::vector<float> out = out0;
            path.subtract(shaped.data(), band.data(), n);
            path.add(out.data(), band.data(), gain, n);
            const uint32_t share = path.group == 0 || n < path.group ? 0 : n - n % path.group;
            for (uint32_t i = 0; i < 64; ++i) {
                float d = band0[i];
                float o = out0[i];
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
    }
}

TEST(HarmonicMix, SwitchesSelectTheKernel) {
    dsptest::SimdGuard guard;
    const std::vector<float> band = noise(12, 41);
    const std::vector<float> out0 = noise(12, 42);
    struct Case {
        bool amd3dnow, sse;
        void (*kernel)(float*, const float*, float, uint32_t);
    };
    for (Case c :
         {Case{false, false, dsp::mix::addScaledPlain}, Case{true, false, dsp::mix::addScaled3dnow},
          Case{false, true, dsp::mix::addScaledSse}, Case{true, true, dsp::mix::addScaled3dnow}}) {
        dsptest::SimdGuard::set(false, c.amd3dnow, c.sse);
        std::vector<float> viaSwitch = out0;
        std::vector<float> direct = out0;
        dsp::addScaled(viaSwitch.data(), band.data(), 0.731f, 12);
        c.kernel(direct.data(), band.data(), 0.731f, 12);
        EXPECT_EQ(viaSwitch, direct);
        for (int i = 0; i < 12; ++i) {
            EXPECT_NEAR(viaSwitch[i], out0[i] + 0.731 * band[i], 1e-6);
        }
    }
}

// ---- The generator ----

using dsp::HarmonicGenerator;

constexpr uint32_t kBlock = 256;

// A signal mostly above 5 kHz at 48 kHz, small enough that the band stays
// inside +-1.
std::vector<float> brightSignal(size_t n, float amplitude) {
    std::vector<float> v(n);
    for (size_t t = 0; t < n; ++t) {
        v[t] = amplitude * static_cast<float>(0.6 * std::sin(2 * M_PI * 9000.0 * t / 48000.0) +
                                              0.4 * std::sin(2 * M_PI * 2500.0 * t / 48000.0));
    }
    return v;
}

void setUpGenerator(HarmonicGenerator& g, float harmonics, float mix, uint32_t mode,
                    uint32_t frames = kBlock) {
    ASSERT_EQ(g.setup(frames, 48000, harmonics, mix, 5000, mode, 16), 1u);
}

TEST(HarmonicGenerator, SetupSizesFiltersDelayAndCurve) {
    HarmonicGenerator g;
    setUpGenerator(g, 0.4f, 35.0f, 1);
    EXPECT_EQ(g.ready, 1);
    EXPECT_EQ(g.frames, kBlock);
    EXPECT_EQ(g.mixGain, static_cast<float>(35.0 * 0.01));
    EXPECT_EQ(g.hpCutoffHz, 5000.0f);
    EXPECT_EQ(g.bandFilter.taps, 16);
    EXPECT_EQ(g.bandFilter.edgeHz, 19000.0f);
    EXPECT_EQ(g.limitFilter.taps, 32);
    EXPECT_EQ(g.limitFilter.edgeHz, 19000.0f);
    EXPECT_EQ(g.dryDelay.length, 16u);
    EXPECT_EQ(g.analyzer.fftSize, 256u);
    EXPECT_EQ(g.analyzer.hop, kBlock);
    EXPECT_EQ(g.analyzer.historyLength, 597u); // trunc(256 * 2.3333)
    EXPECT_EQ(g.curve.count, static_cast<int32_t>(modelCurve(0.4f).size()));
    for (float* buffer : {g.band, g.shaped, g.spectrumDb}) {
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer) % 16, 0u);
    }

    // Same bend: the curve and its cursor stay; a smaller block keeps the buffers.
    const CurveNode* head = g.curve.head;
    float* band = g.band;
    setUpGenerator(g, 0.4f, 10.0f, 0, 128);
    EXPECT_EQ(g.curve.head, head);
    EXPECT_EQ(g.band, band);
    EXPECT_EQ(g.dryDelay.length, 8u);
    // Tiny blocks still give the analyzer a whole transform of history.
    EXPECT_EQ(g.analyzer.historyLength, 298u);
    setUpGenerator(g, 0.4f, 10.0f, 0, 20);
    EXPECT_EQ(g.analyzer.historyLength, 256u);
    // A new bend rebuilds the curve; other modes leave the delay alone.
    ASSERT_EQ(g.setup(kBlock, 48000, -1.0f, 10.0f, 5000, 7, 16), 1u);
    EXPECT_EQ(g.curve.count, 47);
    EXPECT_EQ(g.dryDelay.length, 8u);
}

TEST(HarmonicGenerator, ZeroBendLeavesTheInputDelayed) {
    for (uint32_t mode : {0u, 1u}) {
        for (bool detecting : {false, true}) {
            HarmonicGenerator g;
            setUpGenerator(g, 0.0f, 80.0f, mode);
            const std::vector<float> in = brightSignal(3 * kBlock, 0.4f);
            std::vector<float> out(in.size(), 9.0f);
            for (uint32_t b = 0; b < 3; ++b) {
                if (detecting) {
                    g.processDetecting(in.data() + b * kBlock, out.data() + b * kBlock, kBlock);
                } else {
                    g.process(in.data() + b * kBlock, out.data() + b * kBlock, 12000.0f, kBlock);
                }
            }
            const size_t delay = mode == 1 ? 16 : 8;
            for (size_t t = 0; t < in.size(); ++t) {
                ASSERT_EQ(out[t], t < delay ? 0.0f : in[t - delay]) << mode << " " << t;
            }
        }
    }
}

TEST(HarmonicGenerator, EmptyBlockChangesNothing) {
    HarmonicGenerator g;
    setUpGenerator(g, 0.5f, 50.0f, 1);
    const std::vector<float> in = brightSignal(kBlock, 0.4f);
    std::vector<float> out(kBlock);
    g.processDetecting(in.data(), out.data(), kBlock);
    const float cutoff = g.cutoffHz;
    const uint32_t bandPosition = g.bandFilter.position;
    const int32_t delayIndex = g.dryDelay.index;
    const CurveNode* cursor = g.curve.cursor;
    const std::vector<float> history(g.analyzer.history,
                                     g.analyzer.history + g.analyzer.historyLength);
    float sentinel = 5.0f;
    g.processDetecting(in.data(), &sentinel, 0);
    g.process(in.data(), &sentinel, cutoff, 0);
    EXPECT_EQ(sentinel, 5.0f);
    EXPECT_EQ(g.bandFilter.position, bandPosition);
    EXPECT_EQ(g.dryDelay.index, delayIndex);
    EXPECT_EQ(g.curve.cursor, cursor);
    EXPECT_EQ(std::vector<float>(g.analyzer.history, g.analyzer.history + g.analyzer.historyLength),
              history);
}

// The generator against separately driven parts: the band filter and the
// limit filter by the FIR model, the shaper by its own curve, the delay and
// the mix written out (plain path).
TEST(HarmonicGenerator, ProcessMatchesItsPartsComposedByHand) {
    for (uint32_t mode : {0u, 1u}) {
        HarmonicGenerator g;
        setUpGenerator(g, 0.8f, 60.0f, mode);
        FirModel bandModel(dsptest::kaiserCoefficients(100.0, 16, true, 48000.0, 5000.0));
        FirModel limitModel(dsptest::kaiserCoefficients(100.0, 32, true, 48000.0, 5000.0));
        TransferCurve curve;
        ASSERT_TRUE(curve.build(0.8f));
        std::vector<float> past(16, 0.0f);
        const std::vector<float> in = noise(4 * kBlock, 77, 0.9f);
        const float cutoffs[] = {16500.0f, 20000.0f, 17062.5f, 23812.5f};
        for (uint32_t b = 0; b < 4; ++b) {
            std::vector<float> out(kBlock);
            const float* block = in.data() + b * kBlock;
            const uint32_t n = b == 2 ? 100 : kBlock; // a short block too
            g.process(block, out.data(), cutoffs[b], n);
            EXPECT_EQ(g.cutoffHz, cutoffs[b]);
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
                const float expected =
                    static_cast<float>(dry + static_cast<double>(g.mixGain) * part);
                ASSERT_EQ(out[i], expected) << mode << " " << b << " " << i;
            }
        }
    }
}

TEST(HarmonicGenerator, DetectingAnalysesEachBlockWithTheSlidingSpectrum) {
    HarmonicGenerator g;
    setUpGenerator(g, 0.8f, 60.0f, 1);
    dsp::FftEngine reference;
    ASSERT_TRUE(reference.setup(kBlock, 597, 256, 120.0f));
    std::vector<float> db(128);
    HarmonicGenerator supplied;
    setUpGenerator(supplied, 0.8f, 60.0f, 1);
    // Silence first, then a signal band-limited by a sharp cut.
    std::vector<float> in(4 * kBlock, 0.0f);
    for (size_t t = 2 * kBlock; t < in.size(); ++t) {
        in[t] = static_cast<float>(0.5 * std::sin(2 * M_PI * 3000.0 * t / 48000.0));
    }
    for (uint32_t b = 0; b < 4; ++b) {
        const float* block = in.data() + b * kBlock;
        reference.analyze(block);
        reference.magnitudesDb(db.data());
        const float expected = dsp::detectCutoff(db.data(), 128, 48000);
        std::vector<float> out(kBlock);
        std::vector<float> viaCutoff(kBlock);
        g.processDetecting(block, out.data(), kBlock);
        supplied.process(block, viaCutoff.data(), expected, kBlock);
        EXPECT_EQ(g.cutoffHz, expected) << b;
        EXPECT_EQ(out, viaCutoff) << b;
        if (b < 2) {
            EXPECT_EQ(g.cutoffHz, 23812.5f);
        }
    }
    // Mode 0 neither analyses nor limits.
    g.setActiveMode(0);
    const float before = g.cutoffHz;
    std::vector<float> out(kBlock);
    g.processDetecting(in.data(), out.data(), kBlock);
    EXPECT_EQ(g.cutoffHz, before);
    EXPECT_EQ(g.dryDelay.length, 16u);
}

TEST(HarmonicGenerator, SimdPathsAgreeWithPlainUpToRounding) {
    dsptest::SimdGuard guard;
    const std::vector<float> in = noise(3 * kBlock, 5, 0.8f);
    std::vector<float> plain(in.size());
    for (uint32_t mode : {0u, 1u}) {
        dsptest::SimdGuard::set(false, false, false);
        HarmonicGenerator reference;
        setUpGenerator(reference, 0.7f, 100.0f, mode);
        for (uint32_t b = 0; b < 3; ++b) {
            reference.process(in.data() + b * kBlock, plain.data() + b * kBlock, 15000.0f, 12);
        }
        for (int path = 1; path <= 2; ++path) {
            dsptest::SimdGuard::set(false, path == 1, path == 2);
            HarmonicGenerator g;
            setUpGenerator(g, 0.7f, 100.0f, mode);
            std::vector<float> out(in.size());
            for (uint32_t b = 0; b < 3; ++b) {
                g.process(in.data() + b * kBlock, out.data() + b * kBlock, 15000.0f, 12);
            }
            for (uint32_t b = 0; b < 3; ++b) {
                for (uint32_t i = 0; i < 12; ++i) {
                    const size_t t = b * kBlock + i;
                    EXPECT_NEAR(out[t], plain[t], 1e-5f) << path << " " << t;
                }
            }
        }
    }
}

TEST(HarmonicGenerator, MixAndBendSettersActAtOnce) {
    HarmonicGenerator g;
    setUpGenerator(g, 0.0f, 50.0f, 0);
    g.setMix(0.0f);
    EXPECT_EQ(g.mixGain, 0.0f);
    ASSERT_TRUE(g.setHarmonics(-1.0f));
    EXPECT_EQ(g.harmonics, -1.0f);
    EXPECT_EQ(g.curve.count, 47);
    // With no mix the output is the delayed input whatever the bend.
    const std::vector<float> in = noise(kBlock, 8);
    std::vector<float> out(kBlock);
    g.process(in.data(), out.data(), 0.0f, kBlock);
    for (size_t t = 8; t < kBlock; ++t) {
        ASSERT_EQ(out[t], in[t - 8]);
    }
}

} // namespace
