// The delay line under the chorus voices (ChorusDelayLine) and the LFO and
// level settings that sweep it (ModulatedDelay). ChorusVoices completes them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dsp {

class ChorusDelayLine {
public:
    static constexpr uint32_t kCapacity = 65536;

    ChorusDelayLine() = default;
    ChorusDelayLine(const ChorusDelayLine&) = delete;
    ChorusDelayLine& operator=(const ChorusDelayLine&) = delete;

    // Frees the history and clears `configured`.
    virtual void release();
    virtual ~ChorusDelayLine();
    // Records the rate and base delay and gives the line a zeroed history of
    // `capacity` samples (a power of two); false when it cannot be allocated.
    virtual bool init(uint32_t sampleRate, float delayMs, uint32_t newCapacity);
    virtual uint32_t process(const float* in, float* out, uint32_t frames) = 0;

    // Base delay in samples: trunc(rate * ms * 0.001) in double.
    void setDelayTime(float delayMs);

    uint8_t configured = 0;
    uint32_t capacity = 0;
    uint32_t mask = 0;
    uint32_t delay = 0;
    uint32_t writeIndex = 0;
    uint32_t rate = 0;
    float* history = nullptr;

protected:
    // The common part of init with a history of `floats` samples, reused when
    // the one held is large enough.
    bool initLine(uint32_t sampleRate, float delayMs, uint32_t newCapacity, size_t floats);
    void releaseHistory();

private:
    size_t historyFloats = 0;
};

class ModulatedDelay : public ChorusDelayLine {
public:
    // LFO period in seconds; 0 stops the LFO.
    void setSpeed(float seconds);
    // Sweep depth in samples from milliseconds.
    void setDepth(float depthMs);
    void setOrgMix(float percent);

    float depth = 0.0f;
    float cyclesPerMs = 0.0f;
    float msPerSample = 0.0f;
    float periodMs = 0.0f;
    float mix = 0.0f;
    float orgMix = 0.0f;
    float lfoTime = 0.0f;
};

} // namespace dsp
