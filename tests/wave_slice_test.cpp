// The wave slicer through its exports: slice positions against a model of the
// band-limit, envelope and rules run in the test, the list handling of
// getWaveSlice, stereo mix-down, block-size independence, low rates and the
// refusals.
#include "analysis/wave_slice_processor.h"
#include "core/fastmem_pool.h"
#include "core/processor.h"
#include "dsp.h"
#include "support/wave_slice_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using dsptest::SlicePositions;
using dsptest::WaveSliceModel;

constexpr double kPi = 3.14159265358979323846;

// Gates and rise used unless a test says otherwise: start -20 dB (0.1),
// end -30 dB, rise 50 %, minimum length 0.1 s.
constexpr float kStartDb = -20.0f;
constexpr float kEndDb = -30.0f;
constexpr float kRise = 50.0f;
constexpr float kMinSeconds = 0.1f;

struct Burst {
    uint32_t from;
    uint32_t to;
    double amplitude; // fraction of full scale
};

// A mono tone of `hz` switched on and off by the bursts (silence elsewhere).
std::vector<int16_t> toneBursts(uint32_t frames, uint32_t rate, double hz,
                                const std::vector<Burst>& bursts) {
    std::vector<int16_t> v(frames, 0);
    for (const Burst& b : bursts) {
        for (uint32_t i = b.from; i < b.to && i < frames; ++i) {
            v[i] = static_cast<int16_t>(
                std::lround(b.amplitude * 32767.0 * std::sin(2.0 * kPi * hz * i / rate)));
        }
    }
    return v;
}

// Position of the first non-zero sample.
uint32_t firstSound(const std::vector<int16_t>& v) {
    uint32_t i = 0;
    while (i < v.size() && v[i] == 0) {
        ++i;
    }
    return i;
}

// Feeds interleaved samples in blocks of the given sizes (cycled).
void feed(void* h, const std::vector<int16_t>& src, uint32_t channels,
          const std::vector<uint32_t>& blockFrames) {
    const size_t frames = src.size() / channels;
    size_t done = 0;
    for (size_t k = 0; done < frames; ++k) {
        size_t n = blockFrames[k % blockFrames.size()];
        n = n < frames - done ? n : frames - done;
        ASSERT_EQ(
            doWaveSlice(h, src.data() + done * channels, static_cast<uint32_t>(n * 2 * channels)),
            1u);
        done += n;
    }
}

// The slices as read through getWaveSlice, checking the list links.
std::vector<SliceRecord> readSlices(void* h) {
    std::vector<SliceRecord> out;
    const SliceRecord* prev = nullptr;
    for (uint32_t i = 0;; ++i) {
        const SliceRecord* s = getWaveSlice(h, i);
        if (s == nullptr) {
            EXPECT_EQ(i, 0u);
            break;
        }
        if (s == prev) {
            break; // beyond the last: the last again
        }
        EXPECT_EQ(s->prev, prev);
        out.push_back(*s);
        prev = s;
    }
    return out;
}

void expectSlices(const std::vector<SliceRecord>& got, const std::vector<SlicePositions>& want,
                  const WaveSliceModel& model) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].startSeconds, model.seconds(want[i].start)) << "slice " << i;
        EXPECT_EQ(got[i].endSeconds, model.seconds(want[i].end)) << "slice " << i;
    }
}

// Runs a mono signal through a slicer and through the model; both must agree.
std::vector<SlicePositions> checkAgainstModel(const std::vector<int16_t>& mono, uint32_t rate,
                                              const std::vector<uint32_t>& blocks,
                                              uint32_t frames = 1024,
                                              float minSeconds = kMinSeconds) {
    WaveSliceModel model(rate, kStartDb, kEndDb, kRise, minSeconds);
    std::vector<SlicePositions> want = model.slices(model.envelope(dsptest::slicerInput(mono, 1)),
                                                    {static_cast<uint32_t>(mono.size())});
    void* h = initWaveSlice(frames, 1, rate, kStartDb, kEndDb, kRise, minSeconds);
    EXPECT_NE(h, nullptr);
    if (h == nullptr) {
        return want;
    }
    feed(h, mono, 1, blocks);
    expectSlices(readSlices(h), want, model);
    EXPECT_EQ(termWaveSlice(h), 1u);
    return want;
}

