#include "support/tool_run.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#if !defined(_WIN32)
#include <sys/wait.h>
#endif

namespace dsptest {

std::string testScratchPath(const std::string& group, const std::string& name) {
    const std::filesystem::path dir =
        std::filesystem::path(DSP_TEST_TMPDIR) / group /
        ::testing::UnitTest::GetInstance()->current_test_info()->name();
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
    std::string line;
    for (const std::string& word : toolArgv()) {
        line += (line.empty() ? "" : " ") + word;
    }
    return line;
}

std::string joinWords(std::initializer_list<std::string> words) {
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

ToolRun runTool(const std::string& dir, const std::string& arguments, const ToolShell& shell) {
    const std::string out = dir + "/stdout.txt", err = dir + "/stderr.txt";
    const std::string command = shell.environment + " " + shell.before + toolCommand() + " " +
                                arguments + " 2>" + err +
                                (shell.after.empty() ? " >" + out : shell.after) +
                                (shell.before.empty() ? " </dev/null" : "");
    const int raw = std::system(command.c_str());
#if defined(_WIN32)
    const int status = raw;
#else
    const int status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
#endif
    return {status, shell.after.empty() ? fileText(out) : std::string(), fileText(err)};
}

} // namespace dsptest
