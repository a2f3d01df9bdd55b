// The resampler processor through its exports and virtual operations: channel
// mapping, oversize blocks, the chain operations and the refusals.
#include "core/fastmem_pool.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "rate/rate_converter.h"
#include "rate/resampler_processor.h"
#include "support/rate_model.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr int16_t kSentinel = 0x5A5A;

std::vector<int16_t> pcmBlock(size_t samples, uint32_t seed) {
    std::vector<int16_t> v;
    for (float x : dsptest::noiseBlock(samples, seed, 1.0f)) {
        v.push_back(dsp::convert::floatToSample(x));
    }
    return v;
}

dsp::ResamplerProcessor* asResampler(void* handle) {
    return static_cast<dsp::ResamplerProcessor*>(handle);
}

// Each channel equals a lone converter fed the converted samples; stereo in,
// mono out keeps the left; mono in, stereo out duplicates.
TEST(Resampler, ChannelMappingFollowsTheConversionRules) {
    dsptest::SimdGuard guard;
    dsptest::SimdGuard::set(false, false, false);
    const uint32_t frames = 1500;
    const std::vector<int16_t> stereo = pcmBlock(2 * frames, 2), mono = pcmBlock(frames, 3);
    auto reference = [&](const std::vector<int16_t>& pcm, size_t channel, size_t channels) {
        std::vector<float> in, out(4000);
        for (size_t i = channel; i < pcm.size(); i += channels) {
            in.push_back(dsp::convert::sampleToFloat(pcm[i]));
        }
        dsp::RateConverter c;
        c.setup(frames, 22050, 32000, 1, 50.0f, 40.0f, 1, 0.1f);
        out.resize(c.convert(in.data(), out.data(), frames));
        return out;
    };
    const std::vector<float> left = reference(stereo, 0, 2), right = reference(stereo, 1, 2);
    const std::vector<float> single = reference(mono, 0, 1);
    const size_t n = left.size();
    ASSERT_EQ(n, 2176u);
    void* sized = initResampler(1024, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1);
    EXPECT_EQ(getResamplerDstSize(sized, 4096), 4458u); // the byte count scaled as given
    termResampler(sized);
    for (uint32_t in : {1u, 2u}) {
        for (uint32_t out : {1u, 2u}) {
            void* h = initResampler(frames, in, out, 22050, 32000, 1, 50.0f, 40.0f, 1);
            const std::vector<int16_t>& src = in == 2 ? stereo : mono;
            std::vector<int16_t> dst(2 * n + 8, kSentinel);
            uint32_t bytes =
                doResampler(h, src.data(), dst.data(), static_cast<uint32_t>(src.size() * 2));
            ASSERT_EQ(bytes, 2 * out * n);
            for (size_t i = 0; i < n; ++i) {
                ASSERT_EQ(dst[out * i], dsp::convert::floatToSample((in == 2 ? left : single)[i]));
                if (out == 2) {
                    ASSERT_EQ(dst[2 * i + 1],
                              dsp::convert::floatToSample((in == 2 ? right : single)[i]));
                }
            }
            EXPECT_EQ(dst[bytes / 2], kSentinel);
            termResampler(h);
        }
    }
}

TEST(Resampler, OversizeBlocksAreProcessedInPieces) {
    const uint32_t frames = 1000;
    std::vector<int16_t> src = pcmBlock(2 * 3500, 5);
    void* whole = initResampler(frames, 2, 2, 48000, 22050, 1, 60.0f, 60.0f, 1);
    void* pieces = initResampler(frames, 2, 2, 48000, 22050, 1, 60.0f, 60.0f, 1);
    std::vector<int16_t> dst(4000, kSentinel), expected;
    uint32_t bytes = doResampler(whole, src.data(), dst.data(), 3500 * 4);
    for (uint32_t start = 0; start < 3500; start += frames) {
        std::vector<int16_t> out(2 * frames);
        uint32_t b = doResampler(pieces, src.data() + 2 * start, out.data(),
                                 std::min(frames, 3500 - start) * 4);
        expected.insert(expected.end(), out.begin(), out.begin() + b / 2);
    }
    EXPECT_EQ(bytes, (3 * 459 + 229) * 4u);
    ASSERT_EQ(bytes, expected.size() * 2);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), dst.begin()));
    EXPECT_EQ(dst[bytes / 2], kSentinel);
    // A chained call converts at most one configured block.
    dsp::ResamplerProcessor* p = asResampler(whole);
    std::vector<float> in = dsptest::noiseBlock(3500, 6);
    EXPECT_EQ(p->processChained(in.data(), in.data(), p->work[2], p->work[3], 3500), 459u);
    termResampler(whole);
    termResampler(pieces);
}

