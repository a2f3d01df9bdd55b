#include "harmonic_generator.h"

#include "core/numeric.h"
#include "rate/cutoff_detector.h"
#include "rate/harmonic_mix.h"

#include <utility>

namespace dsp {

namespace {
constexpr float kAnalysisRangeDb = 120.0f;
} // namespace

uint32_t HarmonicGenerator::analysisHistoryFor(uint32_t blockFrames) {
    const uint32_t length = truncToUint32(blockFrames * 2.3333);
    return length < kFftSize ? kFftSize : length;
}

uint32_t HarmonicGenerator::setup(uint32_t blockFrames, uint32_t sampleRate, float newHarmonics,
                                  float mixPercent, uint32_t cutoff, uint32_t mode, uint32_t taps) {
    if (!takeBandBuffers(blockFrames)) {
        ready_ = false;
        return 0;
    }
    mixGain_ = static_cast<float>(mixPercent * 0.01);
    activeMode_ = mode;
    rate_ = sampleRate;
    frames_ = blockFrames;
    ready_ =
        setUpFilters(taps, static_cast<float>(sampleRate), static_cast<float>(cutoff)) &&
        setUpDryDelay(mode, taps) && setUpCurve(newHarmonics) &&
        analyzer_.setup(blockFrames, analysisHistoryFor(blockFrames), kFftSize, kAnalysisRangeDb) &&
        takeSpectrumBuffer();
    return ready_ ? 1 : 0;
}

// The band buffers are replaced by exactly `frames` floats whenever the block
// grows past the last one (the pool's accounting shows their size).
bool HarmonicGenerator::takeBandBuffers(uint32_t blockFrames) {
    if (ready_ && blockFrames <= frames_) {
        return true;
    }
    PoolBuffer band = PoolBuffer::allocate(blockFrames);
    PoolBuffer shaped = PoolBuffer::allocate(blockFrames);
    if (!band || !shaped) {
        return false;
    }
    band_ = std::move(band);
    shaped_ = std::move(shaped);
    return true;
}

// Taken once, at the first setup that gets this far.
bool HarmonicGenerator::takeSpectrumBuffer() {
    if (!spectrumDb_) {
        spectrumDb_ = PoolBuffer::allocate(2 * kSpectrumBins);
    }
    return static_cast<bool>(spectrumDb_);
}

bool HarmonicGenerator::setUpFilters(uint32_t taps, float rate, float hpCutoffHz) {
    if (!bandFilter_.setWindow(kAttenuationDb, static_cast<int32_t>(taps), KaiserFir::kHighPass) ||
        !limitFilter_.setWindow(kAttenuationDb, kLimitTaps, KaiserFir::kHighPass)) {
        return false;
    }
    bandFilter_.design(rate, hpCutoffHz);
    limitFilter_.design(rate, hpCutoffHz);
    return true;
}

// The dry path waits for the filters: 8 samples for the 16-tap band filter,
// 16 when the 32-tap limit filter follows it.
bool HarmonicGenerator::setUpDryDelay(uint32_t mode, uint32_t taps) {
    if (mode == 0) {
        return dryDelay_.setup(taps / 2);
    }
    if (mode == 1) {
        return dryDelay_.setup(taps);
    }
    return true;
}

// An unchanged bend keeps the curve and where its search stands.
bool HarmonicGenerator::setUpCurve(float newHarmonics) {
    if (ready_ && curve_.isBuilt() && newHarmonics == harmonics_) {
        return true;
    }
    return setHarmonics(newHarmonics);
}

bool HarmonicGenerator::setHarmonics(float newHarmonics) {
    harmonics_ = newHarmonics;
    return curve_.build(newHarmonics);
}

float HarmonicGenerator::analyzeCutoff(const float* block) {
    analyzer_.analyze(block);
    analyzer_.magnitudesDb(spectrumDb_.data());
    cutoffHz_ = detectCutoff(spectrumDb_.data(), kSpectrumBins, rate_);
    return cutoffHz_;
}

void HarmonicGenerator::synthesise(ArithmeticRule rule, const float* in, uint32_t n) {
    bandFilter_.filter(rule, in, band_.data(), n);
    curve_.shape(band_.data(), shaped_.data(), n);
    subtractFromShaped(rule, shaped_.data(), band_.data(), n);
}

void HarmonicGenerator::limitAndMix(ArithmeticRule rule, const float* in, float* out, uint32_t n) {
    if (activeMode_ == 1) {
        limitFilter_.design(static_cast<float>(rate_), cutoffHz_);
        limitFilter_.filter(rule, band_.data(), band_.data(), n);
    }
    for (uint32_t i = 0; i < n; ++i) {
        out[i] = dryDelay_.tick(in[i]);
    }
    addScaled(rule, out, band_.data(), mixGain_, n);
}

void HarmonicGenerator::process(ArithmeticRule rule, const float* in, float* out, float cutoff,
                                uint32_t n) {
    cutoffHz_ = cutoff;
    if (!ready_ || n == 0) {
        return;
    }
    // The band buffers hold `frames` samples; a longer block is cut short.
    if (n > frames_) {
        n = frames_;
    }
    synthesise(rule, in, n);
    limitAndMix(rule, in, out, n);
}

void HarmonicGenerator::processDetecting(ArithmeticRule rule, const float* in, float* out,
                                         uint32_t n) {
    if (!ready_ || n == 0) {
        return;
    }
    if (n > frames_) {
        n = frames_;
    }
    synthesise(rule, in, n);
    if (activeMode_ == 1) {
        analyzeCutoff(in);
    }
    limitAndMix(rule, in, out, n);
}

} // namespace dsp
