// End-to-end tests of the `dsp` command-line tool: it is run on files made
// here, and its output is compared byte for byte with the same processing
// done through the library's C interface directly.
#include "dsp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#if defined(DSP_TOOL_PATH) && !defined(_WIN32)
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

const uint32_t kBlock = 4096;

// One directory per test: ctest runs the tests in parallel processes.
std::string tempDir() {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    fs::path dir = fs::path(DSP_TEST_TMPDIR) / "tool" / test->name();
    fs::create_directories(dir);
    return dir.string();
}

std::string tempPath(const std::string& name) {
    return (fs::path(tempDir()) / name).string();
}

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

ToolRun runTool(const std::string& arguments) {
    std::string outFile = tempPath("stdout.txt");
    std::string errFile = tempPath("stderr.txt");
    std::string command = std::string(DSP_TOOL_PATH) + " " + arguments + " >" + outFile + " 2>" +
                          errFile + " </dev/null";
    int raw = std::system(command.c_str());
    ToolRun r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = slurp(outFile);
    r.err = slurp(errFile);
    return r;
}

// ---- WAVE files written and parsed here, independently of the library ----

void put16(std::string& s, uint16_t v) {
    s.push_back(static_cast<char>(v & 0xFF));
    s.push_back(static_cast<char>(v >> 8));
}

void put32(std::string& s, uint32_t v) {
    put16(s, static_cast<uint16_t>(v & 0xFFFF));
    put16(s, static_cast<uint16_t>(v >> 16));
}

std::string waveBytes(uint32_t rate, uint16_t channels, const std::vector<int16_t>& samples,
                      uint16_t formatTag = 1, uint16_t bits = 16, bool extensiblePcm = true) {
    std::string fmt;
    put16(fmt, formatTag);
    put16(fmt, channels);
    put32(fmt, rate);
    put32(fmt, rate * channels * (bits / 8));
    put16(fmt, static_cast<uint16_t>(channels * (bits / 8)));
    put16(fmt, bits);
    if (formatTag == 0xFFFE) {
        put16(fmt, 22);
        put16(fmt, bits);
        put32(fmt, channels == 2 ? 3 : 4);
        put16(fmt, extensiblePcm ? 1 : 3); // sub-format GUID, first two bytes
        fmt.append("\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 14);
    }
    std::string data(reinterpret_cast<const char*>(samples.data()), samples.size() * 2);
    std::string file = "RIFF";
    put32(file, static_cast<uint32_t>(4 + 8 + fmt.size() + 8 + data.size()));
    file += "WAVEfmt ";
    put32(file, static_cast<uint32_t>(fmt.size()));
    file += fmt;
    file += "data";
    put32(file, static_cast<uint32_t>(data.size()));
    file += data;
    return file;
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

struct Wave {
    uint16_t formatTag = 0;
    uint16_t channels = 0;
    uint32_t rate = 0;
    uint16_t bits = 0;
    std::vector<int16_t> samples;
};

uint32_t le32(const std::string& s, size_t at) {
    return static_cast<uint8_t>(s[at]) | (static_cast<uint8_t>(s[at + 1]) << 8) |
           (static_cast<uint8_t>(s[at + 2]) << 16) |
           (static_cast<uint32_t>(static_cast<uint8_t>(s[at + 3])) << 24);
}

uint16_t le16(const std::string& s, size_t at) {
    return static_cast<uint16_t>(static_cast<uint8_t>(s[at]) |
                                 (static_cast<uint8_t>(s[at + 1]) << 8));
}

Wave readWave(const std::string& path) {
    std::string s = slurp(path);
    Wave w;
    EXPECT_GE(s.size(), 12u);
    EXPECT_EQ(s.substr(0, 4), "RIFF");
    EXPECT_EQ(s.substr(8, 4), "WAVE");
    EXPECT_EQ(le32(s, 4), s.size() - 8) << "RIFF size of " << path;
    size_t at = 12;
    while (at + 8 <= s.size()) {
        std::string id = s.substr(at, 4);
        uint32_t size = le32(s, at + 4);
        if (id == "fmt ") {
            w.formatTag = le16(s, at + 8);
            w.channels = le16(s, at + 10);
            w.rate = le32(s, at + 12);
            w.bits = le16(s, at + 22);
        } else if (id == "data") {
            w.samples.resize(size / 2);
            std::memcpy(w.samples.data(), s.data() + at + 8, size);
        }
        at += 8 + size + (size & 1);
    }
    return w;
}

// A test signal: two tones, a burst and a little noise.
std::vector<int16_t> testSignal(uint32_t rate, uint16_t channels, double seconds) {
    size_t frames = static_cast<size_t>(seconds * rate);
    std::vector<int16_t> s(frames * channels);
    uint32_t noise = 1;
    for (size_t i = 0; i < frames; ++i) {
        double t = static_cast<double>(i) / rate;
        for (uint16_t c = 0; c < channels; ++c) {
            noise = noise * 1664525u + 1013904223u;
            double v = 0.4 * std::sin(2 * M_PI * (440.0 + 110.0 * c) * t) +
                       0.2 * std::sin(2 * M_PI * 3000.0 * t) +
                       (t > 0.5 && t < 0.6 ? 0.3 : 0.01) * ((noise >> 9) / 4194304.0 - 1.0);
            s[i * channels + c] = static_cast<int16_t>(std::lround(v * 32767.0));
        }
    }
    return s;
}

// What the tool must produce: the same chain driven through the C interface
// with 4096-frame blocks.
std::vector<int16_t> viaLibrary(const std::vector<int16_t>& input, uint32_t rate, uint32_t channels,
                                const std::function<void(void* chain)>& build) {
    void* chain = dspCreate(kBlock, channels, rate);
    build(chain);
    uint32_t outChannels = dspGetDstChannels(chain);
    std::vector<int16_t> out;
    std::vector<int16_t> dst(2 * dspGetDstSize(chain, kBlock * 2 * channels) + 1024);
    size_t frames = input.size() / channels;
    for (size_t at = 0; at < frames; at += kBlock) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(kBlock, frames - at));
        uint32_t bytes = dspSend(chain, input.data() + at * channels, dst.data(), n * 2 * channels);
        out.insert(out.end(), dst.begin(), dst.begin() + bytes / 2);
    }
    EXPECT_EQ(out.size() % outChannels, 0u);
    dspDestroy(chain);
    return out;
}

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        input_ = tempPath("input.wav");
        output_ = tempPath("output.wav");
        signal_ = testSignal(44100, 2, 1.3);
        writeFile(input_, waveBytes(44100, 2, signal_));
        std::remove(output_.c_str());
    }
    std::string input_;
    std::string output_;
    std::vector<int16_t> signal_;
};

