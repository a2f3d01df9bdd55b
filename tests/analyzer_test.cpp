// The three analyzers through the exported interface: spectra against a
// windowed direct DFT, zero padding, mix-down, the sliding history, the
// envelope against an independent model of the rectifier and biquad, and
// the handle checks.
#include "analysis/analyzer_processor.h"
#include "core/fastmem_pool.h"
#include "core/processor.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "support/fft_reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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

std::vector<float> toFloat(const std::vector<int16_t>& v, size_t start, size_t stride,
                           size_t count) {
    std::vector<float> f(count);
    for (size_t i = 0; i < count; ++i) {
        f[i] = sampleToFloat(v[start + i * stride]);
    }
    return f;
}

// out[k] against the dB of the windowed direct DFT of `samples` (bin 0 packs
// DC and Nyquist); bins of tiny magnitude only need to sit low.
void expectSpectrum(const float* out, const std::vector<float>& samples, double floorDb) {
    const uint32_t n = static_cast<uint32_t>(samples.size());
    std::vector<double> windowed(n);
    double dc = 0.0, nyquist = 0.0;
    for (uint32_t i = 0; i < n; ++i) {
        windowed[i] =
            static_cast<double>(static_cast<float>(dsptest::referenceWindow(i, n)) * samples[i]);
        dc += windowed[i];
        nyquist += (i % 2 == 0) ? windowed[i] : -windowed[i];
    }
    dsptest::DirectDft dft(n);
    for (uint32_t k = 0; k < n / 2; ++k) {
        dsptest::DftBin b = k == 0 ? dsptest::DftBin{dc, nyquist} : dft.bin(windowed, k);
        if (std::hypot(b.re, b.im) > 1e-2) {
            ASSERT_NEAR(out[k], dsptest::referenceDb(b.re, b.im, floorDb), 2e-3) << "bin " << k;
        } else {
            ASSERT_LE(out[k], std::max(floorDb, -30.0)) << "bin " << k;
        }
        ASSERT_GE(out[k], floorDb) << "bin " << k;
    }
}

void* failingAlloc(size_t) {
    return nullptr;
}

