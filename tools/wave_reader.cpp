#include "wave_reader.h"

#include "cli_error.h"

#include <cstdio>
#include <cstring>

namespace cli {

namespace {

uint16_t le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t le32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

uint64_t le64(const uint8_t* p) {
    return le32(p) | (static_cast<uint64_t>(le32(p + 4)) << 32);
}

// The GUID of WAVE_FORMAT_EXTENSIBLE sub-formats after its first two bytes
// (which hold the plain format tag).
const uint8_t kGuidTail[14] = {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};

std::string hex(uint32_t v, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, v);
    return text;
}

// A chunk id as text, with bytes that are not printable as \xNN.
std::string printableId(const uint8_t* id) {
    std::string s;
    for (int i = 0; i < 4; ++i) {
        if (id[i] >= 0x20 && id[i] < 0x7F) {
            s += static_cast<char>(id[i]);
        } else {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02X", id[i]);
            s += esc;
        }
    }
    return s;
}

int bitCount(uint32_t v) {
    int n = 0;
    for (; v != 0; v &= v - 1) {
        ++n;
    }
    return n;
}

bool isId(const uint8_t* p, const char* id) {
    return std::memcmp(p, id, 4) == 0;
}

// Chunks that describe the file's own layout or padding: skipped wherever
// they stand, never copied (a copied ds64 would be skipped on reading back).
bool isLayoutChunk(const uint8_t* id) {
    return isId(id, "fact") || isId(id, "JUNK") || isId(id, "junk") || isId(id, "ds64") ||
           isId(id, "PAD ");
}

constexpr uint32_t kUnknown32 = 0xFFFFFFFFu;
constexpr uint32_t kStreamPlaceholder = 0x7FFF0000u;

} // namespace

void WaveReader::fail(const std::string& problem) const {
    throw Failure("'" + source_.name() + "': " + problem);
}

void WaveReader::readExact(void* dst, size_t bytes, const char* where) {
    if (source_.read(dst, bytes) != bytes) {
        fail(std::string("the file ends inside ") + where);
    }
}

void WaveReader::skip(uint64_t bytes) {
    if (source_.seekable()) {
        source_.seek(source_.position() + bytes);
        return;
    }
    uint8_t scratch[4096];
    while (bytes > 0) {
        size_t step = bytes < sizeof scratch ? static_cast<size_t>(bytes) : sizeof scratch;
        size_t got = source_.read(scratch, step);
        bytes -= got;
        if (got < step) {
            return;
        }
    }
}

WaveReader::WaveReader(ByteSource& source) : source_(source) {
    uint8_t head[12];
    if (source_.read(head, 12) != 12 || !(isId(head, "RIFF") || isId(head, "RF64")) ||
        !isId(head + 8, "WAVE")) {
        fail("not a RIFF WAVE file");
    }
    const bool rf64 = isId(head, "RF64");
    const uint32_t riffSize = le32(head + 4);
    uint64_t ds64Data = 0;
    if (rf64) {
        uint8_t chunk[8];
        readExact(chunk, 8, "the ds64 chunk");
        if (!isId(chunk, "ds64")) {
            fail("RF64 file without a ds64 chunk (the first chunk is '" + printableId(chunk) +
                 "')");
        }
        const uint32_t size = le32(chunk + 4);
        if (size < 28) {
            fail("ds64 chunk: size " + std::to_string(size) + " is too small (at least 28)");
        }
        uint8_t body[28];
        readExact(body, 28, "the ds64 chunk");
        ds64Data = le64(body + 8);
        skip(size - 28 + (size & 1));
    }
    for (;;) {
        uint8_t chunk[8];
        const size_t got = source_.read(chunk, 8);
        if (got < 8) {
            fail(haveFormat_ ? "no data chunk" : "no fmt chunk");
        }
        const uint32_t size = le32(chunk + 4);
        if (isId(chunk, "fmt ")) {
            if (haveFormat_) {
                fail("a second fmt chunk");
            }
            if (size < 16) {
                fail("fmt chunk: size " + std::to_string(size) + " is too small (at least 16)");
            }
            if (size > 65536) {
                fail("fmt chunk: size " + std::to_string(size) + " is implausible");
            }
            std::vector<uint8_t> body(size);
            readExact(body.data(), size, "the fmt chunk");
            skip(size & 1);
            parseFormat(body);
        } else if (isId(chunk, "data")) {
            if (!haveFormat_) {
                fail("the data chunk comes before the fmt chunk");
            }
            uint64_t bytes = size;
            if (rf64 && size == kUnknown32) {
                bytes = ds64Data;
            }
            // Unknown: 0xFFFFFFFF; 0 with a RIFF size of 0 or 0xFFFFFFFF;
            // and in a stream the placeholders near 2 GiB that writers put
            // there when they cannot come back to fix the size.
            lengthKnown_ = !(bytes == UINT64_MAX || (!rf64 && size == kUnknown32) ||
                             (size == 0 && (riffSize == 0 || riffSize == kUnknown32)) ||
                             (!rf64 && !source_.seekable() && size >= kStreamPlaceholder));
            dataBytes_ = lengthKnown_ ? bytes : 0;
            totalFrames_ = lengthKnown_ ? bytes / format_.frameBytes() : 0;
            dataStart_ = source_.position();
            break;
        } else if (isLayoutChunk(chunk)) {
            skip(uint64_t{size} + (size & 1));
        } else {
            takeChunk(reinterpret_cast<const char*>(chunk), size);
        }
    }
    if (lengthKnown_ && source_.seekable()) {
        collectTrailingChunks();
        source_.seek(dataStart_);
    }
}

