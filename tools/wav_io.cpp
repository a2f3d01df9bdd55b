#include "wav_io.h"

#include "cli_error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

namespace cli {

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatExtensible = 0xFFFE;

uint32_t readLe32(const unsigned char* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// The reader hands out the first 18 bytes of "fmt " only; for an extensible
// format the sub-format sits further in, so look at the chunk directly.
bool extensibleIsPcm(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    unsigned char riff[12];
    if (!in.read(reinterpret_cast<char*>(riff), 12)) {
        return false;
    }
    for (int guard = 0; guard < 1024; ++guard) {
        unsigned char head[8];
        if (!in.read(reinterpret_cast<char*>(head), 8)) {
            return false;
        }
        uint32_t size = readLe32(head + 4);
        if (std::memcmp(head, "fmt ", 4) == 0) {
            if (size < 26) {
                return false;
            }
            unsigned char body[26];
            if (!in.read(reinterpret_cast<char*>(body), 26)) {
                return false;
            }
            // Sub-format GUID at offset 24: its first two bytes are the format tag.
            return body[24] == 1 && body[25] == 0;
        }
        in.seekg(static_cast<std::streamoff>(size) + (size & 1), std::ios::cur);
    }
    return false;
}

std::string systemMessage() {
    return std::strerror(errno);
}

} // namespace

WavInput::WavInput(const std::string& path, uint32_t blockFrames)
    : path_(path), blockFrames_(blockFrames) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
        throw Failure("'" + path + "' is a directory, not a WAVE file");
    }
    std::FILE* probe = std::fopen(path.c_str(), "rb");
    if (probe == nullptr) {
        throw Failure("cannot open '" + path + "': " + systemMessage());
    }
    std::fclose(probe);

    reader_ = initWavefileIn(path.c_str(), blockFrames);
    if (reader_ == nullptr) {
        throw Failure("out of memory opening '" + path + "'");
    }
    // The destructor does not run when the constructor throws: close here.
    try {
        checkFormat();
    } catch (...) {
        termWavefileIn(reader_);
        reader_ = nullptr;
        throw;
    }
    totalFrames_ = getHeaderWavefileIn(reader_)->dataBytes / (2u * format_.channels);
}

void WavInput::checkFormat() {
    // A reader that failed to open reports position 0; an open one stands at
    // the first sample byte, which is never at 0.
    if (seekWavefileIn(reader_, 0, 1) <= 0) {
        throw Failure("'" + path_ + "' is not a RIFF WAVE file (or its chunks are damaged)");
    }
    const WavefileFormat* f = getFormatWavefileIn(reader_);
    bool pcm =
        f->formatTag == kFormatPcm || (f->formatTag == kFormatExtensible && extensibleIsPcm(path_));
    if (!pcm || f->bitsPerSample != 16 || (f->channels != 1 && f->channels != 2) ||
        f->blockAlign != 2 * f->channels || f->samplesPerSecond == 0) {
        throw Failure("'" + path_ + "' is not 16-bit PCM mono or stereo (format " +
                      std::to_string(f->formatTag) + ", " + std::to_string(f->bitsPerSample) +
                      " bits, " + std::to_string(f->channels) + " channels)");
    }
    format_.rate = f->samplesPerSecond;
    format_.channels = f->channels;
}

WavInput::~WavInput() {
    termWavefileIn(reader_);
}

uint32_t WavInput::read(int16_t* dst, uint32_t frames) {
    if (frames > blockFrames_) {
        frames = blockFrames_;
    }
    uint64_t left = totalFrames_ - position_;
    if (frames > left) {
        frames = static_cast<uint32_t>(left);
    }
    if (frames == 0) {
        return 0;
    }
    int32_t bytes = readWavefileIn(reader_, reinterpret_cast<uint8_t*>(dst), frames);
    if (bytes <= 0) {
        return 0;
    }
    uint32_t got = static_cast<uint32_t>(bytes) / (2 * format_.channels);
    position_ += got;
    return got;
}

void WavInput::seekFrame(uint64_t frame) {
    if (frame > totalFrames_) {
        frame = totalFrames_;
    }
    // Back to the first sample byte, then forward in steps the 32-bit seek can take.
    if (timeSeekWavefileIn(reader_, 0.0f, 0) <= 0) {
        throw Failure("cannot seek in '" + path_ + "'");
    }
    uint64_t bytes = frame * 2 * format_.channels;
    while (bytes > 0) {
        int32_t step = bytes > 0x40000000u ? 0x40000000 : static_cast<int32_t>(bytes);
        if (seekWavefileIn(reader_, step, 1) <= 0) {
            throw Failure("cannot seek in '" + path_ + "'");
        }
        bytes -= static_cast<uint64_t>(step);
    }
    position_ = frame;
}

