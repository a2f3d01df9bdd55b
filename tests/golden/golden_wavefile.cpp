// Golden run of the WAVE writer and reader: the bytes of a written file and
// what the reader reports about it (not its buffer address).
#include "golden/golden_runs.h"

#include "dsp.h"

#include <cstdio>
#include <string>

GOLDEN_RUN(wavefileWriteAndRead) {
    const std::string path = "dsp_golden_wavefile.wav";
    WavefileFormat format = {1, 2, 44100, 176400, 4, 16, 0};
    std::vector<int16_t> signal = golden::testSignal(3000, 2, 9);
    void* writer = initWavefileOut(path.c_str(), &format);
    out.value(writeWavefileOut(writer, signal.data(), 4000));
    out.value(flushWavefileOut(writer));
    out.value(writeWavefileOut(writer, signal.data() + 2000, 7999));
    out.value(termWavefileOut(writer));

    std::vector<unsigned char> bytes;
    if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
        int c;
        while ((c = std::fgetc(f)) != EOF) {
            bytes.push_back(static_cast<unsigned char>(c));
        }
        std::fclose(f);
    }
    out.samples(bytes);

    void* reader = initWavefileIn(path.c_str(), 500);
    const WavefileFormat* read = getFormatWavefileIn(reader);
    if (read != nullptr) {
        out.value(*read);
    }
    const WavefileHeader* header = getHeaderWavefileIn(reader);
    if (header != nullptr) {
        out.value(header->dataBytes);
        out.value(header->seconds);
    }
    std::vector<uint8_t> block(500 * 4);
    int32_t got;
    while ((got = readWavefileIn(reader, block.data(), 500)) > 0) {
        out.value(got);
        out.samples(block.data(), static_cast<size_t>(got));
    }
    out.value(got);
    out.value(timeSeekWavefileIn(reader, 0.01f, 0));
    out.value(seekWavefileIn(reader, 400, 0));
    out.value(readWavefileIn(reader, block.data(), 100));
    out.samples(block.data(), 400);
    termWavefileIn(reader);
    std::remove(path.c_str());
}
