#include "support/wavefile_test_files.h"

#include "dsp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace dsptest {

std::string wavefileTempPath(const std::string& name) {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string owner = test != nullptr ? std::string(test->test_suite_name()) + "." + test->name()
                                        : std::string("shared");
    std::replace(owner.begin(), owner.end(), '/', '_');
    return std::string(DSP_TEST_TMPDIR) + "/wavefile_" + owner + "_" + name;
}

void writeFileBytes(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

Bytes readFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes joinBytes(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

Bytes le(uint32_t value, int bytes) {
    Bytes out;
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    return out;
}

uint32_t loadLe32(const Bytes& bytes, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) {
        v = (v << 8) | bytes.at(at + i);
    }
    return v;
}

Bytes chunkBytesWithSize(const char* id, uint32_t size, const Bytes& body) {
    Bytes out = joinBytes({Bytes(id, id + 4), le(size, 4), body});
    if (body.size() % 2 != 0) {
        out.push_back(0);
    }
    return out;
}

Bytes chunkBytes(const char* id, const Bytes& body) {
    return chunkBytesWithSize(id, static_cast<uint32_t>(body.size()), body);
}

Bytes riffBytesWithSize(const char* form, uint32_t size, const Bytes& chunks) {
    return joinBytes({{'R', 'I', 'F', 'F'}, le(size, 4), Bytes(form, form + 4), chunks});
}

Bytes riffBytes(const char* form, const Bytes& chunks) {
    return riffBytesWithSize(form, static_cast<uint32_t>(4 + chunks.size()), chunks);
}

Bytes pcmFormatBody(uint16_t channels, uint32_t rate, bool withExtraSize, uint16_t extraSize) {
    return joinBytes({le(1, 2), le(channels, 2), le(rate, 4), le(rate * 2u * channels, 4),
                      le(2u * channels, 2), le(16, 2), withExtraSize ? le(extraSize, 2) : Bytes()});
}

Bytes patternSamples(size_t bytes, uint32_t seed) {
    Bytes out(bytes);
    uint32_t state = seed * 2654435761u + 12345u;
    for (uint8_t& b : out) {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
    }
    return out;
}

Bytes canonicalWave(uint16_t channels, uint32_t rate, const Bytes& samples) {
    return riffBytes("WAVE", joinBytes({chunkBytes("fmt ", pcmFormatBody(channels, rate)),
                                        chunkBytes("data", samples)}));
}

float wavefileSeconds(void* reader) {
    return getHeaderWavefileIn(reader)->seconds;
}

} // namespace dsptest
