// Granular time stretcher (tag 8): changes the length of a mono or stereo
// stream by a factor 2^(-scale/1000) between 1/8 and 4 without changing its
// pitch. Its output buffers (work[2], work[3]) are sized for the output, not
// the input, block.
#pragma once

#include "granular_processor.h"
#include "stretch_channel.h"

namespace dsp {

class StretchProcessor : public GranularProcessor<StretchChannel, &StretchChannel::setScale> {
public:
    StretchProcessor() : GranularProcessor(kTagStretch) {}

    // Buffers, both channel engines (even for mono) and output buffers of
    // outFrames floats. False when the rate is 0, the grain is unusable or
    // anything cannot be allocated.
    bool init(uint32_t frames, uint32_t channelCount, uint32_t rate, float scale, float levelDb,
              float grain, float spacing);
    // Sets the pending scale and grows the output buffers when the new factor
    // needs more frames than they hold. False (scale unchanged) when they
    // cannot be grown.
    bool setScale(float scale);

    // Rebuilds the engines only when the rate changes (a rate of 0 keeps the
    // current ones); sizes outFrames and the output buffers.
    void configure(uint32_t frames, uint32_t channelCount, uint32_t rate) override;
    // trunc(srcBytes * pending factor): bytes or frames alike.
    uint32_t getDstSize(uint32_t srcBytes) override;
    // The block after next already runs with the pending scale.
    uint32_t pieceOutputBound(uint32_t frames) const override;
    // Returns the bytes written. A block larger than inFrames is processed in
    // pieces that fit the buffers.
    uint32_t processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) override;

protected:
    // Largest input piece whose output fits the output buffers.
    uint32_t largestPiece() const override;

private:
    // Output frames a block of inFrames can yield with the in-use or the
    // pending settings, whichever is more.
    uint32_t requiredOutputFrames() const;
    // Replaces work[2] and work[3] by larger pool buffers; keeps the old ones
    // (and returns false) when the pool cannot supply them.
    bool growOutputBuffers(uint32_t frames);
};

} // namespace dsp
