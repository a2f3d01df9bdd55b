// The three analyzers through the exported interface: output layouts, zero
// padding, mix-down, the sliding history, the envelope against an
// independent model of the rectifier and biquad, and the handle checks.
#include "analysis/analyzer_processor.h"
#include "analysis/envelope_follower.h"
#include "core/fastmem_pool.h"
#include "core/processor.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "support/fft_reference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

using dsp::convert::sampleToFloat;

std::vector<int16_t> noise(size_t count, uint32_t seed, int amplitude = 20000) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(-amplitude, amplitude);
    std::vector<int16_t> v(count);
    for (int16_t& s : v) {
        s = static_cast<int16_t>(dist(rng));
    }
    return v;
}

uint32_t bytesOf(const std::vector<int16_t>& v) {
    return static_cast<uint32_t>(v.size() * 2);
}

// The expected dB spectrum of N samples (already float), windowed as the
// engines window, from a direct DFT in double. Bins whose magnitude is tiny
// are left out of comparisons by the caller.
std::vector<dsptest::DftBin> referenceSpectrum(const std::vector<float>& samples, uint32_t n) {
    std::vector<double> windowed(n);
    for (uint32_t i = 0; i < n; ++i) {
        float w = static_cast<float>(dsptest::referenceWindow(i, n));
        windowed[i] = static_cast<double>(w * samples[i]);
    }
    dsptest::DirectDft dft(n);
    std::vector<dsptest::DftBin> bins(n / 2);
    double dc = 0.0;
    double nyquist = 0.0;
    for (uint32_t j = 0; j < n; ++j) {
        dc += windowed[j];
        nyquist += (j % 2 == 0) ? windowed[j] : -windowed[j];
    }
    bins[0] = {dc, nyquist}; // bin 0 combines the DC and Nyquist terms
    for (uint32_t k = 1; k < n / 2; ++k) {
        bins[k] = dft.bin(windowed, k);
    }
    return bins;
}

void expectSpectrum(const float* out, const std::vector<dsptest::DftBin>& bins, double floorDb) {
    for (size_t k = 0; k < bins.size(); ++k) {
        double magnitude = std::hypot(bins[k].re, bins[k].im);
        if (magnitude > 1e-2) {
            ASSERT_NEAR(out[k], dsptest::referenceDb(bins[k].re, bins[k].im, floorDb), 2e-3)
                << "bin " << k;
        } else {
            ASSERT_LE(out[k], std::max(floorDb, -30.0)) << "bin " << k;
        }
        ASSERT_GE(out[k], floorDb) << "bin " << k;
    }
}

std::vector<float> toFloat(const std::vector<int16_t>& v, size_t start, size_t stride,
                           size_t count) {
    std::vector<float> f(count);
    for (size_t i = 0; i < count; ++i) {
        f[i] = sampleToFloat(v[start + i * stride]);
    }
    return f;
}

// A processor of another family, for the tag checks.
class OtherProcessor : public dsp::DspProcessor {
public:
    OtherProcessor() { tag = dsp::kTagChorus; }
    uint32_t processChannel(uint32_t, const float*, float*, uint32_t) override { return 0; }
    uint32_t processChained(const float*, const float*, float*, float*, uint32_t) override {
        return 0;
    }
    uint32_t processInterleaved(const int16_t*, int16_t*, uint32_t) override { return 0; }
};

