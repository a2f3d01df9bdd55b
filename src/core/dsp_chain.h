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
    // Destroys the processors it holds, first to last.
    ~DspChain();
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

    void propagate();
    bool contains(const DspProcessor* processor) const;
    bool allReady() const;

    NothrowVector<Node> nodes_; // ascending order, arrival order among equals
    uint32_t frames_;
    uint32_t channels_;
    uint32_t rate_;
};

} // namespace dsp
