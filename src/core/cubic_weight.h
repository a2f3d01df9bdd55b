// The cubic convolution kernel with a = -1, shared by the rate converter's
// 4-point interpolation and the pitch shifter's grain reader.
#pragma once

namespace dsp {

// Weight of a sample at distance u >= 0 from the interpolated point.
inline double cubicWeight(double u) {
    if (u < 1.0) {
        return 1.0 - 2.0 * u * u + u * u * u;
    }
    if (u < 2.0) {
        return 4.0 - 8.0 * u + 5.0 * u * u - u * u * u;
    }
    return 0.0;
}

} // namespace dsp
