#include "hqups_processor.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace dsp {

namespace {

// Only 0 and 1 select a mode at setup; anything else means "off".
uint32_t setupMode(uint32_t mode) {
    return mode == 1 ? 1 : 0;
}

} // namespace

HqupsProcessor::HqupsProcessor(const HqupsSettings& settings)
    : DspProcessor(kTagHqups), settings_(settings) {
    settings_.activeMode = setupMode(settings.activeMode);
}

// Members are destroyed in reverse order: generators 1 and 0, then the
// converters, then the base returns the work buffers.
HqupsProcessor::~HqupsProcessor() = default;

HqupsProcessor* HqupsProcessor::create(SizedBy sizedBy, uint32_t frames, uint32_t channelsIn,
                                       uint32_t channelsOut, uint32_t srcRate,
                                       const HqupsSettings& settings) {
    if (srcRate == 0) {
        return nullptr;
    }
    std::unique_ptr<HqupsProcessor> p(new (std::nothrow) HqupsProcessor(settings));
    if (p == nullptr) {
        return nullptr;
    }
    const bool byOutput = sizedBy == SizedBy::kOutput;
    const uint32_t srcFrames = byOutput ? sourceFramesFor(frames, srcRate, kOutputRate) : frames;
    uint32_t converted = 0;
    if (!p->build(srcFrames, channelsIn, channelsOut, srcRate, byOutput ? frames : 0, converted)) {
        return nullptr;
    }
    p->setOutFrames(byOutput ? frames : converted);
    return p.release();
}

bool HqupsProcessor::build(uint32_t srcFrames, uint32_t channelsIn, uint32_t channelsOut,
                           uint32_t srcRate, uint32_t minOutputFrames, uint32_t& converted) {
    if ((channelsOut != 1 && channelsOut != 2) || !setupBuffers(srcFrames, channelsIn)) {
        return false;
    }
    setInRate(srcRate);
    setOutRate(kOutputRate);
    setOutChannels(channelsOut);
    if (!converters_.setup(srcFrames, srcRate, kOutputRate, settings_.conversion)) {
        return false;
    }
    converted = converters_.blockOutputFrames();
    // A source block sized for a given output can convert to one frame more
    // than asked for: size everything downstream for the larger count.
    const uint32_t held = std::max(converted, minOutputFrames);
    return setupGenerators(held) && ensureOutputBuffers(held, true);
}

bool HqupsProcessor::setupGenerators(uint32_t frames) {
    for (HarmonicGenerator& g : generators_) {
        if (g.setup(frames, kOutputRate, settings_.harmonics, settings_.mixPercent,
                    settings_.hpCutoffHz, setupMode(settings_.activeMode), kBandTaps) == 0) {
            return false;
        }
    }
    return true;
}

uint32_t HqupsProcessor::outputCapacity() const {
    uint32_t floats = workCapacity(2);
    for (int i = 3; i < kWorkBuffers; ++i) {
        floats = std::min(floats, workCapacity(i));
    }
    return floats;
}

bool HqupsProcessor::ensureOutputBuffers(uint32_t floats, bool replace) {
    if (!replace && outputCapacity() >= floats) {
        return true;
    }
    for (int i = 2; i < kWorkBuffers; ++i) {
        if (!replaceWorkBuffer(i, floats)) {
            return false;
        }
    }
    clearOutputBuffers(floats);
    return true;
}

// The bandwidth analysis reads a whole configured block from work[4] (or the
// stereo mix in the right output), also when a block is shorter: fresh pool
// memory is zeroed so that tail is defined and the output reproducible.
void HqupsProcessor::clearOutputBuffers(uint32_t floats) {
    for (int i = 2; i < kWorkBuffers; ++i) {
        std::memset(work(i), 0, static_cast<size_t>(floats) * sizeof(float));
    }
}

void HqupsProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    // setupBuffers replaces all six buffers (by frames floats) unless it can
    // keep them; fresh output buffers are cleared.
    const bool keepsBuffers = isReady() && frames <= inFrames();
    if (!setupBuffers(frames, channels)) {
        return;
    }
    if (!keepsBuffers) {
        clearOutputBuffers(frames);
    }
    setInRate(rate);
    setOutRate(kOutputRate);
    if (!converters_.setup(frames, rate, kOutputRate, settings_.conversion) ||
        !setupGenerators(converters_.blockOutputFrames()) ||
        !ensureOutputBuffers(converters_.blockOutputFrames(), false)) {
        // Not ready: the chain then passes nothing through this node.
        releaseBuffers();
        return;
    }
    setOutFrames(converters_.blockOutputFrames());
}

uint32_t HqupsProcessor::getDstSize(uint32_t n) {
    return converters_.outputFramesFor(n);
}

uint32_t HqupsProcessor::sourceSizeFor(uint32_t n) const {
    return sourceFramesFor(n, inRate(), kOutputRate);
}

uint32_t HqupsProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                        uint32_t frames) {
    if (!isReady() || channel > 1) {
        return 0;
    }
    const uint32_t n =
        converters_.convertChannel(channel, in, work(4), frames < inFrames() ? frames : inFrames());
    generators_[channel].processDetecting(currentRules().rule, work(4), out, n);
    return n;
}

uint32_t HqupsProcessor::processChained(const float* inL, const float* inR, float* outL,
                                        float* outR, uint32_t frames) {
    if (!isReady()) {
        return 0;
    }
    float* left = work(4);
    float* right = work(5);
    const bool stereo = inChannels() == 2;
    const uint32_t n = converters_.convert(inL, inR, left, right,
                                           frames < inFrames() ? frames : inFrames(), stereo);
    if (n == 0) {
        return 0;
    }
    // One bandwidth for both channels, from their mix (outR is free until
    // the right generator writes it).
    const float* analysed = left;
    if (stereo) {
        for (uint32_t i = 0; i < n; ++i) {
            outR[i] = (right[i] + left[i]) * 0.5f;
        }
        analysed = outR;
    }
    float cutoff = 0.0f;
    if (generators_[0].activeMode() == 1) {
        cutoff = generators_[0].analyzeCutoff(analysed);
    }
    // The rule is decided once for the block and handed to both channels.
    const ArithmeticRule rule = currentRules().rule;
    generators_[0].process(rule, left, outL, cutoff, n);
    if (stereo) {
        generators_[1].process(rule, right, outR, cutoff, n);
    }
    return n;
}

uint32_t HqupsProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    return runInterleaved(src, dst, bytes);
}

bool HqupsProcessor::setHarmonics(float value) {
    settings_.harmonics = value;
    const bool left = generators_[0].setHarmonics(value);
    const bool right = generators_[1].setHarmonics(value);
    return left && right;
}

void HqupsProcessor::setMix(float value) {
    settings_.mixPercent = value;
    for (HarmonicGenerator& g : generators_) {
        g.setMix(value);
    }
}

void HqupsProcessor::setActiveMode(uint32_t mode) {
    settings_.activeMode = mode;
    for (HarmonicGenerator& g : generators_) {
        g.setActiveMode(mode);
    }
}

} // namespace dsp
