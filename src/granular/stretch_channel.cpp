#include "stretch_channel.h"

#include "core/numeric.h"
#include "grain_history.h"
#include "grain_setup.h"

#include <cmath>

namespace dsp {

StretchChannel::~StretchChannel() {
    delete[] ring;
    delete[] window;
    delete[] grains;
}

bool StretchChannel::setup(uint32_t frames, uint32_t sampleRate, float scale, float levelDb,
                           float grainSeconds, float spacingSeconds, uint32_t* outputFrames) {
    granular::GrainGeometry geometry;
    if (!granular::grainGeometryFor(sampleRate, grainSeconds, spacingSeconds, &geometry)) {
        return false;
    }
    const uint32_t newLength = geometry.length;
    const uint32_t newCapacity = 8 * newLength; // trunc(2^3 * length), exact

    // Allocate everything first, so a failure leaves the running engine intact.
    granular::ArrayGrowth<float> newRing, newWindow;
    granular::ArrayGrowth<Grain> newGrains;
    if (!newRing.prepare(ring == nullptr || newCapacity > ringAllocated_, newCapacity) ||
        !newWindow.prepare(window == nullptr || newLength > windowAllocated_, newLength) ||
        !newGrains.prepare(grains == nullptr || geometry.count > grainAllocated_, geometry.count)) {
        return false;
    }
    if (newRing.install(ring)) {
        ringAllocated_ = newCapacity;
    }
    if (newWindow.install(window)) {
        windowAllocated_ = newLength;
    }
    if (newGrains.install(grains)) {
        grainAllocated_ = geometry.count;
    }

    rate = geometry.rate;
    maxFrames = frames;
    grainLength = newLength;
    setScale(scale); // uses the new grain length
    spacing = geometry.spacing;
    grainCount = geometry.count;
    outLevel = granular::levelFromDb(levelDb);
    ringCapacity = newCapacity;

    // Records began spacing output samples apart, which is trunc(spacing x
    // step) input samples; the reach back is the pending span.
    const double stepValue = static_cast<double>(stepPending);
    const int64_t stride = truncToInt32(static_cast<double>(spacing) * stepValue);
    const int64_t back = factorPending < 1.0f
                             ? truncToInt32(static_cast<double>(grainLength) * stepValue)
                             : static_cast<int64_t>(grainLength);
    granular::resetGrains(ring, ringCapacity, window, grains, geometry, stride, back);

    spawnPhase = 0;
    writeIndex = 0;
    bypass = bypassPending;
    span = spanPending;
    factor = factorPending;
    step = stepPending;
    offset = offsetPending;
    ready = 1;
    *outputFrames = pendingOutputFrames(frames);
    return true;
}

float StretchChannel::factorForScale(float scale, bool* passThrough) {
    // Only exactly 0 passes through; a scale that is not a number counts as 0
    // here and is clamped to 3000 below.
    *passThrough = scale == 0.0f || std::isnan(scale);
    float clamped = scale;
    if (clamped < -2000.0f) {
        clamped = -2000.0f;
    } else if (!(clamped <= 3000.0f)) {
        clamped = 3000.0f;
    }
    return static_cast<float>(std::pow(2.0, -static_cast<double>(clamped) * 0.001));
}

uint32_t StretchChannel::outputFramesForScale(float scale, uint32_t frames) {
    bool passThrough = false;
    float f = factorForScale(scale, &passThrough);
    if (passThrough) {
        return frames;
    }
    return truncToUint32(static_cast<double>(frames) * static_cast<double>(f));
}

void StretchChannel::setScale(float scale) {
    bool passThrough = false;
    factorPending = factorForScale(scale, &passThrough);
    bypassPending = passThrough ? 1 : 0;
    stepPending = 1.0f / factorPending;
    if (factorPending < 1.0f) {
        spanPending =
            truncToUint32(static_cast<double>(grainLength) * static_cast<double>(stepPending));
        offsetPending = 0;
    } else {
        spanPending = grainLength;
        offsetPending = grainLength;
    }
}

void StretchChannel::setOutLevel(float levelDb) {
    outLevel = granular::levelFromDb(levelDb);
}

// A pass-through block yields its own length. (A scale that is not a number
// passes through while its pending factor is 1/8, so the factor alone would
// under-report the output.)
uint32_t StretchChannel::pendingOutputFrames(uint32_t frames) const {
    if (bypassPending != 0) {
        return frames;
    }
    return truncToUint32(static_cast<double>(frames) * static_cast<double>(factorPending));
}

uint32_t StretchChannel::currentOutputFrames(uint32_t frames) const {
    if (bypass != 0) {
        return frames;
    }
    return truncToUint32(static_cast<double>(frames) * static_cast<double>(factor));
}

uint32_t StretchChannel::process(const float* in, float* out, uint32_t frames) {
    if (ready != 1) {
        return 0;
    }
    uint32_t written = 0;
    while (frames > 0) {
        uint32_t block = frames < granular::kMaxChunkFrames ? frames : granular::kMaxChunkFrames;
        written += processBlock(in, out + written, block, frames);
        in += block;
        frames -= block;
    }
    return written;
}

void StretchChannel::spawnGrain(uint32_t outIndex) {
    for (uint32_t k = 0; k < grainCount; ++k) {
        Grain& g = grains[k];
        if (g.active == 0) {
            g.active = 1;
            g.age = 0;
            g.start =
                truncToInt32(static_cast<double>(offset + outIndex) * static_cast<double>(step)) -
                static_cast<int32_t>(offset);
            g.length = static_cast<int32_t>(grainLength);
            g.window = window;
            return;
        }
    }
}

uint32_t StretchChannel::processBlock(const float* in, float* out, uint32_t frames,
                                      uint32_t available) {
    uint32_t produced;
    if (bypass != 0) {
        for (uint32_t j = 0; j < frames; ++j) {
            if (spawnPhase == 0) {
                spawnGrain(j);
            }
            if (++spawnPhase >= spacing) {
                spawnPhase = 0;
            }
            for (uint32_t k = 0; k < grainCount; ++k) {
                Grain& g = grains[k];
                if (g.active != 0 && ++g.age >= g.length) {
                    g.active = 0;
                }
            }
            out[j] = in[j];
        }
        produced = frames;
    } else {
        produced = truncToUint32(static_cast<double>(frames) * static_cast<double>(factor));
        for (uint32_t j = 0; j < produced; ++j) {
            if (spawnPhase == 0) {
                spawnGrain(j);
            }
            if (++spawnPhase >= spacing) {
                spawnPhase = 0;
            }
            double acc = 0.0;
            double wsum = 0.0;
            for (uint32_t k = 0; k < grainCount; ++k) {
                Grain& g = grains[k];
                if (g.active == 0) {
                    continue;
                }
                const int64_t p = static_cast<int64_t>(g.start) + g.age;
                double v = static_cast<double>(
                    granular::sampleAt(p, in, available, ring, writeIndex, span));
                double weight = static_cast<double>(g.window[g.age]);
                acc += v * weight;
                wsum += weight;
                if (++g.age >= g.length) {
                    g.active = 0;
                }
            }
            out[j] = wsum > 0.0 ? static_cast<float>(acc * (static_cast<double>(outLevel) / wsum))
                                : 0.0f;
        }
    }

    // End of block: positions relative to the next block, pending settings
    // take over, then the history is kept with the new span.
    for (uint32_t k = 0; k < grainCount; ++k) {
        if (grains[k].active != 0) {
            grains[k].start -= static_cast<int32_t>(frames);
        }
    }
    span = spanPending;
    bypass = bypassPending;
    step = stepPending;
    offset = offsetPending;
    factor = factorPending;
    granular::storeHistory(ring, writeIndex, span, in, frames);
    return produced;
}

} // namespace dsp
