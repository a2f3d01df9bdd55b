#include "pool_buffer.h"

#include "fastmem_pool.h"

#include <utility>

namespace dsp {

PoolBuffer::PoolBuffer(PoolBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

PoolBuffer& PoolBuffer::operator=(PoolBuffer&& other) noexcept {
    if (this != &other) {
        reset();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

PoolBuffer PoolBuffer::allocate(uint32_t floats) {
    PoolBuffer buffer;
    if (floats <= kMaxFloats) {
        buffer.data_ = static_cast<float*>(fastmemPool().allocate(floats * 4));
        if (buffer.data_ != nullptr) {
            buffer.size_ = floats;
        }
    }
    return buffer;
}

void PoolBuffer::reset() {
    if (data_ != nullptr) {
        fastmemPool().release(data_);
        data_ = nullptr;
    }
    size_ = 0;
}

} // namespace dsp
