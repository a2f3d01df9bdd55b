// The only conversions between interleaved 16-bit samples and per-channel
// float buffers, and the whole-buffer copies. Each conversion follows the
// arithmetic rule its caller passes (decided once per block, see
// arithmetic_rules.h).
//
// Plain rule: int16 -> float multiplies by 1/32767 in double; float -> int16
// clamps to [-1, 1] (NaN becomes 1), multiplies by 32767 in double and
// truncates. The single-precision rules convert the largest multiple of their
// kernel group with their own arithmetic and leave the rest to the plain
// rule, so the rules differ by at most one unit of a 16-bit sample.
#pragma once

#include "arithmetic_rules.h"

#include <cstddef>
#include <cstdint>

namespace dsp {

// Converts `bytes` of interleaved input. Stereo (channels == 2) goes to
// left/right, or is mixed down into left when right is null; any other
// channel count is read as mono. Returns the whole frames converted.
uint32_t convertToFloat(ArithmeticRule rule, const int16_t* src, uint32_t bytes, float* left,
                        float* right, uint32_t channels);

// Writes `frames` frames. channels == 2 interleaves left/right, or duplicates
// left into both channels when right is null; any other count writes mono.
// Returns frames * 2 * channels.
uint32_t convertToInt16(ArithmeticRule rule, const float* left, const float* right, uint32_t frames,
                        int16_t* dst, uint32_t channels);

// The chain's copy of a block when it holds no processor.
void passThroughCopy(const void* src, void* dst, uint32_t bytes);

// Copies the largest multiple of 16 bytes in 16-byte blocks, then the 0..15
// remaining bytes one by one.
void blockCopy16(const void* src, void* dst, size_t bytes);

// Whole-buffer copy used across the library: the 16-byte block copy when the
// rules ask for it, a plain copy otherwise. The bytes copied are the same.
void copyBuffer(const void* src, void* dst, size_t bytes);

namespace convert {

// Per-sample rules of the plain path.
inline float sampleToFloat(int32_t s) {
    return static_cast<float>(static_cast<double>(s) * (1.0 / 32767.0));
}

inline int16_t floatToSample(float x) {
    double v;
    if (x < -1.0f) {
        v = -1.0;
    } else if (!(x <= 1.0f)) { // above 1.0, or NaN
        v = 1.0;
    } else {
        v = x;
    }
    return static_cast<int16_t>(static_cast<int32_t>(v * 32767.0));
}

} // namespace convert

} // namespace dsp