// configure rebuilds for the new input format and clears the converter state:
// processChained then equals a fresh converter block after block.
TEST(Resampler, ChainConfigureRebuildsForTheNewInputFormat) {
    void* h = initResampler(1024, 2, 1, 44100, 48000, 0, 60.0f, 60.0f, 1);
    dsp::ResamplerProcessor* p = asResampler(h);
    const std::vector<float> lead = dsptest::noiseBlock(1024, 1);
    p->processChained(lead.data(), lead.data(), p->work[2], p->work[3], 1024);
    p->configure(2048, 1, 22050);
    EXPECT_EQ(p->outChannels, 1u);
    EXPECT_EQ(p->outRate, 48000u);
    EXPECT_EQ(p->outFrames, 4458u);
    EXPECT_EQ(p->getDstSize(4096), 8916u);
    EXPECT_EQ(p->converters[0].filter.frequency, 5512.5f);
    dsp::RateConverter reference;
    reference.setup(2048, 22050, 48000, 0, 60.0f, 60.0f, 1, 0.1f);
    std::vector<float> expected(4458);
    for (uint32_t seed = 7; seed < 10; ++seed) {
        std::vector<float> in = dsptest::noiseBlock(2048, seed);
        ASSERT_EQ(p->processChained(in.data(), nullptr, p->work[2], p->work[3], 2048), 4458u);
        reference.convert(in.data(), expected.data(), 2048);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), p->work[2])) << seed;
    }
    EXPECT_EQ(p->processChannel(2, expected.data(), p->work[2], 2048), 0u);
    termResampler(h);
}

// The output buffers are replaced only when a configure needs more floats
// than they hold; buffers taken anew by the base setup hold `frames`.
TEST(Resampler, ConfigureGrowsTheOutputBuffersOnlyWhenNeeded) {
    dsp::ResamplerProcessor* p =
        asResampler(initResampler(1024, 1, 1, 22050, 44100, 0, 60.0f, 60.0f, 0));
    float* out = p->work[2];
    p->configure(1024, 1, 44100);
    EXPECT_EQ(p->work[2], out);
    EXPECT_EQ(p->outputCapacity(), 2048u);
    p->configure(512, 1, 8000); // trunc(512 / 8000 * 44100) = 2822 > 2048
    EXPECT_EQ(p->outputCapacity(), 2822u);
    p->configure(4096, 2, 88200); // new buffers of 4096 hold the 2048 outputs
    EXPECT_EQ(p->outFrames, 2048u);
    EXPECT_EQ(p->outputCapacity(), 4096u);
    std::vector<int16_t> src = pcmBlock(8192, 9), dst(4096 + 8, kSentinel);
    EXPECT_EQ(p->processInterleaved(src.data(), dst.data(), 16384), 8192u);
    EXPECT_EQ(dst[4096], kSentinel);
    termResampler(p);
}

TEST(Resampler, RefusesWhatItCannotServeAndOtherHandles) {
    const uint32_t total = fastmemGetAllocatedSize();
    EXPECT_EQ(initResampler(1024, 2, 2, 0, 48000, 1, 60, 60, 1), nullptr);
    EXPECT_EQ(initResampler(1024, 2, 2, 44100, 0, 1, 60, 60, 1), nullptr);
    EXPECT_EQ(initResampler(1024, 3, 2, 44100, 48000, 1, 60, 60, 1), nullptr);
    EXPECT_EQ(initResampler(1024, 1, 3, 44100, 48000, 1, 60, 60, 1), nullptr);
    EXPECT_EQ(initResampler(100000, 1, 1, 1, 4000000000u, 0, 60, 60, 0), nullptr);
    dsp::fastmemPool().setSystemAllocator([](size_t) -> void* { return nullptr; });
    void* failed = initResampler(1024, 2, 2, 44100, 48000, 1, 60, 60, 1);
    dsp::fastmemPool().setSystemAllocator(nullptr);
    EXPECT_EQ(failed, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);

    std::vector<int16_t> src = pcmBlock(256, 10), dst(256, kSentinel);
    void* h = initResampler(256, 1, 1, 48000, 44100, 1, 60.0f, -1.0f, 1); // absurd filter
    EXPECT_EQ(doResampler(h, src.data(), dst.data(), 512), 2u * 235);
    termResampler(h);
    h = initResampler(0, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1); // produces nothing
    EXPECT_EQ(doResampler(h, src.data(), dst.data(), 512), 0u);
    termResampler(h);

    h = initResampler(64, 1, 1, 44100, 48000, 0, 60, 60, 0);
    asResampler(h)->tag = dsp::kTagChorus;
    for (void* wrong : {h, static_cast<void*>(nullptr)}) {
        std::fill(dst.begin(), dst.end(), kSentinel);
        EXPECT_EQ(doResampler(wrong, src.data(), dst.data(), 128), 0u);
        EXPECT_EQ(dst[0], kSentinel);
        EXPECT_EQ(getResamplerDstSize(wrong, 4096), 0u);
        EXPECT_EQ(termResampler(wrong), 0u);
    }
    asResampler(h)->tag = dsp::kTagResampler;
    EXPECT_EQ(termResampler(h), 1u);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
}

} // namespace
