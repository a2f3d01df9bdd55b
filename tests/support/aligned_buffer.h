// A float buffer with a chosen alignment offset, for tests of the converters'
// alignment handling.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace dsptest {

class AlignedFloats {
public:
    // offsetFloats = 0 gives a 16-byte aligned start.
    explicit AlignedFloats(size_t count, size_t offsetFloats = 0)
        : storage_(count + 8 + offsetFloats, 0.0f) {
        uintptr_t base = reinterpret_cast<uintptr_t>(storage_.data());
        size_t skip = ((16 - base % 16) % 16) / sizeof(float);
        data_ = storage_.data() + skip + offsetFloats;
    }
    float* data() { return data_; }
    float& operator[](size_t i) { return data_[i]; }

private:
    std::vector<float> storage_;
    float* data_;
};

} // namespace dsptest
