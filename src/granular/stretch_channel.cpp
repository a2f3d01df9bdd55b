#include "stretch_channel.h"

#include "core/numeric.h"

#include <cmath>

namespace dsp {

namespace {

// 2^(-scale/1000) of the clamped scale, as float; *passThrough is set for
// exactly 0 and for a scale that is not a number (which counts as 0 here and
// is clamped to 3000).
float factorForScale(float scale, bool* passThrough) {
    *passThrough = scale == 0.0f || std::isnan(scale);
    float clamped = scale;
    if (clamped < -2000.0f) {
        clamped = -2000.0f;
    } else if (!(clamped <= 3000.0f)) {
        clamped = 3000.0f;
    }
    return static_cast<float>(std::pow(2.0, -static_cast<double>(clamped) * 0.001));
}

// A pass-through block yields its own length. (A scale that is not a number
// passes through while its factor is 1/8, so the factor alone would
// under-report the output.)
uint32_t outputFramesFor(bool passThrough, float factor, uint32_t frames) {
    if (passThrough) {
        return frames;
    }
    return truncToUint32(static_cast<double>(frames) * static_cast<double>(factor));
}

} // namespace

bool StretchChannel::setup(uint32_t sampleRate, float scale, float levelDb, float grainSeconds,
                           float spacingSeconds) {
    granular::GrainGeometry geometry;
    if (!granular::grainGeometryFor(sampleRate, grainSeconds, spacingSeconds, &geometry)) {
        return false;
    }
    const uint32_t ringSize = 8 * geometry.length; // trunc(2^3 * length), exact
    granular::GrainEngine::Arrays arrays;
    if (!engine_.prepare(geometry, ringSize, &arrays)) {
        return false;
    }
    engine_.install(geometry, arrays);
    engine_.setPending(settingsFor(scale)); // uses the new grain length
    engine_.setOutLevel(levelDb);

    // Records began spacing output samples apart, which is trunc(spacing x
    // step) input samples; the reach back is the pending span.
    const granular::GrainSettings& next = engine_.pending();
    const double step = static_cast<double>(next.step);
    const int64_t stride = truncToInt32(static_cast<double>(geometry.spacing) * step);
    const int64_t back = next.ratio < 1.0f
                             ? truncToInt32(static_cast<double>(geometry.length) * step)
                             : static_cast<int64_t>(geometry.length);
    engine_.start(ringSize, stride, back);
    return true;
}

granular::GrainSettings StretchChannel::settingsFor(float scale) const {
    granular::GrainSettings next;
    next.ratio = factorForScale(scale, &next.bypass);
    next.step = 1.0f / next.ratio;
    const uint32_t length = engine_.grainLength();
    if (next.ratio < 1.0f) {
        next.span = truncToUint32(static_cast<double>(length) * static_cast<double>(next.step));
        next.offset = 0;
    } else {
        next.span = length;
        next.offset = static_cast<int32_t>(length);
    }
    return next;
}

void StretchChannel::setScale(float scale) {
    engine_.setPending(settingsFor(scale));
}

uint32_t StretchChannel::outputFramesForScale(float scale, uint32_t frames) {
    bool passThrough = false;
    const float factor = factorForScale(scale, &passThrough);
    return outputFramesFor(passThrough, factor, frames);
}

uint32_t StretchChannel::pendingOutputFrames(uint32_t frames) const {
    return outputFramesFor(engine_.pending().bypass, engine_.pending().ratio, frames);
}

uint32_t StretchChannel::currentOutputFrames(uint32_t frames) const {
    return outputFramesFor(engine_.current().bypass, engine_.current().ratio, frames);
}

uint32_t StretchChannel::currentInputFrames(uint32_t outputFrames) const {
    if (engine_.current().bypass) {
        return outputFrames;
    }
    return truncToUint32(static_cast<double>(outputFrames) /
                         static_cast<double>(engine_.current().ratio));
}

uint32_t StretchChannel::process(const float* in, float* out, uint32_t frames) {
    if (!engine_.isReady()) {
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

void StretchChannel::mixFrames(const float* in, float* out, uint32_t available, uint32_t j0,
                               uint32_t len) {
    const granular::HistoryView history = engine_.history();
    const double level = static_cast<double>(engine_.outLevel());
    Grain* grains = engine_.grains();
    const uint32_t count = engine_.grainCount();
    for (uint32_t j = j0; j < j0 + len; ++j) {
        double acc = 0.0;
        double wsum = 0.0;
        for (uint32_t k = 0; k < count; ++k) {
            Grain& g = grains[k];
            if (g.active == 0) {
                continue;
            }
            const int64_t p = static_cast<int64_t>(g.start) + g.age;
            const double v = static_cast<double>(history.at(p, in, available));
            const double weight = static_cast<double>(g.window[g.age]);
            acc += v * weight;
            wsum += weight;
            if (++g.age >= g.length) {
                g.active = 0;
            }
        }
        out[j] = wsum > 0.0 ? static_cast<float>(acc * (level / wsum)) : 0.0f;
    }
}

uint32_t StretchChannel::processBlock(const float* in, float* out, uint32_t frames,
                                      uint32_t available) {
    const granular::GrainSettings now = engine_.current();
    const uint32_t produced = outputFramesFor(now.bypass, now.ratio, frames);
    // Output frame j stands for input position j x step.
    const uint32_t offset = static_cast<uint32_t>(now.offset);
    auto startOf = [&](uint32_t j) {
        return truncToInt32(static_cast<double>(offset + j) * static_cast<double>(now.step)) -
               static_cast<int32_t>(offset);
    };
    // Pieces as long as the spawn clock allows: each frame has its own sums.
    engine_.runPieces(produced, UINT32_MAX, startOf, [&](uint32_t j0, uint32_t len) {
        if (now.bypass) {
            engine_.passPiece(in, out, j0, len);
        } else {
            mixFrames(in, out, available, j0, len);
        }
    });
    engine_.endBlock(in, frames);
    return produced;
}

} // namespace dsp
