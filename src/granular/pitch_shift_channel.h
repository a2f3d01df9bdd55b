// The granular pitch engine of one channel: overlapping grains read the
// recent input at 2^(cents/1200) through a cubic interpolator, each weighted
// by a Gaussian window; the output is the window-weighted average of the
// sounding grains times the output level. A pitch of exactly 0 passes the
// input through while the grain clock keeps running.
#pragma once

#include "core/owned_array.h"
#include "grain_engine.h"

#include <cstddef>
#include <cstdint>

namespace dsp {

class PitchShiftChannel {
public:
    // Builds (or rebuilds) the engine: silent history, window, a full set of
    // grains at staggered ages. Returns false, leaving the engine as it was,
    // when the grain length is unusable or the arrays cannot be allocated.
    bool setup(uint32_t sampleRate, float cents, float levelDb, float grainSeconds,
               float spacingSeconds);
    // Sets the pending pitch; it takes over at the end of the next block.
    void setPitch(float cents);
    // Applies from the next sample on.
    void setOutLevel(float levelDb) { engine_.setOutLevel(levelDb); }
    // Processes `frames` samples in blocks of at most 32768; returns frames.
    uint32_t process(const float* in, float* out, uint32_t frames);

private:
    // Samples a grain-major piece covers at most.
    static constexpr uint32_t kPieceFrames = 256;

    // One chunk of `frames` samples; `available` samples of the caller's
    // block start at in (the chunk and the ones after it).
    void processBlock(const float* in, float* out, uint32_t frames, uint32_t available);
    // Samples n0 .. n0 + len - 1 of the chunk, a stretch in which no grain
    // starts after n0: every sounding record in turn adds its terms.
    void runPiece(const float* in, float* out, uint32_t frames, uint32_t available, uint32_t n0,
                  uint32_t len);
    // True when line_ holds the history and a chunk of `frames` samples.
    bool hasLineFor(uint32_t frames) const;
    // Copies the history and the block into line_ so that x[k] is
    // line_[span + k] for -span <= k < frames: the grain reader then needs
    // neither a modulo nor a bound check per tap.
    void fillLine(const float* in, uint32_t frames);
    // Fills weights_ for the ratio in use when it is not already there.
    void prepareWeights();
    // Ages the table holds per tap row: weights_ has eight such rows.
    size_t weightStride() const { return weights_.size() / 8; }

    granular::GrainEngine engine_;
    float pitchCents_ = 0.0f; // the last pitch, clamped to -1200 .. +1200

    // x[-span] .. x[frames - 1] of the current block, oldest first.
    OwnedArray<double> line_;
    // The four tap weights of every grain age for the ratio in use: tap k
    // at weights_[k * stride + age] for a read position p >= 0, at
    // weights_[(4 + k) * stride + age] for p < 0. The fraction of p depends
    // only on age x ratio (the start is whole and every position is exact in
    // double), so each entry is the very double the per-tap evaluation would
    // give. Long grains go without the table and the line.
    OwnedArray<double> weights_;
    uint32_t weightAges_ = 0; // ages filled for weightRatio_; 0 when stale
    float weightRatio_ = 0.0f;
};

} // namespace dsp