TEST(Analyzer, InitRefusesArgumentsOutsideTheLimits) {
    EXPECT_EQ(initFft(256, 2, 0, 100), nullptr);
    EXPECT_EQ(initFft(256, 2, 3, 100), nullptr);
    EXPECT_EQ(initFft(256, 1, 2, 100), nullptr); // two spectra need stereo
    EXPECT_EQ(initFft(255, 1, 1, 100), nullptr);
    EXPECT_EQ(initFft(2, 1, 1, 100), nullptr);
    EXPECT_EQ(initFft(65536, 1, 1, 100), nullptr);
    EXPECT_EQ(initFft(256, 3, 1, 100), nullptr);
    EXPECT_EQ(initFftAnalyze(64, 1, 384, 1024), nullptr);
    EXPECT_EQ(initFftAnalyze(64, 1, 65536, 70000), nullptr);
    EXPECT_EQ(initFftAnalyze(64, 1, 512, 511), nullptr);  // history shorter than the size
    EXPECT_EQ(initFftAnalyze(600, 1, 512, 512), nullptr); // history shorter than the hop
    EXPECT_EQ(initFftAnalyze(64, 0, 512, 512), nullptr);
    EXPECT_EQ(initEnvAnalyze(256, 1, 0), nullptr);
    EXPECT_EQ(initEnvAnalyze(256, 1, 66), nullptr);

    for (void* h : {initFft(4, 1, 1, 100), initFft(32768, 2, 2, 100),
                    initFftAnalyze(600, 2, 512, 600), initEnvAnalyze(256, 2, 8000)}) {
        ASSERT_NE(h, nullptr);
        auto* p = static_cast<dsp::AnalyzerProcessor*>(h);
        EXPECT_EQ(p->tag, 1u);
        EXPECT_EQ(p->ready, 1);
        EXPECT_EQ(termFft(h), 1u);
    }
}

static void* failingAlloc(size_t) {
    return nullptr;
}

TEST(Analyzer, InitReturnsZeroWhenTheWorkBuffersCannotBeAllocated) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    uint32_t blocks = pool.blockCount();
    pool.setSystemAllocator(failingAlloc);
    void* a = initFft(256, 1, 1, 100);
    void* b = initFftAnalyze(64, 2, 256, 512);
    void* c = initEnvAnalyze(64, 2, 44100);
    pool.setSystemAllocator(nullptr);
    EXPECT_EQ(a, nullptr);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(pool.blockCount(), blocks);
}

TEST(Analyzer, WrongHandlesAndKindsAreRefusedWithoutTouchingAnything) {
    OtherProcessor other;
    std::vector<int16_t> src(512, 1000);
    std::vector<float> out(512, 7.0f);
    for (void* h : {static_cast<void*>(nullptr), static_cast<void*>(&other)}) {
        EXPECT_EQ(doFft(h, src.data(), out.data(), 512), 0u);
        EXPECT_EQ(doFftAnalyze(h, src.data(), out.data(), 512), 0u);
        EXPECT_EQ(doEnvAnalyze(h, src.data(), out.data(), 512), 0u);
        EXPECT_EQ(termFft(h), 0u);
        EXPECT_EQ(termFftAnalyze(h), 0u);
        EXPECT_EQ(termEnvAnalyze(h), 0u);
    }
    EXPECT_EQ(other.tag, dsp::kTagChorus);

    void* fft = initFft(256, 1, 1, 100);
    void* sliding = initFftAnalyze(64, 1, 256, 256);
    void* env = initEnvAnalyze(256, 1, 44100);
    ASSERT_NE(fft, nullptr);
    ASSERT_NE(sliding, nullptr);
    ASSERT_NE(env, nullptr);
    EXPECT_EQ(doFftAnalyze(fft, src.data(), out.data(), 128), 0u);
    EXPECT_EQ(doEnvAnalyze(fft, src.data(), out.data(), 128), 0u);
    EXPECT_EQ(doFft(sliding, src.data(), out.data(), 128), 0u);
    EXPECT_EQ(doEnvAnalyze(sliding, src.data(), out.data(), 128), 0u);
    EXPECT_EQ(doFft(env, src.data(), out.data(), 128), 0u);
    EXPECT_EQ(doFftAnalyze(env, src.data(), out.data(), 128), 0u);
    for (float v : out) {
        ASSERT_EQ(v, 7.0f);
    }
    // The refused calls left the sliding history alone.
    auto* s = static_cast<dsp::AnalyzerProcessor*>(sliding);
    for (uint32_t i = 0; i < 256; ++i) {
        ASSERT_EQ(s->slidingEngines[0].history[i], 0.0f);
    }
    // Any of the three names destroys any analyzer.
    EXPECT_EQ(termEnvAnalyze(fft), 1u);
    EXPECT_EQ(termFft(sliding), 1u);
    EXPECT_EQ(termFftAnalyze(env), 1u);
}

