#include "fft_engine.h"

#include "core/sample_convert.h"
#include "core/simd_flags.h"

#include <cmath>
#include <cstring>
#include <new>

namespace dsp {

namespace {

// 10 / ln(10): converts the natural logarithm of a power to decibels.
constexpr double kDbPerNeper = 4.3429448190325182765;

} // namespace

FftEngine::~FftEngine() {
    freeBuffers();
}

void FftEngine::freeBuffers() {
    delete[] history;
    delete[] window;
    delete[] frame;
    history = nullptr;
    window = nullptr;
    frame = nullptr;
    ready = 0;
}

bool FftEngine::setup(uint32_t newHop, uint32_t newHistoryLength, uint32_t newFftSize,
                      float rangeDb) {
    if (!isSupportedFftSize(newFftSize)) {
        return false;
    }
    floorDb = -rangeDb;
    hop = newHop;
    if (ready == 0 || newHistoryLength > historyLength) {
        delete[] history;
        // At least one entry, so that a zero length still leaves a valid pointer.
        history = new (std::nothrow) float[newHistoryLength > 0 ? newHistoryLength : 1]();
        if (history == nullptr) {
            freeBuffers();
            return false;
        }
    }
    keepCount = newHistoryLength - newHop;
    historyLength = newHistoryLength;
    if (ready == 0 || newFftSize > fftSize) {
        delete[] frame;
        delete[] window;
        frame = nullptr;
        window = new (std::nothrow) float[newFftSize];
        frame = new (std::nothrow) float[newFftSize];
        if (window == nullptr || frame == nullptr) {
            freeBuffers();
            return false;
        }
        // Forget the tables: the next transform rebuilds them for its size.
        bitrevWork[0] = 0;
    }
    fftSize = newFftSize;
    // Hann window evaluated half a sample early (i - 0.5).
    const double twoPi = 8.0 * std::atan(1.0);
    for (uint32_t i = 0; i < newFftSize; ++i) {
        double phase = twoPi * (static_cast<double>(i) - 0.5) / static_cast<double>(newFftSize);
        window[i] = static_cast<float>(0.5 * (1.0 - std::cos(phase)));
    }
    ready = 1;
    return true;
}

void FftEngine::loadFrame(const float* in) {
    // A history shorter than the hop or the transform cannot be slid.
    if (hop > historyLength || fftSize > historyLength) {
        return;
    }
    const uint32_t keep = keepCount;
    // Move the newest samples to the front. The source lies above the
    // destination, so an ascending copy is safe: the 16-byte block copy is
    // one; without switches memmove gives the same bytes (memcpy may not
    // with overlapping ranges).
    if (keep > 0 && hop > 0) {
        if (anySimdFlag()) {
            copyBuffer(history + hop, history, static_cast<size_t>(keep) * sizeof(float));
        } else {
            std::memmove(history, history + hop, static_cast<size_t>(keep) * sizeof(float));
        }
    }
    copyBuffer(in, history + keep, static_cast<size_t>(historyLength - keep) * sizeof(float));
    const float* newest = history + (historyLength - fftSize);
    for (uint32_t i = 0; i < fftSize; ++i) {
        frame[i] = newest[i] * window[i];
    }
}

void BlockFftEngine::loadFrame(const float* in) {
    for (uint32_t i = 0; i < fftSize; ++i) {
        frame[i] = window[i] * in[i];
    }
}

void FftEngine::analyze(const float* in) {
    loadFrame(in);
    realFft(frame, fftSize);
}

uint32_t FftEngine::magnitudesDb(float* out) const {
    const uint32_t bins = fftSize / 2;
    for (uint32_t k = 0; k < bins; ++k) {
        double re = frame[2 * k];
        double im = frame[2 * k + 1];
        // 20 log10(sqrt(p)) taken as (10 / ln 10) ln(p): the same value to a
        // unit or so of the last double place, far below float resolution.
        double power = re * re + im * im;
        float value = power == 0.0 ? floorDb : static_cast<float>(kDbPerNeper * std::log(power));
        out[k] = floorDb > value ? floorDb : value;
    }
    return bins;
}

} // namespace dsp
