#include "chorus_processor.h"

#include <memory>
#include <new>

namespace dsp {

ChorusProcessor* ChorusProcessor::create(uint32_t frames, uint32_t channels, uint32_t rate,
                                         const ChorusSettings& settings) {
    std::unique_ptr<ChorusProcessor> chorus(new (std::nothrow) ChorusProcessor);
    if (chorus == nullptr || !chorus->setupKeepingRate(frames, channels, rate)) {
        return nullptr;
    }
    for (ChorusVoices& voices : chorus->voiceSets_) {
        if (!voices.allocate(settings.voiceCount)) {
            return nullptr;
        }
    }
    chorus->settings_ = settings;
    chorus->startVoices(rate);
    return chorus.release();
}

void ChorusProcessor::startVoices(uint32_t rate) {
    for (ChorusVoices& voices : voiceSets_) {
        voices.start(rate, settings_);
    }
}

// The voice sets keep their histories and arrays: nothing is allocated.
void ChorusProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    setupKeepingRate(frames, channels, rate);
    startVoices(rate);
}

uint32_t ChorusProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                         uint32_t frames) {
    if (channel > 1) {
        return 0;
    }
    voiceSets_[channel].process(in, out, frames);
    return frames;
}

uint32_t ChorusProcessor::processChained(const float* inL, const float* inR, float* outL,
                                         float* outR, uint32_t frames) {
    if (inChannels() == 2) {
        ChorusVoices::processPair(voiceSets_[0], inL, outL, voiceSets_[1], inR, outR, frames);
    } else {
        voiceSets_[0].process(inL, outL, frames);
    }
    return frames;
}

void ChorusProcessor::setOrgMix(float percent) {
    settings_.orgMixPercent = percent;
    for (ChorusVoices& voices : voiceSets_) {
        voices.setOrgMix(percent);
    }
}

void ChorusProcessor::setMix(uint32_t voice, float percent) {
    if (voice >= settings_.voiceCount) {
        return;
    }
    settings_.mixPercent = percent;
    for (ChorusVoices& voices : voiceSets_) {
        voices.setVoiceMix(voice, percent);
    }
}

void ChorusProcessor::setSpeed(float seconds) {
    settings_.speed = seconds;
    for (ChorusVoices& voices : voiceSets_) {
        voices.setSpeed(seconds);
    }
}

void ChorusProcessor::setDepth(float milliseconds) {
    settings_.depthMs = milliseconds;
    for (ChorusVoices& voices : voiceSets_) {
        voices.setDepth(milliseconds);
    }
}

void ChorusProcessor::setDelaytime(float milliseconds) {
    settings_.delayMs = milliseconds;
    for (ChorusVoices& voices : voiceSets_) {
        voices.setDelayTime(milliseconds);
    }
}

} // namespace dsp