TEST(Analyzer, StubsDoNothingAndReturnZero) {
    void* h = initFft(64, 2, 2, 100);
    ASSERT_NE(h, nullptr);
    auto* p = static_cast<dsp::AnalyzerProcessor*>(h);
    float buffer[64] = {};
    int16_t samples[128] = {};
    EXPECT_EQ(p->processChannel(0, buffer, buffer, 64), 0u);
    EXPECT_EQ(p->processChained(buffer, buffer, buffer, buffer, 64), 0u);
    EXPECT_EQ(p->processInterleaved(samples, samples, 256), 0u);
    EXPECT_EQ(p->getDstSize(256), 256u);
    EXPECT_EQ(termFft(h), 1u);
}

TEST(DoFft, TwoSpectraAreLeftThenRight) {
    const uint32_t n = 512;
    void* h = initFft(n, 2, 2, 90);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src = noise(2 * n, 1);
    for (uint32_t i = 0; i < n; ++i) {
        src[2 * i + 1] = static_cast<int16_t>(src[2 * i + 1] / 8); // a quieter right channel
    }
    std::vector<float> out(n + 4, 5.0f);
    EXPECT_EQ(doFft(h, src.data(), out.data(), bytesOf(src)), n / 2);
    expectSpectrum(out.data(), referenceSpectrum(toFloat(src, 0, 2, n), n), -90.0);
    expectSpectrum(out.data() + n / 2, referenceSpectrum(toFloat(src, 1, 2, n), n), -90.0);
    EXPECT_EQ(out[n], 5.0f); // nothing beyond the two spectra
    EXPECT_EQ(termFft(h), 1u);
}

TEST(DoFft, OneSpectrumOfStereoIsTheMixDown) {
    const uint32_t n = 256;
    void* stereo = initFft(n, 2, 1, 100);
    void* mono = initFft(n, 1, 1, 100);
    ASSERT_NE(stereo, nullptr);
    ASSERT_NE(mono, nullptr);
    std::vector<int16_t> src = noise(2 * n, 2, 32767);
    std::vector<int16_t> mixed(n);
    for (uint32_t i = 0; i < n; ++i) {
        mixed[i] = static_cast<int16_t>((src[2 * i] + src[2 * i + 1]) >> 1);
    }
    std::vector<float> a(n / 2);
    std::vector<float> b(n / 2);
    EXPECT_EQ(doFft(stereo, src.data(), a.data(), bytesOf(src)), n / 2);
    EXPECT_EQ(doFft(mono, mixed.data(), b.data(), bytesOf(mixed)), n / 2);
    EXPECT_EQ(a, b);
    // Opposite channels cancel: every bin at the floor.
    for (uint32_t i = 0; i < n; ++i) {
        src[2 * i + 1] = static_cast<int16_t>(-src[2 * i]);
    }
    doFft(stereo, src.data(), a.data(), bytesOf(src));
    for (float v : a) {
        ASSERT_EQ(v, -100.0f);
    }
    termFft(stereo);
    termFft(mono);
}

TEST(DoFft, ShortBlocksAreZeroPadded) {
    const uint32_t n = 1024;
    void* h = initFft(n, 1, 1, 120);
    void* fresh = initFft(n, 1, 1, 120);
    ASSERT_NE(h, nullptr);
    ASSERT_NE(fresh, nullptr);
    std::vector<float> out(n / 2);
    std::vector<float> expected(n / 2);
    // A full block first, so that stale samples would show.
    std::vector<int16_t> full = noise(n, 3);
    doFft(h, full.data(), out.data(), bytesOf(full));
    std::vector<int16_t> part = noise(300, 4);
    EXPECT_EQ(doFft(h, part.data(), out.data(), bytesOf(part)), n / 2);
    std::vector<int16_t> padded(part);
    padded.resize(n, 0);
    doFft(fresh, padded.data(), expected.data(), bytesOf(padded));
    EXPECT_EQ(out, expected);
    std::vector<float> partFloat = toFloat(padded, 0, 1, n);
    expectSpectrum(out.data(), referenceSpectrum(partFloat, n), -120.0);
    termFft(h);
    termFft(fresh);
}

