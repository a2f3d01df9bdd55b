#include "wave_slice_processor.h"

#include "core/sample_convert.h"

#include <new>

namespace dsp {

WaveSliceProcessor* WaveSliceProcessor::create(uint32_t frames, uint32_t channels, uint32_t rate,
                                               float startGateDb, float endGateDb,
                                               float risePercent, float minSeconds) {
    if (frames == 0 || rate == 0) {
        return nullptr;
    }
    WaveSliceProcessor* p = new (std::nothrow) WaveSliceProcessor();
    if (p == nullptr) {
        return nullptr;
    }
    if (!p->setupBuffers(frames, channels)) {
        delete p;
        return nullptr;
    }
    p->inRate = rate;
    if (!p->slicer.setup(frames, static_cast<float>(rate), startGateDb, endGateDb, risePercent,
                         minSeconds)) {
        delete p;
        return nullptr;
    }
    return p;
}

uint32_t WaveSliceProcessor::analyze(const int16_t* src, uint32_t bytes) {
    if (ready != 1 || inFrames == 0 || slicer.configured == 0) {
        return 0;
    }
    // A chain may have resized the work buffers; the slicer's own scratch
    // keeps the size it was set up with and it splits longer pieces itself.
    const uint32_t total = bytes / (2 * inChannels);
    uint32_t done = 0;
    while (done < total) {
        const uint32_t piece = total - done < inFrames ? total - done : inFrames;
        // No right buffer: stereo is mixed down to (L + R) >> 1.
        convertToFloat(src + static_cast<size_t>(done) * inChannels, piece * 2 * inChannels,
                       work[0], nullptr, inChannels);
        slicer.analyze(work[0], piece);
        done += piece;
    }
    return 1;
}

SliceRecord* WaveSliceProcessor::getSlice(uint32_t index) {
    slicer.closeOpenSlice();
    return slicer.slice(index);
}

} // namespace dsp
