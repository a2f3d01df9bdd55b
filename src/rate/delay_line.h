// A fixed delay of `length` samples over a circular buffer (zeros at first).
#pragma once

#include "core/owned_array.h"

#include <cstdint>

namespace dsp {

class DelayLine {
public:
    DelayLine() = default;
    DelayLine(const DelayLine&) = delete;
    DelayLine& operator=(const DelayLine&) = delete;

    // Sets the delay and clears the buffer, which grows only when length
    // exceeds what it holds. False for length 0 or a failed allocation (the
    // line is then left as it was; one never set up passes samples through).
    bool setup(uint32_t length);

    // Returns the sample given `length` calls earlier and stores x.
    float tick(float x) {
        if (length_ == 0) {
            return x;
        }
        index_ = (index_ + 1) % length_;
        const float y = buffer_[index_];
        buffer_[index_] = x;
        return y;
    }

    uint32_t length() const { return length_; }

private:
    OwnedArray<float> buffer_;
    uint32_t length_ = 0;
    uint32_t index_ = 0;
};

} // namespace dsp
