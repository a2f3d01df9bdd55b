#include "processor.h"

#include <utility>

namespace dsp {

DspProcessor::~DspProcessor() {
    releaseBuffers();
    // A volatile store, so the compiler cannot drop it as dead at the end of
    // the object's lifetime: hosts rely on a stale handle being refused.
    *static_cast<volatile uint32_t*>(&tag_) = kTagNone;
}

void DspProcessor::releaseBuffers() {
    for (PoolBuffer& buffer : work_) {
        buffer.reset();
    }
    ready_ = false;
}

void DspProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    setupBuffers(frames, channels);
    inRate_ = rate;
}

uint32_t DspProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    runInterleaved(src, dst, bytes);
    return bytes;
}

uint32_t DspProcessor::getDstSize(uint32_t srcBytes) {
    return srcBytes;
}

bool DspProcessor::setupBuffers(uint32_t frames, uint32_t channels) {
    // Only mono and stereo exist; anything else is refused rather than
    // letting a later conversion run past the buffers.
    if (channels != 1 && channels != 2) {
        releaseBuffers();
        return false;
    }
    if (!(ready_ && frames <= inFrames_)) {
        releaseBuffers();
        for (PoolBuffer& buffer : work_) {
            buffer = PoolBuffer::allocate(frames);
            if (!buffer) {
                releaseBuffers();
                return false;
            }
        }
    }
    outFrames_ = frames;
    outChannels_ = channels;
    inChannels_ = channels;
    inFrames_ = frames;
    inRate_ = 0;
    ready_ = true;
    return true;
}

bool DspProcessor::setupKeepingRate(uint32_t frames, uint32_t channels, uint32_t rate) {
    const bool ready = setupBuffers(frames, channels);
    inRate_ = rate;
    outRate_ = rate;
    return ready;
}

bool DspProcessor::replaceWorkBuffer(int index, uint32_t floats) {
    work_[index].reset();
    work_[index] = PoolBuffer::allocate(floats);
    return static_cast<bool>(work_[index]);
}

void DspProcessor::installWorkBuffer(int index, PoolBuffer buffer) {
    work_[index] = std::move(buffer);
}

uint32_t DspProcessor::pieceLimit() const {
    return ready_ ? largestPiece() : 0;
}

PieceInput DspProcessor::pieceInput() const {
    return PieceInput{work(0), work(1), inChannels_};
}

PieceOutput DspProcessor::outputOf(uint32_t frames) const {
    return PieceOutput{work(2), inChannels_ == 2 ? work(3) : nullptr, frames, outChannels_};
}

PieceOutput DspProcessor::runPiece(uint32_t frames) {
    return outputOf(processChained(work(0), work(1), work(2), work(3), frames));
}

uint32_t DspProcessor::runPieces(InterleavedInput& in, InterleavedOutput& out, uint32_t frames) {
    return driveBlock(*this, in, out, frames);
}

uint32_t DspProcessor::runInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (!ready_) {
        return 0;
    }
    Int16Block block(src, dst);
    const uint32_t frames = runPieces(block.in, block.out, bytes / (2 * inChannels_));
    return frames * 2 * outChannels_;
}

void destroyProcessor(DspProcessor* processor) {
    delete processor;
}

} // namespace dsp
