#include "envelope_follower.h"

#include <new>

namespace dsp {

EnvelopeFollower::~EnvelopeFollower() {
    delete[] rectified;
}

bool EnvelopeFollower::setup(uint32_t frames, float rate, uint32_t order, float cutoffHz,
                             float gain, uint8_t scale, float scaleFactor) {
    if (ready == 0 || frames > capacity) {
        delete[] rectified;
        rectified = new (std::nothrow) float[frames > 0 ? frames : 1];
        if (rectified == nullptr) {
            capacity = 0;
            ready = 0;
            return false;
        }
    }
    capacity = frames > 0 ? frames : 1;
    if (!lowpass.setOrder(static_cast<int32_t>(order), 0)) {
        ready = 0;
        return false;
    }
    lowpass.design(rate, cutoffHz);
    inputGain = gain;
    scaleOutput = scale;
    outputScale = scaleFactor;
    ready = 1;
    return true;
}

uint32_t EnvelopeFollower::follow(const float* in, float* out, int32_t frames) {
    if (ready == 0) {
        return 0;
    }
    uint32_t remaining = frames > 0 ? static_cast<uint32_t>(frames) : 0;
    while (remaining > 0) {
        uint32_t piece = remaining < capacity ? remaining : capacity;
        for (uint32_t i = 0; i < piece; ++i) {
            float x = in[i];
            if (0.0f > x) {
                x = -x;
            }
            rectified[i] = x * inputGain;
        }
        lowpass.process(rectified, out, piece);
        if (scaleOutput != 0) {
            for (uint32_t i = 0; i < piece; ++i) {
                out[i] = out[i] * outputScale;
            }
        }
        in += piece;
        out += piece;
        remaining -= piece;
    }
    return 1;
}

} // namespace dsp
