// The resampler's pass band made flat by the tool. The library's converter
// interpolates with a fixed kernel (linear, or cubic convolution with
// a = -1) whose response falls towards the source's Nyquist frequency: the
// cubic one is 3.8 dB down at 0.45 of the source rate, linear interpolation
// 6.2 dB (where the output frames fall on every fraction between source
// frames; where they fall on whole frames only, as in halving the rate,
// the kernel passes all unchanged). Its anti-alias low-pass is flat to the
// pass band edge. The equaliser runs on the source side of the converter:
// a short minimum-phase FIR whose response is the inverse of the
// converter's up to the pass band edge (beyond it, the inverse's slope
// eases to level at the source's Nyquist frequency), designed at start-up.
// Minimum phase: no latency to account for, the output keeps its length
// and place.
#pragma once

#include <cstdint>
#include <vector>

namespace cli {

// FIR length and the frequency grid (points per source rate) of the design.
constexpr uint32_t kEqualiserTaps = 16;
constexpr uint32_t kEqualiserGrid = 256;
// Up to this many output positions per source frame the response is summed
// exactly; beyond, the kernel's transform stands for it.
constexpr uint32_t kExactPhases = 256;

// The interpolation kernel's Fourier transform at `nu` (frequency over the
// source rate), 1 at 0: the converter's response when its output frames
// fall evenly on every fraction between source frames.
double kernelResponse(bool cubic, double nu);

// The converter's response at `nu` when its output frames fall on `phases`
// evenly spaced positions per source frame (the output rate over the
// greatest common divisor of the two rates): the transform of the kernel's
// values at multiples of 1 / phases, over phases. 1 for one phase.
double interpolationResponse(bool cubic, uint32_t phases, double nu);

// The taps of the equaliser for the interpolation (cubic or linear), its
// phases and a pass band that ends at `edge` (frequency over the source
// rate, 0 < edge < 0.5); their sum is 1 (0 Hz passes unchanged).
std::vector<float> equaliserTaps(bool cubic, uint32_t phases, double edge);

// The FIR running on interleaved float frames, its history kept per channel.
class PassbandEqualiser {
public:
    // Blocks of any length are taken; up to maxFrames go in one pass.
    PassbandEqualiser(std::vector<float> taps, uint32_t channels, uint32_t maxFrames);

    // Filters `frames` frames from `in` into `out` (which may be `in`).
    void process(const float* in, float* out, uint32_t frames);

private:
    void pass(const float* in, float* out, uint32_t frames);

    std::vector<float> taps_;
    uint32_t channels_;
    uint32_t maxFrames_;
    // Taps - 1 frames of history, then the frames of the pass.
    std::vector<float> work_;
    std::vector<float> sum_; // the output of a pass
};

} // namespace cli
