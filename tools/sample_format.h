// Sample encodings of the tool's audio files and their conversion to and
// from the library's float scale (full scale 1.0). Integer samples map to
// float by s / (2^(bits-1) - 1), as the library maps 16-bit samples (s /
// 32767); 8-bit samples are unsigned with 128 as zero. Conversions back to
// integers scale, add the optional TPDF dither, round to the nearest integer
// and clamp to the type's range (so every integer sample comes back as it
// was); float encodings are written as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace cli {

enum class SampleType : uint8_t { kUint8, kInt16, kInt24, kInt32, kFloat32, kFloat64 };

uint32_t bytesPerSample(SampleType type);
inline uint32_t bitsPerSample(SampleType type) {
    return 8 * bytesPerSample(type);
}
inline bool isFloat(SampleType type) {
    return type == SampleType::kFloat32 || type == SampleType::kFloat64;
}
// "16-bit PCM", "32-bit float", ...
std::string sampleTypeName(SampleType type);
// The value of full scale (1.0) in an integer type: 2^(bits-1) - 1.
double integerScale(SampleType type);

// Triangular dither of +-1 LSB peak: the sum of two uniform values in
// [-0.5, 0.5), from a fixed seed so that runs are reproducible.
class Dither {
public:
    double next() { return uniform() + uniform(); }

private:
    double uniform() {
        // xorshift64*: enough for dither, the same sequence on every platform.
        state_ ^= state_ >> 12;
        state_ ^= state_ << 25;
        state_ ^= state_ >> 27;
        uint64_t r = state_ * 0x2545F4914F6CDD1Dull;
        return static_cast<double>(r >> 11) * (1.0 / 9007199254740992.0) - 0.5;
    }
    uint64_t state_ = 0x9E3779B97F4A7C15ull;
};

// `count` packed little-endian samples to floats.
void decodeSamples(SampleType type, const uint8_t* src, float* dst, size_t count);
// Floats to `count` packed little-endian samples; dither (may be null) is
// added to integer encodings only.
void encodeSamples(SampleType type, const float* src, uint8_t* dst, size_t count, Dither* dither);

// The library's own 16-bit rules (the plain rule of its 16-bit path).
inline float int16ToFloat(int32_t s) {
    return static_cast<float>(static_cast<double>(s) * (1.0 / 32767.0));
}
int16_t floatToInt16(float x);

} // namespace cli
