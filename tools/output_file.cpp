// 64-bit file offsets for lseek and fstat on 32-bit glibc builds.
#define _FILE_OFFSET_BITS 64

#include "output_file.h"

#include "cli_error.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

#if defined(_WIN32)
#include <io.h>
#include <process.h>
#include <share.h>
#include <windows.h>
#else
#include <signal.h>
#include <unistd.h>
#endif

namespace fs = std::filesystem;

namespace cli {

namespace {

// The named temporaries the signal handler removes. A slot's path is
// written before the slot is armed and left alone while it is.
constexpr int kSlots = 4;
constexpr size_t kSlotPathBytes = 4096;
struct Slot {
    volatile std::sig_atomic_t armed;
    char path[kSlotPathBytes];
};
Slot slots[kSlots];

int arm(const std::string& path) {
    if (path.size() >= kSlotPathBytes) {
        throw Failure("cannot write '" + path + "': the temporary file's path is too long");
    }
    for (int i = 0; i < kSlots; ++i) {
        if (slots[i].armed == 0) {
            std::memcpy(slots[i].path, path.c_str(), path.size() + 1);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            slots[i].armed = 1;
            return i;
        }
    }
    throw Failure("cannot write '" + path + "': too many output files open at once");
}

void disarm(int& slot) {
    if (slot >= 0) {
        slots[slot].armed = 0;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        slot = -1;
    }
}

// Holds SIGINT, SIGTERM and SIGHUP back for its lifetime, so that a file is
// never created or renamed without the handler knowing about it.
class HeldSignals {
public:
#if defined(_WIN32)
    HeldSignals() = default;
    ~HeldSignals() {} // signals are not held back there
#else
    HeldSignals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGHUP);
        sigprocmask(SIG_BLOCK, &set, &previous_);
    }
    ~HeldSignals() {
        sigprocmask(SIG_SETMASK, &previous_, nullptr);
    }

private:
    sigset_t previous_;
#endif
};

std::string message(int error) {
    return std::strerror(error);
}

std::string quoted(const std::string& path, const char* standardName) {
    return path == "-" ? std::string(standardName) : "'" + path + "'";
}

uint64_t seed() {
#if defined(_WIN32)
    uint64_t pid = static_cast<uint64_t>(_getpid());
#else
    uint64_t pid = static_cast<uint64_t>(getpid());
#endif
    uint64_t s =
        static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
        (pid << 32);
    try {
        std::random_device device;
        s ^= (static_cast<uint64_t>(device()) << 32) | device();
    } catch (...) { // no entropy source: the clock and the process id
    }
    return s;
}

// A hidden name beside `target` that nobody can guess: ".NAME.part" and ten
// random letters or digits (splitmix64 over a random seed).
std::string temporaryName(const std::string& target) {
    static uint64_t state = seed();
    state += 0x9E3779B97F4A7C15ULL;
    uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    z ^= z >> 31;
    std::string suffix;
    for (int i = 0; i < 10; ++i) {
        suffix += "0123456789abcdefghijklmnopqrstuvwxyz"[z % 36];
        z /= 36;
    }
    fs::path t(target);
    // Room for the suffix within the usual 255-byte limit of a name.
    std::string base = t.filename().string().substr(0, 200);
    return (t.parent_path() / ("." + base + ".part" + suffix)).string();
}

#if defined(_WIN32)

void refuseInputs(const std::string& output, const std::vector<std::string>& inputs) {
    std::error_code ec;
    if (output == "-" || !fs::exists(output, ec)) {
        return;
    }
    for (const std::string& input : inputs) {
        if (input != "-" && fs::equivalent(input, output, ec)) {
            throw UsageError("the output " + quoted(output, "standard output") +
                             " is the input file " + quoted(input, "standard input") +
                             "; choose another name");
        }
    }
}

bool isDevice(const std::string& path) {
    std::string upper = path;
    for (char& c : upper) {
        c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    }
    if (upper == "NUL" || upper == "CON" || upper.rfind("\\\\.\\", 0) == 0) {
        return true;
    }
    struct _stat64 st;
    return _stat64(path.c_str(), &st) == 0 && (st.st_mode & _S_IFCHR) != 0;
}

#else

