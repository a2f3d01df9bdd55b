// The granular time-stretch engine of one channel: grains start at a fixed
// spacing in output time, each plays the input at unchanged speed from the
// input position of its output start, weighted by a Gaussian window; every
// output sample is the window-weighted average of the sounding grains times
// the output level. A block of n frames yields trunc(n * factor) frames, with
// factor = 2^(-scale/1000); a scale of exactly 0 passes the input through.
#pragma once

#include "grain.h"

#include <cstdint>

namespace dsp {

class StretchChannel {
public:
    StretchChannel() = default;
    ~StretchChannel();
    StretchChannel(const StretchChannel&) = delete;
    StretchChannel& operator=(const StretchChannel&) = delete;

    // Builds (or rebuilds) the engine and stores in *outputFrames the frames
    // a block of `frames` yields. Returns false, leaving the engine as it was,
    // when the rate is 0, the grain length is unusable or the arrays cannot be
    // allocated.
    bool setup(uint32_t frames, uint32_t sampleRate, float scale, float levelDb, float grainSeconds,
               float spacingSeconds, uint32_t* outputFrames);
    // Fills the pending fields; they take over at the end of the next block.
    void setScale(float scale);
    void setOutLevel(float levelDb);
    // Processes `frames` input frames in blocks of at most 32768 and returns
    // the output frames written (the blocks' outputs follow one another).
    uint32_t process(const float* in, float* out, uint32_t frames);

    // Frames a block of `frames` input frames yields with the pending or the
    // in-use settings (pass-through yields `frames`).
    uint32_t pendingOutputFrames(uint32_t frames) const;
    uint32_t currentOutputFrames(uint32_t frames) const;
    // Frames a block of `frames` would yield once `scale` is in use.
    static uint32_t outputFramesForScale(float scale, uint32_t frames);

    uint8_t ready = 0;
    uint8_t bypassPending = 0;
    uint32_t maxFrames = 0;
    uint32_t spanPending = 0;
    float rate = 0.0f;
    float factorPending = 1.0f;
    float stepPending = 1.0f;
    float outLevel = 1.0f;
    uint32_t spacing = 1;
    uint32_t grainLength = 0;
    uint32_t grainCount = 0;
    uint32_t offsetPending = 0;
    uint32_t spawnPhase = 0;
    uint32_t writeIndex = 0;
    float* ring = nullptr; // past input, newest at writeIndex, modulo span
    float* window = nullptr;
    Grain* grains = nullptr;
    uint8_t bypass = 0;
    uint32_t span = 0;
    float factor = 1.0f;
    float step = 1.0f;
    uint32_t offset = 0;
    uint32_t ringCapacity = 0; // 8 * grainLength

private:
    // 2^(-scale/1000) of the clamped scale, as float; *passThrough is set for
    // exactly 0 and for a scale that is not a number.
    static float factorForScale(float scale, bool* passThrough);
    // One chunk of `frames` input frames; `available` frames of the caller's
    // block start at in (the chunk and the ones after it).
    uint32_t processBlock(const float* in, float* out, uint32_t frames, uint32_t available);
    void spawnGrain(uint32_t outIndex);

    // Allocated sizes, so a smaller setup reuses the arrays.
    uint32_t ringAllocated_ = 0;
    uint32_t windowAllocated_ = 0;
    uint32_t grainAllocated_ = 0;
};

} // namespace dsp
