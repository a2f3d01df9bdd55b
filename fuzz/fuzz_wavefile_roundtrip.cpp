// The WAVE writer followed by the reader: a PCM format and a series of
// writes (of any lengths, odd ones included, with flushes between) decoded
// from the input; the file read back must report the same format and exactly
// the bytes written.
#include "dsp.h"
#include "fuzz_input.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    dspfuzz::ByteReader in(data, size);
    WavefileFormat format{};
    format.formatTag = 1;
    format.channels = static_cast<uint16_t>(in.range(1, 2));
    format.samplesPerSecond = in.range(1, 384000);
    format.blockAlign = static_cast<uint16_t>(2 * format.channels);
    format.avgBytesPerSecond = format.samplesPerSecond * format.blockAlign;
    format.bitsPerSample = 16;
    format.extraSize = 0;

    const std::string& path = dspfuzz::scratchPath("roundtrip");
    void* writer = initWavefileOut(path.c_str(), &format);
    check(writer != nullptr);
    const WavefileFormat* stored = getFormatWavefileOut(writer);
    check(stored != nullptr && std::memcmp(stored, &format, sizeof format) == 0);
    std::vector<uint8_t> written;
    const uint32_t writes = in.range(0, 16);
    for (uint32_t w = 0; w < writes && !in.empty(); ++w) {
        const uint32_t n = in.range(0, 4096);
        std::vector<uint8_t> chunk(n);
        in.bytes(chunk.data(), n);
        check(writeWavefileOut(writer, chunk.data(), static_cast<int32_t>(n)) ==
              static_cast<int32_t>(n));
        written.insert(written.end(), chunk.begin(), chunk.end());
        if (in.flag()) {
            check(flushWavefileOut(writer) == 1);
        }
    }
    // Closing reports the size of the "data" chunk.
    check(termWavefileOut(writer) == written.size());

    const uint32_t frameBytes = format.blockAlign;
    const uint32_t frames = static_cast<uint32_t>(written.size() / frameBytes);
    void* reader = initWavefileIn(path.c_str(), frames + 1);
    check(reader != nullptr);
    const WavefileFormat* readFormat = getFormatWavefileIn(reader);
    check(readFormat != nullptr && std::memcmp(readFormat, &format, sizeof format) == 0);
    const WavefileHeader* header = getHeaderWavefileIn(reader);
    check(header != nullptr && header->dataBytes == written.size());
    std::vector<uint8_t> back(static_cast<size_t>(frames + 1) * frameBytes, 0xA5);
    const int32_t got = readWavefileIn(reader, back.data(), frames);
    check(got == static_cast<int32_t>(frames * frameBytes));
    check(got == 0 || std::memcmp(back.data(), written.data(), static_cast<size_t>(got)) == 0);
    // An odd tail (less than a frame) follows, then the pad byte if any.
    const size_t tail = written.size() - static_cast<size_t>(got);
    if (tail > 0) {
        const int32_t more = readWavefileIn(reader, back.data(), 1);
        check(more >= static_cast<int32_t>(tail));
        check(std::memcmp(back.data(), written.data() + got, tail) == 0);
    }
    termWavefileIn(reader);
    return 0;
}
