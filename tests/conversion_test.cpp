// The int16 <-> float converters on every path, checked value by value
// against models written here from the stated arithmetic.
#include "core/sample_convert.h"
#include "support/aligned_buffer.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

using dsp::convert::floatToSample;
using dsp::convert::sampleToFloat;
using dsptest::AlignedFloats;
using dsptest::SimdGuard;

const float kNaN = std::numeric_limits<float>::quiet_NaN();

float bitsToFloat(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, 4);
    return f;
}

float plainToFloat(int16_t s) {
    return static_cast<float>(s * (1.0 / 32767.0));
}
float plainMix(int16_t l, int16_t r) {
    return plainToFloat(static_cast<int16_t>((l + r) >> 1));
}
int16_t plainToInt16(float x) {
    double c = std::isnan(x) ? 1.0 : std::fmin(1.0, std::fmax(-1.0, static_cast<double>(x)));
    return static_cast<int16_t>(std::trunc(c * 32767.0));
}
// Kernels: the sample in the top half, its own bits below, times float 0x30000100.
float kernelToFloat(int16_t s) {
    int64_t widened = static_cast<int64_t>(s) * 65536 + static_cast<uint16_t>(s);
    return static_cast<float>(static_cast<double>(static_cast<float>(widened)) *
                              static_cast<double>(bitsToFloat(0x30000100)));
}
float kernelMix(int16_t l, int16_t r) {
    return static_cast<float>(static_cast<double>(l + r) *
                              static_cast<double>(bitsToFloat(0x37800100)));
}
int16_t clamp16(double v) {
    return static_cast<int16_t>(std::fmax(-32768.0, std::fmin(32767.0, v)));
}
int16_t amdToInt16(float x) {
    float p = x * 32767.0f;
    return std::isnan(p) ? int16_t(-32768) : clamp16(std::trunc(static_cast<double>(p)));
}
int16_t sseToInt16(float x) {
    float p = x * 32767.0f;
    if (std::isnan(p) || std::fabs(p) >= 2147483648.0f) {
        return -32768;
    }
    return clamp16(std::nearbyint(static_cast<double>(p))); // ties to even
}

std::vector<int16_t> randomSamples(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    std::vector<int16_t> v(n);
    for (auto& s : v) {
        s = static_cast<int16_t>(dist(rng));
    }
    v[0] = -32768;
    v[1] = 32767;
    v[2] = -1;
    return v;
}

std::vector<float> randomFloats(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(-1.2f, 1.2f);
    std::vector<float> v(n);
    for (auto& x : v) {
        x = dist(rng);
    }
    const float specials[] = {0.5f, -0.5f, 1.5f, -1.5f, -1.0f, kNaN, 1e20f, -1e20f};
    std::copy(std::begin(specials), std::end(specials), v.begin());
    return v;
}

TEST(PlainConversion, EdgeValues) {
    EXPECT_EQ(sampleToFloat(32767), 1.0f);
    EXPECT_EQ(sampleToFloat(-32768), -1.0000305f);
    EXPECT_EQ(sampleToFloat(0), 0.0f);
    const std::pair<float, int16_t> cases[] = {{1.0f, 32767},   {-1.0f, -32767},   {1.5f, 32767},
                                               {-7.0f, -32767}, {kNaN, 32767},     {0.5f, 16383},
                                               {-0.00001f, 0},  {0.99999f, 32766}, {-0.5f, -16383}};
    for (const auto& c : cases) {
        EXPECT_EQ(floatToSample(c.first), c.second) << c.first;
    }
}

TEST(PlainConversion, RoundTripTakesExactly33279ValuesOneStepTowardZero) {
    auto roundTrip = [](int s) { return floatToSample(sampleToFloat(static_cast<int16_t>(s))); };
    int changed = 0;
    for (int s = -32768; s <= 32767; ++s) {
        if (roundTrip(s) != s) {
            ++changed;
            EXPECT_EQ(roundTrip(s), s > 0 ? s - 1 : s + 1) << s;
        }
    }
    EXPECT_EQ(changed, 33279);
    const std::pair<int, int> listed[] = {
        {1, 0},           {2, 1}, {100, 99},      {16384, 16383}, {32735, 32734}, {-2, -1},
        {-32768, -32767}, {0, 0}, {12345, 12345}, {32766, 32766}, {32767, 32767}, {-32767, -32767}};
    for (const auto& c : listed) {
        EXPECT_EQ(roundTrip(c.first), c.second) << c.first;
    }
}