TEST(DoFft, BlocksLongerThanTheTransformUseItsFirstNFrames) {
    const uint32_t n = 64;
    void* h = initFft(n, 1, 1, 120);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src = noise(4 * n, 5);
    std::vector<float> out(n / 2);
    EXPECT_EQ(doFft(h, src.data(), out.data(), bytesOf(src)), n / 2);
    expectSpectrum(out.data(), referenceSpectrum(toFloat(src, 0, 1, n), n), -120.0);
    termFft(h);
}

TEST(DoFftAnalyze, FirstFrameHoldsZerosThenTheHop) {
    const uint32_t hop = 100;
    const uint32_t n = 256;
    const uint32_t length = 400;
    void* h = initFftAnalyze(hop, 2, n, length);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src = noise(2 * hop, 6);
    std::vector<float> out(n, 3.0f);
    EXPECT_EQ(doFftAnalyze(h, src.data(), out.data(), bytesOf(src)), 1u);
    // The newest N of (length - hop zeros, hop samples).
    for (int channel = 0; channel < 2; ++channel) {
        std::vector<float> frame(n, 0.0f);
        std::vector<float> samples = toFloat(src, channel, 2, hop);
        for (uint32_t i = 0; i < hop; ++i) {
            frame[n - hop + i] = samples[i];
        }
        expectSpectrum(out.data() + channel * n / 2, referenceSpectrum(frame, n), -120.0);
    }
    termFftAnalyze(h);
}

TEST(DoFftAnalyze, SilenceAfterInitReadsMinus120) {
    void* h = initFftAnalyze(128, 1, 512, 1024);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> silence(128, 0);
    std::vector<float> out(256, 1.0f);
    EXPECT_EQ(doFftAnalyze(h, silence.data(), out.data(), bytesOf(silence)), 1u);
    for (float v : out) {
        ASSERT_EQ(v, -120.0f);
    }
    termFftAnalyze(h);
}

TEST(DoFftAnalyze, ShortBlocksAdvanceTheHistoryByAWholeHopOfZeros) {
    const uint32_t hop = 64;
    void* h = initFftAnalyze(hop, 1, 128, 256);
    ASSERT_NE(h, nullptr);
    auto* p = static_cast<dsp::AnalyzerProcessor*>(h);
    std::vector<int16_t> full = noise(hop, 7);
    std::vector<int16_t> part = noise(10, 8);
    std::vector<float> out(64);
    doFftAnalyze(h, full.data(), out.data(), bytesOf(full));
    doFftAnalyze(h, part.data(), out.data(), bytesOf(part));
    const float* history = p->slidingEngines[0].history;
    for (uint32_t i = 0; i < hop; ++i) {
        ASSERT_EQ(history[256 - 2 * hop + i], sampleToFloat(full[i])) << i;
        float expected = i < 10 ? sampleToFloat(part[i]) : 0.0f;
        ASSERT_EQ(history[256 - hop + i], expected) << i;
    }
    termFftAnalyze(h);
}

TEST(DoFftAnalyze, ASteadySineSettlesOnceTheHistoryIsFull) {
    const uint32_t hop = 64;
    const uint32_t length = 1024;
    void* h = initFftAnalyze(hop, 1, 512, length);
    ASSERT_NE(h, nullptr);
    // Period 32 samples: every hop carries the same samples.
    std::vector<int16_t> block(hop);
    for (uint32_t i = 0; i < hop; ++i) {
        block[i] = static_cast<int16_t>(16000.0 * std::sin(8.0 * std::atan(1.0) * i / 32.0));
    }
    std::vector<float> previous(256);
    std::vector<float> out(256);
    for (uint32_t call = 1; call <= 24; ++call) {
        doFftAnalyze(h, block.data(), out.data(), bytesOf(block));
        if (call * hop > 512 && call > 1) {
            // The frame (newest 512) is all signal: nothing changes any more.
            ASSERT_EQ(out, previous) << call;
        } else if (call > 1) {
            EXPECT_NE(out, previous) << call;
        }
        previous.swap(out);
    }
    out.swap(previous);
    // Bin 16 holds the sine: amplitude A reads 20 log10(A N/4).
    EXPECT_NEAR(out[16], 20.0 * std::log10(16000.0 / 32767.0 * 512 / 4), 0.05);
    termFftAnalyze(h);
}

