// The tests' deterministic signals: noise from one linear congruential
// sequence per seed, and tones.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace dsptest {

// Uniform noise in [-amplitude, amplitude).
inline std::vector<float> noise(size_t n, uint32_t seed, float amplitude = 1.0f) {
    std::vector<float> v(n);
    uint32_t x = seed * 2654435761u + 12345u;
    for (float& s : v) {
        x = x * 1664525u + 1013904223u;
        s = amplitude * (static_cast<float>(x >> 8) / 8388608.0f - 1.0f);
    }
    return v;
}

// 16-bit noise in [-amplitude, amplitude); the default spans every value.
inline std::vector<int16_t> pcmNoise(size_t n, uint32_t seed, int32_t amplitude = 32768) {
    std::vector<int16_t> v(n);
    uint32_t x = seed * 2654435761u + 12345u;
    for (int16_t& s : v) {
        x = x * 1664525u + 1013904223u;
        s = static_cast<int16_t>((static_cast<int32_t>(x >> 16) - 32768) * amplitude / 32768);
    }
    return v;
}

inline std::vector<float> sineWave(size_t n, double frequency, double rate, double amplitude) {
    std::vector<float> x(n);
    for (size_t i = 0; i < n; ++i) {
        x[i] = static_cast<float>(amplitude * std::sin(2.0 * M_PI * frequency * i / rate));
    }
    return x;
}

// Interleaved 16-bit tones: every channel the sum of the frequencies, each
// with its own phase.
inline std::vector<int16_t> pcmTones(size_t frames, uint32_t channels, double rate,
                                     std::initializer_list<double> freqs, double amplitude) {
    std::vector<int16_t> v(frames * channels);
    for (size_t t = 0; t < frames; ++t) {
        for (uint32_t c = 0; c < channels; ++c) {
            double x = 0.0;
            int k = 0;
            for (double f : freqs) {
                x += amplitude * std::sin(2 * M_PI * f * t / rate + c * 0.7 + k++);
            }
            v[t * channels + c] = static_cast<int16_t>(std::lrint(x * 32767.0));
        }
    }
    return v;
}

} // namespace dsptest
