// ByteSource over a file descriptor: a named file, or standard input for
// "-". The first bytes are read ahead at open so that the format can be
// told by content (head()) before the reader starts at byte 0.
#pragma once

#include "byte_stream.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

class FileSource : public ByteSource {
public:
    // Opens the file (or standard input for "-"); throws Failure ("cannot
    // open 'x': ...", "'x' is a directory ...").
    explicit FileSource(const std::string& path);
    ~FileSource() override;
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    size_t read(void* data, size_t bytes) override;
    bool seekable() const override { return seekable_; }
    void seek(uint64_t offset) override;
    uint64_t position() const override { return position_; }
    const std::string& name() const override { return name_; }

    // Up to the first 12 bytes of the file (fewer for a shorter one).
    const std::vector<uint8_t>& head() const { return head_; }
    // The file's size; only when seekable.
    uint64_t size() const { return size_; }

private:
    size_t readFd(uint8_t* data, size_t bytes);

    std::string name_;
    int fd_ = -1;
    bool ownsFd_ = false;
    bool seekable_ = false;
    uint64_t size_ = 0;
    uint64_t position_ = 0;
    std::vector<uint8_t> head_;
    size_t headUsed_ = 0; // bytes of head_ already handed out
};

} // namespace cli
