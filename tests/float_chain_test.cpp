// The chain driven in float: for every family, the float output converted to
// 16 bits is exactly what the 16-bit path writes, it is never clamped, the
// sizing call bounds every send, and wrong handles are refused.
#include "core/arithmetic_rules.h"
#include "core/processor.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "support/core_family_runs.h"
#include "support/signals.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using dsptest::FamilyRun;

constexpr float kUntouched = -1234.5f;

struct Rules {
    const char* name;
    bool amd3dnow;
    bool sse;
};

const Rules kRules[] = {
    {"plain", false, false}, {"truncating", true, false}, {"nearest", false, true}};

// A chain holding one processor made by `init`, for the processor's own
// format so that nothing is reconfigured; null when the init fails.
void* chainOf(void* processor) {
    if (processor == nullptr) {
        return nullptr;
    }
    const auto* p = static_cast<const dsp::DspProcessor*>(processor);
    void* chain = dspCreate(p->inFrames(), p->inChannels(), p->inRate());
    dspAdd(chain, processor, 1);
    return chain;
}

// What the library's own conversion makes of a 16-bit block, interleaved.
std::vector<float> libraryFloats(const std::vector<int16_t>& in, uint32_t channels) {
    const uint32_t frames = static_cast<uint32_t>(in.size() / channels);
    std::vector<float> left(frames), right(frames), out(in.size());
    const dsp::ArithmeticRule rule = dsp::currentRules().rule;
    dsp::convertToFloat(rule, in.data(), static_cast<uint32_t>(in.size() * 2), left.data(),
                        right.data(), channels);
    for (uint32_t i = 0; i < frames; ++i) {
        out[i * channels] = left[i];
        if (channels == 2) {
            out[i * 2 + 1] = right[i];
        }
    }
    return out;
}

// The library's conversion of one piece of interleaved float output back to
// 16 bits, as the 16-bit path converts it: a mono input's single channel to
// every output channel.
std::vector<int16_t> libraryInt16(const float* interleaved, uint32_t frames, uint32_t channels,
                                  bool monoInput) {
    std::vector<float> left(frames), right(frames);
    for (uint32_t i = 0; i < frames; ++i) {
        left[i] = interleaved[i * channels];
        right[i] = interleaved[i * channels + channels - 1];
    }
    std::vector<int16_t> out(static_cast<size_t>(frames) * channels);
    dsp::convertToInt16(dsp::currentRules().rule, left.data(), monoInput ? nullptr : right.data(),
                        frames, out.data(), channels);
    return out;
}

// Two identical chains, one fed 16-bit blocks and one the library's floats
// of the same blocks. Blocks longer than the chain's own run in pieces,
// each converted on its own: those are compared under the plain rule, whose
// conversions do not depend on where a block starts.
void expectFloatPathMatches(void* (*makeChain)(), uint32_t channels, const std::string& what) {
    void* int16Chain = makeChain();
    void* floatChain = makeChain();
    ASSERT_NE(int16Chain, nullptr) << what;
    const uint32_t block =
        static_cast<const dsp::DspProcessor*>(dspGetHandle(int16Chain, 0))->inFrames();
    const bool plain = dsp::currentRules().rule == dsp::ArithmeticRule::kPlain;
    uint32_t seed = 11;
    for (uint32_t frames : {7u, block / 3, block, 5u, plain ? block * 5 / 2 : 1u}) {
        SCOPED_TRACE(what + ", " + std::to_string(frames) + " frames");
        const std::vector<int16_t> in = dsptest::testSignal(frames * channels, seed++);
        const uint32_t bound = dspGetDstSamples(floatChain, frames);
        std::vector<int16_t> out16(bound + 8, 0x5555);
        std::vector<float> outFloat(bound + 8, kUntouched);
        const uint32_t bytes = dspSend(int16Chain, in.data(), out16.data(), frames * channels * 2);
        const uint32_t written =
            dspSendFloat(floatChain, libraryFloats(in, channels).data(), outFloat.data(), frames);
        const uint32_t outChannels = dspGetDstChannels(floatChain);
        ASSERT_EQ(bytes, written * 2 * outChannels);
        ASSERT_LE(written * outChannels, bound);
        EXPECT_EQ(outFloat[written * outChannels], kUntouched);
        const std::vector<int16_t> converted =
            libraryInt16(outFloat.data(), written, outChannels, channels == 1);
        EXPECT_TRUE(std::equal(converted.begin(), converted.end(), out16.begin()));
    }
    dspDestroy(int16Chain);
    dspDestroy(floatChain);
}

class FloatChain : public ::testing::TestWithParam<Rules> {
protected:
    void SetUp() override {
        dsptest::SimdGuard::set(false, GetParam().amd3dnow, GetParam().sse);
        poolBytes_ = fastmemGetAllocatedSize();
    }
    void TearDown() override { EXPECT_EQ(fastmemGetAllocatedSize(), poolBytes_); }
    dsptest::SimdGuard guard_;
    uint32_t poolBytes_ = 0;
};

