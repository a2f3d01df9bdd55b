// The int16 <-> float converters on every path, checked value by value
// against models written here from the stated arithmetic.
#include "core/sample_convert.h"
#include "support/aligned_buffer.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

using dsptest::AlignedFloats;
using dsptest::SimdGuard;

float bitsToFloat(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

// Models of the per-sample arithmetic, in double where the rules say double.
float modelPlainToFloat(int32_t s) {
    return static_cast<float>(s * (1.0 / 32767.0));
}

int16_t modelPlainToInt16(float x) {
    double c = std::isnan(x) ? 1.0 : std::fmin(1.0, std::fmax(-1.0, static_cast<double>(x)));
    return static_cast<int16_t>(std::trunc(c * 32767.0));
}

// Kernel int16 -> float: the sample in the top half, its own bits below,
// scaled by the float 0x30000100.
float modelKernelToFloat(int16_t s) {
    int64_t widened = static_cast<int64_t>(s) * 65536 + static_cast<uint16_t>(s);
    return static_cast<float>(static_cast<double>(static_cast<float>(widened)) *
                              static_cast<double>(bitsToFloat(0x30000100)));
}

float modelKernelMix(int16_t l, int16_t r) {
    return static_cast<float>(static_cast<double>(l + r) *
                              static_cast<double>(bitsToFloat(0x37800100)));
}

int16_t clamp16(double v) {
    return static_cast<int16_t>(std::fmax(-32768.0, std::fmin(32767.0, v)));
}

int16_t model3dnowToInt16(float x) {
    float p = x * 32767.0f;
    if (std::isnan(p)) {
        return -32768;
    }
    return clamp16(std::trunc(static_cast<double>(p)));
}

int16_t modelSseToInt16(float x) {
    float p = x * 32767.0f;
    if (std::isnan(p) || std::fabs(p) >= 2147483648.0f) {
        return -32768;
    }
    // Ties to even, as the processor rounds by default.
    double r = std::round(static_cast<double>(p));
    if (std::fabs(r - p) == 0.5 && std::fmod(r, 2.0) != 0.0) {
        r -= (r > p) ? 1.0 : -1.0;
    }
    return clamp16(r);
}

std::vector<int16_t> randomSamples(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    std::vector<int16_t> v(n);
    for (auto& s : v) {
        s = static_cast<int16_t>(dist(rng));
    }
    // Make sure the extremes appear.
    if (n >= 4) {
        v[0] = -32768;
        v[1] = 32767;
        v[2] = 0;
        v[3] = -1;
    }
    return v;
}

std::vector<float> randomFloats(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-1.2f, 1.2f);
    std::vector<float> v(n);
    for (auto& x : v) {
        x = dist(rng);
    }
    return v;
}

TEST(ConversionConstants, BitPatternsAreExact) {
    EXPECT_EQ(bitsToFloat(0x30000100), 4.656754981624545e-10f);
    EXPECT_EQ(bitsToFloat(0x37800100), 1.5259254723787308e-05f);
    EXPECT_EQ(bitsToFloat(0x46fffe00), 32767.0f);
}

TEST(PlainConversion, ToFloatEdgeValues) {
    EXPECT_EQ(dsp::convert::sampleToFloat(32767), 1.0f);
    EXPECT_EQ(dsp::convert::sampleToFloat(-32768), -1.0000305f);
    EXPECT_EQ(dsp::convert::sampleToFloat(0), 0.0f);
}

TEST(PlainConversion, ToInt16EdgeValues) {
    using dsp::convert::floatToSample;
    EXPECT_EQ(floatToSample(1.0f), 32767);
    EXPECT_EQ(floatToSample(-1.0f), -32767);
    EXPECT_EQ(floatToSample(1.5f), 32767);
    EXPECT_EQ(floatToSample(-7.0f), -32767);
    EXPECT_EQ(floatToSample(std::numeric_limits<float>::quiet_NaN()), 32767);
    EXPECT_EQ(floatToSample(0.5f), 16383);
    EXPECT_EQ(floatToSample(-0.00001f), 0);
    EXPECT_EQ(floatToSample(0.99999f), 32766);
    EXPECT_EQ(floatToSample(-0.5f), -16383);
}

