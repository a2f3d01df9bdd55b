// Linear-phase FIR low-pass or high-pass designed by the window method: a
// sinc response of N + 1 coefficients shaped by a Kaiser window and scaled to
// unit gain in the pass band. The coefficients are also kept as an N x N table
// of rotated copies, one row per position of the circular history, so every
// output is a dot product over aligned memory with no wrap-around.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dsp {

class KaiserFir {
public:
    static constexpr uint32_t kLowPass = 0;
    static constexpr uint32_t kHighPass = 1;

    KaiserFir() = default;
    virtual ~KaiserFir();
    KaiserFir(const KaiserFir&) = delete;
    KaiserFir& operator=(const KaiserFir&) = delete;

    // Sets the order N (a power of two, at least 8), the kind and the
    // stop-band attenuation, computes the Kaiser window and clears the
    // history. The arrays grow only when N exceeds the current order. Returns
    // false (and leaves the filter not ready) when N is unusable or the arrays
    // cannot be allocated.
    bool setWindow(float attenuationDb, int32_t taps, uint32_t kind);
    // Computes the coefficients and the rotated table for an edge at freq.
    // The history and its position are kept, so a filter redesigned between
    // blocks continues seamlessly.
    void design(float rate, float freq);
    // Filters n samples; in and out may be the same buffer. The path follows
    // the SIMD switches (3DNow! first, then SSE, else plain double).
    void filter(const float* in, float* out, uint32_t n);

    // The individual paths, for tests and benchmarks; they ignore the switches.
    void filterPlain(const float* in, float* out, uint32_t n);
    void filter3dnow(const float* in, float* out, uint32_t n);
    void filterSse(const float* in, float* out, uint32_t n);

    // Kaiser beta for a stop-band attenuation in dB.
    static double kaiserBeta(double attenuationDb);
    // Modified Bessel function I0 by its power series cut after 20 terms.
    static double besselI0(double z);

    uint8_t ready = 0;
    int32_t taps = 0;
    uint32_t log2Taps = 0;
    float rate = 0.0f;
    float edgeHz = 0.0f;
    uint32_t kind = kLowPass;
    float attenuationDb = 0.0f;
    uint32_t mask = 0;
    int32_t half = 0;
    float* coefficients = nullptr; // N + 1, 16-byte aligned
    void* coefficientsBlock = nullptr;
    float* table = nullptr; // N x N, 16-byte aligned
    void* tableBlock = nullptr;
    double* response = nullptr; // N/2 + 1, by distance from the centre
    float* state = nullptr;     // N, 16-byte aligned circular history
    void* stateBlock = nullptr;
    double* window = nullptr; // N/2 + 1, by distance from the centre
    uint32_t position = 0;

private:
    void freeArrays();
    bool allocateArrays(int32_t n);
    // Advances the history by one input after its output was computed.
    void push(float x) {
        position = (position - 1) & mask;
        state[position] = x;
    }
    const float* currentRow() const { return table + (static_cast<size_t>(position) << log2Taps); }
};

} // namespace dsp
