// The processor base through a small halving processor; for every family the
// handle checks of its exports and the refusals of init.
#include "core/fastmem_pool.h"
#include "core/processor.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "support/core_family_runs.h"
#include "support/simd_guard.h"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t kTestTag = 77;

// Halves every sample; counts the pieces it receives.
class HalvingProcessor : public dsp::DspProcessor {
public:
    HalvingProcessor() : DspProcessor(kTestTag) {}
    uint32_t processChannel(uint32_t, const float* in, float* out, uint32_t frames) override {
        for (uint32_t i = 0; i < frames; ++i) {
            out[i] = in[i] * 0.5f;
        }
        return frames;
    }
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override {
        ++pieces;
        processChannel(0, inL, outL, frames);
        if (inChannels() == 2) {
            processChannel(1, inR, outR, frames);
        }
        return frames;
    }
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override {
        runInterleaved(src, dst, bytes);
        return bytes;
    }
    int pieces = 0;
};

int16_t halved(int16_t s) {
    return dsp::convert::floatToSample(dsp::convert::sampleToFloat(s) * 0.5f);
}

// Six aligned pool buffers, given back on release and destruction; a smaller
// configure keeps them.
TEST(DspProcessor, SetupTakesSixAlignedPoolBuffersAndSmallerConfiguresKeepThem) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t blocks = pool.blockCount(), bytes = fastmemGetAllocatedSize();
    {
        HalvingProcessor p;
        EXPECT_FALSE(p.isReady());
        ASSERT_TRUE(p.setupBuffers(256, 2));
        EXPECT_TRUE(p.isReady());
        for (int i = 0; i < dsp::DspProcessor::kWorkBuffers; ++i) {
            ASSERT_NE(p.work(i), nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p.work(i)) % 16, 0u);
            EXPECT_EQ(p.workCapacity(i), 256u);
        }
        EXPECT_EQ(pool.blockCount(), blocks + 6);
        EXPECT_EQ(fastmemGetAllocatedSize(), bytes + 6 * (256 * 4 + 15));
        p.releaseBuffers();
        EXPECT_FALSE(p.isReady());
        EXPECT_EQ(fastmemGetAllocatedSize(), bytes);
        p.releaseBuffers(); // a second release does nothing
        EXPECT_FALSE(p.setupBuffers(64, 0));
        EXPECT_FALSE(p.setupBuffers(64, 3));
        EXPECT_EQ(fastmemGetAllocatedSize(), bytes);
        EXPECT_EQ(p.work(0), nullptr);
        p.configure(1024, 2, 44100);
        float* first = p.work(0);
        const uint32_t total = fastmemGetAllocatedSize();
        p.configure(512, 1, 22050);
        EXPECT_EQ(p.work(0), first);
        p.configure(1024, 2, 44100);
        EXPECT_EQ(fastmemGetAllocatedSize(), total);
    }
    EXPECT_EQ(pool.blockCount(), blocks);
    EXPECT_EQ(fastmemGetAllocatedSize(), bytes);
}

// Bytes past the last whole frame are left alone; blocks larger than the
// setup go through in pieces.
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
        EXPECT_EQ(p.pieces, c.calls);
        for (size_t i = 0; i < whole; ++i) {
            ASSERT_EQ(dst[i], halved(src[i])) << c.bytes << ": " << i;
        }
        EXPECT_EQ(dst[whole], 555) << c.bytes;
        EXPECT_EQ(dst[whole + 1], 555) << c.bytes;
    }
    EXPECT_EQ(halved(1000), 499);
}

