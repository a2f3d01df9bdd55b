// The tool's output files: a ByteSink whose writing never damages anything.
//
// - A regular file, new or existing, is written to a temporary file in its
//   directory and put in place by commit() with one rename, so until then
//   the old file is untouched, and an uncommitted temporary is discarded.
//   On Linux the temporary has no name (O_TMPFILE): a crash or SIGKILL
//   leaves nothing behind. commit() links a new file straight to its name;
//   an existing one is replaced by linking the temporary under a fresh
//   hidden name ".NAME.part…" and renaming that over it, with SIGINT,
//   SIGTERM and SIGHUP held back in between: only SIGKILL or a crash in
//   that window of two system calls can leave the hidden file.
//   Elsewhere (a file system without O_TMPFILE, other systems) the
//   temporary is a hidden ".NAME.part…" file created exclusively under a
//   random name; it is removed on every error path and by the signal
//   handler on SIGINT, SIGTERM and SIGHUP, though not after SIGKILL.
// - An existing file keeps its permission bits, and its owner and group
//   where the user may set them; a read-only one is refused. A new file
//   gets 0666 less the umask.
// - A symbolic link is followed and its final target written; the link
//   stays. A link whose target does not exist is refused, so no file is
//   made in a place the user did not name.
// - Devices, FIFOs and sockets are opened and written directly, never
//   replaced. "-" is standard output, written directly too.
// - The output may not be any of the inputs under any name (same device
//   and inode after following links): UsageError naming both.
// - An error throws Failure: one line naming the file and the system's
//   message.
//
// Setting DSP_OUTPUT_NO_TMPFILE in the environment makes Linux use the
// named temporary too (the tests cover both ways with it).
#pragma once

#include "byte_stream.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cli {

class OutputFile : public ByteSink {
public:
    // Opens `path` for writing ("-": standard output); `inputs` are the
    // files the output may not be ("-" among them: standard input).
    static std::unique_ptr<OutputFile> open(const std::string& path,
                                            const std::vector<std::string>& inputs);
    ~OutputFile() override; // discards an uncommitted temporary
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const void* data, size_t bytes) override;
    // A regular file (and standard output redirected to one); never a
    // device, FIFO, socket or terminal.
    bool seekable() const override { return seekable_; }
    void seek(uint64_t offset) override;
    uint64_t position() const override { return position_; }
    // The path as given; "standard output" for "-".
    const std::string& name() const override { return name_; }

    // Makes the written bytes durable and puts a regular file in place;
    // nothing may be written after it.
    void commit();

private:
    enum class Kind { kReplace, kDirect, kStandardOutput };
    // What an existing regular file keeps.
    struct Previous {
        uint32_t mode;
        uint32_t owner;
        uint32_t group;
    };

    OutputFile() = default;
    void openReplacement(const std::string& target, const Previous* previous);
    void openDirect(const std::string& path, uint64_t device, uint64_t inode);
    void openStandardOutput(const std::vector<std::string>& inputs);
    void commitReplacement();
    void linkIntoPlace();
    void discard() noexcept;
    std::string label() const;
    [[noreturn]] void fail(const std::string& what) const;

    std::string name_;
    std::string target_;   // the resolved regular file a replacement goes to
    std::string tempPath_; // the named temporary, while there is one
    int fd_ = -1;
    int slot_ = -1; // the signal handler's record of tempPath_
    Kind kind_ = Kind::kDirect;
    bool seekable_ = false;
    bool unnamed_ = false;  // an O_TMPFILE temporary
    bool replaces_ = false; // the target existed when opened
    bool committed_ = false;
    uint64_t position_ = 0;
    uint64_t origin_ = 0; // standard output's offset when opened
};

// Removes every temporary output file still named; async-signal-safe, for
// the signal handler before the process dies.
void discardTemporaryOutputs() noexcept;

} // namespace cli