// Refuses an output that is one of the inputs: the same device and inode.
// A character device (/dev/null read and written) is no danger.
void refuseInputs(const std::string& output, const struct stat& out,
                  const std::vector<std::string>& inputs) {
    if (S_ISCHR(out.st_mode)) {
        return;
    }
    for (const std::string& input : inputs) {
        struct stat in;
        int got = input == "-" ? fstat(STDIN_FILENO, &in) : stat(input.c_str(), &in);
        if (got == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
            throw UsageError("the output " + quoted(output, "standard output") +
                             " is the input file " + quoted(input, "standard input") +
                             "; choose another name");
        }
    }
}

#endif

} // namespace

void discardTemporaryOutputs() noexcept {
    for (Slot& s : slots) {
        if (s.armed != 0) {
#if defined(_WIN32)
            _unlink(s.path);
#else
            unlink(s.path);
#endif
        }
    }
}

std::string OutputFile::label() const {
    return kind_ == Kind::kStandardOutput ? name_ : "'" + name_ + "'";
}

void OutputFile::fail(const std::string& what) const {
    throw Failure("cannot write " + label() + ": " + what);
}

std::unique_ptr<OutputFile> OutputFile::open(const std::string& path,
                                             const std::vector<std::string>& inputs) {
    std::unique_ptr<OutputFile> out(new OutputFile());
    if (path == "-") {
        out->kind_ = Kind::kStandardOutput;
        out->name_ = "standard output";
        out->openStandardOutput(inputs);
        return out;
    }
    out->name_ = path;
    std::error_code ec;
#if defined(_WIN32)
    if (fs::is_directory(path, ec)) {
        out->fail("it is a directory");
    }
    refuseInputs(path, inputs);
    if (isDevice(path)) {
        out->openDirect(path, 0, 0);
        return out;
    }
    if (fs::exists(path, ec)) {
        fs::path target = fs::canonical(path, ec);
        if (ec) {
            out->fail(ec.message());
        }
        const Previous previous{0, 0, 0};
        out->openReplacement(target.string(), &previous);
        return out;
    }
#else
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            out->fail("it is a directory");
        }
        refuseInputs(path, st, inputs);
        if (!S_ISREG(st.st_mode)) {
            out->openDirect(path, st.st_dev, st.st_ino);
            return out;
        }
        fs::path target = fs::canonical(path, ec);
        if (ec) {
            out->fail(ec.message());
        }
        const Previous previous{static_cast<uint32_t>(st.st_mode & 07777),
                                static_cast<uint32_t>(st.st_uid), static_cast<uint32_t>(st.st_gid)};
        out->openReplacement(target.string(), &previous);
        return out;
    }
    if (errno != ENOENT) {
        out->fail(message(errno));
    }
    struct stat linkStat;
    if (lstat(path.c_str(), &linkStat) == 0 && S_ISLNK(linkStat.st_mode)) {
        out->fail("it is a symbolic link to '" + fs::read_symlink(path, ec).string() +
                  "', which does not exist");
    }
#endif
    // A new file, in the real directory its path names.
    fs::path p(path);
    const std::string file = p.filename().string();
    if (file.empty() || file == "." || file == "..") {
        out->fail("not a file name");
    }
    fs::path dir = p.has_parent_path() ? p.parent_path() : fs::path(".");
    fs::path realDir = fs::canonical(dir, ec);
    if (ec || !fs::is_directory(realDir, ec)) {
        out->fail("no directory '" + dir.string() + "'");
    }
    out->openReplacement((realDir / file).string(), nullptr);
    return out;
}

OutputFile::~OutputFile() {
    discard();
}

void OutputFile::discard() noexcept {
    HeldSignals held;
#if defined(_WIN32)
    if (fd_ >= 0 && kind_ != Kind::kStandardOutput) {
        _close(fd_);
    }
    if (!tempPath_.empty()) {
        _unlink(tempPath_.c_str());
    }
#else
    if (fd_ >= 0 && kind_ != Kind::kStandardOutput) {
        close(fd_);
    }
    if (!tempPath_.empty()) {
        unlink(tempPath_.c_str());
    }
#endif
    fd_ = -1;
    tempPath_.clear();
    disarm(slot_);
}

