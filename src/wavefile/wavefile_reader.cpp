#include "wavefile/wavefile_reader.h"

#include "core/numeric.h"
#include "wavefile/wavefile_format_codec.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace dsp {

namespace {

constexpr uint32_t kFourccWave = makeFourcc('W', 'A', 'V', 'E');
constexpr uint32_t kFourccFmt = makeFourcc('f', 'm', 't', ' ');
constexpr uint32_t kFourccData = makeFourcc('d', 'a', 't', 'a');

// A zero-filled buffer of `bytes` (empty when it cannot be allocated).
OwnedArray<uint8_t> allocateZeroed(uint32_t bytes) {
    OwnedArray<uint8_t> buffer = OwnedArray<uint8_t>::allocate(bytes);
    if (buffer) {
        std::memset(buffer.data(), 0, std::max<size_t>(bytes, 1));
    }
    return buffer;
}

} // namespace

WavefileReader::~WavefileReader() {
    close();
}

bool WavefileReader::frameBytes(uint32_t frames, uint32_t& bytes) const {
    uint64_t total = static_cast<uint64_t>(frames) * 2u * format_.channels;
    if (total > std::numeric_limits<uint32_t>::max()) {
        return false;
    }
    bytes = static_cast<uint32_t>(total);
    return true;
}

void WavefileReader::open(const char* path, uint32_t frames) {
    isOpen_ = 0;
    if (!openChecked(path, frames)) {
        // A file that fails a check is not kept open.
        file_.close();
        format_ = WavefileFormat{};
        return;
    }
    isOpen_ = 1;
}

bool WavefileReader::openChecked(const char* path, uint32_t frames) {
    uint8_t body[kWaveFormatBytes] = {};
    if (!file_.open(path, RiffFile::Access::kRead) ||
        file_.seek(0, RiffFile::Origin::kBegin) != 0 || !readFormatChunk(body)) {
        return false;
    }
    chunk_.id = kFourccData;
    if (!file_.descend(chunk_, &riffChunk_, RiffFile::Search::kChunk)) {
        return false;
    }
    format_ = decodeWaveFormat(body);
    uint32_t bytes = 0;
    if (!frameBytes(frames, bytes)) {
        return false;
    }
    ownBuffer_ = allocateZeroed(bytes);
    if (!ownBuffer_) {
        return false;
    }
    fillHeader();
    return true;
}

bool WavefileReader::readFormatChunk(uint8_t (&body)[kWaveFormatBytes]) {
    riffChunk_.formType = kFourccWave;
    if (!file_.descend(riffChunk_, nullptr, RiffFile::Search::kRiff)) {
        return false;
    }
    chunk_.id = kFourccFmt;
    if (!file_.descend(chunk_, &riffChunk_, RiffFile::Search::kChunk)) {
        return false;
    }
    // The whole body must be in the file; only its first 18 bytes are kept,
    // and a shorter body leaves the rest of the record 0.
    int64_t fileBytes = file_.size();
    if (fileBytes < 0 || chunk_.dataOffset + chunk_.size > static_cast<uint64_t>(fileBytes)) {
        return false;
    }
    uint32_t wanted = std::min(chunk_.size, kWaveFormatBytes);
    return file_.read(body, wanted) == static_cast<int64_t>(wanted) && file_.ascend(chunk_);
}

void WavefileReader::fillHeader() {
    header_.buffer = ownBuffer_.data();
    header_.dataBytes = chunk_.size;
    header_.bytesRead = 0;
    header_.reserved16 = 0;
    header_.reserved20 = 0;
    // Frames by integer division, then seconds by floating-point division
    // (a rate of 0 gives infinity). Without channels there are no frames to
    // count: the duration is reported as 0.
    if (format_.channels == 0) {
        header_.seconds = 0.0f;
    } else {
        uint32_t dataFrames = header_.dataBytes / (2u * format_.channels);
        header_.seconds = static_cast<float>(static_cast<double>(dataFrames) /
                                             static_cast<double>(format_.samplesPerSecond));
    }
}

int32_t WavefileReader::read(uint8_t* buffer, uint32_t frames) {
    if (isOpen_ == 0) {
        return 0;
    }
    uint64_t bytes = static_cast<uint64_t>(frames) * 2u * format_.channels;
    uint8_t* target = buffer;
    if (target == nullptr) {
        target = ownBuffer_.data();
        bytes = std::min<uint64_t>(bytes, ownBuffer_.size());
    }
    bytes = std::min<uint64_t>(bytes, static_cast<uint64_t>(std::numeric_limits<int32_t>::max()));
    int64_t got = bytes > 0 ? file_.read(target, static_cast<size_t>(bytes)) : 0;
    header_.buffer = target;
    if (got < 0) {
        header_.bytesRead = 0;
        return -1;
    }
    header_.bytesRead = static_cast<uint32_t>(got);
    return static_cast<int32_t>(got);
}

int32_t WavefileReader::moveTo(int64_t position) {
    if (position < 0 || position > std::numeric_limits<int32_t>::max()) {
        return -1;
    }
    return static_cast<int32_t>(file_.seek(position, RiffFile::Origin::kBegin));
}

int32_t WavefileReader::seek(int32_t bytes, uint32_t mode) {
    if (isOpen_ == 0) {
        return 0;
    }
    int64_t base = mode == 0 ? static_cast<int64_t>(chunk_.dataOffset) : file_.tell();
    return moveTo(base + bytes);
}

int32_t WavefileReader::timeSeek(float seconds, uint32_t mode) {
    if (isOpen_ == 0) {
        return 0;
    }
    int32_t frames =
        truncToInt32(static_cast<double>(format_.samplesPerSecond) * static_cast<double>(seconds));
    int64_t base = mode == 0 ? static_cast<int64_t>(chunk_.dataOffset) : file_.tell();
    return moveTo(base + static_cast<int64_t>(frames) * 2 * format_.channels);
}

uint8_t* WavefileReader::extendBuffer(uint32_t frames) {
    uint32_t bytes = 0;
    if (!frameBytes(frames, bytes)) {
        return nullptr;
    }
    OwnedArray<uint8_t> fresh = allocateZeroed(bytes);
    if (!fresh) {
        return nullptr;
    }
    ownBuffer_ = std::move(fresh);
    header_.buffer = ownBuffer_.data();
    return ownBuffer_.data();
}

void WavefileReader::close() {
    if (isOpen_ != 0) {
        file_.close();
        isOpen_ = 0;
    }
    ownBuffer_.reset();
    header_.buffer = nullptr;
}

} // namespace dsp
