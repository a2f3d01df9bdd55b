// One grain of the granular engines: a windowed stretch of input that plays
// for `length` samples. The pitch shifter and the time stretcher share it.
#pragma once

#include <cstdint>

namespace dsp {

struct Grain {
    uint8_t active = 0;
    // Read position at age 0, counted from the first sample of the current
    // block (negative values lie in the history).
    int32_t start = 0;
    int32_t age = 0; // samples since the grain began
    const float* window = nullptr;
    int32_t length = 0;
};

namespace granular {

// The samples a sounding grain plays in a stretch of `len` samples in which
// no grain starts: one at least, then until its age reaches its length.
inline uint32_t stepsWithin(const Grain& g, uint32_t len) {
    const int64_t left = static_cast<int64_t>(g.length) - g.age;
    return left <= 1 ? 1u : (left < len ? static_cast<uint32_t>(left) : len);
}

// Sets the age a grain has reached; it falls silent at its length.
inline void setAge(Grain& g, int32_t age) {
    g.age = age;
    if (g.age >= g.length) {
        g.active = 0;
    }
}

} // namespace granular
} // namespace dsp
