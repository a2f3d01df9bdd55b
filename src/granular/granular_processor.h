// What the granular pitch shifter and time stretcher share as processors: two
// channel engines (both set up, even for mono) and the arguments they were
// built from, kept to rebuild them when a configure brings a new rate.
#pragma once

#include "core/processor.h"

#include <cstdint>

namespace dsp {

// The arguments a granular engine is built from.
struct GranularArguments {
    float setting; // pitch in cents or stretch scale, as given (unclamped)
    float outLevelDb;
    float grainSeconds;
    float spacingSeconds;
};

// Channel provides setup(rate, setting, outLevelDb, grainSeconds,
// spacingSeconds), setOutLevel(dB) and process(in, out, frames), which
// returns the output frames; ApplySetting sets its pending setting.
template <typename Channel, void (Channel::*ApplySetting)(float)>
class GranularProcessor : public DspProcessor {
public:
    // Both engines, from the next sample on.
    void setOutLevel(float levelDb) {
        for (Channel& channel : channels_) {
            channel.setOutLevel(levelDb);
        }
        arguments_.outLevelDb = levelDb;
    }

    uint32_t processChannel(uint32_t channel, const float* in, float* out,
                            uint32_t frames) override {
        if (channel > 1) {
            return 0;
        }
        return channels_[channel].process(in, out, frames);
    }
    // Channel 0, then channel 1 for stereo; channel 0's output frames.
    uint32_t processChained(const float* inL, const float* inR, float* outL, float* outR,
                            uint32_t frames) override {
        const uint32_t produced = channels_[0].process(inL, outL, frames);
        if (inChannels() == 2) {
            channels_[1].process(inR, outR, frames);
        }
        return produced;
    }

protected:
    explicit GranularProcessor(uint32_t tag) : DspProcessor(tag) {}

    // Buffers and both engines at `rate`. False when the rate is 0, the grain
    // is unusable or anything cannot be allocated.
    bool initEngines(uint32_t frames, uint32_t channelCount, uint32_t rate,
                     const GranularArguments& arguments) {
        if (rate == 0 || !setupBuffers(frames, channelCount)) {
            return false;
        }
        setInRate(rate);
        setOutRate(rate);
        arguments_ = arguments;
        return setupEngines(rate);
    }

    // The rate step of configure: the engines are rebuilt (history and grains
    // reset) only for a new rate, never for 0. An engine that cannot be set
    // up for the new rate leaves the processor without buffers (not ready)
    // and returns false, so a chain refuses to send and retries the whole
    // configuration instead of running that engine at its old rate.
    bool changeRate(uint32_t rate) {
        setInRate(rate);
        if (rate != outRate() && rate != 0 && !setupEngines(rate)) {
            releaseBuffers();
            return false;
        }
        setOutRate(rate);
        return true;
    }

    // The pending setting of both engines.
    void applySetting(float setting) {
        for (Channel& channel : channels_) {
            (channel.*ApplySetting)(setting);
        }
        arguments_.setting = setting;
    }

    // Channel 0, whose sizes stand for both.
    const Channel& firstChannel() const { return channels_[0]; }

private:
    bool setupEngines(uint32_t rate) {
        const GranularArguments& a = arguments_;
        for (Channel& channel : channels_) {
            if (!channel.setup(rate, a.setting, a.outLevelDb, a.grainSeconds, a.spacingSeconds)) {
                return false;
            }
        }
        return true;
    }

    Channel channels_[2];
    GranularArguments arguments_{};
};

} // namespace dsp
