// Magnitude response of a designed biquad cascade, evaluated in double from
// its coefficients: each section is H(z) = (b0 + b1 z^-1 + b2 z^-2) /
// (1 - a1 z^-1 - a2 z^-2), the feedback stored with the sign the recursion
// adds.
#pragma once

#include "filters/iir_designer.h"

#include <cmath>
#include <complex>

namespace dsptest {

inline double cascadeResponseDb(const dsp::IirDesigner& filter, double rate, double hz) {
    const double w = 2.0 * 3.14159265358979323846 * hz / rate;
    const std::complex<double> z1 = std::polar(1.0, -w); // z^-1
    const std::complex<double> z2 = z1 * z1;
    std::complex<double> h(1.0, 0.0);
    for (int i = 0; i < filter.sectionCount(); ++i) {
        const dsp::BiquadSection& s = filter.section(i);
        std::complex<double> num = s.b0 + s.b1 * z1 + s.b2 * z2;
        std::complex<double> den = 1.0 - s.a1 * z1 - s.a2 * z2;
        h *= num / den;
    }
    return 20.0 * std::log10(std::abs(h));
}

} // namespace dsptest
