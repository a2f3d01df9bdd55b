#include "hqups_processor.h"

#include "core/sample_convert.h"

#include <cstring>
#include <new>

namespace dsp {

namespace {

constexpr float kRippleDb = 0.1f;

// Only 0 and 1 select a mode at setup; anything else means "off".
uint32_t setupMode(uint32_t mode) {
    return mode == 1 ? 1 : 0;
}

uint32_t larger(uint32_t a, uint32_t b) {
    return a > b ? a : b;
}

} // namespace

HqupsProcessor::HqupsProcessor() {
    tag = kTagHqups;
}

// Members are destroyed in reverse order: generators 1 and 0, then converters
// 1 and 0, then the base returns the work buffers.
HqupsProcessor::~HqupsProcessor() = default;

void HqupsProcessor::storeSettings(const HqupsSettings& s) {
    harmonics = s.harmonics;
    mixPercent = s.mixPercent;
    hpCutoffHz = s.hpCutoffHz;
    interpolation = s.interpolation;
    attenuationDb = s.attenuationDb;
    slopeDbPerOctave = s.slopeDbPerOctave;
    activeMode = setupMode(s.activeMode);
    filterOn = s.filterOn;
}

bool HqupsProcessor::setupConverters(uint32_t frames, uint32_t rate, uint32_t& dstFrames) {
    dstFrames = 0;
    for (int c = 0; c < 2; ++c) {
        const uint32_t n =
            converters[c].setup(frames, rate, kOutputRate, interpolation, attenuationDb,
                                slopeDbPerOctave, filterOn, kRippleDb);
        if (!converters[c].isReady()) {
            return false;
        }
        if (c == 0) {
            dstFrames = n;
        }
    }
    return true;
}

bool HqupsProcessor::setupGenerators(uint32_t frames) {
    for (HarmonicGenerator& g : generators) {
        if (g.setup(frames, kOutputRate, harmonics, mixPercent, hpCutoffHz, setupMode(activeMode),
                    kBandTaps) == 0) {
            return false;
        }
    }
    return true;
}

bool HqupsProcessor::ensureOutputBuffers(uint32_t floats, bool replace) {
    if (!replace && outputCapacity >= floats && work[2] != nullptr && work[3] != nullptr &&
        work[4] != nullptr && work[5] != nullptr) {
        return true;
    }
    for (int i = 2; i < kWorkBuffers; ++i) {
        if (!replaceWorkBuffer(i, floats)) {
            outputCapacity = 0;
            return false;
        }
    }
    outputCapacity = floats;
    clearOutputBuffers(floats);
    return true;
}

// The bandwidth analysis reads a whole configured block from work[4] (or the
// stereo mix in the right output), also when a block is shorter: fresh pool
// memory is zeroed so that tail is defined and the output reproducible.
void HqupsProcessor::clearOutputBuffers(uint32_t floats) {
    for (int i = 2; i < kWorkBuffers; ++i) {
        std::memset(work[i], 0, static_cast<size_t>(floats) * sizeof(float));
    }
}

bool HqupsProcessor::buildForSource(uint32_t srcFrames, uint32_t channelsIn, uint32_t channelsOut,
                                    uint32_t srcRate, uint32_t minOutputFrames,
                                    uint32_t& dstFrames) {
    if (srcRate == 0 || (channelsOut != 1 && channelsOut != 2) ||
        !setupBuffers(srcFrames, channelsIn)) {
        return false;
    }
    inRate = srcRate;
    outRate = kOutputRate;
    outChannels = channelsOut;
    if (!setupConverters(srcFrames, srcRate, dstFrames)) {
        return false;
    }
    // A source block sized for a given output can convert to one frame more
    // than asked for: size everything downstream for the larger count.
    const uint32_t held = larger(dstFrames, minOutputFrames);
    return setupGenerators(held) && ensureOutputBuffers(held, true);
}

HqupsProcessor* HqupsProcessor::createForOutput(uint32_t dstFrames, uint32_t channelsIn,
                                                uint32_t channelsOut, uint32_t srcRate,
                                                const HqupsSettings& settings) {
    if (srcRate == 0) {
        return nullptr;
    }
    HqupsProcessor* p = new (std::nothrow) HqupsProcessor();
    if (p == nullptr) {
        return nullptr;
    }
    p->storeSettings(settings);
    const uint32_t srcFrames = sourceFramesFor(dstFrames, srcRate, kOutputRate);
    uint32_t converted = 0;
    if (!p->buildForSource(srcFrames, channelsIn, channelsOut, srcRate, dstFrames, converted)) {
        delete p;
        return nullptr;
    }
    p->outFrames = dstFrames;
    return p;
}

HqupsProcessor* HqupsProcessor::createForSource(uint32_t srcFrames, uint32_t channelsIn,
                                                uint32_t channelsOut, uint32_t srcRate,
                                                const HqupsSettings& settings) {
    if (srcRate == 0) {
        return nullptr;
    }
    HqupsProcessor* p = new (std::nothrow) HqupsProcessor();
    if (p == nullptr) {
        return nullptr;
    }
    p->storeSettings(settings);
    uint32_t converted = 0;
    if (!p->buildForSource(srcFrames, channelsIn, channelsOut, srcRate, 0, converted)) {
        delete p;
        return nullptr;
    }
    p->outFrames = converted;
    return p;
}

void HqupsProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    // setupBuffers replaces all six buffers (by frames floats) unless it can
    // keep them; the output buffers' size follows.
    const bool keepsBuffers = ready == 1 && frames <= inFrames;
    if (!setupBuffers(frames, channels)) {
        outputCapacity = 0;
        return;
    }
    if (!keepsBuffers) {
        outputCapacity = frames;
        clearOutputBuffers(frames);
    }
    inRate = rate;
    outRate = kOutputRate;
    uint32_t n = 0;
    if (!setupConverters(frames, rate, n) || !setupGenerators(n) ||
        !ensureOutputBuffers(n, false)) {
        // Not ready: the chain then passes nothing through this node.
        releaseBuffers();
        outputCapacity = 0;
        return;
    }
    outFrames = n;
}

