// Function tables built once at library load and read with wrapped linear
// interpolation: the decibel-to-gain table of the fader and cross-fader and
// the sine table of the chorus oscillator.
#pragma once

#include "numeric.h"
#include "owned_array.h"

#include <cstdint>
#include <utility>

namespace dsp {

// The values of a function at `size` equal steps, one entry more than the
// steps so that an interpolation at the last step needs no bounds test, read
// at a position v counted in steps: i = trunc(v), j = i & (size - 1),
// data[j] + (v - i) * (data[j+1] - data[j]). The fraction uses the unmasked
// index, so for a negative v it runs toward the lower entry. The wrap needs
// size to be a power of two.
class TableEntries {
public:
    // Replaces the entries by value(k), k = 0 .. n, each rounded to float
    // once. False, the entries left as they were, when they cannot be
    // allocated.
    template <typename Value>
    bool fill(uint32_t n, Value value) {
        OwnedArray<float> fresh = OwnedArray<float>::allocate(static_cast<size_t>(n) + 1);
        if (!fresh) {
            return false;
        }
        for (uint32_t k = 0; k <= n; ++k) {
            fresh[k] = static_cast<float>(value(k));
        }
        data_ = std::move(fresh);
        mask_ = n - 1;
        return true;
    }

    double interpolate(double v) const {
        int32_t i = truncToInt32(v);
        uint32_t j = static_cast<uint32_t>(i) & mask_;
        double lo = data_[j];
        return lo + (v - static_cast<double>(i)) * (static_cast<double>(data_[j + 1]) - lo);
    }

    float entry(uint32_t k) const { return data_[k]; }
    uint32_t mask() const { return mask_; }

private:
    OwnedArray<float> data_;
    uint32_t mask_ = 0;
};

// Tabulates the virtual generate(x) for x = 0 .. range.
class LookupTable {
public:
    LookupTable() = default;
    virtual ~LookupTable() = default;
    LookupTable(const LookupTable&) = delete;
    LookupTable& operator=(const LookupTable&) = delete;

    virtual double generate(double x) const = 0;

    // Replaces the entries: n steps (a power of two) over 0 .. range,
    // entry k = generate(k * range / n). False, the table left as it was,
    // when the entries cannot be allocated.
    bool build(double range, uint32_t n);

    // generate(x) interpolated at x * scale steps, wrapped around the table.
    double lookup(double x) const { return entries_.interpolate(x * static_cast<double>(scale_)); }

    // Steps per unit of the variable: size / range, held as a float.
    float scale() const { return scale_; }
    uint32_t mask() const { return entries_.mask(); }
    float entry(uint32_t k) const { return entries_.entry(k); }

private:
    TableEntries entries_;
    float scale_ = 0.0f;
};

class SineTable final : public LookupTable {
public:
    double generate(double x) const override;
};

// 10^(level / 20) for levels lo .. hi dB.
class DecibelTable {
public:
    // n steps (a power of two) from lo to hi dB; false, the table left as it
    // was, when the entries cannot be allocated.
    bool build(uint32_t n, double lo, double hi);

    // Gain for a level in dB, interpolated at (level - lo) * scale steps;
    // levels outside lo .. hi wrap around the table.
    double lookup(double level) const {
        return entries_.interpolate((level + static_cast<double>(offset_)) *
                                    static_cast<double>(scale_));
    }

    // Steps per dB: size / (hi - lo), held as a float.
    float scale() const { return scale_; }
    float entry(uint32_t k) const { return entries_.entry(k); }

private:
    TableEntries entries_;
    float offset_ = 0.0f; // -lo
    float scale_ = 0.0f;
};

// The library's tables, built by the load hook (decibel table first, then the
// pool, then the sine table) and freed in reverse order at unload.
const DecibelTable& decibelTable();
const SineTable& sineTable();

} // namespace dsp