TEST(PlainConversion, LayoutsMixDownAndReturnValues) {
    SimdGuard guard;
    SimdGuard::set(false, false, false);
    // Down-mix halves by an arithmetic shift: (-1, -2) gives -2.
    int16_t pairs[6] = {1, 2, -1, -2, 32767, 32767};
    float mixed[3];
    EXPECT_EQ(dsp::convertToFloat(pairs, sizeof(pairs), mixed, nullptr, 2), 3u);
    EXPECT_EQ(mixed[0], static_cast<float>(1.0 / 32767.0));
    EXPECT_EQ(mixed[1], static_cast<float>(-2.0 / 32767.0));
    EXPECT_EQ(mixed[2], 1.0f);

    float left[3] = {0.5f, -1.0f, 0.25f}, right[3] = {-0.5f, 1.0f, 0.0f};
    int16_t out[6];
    EXPECT_EQ(dsp::convertToInt16(left, right, 3, out, 2), 12u);
    EXPECT_EQ(std::vector<int16_t>(out, out + 6),
              (std::vector<int16_t>{16383, -16383, -32767, 32767, 8191, 0}));
    EXPECT_EQ(dsp::convertToInt16(left, nullptr, 3, out, 2), 12u); // mono duplicated
    EXPECT_EQ(std::vector<int16_t>(out, out + 6),
              (std::vector<int16_t>{16383, 16383, -32767, -32767, 8191, 8191}));
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
    uint32_t duplicateGroup; // 0: no kernel, all frames plain
};

class VectorPathTest : public ::testing::TestWithParam<PathCase> {
protected:
    void SetUp() override { SimdGuard::set(false, GetParam().amd3dnow, GetParam().sse); }
    int16_t kernelToInt16(float x) const {
        return GetParam().amd3dnow ? amdToInt16(x) : sseToInt16(x);
    }
    SimdGuard guard_;
};

// Samples before the kernel/remainder split follow the kernel model, those
// after it the plain model, each at its own position, for every block length.
TEST_P(VectorPathTest, ToFloatSplitsKernelAndRemainder) {
    const PathCase& pc = GetParam();
    auto src = randomSamples(128, 1);
    for (uint32_t n = 0; n <= 40; ++n) {
        AlignedFloats left(n + 1), right(n + 1), mixed(n + 1);
        left[n] = 99.0f;
        ASSERT_EQ(dsp::convertToFloat(src.data(), n * 2 + 1, left.data(), nullptr, 1), n);
        EXPECT_EQ(left[n], 99.0f);
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_EQ(left[i],
                      i < n - n % pc.monoGroup ? kernelToFloat(src[i]) : plainToFloat(src[i]))
                << "mono n=" << n << " i=" << i;
        }
        ASSERT_EQ(dsp::convertToFloat(src.data(), n * 4 + 3, left.data(), right.data(), 2), n);
        ASSERT_EQ(dsp::convertToFloat(src.data(), n * 4 + 3, mixed.data(), nullptr, 2), n);
        for (uint32_t i = 0; i < n; ++i) {
            int16_t l = src[2 * i], r = src[2 * i + 1];
            bool kernel = i < n - n % pc.stereoGroup;
            ASSERT_EQ(left[i], kernel ? kernelToFloat(l) : plainToFloat(l)) << n << " " << i;
            ASSERT_EQ(right[i], kernel ? kernelToFloat(r) : plainToFloat(r)) << n << " " << i;
            ASSERT_EQ(mixed[i], i < n - n % pc.mixGroup ? kernelMix(l, r) : plainMix(l, r))
                << "mix n=" << n << " i=" << i;
        }
    }
}