void WaveReader::takeChunk(const char* id, uint64_t size) {
    const uint64_t padded = size + (size & 1);
    if (keptBytes_ + size > kExtraChunkLimit) {
        warnings_.push_back("'" + source_.name() + "': dropped the '" +
                            printableId(reinterpret_cast<const uint8_t*>(id)) + "' chunk (" +
                            std::to_string(size) + " bytes): more than " +
                            std::to_string(kExtraChunkLimit >> 20) +
                            " MiB of extra chunks are not copied");
        skip(padded);
        return;
    }
    ExtraChunk c;
    std::memcpy(c.id.data(), id, 4);
    c.body.resize(static_cast<size_t>(size));
    readExact(c.body.data(), c.body.size(), "an extra chunk");
    skip(padded - size);
    keptBytes_ += size;
    extras_.push_back(std::move(c));
}

void WaveReader::collectTrailingChunks() {
    trailingDone_ = true;
    if (source_.seekable()) {
        source_.seek(dataStart_ + dataBytes_ + (dataBytes_ & 1));
    }
    try {
        for (;;) {
            uint8_t chunk[8];
            if (source_.read(chunk, 8) < 8) {
                return;
            }
            const uint32_t size = le32(chunk + 4);
            if (isId(chunk, "data") || isId(chunk, "fmt ")) {
                return; // a second stream: not ours to copy
            }
            if (isLayoutChunk(chunk)) {
                skip(uint64_t{size} + (size & 1));
            } else {
                takeChunk(reinterpret_cast<const char*>(chunk), size);
            }
        }
    } catch (const Failure&) {
        // A damaged tail (a chunk cut short) is not copied; takeChunk keeps
        // a chunk only once its body is read whole.
    }
}

