// Setup arithmetic shared by the granular engines: grain length and spacing
// from seconds, the output level from dB, the Gaussian grain window.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>

namespace dsp {
namespace granular {

// Longest grain accepted, in samples (about 25 minutes at 44100 Hz); it keeps
// every history size and grain position well inside 32 bits.
constexpr uint32_t kMaxGrainLength = 1u << 26;

// Samples per block of the engines' inner loop; longer blocks are split.
constexpr uint32_t kMaxChunkFrames = 32768;

// trunc(rate * grainSeconds * 325/212) in double. False for a value that is
// not a number, negative beyond -1 or longer than kMaxGrainLength.
bool grainLengthFor(float rate, float grainSeconds, uint32_t* length);

// trunc(rate * spacingSeconds) in double. A spacing that truncates to 0 is
// taken as 1 sample, so the grain count and the spawn clock never divide by
// zero; a negative one wraps to a huge spacing, which simply spawns no grains.
uint32_t spacingFor(float rate, float spacingSeconds);

// 10^(0.05 * dB) as float. A level that is not a number counts as 0 dB, and a
// level beyond the float range is held at the largest float, so that silence
// times the level stays 0 instead of becoming NaN.
float levelFromDb(float levelDb);

// window[i] = exp(-0.25 * (13 i / length - 6.5)^2) for i < length.
void fillGaussianWindow(float* window, uint32_t length);

// new (std::nothrow) T[count], or null when count elements cannot be sized.
template <typename T>
T* allocateArray(size_t count) {
    if (count == 0) {
        count = 1;
    }
    if (count > SIZE_MAX / sizeof(T)) {
        return nullptr;
    }
    return new (std::nothrow) T[count];
}

} // namespace granular
} // namespace dsp
