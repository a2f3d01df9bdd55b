// Independent double-precision models for the FFT and analyzer tests: a
// direct DFT with the library's sign convention and the dB rule of the
// magnitudes.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace dsptest {

// Bin k of the direct DFT of x in the packed layout: re = sum x cos(2 pi jk/N),
// im = sum x sin(2 pi jk/N) (the + sign), exact angles from a table indexed
// by jk mod N.
struct DftBin {
    double re;
    double im;
};

class DirectDft {
public:
    explicit DirectDft(uint32_t n) : n_(n), cos_(n), sin_(n) {
        const double twoPi = 8.0 * std::atan(1.0);
        for (uint32_t i = 0; i < n; ++i) {
            cos_[i] = std::cos(twoPi * i / n);
            sin_[i] = std::sin(twoPi * i / n);
        }
    }

    DftBin bin(const std::vector<double>& x, uint32_t k) const {
        DftBin b{0.0, 0.0};
        uint64_t index = 0;
        for (uint32_t j = 0; j < n_; ++j) {
            b.re += x[j] * cos_[index];
            b.im += x[j] * sin_[index];
            index += k;
            if (index >= n_) {
                index -= n_;
            }
        }
        return b;
    }

private:
    uint32_t n_;
    std::vector<double> cos_;
    std::vector<double> sin_;
};

// The magnitude rule of the engines: 20 log10 |bin|, floored.
inline double referenceDb(double re, double im, double floorDb) {
    double magnitude = std::sqrt(re * re + im * im);
    if (magnitude == 0.0) {
        return floorDb;
    }
    double value = 20.0 * std::log10(magnitude);
    return value < floorDb ? floorDb : value;
}

// The analysis window: Hann evaluated half a sample early.
inline double referenceWindow(uint32_t i, uint32_t n) {
    return 0.5 * (1.0 - std::cos(8.0 * std::atan(1.0) * (static_cast<double>(i) - 0.5) / n));
}

} // namespace dsptest
