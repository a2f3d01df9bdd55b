// Helpers for the WAVE, RIFF and tool tests: scratch paths, whole-file I/O
// and byte images of RIFF files built chunk by chunk.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace dsptest {

using Bytes = std::vector<uint8_t>;

// A scratch path specific to the running test (ctest runs tests in parallel).
std::string wavefileTempPath(const std::string& name);

void writeFileBytes(const std::string& path, const Bytes& bytes);
Bytes readFileBytes(const std::string& path);

Bytes joinBytes(std::initializer_list<Bytes> parts);
Bytes le(uint32_t value, int bytes); // little-endian
uint32_t loadLe32(const Bytes& bytes, size_t at);

// One chunk: id, size (the body's unless given), body, a pad byte if odd.
Bytes chunkBytesWithSize(const char* id, uint32_t size, const Bytes& body);
Bytes chunkBytes(const char* id, const Bytes& body);
// "RIFF", size (4 + chunks unless given), form type, then the chunks.
Bytes riffBytesWithSize(const char* form, uint32_t size, const Bytes& chunks);
Bytes riffBytes(const char* form, const Bytes& chunks);

// A 16-byte PCM "fmt " body; 18 bytes with the extra-size field when asked.
Bytes pcmFormatBody(uint16_t channels, uint32_t rate, bool withExtraSize = false,
                    uint16_t extraSize = 0);

Bytes patternSamples(size_t bytes, uint32_t seed = 1);

// The canonical 44-byte-header file around `samples`.
Bytes canonicalWave(uint16_t channels, uint32_t rate, const Bytes& samples);

// The reader's header.seconds by value (a packed field at an odd offset).
float wavefileSeconds(void* reader);

} // namespace dsptest
