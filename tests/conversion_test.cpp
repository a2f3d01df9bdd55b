// The int16 <-> float converters on every path against models of their
// arithmetic written here.
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

// Plain rules: s / 32767 in double; clamp to [-1, 1] (NaN as 1), truncate.
const auto plainToFloat = [](int16_t s) { return static_cast<float>(s * (1.0 / 32767.0)); };
const auto plainMix = [](int16_t l, int16_t r) { return plainToFloat(int16_t((l + r) >> 1)); };
int16_t plainToInt16(float x) {
    double c = std::isnan(x) ? 1.0 : std::fmin(1.0, std::fmax(-1.0, static_cast<double>(x)));
    return static_cast<int16_t>(std::trunc(c * 32767.0));
}
// Kernels: the sample in the top half, its own bits below, times float 0x30000100.
float kernelToFloat(int16_t s) {
    float widened = static_cast<float>(int64_t(s) * 65536 + uint16_t(s));
    return static_cast<float>(double(widened) * double(bitsToFloat(0x30000100)));
}
const auto kernelMix = [](int16_t l, int16_t r) {
    return static_cast<float>(double(l + r) * double(bitsToFloat(0x37800100)));
};
const auto clamp16 = [](double v) { return int16_t(std::fmax(-32768.0, std::fmin(32767.0, v))); };
int16_t amdToInt16(float x) {
    float p = x * 32767.0f;
    return std::isnan(p) ? int16_t(-32768) : clamp16(std::trunc(static_cast<double>(p)));
}
int16_t sseToInt16(float x) { // ties to even
    float p = x * 32767.0f;
    bool invalid = std::isnan(p) || std::fabs(p) >= 2147483648.0f;
    return invalid ? int16_t(-32768) : clamp16(std::nearbyint(static_cast<double>(p)));
}

// The listed values behind the models below (which check every value): the
// down-mix halves by an arithmetic shift, (-1, -2) giving -2.
TEST(PlainConversion, ListedValuesAndMixDown) {
    SimdGuard guard;
    SimdGuard::set(false, false, false);
    int16_t pairs[4] = {-1, -2, 32767, 32767};
    float mixed[2];
    EXPECT_EQ(
        dsp::convertToFloat(dsp::currentRules().rule, pairs, sizeof(pairs), mixed, nullptr, 2), 2u);
    EXPECT_EQ(mixed[0], static_cast<float>(-2.0 / 32767.0));
    EXPECT_EQ(mixed[1], 1.0f);
    EXPECT_EQ(sampleToFloat(-32768), -1.0000305f);
    const std::pair<float, int16_t> cases[] = {
        {-7.0f, -32767}, {kNaN, 32767}, {-0.00001f, 0}, {0.99999f, 32766}, {-0.5f, -16383}};
    for (const auto& c : cases) {
        EXPECT_EQ(floatToSample(c.first), c.second) << c.first;
    }
    // The round trip takes exactly 33279 values one step toward zero.
    int changed = 0;
    for (int s = -32768; s <= 32767; ++s) {
        const int back = floatToSample(sampleToFloat(static_cast<int16_t>(s)));
        changed += back != s;
        EXPECT_TRUE(back == s || back == (s > 0 ? s - 1 : s + 1)) << s;
    }
    EXPECT_EQ(changed, 33279);
}

struct Path {
    const char* name;
    bool amd3dnow, sse;
    uint32_t monoGroup, stereoGroup, mixGroup, duplicateGroup; // 0: no kernel
    int16_t (*kernelToInt16)(float);
    uint32_t kernelFrames(uint32_t group, uint32_t n) const { return group ? n - n % group : 0; }
};

void PrintTo(const Path& p, std::ostream* os) {
    *os << p.name;
}

class ConversionPathTest : public ::testing::TestWithParam<Path> {
protected:
    void SetUp() override { SimdGuard::set(false, GetParam().amd3dnow, GetParam().sse); }
    SimdGuard guard_;
};

// Frames before the kernel/remainder split follow the kernel model, those
// after it the plain model; bytes past the last whole frame are ignored and
// nothing past n is written.
void checkToFloat(const Path& p, const std::vector<int16_t>& src, uint32_t n) {
    AlignedFloats o(n + 1), a(n), b(n), m(n);
    o[n] = 99.0f;
    ASSERT_EQ(
        dsp::convertToFloat(dsp::currentRules().rule, src.data(), n * 2 + 1, o.data(), nullptr, 1),
        n);
    ASSERT_EQ(
        dsp::convertToFloat(dsp::currentRules().rule, src.data(), n * 4 + 3, a.data(), b.data(), 2),
        n);
    ASSERT_EQ(
        dsp::convertToFloat(dsp::currentRules().rule, src.data(), n * 4 + 3, m.data(), nullptr, 2),
        n);
    ASSERT_EQ(o[n], 99.0f);
    auto model = [&](int16_t s, uint32_t group, uint32_t i) {
        return i < p.kernelFrames(group, n) ? kernelToFloat(s) : plainToFloat(s);
    };
    for (uint32_t i = 0; i < n; ++i) {
        const int16_t l = src[2 * i], r = src[2 * i + 1];
        ASSERT_EQ(o[i], model(src[i], p.monoGroup, i)) << "mono n=" << n << " i=" << i;
        // Before rounding every path lies in [s/32767, (s+1)/32767).
        ASSERT_GE(o[i], static_cast<float>(src[i] / 32767.0));
        ASSERT_LE(o[i], static_cast<float>((src[i] + 1) / 32767.0));
        ASSERT_EQ(a[i], model(l, p.stereoGroup, i)) << n << " " << i;
        ASSERT_EQ(b[i], model(r, p.stereoGroup, i)) << n << " " << i;
        ASSERT_EQ(m[i], i < p.kernelFrames(p.mixGroup, n) ? kernelMix(l, r) : plainMix(l, r))
            << "mix n=" << n << " i=" << i;
    }
}

