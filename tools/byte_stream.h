// Where the tool's audio files come from and go to, as plain byte streams:
// the format code reads and writes through these, so a regular file, a pipe,
// standard input or output and a test's memory buffer are all alike. Every
// error is thrown as Failure with one line naming the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace cli {

class ByteSource {
public:
    virtual ~ByteSource() = default;
    // Reads up to `bytes` bytes; returns fewer only at the end of the stream.
    virtual size_t read(void* data, size_t bytes) = 0;
    // Whether seek works (a regular file; not a pipe or a terminal).
    virtual bool seekable() const = 0;
    // Moves to an absolute byte offset; only when seekable.
    virtual void seek(uint64_t offset) = 0;
    // Bytes read or sought to so far.
    virtual uint64_t position() const = 0;
    // The name used in messages ("-" reads as "standard input").
    virtual const std::string& name() const = 0;
};

class ByteSink {
public:
    virtual ~ByteSink() = default;
    // Writes every byte or throws (a full disk, a closed pipe).
    virtual void write(const void* data, size_t bytes) = 0;
    // Whether seek works: the writer then fixes its sizes at the end.
    virtual bool seekable() const = 0;
    // Moves to an absolute byte offset; only when seekable.
    virtual void seek(uint64_t offset) = 0;
    virtual uint64_t position() const = 0;
    virtual const std::string& name() const = 0;
};

} // namespace cli
