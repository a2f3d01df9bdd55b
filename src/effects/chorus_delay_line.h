// The delay line under the chorus voices (ChorusDelayLine) and the sine LFO
// that sweeps where they read it (ModulatedDelay). ChorusVoices combines them.
#pragma once

#include "core/numeric.h"
#include "core/owned_array.h"

#include <cstdint>
#include <utility>

namespace dsp {

// One channel's history of input samples, read back at whole-sample delays.
class ChorusDelayLine {
public:
    // Samples in the history: a power of two, so indices wrap by masking.
    static constexpr uint32_t kCapacity = 65536;
    static constexpr uint32_t kMask = kCapacity - 1;

    // A history of kCapacity samples, or an empty one when it cannot be had.
    static OwnedArray<float> allocateHistory() { return OwnedArray<float>::allocate(kCapacity); }
    void install(OwnedArray<float> history) { history_ = std::move(history); }
    bool isAllocated() const { return static_cast<bool>(history_); }
    // Zeroes the history; the next sample goes to index 0.
    void clear();

    float* history() { return history_.data(); }
    uint32_t writeIndex() const { return writeIndex_; }
    void setWriteIndex(uint32_t index) { writeIndex_ = index; }

private:
    OwnedArray<float> history_;
    uint32_t writeIndex_ = 0;
};

// A base delay swept by a sine LFO: the settings in samples and milliseconds
// at the rate last given, and the LFO's clock.
class ModulatedDelay {
public:
    // Records the rate and the settings and restarts the LFO.
    void start(uint32_t rate, float delayMs, float depthMs, float seconds);
    // Base delay in samples: trunc(rate * ms * 0.001) in double.
    void setDelayTime(float delayMs);
    // Sweep depth in samples from milliseconds.
    void setDepth(float depthMs);
    // LFO period in seconds; 0 stops the LFO.
    void setSpeed(float seconds);

    uint32_t delay() const { return delay_; }
    float depth() const { return depth_; }
    float cyclesPerMs() const { return cyclesPerMs_; }
    float msPerSample() const { return msPerSample_; }
    float periodMs() const { return periodMs_; }
    // Milliseconds into the current LFO cycle.
    float lfoTime() const { return lfoTime_; }
    void setLfoTime(float ms) { lfoTime_ = ms; }

    // True when both compute the same delays sample for sample.
    bool sweepsLike(const ModulatedDelay& other) const;

    // The LFO time one sample on, wrapped by whole periods.
    static float nextLfoTime(float lfoTime, float msPerSample, float periodMs);

private:
    uint32_t rate_ = 0;
    uint32_t delay_ = 0;
    float depth_ = 0.0f;
    float cyclesPerMs_ = 0.0f;
    float msPerSample_ = 0.0f;
    float periodMs_ = 0.0f;
    float lfoTime_ = 0.0f;
};

inline float ModulatedDelay::nextLfoTime(float lfoTime, float msPerSample, float periodMs) {
    lfoTime += msPerSample;
    if (lfoTime >= periodMs) {
        const int32_t k =
            truncToInt32(static_cast<double>(lfoTime) / static_cast<double>(periodMs));
        lfoTime = static_cast<float>(static_cast<double>(lfoTime) -
                                     static_cast<double>(k) * static_cast<double>(periodMs));
    }
    return lfoTime;
}

} // namespace dsp
