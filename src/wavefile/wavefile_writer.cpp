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
    isOpen_ = 0;
    if (source != nullptr) {
        std::memcpy(&format_, source, sizeof(WavefileFormat));
    }
    if (source == nullptr || !file_.open(path, RiffFile::Access::kCreate)) {
        return;
    }
    if (!writeHeader()) {
        file_.close();
        return;
    }
    isOpen_ = 1;
}

bool WavefileWriter::writeHeader() {
    if (file_.seek(0, RiffFile::Origin::kBegin) != 0) {
        return false;
    }
    riffChunk_.formType = kFourccWave;
    riffChunk_.size = 0;
    if (!file_.createChunk(riffChunk_, true)) {
        return false;
    }
    uint8_t body[kWaveFormatBytes];
    encodeWaveFormat(format_, body);
    chunk_.id = kFourccFmt;
    chunk_.size = kWaveFormatBytes;
    if (!file_.createChunk(chunk_, false) ||
        file_.write(body, sizeof body) != static_cast<int64_t>(sizeof body) ||
        !file_.ascend(chunk_)) {
        return false;
    }
    chunk_.id = kFourccData;
    chunk_.size = kProvisionalDataBytes;
    return file_.createChunk(chunk_, false);
}

int32_t WavefileWriter::write(const void* data, int32_t bytes) {
    if (isOpen_ == 0) {
        return 0;
    }
    if (bytes < 0 || (data == nullptr && bytes > 0)) {
        return -1;
    }
    if (bytes == 0) {
        return 0;
    }
    // The RIFF size (file size - 8, pad byte included) must fit in 32 bits.
    int64_t end = file_.tell() + bytes;
    int64_t riffLimit = static_cast<int64_t>(std::numeric_limits<uint32_t>::max()) + 8 - 1;
    if (end > riffLimit) {
        return -1;
    }
    return static_cast<int32_t>(file_.write(data, static_cast<size_t>(bytes)));
}

uint32_t WavefileWriter::flush() {
    if (isOpen_ == 0) {
        return 0;
    }
    return file_.flush() ? 1 : 0;
}

uint32_t WavefileWriter::close() {
    if (isOpen_ == 0) {
        return 0;
    }
    bool ok = file_.ascend(chunk_);
    uint32_t dataBytes = chunk_.size;
    ok = ok && file_.ascend(riffChunk_);
    ok = file_.flush() && ok;
    ok = file_.close() && ok;
    isOpen_ = 0;
    return ok ? dataBytes : 0;
}

} // namespace dsp
