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

WavOutput::WavOutput(const std::string& path, const AudioFormat& format)
    : path_(path), format_(format) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
        throw Failure("cannot write '" + path + "': it is a directory");
    }
    fs::path target(path);
    fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
    if (!fs::is_directory(dir, ec)) {
        throw Failure("cannot write '" + path + "': no directory '" + dir.string() + "'");
    }
    // A hidden temporary beside the destination, so the final rename stays
    // on one file system.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        fs::path candidate =
            dir / ("." + target.filename().string() + ".part" + std::to_string(attempt));
        if (!fs::exists(candidate, ec)) {
            tempPath_ = candidate.string();
            break;
        }
    }
    if (tempPath_.empty()) {
        throw Failure("cannot find a temporary name beside '" + path + "'");
    }
    WavefileFormat f = pcmFormat(format);
    writer_ = initWavefileOut(tempPath_.c_str(), &f);
    if (writer_ == nullptr || flushWavefileOut(writer_) == 0) {
        if (writer_ != nullptr) {
            termWavefileOut(writer_);
            writer_ = nullptr;
        }
        fs::remove(tempPath_, ec);
        throw Failure("cannot create '" + path + "' (is the directory writable?)");
    }
}

WavOutput::~WavOutput() {
    if (!committed_) {
        if (writer_ != nullptr) {
            termWavefileOut(writer_);
        }
        std::error_code ec;
        fs::remove(tempPath_, ec);
    }
}

void WavOutput::write(const int16_t* samples, uint32_t frames) {
    if (frames == 0) {
        return;
    }
    int32_t bytes = static_cast<int32_t>(frames * 2 * format_.channels);
    if (writeWavefileOut(writer_, samples, bytes) != bytes) {
        throw Failure("cannot write '" + path_ + "' (disk full?)");
    }
    frames_ += frames;
}

void WavOutput::commit() {
    uint64_t dataBytes = frames_ * 2 * format_.channels;
    if (dataBytes > 0xFFFFFFF0u) {
        throw Failure("output '" + path_ + "' would exceed the 4 GiB WAVE limit");
    }
    bool flushed = flushWavefileOut(writer_) == 1;
    uint32_t written = termWavefileOut(writer_);
    writer_ = nullptr;
    if (!flushed || written != dataBytes) {
        throw Failure("cannot finish '" + path_ + "' (disk full?)");
    }
    std::error_code ec;
    fs::rename(tempPath_, path_, ec);
    if (ec) {
        throw Failure("cannot rename the finished output to '" + path_ + "': " + ec.message());
    }
    committed_ = true;
}

void checkDistinct(const std::string& input, const std::string& output) {
    std::error_code ec;
    if (fs::exists(output, ec) && fs::equivalent(input, output, ec)) {
        throw UsageError("the output '" + output + "' is the input file; choose another name");
    }
}

void writeWholeFile(const std::string& path, const AudioFormat& format,
                    const std::vector<int16_t>& samples) {
    WavOutput out(path, format);
    const uint32_t block = 65536;
    uint64_t frames = samples.size() / format.channels;
    for (uint64_t at = 0; at < frames; at += block) {
        uint32_t n = static_cast<uint32_t>(frames - at < block ? frames - at : block);
        out.write(samples.data() + at * format.channels, n);
    }
    out.commit();
}

} // namespace cli
