// Recursive filters as cascades of second-order sections (plus one
// first-order section for odd orders), designed from analog prototypes by the
// bilinear transform with prewarping. The high-pass is the low-pass designed
// at the mirrored frequency (rate/2 - f) with every odd-power coefficient's
// sign turned over. Coefficients and state are double; audio is float.
#pragma once

#include "core/owned_array.h"

#include <cstdint>

namespace dsp {

// One section in direct form II: H(z) = (b0 + b1 z^-1 + b2 z^-2) /
// (1 - a1 z^-1 - a2 z^-2), and its two delay values. A default section passes
// the signal through.
struct BiquadSection {
    double a1 = 0.0; // feedback, with the sign the recursion adds
    double a2 = 0.0;
    double b0 = 1.0; // feed-forward
    double b1 = 0.0;
    double b2 = 0.0;
    double s1 = 0.0; // most recent delay value
    double s2 = 0.0; // older delay value
};

class IirDesigner {
public:
    IirDesigner() = default;
    virtual ~IirDesigner() = default;
    IirDesigner(const IirDesigner&) = delete;
    IirDesigner& operator=(const IirDesigner&) = delete;

    // kind 1 selects a high-pass, anything else a low-pass. Resets every
    // section to pass-through and clears the state; the sections only grow.
    // Returns false (leaving no sections, so process copies, and
    // isAllocated() false) when they cannot be allocated.
    virtual bool setOrder(int32_t order, uint32_t kind);
    // Fills the coefficients for a cutoff at `frequency` Hz (0 < f < rate/2);
    // the state is left as it is.
    virtual void design(float rate, float frequency) = 0;
    // Filters `frames` samples (in and out may be the same buffer); the state
    // carries over from call to call. Returns frames.
    virtual uint32_t process(const float* in, float* out, uint32_t frames);
    // Runs two cascades side by side, as `first`.process(inFirst, outFirst)
    // and `second`.process(inSecond, outSecond) would, each with exactly its
    // own arithmetic: two independent channels share the vector lanes. Each
    // output may be its own input. Falls back to the two calls in turn when
    // the cascades differ in length or one channel's output overlaps the
    // other channel's buffers.
    static void processPair(IirDesigner& first, const float* inFirst, float* outFirst,
                            IirDesigner& second, const float* inSecond, float* outSecond,
                            uint32_t frames);

    // True once setOrder has allocated the sections.
    bool isAllocated() const { return static_cast<bool>(sections_); }
    // The order and rate of the last setOrder and design.
    int32_t order() const { return order_; }
    float rate() const { return rate_; }
    // Prototype frequency of the last design: the cutoff, or rate/2 - cutoff
    // for a high-pass.
    float frequency() const { return frequency_; }
    int32_t sectionCount() const { return sectionCount_; }
    const BiquadSection& section(int32_t i) const { return sections_[static_cast<size_t>(i)]; }

protected:
    // Common start of both designs: stores rate and the prototype frequency
    // and returns the prewarped analog frequency T = tan(pi/fs * f').
    double prewarp(float rate, float frequency);
    // Second-order section i from its scaled pole radius u and m.
    void setSecondOrder(int32_t i, double u, double m);
    // The last section of an odd order, first order with pole p.
    void setFirstOrder(int32_t i, double p);
    // Pole angle of section i: k * (pi/2) / N, k = 1, 3, 5... (even N) or 2, 4... (odd N).
    double poleAngle(int32_t i) const;
    // Scales the feed-forward coefficients of section i.
    void scaleGain(int32_t i, double gain);

private:
    OwnedArray<BiquadSection> sections_;
    int32_t order_ = 0;
    float rate_ = 0.0f;
    int32_t sectionCount_ = 0;
    float frequency_ = 0.0f;
    float kindSign_ = 1.0f; // -1 high-pass, +1 low-pass
};

// Maximally flat: -3.01 dB at the cutoff.
class ButterworthDesigner : public IirDesigner {
public:
    void design(float rate, float frequency) override;
};

// Chebyshev type I: equiripple pass band; design() uses a 1 dB ripple.
class ChebyshevDesigner : public IirDesigner {
public:
    void design(float rate, float frequency) override;
    void designChebyshev(float rate, float frequency, float rippleDb);
};

} // namespace dsp