// Floats enter and leave the driver as they are: no 16-bit step on the way,
// the same pieces as for 16-bit samples.
TEST(DspProcessor, FloatEndsOfTheDriverSkipTheSampleConversion) {
    for (uint32_t channels : {1u, 2u}) {
        HalvingProcessor p;
        ASSERT_TRUE(p.setupBuffers(10, channels));
        std::vector<float> src(25 * channels), dst(25 * channels + 1, 7.0f);
        for (size_t i = 0; i < src.size(); ++i) {
            src[i] = static_cast<float>(i) * 0.3f - 2.5f; // beyond full scale too
        }
        dsp::InterleavedInput in(src.data());
        dsp::InterleavedOutput out(dst.data());
        EXPECT_EQ(p.runPieces(in, out, 25), 25u);
        EXPECT_EQ(p.pieces, 3);
        for (size_t i = 0; i < src.size(); ++i) {
            ASSERT_EQ(dst[i], src[i] * 0.5f) << channels << " " << i;
        }
        EXPECT_EQ(dst.back(), 7.0f);
    }
}

// Whether the storage of a freed object was still taken for a processor.
bool refusedAtFree = false;

class ObservedProcessor : public HalvingProcessor {
public:
    static void operator delete(void* storage) {
        refusedAtFree = dsp::processorFromHandle<HalvingProcessor>(storage, kTestTag) == nullptr;
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
    EXPECT_TRUE(refusedAtFree);
}

// Every export taking a processor handle, grouped by the family it accepts
// (analyzer term… calls take any analyzer); a group sums its results.
using Calls = uint32_t (*)(void* h, int16_t* b);
const std::pair<const char*, Calls> kHandleCalls[] = {
    {"IirFilter", [](void* h, int16_t* b) { return doIirFilter(h, b, b, 64) + termIirFilter(h); }},
    {"Fader",
     [](void* h, int16_t* b) {
         return setFaderAction(h, 0, 1, 2, 0) + delFaderAction(h, 0, 1, 2) +
                setCrossFaderAction(h, 1, 2, 0) + delCrossFaderAction(h, 1, 2) +
                setCrossFaderCurve(h, 0, 0, 0, 0) + doFade(h, 0, b, b, 64) +
                doCrossFade(h, b, b, b, 64) + termFader(h);
     }},
    {"Chorus",
     [](void* h, int16_t* b) {
         return setChorusOrgMix(h, 1) + setChorusMix(h, 0, 1) + setChorusSpeed(h, 1) +
                setChorusDepth(h, 1) + setChorusDelaytime(h, 1) + doChorus(h, b, b, 64) +
                termChorus(h);
     }},
    {"Resampler",
     [](void* h, int16_t* b) {
         return doResampler(h, b, b, 64) + getResamplerDstSize(h, 4096) + termResampler(h);
     }},
    {"Hqups",
     [](void* h, int16_t* b) {
         return setHqupsHarmonics(h, 1) + setHqupsMix(h, 1) + setHqupsActiveMode(h, 1) +
                doHqups(h, b, b, 16) + getHqupsDstSize(h, 100) + getHqupsSrcSize(h, 100) +
                termHqups(h);
     }},
    {"PitchShift",
     [](void* h, int16_t* b) {
         return setPitchShiftPitch(h, 1) + setPitchShiftOutLevel(h, 0) +
                doPitchShift(h, b, b, 128) + termPitchShift(h);
     }},
    {"Stretch",
     [](void* h, int16_t* b) {
         return setStretchScale(h, 100) + setStretchOutLevel(h, 0) + getStretchDstSize(h, 100) +
                doStretch(h, b, b, 128) + termStretch(h);
     }},
    {"WaveSlice",
     [](void* h, int16_t* b) {
         return doWaveSlice(h, b, 512) + (getWaveSlice(h, 0) != nullptr) + termWaveSlice(h);
     }},
    {"Fft", [](void* h, int16_t* b) { return doFft(h, b, reinterpret_cast<float*>(b), 512); }},
    {"FftAnalyze",
     [](void* h, int16_t* b) {
         return doFftAnalyze(h, b, reinterpret_cast<float*>(b) + 512, 512);
     }},
    {"EnvAnalyze",
     [](void* h, int16_t* b) {
         return doEnvAnalyze(h, b, reinterpret_cast<float*>(b) + 512, 512);
     }},
    {"Analyzer",
     [](void* h, int16_t*) { return termFft(h) + termFftAnalyze(h) + termEnvAnalyze(h); }},
};

bool accepts(const std::string& family, const std::string& handleFamily) {
    return family == handleFamily ||
           (family == "Analyzer" && (handleFamily == "Fft" || handleFamily == "FftAnalyze" ||
                                     handleFamily == "EnvAnalyze"));
}

// Null and every other family's handle are refused with 0, nothing written and
// nothing touched: each processor then runs as a fresh one does.
TEST(DspProcessor, ExportsRefuseNullAndOtherFamiliesHandles) {
    std::vector<int16_t> buffer(2048, 0x5A5A);
    const std::vector<int16_t> untouched = buffer;
    for (const auto& calls : kHandleCalls) {
        EXPECT_EQ(calls.second(nullptr, buffer.data()), 0u) << calls.first;
    }
    for (const dsptest::FamilyRun& run : dsptest::familyRuns()) {
        void* h = run.init();
        ASSERT_NE(h, nullptr) << run.name;
        for (const auto& calls : kHandleCalls) {
            if (!accepts(calls.first, run.family)) {
                EXPECT_EQ(calls.second(h, buffer.data()), 0u) << calls.first << " on " << run.name;
            }
        }
        EXPECT_EQ(buffer, untouched) << run.name;
        EXPECT_EQ(dsptest::familyOutput(run, 1, h), dsptest::familyOutput(run, 1)) << run.name;
    }
    // Chains and WAVE files carry no family mark; they refuse a null handle.
    uint8_t bytes[4] = {};
    for (uint64_t result :
         {uint64_t{dspAdd(nullptr, nullptr, 0)},
          uint64_t{dspSend(nullptr, buffer.data(), buffer.data(), 8)},
          uint64_t{dspGetDstRate(nullptr)}, uint64_t{dspGetDstChannels(nullptr)},
          uint64_t{dspGetDstSize(nullptr, 100)},
          reinterpret_cast<uint64_t>(dspGetHandle(nullptr, 0)),
          uint64_t(readWavefileIn(nullptr, bytes, 1)), uint64_t(seekWavefileIn(nullptr, 0, 0)),
          uint64_t(timeSeekWavefileIn(nullptr, 1.0f, 0)),
          reinterpret_cast<uint64_t>(bufSizeExtendWavefileIn(nullptr, 10)),
          reinterpret_cast<uint64_t>(getHeaderWavefileIn(nullptr)),
          reinterpret_cast<uint64_t>(getFormatWavefileIn(nullptr)),
          uint64_t(writeWavefileOut(nullptr, bytes, 1)), uint64_t{flushWavefileOut(nullptr)},
          reinterpret_cast<uint64_t>(getFormatWavefileOut(nullptr)),
          uint64_t{termWavefileOut(nullptr)}}) {
        EXPECT_EQ(result, 0u);
    }
    EXPECT_EQ(buffer, untouched);
    dspAdjust(nullptr, 1, 1, 1);
    dspClear(nullptr);
    dspDestroy(nullptr);
    termWavefileIn(nullptr);
}

// Rates of 0, bad channel counts, analyzer sizes, grains and chorus
// histories outside their limits: each a check of its own.
TEST(DspProcessor, InitRefusesArgumentsOutsideTheLimits) {
    const float nan = std::nanf("");
    void* const refused[] = {
        initIirFilter(64, 3, 44100, 4, 1000.0f, 0),
        initFader(16, 3, 44100, 0.0f, 0.0f, 0.0f),
        initChorus(256, 2, 44100, 1000000000u, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f),
        initChorus(256, 2, 44100, 0xFFFFFFFFu, 20.0f, 2.0f, 1.0f, 50.0f, 50.0f),
        initResampler(1024, 2, 2, 0, 48000, 1, 60, 60, 1),
        initResampler(1024, 2, 2, 44100, 0, 1, 60, 60, 1),
        initResampler(1024, 3, 2, 44100, 48000, 1, 60, 60, 1),
        initResampler(1024, 1, 3, 44100, 48000, 1, 60, 60, 1),
        initResampler(100000, 1, 1, 1, 4000000000u, 0, 60, 60, 0), // output beyond 32 bits
        initHqupsBySrcsize(1024, 2, 2, 0, 0.0f, 50.0f, 5000, 0, 60.0f, 60.0f, 0, 1),
        initHqups(1000, 2, 2, 0, 0.0f, 50.0f, 5000, 0, 60.0f, 60.0f, 0, 1),
        initHqupsBySrcsize(1024, 3, 3, 44100, 0.0f, 50.0f, 5000, 0, 60.0f, 60.0f, 0, 1),
        initHqupsBySrcsize(1024, 2, 4, 44100, 0.0f, 50.0f, 5000, 0, 60.0f, 60.0f, 0, 1),
        initPitchShift(256, 1, 0, 400.0f, 0.0f, 0.05f, 0.01f),
        initPitchShift(256, 0, 44100, 400.0f, 0.0f, 0.05f, 0.01f),
        initPitchShift(256, 3, 44100, 400.0f, 0.0f, 0.05f, 0.01f),
        initPitchShift(256, 1, 44100, 400.0f, 0.0f, nan, 0.01f),
        initPitchShift(256, 1, 44100, 400.0f, 0.0f, 1e9f, 0.01f),
        initPitchShift(256, 1, 44100, 400.0f, 0.0f, -1.0f, 0.01f),
        initStretch(256, 1, 0, -700.0f, 0.0f, 0.05f, 0.01f),
        initStretch(256, 0, 44100, -700.0f, 0.0f, 0.05f, 0.01f),
        initStretch(256, 3, 44100, -700.0f, 0.0f, 0.05f, 0.01f),
        initStretch(256, 1, 44100, -700.0f, 0.0f, nan, 0.01f),
        initStretch(256, 1, 44100, -700.0f, 0.0f, 1e9f, 0.01f),
        initStretch(256, 1, 44100, -700.0f, 0.0f, -1.0f, 0.01f),
        initWaveSlice(1024, 1, 0, -20.0f, -30.0f, 50.0f, 0.1f),
        initWaveSlice(1024, 1, 66, -20.0f, -30.0f, 50.0f, 0.1f),
        initWaveSlice(0, 1, 44100, -20.0f, -30.0f, 50.0f, 0.1f),
        initWaveSlice(1024, 0, 44100, -20.0f, -30.0f, 50.0f, 0.1f),
        initWaveSlice(1024, 3, 44100, -20.0f, -30.0f, 50.0f, 0.1f),
        initFft(256, 2, 0, 100),          // no spectra
        initFft(256, 2, 3, 100),          // three
        initFft(256, 1, 2, 100),          // two of mono
        initFft(255, 1, 1, 100),          // not a power of two
        initFft(2, 1, 1, 100),            // too short
        initFft(65536, 1, 1, 100),        // too long
        initFft(256, 3, 1, 100),          // three channels
        initFftAnalyze(64, 1, 384, 1024), // not a power of two
        initFftAnalyze(64, 1, 512, 511),  // history shorter than the size
        initFftAnalyze(600, 1, 512, 512), // history shorter than the hop
        initFftAnalyze(64, 0, 512, 512),  // no channels
        initEnvAnalyze(256, 1, 0),
        initEnvAnalyze(256, 1, 66),
    };
    for (size_t i = 0; i < std::size(refused); ++i) {
        EXPECT_EQ(refused[i], nullptr) << "case " << i;
    }
    // The limits themselves are accepted.
    for (void* h : {initFft(4, 1, 1, 100), initFft(32768, 2, 2, 100),
                    initFftAnalyze(600, 2, 512, 600), initEnvAnalyze(256, 2, 8000)}) {
        ASSERT_NE(h, nullptr);
        EXPECT_TRUE(static_cast<dsp::DspProcessor*>(h)->hasTag(dsp::kTagAnalyzer));
        EXPECT_EQ(termFft(h), 1u);
    }
}

} // namespace
