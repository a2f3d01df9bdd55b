#include "support/wavefile_test_files.h"

#include "dsp.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace dsptest {

std::string wavefileTempPath(const std::string& name) {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string owner = test != nullptr ? std::string(test->test_suite_name()) + "." + test->name()
                                        : std::string("shared");
    for (char& ch : owner) {
        ch = ch == '/' ? '_' : ch;
    }
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

static void appendLe(Bytes& out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

void appendId(Bytes& out, const char* id) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(id[i]));
    }
}

uint32_t loadLe32(const Bytes& bytes, size_t at) {
    return static_cast<uint32_t>(bytes.at(at)) | (static_cast<uint32_t>(bytes.at(at + 1)) << 8) |
           (static_cast<uint32_t>(bytes.at(at + 2)) << 16) |
           (static_cast<uint32_t>(bytes.at(at + 3)) << 24);
}

Bytes chunkBytesWithSize(const char* id, uint32_t size, const Bytes& body) {
    Bytes out;
    appendId(out, id);
    appendLe(out, size, 4);
    out.insert(out.end(), body.begin(), body.end());
    if (body.size() % 2 != 0) {
        out.push_back(0);
    }
    return out;
}

Bytes chunkBytes(const char* id, const Bytes& body) {
    return chunkBytesWithSize(id, static_cast<uint32_t>(body.size()), body);
}

Bytes riffBytesWithSize(const char* form, uint32_t size, const Bytes& chunks) {
    Bytes out;
    appendId(out, "RIFF");
    appendLe(out, size, 4);
    appendId(out, form);
    out.insert(out.end(), chunks.begin(), chunks.end());
    return out;
}

Bytes riffBytes(const char* form, const Bytes& chunks) {
    return riffBytesWithSize(form, static_cast<uint32_t>(4 + chunks.size()), chunks);
}

Bytes pcmFormatBody(uint16_t channels, uint32_t rate, bool withExtraSize, uint16_t extraSize) {
    Bytes out;
    appendLe(out, 1, 2);
    appendLe(out, channels, 2);
    appendLe(out, rate, 4);
    appendLe(out, rate * 2u * channels, 4);
    appendLe(out, 2u * channels, 2);
    appendLe(out, 16, 2);
    if (withExtraSize) {
        appendLe(out, extraSize, 2);
    }
    return out;
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
    Bytes chunks = chunkBytes("fmt ", pcmFormatBody(channels, rate));
    Bytes data = chunkBytes("data", samples);
    chunks.insert(chunks.end(), data.begin(), data.end());
    return riffBytes("WAVE", chunks);
}

float wavefileSeconds(void* reader) {
    return getHeaderWavefileIn(reader)->seconds;
}

} // namespace dsptest
