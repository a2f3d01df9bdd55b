#include "delay_line.h"

#include <new>

namespace dsp {

DelayLine::~DelayLine() {
    if (ready) {
        delete[] buffer;
    }
    buffer = nullptr;
    ready = 0;
}

bool DelayLine::setup(uint32_t newLength) {
    if (newLength == 0) {
        return false;
    }
    if (!ready || newLength > length) {
        if (ready) {
            delete[] buffer;
            buffer = nullptr;
            ready = 0;
        }
        buffer = new (std::nothrow) float[newLength];
        if (buffer == nullptr) {
            length = 0;
            return false;
        }
    }
    length = newLength;
    for (uint32_t i = 0; i < newLength; ++i) {
        buffer[i] = 0.0f;
    }
    index = 0;
    ready = 1;
    return true;
}

} // namespace dsp