void checkToInt16(const Path& p, const float* l, const float* r, uint32_t n) {
    AlignedFloats left(n), right(n);
    std::copy(l, l + n, left.data());
    std::copy(r, r + n, right.data());
    std::vector<int16_t> mono(n + 1, 1234), stereo(2 * n + 1, 1234), dup(2 * n);
    ASSERT_EQ(
        dsp::convertToInt16(dsp::currentRules().rule, left.data(), nullptr, n, mono.data(), 1),
        n * 2);
    ASSERT_EQ(dsp::convertToInt16(dsp::currentRules().rule, left.data(), right.data(), n,
                                  stereo.data(), 2),
              n * 4);
    ASSERT_EQ(dsp::convertToInt16(dsp::currentRules().rule, left.data(), nullptr, n, dup.data(), 2),
              n * 4);
    ASSERT_TRUE(mono[n] == 1234 && stereo[2 * n] == 1234);
    auto model = [&](float x, uint32_t group, uint32_t i) {
        return i < p.kernelFrames(group, n) ? p.kernelToInt16(x) : plainToInt16(x);
    };
    for (uint32_t i = 0; i < n; ++i) {
        ASSERT_EQ(mono[i], model(l[i], p.monoGroup, i)) << "mono " << n << " " << l[i];
        ASSERT_EQ(stereo[2 * i], model(l[i], p.stereoGroup, i)) << n << " " << l[i];
        ASSERT_EQ(stereo[2 * i + 1], model(r[i], p.stereoGroup, i)) << n << " " << r[i];
        ASSERT_EQ(dup[2 * i], model(l[i], p.duplicateGroup, i)) << "dup " << n << " " << l[i];
        ASSERT_EQ(dup[2 * i + 1], dup[2 * i]);
    }
}

// Every block length up to 40, then every 16-bit sample in every layout and a
// sweep over the float range (every 4099th bit pattern: all signs, exponents,
// NaNs and infinities) plus the values next to each rounding tie.
TEST_P(ConversionPathTest, MatchesTheModelsForEveryLengthAndOverTheWholeRange) {
    const uint32_t kFrames = 65536 + 5;
    std::vector<int16_t> samples(2 * kFrames + 2);
    for (uint32_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<int16_t>(i * 40503u + 7u); // a permutation of every value
    }
    std::vector<float> ties, values = {0.5f, -0.5f, 1.5f, -1.5f, -1.0f, kNaN, 1e20f, -1e20f};
    for (int k = -32769; k <= 32768; k += 7) {
        float tie = static_cast<float>((k + 0.5) / 32767.0);
        ties.insert(ties.end(), {tie, std::nextafter(tie, 2.0f), std::nextafter(tie, -2.0f)});
    }
    std::shuffle(ties.begin(), ties.end(), std::mt19937(4));
    values.insert(values.end(), ties.begin(), ties.end());
    for (uint64_t bits = 0; bits < (uint64_t(1) << 32); bits += 4099) {
        values.push_back(bitsToFloat(static_cast<uint32_t>(bits)));
    }
    std::vector<float> reversed(values.rbegin(), values.rend());
    for (uint32_t n = 0; n <= 40; ++n) {
        checkToFloat(GetParam(), samples, n);
        checkToInt16(GetParam(), values.data(), values.data() + 100, n);
    }
    checkToFloat(GetParam(), samples, kFrames);
    checkToInt16(GetParam(), values.data(), reversed.data(), static_cast<uint32_t>(values.size()));
}

INSTANTIATE_TEST_SUITE_P(Paths, ConversionPathTest,
                         ::testing::Values(Path{"plain", false, false, 0, 0, 0, 0, plainToInt16},
                                           Path{"amd3dnow", true, false, 4, 2, 4, 4, amdToInt16},
                                           Path{"sse", false, true, 8, 4, 8, 0, sseToInt16},
                                           Path{"both", true, true, 4, 2, 4, 4, amdToInt16}),
                         [](const auto& info) { return std::string(info.param.name); });

// An unaligned left buffer is led by plain frames up to the next boundary.
TEST(VectorConversion, UnalignedBuffersAreLedByPlainFrames) {
    SimdGuard guard;
    SimdGuard::set(false, false, true);
    for (size_t offset = 1; offset < 4; ++offset) {
        AlignedFloats left(20, offset), right(20, offset);
        std::fill(left.data(), left.data() + 20, 0.5f);
        std::fill(right.data(), right.data() + 20, -0.5f);
        int16_t mono[20], stereo[40];
        dsp::convertToInt16(dsp::currentRules().rule, left.data(), nullptr, 20, mono, 1);
        dsp::convertToInt16(dsp::currentRules().rule, left.data(), right.data(), 20, stereo, 2);
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
            std::vector<unsigned char> dst(41, 0xEE), expected(src.begin(), src.begin() + bytes);
            expected.resize(41, 0xEE);
            dsp::passThroughCopy(src.data(), dst.data(), bytes);
            EXPECT_EQ(dst, expected) << bytes << " flags " << flags;
        }
    }
}

} // namespace
