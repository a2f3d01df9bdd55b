// The 18-byte "fmt " body in file byte order (little-endian) and back, field
// by field, so the record reads the same on any host.
#pragma once

#include "dsp.h"

#include <cstdint>

namespace dsp {

constexpr uint32_t kWaveFormatBytes = 18;

inline WavefileFormat decodeWaveFormat(const uint8_t* p) {
    auto u16 = [p](int at) {
        return static_cast<uint16_t>(p[at] | (static_cast<uint16_t>(p[at + 1]) << 8));
    };
    auto u32 = [p](int at) {
        return static_cast<uint32_t>(p[at]) | (static_cast<uint32_t>(p[at + 1]) << 8) |
               (static_cast<uint32_t>(p[at + 2]) << 16) | (static_cast<uint32_t>(p[at + 3]) << 24);
    };
    WavefileFormat f;
    f.formatTag = u16(0);
    f.channels = u16(2);
    f.samplesPerSecond = u32(4);
    f.avgBytesPerSecond = u32(8);
    f.blockAlign = u16(12);
    f.bitsPerSample = u16(14);
    f.extraSize = u16(16);
    return f;
}

inline void encodeWaveFormat(const WavefileFormat& f, uint8_t* p) {
    auto u16 = [p](int at, uint16_t v) {
        p[at] = static_cast<uint8_t>(v);
        p[at + 1] = static_cast<uint8_t>(v >> 8);
    };
    auto u32 = [p](int at, uint32_t v) {
        for (int i = 0; i < 4; ++i) {
            p[at + i] = static_cast<uint8_t>(v >> (8 * i));
        }
    };
    u16(0, f.formatTag);
    u16(2, f.channels);
    u32(4, f.samplesPerSecond);
    u32(8, f.avgBytesPerSecond);
    u16(12, f.blockAlign);
    u16(14, f.bitsPerSample);
    u16(16, f.extraSize);
}

} // namespace dsp
