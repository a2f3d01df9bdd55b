// The wave slicer through its exports: slice positions and the getWaveSlice
// list against a model, mix-down, block-size independence, lost slices.
#include "analysis/wave_slicer.h"
#include "core/processor.h"
#include "dsp.h"
#include "support/allocation_failure.h"
#include "support/wave_slice_model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using dsptest::FailingHeap;
using dsptest::FailMode;
using dsptest::SlicePositions;
using dsptest::WaveSliceModel;

constexpr double kPi = 3.14159265358979323846;

// Start -20 dB, end -30 dB, rise 50 %, minimum length 0.1 s.
struct Gates {
    float startDb = -20.0f;
    float endDb = -30.0f;
    float rise = 50.0f;
    float minSeconds = 0.1f;
};

struct Burst {
    uint32_t from;
    uint32_t to;
    double amplitude; // fraction of full scale
};

// A mono tone of `hz` switched on by the bursts, silence elsewhere.
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

void* initSlicer(uint32_t frames, uint32_t channels, uint32_t rate, const Gates& g = {}) {
    return initWaveSlice(frames, channels, rate, g.startDb, g.endDb, g.rise, g.minSeconds);
}

// Feeds interleaved samples in blocks of the given sizes (cycled).
void feed(void* h, const int16_t* src, size_t frames, uint32_t channels,
          const std::vector<uint32_t>& blockFrames) {
    size_t done = 0;
    for (size_t k = 0; done < frames; ++k) {
        size_t n = std::min<size_t>(blockFrames[k % blockFrames.size()], frames - done);
        ASSERT_EQ(doWaveSlice(h, src + done * channels, static_cast<uint32_t>(n * 2 * channels)),
                  1u);
        done += n;
    }
}

// The slices read through getWaveSlice (checking the links, and that an index
// beyond the last returns the last) against `want`.
void expectSlices(void* h, const std::vector<SlicePositions>& want, const WaveSliceModel& model) {
    std::vector<SliceRecord> got;
    const SliceRecord* prev = nullptr;
    for (uint32_t i = 0;; ++i) {
        const SliceRecord* s = getWaveSlice(h, i);
        if (s == nullptr || s == prev) { // beyond the last: the last again
            break;
        }
        EXPECT_EQ(s->prev, prev);
        got.push_back(*s);
        prev = s;
    }
    EXPECT_EQ(getWaveSlice(h, UINT32_MAX), prev);
    if (prev != nullptr) {
        EXPECT_EQ(prev->next, nullptr);
    }
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].startSeconds, model.seconds(want[i].start)) << "slice " << i;
        EXPECT_EQ(got[i].endSeconds, model.seconds(want[i].end)) << "slice " << i;
    }
}

// Runs interleaved input through a slicer and through the model, reading the
// slices after `closeAt` frames and at the end; returns the model's slices.
std::vector<SlicePositions> checkAgainstModel(const std::vector<int16_t>& src, uint32_t channels,
                                              uint32_t rate, const std::vector<uint32_t>& blocks,
                                              uint32_t frames = 1024, const Gates& g = {},
                                              uint32_t closeAt = 0) {
    const uint32_t total = static_cast<uint32_t>(src.size() / channels);
    WaveSliceModel model(rate, g.startDb, g.endDb, g.rise, g.minSeconds);
    std::vector<SlicePositions> want = model.slices(
        model.envelope(dsptest::slicerInput(src, channels)),
        closeAt != 0 ? std::vector<uint32_t>{closeAt, total} : std::vector<uint32_t>{total});
    void* h = initSlicer(frames, channels, rate, g);
    EXPECT_NE(h, nullptr);
    if (h != nullptr) {
        feed(h, src.data(), closeAt, channels, blocks);
        if (closeAt != 0) {
            EXPECT_NE(getWaveSlice(h, 0), nullptr);
        }
        feed(h, src.data() + closeAt * channels, total - closeAt, channels, blocks);
        expectSlices(h, want, model);
        EXPECT_EQ(termWaveSlice(h), 1u);
    }
    return want;
}