TEST_P(VectorPathTest, ToInt16SplitsKernelAndRemainder) {
    const PathCase& pc = GetParam();
    auto l = randomFloats(40, 4), r = randomFloats(40, 5);
    std::reverse(r.begin(), r.end());
    for (uint32_t n = 0; n <= 40; ++n) {
        AlignedFloats left(n + 1), right(n + 1);
        std::copy(l.begin(), l.begin() + n, left.data());
        std::copy(r.begin(), r.begin() + n, right.data());
        std::vector<int16_t> mono(n + 1, 1234), stereo(2 * n + 1, 1234), dup(2 * n);
        ASSERT_EQ(dsp::convertToInt16(left.data(), nullptr, n, mono.data(), 1), n * 2);
        ASSERT_EQ(dsp::convertToInt16(left.data(), right.data(), n, stereo.data(), 2), n * 4);
        ASSERT_EQ(dsp::convertToInt16(left.data(), nullptr, n, dup.data(), 2), n * 4);
        EXPECT_EQ(mono[n], 1234);
        EXPECT_EQ(stereo[2 * n], 1234);
        auto model = [&](float x, bool kernel) {
            return kernel ? kernelToInt16(x) : plainToInt16(x);
        };
        const uint32_t dupKernel = pc.duplicateGroup ? n - n % pc.duplicateGroup : 0;
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_EQ(mono[i], model(l[i], i < n - n % pc.monoGroup)) << n << " " << i;
            bool kernel = i < n - n % pc.stereoGroup;
            ASSERT_EQ(stereo[2 * i], model(l[i], kernel)) << n << " " << i;
            ASSERT_EQ(stereo[2 * i + 1], model(r[i], kernel)) << n << " " << i;
            ASSERT_EQ(dup[2 * i], model(l[i], i < dupKernel)) << n << " " << i;
            ASSERT_EQ(dup[2 * i + 1], dup[2 * i]);
        }
    }
}

// Whole-range checks: every 16-bit sample in every layout, and a sweep over
// the float range (every 4099th bit pattern: all signs, exponents, NaNs and
// infinities) plus the values next to each rounding tie. Block lengths are
// multiples of eight, so the vector paths use their kernels throughout.
struct WholeRangeModels {
    float (*toFloat)(int16_t);
    float (*mix)(int16_t, int16_t);
    int16_t (*toInt16)(float);
    int16_t (*duplicate)(float);
};

void checkWholeRange(const WholeRangeModels& m) {
    constexpr uint32_t kAll = 65536;
    std::vector<int16_t> mono(kAll), stereo(2 * kAll);
    for (uint32_t i = 0; i < kAll; ++i) {
        mono[i] = stereo[2 * i] = static_cast<int16_t>(i);
        stereo[2 * i + 1] = static_cast<int16_t>(i * 40503u + 7u);
    }
    AlignedFloats left(kAll), right(kAll);
    dsp::convertToFloat(mono.data(), kAll * 2, left.data(), nullptr, 1);
    for (uint32_t i = 0; i < kAll; ++i) {
        ASSERT_EQ(left[i], m.toFloat(mono[i])) << "mono " << mono[i];
        // Before rounding every path lies in [s/32767, (s+1)/32767).
        ASSERT_GE(left[i], static_cast<float>(mono[i] / 32767.0));
        ASSERT_LE(left[i], static_cast<float>((mono[i] + 1) / 32767.0));
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

    std::vector<float> values;
    for (uint64_t bits = 0; bits < (uint64_t(1) << 32); bits += 4099) {
        values.push_back(bitsToFloat(static_cast<uint32_t>(bits)));
    }
    for (int k = -32769; k <= 32768; k += 7) {
        float tie = static_cast<float>((k + 0.5) / 32767.0);
        values.insert(values.end(), {tie, std::nextafter(tie, 2.0f), std::nextafter(tie, -2.0f)});
    }
    const uint32_t n = static_cast<uint32_t>(values.size() - values.size() % 8);
    AlignedFloats l(n), r(n);
    for (uint32_t i = 0; i < n; ++i) {
        l[i] = values[i];
        r[i] = values[n - 1 - i];
    }
    std::vector<int16_t> out(2 * n);
    dsp::convertToInt16(l.data(), nullptr, n, out.data(), 1);
    for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(out[i], m.toInt16(l[i])) << "mono " << l[i];
    }
    dsp::convertToInt16(l.data(), r.data(), n, out.data(), 2);
    for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(out[2 * i], m.toInt16(l[i])) << "left " << l[i];
        ASSERT_EQ(out[2 * i + 1], m.toInt16(r[i])) << "right " << r[i];
    }
    dsp::convertToInt16(l.data(), nullptr, n, out.data(), 2);
    for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(out[2 * i], m.duplicate(l[i])) << "duplicate " << l[i];
        ASSERT_EQ(out[2 * i + 1], out[2 * i]);
    }
}

