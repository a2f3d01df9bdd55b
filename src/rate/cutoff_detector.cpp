#include "cutoff_detector.h"

#include "core/numeric.h"

#include <cmath>

namespace dsp {

float detectCutoff(const float* db, uint32_t bins, uint32_t rate) {
    constexpr double kRiseDb = 25.0;
    if (bins == 0) {
        return 0.0f;
    }
    const int64_t lo = truncToInt32(0.666 * bins);
    int64_t result = static_cast<int64_t>(bins) - 1;
    float minDb = 65535.0f;
    float maxDb = 0.0f;
    bool rising = false;
    for (int64_t i = static_cast<int64_t>(bins) - 1; i >= lo; --i) {
        const float v = db[i];
        if (rising) {
            // The absolute difference: a deep fall below the floor ends the
            // scan as well.
            if (std::fabs(static_cast<double>(v) - minDb) >= kRiseDb) {
                result = i;
                break;
            }
            if (v >= maxDb) {
                maxDb = v;
            } else {
                minDb = v;
                rising = false;
            }
        } else if (v > minDb) {
            rising = true;
            maxDb = v;
        } else {
            minDb = v;
        }
    }
    return static_cast<float>(static_cast<double>(result) * ((0.5 / bins) * rate));
}

} // namespace dsp
