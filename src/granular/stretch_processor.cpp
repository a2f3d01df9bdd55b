#include "stretch_processor.h"

#include "core/fastmem_pool.h"
#include "core/numeric.h"
#include "core/sample_convert.h"

#include <algorithm>

namespace dsp {

bool StretchProcessor::init(uint32_t frames, uint32_t channelCount, uint32_t rate, float newScale,
                            float levelDb, float grain, float spacing) {
    if (rate == 0 || !setupBuffers(frames, channelCount)) {
        return false;
    }
    inRate = rate;
    outRate = rate;
    uint32_t produced = 0;
    for (StretchChannel& channel : channels) {
        if (!channel.setup(frames, rate, newScale, levelDb, grain, spacing, &produced)) {
            return false;
        }
    }
    outFrames = channels[0].pendingOutputFrames(frames);
    if (!replaceWorkBuffer(2, outFrames) || !replaceWorkBuffer(3, outFrames)) {
        return false;
    }
    outCapacity = outFrames;
    scale = newScale;
    outLevelDb = levelDb;
    grainSeconds = grain;
    spacingSeconds = spacing;
    return true;
}

uint32_t StretchProcessor::requiredOutputFrames() const {
    const StretchChannel& channel = channels[0];
    return std::max(channel.currentOutputFrames(inFrames), channel.pendingOutputFrames(inFrames));
}

bool StretchProcessor::growOutputBuffers(uint32_t frames) {
    if (frames <= outCapacity && work[2] != nullptr && work[3] != nullptr) {
        return true;
    }
    if (frames > (UINT32_MAX - 15) / 4) {
        return false;
    }
    FastmemPool& pool = fastmemPool();
    float* left = static_cast<float*>(pool.allocate(frames * 4));
    float* right = left != nullptr ? static_cast<float*>(pool.allocate(frames * 4)) : nullptr;
    if (right == nullptr) {
        if (left != nullptr) {
            pool.release(left);
        }
        return false;
    }
    for (int index = 2; index <= 3; ++index) {
        if (work[index] != nullptr) {
            pool.release(work[index]);
        }
    }
    work[2] = left;
    work[3] = right;
    outCapacity = frames;
    return true;
}

bool StretchProcessor::setScale(float newScale) {
    // The block after next runs with the new factor, the next one still with
    // the in-use one: the buffers must hold the larger of the two.
    if (ready == 1) {
        uint32_t needed = std::max(channels[0].currentOutputFrames(inFrames),
                                   StretchChannel::outputFramesForScale(newScale, inFrames));
        if (!growOutputBuffers(needed)) {
            return false;
        }
    }
    for (StretchChannel& channel : channels) {
        channel.setScale(newScale);
    }
    scale = newScale;
    return true;
}

void StretchProcessor::setOutLevel(float levelDb) {
    for (StretchChannel& channel : channels) {
        channel.setOutLevel(levelDb);
    }
    outLevelDb = levelDb;
}

void StretchProcessor::configure(uint32_t frames, uint32_t channelCount, uint32_t rate) {
    // setupBuffers replaces all six buffers (at inFrames floats) unless it
    // keeps the current ones.
    bool keepsBuffers = ready == 1 && frames <= inFrames;
    if (!setupBuffers(frames, channelCount)) {
        outCapacity = 0;
        return;
    }
    if (!keepsBuffers) {
        outCapacity = frames;
    }
    inRate = rate;
    if (rate != outRate && rate != 0) {
        // As for the pitch shifter: an engine that cannot be set up leaves
        // the processor without buffers rather than running at its old rate.
        uint32_t produced = 0;
        for (StretchChannel& channel : channels) {
            if (!channel.setup(frames, rate, scale, outLevelDb, grainSeconds, spacingSeconds,
                               &produced)) {
                releaseBuffers();
                outCapacity = 0;
                return;
            }
        }
    }
    outRate = rate;
    outFrames = channels[0].pendingOutputFrames(frames);
    // The next block still runs with the in-use factor, which may need more.
    growOutputBuffers(requiredOutputFrames());
}

uint32_t StretchProcessor::getDstSize(uint32_t srcBytes) {
    return channels[0].pendingOutputFrames(srcBytes);
}

uint32_t StretchProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                          uint32_t frames) {
    if (channel > 1) {
        return 0;
    }
    return channels[channel].process(in, out, frames);
}

uint32_t StretchProcessor::processChained(const float* inL, const float* inR, float* outL,
                                          float* outR, uint32_t frames) {
    uint32_t produced = channels[0].process(inL, outL, frames);
    if (inChannels == 2) {
        channels[1].process(inR, outR, frames);
    }
    return produced;
}

uint32_t StretchProcessor::largestPiece() const {
    uint32_t piece = inFrames;
    const StretchChannel& channel = channels[0];
    // Only reached when the buffers could not be grown: shrink the piece
    // until its output fits (truncation per 32768-frame block can only make
    // the real output smaller than this estimate).
    while (piece > 0 && channel.currentOutputFrames(piece) > outCapacity) {
        uint32_t fit = channel.bypass != 0 ? outCapacity
                                           : truncToUint32(static_cast<double>(outCapacity) /
                                                           static_cast<double>(channel.factor));
        piece = fit < piece ? fit : piece - 1;
    }
    return piece;
}

uint32_t StretchProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (ready != 1 || work[2] == nullptr || work[3] == nullptr) {
        return 0;
    }
    const uint32_t frameBytes = 2 * inChannels;
    uint32_t frames = bytes / frameBytes;
    uint32_t written = 0;
    while (frames > 0) {
        uint32_t piece = std::min(frames, largestPiece());
        if (piece == 0) {
            break;
        }
        convertToFloat(src, piece * frameBytes, work[0], work[1], inChannels);
        uint32_t produced = processChannel(0, work[0], work[2], piece);
        if (inChannels == 2) {
            processChannel(1, work[1], work[3], piece);
        }
        convertToInt16(work[2], work[3], produced, dst, inChannels);
        src += piece * inChannels;
        dst += produced * inChannels;
        written += produced * frameBytes;
        frames -= piece;
    }
    return written;
}

} // namespace dsp
