#include "resampler_processor.h"

#include <memory>
#include <new>

namespace dsp {

ResamplerProcessor* ResamplerProcessor::create(uint32_t frames, uint32_t inChannels,
                                               uint32_t outChannels, uint32_t srcRate,
                                               uint32_t dstRate,
                                               const ConversionSettings& settings) {
    // Zero rates would divide by zero in every count; other channel counts
    // would make the conversion back report bytes it never writes.
    if (srcRate == 0 || dstRate == 0 || (outChannels != 1 && outChannels != 2)) {
        return nullptr;
    }
    std::unique_ptr<ResamplerProcessor> p(new (std::nothrow) ResamplerProcessor(settings));
    if (p == nullptr || !p->setupBuffers(frames, inChannels)) {
        return nullptr;
    }
    p->setOutChannels(outChannels);
    p->setInRate(srcRate);
    p->setOutRate(dstRate);
    // canConvert is false when a full block's output count does not fit 32
    // bits: such a resampler could never size its output.
    if (!p->converters_.setup(frames, srcRate, dstRate, settings) || !p->converters_.canConvert()) {
        return nullptr;
    }
    const uint32_t outputFrames = p->converters_.blockOutputFrames();
    p->setOutFrames(outputFrames);
    // The output side holds exactly one block's output, larger or smaller
    // than the input side.
    if (!p->replaceOutputBuffers(outputFrames)) {
        return nullptr;
    }
    return p.release();
}

bool ResamplerProcessor::replaceOutputBuffers(uint32_t floats) {
    return replaceWorkBuffer(2, floats) && replaceWorkBuffer(3, floats);
}

bool ResamplerProcessor::holdOutput(uint32_t floats) {
    return floats <= workCapacity(2) || replaceOutputBuffers(floats);
}

void ResamplerProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    if (!setupBuffers(frames, channels)) {
        return;
    }
    setInRate(rate);
    if (!converters_.setup(frames, rate, outRate(), settings_) ||
        !holdOutput(converters_.blockOutputFrames())) {
        releaseBuffers();
        return;
    }
    setOutFrames(converters_.blockOutputFrames());
}

uint32_t ResamplerProcessor::getDstSize(uint32_t srcBytes) {
    return converters_.outputFramesFor(srcBytes);
}

uint32_t ResamplerProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                            uint32_t frames) {
    if (!isReady()) {
        return 0;
    }
    return converters_.convertChannel(channel, in, out, frames < inFrames() ? frames : inFrames());
}

uint32_t ResamplerProcessor::processChained(const float* inL, const float* inR, float* outL,
                                            float* outR, uint32_t frames) {
    if (!isReady()) {
        return 0;
    }
    const uint32_t n = frames < inFrames() ? frames : inFrames();
    return converters_.convert(inL, inR, outL, outR, n, inChannels() == 2);
}

uint32_t ResamplerProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    return runInterleaved(src, dst, bytes);
}

} // namespace dsp
