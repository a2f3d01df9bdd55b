// Function tables built once at library load and read with wrapped linear
// interpolation: the decibel-to-gain table of the fader and cross-fader and
// the sine table of the chorus oscillator. Each holds one entry more than its
// step count, so an interpolation at the last step needs no bounds test.
#pragma once

#include "numeric.h"

#include <cstdint>

namespace dsp {

// Tabulates generate(x) for x = 0 .. range in `size` equal steps.
class LookupTable {
public:
    LookupTable() = default;
    virtual double generate(double x) const = 0;
    virtual ~LookupTable();
    LookupTable(const LookupTable&) = delete;
    LookupTable& operator=(const LookupTable&) = delete;

    // Replaces the entries: size n (a power of two), data[k] = generate(k * step).
    // Returns false (and leaves the table empty) when the entries cannot be allocated.
    bool build(uint32_t n);
    void release();

    // Wrapped interpolated lookup at x: v = x * scale, i = trunc(v), j = i & mask,
    // data[j] + (v - i) * (data[j+1] - data[j]). The fraction uses the unmasked
    // index, so for negative v it runs toward the lower entry.
    double lookup(double x) const {
        double v = x * static_cast<double>(scale);
        int32_t i = truncToInt32(v);
        uint32_t j = static_cast<uint32_t>(i) & mask;
        double lo = data[j];
        return lo + (v - static_cast<double>(i)) * (static_cast<double>(data[j + 1]) - lo);
    }

    double step = 0.0;  // range / size
    double range = 0.0; // span of the variable from entry 0 to entry size
    uint32_t size = 1024;
    float* data = nullptr;
    float scale = 0.0f; // size / range: entries per unit of the variable
    uint32_t mask = 1023;
};

class SineTable final : public LookupTable {
public:
    double generate(double x) const override;
};

// 10^(level / 20) for levels lo .. hi dB in `size` steps.
class DecibelTable {
public:
    DecibelTable() = default;
    ~DecibelTable();
    DecibelTable(const DecibelTable&) = delete;
    DecibelTable& operator=(const DecibelTable&) = delete;

    bool build(uint32_t n, double lo, double hi);
    void release();

    // Gain for a level in dB: v = (level + offset) * scale, then the wrapped
    // interpolation; levels outside lo .. hi wrap around the table.
    double lookup(double level) const {
        double v = (level + static_cast<double>(offset)) * static_cast<double>(scale);
        int32_t i = truncToInt32(v);
        uint32_t j = static_cast<uint32_t>(i) & mask;
        double lo = data[j];
        return lo + (v - static_cast<double>(i)) * (static_cast<double>(data[j + 1]) - lo);
    }

    uint32_t size = 0;
    float* data = nullptr;
    double step = 0.0;
    float offset = 0.0f; // -lo
    float scale = 0.0f;  // size / (hi - lo)
    uint32_t mask = 0;
};

// The library's tables, built by the load hook (decibel table first, then the
// pool, then the sine table) and freed in reverse order at unload.
const DecibelTable& decibelTable();
const SineTable& sineTable();

} // namespace dsp