TEST(WaveSlice, SilenceYieldsNoSlices) {
    void* h = initWaveSlice(512, 2, 44100, kStartDb, kEndDb, kRise, kMinSeconds);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> silence(2 * 20000, 0);
    feed(h, silence, 2, {512});
    EXPECT_EQ(getWaveSlice(h, 0), nullptr);
    EXPECT_EQ(getWaveSlice(h, 5), nullptr);
    EXPECT_EQ(termWaveSlice(h), 1u);
}

TEST(WaveSlice, OneBurstGivesOneSliceFromTheValleyToTheEndGate) {
    const uint32_t rate = 44100;
    std::vector<int16_t> mono = toneBursts(60000, rate, 5000.0, {{10000, 30000, 0.5}});
    std::vector<SlicePositions> s = checkAgainstModel(mono, rate, {1024});
    ASSERT_EQ(s.size(), 1u);
    // The envelope is exactly 0 before the burst: the valley is the last
    // silent sample before the first non-zero one.
    EXPECT_EQ(s[0].start, firstSound(mono) - 1);
    // It ends after the tone stops, once the envelope is below -30 dB.
    EXPECT_GT(s[0].end, 30000u);
    EXPECT_LT(s[0].end, 30000u + rate / 10);
    WaveSliceModel model(rate, kStartDb, kEndDb, kRise, kMinSeconds);
    std::vector<float> env = model.envelope(dsptest::slicerInput(mono, 1));
    EXPECT_LT(env[s[0].end], model.endGate());
    EXPECT_GE(env[s[0].end - 1], model.endGate());
}

TEST(WaveSlice, AttacksCloserThanTheMinimumLengthGiveOneSlice) {
    const uint32_t rate = 44100;
    std::vector<int16_t> mono =
        toneBursts(50000, rate, 5000.0, {{10000, 14000, 0.5}, {16000, 20000, 0.5}});
    // 0.5 s: the gap between the bursts cannot end the slice.
    std::vector<SlicePositions> one = checkAgainstModel(mono, rate, {1024}, 1024, 0.5f);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0].start, firstSound(mono) - 1);
    // 0.01 s: the same signal gives two slices.
    EXPECT_EQ(checkAgainstModel(mono, rate, {1024}, 1024, 0.01f).size(), 2u);
}

TEST(WaveSlice, AnAttackInsideALongSliceSplitsItAtItsValley) {
    const uint32_t rate = 44100;
    // Loud, then quiet but above the end gate, then loud again.
    std::vector<int16_t> mono = toneBursts(
        60000, rate, 5000.0, {{10000, 20000, 0.5}, {20000, 25000, 0.04}, {25000, 35000, 0.5}});
    std::vector<SlicePositions> s = checkAgainstModel(mono, rate, {1024});
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].end, s[1].start);
    // The valley lies just after the loud tone returns (the band filters
    // delay it a little).
    EXPECT_GT(s[1].start, 24000u);
    EXPECT_LE(s[1].start, 25100u);
}

TEST(WaveSlice, ASliceEndedDuringARiseIsNotReopenedByTheSameRise) {
    // End gate above the start gate: a slowly rising tone opens a slice early,
    // the slice ends (still below the end gate) once the minimum length has
    // passed, and the attack already taken may not open another one.
    const uint32_t rate = 44100;
    std::vector<int16_t> mono(40000, 0);
    for (uint32_t i = 5000; i < 35000; ++i) {
        const double ramp = 0.25 * (i - 5000) / 30000.0;
        mono[i] = static_cast<int16_t>(std::lround(ramp * 32767.0 * std::sin(0.7 * i)));
    }
    const float startDb = -40.0f, endDb = -6.0f, risePercent = 5.0f, minSeconds = 0.05f;
    WaveSliceModel model(rate, startDb, endDb, risePercent, minSeconds);
    std::vector<SlicePositions> want =
        model.slices(model.envelope(dsptest::slicerInput(mono, 1)), {40000});
    ASSERT_EQ(want.size(), 1u);
    // Well past the start gate and still rising after the slice ended.
    std::vector<float> env = model.envelope(dsptest::slicerInput(mono, 1));
    EXPECT_GT(env[want[0].end + 5000], env[want[0].end] + 0.05f);
    void* h = initWaveSlice(1024, 1, rate, startDb, endDb, risePercent, minSeconds);
    ASSERT_NE(h, nullptr);
    feed(h, mono, 1, {1024});
    expectSlices(readSlices(h), want, model);
    EXPECT_EQ(termWaveSlice(h), 1u);
}

