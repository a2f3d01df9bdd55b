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

} // namespace dsp
