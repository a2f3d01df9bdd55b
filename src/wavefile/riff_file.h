// A small buffered file layer that walks RIFF chunks: open for reading or
// creating, seek, descend into and ascend out of chunks, create chunks, read,
// write, flush and close. Standard C file I/O underneath, with a 128 KiB
// buffer of its own; 64-bit file positions on every build.
#pragma once

#include "core/owned_array.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace dsp {

// Four-character code as stored in the file: first character in the low byte.
constexpr uint32_t makeFourcc(char a, char b, char c, char d) {
    return static_cast<uint32_t>(static_cast<uint8_t>(a)) |
           (static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8) |
           (static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16) |
           (static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24);
}

constexpr uint32_t kFourccRiff = makeFourcc('R', 'I', 'F', 'F');
constexpr uint32_t kFourccList = makeFourcc('L', 'I', 'S', 'T');

// What is known about one chunk. For "RIFF" and "LIST" chunks `dataOffset`
// is the offset of the form type (which `size` includes); otherwise it is the
// offset of the body.
struct RiffChunk {
    uint32_t id = 0;
    uint32_t size = 0;
    uint32_t formType = 0;
    uint64_t dataOffset = 0;
    bool created = false; // made by createChunk: ascend writes its true size
};

class RiffFile {
public:
    enum class Access { kRead, kCreate };
    enum class Origin { kBegin, kCurrent, kEnd };
    // What descend looks for: the next chunk of any kind, a chunk with the
    // given id, a "RIFF" or a "LIST" chunk with the given form type.
    enum class Search { kNext, kChunk, kRiff, kList };

    static constexpr size_t kBufferBytes = size_t{128} * 1024;

    RiffFile() = default;
    ~RiffFile();
    RiffFile(const RiffFile&) = delete;
    RiffFile& operator=(const RiffFile&) = delete;

    // kRead opens an existing file read-only; kCreate creates or truncates it
    // for reading and writing. False when the file or the buffer cannot be had.
    bool open(const char* path, Access access);
    bool isOpen() const { return file_ != nullptr; }

    // Moves the position (no I/O happens until the next read or write).
    // Returns the new position, or -1 (position unchanged) when it would be
    // negative or the file is not open.
    int64_t seek(int64_t offset, Origin origin);
    int64_t tell() const { return file_ != nullptr ? position_ : -1; }
    // Size of the file including bytes still in the buffer; -1 on error.
    int64_t size();

    // Both return the bytes transferred, or -1 when an error stopped the
    // transfer before any byte moved. A read at or past the end returns 0.
    int64_t read(void* dst, size_t bytes);
    int64_t write(const void* src, size_t bytes);

    bool flush();
    // Flushes and closes; false when buffered bytes could not be written.
    bool close();

    // Reads chunk headers from the current position, skipping chunks that do
    // not match, until one matches: then the position is at its data (after
    // the form type for "RIFF" and "LIST"). With a parent, the search only
    // looks at headers that start inside the parent. On failure the position
    // is restored.
    bool descend(RiffChunk& chunk, const RiffChunk* parent, Search search);
    // Leaves a chunk: a created chunk gets its true size written into its
    // header and a zero pad byte when that size is odd; then the position
    // moves to the end of the chunk (after the pad).
    bool ascend(RiffChunk& chunk);
    // Writes a chunk header at the current position with chunk.id and
    // chunk.size ("RIFF" with chunk.formType when riffForm is set) and leaves
    // the position at its data.
    bool createChunk(RiffChunk& chunk, bool riffForm);

private:
    bool seekFile(int64_t position);
    // Reads the chunk header at `at` into `found`; false when the file ends
    // first.
    bool readHeader(int64_t at, RiffChunk& found);
    bool writeBack();
    bool readExact(void* dst, size_t bytes);
    bool writeExact(const void* src, size_t bytes);

    std::FILE* file_ = nullptr;
    OwnedArray<uint8_t> buffer_;
    bool writable_ = false;
    int64_t position_ = 0;
    // The buffer mirrors the file bytes [windowStart_, windowStart_ + windowBytes_);
    // [dirtyFrom_, dirtyTo_) of it still has to be written back.
    int64_t windowStart_ = 0;
    size_t windowBytes_ = 0;
    size_t dirtyFrom_ = 0;
    size_t dirtyTo_ = 0;
};

} // namespace dsp
