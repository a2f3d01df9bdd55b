#include "simd_flags.h"

namespace dsp {

SimdFlags simdFlags = {0, 0, 0};

} // namespace dsp