void OutputFile::openStandardOutput(const std::vector<std::string>& inputs) {
#if defined(_WIN32)
    (void)inputs;
    fd_ = 1;
    _setmode(fd_, _O_BINARY);
    struct _stat64 st;
    seekable_ = _fstat64(fd_, &st) == 0 && (st.st_mode & _S_IFREG) != 0;
    int64_t at = seekable_ ? _lseeki64(fd_, 0, SEEK_CUR) : -1;
#else
    fd_ = STDOUT_FILENO;
    struct stat st;
    if (fstat(fd_, &st) != 0) {
        fail(message(errno));
    }
    refuseInputs("-", st, inputs);
    // Appending ignores the offset: the sizes could not be fixed.
    int flags = fcntl(fd_, F_GETFL);
    seekable_ = S_ISREG(st.st_mode) && flags >= 0 && (flags & O_APPEND) == 0;
    off_t at = seekable_ ? lseek(fd_, 0, SEEK_CUR) : -1;
#endif
    seekable_ = seekable_ && at >= 0;
    origin_ = seekable_ ? static_cast<uint64_t>(at) : 0;
}

void OutputFile::openDirect(const std::string& path, uint64_t device, uint64_t inode) {
    kind_ = Kind::kDirect;
#if defined(_WIN32)
    (void)device;
    (void)inode;
    if (_sopen_s(&fd_, path.c_str(), _O_WRONLY | _O_BINARY | _O_NOINHERIT, _SH_DENYNO, 0) != 0) {
        fd_ = -1;
        fail(message(errno));
    }
#else
    // Opening a FIFO waits for its reader; SIGINT ends the wait.
    while ((fd_ = ::open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC)) < 0) {
        if (errno != EINTR) {
            fail(message(errno));
        }
        if (interrupted()) {
            fail("interrupted");
        }
    }
    struct stat st;
    if (fstat(fd_, &st) != 0) {
        fail(message(errno));
    }
    // Replaced by something else (a regular file, say) since it was looked at.
    if (st.st_dev != device || st.st_ino != inode) {
        fail("it was replaced while being opened");
    }
#endif
    seekable_ = false;
}

void OutputFile::openReplacement(const std::string& target, const Previous* previous) {
    kind_ = Kind::kReplace;
    seekable_ = true;
    target_ = target;
    replaces_ = previous != nullptr;
#if defined(_WIN32)
    if (previous != nullptr && _access(target.c_str(), 2) != 0) {
        fail(message(errno));
    }
    for (int attempt = 0; fd_ < 0; ++attempt) {
        std::string candidate = temporaryName(target);
        int fd = -1;
        if (_sopen_s(&fd, candidate.c_str(),
                     _O_CREAT | _O_EXCL | _O_RDWR | _O_BINARY | _O_NOINHERIT, _SH_DENYNO,
                     _S_IREAD | _S_IWRITE) == 0) {
            fd_ = fd;
            tempPath_ = candidate;
            slot_ = arm(candidate);
        } else if (errno != EEXIST || attempt >= 100) {
            fail(message(errno));
        }
    }
#else
    // Replacing a file needs leave to write it, as writing into it would.
    if (previous != nullptr && access(target.c_str(), W_OK) != 0) {
        fail(message(errno));
    }
    // A new file is created 0666 less the umask, like any; a replacement
    // starts private and gets the old file's bits below.
    const mode_t mode = previous != nullptr ? 0600 : 0666;
#if defined(O_TMPFILE)
    if (std::getenv("DSP_OUTPUT_NO_TMPFILE") == nullptr) {
        const std::string dir = fs::path(target).parent_path().string();
        fd_ = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, mode);
        unnamed_ = fd_ >= 0;
        // Unsupported by the file system (or the kernel): a named temporary.
        if (fd_ < 0 && errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
            fail(message(errno));
        }
    }
#endif
    for (int attempt = 0; fd_ < 0; ++attempt) {
        std::string candidate = temporaryName(target);
        HeldSignals held;
        fd_ = ::open(candidate.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, mode);
        if (fd_ >= 0) {
            tempPath_ = candidate;
            slot_ = arm(candidate);
        } else if (errno != EEXIST || attempt >= 100) {
            fail(message(errno));
        }
    }
    if (previous != nullptr) {
        // The owner first, as a change of owner clears set-id bits. Only
        // root (or the owner, for a group it belongs to) may: otherwise the
        // file becomes the user's, like any file the user writes.
        if (fchown(fd_, previous->owner, previous->group) != 0) {
            // not permitted: keep the user's
        }
        if (fchmod(fd_, previous->mode) != 0) {
            fail(message(errno));
        }
    }