TEST(WaveSlice, AnIndexBeyondTheLastReturnsTheLast) {
    const uint32_t rate = 44100;
    std::vector<int16_t> mono = toneBursts(
        60000, rate, 5000.0, {{5000, 10000, 0.5}, {20000, 25000, 0.5}, {40000, 45000, 0.5}});
    void* h = initWaveSlice(4096, 1, rate, kStartDb, kEndDb, kRise, 0.05f);
    ASSERT_NE(h, nullptr);
    feed(h, mono, 1, {4096});
    SliceRecord* lastSlice = getWaveSlice(h, 2);
    ASSERT_NE(lastSlice, nullptr);
    EXPECT_EQ(lastSlice->next, nullptr);
    EXPECT_EQ(getWaveSlice(h, 3), lastSlice);
    EXPECT_EQ(getWaveSlice(h, 1000), lastSlice);
    EXPECT_EQ(getWaveSlice(h, UINT32_MAX), lastSlice);
    SliceRecord* firstSlice = getWaveSlice(h, 0);
    EXPECT_EQ(firstSlice->prev, nullptr);
    EXPECT_EQ(firstSlice->next, getWaveSlice(h, 1));
    EXPECT_EQ(getWaveSlice(h, 1)->next, lastSlice);
    EXPECT_EQ(lastSlice->prev, getWaveSlice(h, 1));
    EXPECT_EQ(termWaveSlice(h), 1u);
}

TEST(WaveSlice, ReadingClosesTheOpenSliceAtTheCurrentPosition) {
    const uint32_t rate = 44100;
    std::vector<int16_t> mono =
        toneBursts(90000, rate, 5000.0, {{10000, 30000, 0.5}, {60000, 70000, 0.5}});
    WaveSliceModel model(rate, kStartDb, kEndDb, kRise, kMinSeconds);
    std::vector<SlicePositions> want =
        model.slices(model.envelope(dsptest::slicerInput(mono, 1)), {20000, 90000});
    ASSERT_EQ(want.size(), 2u);
    EXPECT_EQ(want[0].end, 20000u);

    void* h = initWaveSlice(1000, 1, rate, kStartDb, kEndDb, kRise, kMinSeconds);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> head(mono.begin(), mono.begin() + 20000);
    std::vector<int16_t> tail(mono.begin() + 20000, mono.end());
    feed(h, head, 1, {1000});
    const SliceRecord* open = getWaveSlice(h, 0);
    ASSERT_NE(open, nullptr);
    EXPECT_EQ(open->startSeconds, model.seconds(firstSound(mono) - 1));
    EXPECT_EQ(open->endSeconds, model.seconds(20000));
    // Analysis goes on with the slice closed: the rest of the burst opens
    // nothing, the second burst opens the next slice.
    feed(h, tail, 1, {1000});
    expectSlices(readSlices(h), want, model);
    EXPECT_EQ(termWaveSlice(h), 1u);
}

TEST(WaveSlice, StereoIsAnalysedAsTheHalvedSum) {
    const uint32_t rate = 48000;
    std::vector<int16_t> left = toneBursts(40000, rate, 4000.0, {{5000, 15000, 0.7}});
    std::vector<int16_t> right = toneBursts(40000, rate, 7000.0, {{12000, 25000, 0.9}});
    std::vector<int16_t> stereo(80000), mixed(40000);
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> noise(-3, 3);
    for (size_t i = 0; i < left.size(); ++i) {
        // Small noise makes odd (and negative odd) sums common.
        stereo[2 * i] = static_cast<int16_t>(left[i] + noise(rng));
        stereo[2 * i + 1] = static_cast<int16_t>(right[i] + noise(rng));
        mixed[i] = static_cast<int16_t>(
            std::floor((static_cast<int32_t>(stereo[2 * i]) + stereo[2 * i + 1]) / 2.0));
    }
    WaveSliceModel model(rate, kStartDb, kEndDb, kRise, kMinSeconds);
    std::vector<SlicePositions> want =
        model.slices(model.envelope(dsptest::slicerInput(stereo, 2)), {40000});
    ASSERT_GE(want.size(), 1u);

    void* hs = initWaveSlice(2048, 2, rate, kStartDb, kEndDb, kRise, kMinSeconds);
    void* hm = initWaveSlice(2048, 1, rate, kStartDb, kEndDb, kRise, kMinSeconds);
    ASSERT_NE(hs, nullptr);
    ASSERT_NE(hm, nullptr);
    feed(hs, stereo, 2, {2048});
    feed(hm, mixed, 1, {2048});
    std::vector<SliceRecord> s = readSlices(hs);
    std::vector<SliceRecord> m = readSlices(hm);
    expectSlices(s, want, model);
    expectSlices(m, want, model);
    EXPECT_EQ(termWaveSlice(hs), 1u);
    EXPECT_EQ(termWaveSlice(hm), 1u);
}

