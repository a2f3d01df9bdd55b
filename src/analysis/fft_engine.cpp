#include "fft_engine.h"

#include "core/sample_convert.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace dsp {

namespace {

// 10 / ln(10): converts the natural logarithm of a power to decibels.
constexpr double kDbPerNeper = 4.3429448190325182765;

// A Hann window of n points evaluated half a sample early (i - 0.5).
void fillHannWindow(float* window, uint32_t n) {
    const double twoPi = 8.0 * std::atan(1.0);
    for (uint32_t i = 0; i < n; ++i) {
        double phase = twoPi * (static_cast<double>(i) - 0.5) / static_cast<double>(n);
        window[i] = static_cast<float>(0.5 * (1.0 - std::cos(phase)));
    }
}

} // namespace

bool FftEngine::setup(uint32_t newHop, uint32_t newHistoryLength, uint32_t newFftSize,
                      float rangeDb) {
    if (!isSupportedFftSize(newFftSize)) {
        return false;
    }
    // Everything the setup needs is allocated before anything changes.
    const bool fresh = !window_;
    OwnedArray<float> history;
    if (fresh || newHistoryLength > historyLength_) {
        history = OwnedArray<float>::allocate(newHistoryLength);
        if (!history) {
            return false;
        }
        std::fill(history.data(), history.data() + newHistoryLength, 0.0f);
    }
    OwnedArray<float> window;
    OwnedArray<float> frame;
    if (fresh || newFftSize > fftSize_) {
        window = OwnedArray<float>::allocate(newFftSize);
        frame = OwnedArray<float>::allocate(newFftSize);
        if (!window || !frame) {
            return false;
        }
    }
    floorDb_ = -rangeDb;
    hop_ = newHop;
    installGrowth(history_, history);
    keepCount_ = newHistoryLength - newHop;
    historyLength_ = newHistoryLength;
    if (window) {
        window_ = std::move(window);
        frame_ = std::move(frame);
        // Forget the tables: the next transform rebuilds them for its size.
        complexTableSize_ = 0;
    }
    fftSize_ = newFftSize;
    fillHannWindow(window_.data(), newFftSize);
    return true;
}

void FftEngine::windowFrom(const float* samples) {
    float* frame = frame_.data();
    const float* window = window_.data();
    for (uint32_t i = 0; i < fftSize_; ++i) {
        frame[i] = samples[i] * window[i];
    }
}

void FftEngine::loadFrame(const float* in) {
    // A history shorter than the hop or the transform cannot be slid.
    if (hop_ > historyLength_ || fftSize_ > historyLength_) {
        return;
    }
    float* history = history_.data();
    const uint32_t keep = keepCount_;
    // Move the newest samples to the front. The source lies above the
    // destination, so an ascending copy is safe: the 16-byte block copy is
    // one; without switches memmove gives the same bytes (memcpy may not
    // with overlapping ranges).
    if (keep > 0 && hop_ > 0) {
        if (currentRules().blockCopy) {
            blockCopy16(history + hop_, history, static_cast<size_t>(keep) * sizeof(float));
        } else {
            std::memmove(history, history + hop_, static_cast<size_t>(keep) * sizeof(float));
        }
    }
    copyBuffer(in, history + keep, static_cast<size_t>(historyLength_ - keep) * sizeof(float));
    windowFrom(history + (historyLength_ - fftSize_));
}

void BlockFftEngine::loadFrame(const float* in) {
    windowFrom(in);
}

void FftEngine::analyze(const float* in) {
    loadFrame(in);
    realFft(frame_.data(), fftSize_);
}

uint32_t FftEngine::magnitudesDb(float* out) const {
    const uint32_t bins = fftSize_ / 2;
    const float* frame = frame_.data();
    for (uint32_t k = 0; k < bins; ++k) {
        double re = frame[size_t{2} * k];
        double im = frame[2 * k + 1];
        // 20 log10(sqrt(p)) taken as (10 / ln 10) ln(p): the same value to a
        // unit or so of the last double place, far below float resolution.
        double power = re * re + im * im;
        float value = power == 0.0 ? floorDb_ : static_cast<float>(kDbPerNeper * std::log(power));
        out[k] = floorDb_ > value ? floorDb_ : value;
    }
    return bins;
}

} // namespace dsp
