// A processing chain: processors run one after another on the same block,
// in ascending order of a sort key (stable among equal keys), with one
// conversion from the host's samples at the start and one back at the end.
// The chain keeps each processor's input format equal to its predecessor's
// output format (the first one's to the chain's source format) and owns the
// processors added to it.
#pragma once

#include "core/owned_array.h"
#include "core/processor.h"

#include <cstdint>
#include <memory>

namespace dsp {

class DspChain {
public:
    DspChain(uint32_t sourceFrames, uint32_t sourceChannels, uint32_t sourceRate)
        : frames_(sourceFrames), channels_(sourceChannels), rate_(sourceRate) {}
    // Destroys the processors it holds, first to last, and clears the mark.
    ~DspChain();
    // The chain behind a host's handle, or null: a null handle, or a handle
    // of another kind (a processor, a WAVE reader or writer), whose first
    // bytes are not a chain's mark.
    static DspChain* fromHandle(void* handle);
    DspChain(const DspChain&) = delete;
    DspChain& operator=(const DspChain&) = delete;

    // Takes ownership of a ready processor and inserts it behind every node
    // whose key is not greater. Returns the node count afterwards; a
    // processor that is null, not ready, already held, or whose node cannot
    // be allocated is not added (and stays the caller's).
    uint32_t add(DspProcessor* processor, uint32_t sortKey);
    // New source format, propagated through the processors.
    void adjust(uint32_t sourceFrames, uint32_t sourceChannels, uint32_t sourceRate);
    // Runs a block of 16-bit samples through every processor; returns the
    // bytes written. An empty chain copies the block. Returns 0 and writes
    // nothing when a processor is not ready.
    uint32_t send(const int16_t* src, int16_t* dst, uint32_t bytes);
    // The same for any interleaved input and output: `frames` frames of the
    // first processor's input channels. Returns the output frames written;
    // an empty chain has no work buffers and writes nothing.
    uint32_t sendPieces(InterleavedInput& in, InterleavedOutput& out, uint32_t frames);
    // Runs `frames` interleaved float frames (full scale 1.0, unclamped)
    // through every processor; returns the output frames written. An empty
    // chain copies the block. Returns 0 and writes nothing when a processor
    // is not ready.
    uint32_t sendFloat(const float* src, float* dst, uint32_t frames);
    // The most interleaved samples (output frames x output channels) that
    // send or sendFloat writes for `frames` input frames, saturated at
    // UINT32_MAX: blocks longer than the chain's block run in pieces, and a
    // mono input may leave stereo output.
    uint32_t dstSamples(uint32_t frames) const;

    uint32_t dstRate() const;
    uint32_t dstChannels() const;
    uint32_t dstSize(uint32_t bytes) const;
    // The processor at position index (0-based), null past the end.
    DspProcessor* handleAt(uint32_t index) const;
    uint32_t count() const { return static_cast<uint32_t>(nodes_.size()); }
    // Destroys every processor, first to last; the source format stays.
    void clear();

    // The block driver's view of the chain (see driveBlock).
    uint32_t pieceLimit() const;
    PieceInput pieceInput() const;
    PieceOutput runPiece(uint32_t frames);

private:
    struct Node {
        std::unique_ptr<DspProcessor> processor;
        uint32_t order = 0;
    };

    static constexpr uint32_t kMark = 0x6e696863; // "chin" in memory

    void propagate();
    // The most output frames a piece of `frames` frames leaves at the end.
    uint32_t pieceOutputBound(uint32_t frames) const;
    bool contains(const DspProcessor* processor) const;
    bool allReady() const;

    // First, so that a handle's first bytes tell a chain from other objects.
    uint32_t mark_ = kMark;
    NothrowVector<Node> nodes_; // ascending order, arrival order among equals
    uint32_t frames_;
    uint32_t channels_;
    uint32_t rate_;
};

} // namespace dsp
