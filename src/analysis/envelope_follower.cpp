#include "envelope_follower.h"

namespace dsp {

namespace {

constexpr uint32_t kAmplitudeOrder = 2;
constexpr float kAmplitudeCutoffHz = 33.0f;
constexpr float kAmplitudeGain = 2.5f;

} // namespace

bool EnvelopeFollower::setup(uint32_t frames, float rate, uint32_t order, float cutoffHz,
                             float gain, uint8_t scale, float scaleFactor) {
    OwnedArray<float> fresh;
    if (!prepareGrowth(rectified_, frames, fresh)) {
        return false;
    }
    installGrowth(rectified_, fresh);
    if (!lowpass_.setOrder(static_cast<int32_t>(order), 0)) {
        ready_ = false;
        return false;
    }
    lowpass_.design(rate, cutoffHz);
    inputGain_ = gain;
    scaleOutput_ = scale != 0;
    outputScale_ = scaleFactor;
    ready_ = true;
    return true;
}

bool EnvelopeFollower::setupAmplitude(uint32_t frames, float rate) {
    return setup(frames, rate, kAmplitudeOrder, kAmplitudeCutoffHz, kAmplitudeGain, 0, 1.0f);
}

bool EnvelopeFollower::supportsAmplitudeRate(float rate) {
    return kAmplitudeCutoffHz < 0.5f * rate;
}

uint32_t EnvelopeFollower::follow(const float* in, float* out, int32_t frames) {
    if (!ready_) {
        return 0;
    }
    // The scratch holds at least one frame (an array never is empty).
    const uint32_t capacity = rectified_.size() > 0 ? static_cast<uint32_t>(rectified_.size()) : 1;
    float* rectified = rectified_.data();
    uint32_t remaining = frames > 0 ? static_cast<uint32_t>(frames) : 0;
    while (remaining > 0) {
        uint32_t piece = remaining < capacity ? remaining : capacity;
        for (uint32_t i = 0; i < piece; ++i) {
            float x = in[i];
            if (0.0f > x) {
                x = -x;
            }
            rectified[i] = x * inputGain_;
        }
        lowpass_.process(rectified, out, piece);
        if (scaleOutput_) {
            for (uint32_t i = 0; i < piece; ++i) {
                out[i] = out[i] * outputScale_;
            }
        }
        in += piece;
        out += piece;
        remaining -= piece;
    }
    return 1;
}

} // namespace dsp
