// The state the granular engines share: the grain layout, the history ring,
// the Gaussian window, the grain records with their spawn clock, the output
// level and the settings, pending and in use. A channel decides what its
// grains read and how their terms add up; this class keeps the grains and
// the history and moves them from block to block.
#pragma once

#include "core/owned_array.h"
#include "grain.h"
#include "grain_history.h"
#include "grain_setup.h"

#include <cstdint>

namespace dsp {
namespace granular {

// The settings that change only between blocks: a new value waits in the
// pending set until the end of the block being processed.
struct GrainSettings {
    bool bypass = false; // pass the input through; the grain clock runs on
    uint32_t span = 0;   // history samples kept: the modulus of the ring
    int32_t offset = 0;  // start offset of new grains
    float ratio = 1.0f;  // read speed, or output frames per input frame
    float step = 1.0f;   // input frames per output frame (time stretch only)
};

class GrainEngine {
public:
    // The arrays a setup installs, all allocated before any is installed so
    // that a failed setup leaves the engine as it was.
    struct Arrays {
        OwnedArray<float> ring;
        OwnedArray<float> window;
        OwnedArray<Grain> grains;
    };

    // Allocates into *fresh each array that is missing or smaller than
    // `geometry` with a history of `ringSize` samples needs. False when an
    // allocation fails.
    bool prepare(const GrainGeometry& geometry, uint32_t ringSize, Arrays* fresh) const;
    // Installs the prepared arrays and takes the layout. The pending settings
    // for it come next, then start().
    void install(const GrainGeometry& geometry, Arrays& fresh);
    // Silences ringSize history samples, draws the window and sets the
    // records up as if the engine had been running: record k began (k + 1) x
    // spacing samples ago at position (k + 1) x stride - back, so the output
    // fades in from silence over about one grain. The pending settings go
    // into use and the engine is ready.
    void start(uint32_t ringSize, int64_t stride, int64_t back);

    bool isReady() const { return ready_; }
    uint32_t grainLength() const { return geometry_.length; }
    uint32_t spacing() const { return geometry_.spacing; }
    uint32_t grainCount() const { return geometry_.count; }
    float outLevel() const { return outLevel_; }
    // Applies from the next sample on.
    void setOutLevel(float levelDb) { outLevel_ = levelFromDb(levelDb); }

    const GrainSettings& pending() const { return pending_; }
    const GrainSettings& current() const { return current_; }
    // Takes over at the end of the next block.
    void setPending(const GrainSettings& settings) { pending_ = settings; }

    Grain* grains() { return grains_.data(); }
    HistoryView history() const { return {ring_.data(), writeIndex_, current_.span}; }

    // Runs `frames` samples as pieces of at most maxPiece samples that end
    // where the next grain is due: a due grain starts at startOf(n0) at the
    // beginning of a piece, then run(n0, len) produces its samples. No grain
    // starts inside a piece, so the sounding records can only fall silent.
    template <typename StartOf, typename Run>
    void runPieces(uint32_t frames, uint32_t maxPiece, StartOf startOf, Run run);
    // A piece in pass-through: the input is copied, the grains age.
    void passPiece(const float* in, float* out, uint32_t n0, uint32_t len);
    // End of block: positions relative to the next block, the pending
    // settings in use, then the block kept in the history with the new span.
    void endBlock(const float* in, uint32_t frames);

private:
    // The first silent record (if any) starts sounding at `start`.
    void spawnGrain(int32_t start);

    bool ready_ = false;
    GrainGeometry geometry_;
    float outLevel_ = 1.0f;
    GrainSettings pending_;
    GrainSettings current_;
    uint32_t spawnPhase_ = 0; // samples since the last grain start, modulo spacing
    uint32_t writeIndex_ = 0; // ring index of the newest past sample
    OwnedArray<float> ring_;  // past input, newest at writeIndex_, modulo span
    OwnedArray<float> window_;
    OwnedArray<Grain> grains_;
};

template <typename StartOf, typename Run>
void GrainEngine::runPieces(uint32_t frames, uint32_t maxPiece, StartOf startOf, Run run) {
    uint32_t n0 = 0;
    while (n0 < frames) {
        if (spawnPhase_ == 0) {
            spawnGrain(startOf(n0));
        }
        uint32_t len = frames - n0;
        const uint32_t untilSpawn = geometry_.spacing - spawnPhase_;
        if (untilSpawn < len) {
            len = untilSpawn;
        }
        if (len > maxPiece) {
            len = maxPiece;
        }
        spawnPhase_ += len;
        if (spawnPhase_ >= geometry_.spacing) {
            spawnPhase_ = 0;
        }
        run(n0, len);
        n0 += len;
    }
}

} // namespace granular
} // namespace dsp
