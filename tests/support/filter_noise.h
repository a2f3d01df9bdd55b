// Reproducible noise for the filter and effect tests.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace dsptest {

inline std::vector<float> filterNoise(size_t n, uint32_t seed, float amplitude = 1.0f) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(-amplitude, amplitude);
    std::vector<float> v(n);
    for (float& x : v) {
        x = dist(gen);
    }
    return v;
}

// Full-scale 16-bit noise, both extremes included.
inline std::vector<int16_t> pcmNoise(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    std::vector<int16_t> v(n);
    for (int16_t& s : v) {
        s = static_cast<int16_t>(dist(gen));
    }
    return v;
}

} // namespace dsptest
