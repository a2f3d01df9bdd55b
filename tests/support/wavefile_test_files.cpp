#include "support/wavefile_test_files.h"

#include "dsp.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace dsptest {

std::string wavefileTempPath(const std::string& name) {
    return std::string(DSP_TEST_TMPDIR) + "/wavefile_" + name;
}

void writeFileBytes(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

Bytes readFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void appendLe16(Bytes& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void appendLe32(Bytes& out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
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

uint16_t loadLe16(const Bytes& bytes, size_t at) {
    return static_cast<uint16_t>(bytes.at(at) | (bytes.at(at + 1) << 8));
}

Bytes chunkBytesWithSize(const char* id, uint32_t size, const Bytes& body) {
    Bytes out;
    appendId(out, id);
    appendLe32(out, size);
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
    appendLe32(out, size);
    appendId(out, form);
    out.insert(out.end(), chunks.begin(), chunks.end());
    return out;
}

Bytes riffBytes(const char* form, const Bytes& chunks) {
    return riffBytesWithSize(form, static_cast<uint32_t>(4 + chunks.size()), chunks);
}

Bytes pcmFormatBody(uint16_t channels, uint32_t rate, bool withExtraSize, uint16_t extraSize) {
    Bytes out;
    appendLe16(out, 1);
    appendLe16(out, channels);
    appendLe32(out, rate);
    appendLe32(out, rate * 2u * channels);
    appendLe16(out, static_cast<uint16_t>(2 * channels));
    appendLe16(out, 16);
    if (withExtraSize) {
        appendLe16(out, extraSize);
    }
    return out;
}

Bytes patternSamples(size_t bytes, uint32_t seed) {
    Bytes out(bytes);
    uint32_t state = seed * 2654435761u + 12345u;
    for (size_t i = 0; i < bytes; ++i) {
        state = state * 1664525u + 1013904223u;
        out[i] = static_cast<uint8_t>(state >> 24);
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

bool commandAvailable(const char* program) {
#if defined(_WIN32)
    (void)program;
    return false;
#else
    return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
#endif
}

bool runCommand(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

} // namespace dsptest
