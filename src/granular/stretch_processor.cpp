#include "stretch_processor.h"

#include <algorithm>
#include <utility>

namespace dsp {

bool StretchProcessor::init(uint32_t frames, uint32_t channelCount, uint32_t rate, float scale,
                            float levelDb, float grain, float spacing) {
    if (!initEngines(frames, channelCount, rate, {scale, levelDb, grain, spacing})) {
        return false;
    }
    setOutFrames(firstChannel().pendingOutputFrames(frames));
    return replaceWorkBuffer(2, outFrames()) && replaceWorkBuffer(3, outFrames());
}

uint32_t StretchProcessor::requiredOutputFrames() const {
    return std::max(firstChannel().currentOutputFrames(inFrames()),
                    firstChannel().pendingOutputFrames(inFrames()));
}

bool StretchProcessor::growOutputBuffers(uint32_t frames) {
    if (frames <= workCapacity(2) && work(2) != nullptr && work(3) != nullptr) {
        return true;
    }
    PoolBuffer left = PoolBuffer::allocate(frames);
    PoolBuffer right = left ? PoolBuffer::allocate(frames) : PoolBuffer();
    if (!right) {
        return false;
    }
    installWorkBuffer(2, std::move(left));
    installWorkBuffer(3, std::move(right));
    return true;
}

bool StretchProcessor::setScale(float scale) {
    // The block after next runs with the new factor, the next one still with
    // the in-use one: the buffers must hold the larger of the two.
    if (isReady()) {
        uint32_t needed = std::max(firstChannel().currentOutputFrames(inFrames()),
                                   StretchChannel::outputFramesForScale(scale, inFrames()));
        if (!growOutputBuffers(needed)) {
            return false;
        }
    }
    applySetting(scale);
    return true;
}

void StretchProcessor::configure(uint32_t frames, uint32_t channelCount, uint32_t rate) {
    if (!setupBuffers(frames, channelCount) || !changeRate(rate)) {
        return;
    }
    setOutFrames(firstChannel().pendingOutputFrames(frames));
    // The next block still runs with the in-use factor, which may need more.
    growOutputBuffers(requiredOutputFrames());
}

uint32_t StretchProcessor::getDstSize(uint32_t srcBytes) {
    return firstChannel().pendingOutputFrames(srcBytes);
}

uint32_t StretchProcessor::pieceOutputBound(uint32_t frames) const {
    return std::max(firstChannel().currentOutputFrames(frames),
                    firstChannel().pendingOutputFrames(frames));
}

uint32_t StretchProcessor::largestPiece() const {
    uint32_t piece = inFrames();
    const uint32_t capacity = workCapacity(2);
    // Only below inFrames when the buffers could not be grown: shrink the
    // piece until its output fits (truncation per 32768-frame block can only
    // make the real output smaller than this estimate).
    while (piece > 0 && firstChannel().currentOutputFrames(piece) > capacity) {
        const uint32_t fit = firstChannel().currentInputFrames(capacity);
        piece = fit < piece ? fit : piece - 1;
    }
    return piece;
}

uint32_t StretchProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    return runInterleaved(src, dst, bytes);
}

} // namespace dsp
