// The WAVE reader over arbitrary file bytes: the input is the whole file; the
// calls made on it (block sizes, seeks, buffer extensions) come from a
// generator seeded by a hash of the input, so each input replays exactly.
#include "dsp.h"
#include "fuzz_input.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

class Rng {
public:
    explicit Rng(uint64_t seed) : state_(seed | 1) {}
    uint32_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<uint32_t>(state_ >> 16);
    }
    uint32_t below(uint32_t n) { return next() % n; }

private:
    uint64_t state_;
};

uint64_t hashOf(const uint8_t* data, size_t size) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i) {
        h = (h ^ data[i]) * 1099511628211ull;
    }
    return h;
}

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = dspfuzz::scratchPath("reader");
    if (!dspfuzz::writeFile(path, data, size)) {
        return 0;
    }
    Rng rng(hashOf(data, size));
    uint32_t ownFrames = 1 + rng.below(4096);
    void* reader = initWavefileIn(path.c_str(), ownFrames);
    check(reader != nullptr);
    WavefileHeader* header = getHeaderWavefileIn(reader);
    WavefileFormat* format = getFormatWavefileIn(reader);
    std::vector<uint8_t> callerBuffer;
    for (int op = 0; op < 12; ++op) {
        switch (rng.below(6)) {
        case 0: { // into the reader's own buffer, within its size
            const int32_t got = readWavefileIn(reader, nullptr, 1 + rng.below(ownFrames));
            check(got >= 0);
            if (got > 0 && header != nullptr && header->buffer != nullptr) {
                volatile uint8_t sink = header->buffer[got - 1];
                (void)sink;
            }
            break;
        }
        case 1: { // into a caller's buffer sized for the file's frames
            if (format == nullptr || format->channels == 0) {
                break;
            }
            const uint32_t frames = 1 + rng.below(1 + (1u << 20) / (2u * format->channels));
            callerBuffer.assign(static_cast<size_t>(frames) * 2u * format->channels, 0);
            const int32_t got = readWavefileIn(reader, callerBuffer.data(), frames);
            check(got >= 0 && static_cast<size_t>(got) <= callerBuffer.size());
            break;
        }
        case 2:
            seekWavefileIn(reader, static_cast<int32_t>(rng.next()) >> rng.below(32), rng.below(2));
            break;
        case 3: {
            const float seconds = static_cast<float>(static_cast<int32_t>(rng.next())) /
                                  static_cast<float>(1u << rng.below(31));
            timeSeekWavefileIn(reader, seconds, rng.below(2));
            break;
        }
        case 4: {
            ownFrames = 1 + rng.below(4096);
            uint8_t* own = bufSizeExtendWavefileIn(reader, ownFrames);
            if (own != nullptr && format != nullptr && format->channels != 0) {
                own[static_cast<size_t>(ownFrames) * 2u * format->channels - 1] = 0;
            }
            break;
        }
        default:
            header = getHeaderWavefileIn(reader);
            format = getFormatWavefileIn(reader);
            break;
        }
    }
    termWavefileIn(reader);
    return 0;
}
