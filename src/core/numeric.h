// Conversions from floating point to integers with the x86 semantics the
// processing code relies on: truncation toward zero, and the "integer
// indefinite" value 0x80000000 for NaN and out-of-range inputs instead of the
// undefined behaviour of a plain C++ cast.
#pragma once

#include <cmath>
#include <cstdint>

namespace dsp {

// Truncates toward zero to a signed 32-bit integer; NaN and values outside the
// int32 range give INT32_MIN, as the processor's own conversion does.
inline int32_t truncToInt32(double value) {
    if (!(value > -2147483649.0 && value < 2147483648.0)) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(value);
}

// Truncates toward zero to an unsigned 32-bit count. The value is first
// truncated to 64 bits and the low 32 bits are kept (the usual compiled
// behaviour of such a conversion); NaN and values beyond the int64 range give 0.
inline uint32_t truncToUint32(double value) {
    if (!(value > -9223372036854775808.0 && value < 9223372036854775808.0)) {
        return 0;
    }
    return static_cast<uint32_t>(static_cast<int64_t>(value));
}

} // namespace dsp
