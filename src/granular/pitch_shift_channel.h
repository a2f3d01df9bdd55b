// The granular pitch engine of one channel: overlapping grains read the
// recent input at 2^(cents/1200) through a cubic interpolator, each weighted
// by a Gaussian window; the output is the window-weighted average of the
// sounding grains times the output level. A pitch of exactly 0 passes the
// input through while the grain clock keeps running.
#pragma once

#include "grain.h"

#include <cstdint>

namespace dsp {

class PitchShiftChannel {
public:
    PitchShiftChannel() = default;
    ~PitchShiftChannel();
    PitchShiftChannel(const PitchShiftChannel&) = delete;
    PitchShiftChannel& operator=(const PitchShiftChannel&) = delete;

    // Builds (or rebuilds) the engine: silent history, window, a full set of
    // grains at staggered ages. Returns false, leaving the engine as it was,
    // when the grain length is unusable or the arrays cannot be allocated.
    bool setup(uint32_t sampleRate, float cents, float levelDb, float grainSeconds,
               float spacingSeconds);
    // Fills the pending fields; they take over at the end of the next block.
    void setPitch(float cents);
    // Applies from the next sample on.
    void setOutLevel(float levelDb);
    // Processes `frames` samples in blocks of at most 32768.
    void process(const float* in, float* out, uint32_t frames);

    uint8_t ready = 0;
    uint8_t bypassPending = 0;
    uint32_t spanPending = 0;
    float rate = 0.0f;
    float pitchCents = 0.0f; // clamped to -1200 .. +1200
    float ratioPending = 1.0f;
    float outLevel = 1.0f;
    uint32_t spacing = 1;
    uint32_t grainLength = 0;
    uint32_t grainCount = 0;
    int32_t offsetPending = 0;
    uint32_t spawnPhase = 0;
    uint32_t writeIndex = 0;
    float* ring = nullptr; // past input, newest at writeIndex, modulo span
    float* window = nullptr;
    Grain* grains = nullptr;
    uint32_t span = 3;
    float ratio = 1.0f;
    int32_t offset = 0;
    uint8_t bypass = 0;

private:
    void processBlock(const float* in, float* out, uint32_t frames);
    void spawnGrain(int32_t start);
    // x[k] of the current block: in[k] for k >= 0, the history for k < 0.
    float sampleAt(int32_t k, const float* in, uint32_t frames) const;
    void storeHistory(const float* in, uint32_t frames);

    // Allocated sizes, so a smaller setup reuses the arrays.
    uint32_t ringCapacity_ = 0;
    uint32_t windowCapacity_ = 0;
    uint32_t grainCapacity_ = 0;
};

} // namespace dsp
