#include "arithmetic_rules.h"

#include "simd_flags.h"

namespace dsp {

ArithmeticRules currentRules() {
    const SimdFlags flags = simdFlags;
    ArithmeticRules rules;
    if (flags.amd3dnow != 0) {
        rules.rule = ArithmeticRule::kTruncating;
    } else if (flags.sse != 0) {
        rules.rule = ArithmeticRule::kNearestEven;
    }
    rules.blockCopy = (flags.mmx | flags.amd3dnow | flags.sse) != 0;
    return rules;
}

} // namespace dsp
