// Helpers for the WAVE, RIFF and tool tests: scratch paths, whole-file I/O
// and byte images of RIFF files built chunk by chunk.
#pragma once

#include "dsp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

namespace dsptest {

using Bytes = std::vector<uint8_t>;

// A scratch path specific to the running test (ctest runs tests in parallel).
inline std::string wavefileTempPath(const std::string& name) {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string owner = test != nullptr ? std::string(test->test_suite_name()) + "." + test->name()
                                        : std::string("shared");
    std::replace(owner.begin(), owner.end(), '/', '_');
    return std::string(DSP_TEST_TMPDIR) + "/wavefile_" + owner + "_" + name;
}

inline void writeFileBytes(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

inline Bytes readFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline Bytes joinBytes(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// Little-endian.
inline Bytes le(uint32_t value, int bytes) {
    Bytes out;
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    return out;
}

inline uint32_t loadLe32(const Bytes& bytes, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) {
        v = (v << 8) | bytes.at(at + i);
    }
    return v;
}

// One chunk: id, size (the body's unless given), body, a pad byte if odd.
inline Bytes chunkBytesWithSize(const char* id, uint32_t size, const Bytes& body) {
    Bytes out = joinBytes({Bytes(id, id + 4), le(size, 4), body});
    if (body.size() % 2 != 0) {
        out.push_back(0);
    }
    return out;
}

inline Bytes chunkBytes(const char* id, const Bytes& body) {
    return chunkBytesWithSize(id, static_cast<uint32_t>(body.size()), body);
}

// "RIFF", size (4 + chunks unless given), form type, then the chunks.
inline Bytes riffBytesWithSize(const char* form, uint32_t size, const Bytes& chunks) {
    return joinBytes({{'R', 'I', 'F', 'F'}, le(size, 4), Bytes(form, form + 4), chunks});
}

inline Bytes riffBytes(const char* form, const Bytes& chunks) {
    return riffBytesWithSize(form, static_cast<uint32_t>(4 + chunks.size()), chunks);
}

// A 16-byte PCM "fmt " body; 18 bytes with the extra-size field when asked.
inline Bytes pcmFormatBody(uint16_t channels, uint32_t rate, bool withExtraSize = false,
                           uint16_t extraSize = 0) {
    return joinBytes({le(1, 2), le(channels, 2), le(rate, 4), le(rate * 2u * channels, 4),
                      le(2u * channels, 2), le(16, 2), withExtraSize ? le(extraSize, 2) : Bytes()});
}

inline Bytes patternSamples(size_t bytes, uint32_t seed = 1) {
    Bytes out(bytes);
    uint32_t state = seed * 2654435761u + 12345u;
    for (uint8_t& b : out) {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
    }
    return out;
}

// The canonical 44-byte-header file around `samples`.
inline Bytes canonicalWave(uint16_t channels, uint32_t rate, const Bytes& samples) {
    return riffBytes("WAVE", joinBytes({chunkBytes("fmt ", pcmFormatBody(channels, rate)),
                                        chunkBytes("data", samples)}));
}

// The canonical file around 16-bit interleaved samples (stored little-endian).
inline Bytes pcm16Wave(uint16_t channels, uint32_t rate, const std::vector<int16_t>& samples) {
    Bytes data;
    for (int16_t s : samples) {
        const auto u = static_cast<uint16_t>(s);
        data.push_back(static_cast<uint8_t>(u));
        data.push_back(static_cast<uint8_t>(u >> 8));
    }
    return canonicalWave(channels, rate, data);
}

// The reader's header.seconds by value (a packed field at an odd offset).
inline float wavefileSeconds(void* reader) {
    return getHeaderWavefileIn(reader)->seconds;
}

} // namespace dsptest