TEST(PlainConversion, RoundTripTakesExactly33279ValuesOneStepTowardZero) {
    int changed = 0;
    for (int s = -32768; s <= 32767; ++s) {
        int16_t back = dsp::convert::floatToSample(dsp::convert::sampleToFloat(s));
        if (back != s) {
            ++changed;
            EXPECT_EQ(back, s > 0 ? s - 1 : s + 1) << s;
        }
    }
    EXPECT_EQ(changed, 33279);
    auto roundTrip = [](int s) {
        return dsp::convert::floatToSample(dsp::convert::sampleToFloat(s));
    };
    EXPECT_EQ(roundTrip(1), 0);
    EXPECT_EQ(roundTrip(2), 1);
    EXPECT_EQ(roundTrip(100), 99);
    EXPECT_EQ(roundTrip(16384), 16383);
    EXPECT_EQ(roundTrip(32735), 32734);
    EXPECT_EQ(roundTrip(-2), -1);
    EXPECT_EQ(roundTrip(-32768), -32767);
    for (int kept : {0, 12345, 32766, 32767, -32767}) {
        EXPECT_EQ(roundTrip(kept), kept);
    }
}

TEST(PlainConversion, StereoMixDownHalvesTowardMinusInfinity) {
    SimdGuard guard;
    SimdGuard::set(false, false, false);
    const float k = static_cast<float>(1.0 / 32767.0);
    int16_t src[6] = {1, 2, -1, -2, 32767, 32767};
    float left[3];
    EXPECT_EQ(dsp::convertToFloat(src, sizeof(src), left, nullptr, 2), 3u);
    EXPECT_EQ(left[0], static_cast<float>(1 * (1.0 / 32767.0)));
    EXPECT_EQ(left[0], k);
    EXPECT_EQ(left[1], static_cast<float>(-2 * (1.0 / 32767.0)));
    EXPECT_EQ(left[2], 1.0f);
}

TEST(PlainConversion, LayoutsAndReturnValues) {
    SimdGuard guard;
    SimdGuard::set(false, false, false);
    float left[3] = {0.5f, -1.0f, 0.25f};
    float right[3] = {-0.5f, 1.0f, 0.0f};
    int16_t out[6];
    EXPECT_EQ(dsp::convertToInt16(left, right, 3, out, 2), 12u);
    EXPECT_EQ(out[0], 16383);
    EXPECT_EQ(out[1], -16383);
    EXPECT_EQ(out[2], -32767);
    EXPECT_EQ(out[3], 32767);
    // Mono duplicated into stereo.
    EXPECT_EQ(dsp::convertToInt16(left, nullptr, 3, out, 2), 12u);
    EXPECT_EQ(out[0], 16383);
    EXPECT_EQ(out[1], 16383);
    EXPECT_EQ(out[4], 8191);
    EXPECT_EQ(out[5], 8191);
    // Mono writes frames samples.
    int16_t mono[4] = {7, 7, 7, 7};
    EXPECT_EQ(dsp::convertToInt16(left, nullptr, 3, mono, 1), 6u);
    EXPECT_EQ(mono[2], 8191);
    EXPECT_EQ(mono[3], 7);
    // Partial frames are ignored on input.
    int16_t src[5] = {100, 200, 300, 400, 500};
    float l[4], r[2];
    EXPECT_EQ(dsp::convertToFloat(src, 10, l, r, 2), 2u);
    EXPECT_EQ(dsp::convertToFloat(src, 9, l, nullptr, 1), 4u);
}

struct PathCase {
    const char* name;
    bool amd3dnow;
    bool sse;
    uint32_t monoGroup;
    uint32_t stereoGroup;
    uint32_t mixGroup;
};

void PrintTo(const PathCase& pc, std::ostream* os) {
    *os << pc.name;
}

class VectorPathTest : public ::testing::TestWithParam<PathCase> {
protected:
    SimdGuard guard_;
    void SetUp() override { SimdGuard::set(false, GetParam().amd3dnow, GetParam().sse); }
};

// Every sample before the kernel/remainder split follows the kernel model,
// every one after it the plain model; checked for many block lengths.
TEST_P(VectorPathTest, ToFloatMonoSplitsKernelAndRemainder) {
    const PathCase& pc = GetParam();
    auto src = randomSamples(64, 1);
    for (uint32_t n = 0; n <= 40; ++n) {
        AlignedFloats out(n + 1);
        out[n] = 99.0f;
        ASSERT_EQ(dsp::convertToFloat(src.data(), n * 2, out.data(), nullptr, 1), n);
        uint32_t kernel = n - n % pc.monoGroup;
        for (uint32_t i = 0; i < n; ++i) {
            float expected = i < kernel ? modelKernelToFloat(src[i]) : modelPlainToFloat(src[i]);
            ASSERT_EQ(out[i], expected) << pc.name << " n=" << n << " i=" << i;
        }
        EXPECT_EQ(out[n], 99.0f);
    }
}