TEST_P(VectorPathTest, KernelsMatchTheModelOverTheWholeRange) {
    auto toInt16 = GetParam().amd3dnow ? amdToInt16 : sseToInt16;
    checkWholeRange(
        {kernelToFloat, kernelMix, toInt16, GetParam().duplicateGroup ? toInt16 : plainToInt16});
}

TEST(PlainConversion, MatchesTheModelOverTheWholeRange) {
    SimdGuard guard;
    SimdGuard::set(false, false, false);
    checkWholeRange({plainToFloat, plainMix, plainToInt16, plainToInt16});
}

INSTANTIATE_TEST_SUITE_P(Paths, VectorPathTest,
                         ::testing::Values(PathCase{"amd3dnow", true, false, 4, 2, 4, 4},
                                           PathCase{"sse", false, true, 8, 4, 8, 0},
                                           PathCase{"both", true, true, 4, 2, 4, 4}),
                         [](const auto& info) { return std::string(info.param.name); });

// The listed kernel-share results: SSE rounds to nearest over the full int16
// range, 3DNow! truncates; with both on, 3DNow! wins. The SSE remainder
// (samples 8..12) gives the plain results.
TEST(VectorConversion, KernelShareAndRemainderValues) {
    SimdGuard guard;
    const float in[13] = {0.5f, -0.5f, 1.5f,  -1.5f, -1.0f, 0.5f, -0.5f,
                          1.5f, 0.5f,  -0.5f, 1.5f,  -1.5f, -1.0f};
    const struct {
        bool amd3dnow, sse;
        int16_t expected[13];
    } cases[] = {
        {false,
         true,
         {16384, -16384, 32767, -32768, -32767, 16384, -16384, 32767, 16383, -16383, 32767, -32767,
          -32767}},
        {true,
         true,
         {16383, -16383, 32767, -32768, -32767, 16383, -16383, 32767, 16383, -16383, 32767, -32768,
          -32767}},
    };
    AlignedFloats buffer(13);
    std::copy(in, in + 13, buffer.data());
    for (const auto& c : cases) {
        SimdGuard::set(false, c.amd3dnow, c.sse);
        int16_t out[13];
        dsp::convertToInt16(buffer.data(), nullptr, 13, out, 1);
        for (int i = 0; i < 13; ++i) {
            EXPECT_EQ(out[i], c.expected[i]) << c.amd3dnow << " " << i;
        }
    }
}

TEST(VectorConversion, SseUnalignedLeftIsLedByPlainFrames) {
    SimdGuard guard;
    SimdGuard::set(false, false, true);
    for (size_t offset = 1; offset < 4; ++offset) {
        AlignedFloats left(20, offset), right(20, offset);
        std::fill(left.data(), left.data() + 20, 0.5f);
        std::fill(right.data(), right.data() + 20, -0.5f);
        int16_t mono[20], stereo[40];
        dsp::convertToInt16(left.data(), nullptr, 20, mono, 1);
        dsp::convertToInt16(left.data(), right.data(), 20, stereo, 2);
        const uint32_t lead = static_cast<uint32_t>(4 - offset);
        for (uint32_t i = 0; i < 20; ++i) {
            bool monoKernel = i >= lead && i < lead + (20 - lead) / 8 * 8;
            bool stereoKernel = i >= lead && i < lead + (20 - lead) / 4 * 4;
            EXPECT_EQ(mono[i], monoKernel ? 16384 : 16383) << offset << " " << i;
            EXPECT_EQ(stereo[2 * i], stereoKernel ? 16384 : 16383) << offset << " " << i;
            EXPECT_EQ(stereo[2 * i + 1], stereoKernel ? -16384 : -16383) << offset << " " << i;
        }
    }
}

TEST(PassThroughCopy, IdenticalWithAndWithoutSwitches) {
    SimdGuard guard;
    std::vector<unsigned char> src(40);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    for (uint32_t bytes : {0u, 15u, 16u, 33u, 40u}) {
        for (int flags = 0; flags < 8; ++flags) {
            SimdGuard::set(flags & 1, flags & 2, flags & 4);
            std::vector<unsigned char> dst(41, 0xEE);
            dsp::passThroughCopy(src.data(), dst.data(), bytes);
            EXPECT_TRUE(std::equal(src.begin(), src.begin() + bytes, dst.begin())) << bytes;
            EXPECT_EQ(dst[bytes], 0xEE) << bytes << " flags " << flags;
        }
    }
}

} // namespace
