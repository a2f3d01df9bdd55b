#include "lookup_tables.h"

#include <cmath>
#include <new>

namespace dsp {

LookupTable::~LookupTable() {
    release();
}

void LookupTable::release() {
    delete[] data;
    data = nullptr;
}

bool LookupTable::build(uint32_t n) {
    release();
    float* entries = new (std::nothrow) float[static_cast<size_t>(n) + 1];
    if (entries == nullptr) {
        return false;
    }
    size = n;
    mask = n - 1;
    step = range / static_cast<double>(n);
    scale = static_cast<float>(static_cast<double>(n) / range);
    for (uint32_t k = 0; k <= n; ++k) {
        entries[k] = static_cast<float>(generate(static_cast<double>(k) * step));
    }
    data = entries;
    return true;
}

double SineTable::generate(double x) const {
    return std::sin(x);
}

DecibelTable::~DecibelTable() {
    release();
}

void DecibelTable::release() {
    delete[] data;
    data = nullptr;
}

bool DecibelTable::build(uint32_t n, double lo, double hi) {
    release();
    float* entries = new (std::nothrow) float[static_cast<size_t>(n) + 1];
    if (entries == nullptr) {
        return false;
    }
    size = n;
    mask = n - 1;
    step = (hi - lo) / static_cast<double>(n);
    offset = static_cast<float>(-lo);
    scale = static_cast<float>(static_cast<double>(n) / (hi - lo));
    for (uint32_t k = 0; k <= n; ++k) {
        entries[k] =
            static_cast<float>(std::pow(10.0, (static_cast<double>(k) * step + lo) * 0.05));
    }
    data = entries;
    return true;
}

} // namespace dsp
