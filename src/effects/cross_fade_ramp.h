// The cross-fader of one channel: a ramp whose level is a position in
// -1 .. +1, turned by a four-parameter curve into a gain for each of two
// inputs.
#pragma once

#include "core/lookup_tables.h"
#include "fade_schedule.h"

namespace dsp {

struct CrossFadeGains {
    float a; // the first input
    float b; // the second input
};

// Position +1 passes the first input alone, -1 the second alone, 0 both at
// centreDb. The approaching input rises from centreDb to 0 dB over riseWidth;
// the receding one falls from centreDb to fallDb over fallWidth and is muted
// beyond it.
class CrossFadeCurve {
public:
    // centreDb -1, fallDb -40, riseWidth 0.05, fallWidth 0.8.
    CrossFadeCurve() : CrossFadeCurve(-1.0f, -40.0f, 0.05f, 0.8f) {}
    // Widths are taken as absolute values.
    CrossFadeCurve(float centreDb, float fallDb, float riseWidth, float fallWidth);

    CrossFadeGains gainsAt(float position, const DecibelTable& table) const;

private:
    // Gain at centreDb + slope * x, the level formed wide and rounded once.
    float curveGain(float slopeDb, float x, const DecibelTable& table) const;

    float centreDb_;
    float riseWidth_;
    float fallWidth_;
    float riseSlopeA_;
    float fallSlopeA_;
    float riseSlopeB_;
    float fallSlopeB_;
};

class CrossFadeRamp final : public FadeSchedule {
public:
    // Positions held within -1 .. +1, the default curve.
    CrossFadeRamp() : FadeSchedule(-1.0f, 1.0f) {}

    // (Re)starts the ramp at `position` with position 0; a kept schedule
    // stays armed. The gains follow the position at once.
    void initialise(float rate, float position);
    // The gains change when the position is next evaluated.
    void setCurve(const CrossFadeCurve& curve) { curve_ = curve; }

    // out = b * gainB + a * gainA under the schedule; 0 if never initialised.
    uint32_t mix(const float* a, const float* b, float* out, uint32_t frames);

private:
    CrossFadeCurve curve_;
    CrossFadeGains gains_{0.0f, 0.0f};
};

} // namespace dsp
