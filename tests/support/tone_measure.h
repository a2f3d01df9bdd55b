// Spectral measurements on test output: a Hann-windowed single-bin DFT
// (Goertzel) and a search for the strongest frequency in a range.
#pragma once

#include "support/signals.h"

#include <cmath>
#include <cstddef>
#include <vector>

namespace dsptest {

inline std::vector<double> hannWindowed(const float* x, size_t n) {
    const double pi = 3.14159265358979323846;
    std::vector<double> w(n);
    for (size_t i = 0; i < n; ++i) {
        double hann =
            0.5 - 0.5 * std::cos(2.0 * pi * static_cast<double>(i) / static_cast<double>(n - 1));
        w[i] = static_cast<double>(x[i]) * hann;
    }
    return w;
}

// Magnitude of the DFT of the (already windowed) signal at `frequency` Hz.
inline double goertzel(const std::vector<double>& w, double frequency, double rate) {
    const double pi = 3.14159265358979323846;
    double coeff = 2.0 * std::cos(2.0 * pi * frequency / rate);
    double s1 = 0.0;
    double s2 = 0.0;
    for (double v : w) {
        double s0 = v + coeff * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
    return std::sqrt(power > 0.0 ? power : 0.0);
}

// Magnitude of the Hann-windowed DFT of x at `frequency` Hz.
inline double toneMagnitude(const float* x, size_t n, double frequency, double rate) {
    return goertzel(hannWindowed(x, n), frequency, rate);
}

// The frequency between lo and hi with the largest windowed DFT magnitude:
// a 1 Hz scan, then a scan in steps of `step` Hz around the best bin.
inline double dominantFrequency(const float* x, size_t n, double rate, double lo, double hi,
                                double step) {
    std::vector<double> w = hannWindowed(x, n);
    auto scan = [&](double from, double to, double by) {
        double best = from;
        double bestMagnitude = -1.0;
        for (double f = from; f <= to; f += by) {
            double m = goertzel(w, f, rate);
            if (m > bestMagnitude) {
                bestMagnitude = m;
                best = f;
            }
        }
        return best;
    };
    double coarse = scan(lo, hi, 1.0);
    return scan(coarse - 1.0, coarse + 1.0, step);
}

} // namespace dsptest
