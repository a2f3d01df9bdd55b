// The processor base through a small processor defined here: buffer setup
// and reuse, the standard interleaved template, tags and destruction.
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
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override {
        processChannel(0, inL, outL, frames);
        if (inChannels == 2) {
            processChannel(1, inR, outR, frames);
        }
        return frames;
    }
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override {
        return interleavedTemplate(src, dst, bytes);
    }
    int channelCalls[2] = {0, 0};
};

TEST(DspProcessor, SetupBuffersTakesSixAlignedPoolBuffers) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    uint32_t blocks = pool.blockCount();
    uint32_t bytes = fastmemGetAllocatedSize();
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
        EXPECT_EQ(p.inFrames, 256u);
        EXPECT_EQ(p.outFrames, 256u);
        EXPECT_EQ(p.inChannels, 2u);
        EXPECT_EQ(p.outChannels, 2u);
        EXPECT_EQ(p.inRate, 0u);
    }
    EXPECT_EQ(pool.blockCount(), blocks);
    EXPECT_EQ(fastmemGetAllocatedSize(), bytes);
}

TEST(DspProcessor, SmallerConfigureKeepsBuffersAndTheEarlierSizeAllocatesAnew) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    HalvingProcessor p;
    p.configure(1024, 2, 44100);
    EXPECT_EQ(p.inRate, 44100u);
    float* first = p.work[0];
    uint32_t blocks = pool.blockCount();
    uint32_t total = fastmemGetAllocatedSize();
    p.configure(512, 1, 22050);
    EXPECT_EQ(p.work[0], first);
    EXPECT_EQ(p.inFrames, 512u);
    EXPECT_EQ(p.inChannels, 1u);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    p.configure(1024, 2, 44100);
    EXPECT_EQ(pool.blockCount(), blocks);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    EXPECT_EQ(p.inFrames, 1024u);
}

TEST(DspProcessor, ReleaseBuffersLeavesNullPointersAndNotReady) {
    uint32_t total = fastmemGetAllocatedSize();
    HalvingProcessor p;
    ASSERT_TRUE(p.setupBuffers(64, 1));
    p.releaseBuffers();
    EXPECT_EQ(p.ready, 0);
    for (float* w : p.work) {
        EXPECT_EQ(w, nullptr);
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    p.releaseBuffers(); // a second release does nothing
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
}

void* failingAlloc(size_t) {
    return nullptr;
}

TEST(DspProcessor, PoolFailureLeavesNoBuffersAndNotReady) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    uint32_t total = fastmemGetAllocatedSize();
    HalvingProcessor p;
    pool.setSystemAllocator(failingAlloc);
    bool ok = p.setupBuffers(64, 2);
    pool.setSystemAllocator(nullptr);
    EXPECT_FALSE(ok);
    EXPECT_EQ(p.ready, 0);
    EXPECT_EQ(fastmemGetAllocatedSize(), total);
    for (float* w : p.work) {
        EXPECT_EQ(w, nullptr);
    }
}

TEST(DspProcessor, ChannelCountsOtherThanOneOrTwoAreRefused) {
    HalvingProcessor p;
    EXPECT_FALSE(p.setupBuffers(64, 0));
    EXPECT_FALSE(p.setupBuffers(64, 3));
    EXPECT_EQ(p.ready, 0);
    EXPECT_TRUE(p.setupBuffers(64, 1));
}

TEST(DspProcessor, InterleavedTemplateOnAPartialStereoFrame) {
    dsptest::SimdGuard guard;
    dsptest::SimdGuard::set(false, false, false);
    HalvingProcessor p;
    ASSERT_TRUE(p.setupBuffers(1025, 2));
    std::vector<int16_t> src(2052), dst(2052, 555);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<int16_t>(i * 13 - 9000);
    }
    EXPECT_EQ(p.processInterleaved(src.data(), dst.data(), 4103), 4103u);
    EXPECT_EQ(p.channelCalls[0], 1);
    EXPECT_EQ(p.channelCalls[1], 1);
    for (size_t i = 0; i < 2050; ++i) {
        float half = dsp::convert::sampleToFloat(src[i]) * 0.5f;
        ASSERT_EQ(dst[i], dsp::convert::floatToSample(half)) << i;
    }
    // The 3 bytes past the last whole frame are not written.
    EXPECT_EQ(dst[2050], 555);
    EXPECT_EQ(dst[2051], 555);
}

TEST(DspProcessor, InterleavedTemplateMonoRunsOneChannel) {
    HalvingProcessor p;
    ASSERT_TRUE(p.setupBuffers(16, 1));
    std::vector<int16_t> src(16, 1000), dst(16);
    EXPECT_EQ(p.processInterleaved(src.data(), dst.data(), 32), 32u);
    EXPECT_EQ(p.channelCalls[0], 1);
    EXPECT_EQ(p.channelCalls[1], 0);
    EXPECT_EQ(dst[15], 499); // 1000/32767*0.5*32767 truncated
}

TEST(DspProcessor, OversizedBlocksArePiecedInsteadOfOverrunning) {
    HalvingProcessor p;
    ASSERT_TRUE(p.setupBuffers(10, 2));
    std::vector<int16_t> src(2 * 35), dst(2 * 35);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<int16_t>(i * 100);
    }
    EXPECT_EQ(p.processInterleaved(src.data(), dst.data(), 140), 140u);
    EXPECT_EQ(p.channelCalls[0], 4);
    for (size_t i = 0; i < src.size(); ++i) {
        float half = dsp::convert::sampleToFloat(src[i]) * 0.5f;
        ASSERT_EQ(dst[i], dsp::convert::floatToSample(half)) << i;
    }
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
    EXPECT_TRUE(p->hasTag(kTestTag));
    dsp::destroyProcessor(p);
    EXPECT_EQ(tagSeenAtFree, 0u);
}

} // namespace