void WaveReader::parseFormat(const std::vector<uint8_t>& b) {
    const uint8_t* p = b.data();
    uint16_t tag = le16(p);
    const uint16_t channels = le16(p + 2);
    const uint32_t rate = le32(p + 4);
    const uint16_t blockAlign = le16(p + 12);
    const uint16_t bits = le16(p + 14);
    if (tag == 0xFFFE) {
        const uint16_t extra = b.size() >= 18 ? le16(p + 16) : 0;
        if (b.size() < 40 || extra < 22) {
            fail("fmt chunk: an extensible format needs 22 extra bytes, the chunk has " +
                 std::to_string(b.size() >= 18 ? b.size() - 18 : 0) + " (extra size " +
                 std::to_string(extra) + ")");
        }
        const uint16_t sub = le16(p + 24);
        if ((sub != 1 && sub != 3) || std::memcmp(p + 26, kGuidTail, 14) != 0) {
            char guid[40];
            std::snprintf(guid, sizeof guid, "%08X-%04X-%04X", le32(p + 24), le16(p + 28),
                          le16(p + 30));
            fail(std::string("fmt chunk: sub-format {") + guid + "-...} is not PCM or IEEE float");
        }
        tag = sub;
        format_.extensible = true;
        format_.validBits = le16(p + 18);
        format_.channelMask = le32(p + 20);
    } else if (tag != 1 && tag != 3) {
        fail("fmt chunk: format tag " + std::to_string(tag) + " (" + hex(tag, 4) +
             ") is not supported (1 PCM, 3 IEEE float or 0xFFFE extensible)");
    }
    if (channels == 0) {
        fail("fmt chunk: channels 0");
    }
    if (channels > 2) {
        throw Failure("'" + source_.name() + "' has " + std::to_string(channels) +
                      " channels; the processors take mono or stereo (mix it down or split it "
                      "first)");
    }
    if (rate == 0) {
        fail("fmt chunk: sample rate 0");
    }
    if (tag == 1) {
        switch (bits) {
        case 8:
            format_.type = SampleType::kUint8;
            break;
        case 16:
            format_.type = SampleType::kInt16;
            break;
        case 24:
            format_.type = SampleType::kInt24;
            break;
        case 32:
            format_.type = SampleType::kInt32;
            break;
        default:
            fail("fmt chunk: bitsPerSample " + std::to_string(bits) +
                 " is not supported (8, 16, 24 or 32 for PCM; 32 or 64 for float)");
        }
    } else if (bits == 32 || bits == 64) {
        format_.type = bits == 32 ? SampleType::kFloat32 : SampleType::kFloat64;
    } else {
        fail("fmt chunk: bitsPerSample " + std::to_string(bits) +
             " is not supported for IEEE float (32 or 64)");
    }
    format_.channels = channels;
    format_.rate = rate;
    if (blockAlign != format_.frameBytes()) {
        fail("fmt chunk: blockAlign " + std::to_string(blockAlign) + " does not match " +
             std::to_string(channels) + " channel" + (channels == 1 ? "" : "s") + " of " +
             std::to_string(bits) + " bits (" + std::to_string(format_.frameBytes()) + ")");
    }
    if (format_.extensible) {
        if (format_.validBits > bits) {
            fail("fmt chunk: validBitsPerSample " + std::to_string(format_.validBits) +
                 " exceeds bitsPerSample " + std::to_string(bits));
        }
        if (bitCount(format_.channelMask) > channels) {
            fail("fmt chunk: channel mask " + hex(format_.channelMask, 1) + " names " +
                 std::to_string(bitCount(format_.channelMask)) + " speakers for " +
                 std::to_string(channels) + " channel" + (channels == 1 ? "" : "s"));
        }
    }
    haveFormat_ = true;
}

uint32_t WaveReader::read(uint8_t* dst, uint32_t frames) {
    const uint32_t frameBytes = format_.frameBytes();
    uint64_t want = frames;
    if (lengthKnown_ && totalFrames_ - framesRead_ < want) {
        want = totalFrames_ - framesRead_;
    }
    size_t got = want == 0 ? 0 : source_.read(dst, static_cast<size_t>(want) * frameBytes);
    const uint32_t whole = static_cast<uint32_t>(got / frameBytes);
    framesRead_ += whole;
    if (whole < frames && !trailingDone_ && !source_.seekable()) {
        if (lengthKnown_ && whole == want) {
            // The data chunk is done: skip its remainder and pad, then keep
            // the chunks that follow it in the stream.
            skip(dataBytes_ - framesRead_ * frameBytes + (dataBytes_ & 1));
            collectTrailingChunks();
        }
        trailingDone_ = true;
    }
    return whole;
}

void WaveReader::seekFrame(uint64_t frame) {
    if (lengthKnown_ && frame > totalFrames_) {
        frame = totalFrames_;
    }
    if (source_.seekable()) {
        source_.seek(dataStart_ + frame * format_.frameBytes());
        framesRead_ = frame;
        return;
    }
    if (frame < framesRead_) {
        fail("cannot go back in a stream (to frame " + std::to_string(frame) + ")");
    }
    skip((frame - framesRead_) * format_.frameBytes());
    framesRead_ = frame;
}

} // namespace cli
