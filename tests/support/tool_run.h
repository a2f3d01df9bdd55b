// Running the built `dsp` tool from the end-to-end tests: the command line
// (under the emulator a cross build's programs need), per-test scratch
// directories, and a run's exit status with what it printed.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

namespace dsptest {

// A path in the running test's own scratch directory
// (DSP_TEST_TMPDIR/GROUP/TEST; ctest runs tests in parallel processes).
std::string testScratchPath(const std::string& group, const std::string& name = "");

// The words that start the tool: the emulator, if the build names one,
// then the program.
std::vector<std::string> toolArgv();
// The same as one shell word list.
std::string toolCommand();

// Words joined by spaces: a command line.
std::string joinWords(std::initializer_list<std::string> words);

std::string fileText(const std::string& path);

struct ToolRun {
    int status; // the exit status; -1 when the tool did not exit
    std::string out;
    std::string err;
};

// Shell text around one run.
struct ToolShell {
    std::string environment; // NAME=value words before the command
    std::string before;      // a pipe into the tool ("cat in.wav | "); else stdin is /dev/null
    std::string after;       // replaces the redirection of stdout (" | cat >out.wav")
};

// Runs `dsp ARGUMENTS` through the shell; standard output and error are
// kept in files in DIR.
ToolRun runTool(const std::string& dir, const std::string& arguments, const ToolShell& shell = {});

} // namespace dsptest
