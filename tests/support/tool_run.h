// Running the built `dsp` tool from the end-to-end tests: the command line
// (under the emulator a cross build's programs need), per-test scratch
// directories, a run's exit status with what it printed, and its WAVE output.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#if defined(DSP_TOOL_FORMATS)
#include "audio_formats.h"
#endif

namespace dsptest {

// A path in the running test's own scratch directory
// (DSP_TEST_TMPDIR/SUITE/TEST; ctest runs tests in parallel processes).
std::string scratchPath(const std::string& name = "");

// The words that start the tool: the emulator, if the build names one,
// then the program.
std::vector<std::string> toolArgv();
// The same as one shell word list.
std::string toolCommand();

// Words joined by spaces: a command line.
std::string words(std::initializer_list<std::string> words);

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
// kept in files in the scratch directory.
ToolRun runTool(const std::string& arguments, const ToolShell& shell = {});

#if defined(DSP_TOOL_FORMATS)
struct Decoded {
    cli::StreamFormat format;
    std::vector<uint8_t> samples; // as stored
    std::vector<cli::ExtraChunk> extras;
    std::vector<float> floats() const; // interleaved, full scale 1.0
};

// Any file the tool reads, through its own reader.
Decoded readAudio(const std::string& path);
#endif

} // namespace dsptest
