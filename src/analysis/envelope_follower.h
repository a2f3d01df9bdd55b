// Amplitude envelope of one channel: full-wave rectification, a gain and a
// Butterworth low-pass whose state carries over from block to block, with an
// optional scale on the result.
#pragma once

#include "filters/iir_designer.h"

#include <cstdint>

namespace dsp {

class EnvelopeFollower {
public:
    EnvelopeFollower() = default;
    ~EnvelopeFollower();
    EnvelopeFollower(const EnvelopeFollower&) = delete;
    EnvelopeFollower& operator=(const EnvelopeFollower&) = delete;

    // Sizes the scratch for blocks of `frames` (it only grows), designs the
    // low-pass (clearing its state) and stores the gains. Returns false, with
    // ready 0, when the scratch or the filter cannot be allocated.
    bool setup(uint32_t frames, float rate, uint32_t order, float cutoffHz, float gain,
               uint8_t scale, float scaleFactor);

    // out[i] = lowpass(|in[i]| * inputGain) (times outputScale when
    // scaleOutput). Returns 0 when not set up, else 1. Blocks longer than the
    // scratch are filtered in pieces, which gives the same result.
    uint32_t follow(const float* in, float* out, int32_t frames);

    uint8_t ready = 0;
    float* rectified = nullptr;
    uint32_t capacity = 0;
    ButterworthDesigner lowpass;
    float inputGain = 0.0f;
    float outputScale = 1.0f;
    uint8_t scaleOutput = 0;
};

} // namespace dsp