TEST(WaveSlice, SlicesMatchTheModel) {
    const uint32_t rate = 44100;
    // One burst: from the valley (the last silent sample) to the end gate.
    std::vector<int16_t> one = toneBursts(60000, rate, 5000.0, {{10000, 30000, 0.5}});
    std::vector<SlicePositions> s = checkAgainstModel(one, 1, rate, {1024});
    ASSERT_EQ(s.size(), 1u);
    EXPECT_EQ(s[0].start, 9999u);
    EXPECT_GT(s[0].end, 30000u);
    EXPECT_LT(s[0].end, 30000u + rate / 10);

    // Attacks closer than the minimum length give one slice, otherwise two.
    std::vector<int16_t> two =
        toneBursts(50000, rate, 5000.0, {{10000, 14000, 0.5}, {16000, 20000, 0.5}});
    EXPECT_EQ(checkAgainstModel(two, 1, rate, {1024}, 1024, {-20, -30, 50, 0.5f}).size(), 1u);
    EXPECT_EQ(checkAgainstModel(two, 1, rate, {1024}, 1024, {-20, -30, 50, 0.01f}).size(), 2u);

    // Loud, quiet but above the end gate, loud: split at the valley.
    s = checkAgainstModel(
        toneBursts(60000, rate, 5000.0,
                   {{10000, 20000, 0.5}, {20000, 25000, 0.04}, {25000, 35000, 0.5}}),
        1, rate, {1024});
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].end, s[1].start);
    EXPECT_GT(s[1].start, 24000u);
    EXPECT_LE(s[1].start, 25100u);

    // Reading the slices closes the open one there; the rest of that burst
    // opens nothing, the next burst opens the next slice.
    s = checkAgainstModel(
        toneBursts(90000, rate, 5000.0, {{10000, 30000, 0.5}, {60000, 70000, 0.5}}), 1, rate,
        {1000}, 1000, {}, 20000);
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].end, 20000u);
}

// End gate above the start gate: a slowly rising tone opens a slice early,
// which ends (still below the end gate) after the minimum length; the attack
// already taken may not reopen it although the envelope keeps rising.
TEST(WaveSlice, ASliceEndedDuringARiseIsNotReopenedByTheSameRise) {
    std::vector<int16_t> mono(40000, 0);
    for (uint32_t i = 5000; i < 35000; ++i) {
        const double ramp = 0.25 * (i - 5000) / 30000.0;
        mono[i] = static_cast<int16_t>(std::lround(ramp * 32767.0 * std::sin(0.7 * i)));
    }
    const Gates gates{-40, -6, 5, 0.05f};
    std::vector<SlicePositions> s = checkAgainstModel(mono, 1, 44100, {1024}, 1024, gates);
    ASSERT_EQ(s.size(), 1u);
    std::vector<float> env =
        WaveSliceModel(44100, gates.startDb, gates.endDb, gates.rise, gates.minSeconds)
            .envelope(dsptest::slicerInput(mono, 1));
    EXPECT_GT(env[s[0].end + 5000], env[s[0].end] + 0.05f);
}

TEST(WaveSlice, StereoIsAnalysedAsTheHalvedSumRoundedDown) {
    const uint32_t rate = 48000;
    std::vector<int16_t> left = toneBursts(40000, rate, 4000.0, {{5000, 15000, 0.7}});
    std::vector<int16_t> right = toneBursts(40000, rate, 7000.0, {{12000, 25000, 0.9}});
    std::vector<int16_t> stereo(80000), mixed(40000);
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> noise(-3, 3); // odd and negative odd sums
    for (size_t i = 0; i < left.size(); ++i) {
        stereo[2 * i] = static_cast<int16_t>(left[i] + noise(rng));
        stereo[2 * i + 1] = static_cast<int16_t>(right[i] + noise(rng));
        mixed[i] = static_cast<int16_t>(
            std::floor((static_cast<int32_t>(stereo[2 * i]) + stereo[2 * i + 1]) / 2.0));
    }
    std::vector<SlicePositions> s = checkAgainstModel(stereo, 2, rate, {2048}, 2048);
    EXPECT_GE(s.size(), 1u);
    EXPECT_EQ(checkAgainstModel(mixed, 1, rate, {2048}, 2048), s);
}

