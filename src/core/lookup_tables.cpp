#include "lookup_tables.h"

#include <cmath>

namespace dsp {

bool LookupTable::build(double range, uint32_t n) {
    const double step = range / static_cast<double>(n);
    if (!entries_.fill(n, [&](uint32_t k) { return generate(static_cast<double>(k) * step); })) {
        return false;
    }
    scale_ = static_cast<float>(static_cast<double>(n) / range);
    return true;
}

double SineTable::generate(double x) const {
    return std::sin(x);
}

bool DecibelTable::build(uint32_t n, double lo, double hi) {
    const double step = (hi - lo) / static_cast<double>(n);
    if (!entries_.fill(n, [&](uint32_t k) {
            return std::pow(10.0, (static_cast<double>(k) * step + lo) * 0.05);
        })) {
        return false;
    }
    offset_ = static_cast<float>(-lo);
    scale_ = static_cast<float>(static_cast<double>(n) / (hi - lo));
    return true;
}

} // namespace dsp
