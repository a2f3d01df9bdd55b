// A processing chain: processors run one after another on the same block,
// in ascending order of a sort key (stable among equal keys), with one
// conversion from 16-bit samples at the start and one back at the end. The
// chain keeps each processor's input format equal to its predecessor's
// output format (the first one's to the chain's source format) and owns the
// processors added to it.
#pragma once

#include "core/processor.h"

#include <cstdint>

namespace dsp {

struct ChainNode {
    ChainNode* next = nullptr; // toward tail
    ChainNode* prev = nullptr; // toward head
    DspProcessor* handle = nullptr;
    uint32_t order = 0;
};

class DspChain {
public:
    DspChain(uint32_t sourceFrames, uint32_t sourceChannels, uint32_t sourceRate)
        : frames(sourceFrames), channels(sourceChannels), rate(sourceRate) {}
    // Destroys the processors it holds.
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
    // Runs a block through every processor; returns the bytes written. An
    // empty chain copies the block. Returns 0 and writes nothing when a
    // processor is not ready.
    uint32_t send(const int16_t* src, int16_t* dst, uint32_t bytes);

    uint32_t dstRate() const;
    uint32_t dstChannels() const;
    uint32_t dstSize(uint32_t bytes) const;
    // The processor at position index (0-based), null past the end.
    DspProcessor* handleAt(uint32_t index) const;
    // Destroys every processor and node; the source format stays.
    void clear();

    ChainNode* head = nullptr;
    ChainNode* tail = nullptr;
    uint32_t count = 0;
    uint32_t frames;
    uint32_t channels;
    uint32_t rate;

private:
    void propagate();
    bool contains(const DspProcessor* processor) const;
    bool allReady() const;
};

} // namespace dsp
