// The second stage of each Hqups channel, at 48000 Hz: a 16-tap high-pass
// selects the upper band, a waveshaper bends it into harmonics, and the
// shaped band minus the band (the synthesised part alone) is mixed into the
// dry signal, which is delayed to line up with the filter. In active mode the
// synthesised part is further confined, by a 32-tap high-pass redesigned per
// block, to the band above the bandwidth the source already has.
#pragma once

#include "analysis/fft_engine.h"
#include "filters/kaiser_fir.h"
#include "rate/delay_line.h"
#include "rate/transfer_curve.h"

#include <cstdint>

namespace dsp {

class HarmonicGenerator {
public:
    static constexpr uint32_t kFftSize = 256;
    static constexpr uint32_t kSpectrumBins = kFftSize / 2;
    static constexpr float kAttenuationDb = 100.0f;
    static constexpr int32_t kLimitTaps = 32;

    HarmonicGenerator() = default;
    virtual ~HarmonicGenerator();
    HarmonicGenerator(const HarmonicGenerator&) = delete;
    HarmonicGenerator& operator=(const HarmonicGenerator&) = delete;

    // Sizes the generator for blocks of up to `frames` samples and sets it up.
    // The band buffers grow only when needed; the transfer curve is rebuilt
    // only when `harmonics` changes. activeMode 0 delays the dry path by
    // taps / 2, 1 by taps; other values leave the delay as it is. Returns 1,
    // or 0 (not ready) when a buffer cannot be allocated.
    uint32_t setup(uint32_t frames, uint32_t rate, float harmonics, float mixPercent,
                   uint32_t hpCutoffHz, uint32_t activeMode, uint32_t taps);

    // Rebuilds the transfer curve at once; false (old curve kept) when its
    // nodes cannot be allocated.
    bool setHarmonics(float harmonics);
    void setMix(float mixPercent) { mixGain = static_cast<float>(mixPercent * 0.01); }
    // Takes effect from the next block; the dry delay keeps its length.
    void setActiveMode(uint32_t mode) { activeMode = mode; }

    // One block with a cutoff supplied by the caller (used in active mode).
    void process(const float* in, float* out, float cutoff, uint32_t n);
    // One block; in active mode the cutoff is detected from this block.
    void processDetecting(const float* in, float* out, uint32_t n);

    // Analyses `block` (frames samples, the hop of the analyzer) and detects
    // the source bandwidth from its spectrum; stores and returns it.
    float analyzeCutoff(const float* block);

    uint8_t ready = 0;
    uint32_t frames = 0;
    uint32_t rate = 0;
    float* band = nullptr;       // frames, from the pool
    float* shaped = nullptr;     // frames, from the pool
    float* spectrumDb = nullptr; // 256 floats from the pool (128 used)
    float hpCutoffHz = 0.0f;
    float harmonics = 0.0f;
    float mixGain = 0.0f;
    uint32_t activeMode = 0;
    TransferCurve curve;
    KaiserFir bandFilter;
    KaiserFir limitFilter;
    DelayLine dryDelay;
    FftEngine analyzer;
    float cutoffHz = 0.0f;

private:
    void releasePoolBuffers();
    // Steps shared by both process paths: band-pass, shape, keep the difference.
    void synthesise(const float* in, uint32_t n);
    void limitAndMix(const float* in, float* out, uint32_t n);
};

} // namespace dsp
