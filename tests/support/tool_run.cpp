#include "support/tool_run.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#if defined(DSP_TOOL_FORMATS)
#include "sample_format.h"
#endif

#if !defined(_WIN32)
#include <sys/wait.h>
#endif

namespace dsptest {

std::string scratchPath(const std::string& name) {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::filesystem::path dir =
        std::filesystem::path(DSP_TEST_TMPDIR) / test->test_suite_name() / test->name();
    std::filesystem::create_directories(dir);
    return (dir / name).string();
}

std::vector<std::string> toolArgv() {
    std::vector<std::string> argv;
#if defined(DSP_TOOL_LAUNCHER)
    std::istringstream launcher(DSP_TOOL_LAUNCHER);
    for (std::string word; launcher >> word;) {
        argv.push_back(word);
    }
#endif
#if defined(DSP_TOOL_PATH)
    argv.emplace_back(DSP_TOOL_PATH);
#endif
    return argv;
}

std::string toolCommand() {
    const std::vector<std::string> argv = toolArgv();
    std::string line;
    for (const std::string& word : argv) {
        line += (line.empty() ? "" : " ") + word;
    }
    return line;
}

std::string words(std::initializer_list<std::string> words) {
    std::string line;
    for (const std::string& w : words) {
        line += (line.empty() ? "" : " ") + w;
    }
    return line;
}

std::string fileText(const std::string& path) {
    const Bytes b = readFileBytes(path);
    return std::string(b.begin(), b.end());
}

ToolRun runTool(const std::string& arguments, const ToolShell& shell) {
    const std::string out = scratchPath("stdout.txt"), err = scratchPath("stderr.txt");
    const std::string command = shell.environment + " " + shell.before + toolCommand() + " " +
                                arguments + " 2>" + err +
                                (shell.before.empty() ? " </dev/null" : "") +
                                (shell.after.empty() ? " >" + out : shell.after);
    const int raw = std::system(command.c_str());
#if defined(_WIN32)
    const int status = raw;
#else
    const int status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
#endif
    return {status, shell.after.empty() ? fileText(out) : std::string(), fileText(err)};
}

#if defined(DSP_TOOL_FORMATS)
Decoded readAudio(const std::string& path) {
    cli::FileSource source(path);
    std::vector<std::string> warnings;
    const std::unique_ptr<cli::AudioReader> reader = cli::openReader(source, warnings);
    Decoded d{reader->format(), {}, {}};
    const size_t frameBytes = d.format.frameBytes();
    std::vector<uint8_t> block(4096 * frameBytes);
    for (uint32_t n; (n = reader->read(block.data(), 4096)) > 0;) {
        d.samples.insert(d.samples.end(), block.begin(), block.begin() + n * frameBytes);
    }
    d.extras = reader->extraChunks();
    return d;
}

std::vector<float> Decoded::floats() const {
    std::vector<float> f(samples.size() / cli::bytesPerSample(format.type));
    cli::decodeSamples(format.type, samples.data(), f.data(), f.size());
    return f;
}
#endif

} // namespace dsptest