struct EffectCase {
    std::string arguments;
    std::function<void(void* chain)> build;
    uint32_t rate;
    uint32_t channels;
};

// Each effect through the tool and through the library: the same bytes.
TEST_F(ToolTest, EffectsMatchTheLibrary) {
    auto add = [](void* chain, void* processor) { dspAdd(chain, processor, 1); };
    const double length = static_cast<double>(static_cast<size_t>(1.3 * 44100)) / 44100;
    const std::vector<EffectCase> cases = {
        {"", [](void*) {}, 44100, 2},
        {"lowpass 4 2000", [&](void* c) { add(c, initIirFilter(kBlock, 2, 44100, 4, 2000.0f, 0)); },
         44100, 2},
        {"highpass 3 500", [&](void* c) { add(c, initIirFilter(kBlock, 2, 44100, 3, 500.0f, 1)); },
         44100, 2},
        {"resample 48000",
         [&](void* c) { add(c, initResampler(kBlock, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1)); },
         48000, 2},
        {"resample 22050 linear mono",
         [&](void* c) { add(c, initResampler(kBlock, 2, 1, 44100, 22050, 0, 60.0f, 60.0f, 1)); },
         22050, 1},
        {"hqups 0.5 40 active",
         [&](void* c) {
             add(c,
                 initHqupsBySrcsize(kBlock, 2, 2, 44100, 0.5f, 40.0f, 5000, 1, 60.0f, 60.0f, 1, 1));
         },
         48000, 2},
        {"chorus",
         [&](void* c) {
             add(c, initChorus(kBlock, 2, 44100, 3, 20.0f, 2.0f, 1.5f, 30.0f, 100.0f));
         },
         44100, 2},
        {"chorus 2 15 3 0.5 50 80",
         [&](void* c) { add(c, initChorus(kBlock, 2, 44100, 2, 15.0f, 3.0f, 0.5f, 50.0f, 80.0f)); },
         44100, 2},
        {"pitch 700",
         [&](void* c) { add(c, initPitchShift(kBlock, 2, 44100, 700.0f, 0.0f, 0.05f, 0.01f)); },
         44100, 2},
        {"stretch -500",
         [&](void* c) { add(c, initStretch(kBlock, 2, 44100, -500.0f, 0.0f, 0.05f, 0.01f)); },
         44100, 2},
        {"tempo 1.25",
         [&](void* c) {
             float scale = static_cast<float>(1000.0 * std::log2(1.25));
             add(c, initStretch(kBlock, 2, 44100, scale, 0.0f, 0.05f, 0.01f));
         },
         44100, 2},
        {"gain -6", [&](void* c) { add(c, initFader(kBlock, 2, 44100, 0.0f, -6.0f, 0.0f)); }, 44100,
         2},
        {"fade 0.2 0.3",
         [&](void* c) {
             void* f = initFader(kBlock, 2, 44100, 0.0f, -50.0f, 0.0f);
             add(c, f);
             setFaderAction(f, 0, static_cast<float>(1.5 / 44100), 0.2f, 0.0f);
             setFaderAction(f, 0, static_cast<float>(length - 0.3), static_cast<float>(length),
                            -50.0f);
         },
         44100, 2},
        {"resample 48000 lowpass 2 8000 chorus",
         [](void* c) {
             dspAdd(c, initResampler(kBlock, 2, 2, 44100, 48000, 1, 60.0f, 60.0f, 1), 1);
             uint32_t frames = dspGetDstSize(c, kBlock * 4) / 4;
             dspAdd(c, initIirFilter(frames, 2, 48000, 2, 8000.0f, 0), 2);
             dspAdd(c, initChorus(frames, 2, 48000, 3, 20.0f, 2.0f, 1.5f, 30.0f, 100.0f), 3);
         },
         48000, 2},
    };
    for (const EffectCase& e : cases) {
        SCOPED_TRACE(e.arguments);
        ToolRun r = runTool("--quiet " + input_ + " " + output_ + " " + e.arguments);
        ASSERT_EQ(r.status, 0) << r.err;
        Wave w = readWave(output_);
        EXPECT_EQ(w.formatTag, 1);
        EXPECT_EQ(w.bits, 16);
        EXPECT_EQ(w.rate, e.rate);
        EXPECT_EQ(w.channels, e.channels);
        std::vector<int16_t> expected = viaLibrary(signal_, 44100, 2, e.build);
        ASSERT_EQ(w.samples.size(), expected.size());
        EXPECT_TRUE(w.samples == expected) << "sample bytes differ";
        if (e.arguments.empty()) {
            EXPECT_TRUE(w.samples == signal_);
        }
    }
}

