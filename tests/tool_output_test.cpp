// End-to-end tests of how the `dsp` tool writes its output: devices, FIFOs
// and standard output in place, links followed, permissions kept, the input
// never written under another name, nothing left behind by a stopped run.
#include "support/tool_run.h"
#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#if defined(DSP_TOOL_PATH) && !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using dsptest::Bytes;

const char* const kNoTmpfile = "DSP_OUTPUT_NO_TMPFILE=1";

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

struct stat statOf(const std::string& path, bool followLinks = true) {
    struct stat st = {};
    EXPECT_EQ(followLinks ? stat(path.c_str(), &st) : lstat(path.c_str(), &st), 0) << path;
    return st;
}

std::set<std::string> namesIn(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

class ToolOutputTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        dsptest::writeFileBytes(input_, dsptest::canonicalWave(2, 44100, samples_));
    }

    // The tool's plain copy of the input: sizes in the header (after the
    // space it keeps for 64-bit sizes), or marked unknown on a stream.
    Bytes copied(bool stream) const {
        const uint32_t unknown = 0xFFFFFFFFu;
        const Bytes format = dsptest::chunkBytes("fmt ", dsptest::pcmFormatBody(2, 44100));
        if (stream) {
            return dsptest::riffBytesWithSize(
                "WAVE", unknown,
                dsptest::joinBytes(
                    {format, dsptest::chunkBytesWithSize("data", unknown, samples_)}));
        }
        return dsptest::riffBytes(
            "WAVE", dsptest::joinBytes({dsptest::chunkBytes("JUNK", Bytes(28, 0)), format,
                                        dsptest::chunkBytes("data", samples_)}));
    }

    // Runs `dsp --quiet ARGUMENTS`; returns its exit status.
    int run(const std::string& arguments, const std::string& environment = "",
            const std::string& after = "") {
        const dsptest::ToolRun r =
            dsptest::runTool("--quiet " + arguments, {environment, "", after});
        err_ = r.err;
        return r.status;
    }

    const std::string dir_ = dsptest::scratchPath("out");
    const std::string errPath_ = dir_ + ".stderr";
    const std::string input_ = dir_ + "/input.wav";
    const Bytes samples_ = dsptest::patternSamples(4 * 4410);
    std::string err_;
};

// /dev/null stays the device; a FIFO stays a FIFO and its reader gets the
// stream; standard output gets the stream through a pipe and a complete
// file when it is one.
TEST_F(ToolOutputTest, DevicesFifosAndStandardOutputAreWrittenInPlace) {
    ASSERT_EQ(run(input_ + " /dev/null gain -1"), 0) << err_;
    if (!S_ISCHR(statOf("/dev/null").st_mode)) {
        // Put the machine right before failing (possible only for root).
        if (geteuid() == 0 && unlink("/dev/null") == 0) {
            mknod("/dev/null", S_IFCHR | 0666, makedev(1, 3));
            chmod("/dev/null", 0666);
        }
        FAIL() << "/dev/null was replaced";
    }

    const std::string fifo = dir_ + "/fifo.wav";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    Bytes received;
    std::thread reader([&] { received = dsptest::readFileBytes(fifo); });
    const int status = run(input_ + " " + fifo);
    // Had the tool not opened the FIFO, the reader would wait for a writer.
    int unblock = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (unblock >= 0) {
        close(unblock);
    }
    reader.join();
    EXPECT_EQ(status, 0) << err_;
    EXPECT_TRUE(received == copied(true)) << received.size() << " bytes";
    EXPECT_TRUE(S_ISFIFO(statOf(fifo, false).st_mode));

    const std::string piped = dir_ + "/piped.wav", redirected = dir_ + "/redirected.wav";
    ASSERT_EQ(run(input_ + " -", "", " | cat >" + piped), 0) << err_;
    EXPECT_TRUE(dsptest::readFileBytes(piped) == copied(true));
    EXPECT_EQ(run(input_ + " -", "", " >" + redirected), 0) << err_;
    EXPECT_TRUE(dsptest::readFileBytes(redirected) == copied(false));
}

// With either kind of temporary: an existing file keeps its mode (and its
// owner, for root), a link keeps pointing at the file written, a new file
// gets 0666 less the umask, a dangling link is refused, and nothing else
// appears in the directory.
TEST_F(ToolOutputTest, ReplacingKeepsLinksPermissionsAndOwner) {
    const mode_t mask = umask(0);
    umask(mask);
    for (const char* environment : {"", kNoTmpfile}) {
        SCOPED_TRACE(environment);
        const std::string sub = dir_ + (*environment != 0 ? "/named" : "/unnamed");
        fs::create_directories(sub);
        const std::string kept = sub + "/kept.wav", target = sub + "/target.wav",
                          link = sub + "/link.wav", fresh = sub + "/new.wav",
                          dangling = sub + "/dangling.wav";
        dsptest::writeFileBytes(kept, text("old"));
        ASSERT_EQ(chmod(kept.c_str(), 0640), 0);
        const bool root = geteuid() == 0;
        if (root) {
            ASSERT_EQ(chown(kept.c_str(), 65534, 65534), 0);
        }
        dsptest::writeFileBytes(target, text("old"));
        ASSERT_EQ(symlink("target.wav", link.c_str()), 0);
        ASSERT_EQ(symlink("nowhere.wav", dangling.c_str()), 0);

        for (const std::string& out : {kept, link, fresh}) {
            ASSERT_EQ(run(input_ + " " + out, environment), 0) << out << ": " << err_;
        }
        EXPECT_EQ(statOf(kept).st_mode & 07777, 0640u);
        if (root) {
            EXPECT_EQ(statOf(kept).st_uid, 65534u);
            EXPECT_EQ(statOf(kept).st_gid, 65534u);
        }
        EXPECT_TRUE(dsptest::readFileBytes(kept) == copied(false));
        EXPECT_TRUE(S_ISLNK(statOf(link, false).st_mode));
        EXPECT_EQ(fs::read_symlink(link), "target.wav");
        EXPECT_TRUE(dsptest::readFileBytes(target) == copied(false));
        EXPECT_EQ(statOf(fresh).st_mode & 07777, 0666u & ~mask);

        EXPECT_EQ(run(input_ + " " + dangling, environment), 1);
        EXPECT_NE(err_.find("'nowhere.wav', which does not exist"), std::string::npos) << err_;
        EXPECT_EQ(namesIn(sub), (std::set<std::string>{"kept.wav", "target.wav", "link.wav",
                                                       "new.wav", "dangling.wav"}));
    }
}

