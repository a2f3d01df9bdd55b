#include "resampler_processor.h"

#include "core/sample_convert.h"

#include <new>

namespace dsp {

namespace {
// Every caller designs the converters' low-pass with this pass-band ripple.
constexpr float kRippleDb = 0.1f;
} // namespace

ResamplerProcessor* ResamplerProcessor::create(uint32_t frames, uint32_t inChannels,
                                               uint32_t outChannels, uint32_t srcRate,
                                               uint32_t dstRate, uint32_t interpolation,
                                               float attenuationDb, float slopeDbPerOctave,
                                               uint8_t filterOn) {
    // Zero rates would divide by zero in every count; other channel counts
    // would make the conversion back report bytes it never writes.
    if (srcRate == 0 || dstRate == 0 || (outChannels != 1 && outChannels != 2)) {
        return nullptr;
    }
    ResamplerProcessor* p = new (std::nothrow) ResamplerProcessor();
    if (p == nullptr) {
        return nullptr;
    }
    if (!p->setupBuffers(frames, inChannels)) {
        delete p;
        return nullptr;
    }
    p->outChannels = outChannels;
    p->inRate = srcRate;
    p->outRate = dstRate;
    p->interpolation = interpolation;
    p->attenuationDb = attenuationDb;
    p->slopeDbPerOctave = slopeDbPerOctave;
    p->filterOn = filterOn;

    uint32_t outputFrames = 0;
    // canConvert is false when a full block's output count does not fit 32
    // bits: such a resampler could never size its output.
    if (!p->setupConverters(frames, srcRate, &outputFrames) || !p->converters[0].canConvert()) {
        delete p;
        return nullptr;
    }
    p->outFrames = outputFrames;
    // The output side holds exactly one block's output, larger or smaller
    // than the input side.
    if (!p->replaceOutputBuffers(outputFrames)) {
        delete p;
        return nullptr;
    }
    return p;
}

bool ResamplerProcessor::setupConverters(uint32_t frames, uint32_t rate, uint32_t* outputFrames) {
    *outputFrames = converters[0].setup(frames, rate, outRate, interpolation, attenuationDb,
                                        slopeDbPerOctave, filterOn, kRippleDb);
    converters[1].setup(frames, rate, outRate, interpolation, attenuationDb, slopeDbPerOctave,
                        filterOn, kRippleDb);
    return converters[0].isReady() && converters[1].isReady();
}

bool ResamplerProcessor::replaceOutputBuffers(uint32_t floats) {
    outputCapacity_ = 0;
    if (!replaceWorkBuffer(2, floats) || !replaceWorkBuffer(3, floats)) {
        return false;
    }
    outputCapacity_ = floats;
    return true;
}

void ResamplerProcessor::configure(uint32_t frames, uint32_t channels, uint32_t rate) {
    // The same test setupBuffers makes: when it takes six new buffers, the
    // output ones hold `frames` floats like the others.
    const bool takesNewBuffers = !(ready == 1 && frames <= inFrames);
    if (!setupBuffers(frames, channels)) {
        outputCapacity_ = 0;
        return;
    }
    if (takesNewBuffers) {
        outputCapacity_ = frames;
    }
    inRate = rate;

    uint32_t outputFrames = 0;
    if (!setupConverters(frames, rate, &outputFrames) ||
        (outputFrames > outputCapacity_ && !replaceOutputBuffers(outputFrames))) {
        releaseBuffers();
        outputCapacity_ = 0;
        return;
    }
    outFrames = outputFrames;
}

uint32_t ResamplerProcessor::getDstSize(uint32_t srcBytes) {
    return converters[0].outputFramesFor(srcBytes);
}

uint32_t ResamplerProcessor::processChannel(uint32_t channel, const float* in, float* out,
                                            uint32_t frames) {
    if (ready != 1 || channel > 1) {
        return 0;
    }
    return converters[channel].convert(in, out, frames < inFrames ? frames : inFrames);
}

uint32_t ResamplerProcessor::processChained(const float* inL, const float* inR, float* outL,
                                            float* outR, uint32_t frames) {
    if (ready != 1) {
        return 0;
    }
    const uint32_t n = frames < inFrames ? frames : inFrames;
    const uint32_t produced = converters[0].convert(inL, outL, n);
    if (inChannels == 2) {
        converters[1].convert(inR, outR, n);
    }
    return produced;
}

uint32_t ResamplerProcessor::processInterleaved(const int16_t* src, int16_t* dst, uint32_t bytes) {
    if (ready != 1 || inFrames == 0) {
        return 0;
    }
    const uint32_t frameBytes = 2 * inChannels;
    uint32_t frames = bytes / frameBytes;
    uint32_t written = 0;
    while (frames > 0) {
        const uint32_t piece = frames < inFrames ? frames : inFrames;
        convertToFloat(src, piece * frameBytes, work[0], work[1], inChannels);
        const uint32_t produced = processChannel(0, work[0], work[2], piece);
        if (inChannels == 2) {
            processChannel(1, work[1], work[3], piece);
            convertToInt16(work[2], work[3], produced, dst, outChannels);
        } else {
            // No right buffer: a mono result goes to both channels when the
            // output is stereo.
            convertToInt16(work[2], nullptr, produced, dst, outChannels);
        }
        src += piece * inChannels;
        dst += produced * outChannels;
        written += produced * outChannels * 2;
        frames -= piece;
    }
    return written;
}

} // namespace dsp