WavefileFormat pcmFormat(const AudioFormat& format) {
    WavefileFormat f{};
    f.formatTag = kFormatPcm;
    f.channels = static_cast<uint16_t>(format.channels);
    f.samplesPerSecond = format.rate;
    f.blockAlign = static_cast<uint16_t>(2 * format.channels);
    f.avgBytesPerSecond = format.rate * f.blockAlign;
    f.bitsPerSample = 16;
    f.extraSize = 0;
    return f;
}

namespace {

// The RIFF size (38 header bytes after the first 8, then the samples) must
// fit in 32 bits.
constexpr uint64_t kHeaderBytes = 46;
constexpr uint64_t kMaxDataBytes = 0xFFFFFFFFu - (kHeaderBytes - 8);
// The sizes of a stream whose length is not known when its header goes out.
constexpr uint32_t kUnknownSize = 0xFFFFFFFFu;

void putLe(unsigned char*& p, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        *p++ = static_cast<unsigned char>(value >> (8 * i));
    }
}

// RIFF, an 18-byte "fmt " chunk and the head of "data", as the library's
// writer lays them out.
void writeHeader(ByteSink& sink, const AudioFormat& format, uint32_t riffBytes,
                 uint32_t dataBytes) {
    const WavefileFormat f = pcmFormat(format);
    unsigned char header[kHeaderBytes];
    unsigned char* p = header;
    std::memcpy(p, "RIFF", 4);
    p += 4;
    putLe(p, riffBytes, 4);
    std::memcpy(p, "WAVEfmt ", 8);
    p += 8;
    putLe(p, 18, 4);
    putLe(p, f.formatTag, 2);
    putLe(p, f.channels, 2);
    putLe(p, f.samplesPerSecond, 4);
    putLe(p, f.avgBytesPerSecond, 4);
    putLe(p, f.blockAlign, 2);
    putLe(p, f.bitsPerSample, 2);
    putLe(p, f.extraSize, 2);
    std::memcpy(p, "data", 4);
    p += 4;
    putLe(p, dataBytes, 4);
    sink.write(header, sizeof header);
}

} // namespace

WavOutput::WavOutput(const std::string& path, const AudioFormat& format,
                     const std::vector<std::string>& inputs)
    : file_(OutputFile::open(path, inputs)), format_(format) {
    if (file_->seekable()) {
        writeHeader(*file_, format_, kHeaderBytes - 8, 0); // sizes fixed by commit()
    } else {
        writeHeader(*file_, format_, kUnknownSize, kUnknownSize);
    }
}

void WavOutput::write(const int16_t* samples, uint32_t frames) {
    if (frames == 0) {
        return;
    }
    const uint64_t frameBytes = uint64_t{2} * format_.channels;
    if ((frames_ + frames) * frameBytes > kMaxDataBytes) {
        throw Failure("output '" + path() + "' would exceed the 4 GiB WAVE limit");
    }
    file_->write(samples, frames * frameBytes);
    frames_ += frames;
}

void WavOutput::commit() {
    if (file_->seekable()) {
        const uint64_t end = file_->position();
        const auto dataBytes = static_cast<uint32_t>(end - kHeaderBytes);
        file_->seek(0);
        writeHeader(*file_, format_, static_cast<uint32_t>(kHeaderBytes - 8) + dataBytes,
                    dataBytes);
        file_->seek(end); // where a caller's standard output goes on
    }
    file_->commit();
}

const std::string& WavOutput::path() const {
    return file_->name();
}

void writeWholeFile(const std::string& path, const AudioFormat& format,
                    const std::vector<int16_t>& samples, const std::vector<std::string>& inputs) {
    WavOutput out(path, format, inputs);
    const uint32_t block = 65536;
    uint64_t frames = samples.size() / format.channels;
    for (uint64_t at = 0; at < frames; at += block) {
        uint32_t n = static_cast<uint32_t>(frames - at < block ? frames - at : block);
        out.write(samples.data() + at * format.channels, n);
    }
    out.commit();
}

} // namespace cli