uint32_t HqupsProcessor::getDstSize(uint32_t n) {
    return converters[0].outputFramesFor(n);
}

uint32_t HqupsProcessor::sourceSizeFor(uint32_t n) const {
    return sourceFramesFor(n, inRate, kOutputRate);
}

uint32_t HqupsProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                        uint32_t frames) {
    if (ready != 1 || channel > 1) {
        return 0;
    }
    const uint32_t n =
        converters[channel].convert(in, work[4], frames < inFrames ? frames : inFrames);
    generators[channel].processDetecting(work[4], out, n);
    return n;
}

uint32_t HqupsProcessor::processChained(const float* inL, const float* inR, float* outL,
                                        float* outR, uint32_t frames) {
    if (ready != 1) {
        return 0;
    }
    if (frames > inFrames) {
        frames = inFrames;
    }
    const bool stereo = inChannels == 2;
    // Both channels at once: their low-passes share the vector lanes.
    const uint32_t n = stereo ? RateConverter::convertPair(converters[0], inL, work[4],
                                                           converters[1], inR, work[5], frames)
                              : converters[0].convert(inL, work[4], frames);
    if (n == 0) {
        return 0;
    }
    // One bandwidth for both channels, from their mix (outR is free until
    // the right generator writes it).
    const float* analysed = work[4];
    if (stereo) {
        for (uint32_t i = 0; i < n; ++i) {
            outR[i] = (work[5][i] + work[4][i]) * 0.5f;
        }
        analysed = outR;
    }
    float cutoff = 0.0f;
    if (generators[0].activeMode == 1) {
        cutoff = generators[0].analyzeCutoff(analysed);
    }
    generators[0].process(work[4], outL, cutoff, n);
    if (stereo) {
        generators[1].process(work[5], outR, cutoff, n);
    }
    return n;
}

uint32_t HqupsProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (ready != 1 || inFrames == 0) {
        return 0;
    }
    const uint32_t frameBytes = 2 * inChannels;
    uint32_t frames = bytes / frameBytes;
    uint32_t written = 0;
    // A block larger than the one the processor was sized for is taken in
    // pieces rather than overrunning the work buffers.
    while (frames > 0) {
        const uint32_t piece = frames < inFrames ? frames : inFrames;
        convertToFloat(src, piece * frameBytes, work[0], work[1], inChannels);
        const uint32_t n = processChained(work[0], work[1], work[2], work[3], piece);
        convertToInt16(work[2], inChannels == 2 ? work[3] : nullptr, n, dst, outChannels);
        src += piece * inChannels;
        dst += n * outChannels;
        written += outChannels * 2 * n;
        frames -= piece;
    }
    return written;
}

bool HqupsProcessor::setHarmonics(float value) {
    harmonics = value;
    const bool left = generators[0].setHarmonics(value);
    const bool right = generators[1].setHarmonics(value);
    return left && right;
}

void HqupsProcessor::setMix(float value) {
    mixPercent = value;
    for (HarmonicGenerator& g : generators) {
        g.setMix(value);
    }
}

void HqupsProcessor::setActiveMode(uint32_t mode) {
    activeMode = mode;
    for (HarmonicGenerator& g : generators) {
        g.setActiveMode(mode);
    }
}

} // namespace dsp
