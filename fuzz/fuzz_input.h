// Decoding of fuzzer bytes into bounded values, and a per-process scratch
// file for targets that work on files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace dspfuzz {

// Reads values from the front of the input; once it is exhausted every value
// is 0, so any input decodes to a finite, valid sequence.
class ByteReader {
public:
    ByteReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return pos_ >= size_; }
    size_t remaining() const { return size_ - pos_; }

    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32() { return static_cast<uint32_t>(u16()) | (static_cast<uint32_t>(u16()) << 16); }

    // A value in lo..hi (inclusive).
    uint32_t range(uint32_t lo, uint32_t hi) {
        const uint32_t span = hi - lo + 1;
        return span == 0 ? u32() : lo + u32() % span;
    }
    // A float in lo..hi, in 65536 steps.
    float real(float lo, float hi) { return lo + (hi - lo) * static_cast<float>(u16()) / 65535.0f; }
    bool flag() { return (u8() & 1) != 0; }

    // Copies up to n bytes (zero-filling past the end of the input).
    void bytes(void* dst, size_t n) {
        uint8_t* out = static_cast<uint8_t*>(dst);
        for (size_t i = 0; i < n; ++i) {
            out[i] = u8();
        }
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// A scratch file path unique to this process (libFuzzer may run jobs in
// parallel), removed at exit.
inline const std::string& scratchPath(const char* tag) {
    static const std::string path = [tag] {
        const char* dir = std::getenv("TMPDIR");
        std::string p = std::string(dir != nullptr ? dir : "/tmp") + "/dsp_fuzz_" + tag + "_" +
                        std::to_string(static_cast<long>(getpid())) + ".wav";
        std::atexit([] { std::remove(scratchPath(nullptr).c_str()); });
        return p;
    }();
    return path;
}

inline bool writeFile(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

} // namespace dspfuzz