// Independent model of one envelope channel: |x| * 2.5f, then the
// second-order Butterworth low-pass at 33 Hz (bilinear, prewarped) in direct
// form II in double, stored as float, then trunc(y * 32767).
class EnvelopeModel {
public:
    explicit EnvelopeModel(uint32_t rate) {
        const double pi = 4.0 * std::atan(1.0);
        double t = std::tan(pi / static_cast<double>(static_cast<float>(rate)) *
                            static_cast<double>(33.0f));
        double m = 2.0 * t * std::cos(pi / 4.0);
        double d = 1.0 / (1.0 + m + t * t);
        a1_ = -2.0 * (t * t - 1.0) * d;
        a2_ = -(1.0 - m + t * t) * d;
        b0_ = t * t * d;
        b1_ = 2.0 * t * t * d;
        b2_ = t * t * d;
    }
    float filter(int16_t sample) {
        float x = sampleToFloat(sample);
        float rectified = (x < 0.0f ? -x : x) * 2.5f;
        double w = rectified + (a2_ * s2_ + a1_ * s1_);
        double y = (b2_ * s2_ + b1_ * s1_) + b0_ * w;
        s2_ = s1_;
        s1_ = w;
        return static_cast<float>(y);
    }
    float next(int16_t sample) {
        return static_cast<float>(
            static_cast<int32_t>(static_cast<double>(filter(sample)) * 32767.0));
    }

private:
    double a1_, a2_, b0_, b1_, b2_;
    double s1_ = 0.0;
    double s2_ = 0.0;
};

TEST(DoEnvAnalyze, FullScaleRisesTowardsTwoAndAHalfTimesFullScale) {
    const uint32_t frames = 441;
    void* h = initEnvAnalyze(frames, 1, 44100);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> full(frames, 32767);
    std::vector<float> out(frames);
    EnvelopeModel model(44100);
    float last = 0.0f;
    for (int block = 0; block < 20; ++block) {
        EXPECT_EQ(doEnvAnalyze(h, full.data(), out.data(), bytesOf(full)), 1u);
        for (uint32_t i = 0; i < frames; ++i) {
            ASSERT_EQ(out[i], model.next(32767)) << block << ", " << i;
            ASSERT_EQ(out[i], std::trunc(out[i]));
        }
        last = out[frames - 1];
    }
    // 0.2 s after the step the 33 Hz low-pass has settled at 2.5 x 32767.
    EXPECT_NEAR(last, 81917.0f, 1.0f);
    // Silence decays towards 0.
    std::vector<int16_t> silence(frames, 0);
    for (int block = 0; block < 20; ++block) {
        doEnvAnalyze(h, silence.data(), out.data(), bytesOf(silence));
        for (uint32_t i = 0; i < frames; ++i) {
            ASSERT_EQ(out[i], model.next(0));
        }
    }
    EXPECT_LT(std::fabs(out[frames - 1]), 50.0f);
    termEnvAnalyze(h);
}

TEST(DoEnvAnalyze, StepResponseStartsSlowlyAndOvershootsLittle) {
    void* h = initEnvAnalyze(4410, 1, 44100);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> full(4410, 32767);
    std::vector<float> out(4410);
    doEnvAnalyze(h, full.data(), out.data(), bytesOf(full));
    // A second-order low-pass starts with zero slope and reaches about half
    // the target after roughly 0.3/fc.
    EXPECT_LT(out[0], 10.0f);
    EXPECT_LT(out[220], 81917.0f * 0.5f); // 5 ms
    EXPECT_GT(out[882], 81917.0f * 0.5f); // 20 ms
    float peak = 0.0f;
    for (float v : out) {
        peak = std::max(peak, v);
    }
    // The Butterworth step overshoots by about 4.3 %.
    EXPECT_NEAR(peak / 81917.5f, 1.043, 0.01);
    termEnvAnalyze(h);
}

