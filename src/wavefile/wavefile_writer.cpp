#include "wavefile/wavefile_writer.h"

#include "wavefile/wavefile_format_codec.h"

#include <cstring>
#include <limits>

namespace dsp {

namespace {

constexpr uint32_t kFourccWave = makeFourcc('W', 'A', 'V', 'E');
constexpr uint32_t kFourccFmt = makeFourcc('f', 'm', 't', ' ');
constexpr uint32_t kFourccData = makeFourcc('d', 'a', 't', 'a');

} // namespace

void WavefileWriter::open(const char* path, const WavefileFormat* source) {
    isOpen = 0;
    if (source != nullptr) {
        std::memcpy(&format, source, sizeof(WavefileFormat));
    }
    if (source == nullptr || !file.open(path, RiffFile::Access::kCreate)) {
        return;
    }
    if (!writeHeader()) {
        file.close();
        return;
    }
    isOpen = 1;
}

bool WavefileWriter::writeHeader() {
    if (file.seek(0, RiffFile::Origin::kBegin) != 0) {
        return false;
    }
    riffChunk.formType = kFourccWave;
    riffChunk.size = 0;
    if (!file.createChunk(riffChunk, true)) {
        return false;
    }
    uint8_t body[kWaveFormatBytes];
    encodeWaveFormat(format, body);
    chunk.id = kFourccFmt;
    chunk.size = kWaveFormatBytes;
    if (!file.createChunk(chunk, false) ||
        file.write(body, sizeof body) != static_cast<int64_t>(sizeof body) || !file.ascend(chunk)) {
        return false;
    }
    chunk.id = kFourccData;
    chunk.size = kProvisionalDataBytes;
    return file.createChunk(chunk, false);
}

int32_t WavefileWriter::write(const void* data, int32_t bytes) {
    if (isOpen == 0) {
        return 0;
    }
    if (bytes < 0 || (data == nullptr && bytes > 0)) {
        return -1;
    }
    if (bytes == 0) {
        return 0;
    }
    // The RIFF size (file size - 8, pad byte included) must fit in 32 bits.
    int64_t end = file.tell() + bytes;
    int64_t riffLimit = static_cast<int64_t>(std::numeric_limits<uint32_t>::max()) + 8 - 1;
    if (end > riffLimit) {
        return -1;
    }
    return static_cast<int32_t>(file.write(data, static_cast<size_t>(bytes)));
}

uint32_t WavefileWriter::flush() {
    if (isOpen == 0) {
        return 0;
    }
    return file.flush() ? 1 : 0;
}

uint32_t WavefileWriter::close() {
    if (isOpen == 0) {
        return 0;
    }
    bool ok = file.ascend(chunk);
    uint32_t dataBytes = chunk.size;
    ok = ok && file.ascend(riffChunk);
    ok = file.flush() && ok;
    ok = file.close() && ok;
    isOpen = 0;
    return ok ? dataBytes : 0;
}

} // namespace dsp