TEST(Analyzer, InitRefusesArgumentsOutsideTheLimitsAndFailedAllocations) {
    // Spectra 0 or 3, two of mono, sizes not a power of two or out of range,
    // 3 channels, histories shorter than the size or the hop, rates 0 and 66.
    for (void* h :
         {initFft(256, 2, 0, 100), initFft(256, 2, 3, 100), initFft(256, 1, 2, 100),
          initFft(255, 1, 1, 100), initFft(2, 1, 1, 100), initFft(65536, 1, 1, 100),
          initFft(256, 3, 1, 100), initFftAnalyze(64, 1, 384, 1024),
          initFftAnalyze(64, 1, 512, 511), initFftAnalyze(600, 1, 512, 512),
          initFftAnalyze(64, 0, 512, 512), initEnvAnalyze(256, 1, 0), initEnvAnalyze(256, 1, 66)}) {
        EXPECT_EQ(h, nullptr);
    }
    for (void* h : {initFft(4, 1, 1, 100), initFft(32768, 2, 2, 100),
                    initFftAnalyze(600, 2, 512, 600), initEnvAnalyze(256, 2, 8000)}) {
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(static_cast<dsp::DspProcessor*>(h)->tag, 1u);
        EXPECT_EQ(termFft(h), 1u);
    }
    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t blocks = pool.blockCount();
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

// Null, another family's handle and each analyzer with the other kinds'
// calls: refused, nothing written, no history touched.
TEST(Analyzer, WrongHandlesAndKindsAreRefusedWithoutTouchingAnything) {
    void* chorus = initChorus(256, 1, 44100, 3, 20.0f, 2.0f, 1.5f, 30.0f, 100.0f);
    void* fft = initFft(256, 1, 1, 100);
    void* sliding = initFftAnalyze(64, 1, 256, 256);
    void* env = initEnvAnalyze(256, 1, 44100);
    ASSERT_TRUE(chorus && fft && sliding && env);
    std::vector<int16_t> src(512, 1000);
    std::vector<float> out(512, 7.0f);
    using Call = uint32_t (*)(void*, const int16_t*, float*, uint32_t);
    const Call calls[] = {doFft, doFftAnalyze, doEnvAnalyze};
    void* const handles[] = {fft, sliding, env, nullptr, chorus};
    for (int h = 0; h < 5; ++h) {
        for (int c = 0; c < 3; ++c) {
            if (c != h) {
                EXPECT_EQ(calls[c](handles[h], src.data(), out.data(), 512), 0u) << h << c;
            }
        }
    }
    for (uint32_t (*term)(void*) : {termFft, termFftAnalyze, termEnvAnalyze}) {
        EXPECT_EQ(term(nullptr), 0u);
        EXPECT_EQ(term(chorus), 0u);
    }
    for (float v : out) {
        ASSERT_EQ(v, 7.0f);
    }
    auto* s = static_cast<dsp::AnalyzerProcessor*>(sliding);
    for (uint32_t i = 0; i < 256; ++i) {
        ASSERT_EQ(s->slidingEngines[0].history[i], 0.0f);
    }
    EXPECT_EQ(termChorus(chorus), 1u);
    // Any of the three names destroys any analyzer.
    EXPECT_EQ(termEnvAnalyze(fft), 1u);
    EXPECT_EQ(termFft(sliding), 1u);
    EXPECT_EQ(termFftAnalyze(env), 1u);
}

TEST(DoFft, TwoSpectraAreLeftThenRightAndLongBlocksUseTheirFirstNFrames) {
    const uint32_t n = 512;
    void* h = initFft(n, 2, 2, 90);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src = noise(4 * n, 1);
    for (uint32_t i = 0; i < 2 * n; ++i) {
        src[2 * i + 1] = static_cast<int16_t>(src[2 * i + 1] / 8); // a quieter right channel
    }
    std::vector<float> out(n + 4, 5.0f);
    EXPECT_EQ(doFft(h, src.data(), out.data(), bytesOf(src)), n / 2);
    expectSpectrum(out.data(), toFloat(src, 0, 2, n), -90.0);
    expectSpectrum(out.data() + n / 2, toFloat(src, 1, 2, n), -90.0);
    EXPECT_EQ(out[n], 5.0f); // nothing beyond the two spectra
    EXPECT_EQ(termFft(h), 1u);
}

TEST(DoFft, OneSpectrumOfStereoIsTheMixDown) {
    const uint32_t n = 256;
    void* stereo = initFft(n, 2, 1, 100);
    void* mono = initFft(n, 1, 1, 100);
    ASSERT_TRUE(stereo && mono);
    std::vector<int16_t> src = noise(2 * n, 2, 32767);
    std::vector<int16_t> mixed(n);
    for (uint32_t i = 0; i < n; ++i) {
        mixed[i] = static_cast<int16_t>((src[2 * i] + src[2 * i + 1]) >> 1);
    }
    std::vector<float> a(n / 2), b(n / 2);
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

TEST(DoFft, ShortBlocksAreZeroPaddedNotFilledWithStaleSamples) {
    const uint32_t n = 1024;
    void* h = initFft(n, 1, 1, 120);
    ASSERT_NE(h, nullptr);
    std::vector<float> out(n / 2);
    std::vector<int16_t> full = noise(n, 3);
    doFft(h, full.data(), out.data(), bytesOf(full));
    std::vector<int16_t> part = noise(300, 4);
    EXPECT_EQ(doFft(h, part.data(), out.data(), bytesOf(part)), n / 2);
    part.resize(n, 0);
    expectSpectrum(out.data(), toFloat(part, 0, 1, n), -120.0);
    termFft(h);
}

TEST(DoFftAnalyze, FirstFrameHoldsZerosThenTheHopAndSilenceReadsMinus120) {
    const uint32_t hop = 100, n = 256, length = 400;
    void* h = initFftAnalyze(hop, 2, n, length);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src = noise(2 * hop, 6);
    std::vector<float> out(n, 3.0f);
    EXPECT_EQ(doFftAnalyze(h, src.data(), out.data(), bytesOf(src)), 1u);
    for (int channel = 0; channel < 2; ++channel) {
        std::vector<float> frame(n, 0.0f);
        std::vector<float> samples = toFloat(src, channel, 2, hop);
        std::copy(samples.begin(), samples.end(), frame.begin() + (n - hop));
        expectSpectrum(out.data() + channel * n / 2, frame, -120.0);
    }
    termFftAnalyze(h);
    void* quiet = initFftAnalyze(128, 1, 512, 1024);
    std::vector<int16_t> silence(128, 0);
    ASSERT_EQ(doFftAnalyze(quiet, silence.data(), out.data(), bytesOf(silence)), 1u);
    for (float v : out) {
        ASSERT_EQ(v, -120.0f);
    }
    termFftAnalyze(quiet);
}

TEST(DoFftAnalyze, ShortBlocksAdvanceTheHistoryByAWholeHopOfZeros) {
    const uint32_t hop = 64;
    void* h = initFftAnalyze(hop, 1, 128, 256);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> full = noise(hop, 7), part = noise(10, 8);
    std::vector<float> out(64);
    doFftAnalyze(h, full.data(), out.data(), bytesOf(full));
    doFftAnalyze(h, part.data(), out.data(), bytesOf(part));
    const float* history = static_cast<dsp::AnalyzerProcessor*>(h)->slidingEngines[0].history;
    for (uint32_t i = 0; i < hop; ++i) {
        ASSERT_EQ(history[256 - 2 * hop + i], sampleToFloat(full[i])) << i;
        ASSERT_EQ(history[256 - hop + i], i < 10 ? sampleToFloat(part[i]) : 0.0f) << i;
    }
    termFftAnalyze(h);
}

// One envelope channel: |x| * 2.5f, the second-order Butterworth low-pass at
// 33 Hz (bilinear, prewarped) in direct form II in double, stored as float,
// then trunc(y * 32767).
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
    float next(int16_t sample) {
        float x = sampleToFloat(sample);
        float rectified = (x < 0.0f ? -x : x) * 2.5f;
        double w = rectified + (a2_ * s2_ + a1_ * s1_);
        double y = (b2_ * s2_ + b1_ * s1_) + b0_ * w;
        s2_ = s1_;
        s1_ = w;
        return static_cast<float>(
            static_cast<int32_t>(static_cast<double>(static_cast<float>(y)) * 32767.0));
    }

private:
    double a1_, a2_, b0_, b1_, b2_;
    double s1_ = 0.0, s2_ = 0.0;
};

TEST(DoEnvAnalyze, FullScaleStepAndDecayFollowTheModel) {
    const uint32_t frames = 441;
    void* h = initEnvAnalyze(frames, 1, 44100);
    ASSERT_NE(h, nullptr);
    EnvelopeModel model(44100);
    std::vector<float> out(frames);
    for (int16_t level : {int16_t(32767), int16_t(0)}) {
        std::vector<int16_t> block(frames, level);
        for (int b = 0; b < 20; ++b) {
            EXPECT_EQ(doEnvAnalyze(h, block.data(), out.data(), bytesOf(block)), 1u);
            for (uint32_t i = 0; i < frames; ++i) {
                ASSERT_EQ(out[i], model.next(level)) << level << ", " << b << ", " << i;
            }
        }
        // 0.2 s after the step the 33 Hz low-pass has settled.
        EXPECT_NEAR(out[frames - 1], level == 0 ? 0.0f : 81917.0f, level == 0 ? 50.0f : 1.0f);
    }
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
    EnvelopeModel left(48000), right(48000);
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

// Pieces of 100 frames (the first with no output, which still advances the
// filters), then one call far longer than the work buffers.
TEST(DoEnvAnalyze, BlockSizeAndANullOutputDoNotChangeTheEnvelope) {
    const uint32_t total = 1000;
    std::vector<int16_t> src = noise(total, 12, 32767);
    void* big = initEnvAnalyze(total, 1, 22050);
    void* small = initEnvAnalyze(128, 1, 22050);
    ASSERT_TRUE(big && small);
    std::vector<float> a(total), b(total);
    EXPECT_EQ(doEnvAnalyze(big, src.data(), a.data(), bytesOf(src)), 1u);
    EXPECT_EQ(doEnvAnalyze(small, src.data(), nullptr, 200), 1u);
    for (uint32_t start = 100; start < 500; start += 100) {
        doEnvAnalyze(small, src.data() + start, b.data() + start, 200);
    }
    doEnvAnalyze(small, src.data() + 500, b.data() + 500, 1000);
    EXPECT_TRUE(std::equal(a.begin() + 100, a.end(), b.begin() + 100));
    termEnvAnalyze(big);
    termEnvAnalyze(small);
}

} // namespace
