#include "wave_slice_processor.h"

#include "analysis/input_pieces.h"

#include <memory>
#include <new>

namespace dsp {

WaveSliceProcessor* WaveSliceProcessor::create(uint32_t frames, uint32_t channels, uint32_t rate,
                                               float startGateDb, float endGateDb,
                                               float risePercent, float minSeconds) {
    if (frames == 0 || rate == 0) {
        return nullptr;
    }
    std::unique_ptr<WaveSliceProcessor> p(new (std::nothrow) WaveSliceProcessor());
    if (p == nullptr || !p->setupBuffers(frames, channels)) {
        return nullptr;
    }
    p->setInRate(rate);
    if (!p->slicer_.setup(frames, static_cast<float>(rate), startGateDb, endGateDb, risePercent,
                          minSeconds)) {
        return nullptr;
    }
    return p.release();
}

uint32_t WaveSliceProcessor::analyze(const int16_t* src, uint32_t bytes) {
    if (!isReady() || inFrames() == 0) {
        return 0;
    }
    // A chain may have resized the work buffers; the slicer's own scratch
    // keeps the size it was set up with and it splits longer pieces itself.
    // No right buffer: stereo is mixed down to (L + R) >> 1.
    measureInPieces(src, bytes / (2 * inChannels()), inFrames(),
                    PieceInput{work(0), nullptr, inChannels()},
                    [&](uint32_t, uint32_t piece) { slicer_.analyze(work(0), piece); });
    return 1;
}

SliceRecord* WaveSliceProcessor::getSlice(uint32_t index) {
    slicer_.closeOpenSlice();
    return slicer_.slice(index);
}

} // namespace dsp
