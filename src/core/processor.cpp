#include "processor.h"

#include "fastmem_pool.h"
#include "sample_convert.h"

namespace dsp {

DspProcessor::~DspProcessor() {
    releaseBuffers();
    // A volatile store, so the compiler cannot drop it as dead at the end of
    // the object's lifetime: hosts rely on a stale handle being refused.
    *static_cast<volatile uint32_t*>(&tag) = kTagNone;
}

void DspProcessor::releaseBuffers() {
    if (ready == 1) {
        for (float*& buffer : work) {
            if (buffer != nullptr) {
                fastmemPool().release(buffer);
            }
        }
    }
    for (float*& buffer : work) {
        buffer = nullptr;
    }
    ready = 0;
}

void DspProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    setupBuffers(frames, channels);
    inRate = rate;
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
    if (!(ready == 1 && frames <= inFrames)) {
        releaseBuffers();
        // frames * 4 must fit the pool's 32-bit sizes.
        if (frames > (UINT32_MAX - 15) / 4) {
            return false;
        }
        for (float*& buffer : work) {
            buffer = static_cast<float*>(fastmemPool().allocate(frames * 4));
            if (buffer == nullptr) {
                ready = 1; // so that releaseBuffers returns what was taken
                releaseBuffers();
                return false;
            }
        }
    }
    outFrames = frames;
    outChannels = channels;
    inChannels = channels;
    inFrames = frames;
    inRate = 0;
    ready = 1;
    return true;
}

bool DspProcessor::replaceWorkBuffer(int index, uint32_t floats) {
    if (work[index] != nullptr) {
        fastmemPool().release(work[index]);
        work[index] = nullptr;
    }
    if (floats > (UINT32_MAX - 15) / 4) {
        return false;
    }
    work[index] = static_cast<float*>(fastmemPool().allocate(floats * 4));
    return work[index] != nullptr;
}

uint32_t DspProcessor::interleavedTemplate(const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (ready != 1 || inFrames == 0) {
        return bytes;
    }
    const uint32_t frameBytes = 2 * inChannels;
    uint32_t frames = bytes / frameBytes;
    while (frames > 0) {
        uint32_t piece = frames < inFrames ? frames : inFrames;
        convertToFloat(src, piece * frameBytes, work[0], work[1], inChannels);
        processChannel(0, work[0], work[2], piece);
        if (inChannels == 2) {
            processChannel(1, work[1], work[3], piece);
        }
        convertToInt16(work[2], work[3], piece, dst, inChannels);
        src += piece * inChannels;
        dst += piece * inChannels;
        frames -= piece;
    }
    return bytes;
}

void destroyProcessor(DspProcessor* processor) {
    delete processor;
}

} // namespace dsp
