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
    // Samples a grain-major piece covers at most.
    static constexpr uint32_t kPieceFrames = 256;

    // One chunk of `frames` samples; `available` samples of the caller's
    // block start at in (the chunk and the ones after it).
    void processBlock(const float* in, float* out, uint32_t frames, uint32_t available);
    // Samples n0 .. n0 + len - 1 of the chunk, a stretch in which no grain
    // starts after n0: every sounding record in turn adds its terms.
    void runPiece(const float* in, float* out, uint32_t frames, uint32_t available, uint32_t n0,
                  uint32_t len);
    // The same stretch in pass-through: every sounding record ages len steps.
    void ageGrains(uint32_t len);
    void spawnGrain(int32_t start);
    void storeHistory(const float* in, uint32_t frames);
    // Copies the history and the block into line_ so that x[k] is
    // line_[span + k] for -span <= k < frames: the grain reader then needs
    // neither a modulo nor a bound check per tap.
    void fillLine(const float* in, uint32_t frames);

    // Fills weights_ for the ratio in use when it is not already there.
    void prepareWeights();

    // x[-span] .. x[frames - 1] of the current block, oldest first.
    double* line_ = nullptr;
    // The four tap weights of every grain age for the ratio in use: tap k
    // at weights_[k * weightCapacity_ + age] for a read position p >= 0, at
    // weights_[(4 + k) * weightCapacity_ + age] for p < 0. The fraction of p
    // depends only on age x ratio (the start is whole and every position is
    // exact in double), so each entry is the very double the per-tap
    // evaluation would give. Long grains go without the table and the line
    // (see kMaxFastPathLength).
    double* weights_ = nullptr;
    uint32_t weightCapacity_ = 0; // ages the table can hold
    uint32_t weightAges_ = 0;     // ages filled for weightRatio_; 0 when stale
    float weightRatio_ = 0.0f;
    // Allocated sizes, so a smaller setup reuses the arrays.
    uint32_t lineCapacity_ = 0;
    uint32_t ringCapacity_ = 0;
    uint32_t windowCapacity_ = 0;
    uint32_t grainCapacity_ = 0;
};

} // namespace dsp
