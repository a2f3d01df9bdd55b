#include "file_source.h"

#include "cli_error.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#if defined(_WIN32)
#include <io.h>
#define DSP_OPEN_READ(path) ::_open(path, _O_RDONLY | _O_BINARY)
#define DSP_READ(fd, data, n) ::_read(fd, data, static_cast<unsigned>(n))
#define DSP_CLOSE ::_close
#define DSP_SEEK(fd, at) ::_lseeki64(fd, static_cast<__int64>(at), SEEK_SET)
using StatBuffer = struct _stati64;
#define DSP_FSTAT ::_fstati64
#else
#include <unistd.h>
#define DSP_OPEN_READ(path) ::open(path, O_RDONLY)
#define DSP_READ(fd, data, n) ::read(fd, data, n)
#define DSP_CLOSE ::close
#define DSP_SEEK(fd, at) ::lseek(fd, static_cast<off_t>(at), SEEK_SET)
using StatBuffer = struct stat;
#define DSP_FSTAT ::fstat
#endif

namespace cli {

FileSource::FileSource(const std::string& path) : name_(path == "-" ? "standard input" : path) {
    if (path == "-") {
        fd_ = 0;
#if defined(_WIN32)
        _setmode(0, _O_BINARY);
#endif
    } else {
        fd_ = DSP_OPEN_READ(path.c_str());
        if (fd_ < 0) {
            throw Failure("cannot open '" + path + "': " + std::strerror(errno));
        }
        ownsFd_ = true;
    }
    StatBuffer st{};
    if (DSP_FSTAT(fd_, &st) == 0) {
        if ((st.st_mode & S_IFMT) == S_IFDIR) {
            DSP_CLOSE(fd_);
            throw Failure("'" + path + "' is a directory, not an audio file");
        }
        seekable_ = (st.st_mode & S_IFMT) == S_IFREG;
        size_ = seekable_ ? static_cast<uint64_t>(st.st_size) : 0;
    }
    head_.resize(12);
    head_.resize(readFd(head_.data(), head_.size()));
}

FileSource::~FileSource() {
    if (ownsFd_) {
        DSP_CLOSE(fd_);
    }
}

size_t FileSource::readFd(uint8_t* data, size_t bytes) {
    size_t done = 0;
    while (done < bytes) {
        size_t step = bytes - done < (1u << 30) ? bytes - done : (1u << 30);
        auto n = DSP_READ(fd_, data + done, step);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw Failure("cannot read '" + name_ + "': " + std::strerror(errno));
        }
        if (n == 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

size_t FileSource::read(void* data, size_t bytes) {
    uint8_t* out = static_cast<uint8_t*>(data);
    size_t fromHead = 0;
    if (headUsed_ < head_.size()) {
        fromHead = head_.size() - headUsed_ < bytes ? head_.size() - headUsed_ : bytes;
        std::memcpy(out, head_.data() + headUsed_, fromHead);
        headUsed_ += fromHead;
    }
    size_t n = fromHead + (bytes > fromHead ? readFd(out + fromHead, bytes - fromHead) : 0);
    position_ += n;
    return n;
}

void FileSource::seek(uint64_t offset) {
    if (!seekable_ || DSP_SEEK(fd_, offset) < 0) {
        throw Failure("cannot seek in '" + name_ + "'");
    }
    headUsed_ = head_.size();
    position_ = offset;
}

} // namespace cli
