#include "grain_engine.h"

#include <cstring>

namespace dsp {
namespace granular {

bool GrainEngine::prepare(const GrainGeometry& geometry, uint32_t ringSize, Arrays* fresh) const {
    return prepareGrowth(ring_, ringSize, fresh->ring) &&
           prepareGrowth(window_, geometry.length, fresh->window) &&
           prepareGrowth(grains_, geometry.count, fresh->grains);
}

void GrainEngine::install(const GrainGeometry& geometry, Arrays& fresh) {
    installGrowth(ring_, fresh.ring);
    installGrowth(window_, fresh.window);
    installGrowth(grains_, fresh.grains);
    geometry_ = geometry;
}

void GrainEngine::start(uint32_t ringSize, int64_t stride, int64_t back) {
    for (uint32_t i = 0; i < ringSize; ++i) {
        ring_[i] = 0.0f;
    }
    fillGaussianWindow(window_.data(), geometry_.length);
    for (uint32_t k = 0; k < geometry_.count; ++k) {
        const int64_t steps = static_cast<int64_t>(k) + 1;
        Grain& g = grains_[k];
        g.active = 1;
        g.start = static_cast<int32_t>(steps * stride - back);
        g.age = static_cast<int32_t>(geometry_.length - steps * geometry_.spacing);
        g.window = window_.data();
        g.length = static_cast<int32_t>(geometry_.length);
    }
    writeIndex_ = 0;
    spawnPhase_ = 0;
    current_ = pending_;
    ready_ = true;
}

void GrainEngine::spawnGrain(int32_t start) {
    for (uint32_t k = 0; k < geometry_.count; ++k) {
        Grain& g = grains_[k];
        if (g.active == 0) {
            g.active = 1;
            g.age = 0;
            g.start = start;
            g.length = static_cast<int32_t>(geometry_.length);
            g.window = window_.data();
            return;
        }
    }
}

void GrainEngine::passPiece(const float* in, float* out, uint32_t n0, uint32_t len) {
    for (uint32_t k = 0; k < geometry_.count; ++k) {
        Grain& g = grains_[k];
        if (g.active != 0) {
            setAge(g, g.age + static_cast<int32_t>(stepsWithin(g, len)));
        }
    }
    std::memmove(out + n0, in + n0, static_cast<size_t>(len) * sizeof(float));
}

void GrainEngine::endBlock(const float* in, uint32_t frames) {
    for (uint32_t k = 0; k < geometry_.count; ++k) {
        if (grains_[k].active != 0) {
            grains_[k].start -= static_cast<int32_t>(frames);
        }
    }
    current_ = pending_;
    storeHistory(ring_.data(), writeIndex_, current_.span, in, frames);
}

} // namespace granular
} // namespace dsp