TEST(WaveSlice, ResultsDoNotDependOnTheBlockSize) {
    const uint32_t rate = 44100;
    // Noise bursts of varying loudness exercise every rule.
    std::vector<int16_t> mono(120000, 0);
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    const Burst bursts[] = {{3000, 9000, 0.6},    {9500, 11000, 0.02},  {11000, 20000, 0.8},
                            {26000, 27000, 0.3},  {27300, 40000, 0.05}, {40000, 52000, 0.9},
                            {70000, 71000, 0.99}, {90000, 119000, 0.4}};
    for (const Burst& b : bursts) {
        for (uint32_t i = b.from; i < b.to; ++i) {
            mono[i] = static_cast<int16_t>(std::lround(b.amplitude * 32767.0 * unit(rng)));
        }
    }
    std::vector<SlicePositions> want = checkAgainstModel(mono, rate, {512}, 512);
    EXPECT_GE(want.size(), 3u);
    checkAgainstModel(mono, rate, {1}, 512);
    checkAgainstModel(mono, rate, {7, 300, 511, 2}, 512);
    // Larger than the configured frames: analysed in pieces.
    checkAgainstModel(mono, rate, {5000, 513, 120000}, 512);
}

TEST(WaveSlice, LowRatesLeaveOutTheFiltersAboveHalfTheRate) {
    // 32000 Hz: no 20000 Hz low-pass; 4000 Hz: no high-pass either.
    const uint32_t rates[] = {32000, 40000, 40001, 8000, 4000, 3000};
    for (uint32_t rate : rates) {
        SCOPED_TRACE(rate);
        // A tone inside whatever band is left.
        const double hz = rate > 8000 ? 5000.0 : rate == 8000 ? 3000.0 : rate / 4.0 - 100.0;
        std::vector<int16_t> mono = toneBursts(rate * 2, rate, hz, {{rate / 4, rate, 0.5}});
        std::vector<SlicePositions> s = checkAgainstModel(mono, rate, {700}, 700);
        EXPECT_EQ(s.size(), 1u);
    }
}

SliceRecord* failingRecord() {
    return nullptr;
}

void* failingAlloc(size_t) {
    return nullptr;
}

TEST(WaveSlice, ASliceThatCannotBeStoredIsDropped) {
    const uint32_t rate = 44100;
    std::vector<int16_t> mono =
        toneBursts(60000, rate, 5000.0, {{5000, 15000, 0.5}, {30000, 40000, 0.5}});
    void* h = initWaveSlice(1024, 1, rate, kStartDb, kEndDb, kRise, kMinSeconds);
    ASSERT_NE(h, nullptr);
    auto* p = dsp::processorFromHandle<dsp::WaveSliceProcessor>(h, dsp::kTagWaveSlice);
    ASSERT_NE(p, nullptr);
    p->slicer.allocateRecord = failingRecord;
    std::vector<int16_t> head(mono.begin(), mono.begin() + 25000);
    std::vector<int16_t> tail(mono.begin() + 25000, mono.end());
    feed(h, head, 1, {1024});
    EXPECT_EQ(getWaveSlice(h, 0), nullptr);
    p->slicer.allocateRecord = [] { return new (std::nothrow) SliceRecord; };
    feed(h, tail, 1, {1024});
    const SliceRecord* s = getWaveSlice(h, 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->next, nullptr);
    EXPECT_GT(s->startSeconds, 29000.0f / rate);
    EXPECT_EQ(termWaveSlice(h), 1u);
}

