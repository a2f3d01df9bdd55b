#include "rate_converter_pair.h"

namespace dsp {

bool RateConverterPair::setup(uint32_t frames, uint32_t srcRate, uint32_t dstRate,
                              const ConversionSettings& settings) {
    return converters_[0].setup(frames, srcRate, dstRate, settings) &&
           converters_[1].setup(frames, srcRate, dstRate, settings);
}

uint32_t RateConverterPair::convert(const float* inL, const float* inR, float* outL, float* outR,
                                    uint32_t frames, bool stereo) {
    if (stereo) {
        // Both channels at once: their low-passes share the vector lanes.
        return RateConverter::convertPair(converters_[0], inL, outL, converters_[1], inR, outR,
                                          frames);
    }
    return converters_[0].convert(inL, outL, frames);
}

uint32_t RateConverterPair::convertChannel(uint32_t channel, const float* in, float* out,
                                           uint32_t frames) {
    return channel < 2 ? converters_[channel].convert(in, out, frames) : 0;
}

} // namespace dsp
