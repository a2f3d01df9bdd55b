#include "passband_equaliser.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace cli {

namespace {

constexpr double kPi = 3.141592653589793;
// The step of the central difference that gives the slope at the edge.
constexpr double kSlopeStep = 1e-4;

} // namespace

double kernelResponse(bool cubic, double nu) {
    if (cubic) {
        // The transform of the two cubic pieces, integrated by parts.
        const double w = 2.0 * kPi * std::fabs(nu);
        if (w < 0.05) {
            // Its series, where the closed form's two terms would cancel.
            const double w2 = w * w;
            return 1.0 + w2 * (1.0 / 15.0 + w2 * (-3.0 / 112.0 + w2 * (43.0 / 18900.0)));
        }
        return 4.0 * (std::sin(w) + std::sin(2.0 * w)) / (w * w * w) +
               12.0 * (1.0 - 2.0 * std::cos(w) + std::cos(2.0 * w)) / (w * w * w * w);
    }
    if (nu == 0.0) {
        return 1.0;
    }
    const double x = kPi * std::fabs(nu);
    const double s = std::sin(x) / x;
    return s * s;
}

namespace {

// The kernel's weight at distance u >= 0.
double kernelWeight(bool cubic, double u) {
    if (cubic) {
        if (u < 1.0) {
            return 1.0 - 2.0 * u * u + u * u * u;
        }
        if (u < 2.0) {
            return 4.0 - 8.0 * u + 5.0 * u * u - u * u * u;
        }
        return 0.0;
    }
    return u < 1.0 ? 1.0 - u : 0.0;
}

} // namespace

double interpolationResponse(bool cubic, uint32_t phases, double nu) {
    if (phases > kExactPhases) {
        return kernelResponse(cubic, nu);
    }
    double acc = 1.0;
    for (uint32_t k = 1; k < 2 * phases; ++k) {
        const double u = static_cast<double>(k) / phases;
        acc += 2.0 * kernelWeight(cubic, u) * std::cos(2.0 * kPi * nu * u);
    }
    return acc / phases;
}

// The design, on a grid of n points per source rate: the wanted log
// magnitude (the converter's, negated, to the edge; then a parabola from the
// edge's value and slope to a flat Nyquist frequency), its real cepstrum
// folded onto positive times (which makes it minimum phase), back to a
// spectrum and to the first taps of its impulse response. Every sum runs in
// a fixed order (the Python package repeats the design step for step).
std::vector<float> equaliserTaps(bool cubic, uint32_t phases, double edge) {
    const uint32_t n = kEqualiserGrid;
    const uint32_t half = n / 2;
    auto logGain = [cubic, phases](double nu) {
        return -std::log(interpolationResponse(cubic, phases, nu));
    };
    const double atEdge = logGain(edge);
    const double slope =
        (logGain(edge + kSlopeStep) - logGain(edge - kSlopeStep)) / (2.0 * kSlopeStep);
    const double span = 0.5 - edge;
    std::vector<double> level(half + 1);
    for (uint32_t k = 0; k <= half; ++k) {
        const double nu = static_cast<double>(k) / n;
        if (nu <= edge) {
            level[k] = logGain(nu);
        } else {
            const double x = nu - edge;
            level[k] = atEdge + slope * x - slope * x * x / (2.0 * span);
        }
    }
    std::vector<double> cosines(n), sines(n);
    for (uint32_t j = 0; j < n; ++j) {
        cosines[j] = std::cos(2.0 * kPi * static_cast<double>(j) / n);
        sines[j] = std::sin(2.0 * kPi * static_cast<double>(j) / n);
    }
    // The real cepstrum of the even log magnitude, times 0 .. half - 1.
    std::vector<double> cepstrum(half);
    for (uint32_t q = 0; q < half; ++q) {
        double acc = level[0] + (q % 2 == 0 ? level[half] : -level[half]);
        for (uint32_t k = 1; k < half; ++k) {
            acc += 2.0 * level[k] * cosines[k * q % n];
        }
        cepstrum[q] = acc / n;
    }
    // The minimum-phase spectrum: the log magnitude with the phase of the
    // folded cepstrum.
    std::vector<double> re(half + 1), im(half + 1);
    for (uint32_t k = 0; k <= half; ++k) {
        double acc = 0.0;
        for (uint32_t q = 1; q < half; ++q) {
            acc += cepstrum[q] * sines[k * q % n];
        }
        const double gain = std::exp(level[k]);
        const double phase = -2.0 * acc;
        re[k] = gain * std::cos(phase);
        im[k] = gain * std::sin(phase);
    }
    std::vector<double> taps(kEqualiserTaps);
    double total = 0.0;
    for (uint32_t m = 0; m < kEqualiserTaps; ++m) {
        double acc = re[0] + (m % 2 == 0 ? re[half] : -re[half]);
        for (uint32_t k = 1; k < half; ++k) {
            acc += 2.0 * (re[k] * cosines[k * m % n] - im[k] * sines[k * m % n]);
        }
        taps[m] = acc / n;
        total += taps[m];
    }
    std::vector<float> out(kEqualiserTaps);
    for (uint32_t m = 0; m < kEqualiserTaps; ++m) {
        out[m] = static_cast<float>(taps[m] / total);
    }
    return out;
}

PassbandEqualiser::PassbandEqualiser(std::vector<float> taps, uint32_t channels, uint32_t maxFrames)
    : taps_(std::move(taps)), channels_(channels), maxFrames_(std::max(maxFrames, 1u)),
      work_((taps_.size() - 1 + maxFrames_) * channels_, 0.0f),
      sum_(static_cast<size_t>(maxFrames_) * channels_) {}

void PassbandEqualiser::process(const float* in, float* out, uint32_t frames) {
    for (uint32_t at = 0; at < frames; at += maxFrames_) {
        const size_t offset = static_cast<size_t>(at) * channels_;
        pass(in + offset, out + offset, std::min(frames - at, maxFrames_));
    }
}

void PassbandEqualiser::pass(const float* in, float* out, uint32_t frames) {
    // Interleaved throughout: a tap's step back is a frame of samples.
    const size_t held = (taps_.size() - 1) * channels_;
    const size_t count = static_cast<size_t>(frames) * channels_;
    float* w = work_.data();
    float* sum = sum_.data();
    std::memmove(w + held, in, count * sizeof(float));
    // sum[i] = taps[0] x[i] + taps[1] x[i - 1] + ..., added in that order,
    // one tap over the whole pass at a time.
    const float* x = w + held;
    const float first = taps_[0];
    for (size_t i = 0; i < count; ++i) {
        sum[i] = first * x[i];
    }
    for (size_t k = 1; k < taps_.size(); ++k) {
        const float tap = taps_[k];
        const float* xk = x - k * channels_;
        for (size_t i = 0; i < count; ++i) {
            sum[i] += tap * xk[i];
        }
    }
    std::memmove(out, sum, count * sizeof(float));
    std::memmove(w, w + count, held * sizeof(float));
}

} // namespace cli