#endif
}

void OutputFile::write(const void* data, size_t bytes) {
    if (fd_ < 0 || committed_) {
        fail("it is closed");
    }
    const char* p = static_cast<const char*>(data);
    while (bytes > 0) {
        // A signal may have cut a write short (on a pipe, say) or ended it.
        if (interrupted()) {
            fail("interrupted");
        }
        const size_t chunk = std::min<size_t>(bytes, size_t{1} << 30);
#if defined(_WIN32)
        const int n = _write(fd_, p, static_cast<unsigned>(chunk));
#else
        const ssize_t n = ::write(fd_, p, chunk);
#endif
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail(message(errno));
        }
        if (n == 0) {
            fail(message(ENOSPC));
        }
        p += n;
        bytes -= static_cast<size_t>(n);
        position_ += static_cast<uint64_t>(n);
    }
}

void OutputFile::seek(uint64_t offset) {
    if (!seekable_) {
        fail("it cannot seek");
    }
#if defined(_WIN32)
    const bool moved = _lseeki64(fd_, static_cast<int64_t>(origin_ + offset), SEEK_SET) >= 0;
#else
    const bool moved = lseek(fd_, static_cast<off_t>(origin_ + offset), SEEK_SET) >= 0;
#endif
    if (!moved) {
        fail(message(errno));
    }
    position_ = offset;
}

void OutputFile::commit() {
    if (committed_) {
        return;
    }
    if (kind_ == Kind::kReplace) {
        commitReplacement();
    } else if (kind_ == Kind::kDirect) {
        const int fd = fd_;
        fd_ = -1;
#if defined(_WIN32)
        if (_close(fd) != 0) {
#else
        if (close(fd) != 0 && errno != EINTR) {
#endif
            fail(message(errno));
        }
    }
    committed_ = true;
}

void OutputFile::commitReplacement() {
#if defined(_WIN32)
    if (_commit(fd_) != 0) {
        fail(message(errno));
    }
    const int fd = fd_;
    fd_ = -1;
    if (_close(fd) != 0) {
        fail(message(errno));
    }
    if (MoveFileExA(tempPath_.c_str(), target_.c_str(),
                    MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) == 0) {
        fail(std::system_category().message(static_cast<int>(GetLastError())));
    }
#else
    // On disk before it takes the old file's place.
    if (fsync(fd_) != 0) {
        fail(message(errno));
    }
    if (unnamed_) {
        linkIntoPlace();
    } else {
        const int fd = fd_;
        fd_ = -1;
        if (close(fd) != 0 && errno != EINTR) {
            fail(message(errno));
        }
        HeldSignals held;
        if (rename(tempPath_.c_str(), target_.c_str()) != 0) {
            fail(message(errno));
        }
    }
#endif
    tempPath_.clear();
    disarm(slot_);
}

// Gives the unnamed temporary its name: linked straight to it when new, or
// linked under a hidden name that is renamed over the old file. Signals
// are held meanwhile, so that only SIGKILL can leave the hidden name.
void OutputFile::linkIntoPlace() {
#if defined(O_TMPFILE)
    const std::string self = "/proc/self/fd/" + std::to_string(fd_);
    auto link = [&](const std::string& to) {
        if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, to.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            return 0;
        }
        int error = errno;
        // Without /proc: the descriptor itself, where that is allowed.
        if (error == ENOENT && linkat(fd_, "", AT_FDCWD, to.c_str(), AT_EMPTY_PATH) == 0) {
            return 0;
        }
        return error;
    };
    HeldSignals held;
    int error = replaces_ ? EEXIST : link(target_);
    if (error == EEXIST) {
        for (int attempt = 0;; ++attempt) {
            std::string hidden = temporaryName(target_);
            error = link(hidden);
            if (error == 0) {
                tempPath_ = hidden;
                break;
            }
            if (error != EEXIST || attempt >= 100) {
                fail(message(error));
            }
        }
        if (rename(tempPath_.c_str(), target_.c_str()) != 0) {
            fail(message(errno)); // the hidden name goes with discard()
        }
        tempPath_.clear();
    } else if (error != 0) {
        fail(message(error));
    }
    const int fd = fd_;
    fd_ = -1;
    if (close(fd) != 0 && errno != EINTR) {
        fail(message(errno));
    }
#endif
}

} // namespace cli
