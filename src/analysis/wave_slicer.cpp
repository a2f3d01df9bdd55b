#include "wave_slicer.h"

#include "core/numeric.h"

#include <cmath>
#include <cstring>
#include <utility>

namespace dsp {

namespace {

constexpr int32_t kBandOrder = 16;
constexpr float kUpperCutoffHz = 20000.0f;
constexpr float kLowerCutoffHz = 2000.0f;

// A band filter can only be designed with its cut-off below half the rate.
bool belowNyquist(float cutoffHz, float rate) {
    return cutoffHz < 0.5f * rate;
}

float gainOfDb(float db) {
    return static_cast<float>(std::pow(10.0, static_cast<double>(db) * 0.05));
}

} // namespace

bool WaveSlicer::setup(uint32_t blockFrames, float sampleRate, float startGateDb, float endGateDb,
                       float risePercent, float minSeconds) {
    // A block of no frames could never advance.
    if (blockFrames == 0 || !EnvelopeFollower::supportsAmplitudeRate(sampleRate)) {
        return false;
    }
    OwnedArray<float> scratch = OwnedArray<float>::allocate(blockFrames);
    if (!scratch) {
        return false;
    }
    secondsPerSample_ = 1.0f / sampleRate;
    gates_.start = gainOfDb(startGateDb);
    gates_.end = gainOfDb(endGateDb);
    gates_.rise = static_cast<float>(0.01 * static_cast<double>(risePercent));
    gates_.minLength =
        truncToUint32(static_cast<double>(sampleRate) * static_cast<double>(minSeconds));
    configured_ = startOver(std::move(scratch), blockFrames, sampleRate);
    return configured_;
}

bool WaveSlicer::startOver(OwnedArray<float> scratch, uint32_t blockFrames, float sampleRate) {
    // A second setup starts over: no slices, tracking as after construction.
    slices_.clear();
    track_ = Tracking{};
    scratch_ = std::move(scratch);
    if (!envelope_.setupAmplitude(blockFrames, sampleRate)) {
        return false;
    }
    // At 40000 Hz or less the 20000 Hz low-pass would sit at or above half the
    // rate, where it cannot be designed: the band is then limited from below
    // only. Likewise the 2000 Hz high-pass is left out at 4000 Hz or less.
    useUpperFilter_ = belowNyquist(kUpperCutoffHz, sampleRate);
    useLowerFilter_ = belowNyquist(kLowerCutoffHz, sampleRate);
    if (!upperFilter_.setOrder(kBandOrder, 0) || !lowerFilter_.setOrder(kBandOrder, 1)) {
        return false;
    }
    if (useUpperFilter_) {
        upperFilter_.design(sampleRate, kUpperCutoffHz);
    }
    if (useLowerFilter_) {
        lowerFilter_.design(sampleRate, kLowerCutoffHz);
    }
    return true;
}

float sliceSeconds(uint32_t position, float secondsPerSample) {
    // secondsPerSample = m * 2^(e - 24) with a 24-bit integer m, so the
    // product is the integer m * position (at most 56 bits) scaled by a power
    // of two: converting that integer to float is the one rounding.
    int exponent = 0;
    const float fraction = std::frexp(secondsPerSample, &exponent);
    const uint64_t mantissa = static_cast<uint64_t>(std::ldexp(fraction, 24));
    const float product = static_cast<float>(mantissa * position);
    return std::ldexp(product, exponent - 24);
}

void WaveSlicer::appendSlice(uint32_t start, uint32_t end) {
    // Out of memory the slice is lost and the analysis goes on.
    slices_.append(sliceSeconds(start, secondsPerSample_), sliceSeconds(end, secondsPerSample_));
}

void WaveSlicer::closeOpenSlice() {
    if (track_.inSlice) {
        appendSlice(track_.sliceStart, track_.position);
        track_.inSlice = false;
    }
}

void WaveSlicer::bandLimitAndFollow(const float* x, uint32_t n) {
    float* scratch = scratch_.data();
    if (useUpperFilter_) {
        upperFilter_.process(x, scratch, n);
        x = scratch;
    }
    if (useLowerFilter_) {
        lowerFilter_.process(x, scratch, n);
    } else if (x != scratch) {
        std::memcpy(scratch, x, n * sizeof(float));
    }
    envelope_.follow(scratch, scratch, static_cast<int32_t>(n));
}

// A rise out of a valley that reaches the start gate and climbs far enough.
bool WaveSlicer::isAttack(float e) const {
    return e >= gates_.start && track_.armed && e - track_.valley >= gates_.rise;
}

// The slice rules at envelope value e, before the tracking rules.
void WaveSlicer::applySliceRules(float e) {
    Tracking& t = track_;
    if (!t.inSlice) {
        if (isAttack(e)) {
            t.armed = false;
            t.inSlice = true;
            t.sliceStart = t.valleyPos;
        }
        return;
    }
    const bool longEnough = t.position - t.sliceStart > gates_.minLength;
    if (e < gates_.end && longEnough) {
        // The envelope has died away: the slice ends here.
        closeOpenSlice();
    } else if (longEnough && isAttack(e)) {
        // A new attack: the slice ends at the valley it rose from and the
        // next one starts there.
        appendSlice(t.sliceStart, t.valleyPos);
        t.armed = false;
        t.sliceStart = t.valleyPos;
    }
}

// Follows the envelope's alternating minima and maxima.
void WaveSlicer::trackExtremes(float e) {
    Tracking& t = track_;
    if (t.seekingValley) {
        if (e > t.valley) {
            // Left the valley: track the peak from here.
            t.peak = e;
            t.seekingValley = false;
            t.armed = true;
        } else {
            t.valley = e;
            t.valleyPos = t.position;
        }
    } else if (e < t.peak) {
        // Turned down: track the next valley.
        t.valley = e;
        t.valleyPos = t.position;
        t.armed = false;
        t.seekingValley = true;
    } else {
        t.peak = e;
    }
}

void WaveSlicer::applyRules(uint32_t n) {
    const float* envelope = scratch_.data();
    for (uint32_t i = 0; i < n; ++i) {
        applySliceRules(envelope[i]);
        trackExtremes(envelope[i]);
        ++track_.position;
    }
}

void WaveSlicer::analyze(const float* x, uint32_t n) {
    if (!configured_) {
        return;
    }
    const uint32_t frames = static_cast<uint32_t>(scratch_.size());
    while (n > 0) {
        const uint32_t piece = n < frames ? n : frames;
        bandLimitAndFollow(x, piece);
        applyRules(piece);
        x += piece;
        n -= piece;
    }
}

} // namespace dsp
