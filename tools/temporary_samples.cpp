// 64-bit file offsets on 32-bit glibc builds.
#define _FILE_OFFSET_BITS 64

#include "temporary_samples.h"

#include "cli_error.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

#include <fcntl.h>

#if defined(_WIN32)
#include <io.h>
#include <share.h>
#include <sys/stat.h>
#else
#include <unistd.h>
#endif

namespace cli {

namespace {

// Samples kept in memory before they go to a file (64 MiB); the environment
// variable DSP_NO_CLIP_MEMORY sets another count (the tests use the file
// with small inputs).
size_t memorySamples() {
    const char* setting = std::getenv("DSP_NO_CLIP_MEMORY");
    return setting != nullptr ? static_cast<size_t>(std::strtoull(setting, nullptr, 10))
                              : size_t{16} << 20;
}

// Opens a new temporary file in `dir` that disappears when closed; null
// with errno set on failure.
std::FILE* openTemporary(const std::string& dir) {
    std::random_device random;
    for (int attempt = 0; attempt < 16; ++attempt) {
        const std::string path =
            (std::filesystem::path(dir) / (".dsp-samples-" + std::to_string(random()))).string();
#if defined(_WIN32)
        int fd = -1;
        if (_sopen_s(&fd, path.c_str(),
                     _O_CREAT | _O_EXCL | _O_RDWR | _O_BINARY | _O_TEMPORARY | _O_SHORT_LIVED,
                     _SH_DENYRW, _S_IREAD | _S_IWRITE) != 0) {
#else
        const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
        if (fd < 0) {
#endif
            if (errno == EEXIST) {
                continue;
            }
            return nullptr;
        }
#if defined(_WIN32)
        std::FILE* file = _fdopen(fd, "w+b");
        if (file == nullptr) {
            _close(fd);
        }
#else
        ::unlink(path.c_str());
        std::FILE* file = ::fdopen(fd, "w+b");
        if (file == nullptr) {
            ::close(fd);
        }
#endif
        return file;
    }
    errno = EEXIST;
    return nullptr;
}

} // namespace

TemporarySamples::TemporarySamples(const std::string& nearPath) : memoryLimit_(memorySamples()) {
    if (nearPath != "-") {
        const std::filesystem::path parent = std::filesystem::path(nearPath).parent_path();
        places_.push_back(parent.empty() ? "." : parent.string());
    }
#if defined(_WIN32)
    std::error_code ec;
    const std::filesystem::path temp = std::filesystem::temp_directory_path(ec);
    if (!ec) {
        places_.push_back(temp.string());
    }
#else
    if (const char* tmpdir = std::getenv("TMPDIR"); tmpdir != nullptr && *tmpdir != '\0') {
        places_.push_back(tmpdir);
    }
    places_.push_back("/tmp");
#endif
}

TemporarySamples::~TemporarySamples() {
    if (file_ != nullptr) {
        std::fclose(file_);
    }
}

void TemporarySamples::fail(const std::string& what) const {
    throw Failure("the temporary file for --no-clip in '" + where_ + "': " + what);
}

void TemporarySamples::spill() {
    int error = 0;
    for (const std::string& dir : places_) {
        file_ = openTemporary(dir);
        if (file_ != nullptr) {
            where_ = dir;
            break;
        }
        error = errno;
        where_ = dir;
    }
    if (file_ == nullptr) {
        fail(std::strerror(error));
    }
    // Nothing may be held yet (the first block alone passed the limit).
    if (!memory_.empty() &&
        std::fwrite(memory_.data(), sizeof(float), memory_.size(), file_) != memory_.size()) {
        fail(std::strerror(errno));
    }
    memory_.clear();
    memory_.shrink_to_fit();
}

void TemporarySamples::write(const float* src, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        peak_ = std::fmax(peak_, std::fabs(src[i]));
    }
    if (file_ == nullptr && memory_.size() + count > memoryLimit_) {
        spill();
    }
    if (file_ == nullptr) {
        memory_.insert(memory_.end(), src, src + count);
    } else if (std::fwrite(src, sizeof(float), count, file_) != count) {
        fail(std::strerror(errno));
    }
}

void TemporarySamples::replay(size_t piece,
                              const std::function<void(const float* src, size_t count)>& take) {
    if (file_ == nullptr) {
        for (size_t at = 0; at < memory_.size(); at += piece) {
            take(memory_.data() + at, std::min(piece, memory_.size() - at));
        }
        return;
    }
    if (std::fflush(file_) != 0 || std::fseek(file_, 0, SEEK_SET) != 0) {
        fail(std::strerror(errno));
    }
    std::vector<float> block(piece);
    for (size_t n; (n = std::fread(block.data(), sizeof(float), piece, file_)) > 0;) {
        take(block.data(), n);
    }
    if (std::ferror(file_)) {
        fail("cannot read it back");
    }
}

} // namespace cli
