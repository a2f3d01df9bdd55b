// The second stage of each Hqups channel, at 48000 Hz: a 16-tap high-pass
// selects the upper band, a waveshaper bends it into harmonics, and the
// shaped band minus the band (the synthesised part alone) is mixed into the
// dry signal, which is delayed to line up with the filter. In active mode the
// synthesised part is further confined, by a 32-tap high-pass redesigned per
// block, to the band above the bandwidth the source already has.
#pragma once

#include "analysis/fft_engine.h"
#include "core/arithmetic_rules.h"
#include "core/pool_buffer.h"
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
    HarmonicGenerator(const HarmonicGenerator&) = delete;
    HarmonicGenerator& operator=(const HarmonicGenerator&) = delete;

    // Sizes the generator for blocks of up to `frames` samples and sets it up.
    // The band buffers are replaced only when `frames` exceeds the block of
    // the last setup; the transfer curve is rebuilt only when `harmonics`
    // changes. activeMode 0 delays the dry path by taps / 2, 1 by taps; other
    // values leave the delay as it is. Returns 1, or 0 (not ready) when
    // anything cannot be allocated.
    uint32_t setup(uint32_t frames, uint32_t rate, float harmonics, float mixPercent,
                   uint32_t hpCutoffHz, uint32_t activeMode, uint32_t taps);

    // Rebuilds the transfer curve at once; false (old curve kept) when its
    // nodes cannot be allocated.
    bool setHarmonics(float harmonics);
    void setMix(float mixPercent) { mixGain_ = static_cast<float>(mixPercent * 0.01); }
    // Takes effect from the next block; the dry delay keeps its length.
    void setActiveMode(uint32_t mode) { activeMode_ = mode; }

    // One block with a cutoff supplied by the caller (used in active mode).
    void process(ArithmeticRule rule, const float* in, float* out, float cutoff, uint32_t n);
    // One block; in active mode the cutoff is detected from this block.
    void processDetecting(ArithmeticRule rule, const float* in, float* out, uint32_t n);

    // Analyses `block` (frames samples, the hop of the analyzer) and detects
    // the source bandwidth from its spectrum; stores and returns it.
    float analyzeCutoff(const float* block);

    // The analyzer's history for a block: about 2.33 blocks, at least one
    // whole transform.
    static uint32_t analysisHistoryFor(uint32_t frames);

    uint32_t activeMode() const { return activeMode_; }
    float cutoffHz() const { return cutoffHz_; }
    // Block of the last setup, in frames.
    uint32_t blockFrames() const { return frames_; }
    uint32_t dryDelayLength() const { return dryDelay_.length(); }
    const TransferCurve& curve() const { return curve_; }

private:
    // The steps of setup.
    bool takeBandBuffers(uint32_t frames);
    bool setUpFilters(uint32_t taps, float rate, float hpCutoffHz);
    bool setUpDryDelay(uint32_t mode, uint32_t taps);
    bool setUpCurve(float harmonics);
    bool takeSpectrumBuffer();
    // Steps shared by both process paths: band-pass, shape, keep the difference.
    void synthesise(ArithmeticRule rule, const float* in, uint32_t n);
    void limitAndMix(ArithmeticRule rule, const float* in, float* out, uint32_t n);

    bool ready_ = false;
    uint32_t frames_ = 0;
    uint32_t rate_ = 0;
    PoolBuffer band_;       // frames: high-passed input, then the synthesised part
    PoolBuffer shaped_;     // frames: waveshaper output
    PoolBuffer spectrumDb_; // 256 floats (128 used), taken at the first setup
    float harmonics_ = 0.0f;
    float mixGain_ = 0.0f;
    uint32_t activeMode_ = 0;
    TransferCurve curve_;
    KaiserFir bandFilter_;
    KaiserFir limitFilter_;
    DelayLine dryDelay_;
    FftEngine analyzer_;
    float cutoffHz_ = 0.0f;
};

} // namespace dsp
