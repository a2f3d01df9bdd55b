// Linear-phase FIR low-pass or high-pass designed by the window method: a
// sinc response of N + 1 coefficients shaped by a Kaiser window and scaled to
// unit gain in the pass band. The coefficients are also kept as an N x N table
// of rotated copies, one row per position of the circular history, so every
// output is a dot product over aligned memory with no wrap-around.
#pragma once

#include "core/arithmetic_rules.h"
#include "core/owned_array.h"

#include <cstddef>
#include <cstdint>

namespace dsp {

// Floats from the general heap starting on a 16-byte boundary, which the
// vector loads of the filter need and operator new does not promise.
class AlignedFloats {
public:
    AlignedFloats() = default;
    AlignedFloats(AlignedFloats&& other) noexcept;
    AlignedFloats& operator=(AlignedFloats&& other) noexcept;

    // `count` floats, all 0, or an empty array when they cannot be allocated.
    static AlignedFloats allocate(size_t count);

    explicit operator bool() const { return start_ != nullptr; }
    float* data() const { return start_; }
    size_t size() const { return size_; }
    float& operator[](size_t i) const { return start_[i]; }

private:
    OwnedArray<float> block_; // the allocation, with room to move the start
    float* start_ = nullptr;
    size_t size_ = 0;
};

class KaiserFir {
public:
    static constexpr uint32_t kLowPass = 0;
    static constexpr uint32_t kHighPass = 1;

    KaiserFir() = default;
    KaiserFir(const KaiserFir&) = delete;
    KaiserFir& operator=(const KaiserFir&) = delete;

    // Sets the order N (a power of two, at least 8), the kind and the
    // stop-band attenuation, computes the Kaiser window and clears the
    // history. The arrays grow only when N exceeds what they hold. Returns
    // false, leaving the filter not ready (it then writes nothing), when N is
    // unusable or the arrays cannot be allocated.
    bool setWindow(float attenuationDb, int32_t taps, uint32_t kind);
    // Computes the coefficients and the rotated table for an edge at freq.
    // The history and its position are kept, so a filter redesigned between
    // blocks continues seamlessly.
    void design(float rate, float freq);
    // Filters n samples; in and out may be the same buffer. The plain rule
    // sums in double; the truncating rule in two pairs of single-precision
    // lanes; the nearest-even rule in four lanes.
    void filter(ArithmeticRule rule, const float* in, float* out, uint32_t n);

    bool isReady() const { return static_cast<bool>(state_); }

    // Kaiser beta for a stop-band attenuation in dB.
    static double kaiserBeta(double attenuationDb);
    // Modified Bessel function I0 by its power series cut after 20 terms.
    static double besselI0(double z);

private:
    // Replaces the five arrays by larger ones when N does not fit them.
    bool growArrays(size_t n);
    void releaseArrays();
    void computeWindow(double attenuationDb);
    // The steps of design: the windowed low-pass prototype by distance from
    // the centre, scaled to unit gain at DC (moved to the top of the band for
    // a high-pass), then laid out as coefficients and rotated rows.
    void designPrototype(double rate, double edge);
    void normaliseToUnitDcGain();
    void mirrorToHighPass();
    void storeCoefficients();
    void fillRotatedTable();
    // One output: x * c0 plus the history times a table row, summed in the
    // order and precision of a rule.
    using DotProduct = float (*)(float x, float c0, const float* state, const float* row,
                                 int32_t taps);
    // Every rule's filter loop: one dot product per input, then the history
    // advances. Only the dot product differs between the rules.
    template <DotProduct dot>
    void run(const float* in, float* out, uint32_t n);

    int32_t taps_ = 0;
    uint32_t log2Taps_ = 0;
    uint32_t kind_ = kLowPass;
    uint32_t mask_ = 0;
    int32_t half_ = 0;
    AlignedFloats coefficients_;  // N + 1, coefficient m for the input m samples back
    AlignedFloats table_;         // N x N rotated copies of coefficients 1 .. N
    AlignedFloats state_;         // N, circular history of the last N inputs
    OwnedArray<double> response_; // N/2 + 1, by distance from the centre
    OwnedArray<double> window_;   // N/2 + 1, by distance from the centre
    uint32_t position_ = 0;       // current row and history position
};

} // namespace dsp
