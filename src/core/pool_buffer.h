// A float buffer from the fastmem pool that goes back to the pool when its
// owner lets go of it: the work buffers of the processors and the few
// class-specific sample buffers that must be 16-byte aligned.
#pragma once

#include <cstdint>

namespace dsp {

class PoolBuffer {
public:
    // The most floats one pool block can hold (its byte size is 32-bit).
    static constexpr uint32_t kMaxFloats = (UINT32_MAX - 15) / 4;

    PoolBuffer() = default;
    ~PoolBuffer() { reset(); }
    PoolBuffer(PoolBuffer&& other) noexcept;
    PoolBuffer& operator=(PoolBuffer&& other) noexcept;
    PoolBuffer(const PoolBuffer&) = delete;
    PoolBuffer& operator=(const PoolBuffer&) = delete;

    // `floats` floats, or an empty buffer when the pool cannot supply them.
    static PoolBuffer allocate(uint32_t floats);

    // Returns the block to the pool; the buffer is then empty.
    void reset();

    explicit operator bool() const { return data_ != nullptr; }
    float* data() const { return data_; }
    uint32_t size() const { return size_; }

private:
    float* data_ = nullptr;
    uint32_t size_ = 0;
};

} // namespace dsp