TEST_P(VectorPathTest, ToFloatStereoSplitsKernelAndRemainder) {
    const PathCase& pc = GetParam();
    auto src = randomSamples(128, 2);
    for (uint32_t n = 0; n <= 20; ++n) {
        AlignedFloats left(n + 1), right(n + 1);
        ASSERT_EQ(dsp::convertToFloat(src.data(), n * 4, left.data(), right.data(), 2), n);
        uint32_t kernel = n - n % pc.stereoGroup;
        for (uint32_t i = 0; i < n; ++i) {
            int16_t l = src[2 * i], r = src[2 * i + 1];
            ASSERT_EQ(left[i], i < kernel ? modelKernelToFloat(l) : modelPlainToFloat(l))
                << pc.name << " n=" << n << " i=" << i;
            ASSERT_EQ(right[i], i < kernel ? modelKernelToFloat(r) : modelPlainToFloat(r))
                << pc.name << " n=" << n << " i=" << i;
        }
    }
}

TEST_P(VectorPathTest, ToFloatMixDownSplitsKernelAndRemainder) {
    const PathCase& pc = GetParam();
    auto src = randomSamples(128, 3);
    for (uint32_t n = 0; n <= 30; ++n) {
        AlignedFloats left(n + 1);
        ASSERT_EQ(dsp::convertToFloat(src.data(), n * 4, left.data(), nullptr, 2), n);
        uint32_t kernel = n - n % pc.mixGroup;
        for (uint32_t i = 0; i < n; ++i) {
            int16_t l = src[2 * i], r = src[2 * i + 1];
            float expected = i < kernel ? modelKernelMix(l, r) : modelPlainToFloat((l + r) >> 1);
            ASSERT_EQ(left[i], expected) << pc.name << " n=" << n << " i=" << i;
        }
    }
}

TEST_P(VectorPathTest, KernelToFloatStaysWithinOneStepAboveExact) {
    // Before rounding the kernel result lies in [s/32767, (s+1)/32767).
    std::vector<int16_t> all(65536);
    for (int s = -32768; s <= 32767; ++s) {
        all[s + 32768] = static_cast<int16_t>(s);
    }
    AlignedFloats out(all.size());
    dsp::convertToFloat(all.data(), static_cast<uint32_t>(all.size() * 2), out.data(), nullptr, 1);
    for (size_t i = 0; i < all.size(); ++i) {
        double s = all[i];
        EXPECT_GE(out[i], static_cast<float>(s / 32767.0)) << s;
        EXPECT_LE(out[i], static_cast<float>((s + 1) / 32767.0)) << s;
    }
}

TEST_P(VectorPathTest, ToInt16MonoSplitsKernelAndRemainder) {
    const PathCase& pc = GetParam();
    auto values = randomFloats(64, 4);
    values[0] = 0.5f;
    values[1] = -0.5f;
    values[2] = 1.5f;
    values[3] = -1.5f;
    values[4] = -1.0f;
    values[5] = std::numeric_limits<float>::quiet_NaN();
    values[6] = 1e20f;
    values[7] = -1e20f;
    for (uint32_t n = 0; n <= 40; ++n) {
        AlignedFloats in(n + 1);
        for (uint32_t i = 0; i < n; ++i) {
            in[i] = values[i];
        }
        std::vector<int16_t> out(n + 1, 1234);
        ASSERT_EQ(dsp::convertToInt16(in.data(), nullptr, n, out.data(), 1), n * 2);
        uint32_t kernel = n - n % pc.monoGroup;
        for (uint32_t i = 0; i < n; ++i) {
            int16_t expected = i >= kernel   ? modelPlainToInt16(values[i])
                               : pc.amd3dnow ? model3dnowToInt16(values[i])
                                             : modelSseToInt16(values[i]);
            ASSERT_EQ(out[i], expected) << pc.name << " n=" << n << " i=" << i;
        }
        EXPECT_EQ(out[n], 1234);
    }
}

