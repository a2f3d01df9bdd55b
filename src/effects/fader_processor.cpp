#include "fader_processor.h"

#include "core/sample_convert.h"

#include <new>

namespace dsp {

FaderProcessor* FaderProcessor::create(uint32_t frames, uint32_t channels, uint32_t rate,
                                       float crossPosition, float level0Db, float level1Db) {
    FaderProcessor* fader = new (std::nothrow) FaderProcessor;
    if (fader == nullptr) {
        return nullptr;
    }
    if (!fader->setupBuffers(frames, channels)) {
        delete fader;
        return nullptr;
    }
    fader->inRate = rate;
    fader->outRate = rate;
    fader->initialCross = crossPosition;
    fader->initialLevel0 = level0Db;
    fader->initialLevel1 = level1Db;
    fader->curveSet = 0;
    fader->initialiseRamps(frames, rate);
    return fader;
}

void FaderProcessor::initialiseRamps(uint32_t frames, uint32_t rate) {
    float rateF = static_cast<float>(rate);
    faders[0][0].initialise(frames, rateF, initialLevel0);
    faders[0][1].initialise(frames, rateF, initialLevel0);
    faders[1][0].initialise(frames, rateF, initialLevel1);
    faders[1][1].initialise(frames, rateF, initialLevel1);
    cross[0].initialise(frames, rateF, initialCross);
    cross[1].initialise(frames, rateF, initialCross);
}

void FaderProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    setupBuffers(frames, channels);
    inRate = rate;
    outRate = rate;
    initialiseRamps(frames, rate);
    if (curveSet == 1) {
        for (CrossFadeRamp& ramp : cross) {
            ramp.setCurve(curve[0], curve[1], curve[2], curve[3]);
        }
    }
}

uint32_t FaderProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                        uint32_t frames) {
    if (channel > 1) {
        return 0;
    }
    faders[0][channel].process(in, out, frames);
    return frames;
}

uint32_t FaderProcessor::processChained(const float* inL, const float* inR, float* outL,
                                        float* outR, uint32_t frames) {
    faders[0][0].process(inL, outL, frames);
    if (inChannels == 2) {
        faders[0][1].process(inR, outR, frames);
    }
    return frames;
}

uint32_t FaderProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    return interleavedTemplate(src, dst, bytes);
}

bool FaderProcessor::setFaderAction(uint32_t fader, float startSeconds, float endSeconds,
                                    float targetDb) {
    if (fader > 1) {
        return false;
    }
    faders[fader][0].setAction(startSeconds, endSeconds, targetDb);
    faders[fader][1].setAction(startSeconds, endSeconds, targetDb);
    return true;
}

bool FaderProcessor::delFaderAction(uint32_t fader, float startSeconds, float endSeconds) {
    if (fader > 1) {
        return false;
    }
    faders[fader][0].removeRange(startSeconds, endSeconds);
    faders[fader][1].removeRange(startSeconds, endSeconds);
    return true;
}

void FaderProcessor::setCrossFaderAction(float startSeconds, float endSeconds,
                                         float targetPosition) {
    cross[0].setAction(startSeconds, endSeconds, targetPosition);
    cross[1].setAction(startSeconds, endSeconds, targetPosition);
}

void FaderProcessor::delCrossFaderAction(float startSeconds, float endSeconds) {
    cross[0].removeRange(startSeconds, endSeconds);
    cross[1].removeRange(startSeconds, endSeconds);
}

void FaderProcessor::setCrossFaderCurve(float centreDb, float fallDb, float riseWidth,
                                        float fallWidth) {
    for (CrossFadeRamp& ramp : cross) {
        ramp.setCurve(centreDb, fallDb, riseWidth, fallWidth);
    }
    curve[0] = centreDb;
    curve[1] = fallDb;
    curve[2] = riseWidth;
    curve[3] = fallWidth;
    curveSet = 1;
}

bool FaderProcessor::fade(uint32_t fader, const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (fader > 1 || ready != 1 || inFrames == 0) {
        return false;
    }
    // Blocks beyond the configured size go through in pieces that fit.
    const uint32_t frameBytes = 2 * inChannels;
    uint32_t frames = bytes / frameBytes;
    while (frames > 0) {
        uint32_t piece = frames < inFrames ? frames : inFrames;
        convertToFloat(src, piece * frameBytes, work[0], work[1], inChannels);
        faders[fader][0].process(work[0], work[2], piece);
        if (inChannels > 1) {
            faders[fader][1].process(work[1], work[3], piece);
        }
        convertToInt16(work[2], work[3], piece, dst, inChannels);
        src += piece * inChannels;
        dst += piece * inChannels;
        frames -= piece;
    }
    return true;
}

bool FaderProcessor::crossFade(const int16_t* srcA, const int16_t* srcB, int16_t* dst,
                               uint32_t bytes) {
    if (ready != 1 || inFrames == 0) {
        return false;
    }
    const uint32_t frameBytes = 2 * inChannels;
    uint32_t frames = bytes / frameBytes;
    while (frames > 0) {
        uint32_t piece = frames < inFrames ? frames : inFrames;
        convertToFloat(srcA, piece * frameBytes, work[0], work[1], inChannels);
        faders[0][0].process(work[0], work[4], piece);
        if (inChannels > 1) {
            faders[0][1].process(work[1], work[5], piece);
        }
        convertToFloat(srcB, piece * frameBytes, work[0], work[1], inChannels);
        faders[1][0].process(work[0], work[2], piece);
        if (inChannels > 1) {
            faders[1][1].process(work[1], work[3], piece);
        }
        cross[0].mix(work[4], work[2], work[2], piece);
        if (inChannels > 1) {
            cross[1].mix(work[5], work[3], work[3], piece);
        }
        convertToInt16(work[2], work[3], piece, dst, inChannels);
        srcA += piece * inChannels;
        srcB += piece * inChannels;
        dst += piece * inChannels;
        frames -= piece;
    }
    return true;
}

} // namespace dsp
