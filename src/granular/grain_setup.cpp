#include "grain_setup.h"

#include "core/numeric.h"

#include <cmath>

namespace dsp {
namespace granular {

bool grainLengthFor(float rate, float grainSeconds, uint32_t* length) {
    double value =
        static_cast<double>(rate) * static_cast<double>(grainSeconds) * 1.5330188679245282;
    if (!(value > -1.0 && value < static_cast<double>(kMaxGrainLength) + 1.0)) {
        return false;
    }
    *length = truncToUint32(value);
    return true;
}

uint32_t spacingFor(float rate, float spacingSeconds) {
    uint32_t spacing =
        truncToUint32(static_cast<double>(rate) * static_cast<double>(spacingSeconds));
    return spacing == 0 ? 1 : spacing;
}

float levelFromDb(float levelDb) {
    return static_cast<float>(std::pow(10.0, 0.05 * static_cast<double>(levelDb)));
}

bool grainGeometryFor(uint32_t sampleRate, float grainSeconds, float spacingSeconds,
                      GrainGeometry* geometry) {
    const float rate = static_cast<float>(sampleRate);
    uint32_t length = 0;
    if (sampleRate == 0 || !grainLengthFor(rate, grainSeconds, &length)) {
        return false;
    }
    geometry->rate = rate;
    geometry->length = length;
    geometry->spacing = spacingFor(rate, spacingSeconds);
    geometry->count = length / geometry->spacing;
    return true;
}

void fillGaussianWindow(float* window, uint32_t length) {
    for (uint32_t i = 0; i < length; ++i) {
        double x = 13.0 * static_cast<double>(i) / static_cast<double>(length) - 6.5;
        window[i] = static_cast<float>(std::exp(-0.25 * (x * x)));
    }
}

} // namespace granular
} // namespace dsp
