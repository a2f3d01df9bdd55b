// The granular time-stretch engine of one channel: grains start at a fixed
// spacing in output time, each plays the input at unchanged speed from the
// input position of its output start, weighted by a Gaussian window; every
// output sample is the window-weighted average of the sounding grains times
// the output level. A block of n frames yields trunc(n * factor) frames, with
// factor = 2^(-scale/1000); a scale of exactly 0 passes the input through.
#pragma once

#include "grain_engine.h"

#include <cstdint>

namespace dsp {

class StretchChannel {
public:
    // Builds (or rebuilds) the engine. Returns false, leaving the engine as it
    // was, when the rate is 0, the grain length is unusable or the arrays
    // cannot be allocated.
    bool setup(uint32_t sampleRate, float scale, float levelDb, float grainSeconds,
               float spacingSeconds);
    // Sets the pending scale; it takes over at the end of the next block.
    void setScale(float scale);
    // Applies from the next sample on.
    void setOutLevel(float levelDb) { engine_.setOutLevel(levelDb); }
    // Processes `frames` input frames in blocks of at most 32768 and returns
    // the output frames written (the blocks' outputs follow one another).
    uint32_t process(const float* in, float* out, uint32_t frames);

    // Frames a block of `frames` input frames yields with the pending or the
    // in-use settings (pass-through yields `frames`).
    uint32_t pendingOutputFrames(uint32_t frames) const;
    uint32_t currentOutputFrames(uint32_t frames) const;
    // The input frames whose output in one block about fills `outputFrames`
    // with the in-use settings: trunc(outputFrames / factor), or
    // outputFrames in pass-through.
    uint32_t currentInputFrames(uint32_t outputFrames) const;
    // Frames a block of `frames` would yield once `scale` is in use.
    static uint32_t outputFramesForScale(float scale, uint32_t frames);

private:
    // The settings for `scale`: factor 2^(-scale/1000) of the clamped scale
    // as float, pass-through for exactly 0 and for a scale that is not a
    // number, and the span and grain offset for the current grain length.
    granular::GrainSettings settingsFor(float scale) const;
    // One chunk of `frames` input frames; `available` frames of the caller's
    // block start at in (the chunk and the ones after it).
    uint32_t processBlock(const float* in, float* out, uint32_t frames, uint32_t available);
    // Output frames j0 .. j0 + len - 1 of the chunk, in which no grain starts
    // after j0.
    void mixFrames(const float* in, float* out, uint32_t available, uint32_t j0, uint32_t len);

    granular::GrainEngine engine_;
};

} // namespace dsp
