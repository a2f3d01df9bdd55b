#include "dsp_chain.h"

#include "sample_convert.h"

#include <algorithm>
#include <cstring>

namespace dsp {

DspChain::~DspChain() {
    clear();
    // A volatile store, kept although the object's lifetime ends here.
    *static_cast<volatile uint32_t*>(&mark_) = 0;
}

DspChain* DspChain::fromHandle(void* handle) {
    if (handle == nullptr) {
        return nullptr;
    }
    // Every object the library hands out is larger than the mark, and
    // reading its bytes says nothing about its type until they match.
    uint32_t mark = 0;
    std::memcpy(&mark, handle, sizeof mark);
    return mark == kMark ? static_cast<DspChain*>(handle) : nullptr;
}

bool DspChain::contains(const DspProcessor* processor) const {
    return std::any_of(nodes_.begin(), nodes_.end(),
                       [processor](const Node& node) { return node.processor.get() == processor; });
}

uint32_t DspChain::add(DspProcessor* processor, uint32_t sortKey) {
    // A processor held twice would be destroyed twice.
    if (processor == nullptr || !processor->isReady() || contains(processor) ||
        !tryReserve(nodes_, nodes_.size() + 1)) {
        return count();
    }
    // Behind the last node whose key is not greater, so equal keys keep the
    // order in which they were added.
    auto behind = std::upper_bound(nodes_.begin(), nodes_.end(), sortKey,
                                   [](uint32_t key, const Node& node) { return key < node.order; });
    nodes_.insert(behind, Node{std::unique_ptr<DspProcessor>(processor), sortKey});
    propagate();
    return count();
}

void DspChain::adjust(uint32_t sourceFrames, uint32_t sourceChannels, uint32_t sourceRate) {
    frames_ = sourceFrames;
    channels_ = sourceChannels;
    rate_ = sourceRate;
    propagate();
}

void DspChain::propagate() {
    uint32_t wantFrames = frames_;
    uint32_t wantChannels = channels_;
    uint32_t wantRate = rate_;
    for (Node& node : nodes_) {
        DspProcessor& p = *node.processor;
        // A processor left without buffers by an earlier configure is retried.
        if (!p.isReady() || p.inFrames() != wantFrames || p.inChannels() != wantChannels ||
            p.inRate() != wantRate) {
            p.configure(wantFrames, wantChannels, wantRate);
        }
        wantFrames = p.outFrames();
        wantChannels = p.outChannels();
        wantRate = p.outRate();
    }
}

bool DspChain::allReady() const {
    return std::all_of(nodes_.begin(), nodes_.end(), [](const Node& node) {
        return node.processor->isReady() && node.processor->inFrames() != 0;
    });
}

uint32_t DspChain::pieceLimit() const {
    return allReady() ? nodes_.front().processor->pieceLimit() : 0;
}

PieceInput DspChain::pieceInput() const {
    return nodes_.front().processor->pieceInput();
}

PieceOutput DspChain::runPiece(uint32_t frames) {
    DspProcessor* previous = nullptr;
    uint32_t n = frames;
    for (Node& node : nodes_) {
        DspProcessor* q = node.processor.get();
        if (previous == nullptr) {
            n = q->processChained(q->work(0), q->work(1), q->work(2), q->work(3), n);
        } else {
            // Never hand a processor more frames than its buffers hold; each
            // reads its predecessor's output buffers directly. A mono input
            // turned stereo (a resampler or Hqups) leaves one channel, which
            // stands for both.
            n = std::min(n, q->pieceLimit());
            const float* right =
                previous->inChannels() == 2 ? previous->work(3) : previous->work(2);
            n = q->processChained(previous->work(2), right, q->work(2), q->work(3), n);
        }
        previous = q;
    }
    return previous->outputOf(n);
}

uint32_t DspChain::sendPieces(InterleavedInput& in, InterleavedOutput& out, uint32_t frames) {
    if (nodes_.empty()) {
        return 0;
    }
    return driveBlock(*this, in, out, frames);
}

uint32_t DspChain::send(const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (nodes_.empty()) {
        passThroughCopy(src, dst, bytes);
        return bytes;
    }
    if (!allReady()) {
        return 0;
    }
    Int16Block block(src, dst);
    const DspProcessor& first = *nodes_.front().processor;
    const uint32_t frames = sendPieces(block.in, block.out, bytes / (2 * first.inChannels()));
    return frames * 2 * nodes_.back().processor->outChannels();
}

uint32_t DspChain::sendFloat(const float* src, float* dst, uint32_t frames) {
    if (nodes_.empty()) {
        std::memcpy(dst, src, static_cast<size_t>(frames) * channels_ * sizeof(float));
        return frames;
    }
    InterleavedInput in(src);
    InterleavedOutput out(dst);
    return sendPieces(in, out, frames);
}

uint32_t DspChain::pieceOutputBound(uint32_t frames) const {
    for (const Node& node : nodes_) {
        frames = node.processor->pieceOutputBound(std::min(frames, node.processor->pieceLimit()));
    }
    return frames;
}

uint32_t DspChain::dstSamples(uint32_t frames) const {
    uint64_t samples = static_cast<uint64_t>(frames) * channels_;
    if (!nodes_.empty()) {
        const uint32_t limit = pieceLimit();
        if (limit == 0) {
            return 0;
        }
        const uint64_t outFrames = static_cast<uint64_t>(frames / limit) * pieceOutputBound(limit) +
                                   pieceOutputBound(frames % limit);
        samples = outFrames * nodes_.back().processor->outChannels();
    }
    return samples > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(samples);
}

uint32_t DspChain::dstRate() const {
    return nodes_.empty() ? rate_ : nodes_.back().processor->outRate();
}

uint32_t DspChain::dstChannels() const {
    return nodes_.empty() ? channels_ : nodes_.back().processor->outChannels();
}

uint32_t DspChain::dstSize(uint32_t bytes) const {
    for (const Node& node : nodes_) {
        bytes = node.processor->getDstSize(bytes);
    }
    return bytes;
}

DspProcessor* DspChain::handleAt(uint32_t index) const {
    return index < nodes_.size() ? nodes_[index].processor.get() : nullptr;
}

void DspChain::clear() {
    for (Node& node : nodes_) {
        node.processor.reset();
    }
    nodes_.clear();
}

} // namespace dsp
