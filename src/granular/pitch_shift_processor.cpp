#include "pitch_shift_processor.h"

namespace dsp {

bool PitchShiftProcessor::init(uint32_t frames, uint32_t channelCount, uint32_t rate, float cents,
                               float levelDb, float grain, float spacing) {
    if (rate == 0 || !setupBuffers(frames, channelCount)) {
        return false;
    }
    inRate = rate;
    outRate = rate;
    for (PitchShiftChannel& channel : channels) {
        if (!channel.setup(rate, cents, levelDb, grain, spacing)) {
            return false;
        }
    }
    pitchCents = cents;
    outLevelDb = levelDb;
    grainSeconds = grain;
    spacingSeconds = spacing;
    return true;
}

void PitchShiftProcessor::setPitch(float cents) {
    for (PitchShiftChannel& channel : channels) {
        channel.setPitch(cents);
    }
    pitchCents = cents;
}

void PitchShiftProcessor::setOutLevel(float levelDb) {
    for (PitchShiftChannel& channel : channels) {
        channel.setOutLevel(levelDb);
    }
    outLevelDb = levelDb;
}

void PitchShiftProcessor::configure(uint32_t frames, uint32_t channelCount, uint32_t rate) {
    setupBuffers(frames, channelCount);
    inRate = rate;
    if (rate != outRate && rate != 0) {
        // An engine that cannot be set up for the new rate leaves the
        // processor without buffers (not ready), so a chain refuses to send
        // and retries the whole configuration, instead of running that
        // engine at its old rate.
        for (PitchShiftChannel& channel : channels) {
            if (!channel.setup(rate, pitchCents, outLevelDb, grainSeconds, spacingSeconds)) {
                releaseBuffers();
                return;
            }
        }
    }
    outRate = rate;
}

uint32_t PitchShiftProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                             uint32_t frames) {
    if (channel > 1) {
        return 0;
    }
    channels[channel].process(in, out, frames);
    return frames;
}

uint32_t PitchShiftProcessor::processChained(const float* inL, const float* inR, float* outL,
                                             float* outR, uint32_t frames) {
    channels[0].process(inL, outL, frames);
    if (inChannels == 2) {
        channels[1].process(inR, outR, frames);
    }
    return frames;
}

uint32_t PitchShiftProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    return interleavedTemplate(src, dst, bytes);
}

} // namespace dsp