TEST_P(VectorPathTest, ToInt16StereoSplitsKernelAndRemainder) {
    const PathCase& pc = GetParam();
    auto l = randomFloats(32, 5);
    auto r = randomFloats(32, 6);
    for (uint32_t n = 0; n <= 20; ++n) {
        AlignedFloats left(n + 1), right(n + 1);
        for (uint32_t i = 0; i < n; ++i) {
            left[i] = l[i];
            right[i] = r[i];
        }
        std::vector<int16_t> out(2 * n + 1, 1234);
        ASSERT_EQ(dsp::convertToInt16(left.data(), right.data(), n, out.data(), 2), n * 4);
        uint32_t kernel = n - n % pc.stereoGroup;
        for (uint32_t i = 0; i < n; ++i) {
            auto model = [&](float x) {
                return i >= kernel   ? modelPlainToInt16(x)
                       : pc.amd3dnow ? model3dnowToInt16(x)
                                     : modelSseToInt16(x);
            };
            ASSERT_EQ(out[2 * i], model(l[i])) << pc.name << " n=" << n << " i=" << i;
            ASSERT_EQ(out[2 * i + 1], model(r[i])) << pc.name << " n=" << n << " i=" << i;
        }
        EXPECT_EQ(out[2 * n], 1234);
    }
}

TEST_P(VectorPathTest, ToInt16DuplicateToStereo) {
    const PathCase& pc = GetParam();
    auto l = randomFloats(32, 7);
    for (uint32_t n = 0; n <= 20; ++n) {
        AlignedFloats left(n + 1);
        for (uint32_t i = 0; i < n; ++i) {
            left[i] = l[i];
        }
        std::vector<int16_t> out(2 * n);
        ASSERT_EQ(dsp::convertToInt16(left.data(), nullptr, n, out.data(), 2), n * 4);
        // 3DNow! has a 4-frame kernel; SSE has none and converts all by the plain rules.
        uint32_t kernel = pc.amd3dnow ? n - n % 4 : 0;
        for (uint32_t i = 0; i < n; ++i) {
            int16_t expected = i < kernel ? model3dnowToInt16(l[i]) : modelPlainToInt16(l[i]);
            ASSERT_EQ(out[2 * i], expected) << pc.name << " n=" << n << " i=" << i;
            ASSERT_EQ(out[2 * i + 1], expected);
        }
    }
}

TEST_P(VectorPathTest, ToFloatReturnsTheSameFrameCountAsPlain) {
    auto src = randomSamples(64, 8);
    AlignedFloats l(64), r(64);
    for (uint32_t bytes = 0; bytes < 70; ++bytes) {
        EXPECT_EQ(dsp::convertToFloat(src.data(), bytes, l.data(), r.data(), 2), bytes / 4);
        EXPECT_EQ(dsp::convertToFloat(src.data(), bytes, l.data(), nullptr, 2), bytes / 4);
        EXPECT_EQ(dsp::convertToFloat(src.data(), bytes, l.data(), nullptr, 1), bytes / 2);
    }
}

// Whole-range checks, shared by every path: every 16-bit sample in both
// channels, and a sweep over the whole float range (every 4099th bit pattern:
// all signs, exponents, NaNs and infinities) plus the values next to each
// rounding tie. Block lengths are multiples of eight, so the vector paths
// convert everything with their kernels.
struct WholeRangeModels {
    float (*toFloat)(int16_t);
    float (*mix)(int16_t, int16_t);
    int16_t (*toInt16)(float);
    bool duplicateUsesToInt16; // false: duplication falls back to the plain rules
};

void checkToFloatOverEverySample(const WholeRangeModels& m) {
    constexpr uint32_t kAll = 65536;
    std::vector<int16_t> mono(kAll), stereo(2 * kAll);
    for (uint32_t i = 0; i < kAll; ++i) {
        mono[i] = static_cast<int16_t>(i);
        stereo[2 * i] = static_cast<int16_t>(i);
        stereo[2 * i + 1] = static_cast<int16_t>(i * 40503u + 7u); // another order
    }
    AlignedFloats left(kAll), right(kAll);
    dsp::convertToFloat(mono.data(), kAll * 2, left.data(), nullptr, 1);
    for (uint32_t i = 0; i < kAll; ++i) {
        ASSERT_EQ(left[i], m.toFloat(mono[i])) << "mono " << mono[i];
    }
    dsp::convertToFloat(stereo.data(), kAll * 4, left.data(), right.data(), 2);
    for (uint32_t i = 0; i < kAll; ++i) {
        ASSERT_EQ(left[i], m.toFloat(stereo[2 * i])) << "left " << stereo[2 * i];
        ASSERT_EQ(right[i], m.toFloat(stereo[2 * i + 1])) << "right " << stereo[2 * i + 1];
    }
    dsp::convertToFloat(stereo.data(), kAll * 4, left.data(), nullptr, 2);
    for (uint32_t i = 0; i < kAll; ++i) {
        ASSERT_EQ(left[i], m.mix(stereo[2 * i], stereo[2 * i + 1])) << "frame " << i;
    }
}