TEST_F(ToolTest, MonoInputAndExtensiblePcmAreAccepted) {
    std::vector<int16_t> mono = testSignal(22050, 1, 0.7);
    writeFile(input_, waveBytes(22050, 1, mono, 0xFFFE));
    ToolRun r = runTool("--quiet " + input_ + " " + output_ + " gain 0");
    ASSERT_EQ(r.status, 0) << r.err;
    Wave w = readWave(output_);
    EXPECT_EQ(w.channels, 1);
    EXPECT_EQ(w.rate, 22050u);
    EXPECT_EQ(w.samples.size(), mono.size());
}

TEST_F(ToolTest, CrossfadeMatchesTheLibrary) {
    std::string b = tempPath("b.wav");
    std::vector<int16_t> other = testSignal(44100, 2, 0.9);
    for (auto& s : other) {
        s = static_cast<int16_t>(-s / 2);
    }
    writeFile(b, waveBytes(44100, 2, other));
    ToolRun r = runTool("--quiet crossfade " + input_ + " " + b + " " + output_ + " 0.25");
    ASSERT_EQ(r.status, 0) << r.err;
    Wave w = readWave(output_);

    size_t lenA = signal_.size() / 2, lenB = other.size() / 2;
    size_t overlap = static_cast<size_t>(std::llround(0.25 * 44100));
    size_t bStart = lenA - overlap, total = bStart + lenB;
    void* fader = initFader(kBlock, 2, 44100, 1.0f, 0.0f, 0.0f);
    setCrossFaderAction(fader, static_cast<float>(static_cast<double>(bStart) / 44100),
                        static_cast<float>(static_cast<double>(lenA) / 44100), -1.0f);
    std::vector<int16_t> expected;
    std::vector<int16_t> a(kBlock * 2), bb(kBlock * 2), mixed(kBlock * 2);
    for (size_t t = 0; t < total; t += kBlock) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(kBlock, total - t));
        for (uint32_t i = 0; i < n; ++i) {
            size_t f = t + i;
            for (int c = 0; c < 2; ++c) {
                a[2 * i + c] = f < lenA ? signal_[2 * f + c] : 0;
                bb[2 * i + c] = f >= bStart && f - bStart < lenB ? other[2 * (f - bStart) + c] : 0;
            }
        }
        doCrossFade(fader, a.data(), bb.data(), mixed.data(), n * 4);
        expected.insert(expected.end(), mixed.begin(), mixed.begin() + 2 * n);
    }
    termFader(fader);
    ASSERT_EQ(w.samples.size(), expected.size());
    EXPECT_TRUE(w.samples == expected);
}

