#include "wavefile/wavefile_reader.h"

#include "core/numeric.h"
#include "wavefile/wavefile_format_codec.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace dsp {

namespace {

constexpr uint32_t kFourccWave = makeFourcc('W', 'A', 'V', 'E');
constexpr uint32_t kFourccFmt = makeFourcc('f', 'm', 't', ' ');
constexpr uint32_t kFourccData = makeFourcc('d', 'a', 't', 'a');

// Zero-filled block of `bytes` (at least one byte, so that null always means
// failure).
uint8_t* allocateZeroed(uint32_t bytes) {
    return static_cast<uint8_t*>(std::calloc(std::max<uint32_t>(bytes, 1), 1));
}

} // namespace

WavefileReader::~WavefileReader() {
    close();
}

bool WavefileReader::frameBytes(uint32_t frames, uint32_t& bytes) const {
    uint64_t total = static_cast<uint64_t>(frames) * 2u * format.channels;
    if (total > std::numeric_limits<uint32_t>::max()) {
        return false;
    }
    bytes = static_cast<uint32_t>(total);
    return true;
}

void WavefileReader::open(const char* path, uint32_t frames) {
    isOpen = 0;
    if (!openChecked(path, frames)) {
        // A file that fails a check is not kept open.
        file.close();
        format = WavefileFormat{};
        return;
    }
    isOpen = 1;
}

bool WavefileReader::openChecked(const char* path, uint32_t frames) {
    if (!file.open(path, RiffFile::Access::kRead) || file.seek(0, RiffFile::Origin::kBegin) != 0) {
        return false;
    }
    riffChunk.formType = kFourccWave;
    if (!file.descend(riffChunk, nullptr, RiffFile::Search::kRiff)) {
        return false;
    }
    chunk.id = kFourccFmt;
    if (!file.descend(chunk, &riffChunk, RiffFile::Search::kChunk)) {
        return false;
    }
    // The whole body must be in the file; only its first 18 bytes are kept,
    // and a shorter body leaves the rest of the record 0.
    int64_t fileBytes = file.size();
    if (fileBytes < 0 || chunk.dataOffset + chunk.size > static_cast<uint64_t>(fileBytes)) {
        return false;
    }
    uint8_t body[kWaveFormatBytes] = {};
    uint32_t wanted = std::min(chunk.size, kWaveFormatBytes);
    if (file.read(body, wanted) != static_cast<int64_t>(wanted) || !file.ascend(chunk)) {
        return false;
    }
    chunk.id = kFourccData;
    if (!file.descend(chunk, &riffChunk, RiffFile::Search::kChunk)) {
        return false;
    }
    format = decodeWaveFormat(body);
    uint32_t bytes = 0;
    if (!frameBytes(frames, bytes)) {
        return false;
    }
    ownBuffer_ = allocateZeroed(bytes);
    if (ownBuffer_ == nullptr) {
        return false;
    }
    bufferBytes = bytes;
    header.buffer = ownBuffer_;
    header.dataBytes = chunk.size;
    header.bytesRead = 0;
    header.reserved16 = 0;
    header.reserved20 = 0;
    // Frames by integer division, then seconds by floating-point division
    // (a rate of 0 gives infinity). Without channels there are no frames to
    // count: the duration is reported as 0.
    if (format.channels == 0) {
        header.seconds = 0.0f;
    } else {
        uint32_t dataFrames = header.dataBytes / (2u * format.channels);
        header.seconds = static_cast<float>(static_cast<double>(dataFrames) /
                                            static_cast<double>(format.samplesPerSecond));
    }
    return true;
}

int32_t WavefileReader::read(uint8_t* buffer, uint32_t frames) {
    if (isOpen == 0) {
        return 0;
    }
    uint64_t bytes = static_cast<uint64_t>(frames) * 2u * format.channels;
    uint8_t* target = buffer;
    if (target == nullptr) {
        target = ownBuffer_;
        bytes = std::min<uint64_t>(bytes, bufferBytes);
    }
    bytes = std::min<uint64_t>(bytes, static_cast<uint64_t>(std::numeric_limits<int32_t>::max()));
    int64_t got = bytes > 0 ? file.read(target, static_cast<size_t>(bytes)) : 0;
    header.buffer = target;
    if (got < 0) {
        header.bytesRead = 0;
        return -1;
    }
    header.bytesRead = static_cast<uint32_t>(got);
    return static_cast<int32_t>(got);
}

int32_t WavefileReader::moveTo(int64_t position) {
    if (position < 0 || position > std::numeric_limits<int32_t>::max()) {
        return -1;
    }
    return static_cast<int32_t>(file.seek(position, RiffFile::Origin::kBegin));
}

int32_t WavefileReader::seek(int32_t bytes, uint32_t mode) {
    if (isOpen == 0) {
        return 0;
    }
    int64_t base = mode == 0 ? static_cast<int64_t>(chunk.dataOffset) : file.tell();
    return moveTo(base + bytes);
}

int32_t WavefileReader::timeSeek(float seconds, uint32_t mode) {
    if (isOpen == 0) {
        return 0;
    }
    int32_t frames =
        truncToInt32(static_cast<double>(format.samplesPerSecond) * static_cast<double>(seconds));
    int64_t base = mode == 0 ? static_cast<int64_t>(chunk.dataOffset) : file.tell();
    return moveTo(base + static_cast<int64_t>(frames) * 2 * format.channels);
}

uint8_t* WavefileReader::extendBuffer(uint32_t frames) {
    uint32_t bytes = 0;
    if (!frameBytes(frames, bytes)) {
        return nullptr;
    }
    uint8_t* fresh = allocateZeroed(bytes);
    if (fresh == nullptr) {
        return nullptr;
    }
    std::free(ownBuffer_);
    ownBuffer_ = fresh;
    bufferBytes = bytes;
    header.buffer = ownBuffer_;
    return ownBuffer_;
}

void WavefileReader::close() {
    if (isOpen != 0) {
        file.close();
        isOpen = 0;
    }
    std::free(ownBuffer_);
    ownBuffer_ = nullptr;
    bufferBytes = 0;
    header.buffer = nullptr;
}

} // namespace dsp
