#include "delay_line.h"

namespace dsp {

bool DelayLine::setup(uint32_t newLength) {
    OwnedArray<float> grown;
    if (newLength == 0 || !prepareGrowth(buffer_, newLength, grown)) {
        return false;
    }
    installGrowth(buffer_, grown);
    length_ = newLength;
    for (uint32_t i = 0; i < newLength; ++i) {
        buffer_[i] = 0.0f;
    }
    index_ = 0;
    return true;
}

} // namespace dsp
