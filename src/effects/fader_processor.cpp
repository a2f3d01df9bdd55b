#include "fader_processor.h"

#include <memory>
#include <new>

namespace dsp {

FaderProcessor* FaderProcessor::create(uint32_t frames, uint32_t channels, uint32_t rate,
                                       float crossPosition, float level0Db, float level1Db) {
    std::unique_ptr<FaderProcessor> fader(new (std::nothrow) FaderProcessor);
    if (fader == nullptr || !fader->setupKeepingRate(frames, channels, rate)) {
        return nullptr;
    }
    fader->initialLevels_[0] = level0Db;
    fader->initialLevels_[1] = level1Db;
    fader->initialCross_ = crossPosition;
    fader->initialiseRamps(rate);
    return fader.release();
}

void FaderProcessor::initialiseRamps(uint32_t rate) {
    const float rateF = static_cast<float>(rate);
    for (uint32_t fader = 0; fader < 2; ++fader) {
        for (FadeRamp& ramp : faders_[fader]) {
            ramp.initialise(rateF, initialLevels_[fader]);
        }
    }
    for (CrossFadeRamp& ramp : cross_) {
        ramp.initialise(rateF, initialCross_);
    }
}

void FaderProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    setupKeepingRate(frames, channels, rate);
    initialiseRamps(rate);
}

uint32_t FaderProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                        uint32_t frames) {
    if (channel > 1) {
        return 0;
    }
    faders_[0][channel].process(in, out, frames);
    return frames;
}

uint32_t FaderProcessor::processChained(const float* inL, const float* inR, float* outL,
                                        float* outR, uint32_t frames) {
    fadeChannels(0, inL, inR, outL, outR, frames);
    return frames;
}

bool FaderProcessor::setFaderAction(uint32_t fader, float startSeconds, float endSeconds,
                                    float targetDb) {
    if (fader > 1) {
        return false;
    }
    for (FadeRamp& ramp : faders_[fader]) {
        ramp.setAction(startSeconds, endSeconds, targetDb);
    }
    return true;
}

bool FaderProcessor::delFaderAction(uint32_t fader, float startSeconds, float endSeconds) {
    if (fader > 1) {
        return false;
    }
    for (FadeRamp& ramp : faders_[fader]) {
        ramp.removeRange(startSeconds, endSeconds);
    }
    return true;
}

void FaderProcessor::setCrossFaderAction(float startSeconds, float endSeconds,
                                         float targetPosition) {
    for (CrossFadeRamp& ramp : cross_) {
        ramp.setAction(startSeconds, endSeconds, targetPosition);
    }
}

void FaderProcessor::delCrossFaderAction(float startSeconds, float endSeconds) {
    for (CrossFadeRamp& ramp : cross_) {
        ramp.removeRange(startSeconds, endSeconds);
    }
}

// The current gains stay until a cross-fader action runs; the ramps keep the
// curve across reconfiguration.
void FaderProcessor::setCrossFaderCurve(float centreDb, float fallDb, float riseWidth,
                                        float fallWidth) {
    const CrossFadeCurve curve(centreDb, fallDb, riseWidth, fallWidth);
    for (CrossFadeRamp& ramp : cross_) {
        ramp.setCurve(curve);
    }
}

void FaderProcessor::fadeChannels(uint32_t fader, const float* inL, const float* inR, float* outL,
                                  float* outR, uint32_t frames) {
    faders_[fader][0].process(inL, outL, frames);
    if (inChannels() == 2) {
        faders_[fader][1].process(inR, outR, frames);
    }
}

bool FaderProcessor::fade(uint32_t fader, const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (fader > 1 || !isReady() || inFrames() == 0) {
        return false;
    }
    Int16Block block(src, dst);
    runPiecesWith(block.in, block.out, bytes / (2 * inChannels()), [&](uint32_t frames) {
        fadeChannels(fader, work(0), work(1), work(2), work(3), frames);
        return frames;
    });
    return true;
}

// Fader 0 over the first input into work[4]/work[5], fader 1 over the second
// into work[2]/work[3], then the cross-fader mixes both into work[2]/work[3].
bool FaderProcessor::crossFade(const int16_t* srcA, const int16_t* srcB, int16_t* dst,
                               uint32_t bytes) {
    if (!isReady() || inFrames() == 0) {
        return false;
    }
    Int16Block block(srcA, dst);
    InterleavedInput second(srcB, block.rule);
    runPiecesWith(block.in, block.out, bytes / (2 * inChannels()), [&](uint32_t frames) {
        fadeChannels(0, work(0), work(1), work(4), work(5), frames);
        second.read(frames, pieceInput());
        fadeChannels(1, work(0), work(1), work(2), work(3), frames);
        cross_[0].mix(work(4), work(2), work(2), frames);
        if (inChannels() == 2) {
            cross_[1].mix(work(5), work(3), work(3), frames);
        }
        return frames;
    });
    return true;
}

} // namespace dsp
