// Writes seed corpora for the fuzz targets under OUTDIR:
//   wavefile_reader/     valid WAVE files from the library's writer, plus
//                        truncated and chunk-padded variants
//   wavefile_roundtrip/  formats with writes of assorted lengths
//   processor_sequence/  an init of every family followed by varied calls
//   tool_wave_reader/    the tool's WAVE encodings, plain and extensible, with
//                        extra chunks, as streams and as RF64 (a lead byte
//                        chooses file or stream and the block size)
// Usage: fuzz_seed_corpus OUTDIR
#include "dsp.h"
#include "wave_writer.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

struct Rng {
    uint32_t state;
    uint32_t next() {
        state = state * 1664525u + 1013904223u;
        return state >> 8;
    }
};

bool save(const std::string& path, const Bytes& data) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
    return static_cast<bool>(out);
}

Bytes load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void putU32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
}

bool readerSeeds(const std::string& dir, Rng& rng) {
    int index = 0;
    for (uint16_t channels = 1; channels <= 2; ++channels) {
        for (uint32_t rate : {8000u, 22050u, 44100u, 48000u}) {
            for (uint32_t bytes : {0u, 3u, 64u, 1001u}) {
                WavefileFormat format{
                    1,  channels, rate, rate * 2u * channels, static_cast<uint16_t>(2 * channels),
                    16, 0};
                const std::string path = dir + "/valid_" + std::to_string(index++) + ".wav";
                void* writer = initWavefileOut(path.c_str(), &format);
                Bytes samples(bytes);
                for (uint8_t& s : samples) {
                    s = static_cast<uint8_t>(rng.next());
                }
                if (writer == nullptr ||
                    (bytes > 0 &&
                     writeWavefileOut(writer, samples.data(), static_cast<int32_t>(bytes)) <= 0) ||
                    termWavefileOut(writer) != bytes) {
                    return false;
                }
                Bytes file = load(path);
                if (file.size() > 20) {
                    // Cut short, and with a foreign chunk before "data".
                    save(dir + "/cut_" + std::to_string(index) + ".wav",
                         Bytes(file.begin(), file.begin() + static_cast<long>(file.size() / 2)));
                    Bytes extra(file.begin(), file.begin() + 38);
                    extra.insert(extra.end(),
                                 {'L', 'I', 'S', 'T', 5, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 0});
                    extra.insert(extra.end(), file.begin() + 38, file.end());
                    save(dir + "/chunk_" + std::to_string(index) + ".wav", extra);
                }
            }
        }
    }
    return true;
}

void roundtripSeeds(const std::string& dir, Rng& rng) {
    for (int i = 0; i < 16; ++i) {
        Bytes b;
        putU32(b, static_cast<uint32_t>(i % 2));             // channels 1..2
        putU32(b, 8000u + 4000u * static_cast<uint32_t>(i)); // rate
        putU32(b, static_cast<uint32_t>(1 + i % 5));         // writes
        for (int w = 0; w < 1 + i % 5; ++w) {
            const uint32_t n = (rng.next() % 300) + static_cast<uint32_t>(w);
            putU32(b, n);
            for (uint32_t k = 0; k < n; ++k) {
                b.push_back(static_cast<uint8_t>(rng.next()));
            }
            b.push_back(static_cast<uint8_t>(w));
        }
        save(dir + "/seed_" + std::to_string(i), b);
    }
}

void sequenceSeeds(const std::string& dir, Rng& rng) {
    int index = 0;
    for (uint32_t family = 0; family < 11; ++family) {
        for (int variant = 0; variant < 3; ++variant) {
            Bytes b;
            b.push_back(0);    // init
            putU32(b, 0);      // slot 0
            putU32(b, family); // family
            for (int i = 0; i < 600; ++i) {
                b.push_back(static_cast<uint8_t>(rng.next()));
            }
            save(dir + "/family" + std::to_string(family) + "_" + std::to_string(index++), b);
        }
    }
}

class MemorySink : public cli::ByteSink {
public:
    explicit MemorySink(bool seekable) : seekable_(seekable) {}
    void write(const void* data, size_t bytes) override {
        if (at_ + bytes > bytes_.size()) {
            bytes_.resize(at_ + bytes);
        }
        std::memcpy(bytes_.data() + at_, data, bytes);
        at_ += bytes;
    }
    bool seekable() const override { return seekable_; }
    void seek(uint64_t offset) override { at_ = static_cast<size_t>(offset); }
    uint64_t position() const override { return at_; }
    const std::string& name() const override { return name_; }
    const Bytes& data() const { return bytes_; }

private:
    bool seekable_;
    Bytes bytes_;
    size_t at_ = 0;
    std::string name_ = "seed";
};

bool toolWaveSeeds(const std::string& dir, Rng& rng) {
    using cli::SampleType;
    int index = 0;
    const SampleType types[] = {SampleType::kUint8, SampleType::kInt16,   SampleType::kInt24,
                                SampleType::kInt32, SampleType::kFloat32, SampleType::kFloat64};
    for (SampleType type : types) {
        for (int variant = 0; variant < 4; ++variant) {
            cli::StreamFormat f;
            f.rate = 44100;
            f.channels = 1 + variant % 2;
            f.type = type;
            f.extensible = variant >= 2;
            f.channelMask = f.extensible ? (f.channels == 2 ? 3 : 4) : 0;
            const bool stream = variant == 3;
            MemorySink sink(!stream);
            cli::ExtraChunk list{{'L', 'I', 'S', 'T'}, Bytes{'I', 'N', 'F', 'O', 'I', 'N'}};
            cli::WaveWriter writer(sink, f, {list});
            Bytes samples(37 * f.frameBytes());
            for (uint8_t& s : samples) {
                s = static_cast<uint8_t>(rng.next());
            }
            writer.write(samples.data(), 37);
            writer.finish({cli::ExtraChunk{{'c', 'u', 'e', ' '}, Bytes{1, 2, 3}}});
            Bytes file = sink.data();
            if (variant == 2 && file.size() > 16) {
                // RF64: the reserved JUNK becomes ds64 with 64-bit sizes.
                std::memcpy(file.data(), "RF64", 4);
                std::memcpy(file.data() + 12, "ds64", 4);
                const uint64_t riff = file.size() - 8, data = samples.size(), frames = 37;
                for (int i = 0; i < 8; ++i) {
                    file[20 + i] = static_cast<uint8_t>(riff >> (8 * i));
                    file[28 + i] = static_cast<uint8_t>(data >> (8 * i));
                    file[36 + i] = static_cast<uint8_t>(frames >> (8 * i));
                }
            }
            file.insert(file.begin(), static_cast<uint8_t>(stream ? 0x10 : 0x11));
            if (!save(dir + "/wave_" + std::to_string(index++) + ".bin", file)) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTDIR\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    Rng rng{2024};
    for (const char* sub : {"", "/wavefile_reader", "/wavefile_roundtrip", "/processor_sequence",
                            "/tool_wave_reader"}) {
        mkdir((root + sub).c_str(), 0755);
    }
    if (!readerSeeds(root + "/wavefile_reader", rng)) {
        std::fprintf(stderr, "writing the WAVE seeds failed\n");
        return 1;
    }
    if (!toolWaveSeeds(root + "/tool_wave_reader", rng)) {
        std::fprintf(stderr, "writing the tool's WAVE seeds failed\n");
        return 1;
    }
    roundtripSeeds(root + "/wavefile_roundtrip", rng);
    sequenceSeeds(root + "/processor_sequence", rng);
    return 0;
}
