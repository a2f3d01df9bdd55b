#include "chorus_processor.h"

#include "core/sample_convert.h"

#include <new>

namespace dsp {

ChorusProcessor* ChorusProcessor::create(uint32_t frames, uint32_t channels, uint32_t rate,
                                         uint32_t voices, float delay, float depth,
                                         float lfoSeconds, float mix, float orgMix) {
    ChorusProcessor* chorus = new (std::nothrow) ChorusProcessor;
    if (chorus == nullptr) {
        return nullptr;
    }
    chorus->voiceCount = voices;
    chorus->delayMs = delay;
    chorus->depthMs = depth;
    chorus->speed = lfoSeconds;
    chorus->mixPercent = mix;
    chorus->orgMixPercent = orgMix;
    if (!chorus->setupBuffers(frames, channels)) {
        delete chorus;
        return nullptr;
    }
    chorus->inRate = rate;
    chorus->outRate = rate;
    if (!chorus->setupVoices(rate)) {
        delete chorus;
        return nullptr;
    }
    return chorus;
}

bool ChorusProcessor::setupVoices(uint32_t rate) {
    for (ChorusVoices& voices : voiceSets) {
        if (!voices.setup(rate, voiceCount, delayMs, depthMs, speed, mixPercent, orgMixPercent,
                          ChorusDelayLine::kCapacity)) {
            return false;
        }
    }
    return true;
}

void ChorusProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    setupBuffers(frames, channels);
    inRate = rate;
    outRate = rate;
    // The histories keep their size, so this reuses them; a failure leaves
    // the voice set unconfigured and passing nothing.
    setupVoices(rate);
}

uint32_t ChorusProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                         uint32_t frames) {
    if (channel > 1) {
        return 0;
    }
    voiceSets[channel].process(in, out, frames);
    return frames;
}

uint32_t ChorusProcessor::processChained(const float* inL, const float* inR, float* outL,
                                         float* outR, uint32_t frames) {
    if (inChannels == 2) {
        ChorusVoices::processPair(voiceSets[0], inL, outL, voiceSets[1], inR, outR, frames);
    } else {
        voiceSets[0].process(inL, outL, frames);
    }
    return frames;
}

// The standard interleaved step, with both channels run together.
uint32_t ChorusProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (ready != 1 || inFrames == 0) {
        return bytes;
    }
    const uint32_t frameBytes = 2 * inChannels;
    for (uint32_t frames = bytes / frameBytes; frames > 0;) {
        const uint32_t piece = frames < inFrames ? frames : inFrames;
        convertToFloat(src, piece * frameBytes, work[0], work[1], inChannels);
        processChained(work[0], work[1], work[2], work[3], piece);
        convertToInt16(work[2], work[3], piece, dst, inChannels);
        src += piece * inChannels;
        dst += piece * inChannels;
        frames -= piece;
    }
    return bytes;
}

void ChorusProcessor::setOrgMix(float percent) {
    for (ChorusVoices& voices : voiceSets) {
        voices.setOrgMix(percent);
    }
    orgMixPercent = percent;
}

void ChorusProcessor::setMix(uint32_t voice, float percent) {
    if (voice >= voiceCount) {
        return;
    }
    for (ChorusVoices& voices : voiceSets) {
        voices.setVoiceMix(voice, percent);
    }
    mixPercent = percent;
}

void ChorusProcessor::setSpeed(float seconds) {
    for (ChorusVoices& voices : voiceSets) {
        voices.setSpeed(seconds);
    }
    speed = seconds;
}

void ChorusProcessor::setDepth(float milliseconds) {
    for (ChorusVoices& voices : voiceSets) {
        voices.setDepth(milliseconds);
    }
    depthMs = milliseconds;
}

void ChorusProcessor::setDelaytime(float milliseconds) {
    for (ChorusVoices& voices : voiceSets) {
        voices.setDelayTime(milliseconds);
    }
    delayMs = milliseconds;
}

} // namespace dsp
