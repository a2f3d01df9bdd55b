// A direct model of the Kaiser-window FIR for the tests: the design from its
// formulas, and the output under every arithmetic rule written out term by
// term from the plain input history (no rotated table, no circular buffer).
#pragma once

#include "core/arithmetic_rules.h"

#include <cmath>
#include <cstdint>
#include <vector>

namespace dsptest {

// The N + 1 coefficients of a design, coefficient m for the input m samples back.
inline std::vector<float> kaiserCoefficients(double attenuationDb, int n, bool highPass,
                                             double rate, double freq) {
    const double pi = 3.14159265358979323846;
    double beta = 0.0;
    if (attenuationDb >= 50.0) {
        beta = 0.1102 * (attenuationDb - 8.7);
    } else if (attenuationDb >= 21.0) {
        beta = 0.5842 * std::pow(attenuationDb - 21.0, 0.4) + 0.07886 * (attenuationDb - 21.0);
    }
    auto i0 = [](double z) {
        double term = 1.0, sum = 1.0;
        for (int k = 1; k < 20; ++k) {
            term = term * (z / 2.0 / k);
            sum += term * term;
        }
        return sum;
    };
    const int half = n / 2;
    const double edge = static_cast<float>(highPass ? 0.5 * rate - freq : freq);
    std::vector<double> h(half + 1);
    h[0] = 2.0 * edge / rate;
    double tail = 0.0;
    for (int i = 1; i <= half; ++i) {
        const double u = 2.0 * i / n;
        const double w = i0(beta * std::sqrt(1.0 - u * u)) / i0(beta);
        h[i] = w / (pi * i) * std::sin(2.0 * pi * edge * i / rate);
        tail += h[i];
    }
    const double scale = 1.0 / (h[0] + 2.0 * tail);
    std::vector<float> c(n + 1);
    for (int i = 0; i <= half; ++i) {
        double v = h[i] * scale;
        if (highPass && (i % 2) == 1) {
            v = -v;
        }
        c[half + i] = static_cast<float>(v);
        c[half - i] = static_cast<float>(v);
    }
    return c;
}

// Feeds samples one by one and returns the output under the chosen rule. The
// filter's internal order is reproduced from the history position: after t
// inputs the position is (-t) mod N, and history slot k holds the input
// ((k - position) mod N) + 1 samples back, weighted by that coefficient.
class FirModel {
public:
    explicit FirModel(std::vector<float> coefficients)
        : c_(std::move(coefficients)), n_(static_cast<int>(c_.size()) - 1) {}

    void setCoefficients(std::vector<float> coefficients) { c_ = std::move(coefficients); }

    float step(float x, dsp::ArithmeticRule rule) {
        const int position = static_cast<int>((-static_cast<int64_t>(inputs_.size())) & (n_ - 1));
        std::vector<float> s(n_), w(n_);
        for (int k = 0; k < n_; ++k) {
            const int back = ((k - position) & (n_ - 1)) + 1;
            const int64_t idx = static_cast<int64_t>(inputs_.size()) - back;
            s[k] = idx >= 0 ? inputs_[idx] : 0.0f;
            w[k] = c_[back];
        }
        float y = 0.0f;
        if (rule == dsp::ArithmeticRule::kPlain) {
            double acc = static_cast<double>(x) * c_[0];
            for (int k = 0; k < n_; ++k) {
                acc += static_cast<double>(s[k]) * w[k];
            }
            y = static_cast<float>(acc);
        } else if (rule == dsp::ArithmeticRule::kTruncating) { // two pairs of lanes
            float a[2] = {x * c_[0], 0.0f}, b[2] = {0.0f, 0.0f};
            for (int k = 0; k < n_; k += 4) {
                a[0] = a[0] + s[k] * w[k];
                a[1] = a[1] + s[k + 1] * w[k + 1];
                b[0] = b[0] + s[k + 2] * w[k + 2];
                b[1] = b[1] + s[k + 3] * w[k + 3];
            }
            y = (a[0] + b[0]) + (a[1] + b[1]);
        } else { // four lanes
            float lane[4];
            for (int j = 0; j < 4; ++j) {
                if (n_ == 16) {
                    lane[j] = (s[j] * w[j] + s[4 + j] * w[4 + j]) +
                              (s[8 + j] * w[8 + j] + s[12 + j] * w[12 + j]);
                } else {
                    lane[j] = 0.0f;
                    for (int k = 0; k < n_; k += 8) {
                        lane[j] = lane[j] + s[k + j] * w[k + j];
                        lane[j] = lane[j] + s[k + 4 + j] * w[k + 4 + j];
                    }
                }
            }
            y = (lane[0] + lane[2]) + (lane[1] + lane[3]) + x * c_[0];
        }
        inputs_.push_back(x);
        return y;
    }

private:
    std::vector<float> c_;
    int n_;
    std::vector<float> inputs_;
};

} // namespace dsptest
