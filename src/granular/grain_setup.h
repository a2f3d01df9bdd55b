// Setup arithmetic shared by the granular engines: grain length and spacing
// from seconds, the output level from dB, the Gaussian grain window.
#pragma once

#include <cstdint>

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

// 10^(0.05 * dB) as float, not limited: a level beyond the float range is
// infinite and a NaN level stays NaN.
float levelFromDb(float levelDb);

// window[i] = exp(-0.25 * (13 i / length - 6.5)^2) for i < length.
void fillGaussianWindow(float* window, uint32_t length);

// The grain layout of an engine at one sample rate.
struct GrainGeometry {
    float rate = 0.0f;    // the sample rate as float
    uint32_t length = 0;  // samples per grain
    uint32_t spacing = 1; // samples between grain starts
    uint32_t count = 0;   // grain records: length / spacing
};

// False for a rate of 0 or a grain length grainLengthFor refuses.
bool grainGeometryFor(uint32_t sampleRate, float grainSeconds, float spacingSeconds,
                      GrainGeometry* geometry);

} // namespace granular
} // namespace dsp