TEST(WaveSlice, ResultsDoNotDependOnTheBlockSize) {
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
    EXPECT_GE(checkAgainstModel(mono, 1, 44100, {1}, 512).size(), 3u);
    // Blocks larger than the configured frames are analysed in pieces.
    checkAgainstModel(mono, 1, 44100, {7, 300, 5000, 513, 120000}, 512);
}

TEST(WaveSlice, LowRatesLeaveOutTheFiltersAboveHalfTheRate) {
    // 32000 Hz: no 20000 Hz low-pass; 4000 Hz: no high-pass either.
    for (uint32_t rate : {32000u, 40001u, 8000u, 4000u}) {
        SCOPED_TRACE(rate);
        const double hz = rate > 8000 ? 5000.0 : rate == 8000 ? 3000.0 : rate / 4.0 - 100.0;
        std::vector<int16_t> mono = toneBursts(rate * 2, rate, hz, {{rate / 4, rate, 0.5}});
        EXPECT_EQ(checkAgainstModel(mono, 1, rate, {700}, 700).size(), 1u);
    }
}

// The first burst's slice cannot be stored (every heap allocation fails
// while it closes); the analysis goes on and finds the second.
TEST(WaveSlice, ASliceThatCannotBeStoredIsDropped) {
    std::vector<int16_t> mono =
        toneBursts(60000, 44100, 5000.0, {{5000, 15000, 0.5}, {30000, 40000, 0.5}});
    if (!FailingHeap::works()) {
        GTEST_SKIP() << dsptest::kNoFailingHeap;
    }
    void* h = initSlicer(1024, 1, 44100);
    ASSERT_NE(h, nullptr);
    FailingHeap::arm(1, FailMode::FromThenOn);
    feed(h, mono.data(), 25000, 1, {1024});
    FailingHeap::disarm();
    EXPECT_EQ(getWaveSlice(h, 0), nullptr);
    feed(h, mono.data() + 25000, 35000, 1, {1024});
    const SliceRecord* s = getWaveSlice(h, 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->next, nullptr);
    EXPECT_GT(s->startSeconds, 29000.0f / 44100);
    EXPECT_EQ(termWaveSlice(h), 1u);
}

// No audio comes out, directly or in a chain (which destroys it).
TEST(WaveSlice, NoAudioComesOut) {
    std::vector<int16_t> block(256, 1000), dst(256, 7);
    void* chain = dspCreate(256, 1, 44100);
    void* h = initSlicer(256, 1, 44100);
    ASSERT_TRUE(chain && h);
    EXPECT_EQ(static_cast<dsp::DspProcessor*>(h)->processInterleaved(block.data(), dst.data(), 512),
              0u);
    ASSERT_EQ(dspAdd(chain, h, 0), 1u);
    EXPECT_EQ(dspSend(chain, block.data(), dst.data(), 512), 0u);
    EXPECT_EQ(dst[0], 7);
    dspDestroy(chain);
}

TEST(WaveSlice, TimesAreTheExactProductRoundedOnce) {
    const uint32_t positions[] = {0u,          1u,          44099u,     123456789u,
                                  0x7FFFFFFFu, 0xFFFFFFFFu, 0xDEADBEEFu};
    for (uint32_t rate : {44100u, 11025u, 7u}) {
        const float secondsPerSample = 1.0f / static_cast<float>(rate);
        for (uint32_t pos : positions) {
            const float got = dsp::sliceSeconds(pos, secondsPerSample);
            // The exact product as hi + lo; got is nearer than its neighbours.
            const double hi = double(pos) * secondsPerSample;
            const double lo = std::fma(double(pos), double(secondsPerSample), -hi);
            auto error = [&](float c) { return std::fabs((static_cast<double>(c) - hi) - lo); };
            EXPECT_LE(error(got), error(std::nextafter(got, 1e30f))) << pos;
            EXPECT_LE(error(got), error(std::nextafter(got, -1e30f))) << pos;
            if (pos < (1u << 29)) {
                EXPECT_EQ(got, static_cast<float>(hi));
            }
        }
    }
}

} // namespace
