// Amplitude envelope of one channel: full-wave rectification, a gain and a
// Butterworth low-pass whose state carries over from block to block, with an
// optional scale on the result.
#pragma once

#include "core/owned_array.h"
#include "filters/iir_designer.h"

#include <cstdint>

namespace dsp {

class EnvelopeFollower {
public:
    // Sizes the scratch for blocks of `frames` (it only grows), designs the
    // low-pass (clearing its state) and stores the gains. Returns false, not
    // set up, when the scratch or the filter cannot be allocated.
    bool setup(uint32_t frames, float rate, uint32_t order, float cutoffHz, float gain,
               uint8_t scale, float scaleFactor);

    // The amplitude envelope of the analyzers and the wave slicer: a gain of
    // 2.5 after rectification and a second-order 33 Hz low-pass, unscaled.
    bool setupAmplitude(uint32_t frames, float rate);
    // True for the rates that put the 33 Hz low-pass below half the rate.
    static bool supportsAmplitudeRate(float rate);

    // out[i] = lowpass(|in[i]| * inputGain) (times outputScale when
    // scaleOutput). Returns 0 when not set up, else 1. Blocks longer than the
    // scratch are filtered in pieces, which gives the same result.
    uint32_t follow(const float* in, float* out, int32_t frames);

private:
    bool ready_ = false;
    OwnedArray<float> rectified_;
    ButterworthDesigner lowpass_;
    float inputGain_ = 0.0f;
    float outputScale_ = 1.0f;
    bool scaleOutput_ = false;
};

} // namespace dsp
