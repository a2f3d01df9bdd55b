#include "chorus_delay_line.h"

#include <algorithm>

namespace dsp {

void ChorusDelayLine::clear() {
    std::fill(history_.data(), history_.data() + history_.size(), 0.0f);
    writeIndex_ = 0;
}

void ModulatedDelay::start(uint32_t rate, float delayMs, float depthMs, float seconds) {
    rate_ = rate;
    setDelayTime(delayMs);
    msPerSample_ = static_cast<float>(1000.0 / static_cast<double>(rate));
    setDepth(depthMs);
    setSpeed(seconds);
    lfoTime_ = 0.0f;
}

void ModulatedDelay::setDelayTime(float delayMs) {
    delay_ = truncToUint32(static_cast<double>(rate_) * static_cast<double>(delayMs) * 0.001);
}

void ModulatedDelay::setDepth(float depthMs) {
    depth_ =
        static_cast<float>(static_cast<double>(rate_) * (0.001 * static_cast<double>(depthMs)));
}

void ModulatedDelay::setSpeed(float seconds) {
    cyclesPerMs_ =
        seconds == 0.0f ? 0.0f : static_cast<float>(1.0 / (1000.0 * static_cast<double>(seconds)));
    periodMs_ = static_cast<float>(1000.0 * static_cast<double>(seconds));
}

bool ModulatedDelay::sweepsLike(const ModulatedDelay& other) const {
    return delay_ == other.delay_ && depth_ == other.depth_ && cyclesPerMs_ == other.cyclesPerMs_ &&
           msPerSample_ == other.msPerSample_ && periodMs_ == other.periodMs_ &&
           lfoTime_ == other.lfoTime_;
}

} // namespace dsp
