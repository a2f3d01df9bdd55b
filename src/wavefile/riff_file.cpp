// 64-bit file offsets for fopen/fseeko/ftello on 32-bit glibc builds; this
// has to come before any system header.
#if !defined(_WIN32) && !defined(_FILE_OFFSET_BITS)
#define _FILE_OFFSET_BITS 64
#endif

#include "wavefile/riff_file.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#if !defined(_WIN32)
#include <sys/types.h>
#endif

namespace dsp {

namespace {

uint32_t loadLe32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void storeLe32(uint8_t* p, uint32_t value) {
    p[0] = static_cast<uint8_t>(value);
    p[1] = static_cast<uint8_t>(value >> 8);
    p[2] = static_cast<uint8_t>(value >> 16);
    p[3] = static_cast<uint8_t>(value >> 24);
}

// Offset just past a chunk's body and its pad byte.
int64_t chunkEnd(const RiffChunk& chunk) {
    return static_cast<int64_t>(chunk.dataOffset) + chunk.size + (chunk.size & 1u);
}

} // namespace

RiffFile::~RiffFile() {
    close();
}

bool RiffFile::open(const char* path, Access access) {
    close();
    if (path == nullptr || path[0] == '\0') {
        return false;
    }
    buffer_ = OwnedArray<uint8_t>::allocate(kBufferBytes);
    if (!buffer_) {
        return false;
    }
    file_ = std::fopen(path, access == Access::kRead ? "rb" : "w+b");
    if (file_ == nullptr) {
        buffer_.reset();
        return false;
    }
    // Our own buffer does the buffering; the stream's would only copy twice.
    std::setvbuf(file_, nullptr, _IONBF, 0);
    writable_ = access == Access::kCreate;
    position_ = 0;
    windowStart_ = 0;
    windowBytes_ = 0;
    dirtyFrom_ = 0;
    dirtyTo_ = 0;
    return true;
}

bool RiffFile::close() {
    if (file_ == nullptr) {
        return true;
    }
    bool ok = writeBack();
    if (std::fclose(file_) != 0) {
        ok = false;
    }
    file_ = nullptr;
    buffer_.reset();
    writable_ = false;
    return ok;
}

bool RiffFile::seekFile(int64_t position) {
#if defined(_WIN32)
    return _fseeki64(file_, position, SEEK_SET) == 0;
#else
    if (position > static_cast<int64_t>(std::numeric_limits<off_t>::max())) {
        return false;
    }
    return fseeko(file_, static_cast<off_t>(position), SEEK_SET) == 0;
#endif
}

int64_t RiffFile::seek(int64_t offset, Origin origin) {
    if (file_ == nullptr) {
        return -1;
    }
    int64_t base = 0;
    if (origin == Origin::kCurrent) {
        base = position_;
    } else if (origin == Origin::kEnd) {
        base = size();
        if (base < 0) {
            return -1;
        }
    }
    if ((offset > 0 && base > std::numeric_limits<int64_t>::max() - offset) || base + offset < 0) {
        return -1;
    }
    position_ = base + offset;
    return position_;
}

int64_t RiffFile::size() {
    if (file_ == nullptr) {
        return -1;
    }
#if defined(_WIN32)
    if (_fseeki64(file_, 0, SEEK_END) != 0) {
        return -1;
    }
    int64_t end = _ftelli64(file_);
#else
    if (fseeko(file_, 0, SEEK_END) != 0) {
        return -1;
    }
    int64_t end = static_cast<int64_t>(ftello(file_));
#endif
    if (end < 0) {
        return -1;
    }
    // Bytes written into the buffer beyond the end on disk count too.
    if (windowBytes_ > 0) {
        end = std::max(end, windowStart_ + static_cast<int64_t>(windowBytes_));
    }
    return end;
}

bool RiffFile::writeBack() {
    if (dirtyTo_ <= dirtyFrom_) {
        return true;
    }
    size_t bytes = dirtyTo_ - dirtyFrom_;
    if (!seekFile(windowStart_ + static_cast<int64_t>(dirtyFrom_)) ||
        std::fwrite(buffer_.data() + dirtyFrom_, 1, bytes, file_) != bytes) {
        // The range stays dirty: a later flush tries again.
        return false;
    }
    dirtyFrom_ = 0;
    dirtyTo_ = 0;
    return true;
}

int64_t RiffFile::read(void* dst, size_t bytes) {
    if (file_ == nullptr || (dst == nullptr && bytes > 0)) {
        return -1;
    }
    uint8_t* out = static_cast<uint8_t*>(dst);
    size_t done = 0;
    bool failed = false;
    while (done < bytes) {
        int64_t windowEnd = windowStart_ + static_cast<int64_t>(windowBytes_);
        if (position_ >= windowStart_ && position_ < windowEnd) {
            size_t offset = static_cast<size_t>(position_ - windowStart_);
            size_t n = std::min(bytes - done, windowBytes_ - offset);
            std::memcpy(out + done, buffer_.data() + offset, n);
            done += n;
            position_ += static_cast<int64_t>(n);
            continue;
        }
        if (!writeBack() || !seekFile(position_)) {
            failed = true;
            break;
        }
        size_t remaining = bytes - done;
        std::clearerr(file_);
        if (remaining >= kBufferBytes) {
            // Large reads go straight to the caller; the buffer is clean, so
            // it still mirrors the file.
            size_t got = std::fread(out + done, 1, remaining, file_);
            done += got;
            position_ += static_cast<int64_t>(got);
            failed = std::ferror(file_) != 0;
            if (got < remaining) {
                break;
            }
            continue;
        }
        windowStart_ = position_;
        windowBytes_ = std::fread(buffer_.data(), 1, kBufferBytes, file_);
        if (windowBytes_ == 0) {
            failed = std::ferror(file_) != 0;
            break;
        }
    }
    if (failed && done == 0) {
        return -1;
    }
    return static_cast<int64_t>(done);
}

int64_t RiffFile::write(const void* src, size_t bytes) {
    if (file_ == nullptr || !writable_ || (src == nullptr && bytes > 0)) {
        return -1;
    }
    const uint8_t* in = static_cast<const uint8_t*>(src);
    size_t done = 0;
    while (done < bytes) {
        // Writes extend the window as long as they stay contiguous with it.
        int64_t windowEnd = windowStart_ + static_cast<int64_t>(windowBytes_);
        int64_t windowLimit = windowStart_ + static_cast<int64_t>(kBufferBytes);
        if (position_ < windowStart_ || position_ > windowEnd || position_ >= windowLimit) {
            if (!writeBack()) {
                return done > 0 ? static_cast<int64_t>(done) : -1;
            }
            windowStart_ = position_;
            windowBytes_ = 0;
            continue;
        }
        size_t offset = static_cast<size_t>(position_ - windowStart_);
        size_t n = std::min(bytes - done, kBufferBytes - offset);
        std::memcpy(buffer_.data() + offset, in + done, n);
        if (dirtyTo_ <= dirtyFrom_) {
            dirtyFrom_ = offset;
            dirtyTo_ = offset + n;
        } else {
            dirtyFrom_ = std::min(dirtyFrom_, offset);
            dirtyTo_ = std::max(dirtyTo_, offset + n);
        }
        windowBytes_ = std::max(windowBytes_, offset + n);
        done += n;
        position_ += static_cast<int64_t>(n);
    }
    return static_cast<int64_t>(done);
}

bool RiffFile::flush() {
    if (file_ == nullptr) {
        return false;
    }
    bool ok = writeBack();
    return std::fflush(file_) == 0 && ok;
}

bool RiffFile::readExact(void* dst, size_t bytes) {
    return read(dst, bytes) == static_cast<int64_t>(bytes);
}

bool RiffFile::writeExact(const void* src, size_t bytes) {
    return write(src, bytes) == static_cast<int64_t>(bytes);
}

namespace {

bool isForm(uint32_t id) {
    return id == kFourccRiff || id == kFourccList;
}

bool matches(const RiffChunk& found, const RiffChunk& wanted, RiffFile::Search search) {
    switch (search) {
    case RiffFile::Search::kNext:
        return true;
    case RiffFile::Search::kChunk:
        return found.id == wanted.id;
    case RiffFile::Search::kRiff:
        return found.id == kFourccRiff && found.formType == wanted.formType;
    case RiffFile::Search::kList:
        return found.id == kFourccList && found.formType == wanted.formType;
    }
    return false;
}

} // namespace

bool RiffFile::readHeader(int64_t at, RiffChunk& found) {
    uint8_t header[12];
    position_ = at;
    if (!readExact(header, 8)) {
        return false;
    }
    found.id = loadLe32(header);
    found.size = loadLe32(header + 4);
    found.formType = 0;
    if (isForm(found.id)) {
        if (!readExact(header + 8, 4)) {
            return false;
        }
        found.formType = loadLe32(header + 8);
    }
    found.dataOffset = static_cast<uint64_t>(at + 8);
    found.created = false;
    return true;
}

bool RiffFile::descend(RiffChunk& chunk, const RiffChunk* parent, Search search) {
    if (file_ == nullptr) {
        return false;
    }
    const int64_t start = position_;
    int64_t limit = std::numeric_limits<int64_t>::max();
    if (parent != nullptr) {
        int64_t begin = static_cast<int64_t>(parent->dataOffset);
        limit = begin + parent->size;
        if (start < begin || start >= limit) {
            return false;
        }
    }
    for (int64_t at = start; at < limit;) {
        RiffChunk found;
        if (!readHeader(at, found)) {
            break;
        }
        if (matches(found, chunk, search)) {
            chunk = found;
            position_ = at + (isForm(found.id) ? 12 : 8);
            return true;
        }
        // Sizes are 32-bit, so this cannot overflow; a size past the end of
        // the file simply makes the next header read fail.
        at += 8 + static_cast<int64_t>(found.size) + (found.size & 1u);
    }
    position_ = start;
    return false;
}

bool RiffFile::ascend(RiffChunk& chunk) {
    if (file_ == nullptr) {
        return false;
    }
    if (chunk.created) {
        int64_t bodyStart = static_cast<int64_t>(chunk.dataOffset);
        if (position_ < bodyStart ||
            position_ - bodyStart > static_cast<int64_t>(std::numeric_limits<uint32_t>::max())) {
            return false;
        }
        uint32_t actual = static_cast<uint32_t>(position_ - bodyStart);
        if ((actual & 1u) != 0) {
            const uint8_t pad = 0;
            if (!writeExact(&pad, 1)) {
                return false;
            }
        }
        if (actual != chunk.size) {
            uint8_t field[4];
            storeLe32(field, actual);
            position_ = bodyStart - 4;
            if (!writeExact(field, 4)) {
                return false;
            }
        }
        chunk.size = actual;
        chunk.created = false;
    }
    position_ = chunkEnd(chunk);
    return true;
}

bool RiffFile::createChunk(RiffChunk& chunk, bool riffForm) {
    if (file_ == nullptr || !writable_) {
        return false;
    }
    if (riffForm) {
        chunk.id = kFourccRiff;
    }
    uint8_t header[12];
    storeLe32(header, chunk.id);
    storeLe32(header + 4, chunk.size);
    storeLe32(header + 8, chunk.formType);
    const int64_t start = position_;
    if (!writeExact(header, riffForm ? 12 : 8)) {
        position_ = start;
        return false;
    }
    chunk.dataOffset = static_cast<uint64_t>(start + 8);
    chunk.created = true;
    return true;
}

} // namespace dsp
