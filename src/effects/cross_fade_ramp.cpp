#include "cross_fade_ramp.h"

#include "core/lookup_tables.h"

#include <cmath>

namespace dsp {

CrossFadeRamp::CrossFadeRamp() {
    setCurve(-1.0f, -40.0f, 0.05f, 0.8f);
}

void CrossFadeRamp::setCurve(float centre, float fall, float rise, float fallW) {
    centreDb = centre;
    fallDb = fall;
    riseWidth = std::fabs(rise);
    fallWidth = std::fabs(fallW);
    riseSlopeA = riseWidth == 0.0f ? 0.0f : -centreDb / riseWidth;
    fallSlopeA = (centreDb - fallDb) / fallWidth;
    riseSlopeB = riseWidth == 0.0f ? 0.0f : centreDb / riseWidth;
    fallSlopeB = (fallDb - centreDb) / fallWidth;
}

float CrossFadeRamp::levelAt(uint32_t at) const {
    float x = FadeRamp::levelAt(at);
    if (x < -1.0f) {
        return -1.0f;
    }
    if (x > 1.0f) {
        return 1.0f;
    }
    return x;
}

float CrossFadeRamp::decibelGain(float levelDb) {
    return static_cast<float>(decibelTable().lookup(levelDb));
}

// Gain at centreDb + slope * x, the level formed wide and rounded once.
float CrossFadeRamp::curveGain(float slopeDb, float x) const {
    return decibelGain(static_cast<float>(static_cast<double>(centreDb) +
                                          static_cast<double>(slopeDb) * static_cast<double>(x)));
}

float CrossFadeRamp::levelToGain(float x) {
    // The approaching input rises from centreDb to 0 dB over riseWidth, the
    // receding one falls to fallDb over fallWidth and is muted beyond it.
    if (x > riseWidth) {
        gainA = 1.0f;
    } else if (x >= 0.0f) {
        gainA = curveGain(riseSlopeA, x);
    } else if (x >= -fallWidth) {
        gainA = curveGain(fallSlopeA, x);
    } else {
        gainA = 0.0f;
    }
    if (x < -riseWidth) {
        gainB = 1.0f;
    } else if (x <= 0.0f) {
        gainB = curveGain(riseSlopeB, x);
    } else if (x <= fallWidth) {
        gainB = curveGain(fallSlopeB, x);
    } else {
        gainB = 0.0f;
    }
    return 0.0f;
}

uint32_t CrossFadeRamp::mix(const float* a, const float* b, float* out, uint32_t frames) {
    if (configured == 0) {
        return 0;
    }
    runSchedule(frames, [&](uint32_t n) {
        out[n] = static_cast<float>(static_cast<double>(b[n]) * gainB +
                                    static_cast<double>(a[n]) * gainA);
    });
    return 1;
}

} // namespace dsp
