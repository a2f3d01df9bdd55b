// TEMPORARY stand-in for the safe output layer: see output_target.h.
#include "output_target.h"

#include "cli_error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#define DSP_FSEEK _fseeki64
#else
#define DSP_FSEEK fseeko
#endif

namespace fs = std::filesystem;

namespace cli {

namespace {

class StreamTarget : public OutputTarget {
public:
    StreamTarget(std::FILE* file, std::string name, std::string tempPath)
        : file_(file), name_(std::move(name)), tempPath_(std::move(tempPath)) {}
    ~StreamTarget() override {
        if (!tempPath_.empty()) {
            if (file_ != nullptr) {
                std::fclose(file_);
            }
            if (!committed_) {
                std::error_code ec;
                fs::remove(tempPath_, ec);
            }
        }
    }
    void write(const void* data, size_t bytes) override {
        if (bytes > 0 && std::fwrite(data, 1, bytes, file_) != bytes) {
            throw Failure("cannot write '" + name_ + "': " + std::strerror(errno));
        }
        position_ += bytes;
    }
    bool seekable() const override { return !tempPath_.empty(); }
    void seek(uint64_t offset) override {
        if (!seekable() || DSP_FSEEK(file_, static_cast<int64_t>(offset), SEEK_SET) != 0) {
            throw Failure("cannot seek in '" + name_ + "'");
        }
        position_ = offset;
    }
    uint64_t position() const override { return position_; }
    const std::string& name() const override { return name_; }
    void commit() override {
        if (std::fflush(file_) != 0) {
            throw Failure("cannot write '" + name_ + "': " + std::strerror(errno));
        }
        if (tempPath_.empty()) {
            return;
        }
        if (std::fclose(file_) != 0) {
            file_ = nullptr;
            throw Failure("cannot finish '" + name_ + "' (disk full?)");
        }
        file_ = nullptr;
        std::error_code ec;
        fs::rename(tempPath_, name_, ec);
        if (ec) {
            throw Failure("cannot rename the finished output to '" + name_ + "': " + ec.message());
        }
        committed_ = true;
    }

private:
    std::FILE* file_;
    std::string name_;
    std::string tempPath_; // empty for standard output
    uint64_t position_ = 0;
    bool committed_ = false;
};

} // namespace

std::unique_ptr<OutputTarget> openOutput(const std::string& path,
                                         const std::vector<std::string>& inputs) {
    if (path == "-") {
#if defined(_WIN32)
        _setmode(1, _O_BINARY);
#endif
        return std::make_unique<StreamTarget>(stdout, "standard output", "");
    }
    std::error_code ec;
    for (const std::string& in : inputs) {
        if (in != "-" && fs::exists(path, ec) && fs::equivalent(in, path, ec)) {
            throw UsageError("the output '" + path + "' is the input file; choose another name");
        }
    }
    if (fs::is_directory(path, ec)) {
        throw Failure("cannot write '" + path + "': it is a directory");
    }
    fs::path target(path);
    fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
    if (!fs::is_directory(dir, ec)) {
        throw Failure("cannot write '" + path + "': no directory '" + dir.string() + "'");
    }
    for (int attempt = 0; attempt < 1000; ++attempt) {
        fs::path candidate =
            dir / ("." + target.filename().string() + ".part" + std::to_string(attempt));
        if (fs::exists(candidate, ec)) {
            continue;
        }
        std::FILE* file = std::fopen(candidate.string().c_str(), "wb");
        if (file == nullptr) {
            throw Failure("cannot create '" + path + "': " + std::strerror(errno));
        }
        return std::make_unique<StreamTarget>(file, path, candidate.string());
    }
    throw Failure("cannot find a temporary name beside '" + path + "'");
}

} // namespace cli