// The current family of the table below, for the chain factory.
const FamilyRun* currentFamily = nullptr;

void* familyChain() {
    void* processor = currentFamily->init();
    if (processor != nullptr && currentFamily->prepare != nullptr) {
        currentFamily->prepare(processor);
    }
    return chainOf(processor);
}

TEST_P(FloatChain, MatchesTheInt16PathForEveryFamily) {
    for (const FamilyRun& family : dsptest::familyRuns()) {
        currentFamily = &family;
        expectFloatPathMatches(familyChain, family.channels, family.name);
    }
    expectFloatPathMatches(dsptest::chainRun().init, 2, "four processors");
}

INSTANTIATE_TEST_SUITE_P(Rules, FloatChain, ::testing::ValuesIn(kRules),
                         [](const auto& info) { return std::string(info.param.name); });

// A linear filter scales with its input exactly (by a power of two): float
// output four times the input's full scale is kept, not clamped.
TEST(FloatChainOutput, IsNotClamped) {
    dsptest::SimdGuard guard;
    dsptest::SimdGuard::set(false, false, false);
    auto filtered = [](float scale) {
        std::vector<float> in = dsptest::noise(2000, 5, 0.9f), out(in.size());
        for (float& v : in) {
            v *= scale;
        }
        void* chain = dspCreate(1000, 2, 44100);
        dspAdd(chain, initIirFilter(1000, 2, 44100, 4, 5000.0f, 0), 1);
        EXPECT_EQ(dspSendFloat(chain, in.data(), out.data(), 1000), 1000u);
        dspDestroy(chain);
        return out;
    };
    const std::vector<float> out = filtered(1.0f), outLoud = filtered(4.0f);
    for (size_t i = 0; i < out.size(); ++i) {
        ASSERT_EQ(outLoud[i], out[i] * 4.0f) << i;
    }
    EXPECT_GT(*std::max_element(outLoud.begin(), outLoud.end()), 2.0f);
}

// A mono-to-stereo resampler fed a block longer than its own: the sizing call
// counts both output channels and every piece, exactly what the send writes,
// where the 16-bit sizing call reports the bytes of one channel.
TEST(FloatChainSizing, CountsTheChannelChangeAndEveryPiece) {
    void* chain = dspCreate(1000, 1, 44100);
    dspAdd(chain, initResampler(1000, 1, 2, 44100, 48000, 1, 60.0f, 60.0f, 1), 1);
    const uint32_t frames = 2500;
    const std::vector<float> in = dsptest::noise(frames, 3, 0.5f);
    std::vector<float> out(10000, kUntouched);
    const uint32_t bound = dspGetDstSamples(chain, frames);
    const uint32_t written = dspSendFloat(chain, in.data(), out.data(), frames);
    EXPECT_EQ(bound, 2 * written);
    EXPECT_EQ(written, 1088u + 1088u + 544u); // per piece: trunc(n / 44100 * 48000)
    EXPECT_EQ(dspGetDstSize(chain, frames * 2), frames * 2 * 48000 / 44100);
    EXPECT_EQ(out[bound], kUntouched);
    dspDestroy(chain);
}

// Null and wrong handles and null buffers: 0, nothing written, no pool
// memory taken or given back.
TEST(FloatChainRefusal, NullAndWrongHandlesAndNullBuffers) {
    const uint32_t poolBytes = fastmemGetAllocatedSize();
    void* chain = dspCreate(64, 2, 44100);
    void* filter = initIirFilter(64, 2, 44100, 2, 1000.0f, 0);
    void* reader = initWavefileIn("no such file.wav", 64);
    const uint32_t poolWithObjects = fastmemGetAllocatedSize();
    std::vector<float> in(128, 0.25f), out(128, kUntouched);
    for (void* wrong : {static_cast<void*>(nullptr), filter, reader}) {
        EXPECT_EQ(dspSendFloat(wrong, in.data(), out.data(), 64), 0u);
        EXPECT_EQ(dspGetDstSamples(wrong, 64), 0u);
        EXPECT_EQ(dspSend(wrong, nullptr, nullptr, 256), 0u);
        EXPECT_EQ(dspAdd(wrong, filter, 1), 0u);
    }
    EXPECT_EQ(dspSendFloat(chain, nullptr, out.data(), 64), 0u);
    EXPECT_EQ(dspSendFloat(chain, in.data(), nullptr, 64), 0u);
    EXPECT_EQ(out[0], kUntouched);
    EXPECT_EQ(fastmemGetAllocatedSize(), poolWithObjects);
    // An empty chain copies the block.
    EXPECT_EQ(dspSendFloat(chain, in.data(), out.data(), 64), 64u);
    EXPECT_EQ(out, in);
    termWavefileIn(reader);
    termIirFilter(filter);
    dspDestroy(chain);
    EXPECT_EQ(fastmemGetAllocatedSize(), poolBytes);
}

} // namespace