TEST(DoEnvAnalyze, StereoIsLeftEnvelopesThenRightOnes) {
    const uint32_t frames = 300;
    void* h = initEnvAnalyze(frames, 2, 48000);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src = noise(2 * frames, 9, 32767);
    for (uint32_t i = 0; i < frames; ++i) {
        src[2 * i + 1] = static_cast<int16_t>(src[2 * i + 1] / 4);
    }
    std::vector<float> out(2 * frames + 1, -1.0f);
    EnvelopeModel left(48000);
    EnvelopeModel right(48000);
    for (int block = 0; block < 3; ++block) {
        EXPECT_EQ(doEnvAnalyze(h, src.data(), out.data(), bytesOf(src)), 1u);
        for (uint32_t i = 0; i < frames; ++i) {
            ASSERT_EQ(out[i], left.next(src[2 * i]));
            ASSERT_EQ(out[frames + i], right.next(src[2 * i + 1]));
        }
    }
    EXPECT_EQ(out[2 * frames], -1.0f);
    termEnvAnalyze(h);
}

TEST(DoEnvAnalyze, NullOutputStillAdvancesTheFilters) {
    const uint32_t frames = 256;
    void* withOut = initEnvAnalyze(frames, 2, 44100);
    void* without = initEnvAnalyze(frames, 2, 44100);
    ASSERT_NE(withOut, nullptr);
    ASSERT_NE(without, nullptr);
    std::vector<int16_t> first = noise(2 * frames, 10, 32767);
    std::vector<int16_t> second = noise(2 * frames, 11, 32767);
    std::vector<float> a(2 * frames);
    std::vector<float> b(2 * frames);
    EXPECT_EQ(doEnvAnalyze(withOut, first.data(), a.data(), bytesOf(first)), 1u);
    EXPECT_EQ(doEnvAnalyze(without, first.data(), nullptr, bytesOf(first)), 1u);
    doEnvAnalyze(withOut, second.data(), a.data(), bytesOf(second));
    doEnvAnalyze(without, second.data(), b.data(), bytesOf(second));
    EXPECT_EQ(a, b);
    // And the continuation is not what a fresh filter would give.
    void* fresh = initEnvAnalyze(frames, 2, 44100);
    std::vector<float> c(2 * frames);
    doEnvAnalyze(fresh, second.data(), c.data(), bytesOf(second));
    EXPECT_NE(b, c);
    termEnvAnalyze(withOut);
    termEnvAnalyze(without);
    termEnvAnalyze(fresh);
}

TEST(DoEnvAnalyze, BlockSizeDoesNotChangeTheEnvelope) {
    const uint32_t total = 1000;
    std::vector<int16_t> src = noise(total, 12, 32767);
    void* big = initEnvAnalyze(total, 1, 22050);
    void* small = initEnvAnalyze(128, 1, 22050);
    ASSERT_NE(big, nullptr);
    ASSERT_NE(small, nullptr);
    std::vector<float> a(total);
    std::vector<float> b(total);
    doEnvAnalyze(big, src.data(), a.data(), bytesOf(src));
    // Pieces of 100 frames, and one call far longer than the work buffers.
    for (uint32_t start = 0; start < 500; start += 100) {
        doEnvAnalyze(small, src.data() + start, b.data() + start, 200);
    }
    doEnvAnalyze(small, src.data() + 500, b.data() + 500, 1000);
    EXPECT_EQ(a, b);
    termEnvAnalyze(big);
    termEnvAnalyze(small);
}

TEST(EnvelopeFollower, ScalesTheOutputOnlyWhenAsked) {
    dsp::EnvelopeFollower plain;
    dsp::EnvelopeFollower scaled;
    float in[64] = {};
    float out[64] = {};
    EXPECT_EQ(plain.follow(in, out, 64), 0u); // not set up
    ASSERT_TRUE(plain.setup(64, 8000.0f, 2, 100.0f, 1.5f, 0, 4.0f));
    ASSERT_TRUE(scaled.setup(64, 8000.0f, 2, 100.0f, 1.5f, 1, 4.0f));
    for (int i = 0; i < 64; ++i) {
        in[i] = (i % 3 == 0) ? -0.5f : 0.25f;
    }
    float expected[64];
    EXPECT_EQ(plain.follow(in, expected, 64), 1u);
    EXPECT_EQ(scaled.follow(in, out, 64), 1u);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(out[i], expected[i] * 4.0f);
    }
}

} // namespace
