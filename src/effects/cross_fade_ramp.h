// The cross-fader of one channel: a FadeRamp whose level is a position in
// -1 .. +1, turned by a four-parameter curve into a gain for each of two inputs.
#pragma once

#include "fade_ramp.h"

namespace dsp {

class CrossFadeRamp : public FadeRamp {
public:
    CrossFadeRamp();

    // The ramp's position clamped to -1 .. +1.
    float levelAt(uint32_t position) const override;
    // Sets gainA and gainB for a position; returns 0.
    float levelToGain(float position) override;

    // out = b * gainB + a * gainA under the schedule; 0 if never initialised.
    uint32_t mix(const float* a, const float* b, float* out, uint32_t frames);

    // Stores the curve (widths as absolute values) and its derived slopes;
    // the gains change when the position is next evaluated.
    void setCurve(float centre, float fall, float rise, float fallW);

    float gainA = 0.0f;
    float gainB = 0.0f;
    float centreDb = 0.0f;
    float fallDb = 0.0f;
    float riseWidth = 0.0f;
    float fallWidth = 0.0f;
    float riseSlopeA = 0.0f;
    float fallSlopeA = 0.0f;
    float riseSlopeB = 0.0f;
    float fallSlopeB = 0.0f;

private:
    // The fader's dB-to-gain conversion.
    static float decibelGain(float levelDb);
    float curveGain(float slopeDb, float x) const;
};

} // namespace dsp