TEST_F(ToolOutputTest, TheInputUnderAnotherNameIsRefused) {
    const std::string hard = dir_ + "/hard.wav", soft = dir_ + "/soft.wav";
    ASSERT_EQ(link(input_.c_str(), hard.c_str()), 0);
    ASSERT_EQ(symlink("input.wav", soft.c_str()), 0);
    const Bytes before = dsptest::readFileBytes(input_);
    for (const std::string& out : {hard, soft}) {
        EXPECT_EQ(run(input_ + " " + out + " gain -6"), 2) << out;
        EXPECT_NE(err_.find("the output '" + out + "' is the input file '" + input_ + "'"),
                  std::string::npos)
            << err_;
        EXPECT_TRUE(dsptest::readFileBytes(input_) == before) << out;
    }
}

#if defined(__linux__)

bool unnamedTemporariesWork(const std::string& dir) {
    int fd = open(dir.c_str(), O_TMPFILE | O_RDWR, 0600);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

// Whether process `pid` has a temporary output open in `dir` (named
// ".NAME.part…", or unnamed and shown as deleted).
bool writesTemporary(pid_t pid, const std::string& dir) {
    std::error_code ec;
    for (fs::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", ec), end;
         !ec && it != end; it.increment(ec)) {
        const std::string target = fs::read_symlink(it->path(), ec).string();
        if (!ec && target.rfind(dir + "/", 0) == 0 &&
            (target.find(".part") != std::string::npos ||
             target.find("(deleted)") != std::string::npos)) {
            return true;
        }
    }
    return false;
}

// Stopped by a signal while writing: the old output is untouched and the
// directory holds nothing new. SIGINT stops the loop (status 1); SIGTERM
// and SIGHUP end the process after removing a named temporary; SIGKILL
// leaves nothing only because the temporary has no name.
TEST_F(ToolOutputTest, AStoppedRunLeavesNothingBehind) {
    // 60 s through four pitch shifters: still running when the signal comes.
    dsptest::writeFileBytes(
        input_, dsptest::canonicalWave(2, 44100, dsptest::patternSamples(4 * 44100 * 60)));
    const std::string output = dir_ + "/output.wav";
    struct SignalCase {
        int sig;
        bool named;
    };
    const SignalCase cases[] = {
        {SIGTERM, true}, {SIGHUP, true}, {SIGINT, true}, {SIGTERM, false}, {SIGKILL, false}};
    for (const SignalCase& c : cases) {
        SCOPED_TRACE(std::string(strsignal(c.sig)) + (c.named ? ", named" : ", unnamed"));
        if (!c.named && !unnamedTemporariesWork(dir_)) {
            std::printf("no O_TMPFILE in %s: case skipped\n", dir_.c_str());
            continue;
        }
        dsptest::writeFileBytes(output, text("keep"));
        const std::set<std::string> before = namesIn(dir_);

        std::vector<std::string> words = dsptest::toolArgv();
        words.insert(words.end(), {"--quiet", input_, output});
        for (int i = 0; i < 4; ++i) {
            words.insert(words.end(), {"pitch", i % 2 == 0 ? "700" : "-700"});
        }
        if (c.named) {
            setenv("DSP_OUTPUT_NO_TMPFILE", "1", 1);
        } else {
            unsetenv("DSP_OUTPUT_NO_TMPFILE");
        }
        std::vector<char*> argv(words.size() + 1, nullptr);
        for (size_t i = 0; i < words.size(); ++i) {
            argv[i] = words[i].data();
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, errPath_.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = 0;
        const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        unsetenv("DSP_OUTPUT_NO_TMPFILE");
        ASSERT_EQ(spawned, 0);

        auto start = std::chrono::steady_clock::now();
        bool writing = false;
        while (!(writing = writesTemporary(pid, dir_)) &&
               std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        kill(pid, c.sig);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(writing) << "the tool was not seen writing";
        if (c.sig == SIGINT) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
        } else {
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == c.sig) << status;
        }
        EXPECT_EQ(namesIn(dir_), before);
        EXPECT_TRUE(dsptest::readFileBytes(output) == text("keep"));
    }
}

#endif // __linux__

} // namespace

#endif // DSP_TOOL_PATH && !_WIN32
