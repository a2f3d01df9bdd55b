// The common input of the side-by-side benchmarks: 60 s of 44100 Hz stereo
// (tones, a sweep and noise), processed in blocks of 4096 frames as a
// streaming host does.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace peerbench {

constexpr uint32_t kRate = 44100;
constexpr uint32_t kChannels = 2;
constexpr uint32_t kBlock = 4096;
constexpr uint32_t kSeconds = 60;
constexpr uint32_t kFrames = kRate * kSeconds;

inline const std::vector<int16_t>& input() {
    static const std::vector<int16_t> samples = [] {
        std::vector<int16_t> s(static_cast<size_t>(kFrames) * kChannels);
        uint32_t noise = 22222;
        for (uint32_t i = 0; i < kFrames; ++i) {
            double t = static_cast<double>(i) / kRate;
            double sweep = std::sin(2 * M_PI * (200.0 + 100.0 * t) * t);
            for (uint32_t c = 0; c < kChannels; ++c) {
                noise = noise * 1664525u + 1013904223u;
                double v = 0.3 * std::sin(2 * M_PI * (440.0 + 220.0 * c) * t) + 0.2 * sweep +
                           0.05 * ((noise >> 9) / 4194304.0 - 1.0);
                s[static_cast<size_t>(i) * kChannels + c] =
                    static_cast<int16_t>(std::lround(v * 32767.0));
            }
        }
        return s;
    }();
    return samples;
}

// int16 <-> float as a host feeding a float library would convert.
inline void toFloat(const int16_t* in, float* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        out[i] = in[i] * (1.0f / 32768.0f);
    }
}

inline void toInt16(const float* in, int16_t* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        float v = in[i] * 32768.0f;
        v = v > 32767.0f ? 32767.0f : (v < -32768.0f ? -32768.0f : v);
        out[i] = static_cast<int16_t>(std::lrint(v));
    }
}

} // namespace peerbench
