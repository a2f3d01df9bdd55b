#include "harmonic_generator.h"

#include "core/fastmem_pool.h"
#include "core/numeric.h"
#include "rate/cutoff_detector.h"
#include "rate/harmonic_mix.h"

namespace dsp {

namespace {

float* takeFloats(uint32_t count) {
    if (count > (UINT32_MAX - 15) / 4) {
        return nullptr;
    }
    return static_cast<float*>(fastmemPool().allocate(count * 4));
}

void giveBack(float*& buffer) {
    if (buffer != nullptr) {
        fastmemPool().release(buffer);
        buffer = nullptr;
    }
}

// The analyzer's history holds about 2.33 blocks; it must also hold one whole
// transform, which very small blocks would not give.
uint32_t analysisHistoryLength(uint32_t blockFrames) {
    const uint32_t length = truncToUint32(blockFrames * 2.3333);
    return length < HarmonicGenerator::kFftSize ? HarmonicGenerator::kFftSize : length;
}

} // namespace

HarmonicGenerator::~HarmonicGenerator() {
    releasePoolBuffers();
    giveBack(spectrumDb);
    ready = 0;
}

void HarmonicGenerator::releasePoolBuffers() {
    giveBack(band);
    giveBack(shaped);
}

uint32_t HarmonicGenerator::setup(uint32_t blockFrames, uint32_t sampleRate, float newHarmonics,
                                  float mixPercent, uint32_t cutoff, uint32_t mode, uint32_t taps) {
    if (!ready || blockFrames > frames || band == nullptr || shaped == nullptr) {
        releasePoolBuffers();
        band = takeFloats(blockFrames);
        shaped = takeFloats(blockFrames);
        if (band == nullptr || shaped == nullptr) {
            releasePoolBuffers();
            ready = 0;
            return 0;
        }
    }
    mixGain = static_cast<float>(mixPercent * 0.01);
    hpCutoffHz = static_cast<float>(cutoff);
    activeMode = mode;
    rate = sampleRate;
    frames = blockFrames;

    const float filterRate = static_cast<float>(sampleRate);
    if (!bandFilter.setWindow(kAttenuationDb, static_cast<int32_t>(taps), KaiserFir::kHighPass) ||
        !limitFilter.setWindow(kAttenuationDb, kLimitTaps, KaiserFir::kHighPass)) {
        ready = 0;
        return 0;
    }
    bandFilter.design(filterRate, hpCutoffHz);
    limitFilter.design(filterRate, hpCutoffHz);

    // The dry path waits for the filters: 8 samples for the 16-tap band
    // filter, 16 when the 32-tap limit filter follows it.
    bool delayReady = true;
    if (mode == 0) {
        delayReady = dryDelay.setup(taps / 2);
    } else if (mode == 1) {
        delayReady = dryDelay.setup(taps);
    }

    if (!ready || !curve.ready || newHarmonics != harmonics) {
        harmonics = newHarmonics;
        if (!curve.resetIdentity() || !setHarmonics(newHarmonics)) {
            ready = 0;
            return 0;
        }
    }

    if (!delayReady ||
        !analyzer.setup(blockFrames, analysisHistoryLength(blockFrames), kFftSize, 120.0f)) {
        ready = 0;
        return 0;
    }
    if (spectrumDb == nullptr) {
        spectrumDb = takeFloats(2 * kSpectrumBins);
        if (spectrumDb == nullptr) {
            ready = 0;
            return 0;
        }
    }
    ready = 1;
    return 1;
}

bool HarmonicGenerator::setHarmonics(float newHarmonics) {
    harmonics = newHarmonics;
    return curve.build(newHarmonics);
}

float HarmonicGenerator::analyzeCutoff(const float* block) {
    analyzer.analyze(block);
    analyzer.magnitudesDb(spectrumDb);
    cutoffHz = detectCutoff(spectrumDb, kSpectrumBins, rate);
    return cutoffHz;
}

void HarmonicGenerator::synthesise(const float* in, uint32_t n) {
    bandFilter.filter(in, band, n);
    curve.shape(band, shaped, n);
    subtractFromShaped(shaped, band, n);
}

void HarmonicGenerator::limitAndMix(const float* in, float* out, uint32_t n) {
    if (activeMode == 1) {
        limitFilter.design(static_cast<float>(rate), cutoffHz);
        limitFilter.filter(band, band, n);
    }
    for (uint32_t i = 0; i < n; ++i) {
        out[i] = dryDelay.tick(in[i]);
    }
    addScaled(out, band, mixGain, n);
}

void HarmonicGenerator::process(const float* in, float* out, float cutoff, uint32_t n) {
    cutoffHz = cutoff;
    if (!ready || n == 0) {
        return;
    }
    // The band buffers hold `frames` samples; a longer block is cut short.
    if (n > frames) {
        n = frames;
    }
    synthesise(in, n);
    limitAndMix(in, out, n);
}

void HarmonicGenerator::processDetecting(const float* in, float* out, uint32_t n) {
    if (!ready || n == 0) {
        return;
    }
    if (n > frames) {
        n = frames;
    }
    synthesise(in, n);
    if (activeMode == 1) {
        analyzeCutoff(in);
    }
    limitAndMix(in, out, n);
}

} // namespace dsp