TEST_F(ToolTest, InfoReportsFormatLengthAndLevels) {
    std::vector<int16_t> s(2 * 44100, 0);
    s[100] = -16384; // left peak at -6 dBFS
    s[201] = 32767;
    writeFile(input_, waveBytes(44100, 2, s));
    ToolRun r = runTool("info " + input_);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("44100 Hz, stereo"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("1.000 s (44100 frames)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("left      peak -6.0 dBFS (-16384)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("right     peak -0.0 dBFS (32767)"), std::string::npos) << r.out;
}

TEST_F(ToolTest, SpectrumCsvIsTheAnalyzerOutputRelativeToFullScale) {
    ToolRun r = runTool("spectrum " + input_ + " --size 1024 --at 0.1 --csv");
    ASSERT_EQ(r.status, 0) << r.err;
    void* fft = initFft(1024, 2, 2, 120);
    std::vector<float> db(1024);
    doFft(fft, signal_.data() + 2 * 4410, db.data(), 1024 * 4);
    termFft(fft);
    std::istringstream lines(r.out);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "frequency_hz,left_db,right_db");
    double reference = 20.0 * std::log10(256.0);
    for (int k = 0; k < 512; ++k) {
        ASSERT_TRUE(std::getline(lines, line)) << k;
        double hz, left, right;
        ASSERT_EQ(std::sscanf(line.c_str(), "%lf,%lf,%lf", &hz, &left, &right), 3) << line;
        EXPECT_NEAR(hz, k * 44100.0 / 1024, 1e-3);
        EXPECT_NEAR(left, db[k] - reference, 0.006) << k;
        EXPECT_NEAR(right, db[512 + k] - reference, 0.006) << k;
    }
}

TEST_F(ToolTest, EnvelopeAndSlicesRun) {
    ToolRun r = runTool("envelope " + input_ + " --csv --step 0.5");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("time_s,left,right\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\n0.5000,"), std::string::npos) << r.out;
    std::string dir = tempPath("slices");
    fs::remove_all(dir);
    r = runTool("slices " + input_ + " --split " + dir + " --csv");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("index,start_s,end_s\n", 0), 0u);
    size_t rows = 0;
    for (char ch : r.out) {
        rows += ch == '\n';
    }
    size_t files = 0;
    for (const auto& entry : fs::directory_iterator(dir)) {
        Wave w = readWave(entry.path().string());
        EXPECT_EQ(w.rate, 44100u);
        ++files;
    }
    EXPECT_EQ(files, rows - 1);
}

// ---- Errors: one line naming the problem, the right status, nothing written ----

struct ErrorCase {
    std::string arguments;
    int status;
    std::string message;
};

