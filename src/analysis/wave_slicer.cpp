#include "wave_slicer.h"

#include "core/numeric.h"

#include <cmath>
#include <cstring>
#include <new>

namespace dsp {

namespace {

constexpr int32_t kBandOrder = 16;
constexpr float kUpperCutoffHz = 20000.0f;
constexpr float kLowerCutoffHz = 2000.0f;
constexpr uint32_t kEnvelopeOrder = 2;
constexpr float kEnvelopeCutoffHz = 33.0f;
constexpr float kEnvelopeGain = 2.5f;

// A band filter can only be designed with its cut-off below half the rate.
bool belowNyquist(float cutoffHz, float rate) {
    return cutoffHz < 0.5f * rate;
}

} // namespace

WaveSlicer::~WaveSlicer() {
    freeSlices();
    delete[] scratch;
}

SliceRecord* WaveSlicer::newRecord() {
    return new (std::nothrow) SliceRecord;
}

void WaveSlicer::freeSlices() {
    SliceRecord* record = first;
    while (record != nullptr) {
        SliceRecord* next = record->next;
        delete record;
        record = next;
    }
    first = nullptr;
    last = nullptr;
    sliceCount = 0;
}

void WaveSlicer::resetTracking() {
    inSlice = 0;
    valley = 1.0f;
    valleyPos = 0;
    armed = 0;
    peak = 0.0f;
    peakPos = 0;
    seekingValley = 1;
    sliceStart = 0;
    sliceEnd = 0;
    position = 0;
}

bool WaveSlicer::setup(uint32_t blockFrames, float sampleRate, float startGateDb, float endGateDb,
                       float risePercent, float minSeconds) {
    // The envelope's 33 Hz low-pass needs a rate above 66 Hz, and a block of
    // no frames could never advance.
    if (blockFrames == 0 || !belowNyquist(kEnvelopeCutoffHz, sampleRate)) {
        configured = 0;
        return false;
    }
    rate = sampleRate;
    frames = blockFrames;
    secondsPerSample = 1.0f / sampleRate;
    startGate = static_cast<float>(std::pow(10.0, static_cast<double>(startGateDb) * 0.05));
    endGate = static_cast<float>(std::pow(10.0, static_cast<double>(endGateDb) * 0.05));
    rise = static_cast<float>(0.01 * static_cast<double>(risePercent));
    minLength = truncToUint32(static_cast<double>(sampleRate) * static_cast<double>(minSeconds));
    // A second setup starts over: no slices, tracking as after construction.
    freeSlices();
    resetTracking();
    delete[] scratch;
    configured = 0;
    scratch = new (std::nothrow) float[blockFrames];
    if (scratch == nullptr) {
        return false;
    }
    if (!envelope.setup(blockFrames, sampleRate, kEnvelopeOrder, kEnvelopeCutoffHz, kEnvelopeGain,
                        0, 1.0f)) {
        return false;
    }
    // At 40000 Hz or less the 20000 Hz low-pass would sit at or above half the
    // rate, where it cannot be designed: the band is then limited from below
    // only. Likewise the 2000 Hz high-pass is left out at 4000 Hz or less.
    useUpperFilter = belowNyquist(kUpperCutoffHz, sampleRate);
    useLowerFilter = belowNyquist(kLowerCutoffHz, sampleRate);
    if (!upperFilter.setOrder(kBandOrder, 0) || !lowerFilter.setOrder(kBandOrder, 1)) {
        return false;
    }
    if (useUpperFilter) {
        upperFilter.design(sampleRate, kUpperCutoffHz);
    }
    if (useLowerFilter) {
        lowerFilter.design(sampleRate, kLowerCutoffHz);
    }
    configured = 1;
    return true;
}

float WaveSlicer::secondsAt(uint32_t samplePosition) const {
    // secondsPerSample = m * 2^(e - 24) with a 24-bit integer m, so the
    // product is the integer m * position (at most 56 bits) scaled by a power
    // of two: converting that integer to float is the one rounding.
    int exponent = 0;
    const float fraction = std::frexp(secondsPerSample, &exponent);
    const uint64_t mantissa = static_cast<uint64_t>(std::ldexp(fraction, 24));
    const float product = static_cast<float>(mantissa * samplePosition);
    return std::ldexp(product, exponent - 24);
}

void WaveSlicer::appendSlice(uint32_t start, uint32_t end) {
    SliceRecord* record = allocateRecord();
    if (record == nullptr) {
        return; // out of memory: this slice is lost, the analysis goes on
    }
    record->next = nullptr;
    record->prev = last;
    record->startSeconds = secondsAt(start);
    record->endSeconds = secondsAt(end);
    if (last != nullptr) {
        last->next = record;
    } else {
        first = record;
    }
    last = record;
    ++sliceCount;
}

void WaveSlicer::closeOpenSlice() {
    if (inSlice == 1) {
        sliceEnd = position;
        appendSlice(sliceStart, position);
        inSlice = 0;
    }
}

SliceRecord* WaveSlicer::slice(uint32_t index) const {
    SliceRecord* record = first;
    if (record == nullptr) {
        return nullptr;
    }
    for (uint32_t step = 0; step < index && record->next != nullptr; ++step) {
        record = record->next;
    }
    return record;
}

void WaveSlicer::bandLimitAndFollow(const float* x, uint32_t n) {
    if (useUpperFilter) {
        upperFilter.process(x, scratch, n);
        x = scratch;
    }
    if (useLowerFilter) {
        lowerFilter.process(x, scratch, n);
    } else if (x != scratch) {
        std::memcpy(scratch, x, n * sizeof(float));
    }
    if (envelope.ready != 0) {
        envelope.follow(scratch, scratch, static_cast<int32_t>(n));
    }
}

void WaveSlicer::applyRules(uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        const float e = scratch[i];
        if (inSlice == 1) {
            if (e < endGate && position - sliceStart > minLength) {
                // The envelope has died away: the slice ends here.
                sliceEnd = position;
                appendSlice(sliceStart, position);
                inSlice = 0;
            } else if (e >= startGate && armed == 1 && e - valley >= rise &&
                       position - sliceStart > minLength) {
                // A new attack: the slice ends at the valley it rose from and
                // the next one starts there.
                sliceEnd = valleyPos;
                appendSlice(sliceStart, valleyPos);
                armed = 0;
                sliceStart = valleyPos;
            }
        } else if (e >= startGate && armed == 1 && e - valley >= rise) {
            armed = 0;
            inSlice = 1;
            sliceStart = valleyPos;
        }
        if (seekingValley == 1) {
            if (e > valley) {
                // Left the valley: track the peak from here.
                peak = e;
                peakPos = position;
                seekingValley = 0;
                armed = 1;
            } else {
                valley = e;
                valleyPos = position;
            }
        } else if (e < peak) {
            // Turned down: track the next valley.
            valley = e;
            valleyPos = position;
            armed = 0;
            seekingValley = 1;
        } else {
            peak = e;
            peakPos = position;
        }
        ++position;
    }
}

void WaveSlicer::analyze(const float* x, uint32_t n) {
    if (configured == 0) {
        return;
    }
    while (n > 0) {
        const uint32_t piece = n < frames ? n : frames;
        bandLimitAndFollow(x, piece);
        applyRules(piece);
        x += piece;
        n -= piece;
    }
}

} // namespace dsp
