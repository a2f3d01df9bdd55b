#include "wave_writer.h"

#include <cstring>

namespace cli {

namespace {

constexpr uint32_t kUnknown32 = 0xFFFFFFFFu;
constexpr uint32_t kDs64Bytes = 28; // RIFF size, data size, sample count, table length

void put16(std::vector<uint8_t>& b, uint32_t v) {
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
}

void put32(std::vector<uint8_t>& b, uint32_t v) {
    put16(b, v & 0xFFFF);
    put16(b, v >> 16);
}

void put64(std::vector<uint8_t>& b, uint64_t v) {
    put32(b, static_cast<uint32_t>(v));
    put32(b, static_cast<uint32_t>(v >> 32));
}

void putId(std::vector<uint8_t>& b, const char* id) {
    b.insert(b.end(), id, id + 4);
}

void putChunk(std::vector<uint8_t>& b, const ExtraChunk& c) {
    b.insert(b.end(), c.id.begin(), c.id.end());
    put32(b, static_cast<uint32_t>(c.body.size()));
    b.insert(b.end(), c.body.begin(), c.body.end());
    if (c.body.size() & 1) {
        b.push_back(0);
    }
}

const uint8_t kGuidTail[14] = {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};

} // namespace

WaveWriter::WaveWriter(ByteSink& sink, const StreamFormat& format,
                       const std::vector<ExtraChunk>& extras)
    : sink_(sink), format_(format), seekable_(sink.seekable()) {
    const uint64_t start = sink_.position();
    std::vector<uint8_t> h;
    putId(h, "RIFF");
    put32(h, kUnknown32);
    putId(h, "WAVE");
    if (seekable_) {
        junkAt_ = start + h.size();
        putId(h, "JUNK");
        put32(h, kDs64Bytes);
        h.resize(h.size() + kDs64Bytes, 0);
    }
    const bool floating = isFloat(format.type);
    const uint32_t bits = bitsPerSample(format.type);
    const uint32_t align = format.frameBytes();
    putId(h, "fmt ");
    put32(h, format.extensible ? 40 : (floating ? 18 : 16));
    put16(h, format.extensible ? 0xFFFE : (floating ? 3 : 1));
    put16(h, format.channels);
    put32(h, format.rate);
    put32(h, format.rate * align);
    put16(h, align);
    put16(h, bits);
    if (format.extensible) {
        put16(h, 22);
        put16(h, format.validBits != 0 ? format.validBits : bits);
        put32(h, format.channelMask);
        put16(h, floating ? 3 : 1);
        h.insert(h.end(), kGuidTail, kGuidTail + 14);
    } else if (floating) {
        put16(h, 0);
    }
    if (floating) {
        putId(h, "fact");
        put32(h, 4);
        factAt_ = start + h.size();
        put32(h, kUnknown32);
    }
    for (const ExtraChunk& c : extras) {
        putChunk(h, c);
    }
    putId(h, "data");
    dataSizeAt_ = start + h.size();
    put32(h, kUnknown32);
    sink_.write(h.data(), h.size());
}

void WaveWriter::write(const uint8_t* src, uint32_t frames) {
    const size_t bytes = static_cast<size_t>(frames) * format_.frameBytes();
    sink_.write(src, bytes);
    dataBytes_ += bytes;
}

void WaveWriter::finish(const std::vector<ExtraChunk>& trailing) {
    std::vector<uint8_t> tail;
    if (dataBytes_ & 1) {
        tail.push_back(0);
    }
    for (const ExtraChunk& c : trailing) {
        putChunk(tail, c);
    }
    if (!tail.empty()) {
        sink_.write(tail.data(), tail.size());
    }
    if (!seekable_) {
        return;
    }
    const uint64_t end = sink_.position();
    const uint64_t riffBytes = end - (junkAt_ - 12) - 8;
    const uint64_t frames = dataBytes_ / format_.frameBytes();
    const bool rf64 = riffBytes > kUnknown32 - 1 || dataBytes_ > kUnknown32 - 1;
    std::vector<uint8_t> b;
    if (rf64) {
        putId(b, "RF64");
        put32(b, kUnknown32);
        sink_.seek(junkAt_ - 12);
        sink_.write(b.data(), b.size());
        b.clear();
        putId(b, "ds64");
        put32(b, kDs64Bytes);
        put64(b, riffBytes);
        put64(b, dataBytes_);
        put64(b, frames);
        put32(b, 0);
        sink_.seek(junkAt_);
        sink_.write(b.data(), b.size());
    } else {
        put32(b, static_cast<uint32_t>(riffBytes));
        sink_.seek(junkAt_ - 8);
        sink_.write(b.data(), b.size());
        b.clear();
        put32(b, static_cast<uint32_t>(dataBytes_));
        sink_.seek(dataSizeAt_);
        sink_.write(b.data(), b.size());
    }
    if (factAt_ != 0) {
        b.clear();
        put32(b, rf64 ? kUnknown32 : static_cast<uint32_t>(frames));
        sink_.seek(factAt_);
        sink_.write(b.data(), b.size());
    }
    sink_.seek(end);
}

} // namespace cli