// The main job: 4 s of demo material resampled to 48000 Hz with a report.
TEST_F(ToolTest, DemoRunsAndReports) {
    std::string out = tempPath("demo.wav");
    ToolRun r = runTool("demo " + out);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("resample 44100 -> 48000 Hz cubic"), std::string::npos) << r.out;
    Wave w = readWave(out);
    EXPECT_EQ(w.rate, 48000u);
    EXPECT_NEAR(static_cast<double>(w.samples.size()) / 2 / 48000, 4.0, 0.01);
}

TEST_F(ToolTest, ErrorsGiveOneLineAndTheRightStatus) {
    std::string eightBit = tempPath("eight.wav");
    writeFile(eightBit, waveBytes(8000, 1, std::vector<int16_t>(100), 1, 8));
    std::string three = tempPath("three.wav");
    writeFile(three, waveBytes(8000, 3, std::vector<int16_t>(300)));
    std::string floatExt = tempPath("float.wav");
    writeFile(floatExt, waveBytes(8000, 1, std::vector<int16_t>(300), 0xFFFE, 16, false));
    std::string text = tempPath("text.wav");
    writeFile(text, "this is not audio at all");
    std::string empty = tempPath("empty.wav");
    writeFile(empty, "");
    const std::vector<ErrorCase> cases = {
        {tempPath("missing.wav") + " " + output_ + " gain 1", 1, "cannot open"},
        {text + " " + output_ + " gain 1", 1, "not a RIFF WAVE"},
        {empty + " " + output_ + " gain 1", 1, "not a RIFF WAVE"},
        {tempDir() + " " + output_ + " gain 1", 1, "is a directory"},
        {eightBit + " " + output_ + " gain 1", 1, "not 16-bit PCM"},
        {three + " " + output_ + " gain 1", 1, "not 16-bit PCM"},
        {floatExt + " " + output_ + " gain 1", 1, "not 16-bit PCM"},
        {input_ + " " + output_ + " reverb 3", 2, "unknown effect 'reverb'"},
        {input_, 2, "expected IN.wav OUT.wav"},
        {input_ + " " + output_ + " lowpass 4", 2, "lowpass: missing argument"},
        {input_ + " " + output_ + " lowpass 4 30000", 2, "below half the sample rate"},
        {input_ + " " + output_ + " pitch 5000", 2, "CENTS must be between"},
        {input_ + " " + output_ + " gain loud", 2, "DB must be a number"},
        {input_ + " " + output_ + " resample 48000 fast", 2, "unknown option 'fast'"},
        {input_ + " " + input_ + " gain 1", 2, "is the input file"},
        {input_ + " " + tempPath("no/such/dir/out.wav") + " gain 1", 1, "no directory"},
        {"crossfade " + input_ + " " + input_ + " " + output_ + " 5", 2, "longer than"},
        {"spectrum " + input_ + " --size 1000", 2, "power of two"},
        {"info", 2, "missing FILE.wav"},
        {"", 2, "nothing to do"},
    };
    for (const ErrorCase& c : cases) {
        ToolRun r = runTool(c.arguments);
        EXPECT_EQ(r.status, c.status) << c.arguments << "\n" << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.arguments << "\n" << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << c.arguments << "\n" << r.err;
        EXPECT_TRUE(r.err.rfind("dsp: ", 0) == 0) << r.err;
        EXPECT_FALSE(fs::exists(output_)) << c.arguments;
    }
}

TEST_F(ToolTest, AFailedRunLeavesAnExistingOutputUntouched) {
    writeFile(output_, "precious");
    ToolRun r = runTool(input_ + " " + output_ + " lowpass 4 30000");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(slurp(output_), "precious");
    // A truncated input fails after the output was started: still untouched.
    std::string bytes = waveBytes(44100, 2, signal_);
    std::string truncated = tempPath("truncated.wav");
    writeFile(truncated, bytes.substr(0, bytes.size() / 2));
    r = runTool(truncated + " " + output_ + " gain 1");
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("ends early"), std::string::npos) << r.err;
    EXPECT_EQ(slurp(output_), "precious");
    // No temporary files are left behind.
    for (const auto& entry : fs::directory_iterator(tempDir())) {
        EXPECT_EQ(entry.path().filename().string().find(".part"), std::string::npos)
            << entry.path();
    }
}

} // namespace

#endif // DSP_TOOL_PATH && !_WIN32
