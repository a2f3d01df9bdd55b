#include "pitch_shift_channel.h"

#include "core/cubic_weight.h"
#include "core/numeric.h"
#include "grain_history.h"
#include "grain_setup.h"

#include <cmath>

namespace dsp {

PitchShiftChannel::~PitchShiftChannel() {
    delete[] ring;
    delete[] window;
    delete[] grains;
}

bool PitchShiftChannel::setup(uint32_t sampleRate, float cents, float levelDb, float grainSeconds,
                              float spacingSeconds) {
    float newRate = static_cast<float>(sampleRate);
    uint32_t newLength = 0;
    if (sampleRate == 0 || !granular::grainLengthFor(newRate, grainSeconds, &newLength)) {
        return false;
    }
    uint32_t newSpacing = granular::spacingFor(newRate, spacingSeconds);
    uint32_t newCount = newLength / newSpacing;

    // Allocate everything first, so a failure leaves the running engine intact.
    uint32_t ringSize = 2 * newLength + 3;
    float* newRing = nullptr;
    float* newWindow = nullptr;
    Grain* newGrains = nullptr;
    bool growRing = ring == nullptr || ringSize > ringCapacity_;
    bool growWindow = window == nullptr || newLength > windowCapacity_;
    bool growGrains = grains == nullptr || newCount > grainCapacity_;
    if (growRing) {
        newRing = granular::allocateArray<float>(ringSize);
    }
    if (growWindow) {
        newWindow = granular::allocateArray<float>(newLength);
    }
    if (growGrains) {
        newGrains = granular::allocateArray<Grain>(newCount);
    }
    if ((growRing && newRing == nullptr) || (growWindow && newWindow == nullptr) ||
        (growGrains && newGrains == nullptr)) {
        delete[] newRing;
        delete[] newWindow;
        delete[] newGrains;
        return false;
    }
    if (newRing != nullptr) {
        delete[] ring;
        ring = newRing;
        ringCapacity_ = ringSize;
    }
    if (newWindow != nullptr) {
        delete[] window;
        window = newWindow;
        windowCapacity_ = newLength;
    }
    if (newGrains != nullptr) {
        delete[] grains;
        grains = newGrains;
        grainCapacity_ = newCount;
    }

    rate = newRate;
    grainLength = newLength;
    setPitch(cents); // uses the new grain length
    spacing = newSpacing;
    grainCount = newCount;
    outLevel = granular::levelFromDb(levelDb);

    for (uint32_t i = 0; i < ringSize; ++i) {
        ring[i] = 0.0f;
    }
    granular::fillGaussianWindow(window, grainLength);

    // Staggered grains, as if the engine had been running on silence.
    int32_t back =
        pitchCents < 0.0f ? static_cast<int32_t>(grainLength) : static_cast<int32_t>(spanPending);
    for (uint32_t k = 0; k < grainCount; ++k) {
        int32_t elapsed = static_cast<int32_t>((k + 1) * spacing);
        Grain& g = grains[k];
        g.active = 1;
        g.start = elapsed - back;
        g.age = static_cast<int32_t>(grainLength) - elapsed;
        g.window = window;
        g.length = static_cast<int32_t>(grainLength);
    }

    writeIndex = 0;
    spawnPhase = 0;
    span = spanPending;
    ratio = ratioPending;
    offset = offsetPending;
    bypass = bypassPending;
    ready = 1;
    return true;
}

void PitchShiftChannel::setPitch(float cents) {
    // Only exactly 0 bypasses; a pitch that is not a number counts as 0 here
    // and is stored as +1200 below.
    bypassPending = (cents == 0.0f || std::isnan(cents)) ? 1 : 0;
    float clamped = cents;
    if (clamped < -1200.0f) {
        clamped = -1200.0f;
    } else if (!(clamped <= 1200.0f)) {
        clamped = 1200.0f;
    }
    pitchCents = clamped;
    double r = std::pow(2.0, static_cast<double>(clamped) * (1.0 / 1200.0));
    ratioPending = static_cast<float>(r);
    double length = static_cast<double>(grainLength);
    offsetPending = clamped >= 0.0f ? truncToInt32(length - r * length) : 0;
    spanPending = truncToUint32(length * r) + 3;
}

void PitchShiftChannel::setOutLevel(float levelDb) {
    outLevel = granular::levelFromDb(levelDb);
}

void PitchShiftChannel::process(const float* in, float* out, uint32_t frames) {
    if (ready != 1) {
        return;
    }
    while (frames > 0) {
        uint32_t block = frames < granular::kMaxChunkFrames ? frames : granular::kMaxChunkFrames;
        processBlock(in, out, block);
        in += block;
        out += block;
        frames -= block;
    }
}

void PitchShiftChannel::spawnGrain(int32_t start) {
    for (uint32_t k = 0; k < grainCount; ++k) {
        Grain& g = grains[k];
        if (g.active == 0) {
            g.active = 1;
            g.age = 0;
            g.start = start;
            g.length = static_cast<int32_t>(grainLength);
            g.window = window;
            return;
        }
    }
}

float PitchShiftChannel::sampleAt(int32_t k, const float* in, uint32_t frames) const {
    if (k >= 0) {
        // A read point never passes the current sample; the bound only keeps
        // a rounding accident at the block end inside the block.
        uint32_t index = static_cast<uint32_t>(k);
        return in[index < frames ? index : frames - 1];
    }
    uint32_t m = static_cast<uint32_t>(-static_cast<int64_t>(k));
    return granular::pastSample(ring, writeIndex, span, m);
}

void PitchShiftChannel::processBlock(const float* in, float* out, uint32_t frames) {
    for (uint32_t n = 0; n < frames; ++n) {
        if (spawnPhase == 0) {
            spawnGrain(offset + static_cast<int32_t>(n));
        }
        if (++spawnPhase >= spacing) {
            spawnPhase = 0;
        }
        if (bypass != 0) {
            for (uint32_t k = 0; k < grainCount; ++k) {
                Grain& g = grains[k];
                if (g.active != 0 && ++g.age >= g.length) {
                    g.active = 0;
                }
            }
            out[n] = in[n];
            continue;
        }
        double acc = 0.0;
        double wsum = 0.0;
        for (uint32_t k = 0; k < grainCount; ++k) {
            Grain& g = grains[k];
            if (g.active == 0) {
                continue;
            }
            double p = static_cast<double>(g.age) * static_cast<double>(ratio) +
                       static_cast<double>(g.start);
            int32_t ip = truncToInt32(p);
            double t = p - static_cast<double>(ip); // (-1, 0] below zero, [0, 1) above
            float x0, x1, x2, x3;
            if (ip >= 3 && static_cast<uint32_t>(ip) < frames) {
                x0 = in[ip - 3];
                x1 = in[ip - 2];
                x2 = in[ip - 1];
                x3 = in[ip];
            } else {
                x0 = sampleAt(ip - 3, in, frames);
                x1 = sampleAt(ip - 2, in, frames);
                x2 = sampleAt(ip - 1, in, frames);
                x3 = sampleAt(ip, in, frames);
            }
            double v = cubicWeight(std::fabs(1.0 + t)) * static_cast<double>(x0) +
                       cubicWeight(std::fabs(t)) * static_cast<double>(x1) +
                       cubicWeight(std::fabs(t - 1.0)) * static_cast<double>(x2) +
                       cubicWeight(std::fabs(t - 2.0)) * static_cast<double>(x3);
            double weight = static_cast<double>(g.window[g.age]);
            acc += v * weight;
            wsum += weight;
            if (++g.age >= g.length) {
                g.active = 0;
            }
        }
        out[n] = wsum > 0.0 ? static_cast<float>(static_cast<double>(outLevel) / wsum * acc) : 0.0f;
    }

    // End of block: positions relative to the next block, pending settings
    // take over, then the history is kept with the new span.
    for (uint32_t k = 0; k < grainCount; ++k) {
        if (grains[k].active != 0) {
            grains[k].start -= static_cast<int32_t>(frames);
        }
    }
    span = spanPending;
    ratio = ratioPending;
    offset = offsetPending;
    bypass = bypassPending;
    granular::storeHistory(ring, writeIndex, span, in, frames);
}

} // namespace dsp