TEST(WaveSlice, InitRefusesWhatItCannotAnalyse) {
    EXPECT_EQ(initWaveSlice(1024, 1, 0, kStartDb, kEndDb, kRise, kMinSeconds), nullptr);
    EXPECT_EQ(initWaveSlice(1024, 1, 66, kStartDb, kEndDb, kRise, kMinSeconds), nullptr);
    EXPECT_EQ(initWaveSlice(0, 1, 44100, kStartDb, kEndDb, kRise, kMinSeconds), nullptr);
    EXPECT_EQ(initWaveSlice(1024, 0, 44100, kStartDb, kEndDb, kRise, kMinSeconds), nullptr);
    EXPECT_EQ(initWaveSlice(1024, 3, 44100, kStartDb, kEndDb, kRise, kMinSeconds), nullptr);
    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t blocks = pool.blockCount();
    pool.setSystemAllocator(failingAlloc);
    void* h = initWaveSlice(1024, 2, 44100, kStartDb, kEndDb, kRise, kMinSeconds);
    pool.setSystemAllocator(nullptr);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(pool.blockCount(), blocks);
}

TEST(WaveSlice, WrongHandlesAreRefusedAndNoAudioComesOut) {
    void* iir = initIirFilter(256, 1, 44100, 4, 1000.0f, 0);
    ASSERT_NE(iir, nullptr);
    std::vector<int16_t> block(256, 1000);
    EXPECT_EQ(doWaveSlice(iir, block.data(), 512), 0u);
    EXPECT_EQ(getWaveSlice(iir, 0), nullptr);
    EXPECT_EQ(termWaveSlice(iir), 0u);
    EXPECT_EQ(termIirFilter(iir), 1u);
    EXPECT_EQ(doWaveSlice(nullptr, block.data(), 512), 0u);
    EXPECT_EQ(getWaveSlice(nullptr, 0), nullptr);
    EXPECT_EQ(termWaveSlice(nullptr), 0u);

    void* h = initWaveSlice(256, 1, 44100, kStartDb, kEndDb, kRise, kMinSeconds);
    ASSERT_NE(h, nullptr);
    auto* p = static_cast<dsp::DspProcessor*>(h);
    std::vector<float> in(256, 0.5f), out(256, 7.0f);
    std::vector<int16_t> dst(256, 7);
    EXPECT_EQ(p->processChannel(0, in.data(), out.data(), 256), 0u);
    EXPECT_EQ(p->processChained(in.data(), nullptr, out.data(), nullptr, 256), 0u);
    EXPECT_EQ(p->processInterleaved(block.data(), dst.data(), 512), 0u);
    EXPECT_EQ(out[0], 7.0f);
    EXPECT_EQ(dst[0], 7);
    EXPECT_EQ(termWaveSlice(h), 1u);
}

TEST(WaveSlice, InAChainItYieldsNothing) {
    void* chain = dspCreate(256, 1, 44100);
    ASSERT_NE(chain, nullptr);
    void* h = initWaveSlice(256, 1, 44100, kStartDb, kEndDb, kRise, kMinSeconds);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(dspAdd(chain, h, 0), 1u);
    std::vector<int16_t> src = toneBursts(256, 44100, 5000.0, {{0, 256, 0.5}});
    std::vector<int16_t> dst(256, 7);
    EXPECT_EQ(dspSend(chain, src.data(), dst.data(), 512), 0u);
    EXPECT_EQ(dst[0], 7);
    dspDestroy(chain); // destroys the slicer too
}

TEST(WaveSlice, TimesAreTheExactProductRoundedOnce) {
    const uint32_t rates[] = {44100, 48000, 22050, 11025, 96000, 7};
    const uint32_t positions[] = {0u,          1u,          44099u,     123456789u,
                                  0x7FFFFFFFu, 0xFFFFFFFFu, 0xDEADBEEFu};
    for (uint32_t rate : rates) {
        dsp::WaveSlicer slicer;
        ASSERT_EQ(slicer.setup(64, static_cast<float>(rate), kStartDb, kEndDb, kRise, 0.1f),
                  rate > 66);
        slicer.secondsPerSample = 1.0f / static_cast<float>(rate);
        for (uint32_t pos : positions) {
            SCOPED_TRACE(pos);
            const float got = slicer.secondsAt(pos);
            // The exact product as hi + lo, and the error of got and its
            // neighbours against it.
            const double a = pos;
            const double b = slicer.secondsPerSample;
            const double hi = a * b;
            const double lo = std::fma(a, b, -hi);
            auto error = [&](float c) { return std::fabs((static_cast<double>(c) - hi) - lo); };
            EXPECT_LE(error(got), error(std::nextafter(got, 1e30f)));
            EXPECT_LE(error(got), error(std::nextafter(got, -1e30f)));
            if (pos < (1u << 29)) {
                EXPECT_EQ(got, static_cast<float>(hi));
            }
        }
    }
}

} // namespace
