// The processor base through a small halving processor: buffer setup and
// reuse, the standard interleaved template, tags and destruction.
#include "core/fastmem_pool.h"
#include "core/processor.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr uint32_t kTestTag = 77;

// Halves every sample; counts the calls it receives.
class HalvingProcessor : public dsp::DspProcessor {
public:
    HalvingProcessor() { tag = kTestTag; }
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override {
        ++channelCalls[channel];
        for (uint32_t i = 0; i < frames; ++i) {
            out[i] = in[i] * 0.5f;
        }
        return frames;
    }
    uint32_t processChained(const float*, const float*, float*, float*, uint32_t) override {
        return 0;
    }
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override {
        return interleavedTemplate(src, dst, bytes);
    }
    int channelCalls[2] = {0, 0};
};

int16_t halved(int16_t s) {
    return dsp::convert::floatToSample(dsp::convert::sampleToFloat(s) * 0.5f);
}

TEST(DspProcessor, SetupTakesSixAlignedPoolBuffersRefusesBadChannelsAndGivesThemBack) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t blocks = pool.blockCount(), bytes = fastmemGetAllocatedSize();
    {
        HalvingProcessor p;
        EXPECT_EQ(p.ready, 0);
        ASSERT_TRUE(p.setupBuffers(256, 2));
        EXPECT_EQ(p.ready, 1);
        for (float* w : p.work) {
            ASSERT_NE(w, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(w) % 16, 0u);
        }
        EXPECT_EQ(pool.blockCount(), blocks + 6);
        EXPECT_EQ(fastmemGetAllocatedSize(), bytes + 6 * (256 * 4 + 15));
        EXPECT_EQ(p.outFrames, 256u);
        EXPECT_EQ(p.outChannels, 2u);
        p.releaseBuffers();
        EXPECT_EQ(p.ready, 0);
        EXPECT_EQ(fastmemGetAllocatedSize(), bytes);
        p.releaseBuffers(); // a second release does nothing
        EXPECT_FALSE(p.setupBuffers(64, 0));
        EXPECT_FALSE(p.setupBuffers(64, 3));
        EXPECT_EQ(fastmemGetAllocatedSize(), bytes);
        EXPECT_EQ(p.work[0], nullptr);
        ASSERT_TRUE(p.setupBuffers(64, 1));
    }
    EXPECT_EQ(pool.blockCount(), blocks);
    EXPECT_EQ(fastmemGetAllocatedSize(), bytes);
}

TEST(DspProcessor, SmallerConfigureKeepsBuffersAndTheEarlierSizeAllocatesAnew) {
    HalvingProcessor p;
    p.configure(1024, 2, 44100);
    EXPECT_EQ(p.inRate, 44100u);
    float* first = p.work[0];
    const uint32_t blocks = dsp::fastmemPool().blockCount(), total = fastmemGetAllocatedSize();
    p.configure(512, 1, 22050);
    EXPECT_EQ(p.work[0], first);
    EXPECT_EQ(p.inFrames, 512u);
    EXPECT_EQ(p.inChannels, 1u);
    p.configure(1024, 2, 44100);
    EXPECT_EQ(dsp::fastmemPool().blockCount(), blocks);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    EXPECT_EQ(p.inFrames, 1024u);
}

// Whole frames are halved and counted per channel, bytes past the last whole
// frame are left alone, and blocks larger than the setup go through in pieces
// instead of overrunning the work buffers.
TEST(DspProcessor, InterleavedTemplateOnPartialFramesMonoAndOversizedBlocks) {
    dsptest::SimdGuard guard;
    dsptest::SimdGuard::set(false, false, false);
    struct Case {
        uint32_t setupFrames, channels, bytes;
        int calls;
    } const cases[] = {{1025, 2, 4103, 1}, {16, 1, 32, 1}, {10, 2, 140, 4}, {10, 1, 45, 3}};
    for (const Case& c : cases) {
        HalvingProcessor p;
        ASSERT_TRUE(p.setupBuffers(c.setupFrames, c.channels));
        const uint32_t whole = c.bytes / (2 * c.channels) * c.channels;
        std::vector<int16_t> src(whole + 2), dst(whole + 2, 555);
        for (size_t i = 0; i < src.size(); ++i) {
            src[i] = static_cast<int16_t>(i * 13 - 9000);
        }
        EXPECT_EQ(p.processInterleaved(src.data(), dst.data(), c.bytes), c.bytes);
        EXPECT_EQ(p.channelCalls[0], c.calls);
        EXPECT_EQ(p.channelCalls[1], c.channels == 2 ? c.calls : 0);
        for (size_t i = 0; i < whole; ++i) {
            ASSERT_EQ(dst[i], halved(src[i])) << c.bytes << ": " << i;
        }
        EXPECT_EQ(dst[whole], 555) << c.bytes;
        EXPECT_EQ(dst[whole + 1], 555) << c.bytes;
    }
    EXPECT_EQ(halved(1000), 499);
}

// Records the tag left in the storage when the object is freed.
uint32_t tagSeenAtFree = 12345;

class ObservedProcessor : public HalvingProcessor {
public:
    static void operator delete(void* storage) {
        tagSeenAtFree =
            *static_cast<volatile uint32_t*>(&static_cast<dsp::DspProcessor*>(storage)->tag);
        ::operator delete(storage);
    }
};

TEST(DspProcessor, HandlesAreCheckedByTagAndDestructionClearsIt) {
    ObservedProcessor* p = new ObservedProcessor();
    ASSERT_TRUE(p->setupBuffers(8, 1));
    EXPECT_EQ(dsp::processorFromHandle<HalvingProcessor>(p, kTestTag), p);
    EXPECT_EQ(dsp::processorFromHandle<HalvingProcessor>(p, dsp::kTagChorus), nullptr);
    EXPECT_EQ(dsp::processorFromHandle<HalvingProcessor>(nullptr, kTestTag), nullptr);
    dsp::destroyProcessor(p);
    EXPECT_EQ(tagSeenAtFree, 0u);
}

} // namespace
