// A fixed delay of `length` samples over a circular buffer (zeros at first).
#pragma once

#include <cstdint>

namespace dsp {

class DelayLine {
public:
    DelayLine() = default;
    virtual ~DelayLine();
    DelayLine(const DelayLine&) = delete;
    DelayLine& operator=(const DelayLine&) = delete;

    // Sets the delay and clears the buffer, which grows only when length
    // exceeds the current one. False for length 0 or a failed allocation (the
    // line is then not ready and passes samples through undelayed).
    bool setup(uint32_t length);

    // Returns the sample given `length` calls earlier and stores x.
    float tick(float x) {
        if (!ready) {
            return x;
        }
        index = static_cast<int32_t>((static_cast<uint32_t>(index) + 1) % length);
        const float y = buffer[index];
        buffer[index] = x;
        return y;
    }

    uint8_t ready = 0;
    uint32_t length = 0;
    float* buffer = nullptr;
    int32_t index = 0;
};

} // namespace dsp
