// Granular time stretcher (tag 8): changes the length of a mono or stereo
// stream by a factor 2^(-scale/1000) between 1/8 and 4 without changing its
// pitch. Its output buffers (work[2], work[3]) are sized for the output, not
// the input, block.
#pragma once

#include "core/processor.h"
#include "stretch_channel.h"

namespace dsp {

class StretchProcessor : public DspProcessor {
public:
    StretchProcessor() { tag = kTagStretch; }

    // Buffers, both channel engines (even for mono) and output buffers of
    // outFrames floats. False when the rate is 0, the grain is unusable or
    // anything cannot be allocated.
    bool init(uint32_t frames, uint32_t channelCount, uint32_t rate, float newScale, float levelDb,
              float grain, float spacing);
    // Fills the pending scale and grows the output buffers when the new factor
    // needs more frames than they hold. False (scale unchanged) when they
    // cannot be grown.
    bool setScale(float newScale);
    void setOutLevel(float levelDb);

    // Rebuilds the engines only when the rate changes (a rate of 0 keeps the
    // current ones); sizes outFrames and the output buffers.
    void configure(uint32_t frames, uint32_t channelCount, uint32_t rate) override;
    // trunc(srcBytes * pending factor): bytes or frames alike.
    uint32_t getDstSize(uint32_t srcBytes) override;
    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override;
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override;
    // Returns the bytes written. A block larger than inFrames is processed in
    // pieces that fit the buffers.
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override;

    StretchChannel channels[2];
    float scale = 0.0f; // as given, unclamped
    float outLevelDb = 0.0f;
    float grainSeconds = 0.0f;
    float spacingSeconds = 0.0f;
    uint32_t outCapacity = 0; // floats held by work[2] and work[3]

private:
    // Output frames a block of inFrames can yield with the in-use or the
    // pending settings, whichever is more.
    uint32_t requiredOutputFrames() const;
    // Replaces work[2] and work[3] by larger pool buffers; keeps the old ones
    // (and returns false) when the pool cannot supply them.
    bool growOutputBuffers(uint32_t frames);
    // Largest input piece whose output fits the output buffers.
    uint32_t largestPiece() const;
};

} // namespace dsp