void checkToInt16OverTheFloatRange(const WholeRangeModels& m) {
    std::vector<float> values;
    for (uint64_t bits = 0; bits < (uint64_t(1) << 32); bits += 4099) {
        values.push_back(bitsToFloat(static_cast<uint32_t>(bits)));
    }
    for (int k = -32769; k <= 32768; k += 7) {
        float tie = static_cast<float>((k + 0.5) / 32767.0);
        values.push_back(tie);
        values.push_back(std::nextafter(tie, 2.0f));
        values.push_back(std::nextafter(tie, -2.0f));
    }
    values.resize(values.size() - values.size() % 8);
    const uint32_t n = static_cast<uint32_t>(values.size());
    AlignedFloats left(n), right(n);
    for (uint32_t i = 0; i < n; ++i) {
        left[i] = values[i];
        right[i] = values[n - 1 - i];
    }
    std::vector<int16_t> out(2 * n);
    dsp::convertToInt16(left.data(), nullptr, n, out.data(), 1);
    for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(out[i], m.toInt16(left[i])) << "mono " << left[i];
    }
    dsp::convertToInt16(left.data(), right.data(), n, out.data(), 2);
    for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(out[2 * i], m.toInt16(left[i])) << "left " << left[i];
        ASSERT_EQ(out[2 * i + 1], m.toInt16(right[i])) << "right " << right[i];
    }
    dsp::convertToInt16(left.data(), nullptr, n, out.data(), 2);
    for (uint32_t i = 0; i < n; ++i) {
        int16_t expected = m.duplicateUsesToInt16 ? m.toInt16(left[i]) : modelPlainToInt16(left[i]);
        ASSERT_EQ(out[2 * i], expected) << "duplicate " << left[i];
        ASSERT_EQ(out[2 * i + 1], expected);
    }
}

WholeRangeModels kernelModels(const PathCase& pc) {
    return {modelKernelToFloat, modelKernelMix, pc.amd3dnow ? model3dnowToInt16 : modelSseToInt16,
            pc.amd3dnow};
}

TEST_P(VectorPathTest, ToFloatKernelsMatchTheModelForEverySample) {
    checkToFloatOverEverySample(kernelModels(GetParam()));
}

TEST_P(VectorPathTest, ToInt16KernelsMatchTheModelOverTheFloatRange) {
    checkToInt16OverTheFloatRange(kernelModels(GetParam()));
}

TEST(PlainConversion, MatchesTheModelForEverySampleAndOverTheFloatRange) {
    SimdGuard guard;
    SimdGuard::set(false, false, false);
    const WholeRangeModels plain{
        [](int16_t s) { return modelPlainToFloat(s); },
        [](int16_t l, int16_t r) { return modelPlainToFloat((l + r) >> 1); }, modelPlainToInt16,
        true};
    checkToFloatOverEverySample(plain);
    checkToInt16OverTheFloatRange(plain);
}

INSTANTIATE_TEST_SUITE_P(Paths, VectorPathTest,
                         ::testing::Values(PathCase{"3dnow", true, false, 4, 2, 4},
                                           PathCase{"sse", false, true, 8, 4, 8},
                                           PathCase{"both", true, true, 4, 2, 4}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SseConversion, KernelShareValuesDifferFromRemainderValues) {
    SimdGuard guard;
    SimdGuard::set(false, false, true);
    AlignedFloats in(13);
    const float values[5] = {0.5f, -0.5f, 1.5f, -1.5f, -1.0f};
    for (int i = 0; i < 13; ++i) {
        in[i] = values[i % 5];
    }
    int16_t out[13];
    dsp::convertToInt16(in.data(), nullptr, 13, out, 1);
    // Kernel share (first 8): rounding to nearest, full int16 range.
    const int16_t kernel[8] = {16384, -16384, 32767, -32768, -32767, 16384, -16384, 32767};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(out[i], kernel[i]) << i;
    }
    // Remainder (last 5) by the plain rules: -1.5 at i = 8, then -1.0, 0.5, -0.5, 1.5.
    const int16_t rest[5] = {-32767, -32767, 16383, -16383, 32767};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(out[8 + i], rest[i]) << i;
    }
}

