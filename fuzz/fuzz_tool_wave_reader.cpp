// The tool's WAVE reader over arbitrary bytes: every encoding, extensible and
// RF64 headers, streams of unknown length, extra chunks. The first byte
// chooses a seekable file or a pipe and the block size; the rest is the
// file. What is read is decoded to floats and written back through the
// tool's WAVE writer, whose output must read again to the same samples.
#include "cli_error.h"
#include "sample_format.h"
#include "wave_reader.h"
#include "wave_writer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

class Source : public cli::ByteSource {
public:
    Source(const uint8_t* data, size_t size, bool seekable)
        : data_(data), size_(size), seekable_(seekable) {}
    size_t read(void* out, size_t bytes) override {
        size_t n =
            at_ < size_ ? (size_ - at_ < bytes ? static_cast<size_t>(size_ - at_) : bytes) : 0;
        if (n > 0) {
            std::memcpy(out, data_ + at_, n);
        }
        at_ += n;
        return n;
    }
    bool seekable() const override { return seekable_; }
    void seek(uint64_t offset) override {
        if (!seekable_) {
            std::abort(); // the reader must not seek a stream
        }
        at_ = offset;
    }
    uint64_t position() const override { return at_; }
    const std::string& name() const override { return name_; }

private:
    const uint8_t* data_;
    size_t size_;
    bool seekable_;
    uint64_t at_ = 0;
    std::string name_ = "fuzz";
};

class Sink : public cli::ByteSink {
public:
    void write(const void* data, size_t bytes) override {
        const uint8_t* p = static_cast<const uint8_t*>(data);
        if (at_ + bytes > bytes_.size()) {
            bytes_.resize(static_cast<size_t>(at_ + bytes));
        }
        std::memcpy(bytes_.data() + at_, p, bytes);
        at_ += bytes;
    }
    bool seekable() const override { return true; }
    void seek(uint64_t offset) override { at_ = offset; }
    uint64_t position() const override { return at_; }
    const std::string& name() const override { return name_; }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
    uint64_t at_ = 0;
    std::string name_ = "out";
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const bool seekable = (data[0] & 1) != 0;
    const uint32_t block = 1u + (data[0] >> 1) * 37u;
    Source source(data + 1, size - 1, seekable);
    try {
        cli::WaveReader reader(source);
        const cli::StreamFormat& f = reader.format();
        if (f.channels < 1 || f.channels > 2 || f.rate == 0 || f.frameBytes() == 0) {
            std::abort(); // the reader let a format through that it must refuse
        }
        std::vector<uint8_t> raw(static_cast<size_t>(block) * f.frameBytes());
        std::vector<float> floats(static_cast<size_t>(block) * f.channels);
        std::vector<uint8_t> all;
        Sink sink;
        const size_t extrasAtOpen = reader.extraChunks().size();
        cli::WaveWriter writer(sink, f, reader.extraChunks());
        uint64_t frames = 0;
        for (uint32_t n; (n = reader.read(raw.data(), block)) > 0;) {
            if (n > block || (reader.lengthKnown() && frames + n > reader.totalFrames())) {
                std::abort();
            }
            cli::decodeSamples(f.type, raw.data(), floats.data(), size_t{n} * f.channels);
            writer.write(raw.data(), n);
            all.insert(all.end(), raw.begin(), raw.begin() + size_t{n} * f.frameBytes());
            frames += n;
        }
        // Chunks that followed the samples of a stream go after the data.
        writer.finish(std::vector<cli::ExtraChunk>(reader.extraChunks().begin() + extrasAtOpen,
                                                   reader.extraChunks().end()));
        Source again(sink.bytes().data(), sink.bytes().size(), true);
        cli::WaveReader back(again);
        std::vector<uint8_t> copy(all.size() + f.frameBytes());
        size_t got = 0;
        for (uint32_t n; (n = back.read(copy.data() + got, block)) > 0;) {
            got += size_t{n} * f.frameBytes();
        }
        if (got != all.size() || (got > 0 && std::memcmp(copy.data(), all.data(), got) != 0) ||
            back.extraChunks().size() != reader.extraChunks().size()) {
            std::abort(); // the writer's file does not read back
        }
    } catch (const cli::Failure&) {
        // A refusal with its one line: what malformed input must get.
    }
    return 0;
}
