#include "cross_fade_ramp.h"

#include "fade_ramp.h"

#include <cmath>

namespace dsp {

CrossFadeCurve::CrossFadeCurve(float centreDb, float fallDb, float riseWidth, float fallWidth)
    : centreDb_(centreDb), riseWidth_(std::fabs(riseWidth)), fallWidth_(std::fabs(fallWidth)) {
    riseSlopeA_ = riseWidth_ == 0.0f ? 0.0f : -centreDb_ / riseWidth_;
    fallSlopeA_ = (centreDb_ - fallDb) / fallWidth_;
    riseSlopeB_ = riseWidth_ == 0.0f ? 0.0f : centreDb_ / riseWidth_;
    fallSlopeB_ = (fallDb - centreDb_) / fallWidth_;
}

float CrossFadeCurve::curveGain(float slopeDb, float x, const DecibelTable& table) const {
    return decibelGain(table,
                       static_cast<float>(static_cast<double>(centreDb_) +
                                          static_cast<double>(slopeDb) * static_cast<double>(x)));
}

CrossFadeGains CrossFadeCurve::gainsAt(float x, const DecibelTable& table) const {
    CrossFadeGains gains{0.0f, 0.0f};
    if (x > riseWidth_) {
        gains.a = 1.0f;
    } else if (x >= 0.0f) {
        gains.a = curveGain(riseSlopeA_, x, table);
    } else if (x >= -fallWidth_) {
        gains.a = curveGain(fallSlopeA_, x, table);
    }
    if (x < -riseWidth_) {
        gains.b = 1.0f;
    } else if (x <= 0.0f) {
        gains.b = curveGain(riseSlopeB_, x, table);
    } else if (x <= fallWidth_) {
        gains.b = curveGain(fallSlopeB_, x, table);
    }
    return gains;
}

void CrossFadeRamp::initialise(float rate, float position) {
    restart(rate, position);
    gains_ = curve_.gainsAt(position, decibelTable());
}

uint32_t CrossFadeRamp::mix(const float* a, const float* b, float* out, uint32_t frames) {
    if (!isInitialised()) {
        return 0;
    }
    const DecibelTable& table = decibelTable();
    const CrossFadeCurve curve = curve_;
    CrossFadeGains gains = gains_;
    run(
        frames, [&](float position) { gains = curve.gainsAt(position, table); },
        [&](uint32_t n) {
            out[n] = static_cast<float>(static_cast<double>(b[n]) * gains.b +
                                        static_cast<double>(a[n]) * gains.a);
        });
    gains_ = gains;
    return 1;
}

} // namespace dsp