TEST(SseConversion, ThirteenMonoSamplesGoEightByKernelFiveByPlain) {
    SimdGuard guard;
    SimdGuard::set(false, false, true);
    int16_t src[13];
    for (int i = 0; i < 13; ++i) {
        src[i] = static_cast<int16_t>(1000 * i - 6001);
    }
    AlignedFloats out(13);
    EXPECT_EQ(dsp::convertToFloat(src, 26, out.data(), nullptr, 1), 13u);
    for (int i = 0; i < 13; ++i) {
        EXPECT_EQ(out[i], i < 8 ? modelKernelToFloat(src[i]) : modelPlainToFloat(src[i])) << i;
    }
}

TEST(SseConversion, TwelveFramesMixedDownGoEightByKernelFourByPlainInOrder) {
    SimdGuard guard;
    SimdGuard::set(false, false, true);
    int16_t src[24];
    for (int i = 0; i < 24; ++i) {
        src[i] = static_cast<int16_t>((i % 2 ? -37 : 101) * (i + 1));
    }
    AlignedFloats out(12);
    EXPECT_EQ(dsp::convertToFloat(src, 48, out.data(), nullptr, 2), 12u);
    for (int i = 0; i < 12; ++i) {
        int16_t l = src[2 * i], r = src[2 * i + 1];
        EXPECT_EQ(out[i], i < 8 ? modelKernelMix(l, r) : modelPlainToFloat((l + r) >> 1)) << i;
    }
}

TEST(SseConversion, UnalignedLeftIsLeadByPlainFrames) {
    SimdGuard guard;
    SimdGuard::set(false, false, true);
    // left starts one float past a 16-byte boundary: 3 plain frames, then the kernel.
    for (size_t offset = 1; offset < 4; ++offset) {
        AlignedFloats left(20, offset), right(20, offset);
        for (int i = 0; i < 20; ++i) {
            left[i] = 0.5f;
            right[i] = -0.5f;
        }
        int16_t mono[20];
        dsp::convertToInt16(left.data(), nullptr, 20, mono, 1);
        uint32_t lead = static_cast<uint32_t>(4 - offset);
        uint32_t kernelEnd = lead + (20 - lead) / 8 * 8;
        for (uint32_t i = 0; i < 20; ++i) {
            bool inKernel = i >= lead && i < kernelEnd;
            EXPECT_EQ(mono[i], inKernel ? 16384 : 16383) << "offset " << offset << " i " << i;
        }
        int16_t stereo[40];
        dsp::convertToInt16(left.data(), right.data(), 20, stereo, 2);
        kernelEnd = lead + (20 - lead) / 4 * 4;
        for (uint32_t i = 0; i < 20; ++i) {
            bool inKernel = i >= lead && i < kernelEnd;
            EXPECT_EQ(stereo[2 * i], inKernel ? 16384 : 16383) << i;
            EXPECT_EQ(stereo[2 * i + 1], inKernel ? -16384 : -16383) << i;
        }
    }
}

TEST(AmdConversion, KernelShareValues) {
    SimdGuard guard;
    SimdGuard::set(false, true, true); // 3DNow! wins over SSE
    AlignedFloats in(4);
    in[0] = 0.5f;
    in[1] = -1.5f;
    in[2] = 1.5f;
    in[3] = -1.0f;
    int16_t out[4];
    dsp::convertToInt16(in.data(), nullptr, 4, out, 1);
    EXPECT_EQ(out[0], 16383);
    EXPECT_EQ(out[1], -32768);
    EXPECT_EQ(out[2], 32767);
    EXPECT_EQ(out[3], -32767);
}

TEST(PassThroughCopy, IdenticalWithAndWithoutSwitches) {
    SimdGuard guard;
    std::vector<unsigned char> src(40);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    for (uint32_t bytes : {0u, 1u, 15u, 16u, 17u, 33u, 40u}) {
        for (int flags = 0; flags < 8; ++flags) {
            SimdGuard::set(flags & 1, flags & 2, flags & 4);
            std::vector<unsigned char> dst(41, 0xEE);
            dsp::passThroughCopy(src.data(), dst.data(), bytes);
            for (uint32_t i = 0; i < bytes; ++i) {
                ASSERT_EQ(dst[i], src[i]) << bytes << " flags " << flags;
            }
            EXPECT_EQ(dst[bytes], 0xEE);
        }
    }
}

} // namespace
