// The three analyzers through their exports: spectra against a windowed
// direct DFT, the envelope against an independent model. Each test ends its
// analyzer with another kind's term… (any of them serves).
#include "core/sample_convert.h"
#include "dsp.h"
#include "support/fft_reference.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

using dsp::convert::sampleToFloat;

std::vector<int16_t> noise(size_t count, uint32_t seed, int32_t amplitude = 20000) {
    return dsptest::pcmNoise(count, seed, amplitude);
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

// A short block is zero-padded, not filled with the last block's samples.
TEST(DoFft, TwoSpectraAreLeftThenRightLongBlocksUseNFramesShortOnesArePadded) {
    const uint32_t n = 512;
    void* h = initFft(n, 2, 2, 90);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> src = noise(4 * n, 1);
    for (uint32_t i = 0; i < 2 * n; ++i) {
        src[2 * i + 1] = static_cast<int16_t>(src[2 * i + 1] / 8); // a quieter right channel
    }
    std::vector<float> out(n + 4, 5.0f);
    for (uint32_t frames : {2 * n, 150u}) {
        EXPECT_EQ(doFft(h, src.data(), out.data(), 4 * frames), n / 2);
        for (uint32_t c = 0; c < 2; ++c) {
            std::vector<float> expected = toFloat(src, c, 2, std::min(n, frames));
            expected.resize(n, 0.0f);
            expectSpectrum(out.data() + c * n / 2, expected, -90.0);
        }
        EXPECT_EQ(out[n], 5.0f); // nothing beyond the two spectra
    }
    EXPECT_EQ(termEnvAnalyze(h), 1u);
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
    termFftAnalyze(stereo);
    termEnvAnalyze(mono);
}

// The frame is the newest N samples of a history that starts as zeros; a
// short block still advances it by a whole hop, padded with zeros.
TEST(DoFftAnalyze, FramesAreTheNewestHistoryAndShortBlocksAdvanceAWholeHop) {
    const uint32_t hop = 100, n = 256, length = 400;
    void* h = initFftAnalyze(hop, 2, n, length);
    ASSERT_NE(h, nullptr);
    std::vector<int16_t> full = noise(2 * hop, 6), part = noise(2 * 10, 7);
    std::vector<float> out(n, 3.0f);
    EXPECT_EQ(doFftAnalyze(h, full.data(), out.data(), bytesOf(full)), 1u);
    for (int channel = 0; channel < 2; ++channel) {
        std::vector<float> frame(n - hop, 0.0f), samples = toFloat(full, channel, 2, hop);
        frame.insert(frame.end(), samples.begin(), samples.end());
        expectSpectrum(out.data() + channel * n / 2, frame, -120.0);
    }
    EXPECT_EQ(doFftAnalyze(h, part.data(), out.data(), bytesOf(part)), 1u);
    for (int channel = 0; channel < 2; ++channel) {
        std::vector<float> frame(n - 2 * hop, 0.0f), first = toFloat(full, channel, 2, hop),
                                                     second = toFloat(part, channel, 2, 10);
        frame.insert(frame.end(), first.begin(), first.end());
        frame.insert(frame.end(), second.begin(), second.end());
        frame.resize(n, 0.0f);
        expectSpectrum(out.data() + channel * n / 2, frame, -120.0);
    }
    EXPECT_EQ(termFft(h), 1u);
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

// Left a full-scale step up and back down, right quieter noise: each channel
// follows its model, and 0.2 s after each step the 33 Hz low-pass has settled.
TEST(DoEnvAnalyze, StereoIsLeftEnvelopesThenRightOnesEachFollowingTheModel) {
    const uint32_t frames = 480;
    void* h = initEnvAnalyze(frames, 2, 48000);
    ASSERT_NE(h, nullptr);
    EnvelopeModel left(48000), right(48000);
    std::vector<float> out(2 * frames + 1, -1.0f);
    for (uint32_t b = 0; b < 40; ++b) {
        std::vector<int16_t> src = noise(2 * frames, b, 8192);
        for (uint32_t i = 0; i < frames; ++i) {
            src[2 * i] = b < 20 ? 32767 : 0;
        }
        EXPECT_EQ(doEnvAnalyze(h, src.data(), out.data(), bytesOf(src)), 1u);
        for (uint32_t i = 0; i < frames; ++i) {
            ASSERT_EQ(out[i], left.next(src[2 * i])) << b << ", " << i;
            ASSERT_EQ(out[frames + i], right.next(src[2 * i + 1])) << b << ", " << i;
        }
        if (b % 20 == 19) {
            EXPECT_NEAR(out[frames - 1], b < 20 ? 81917.0f : 0.0f, b < 20 ? 1.0f : 50.0f);
        }
    }
    EXPECT_EQ(out[2 * frames], -1.0f);
    EXPECT_EQ(termFftAnalyze(h), 1u);
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
