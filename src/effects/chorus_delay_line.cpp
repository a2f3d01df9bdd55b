#include "chorus_delay_line.h"

#include "core/numeric.h"

#include <algorithm>
#include <new>

namespace dsp {

ChorusDelayLine::~ChorusDelayLine() {
    releaseHistory();
}

void ChorusDelayLine::release() {
    releaseHistory();
    configured = 0;
}

void ChorusDelayLine::releaseHistory() {
    delete[] history;
    history = nullptr;
    historyFloats = 0;
}

bool ChorusDelayLine::init(uint32_t sampleRate, float delayMs, uint32_t newCapacity) {
    return initLine(sampleRate, delayMs, newCapacity, newCapacity);
}

bool ChorusDelayLine::initLine(uint32_t sampleRate, float delayMs, uint32_t newCapacity,
                               size_t floats) {
    rate = sampleRate;
    setDelayTime(delayMs);
    if (configured == 0 || floats > historyFloats || history == nullptr) {
        release();
        history = new (std::nothrow) float[floats];
        if (history == nullptr) {
            return false;
        }
        historyFloats = floats;
    }
    capacity = newCapacity;
    mask = newCapacity - 1;
    std::fill(history, history + historyFloats, 0.0f);
    writeIndex = 0;
    configured = 1;
    return true;
}

void ChorusDelayLine::setDelayTime(float delayMs) {
    delay = truncToUint32(static_cast<double>(rate) * static_cast<double>(delayMs) * 0.001);
}

void ModulatedDelay::setSpeed(float seconds) {
    cyclesPerMs =
        seconds == 0.0f ? 0.0f : static_cast<float>(1.0 / (1000.0 * static_cast<double>(seconds)));
    periodMs = static_cast<float>(1000.0 * static_cast<double>(seconds));
}

void ModulatedDelay::setDepth(float depthMs) {
    depth = static_cast<float>(static_cast<double>(rate) * (0.001 * static_cast<double>(depthMs)));
}

void ModulatedDelay::setOrgMix(float percent) {
    orgMix = static_cast<float>(0.01 * static_cast<double>(percent));
}

} // namespace dsp
