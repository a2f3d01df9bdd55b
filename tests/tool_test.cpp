// End-to-end tests of the `dsp` command-line tool: it is run on files made
// here, and its output is compared byte for byte with the same processing
// done through the library's C interface directly.
#include "dsp.h"

#include "support/tool_run.h"
#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#if defined(DSP_TOOL_PATH) && defined(DSP_TOOL_FORMATS) && !defined(_WIN32)

namespace {

namespace fs = std::filesystem;
using dsptest::Bytes;
using dsptest::runTool;
using dsptest::scratchPath;
using dsptest::ToolRun;

const uint32_t kBlock = 4096;

Bytes waveBytes(uint32_t rate, uint16_t channels, const std::vector<int16_t>& samples) {
    return dsptest::pcm16Wave(channels, rate, samples);
}

const auto writeFile = dsptest::writeFileBytes;

// A 16-bit output's samples (the format checked).
std::vector<int16_t> readInt16(const std::string& path) {
    const dsptest::Decoded d = dsptest::readAudio(path);
    EXPECT_EQ(d.format.type, cli::SampleType::kInt16) << path;
    std::vector<int16_t> s(d.samples.size() / 2);
    std::memcpy(s.data(), d.samples.data(), d.samples.size());
    return s;
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
// (`build` returns the one processor to add, or adds its own and returns
// null) with blocks of `block` frames, from the 44100 Hz stereo input. With a rate
// change whose cycles the block holds whole (exactFrames > 0), the last
// block is padded with silence and the output cut at exactFrames frames.
std::vector<int16_t> viaLibrary(const std::vector<int16_t>& input,
                                const std::function<void*(void* chain)>& build,
                                uint32_t block = kBlock, size_t exactFrames = 0) {
    void* chain = dspCreate(block, 2, 44100);
    if (void* processor = build(chain)) {
        dspAdd(chain, processor, 1);
    }
    std::vector<int16_t> out, dst(2 * dspGetDstSize(chain, block * 4) + 1024);
    std::vector<int16_t> src(size_t{block} * 2);
    for (size_t at = 0; at < input.size() / 2; at += block) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(block, input.size() / 2 - at));
        std::fill(src.begin(), src.end(), 0);
        std::copy_n(input.begin() + static_cast<std::ptrdiff_t>(at * 2), n * 2, src.begin());
        uint32_t bytes = dspSend(chain, src.data(), dst.data(), (exactFrames > 0 ? block : n) * 4);
        out.insert(out.end(), dst.begin(), dst.begin() + bytes / 2);
    }
    if (exactFrames > 0) {
        EXPECT_GE(out.size(), exactFrames * dspGetDstChannels(chain));
        out.resize(exactFrames * dspGetDstChannels(chain));
    }
    dspDestroy(chain);
    return out;
}

// The resampler's low-pass as the tool sets it up: 60 dB down at the lower
// rate's Nyquist frequency, its pass band ending at 0.9 of it.
const float kResampleSlope = static_cast<float>(60.0 / -std::log2(0.9));

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(input_, waveBytes(44100, 2, signal_));
        std::remove(output_.c_str());
    }
    std::string effectArgs(const std::string& effects) const {
        return input_ + " " + output_ + " " + effects;
    }
    std::string input_ = scratchPath("input.wav");
    std::string output_ = scratchPath("output.wav");
    std::vector<int16_t> signal_ = testSignal(44100, 2, 1.3);
};

// Each effect through the tool and through the library: the same bytes.
TEST_F(ToolTest, EffectsMatchTheLibrary) {
    // Whole cycles of 44100 -> 48000 Hz: 3969 frames in, 4320 out; 1.3 s give
    // 57330 frames in, exactly 62400 out (28665 at 22050 Hz).
    struct EffectCase {
        std::string arguments;
        uint32_t rate;
        std::function<void*(void* chain)> build;
        uint32_t block = kBlock;
        size_t exactFrames = 0;
    };
    const std::vector<EffectCase> cases = {
        {"highpass 3 500", 44100,
         [](void*) { return initIirFilter(kBlock, 2, 44100, 3, 500.0f, 1); }},
        // Halving the rate needs no pass band equaliser (the tool's own stage
        // before the resampler where the output falls between source frames).
        {"resample 22050 linear --passband 0.5", 22050,
         [](void*) { return initResampler(kBlock, 2, 2, 44100, 22050, 0, 60.0f, 60.0f, 1); },
         kBlock, 28665},
        {"hqups 0.5 40 active", 48000,
         [](void*) {
             return initHqupsBySrcsize(3969, 2, 2, 44100, 0.5f, 40.0f, 5000, 1, 60.0f, 60.0f, 1, 1);
         },
         3969, 62400},
        {"chorus 2 15 3 0.5 50 80", 44100,
         [](void*) { return initChorus(kBlock, 2, 44100, 2, 15.0f, 3.0f, 0.5f, 50.0f, 80.0f); }},
        {"pitch -300 --grain 0.05 --spacing 0.01", 44100,
         [](void*) { return initPitchShift(kBlock, 2, 44100, -300.0f, 0.0f, 0.05f, 0.01f); }},
        {"tempo 1.25", 44100,
         [](void*) {
             float scale = static_cast<float>(1000.0 * std::log2(1.25));
             return initStretch(kBlock, 2, 44100, scale, 0.0f, 0.2f, 0.1f);
         }},
        {"gain -6", 44100, [](void*) { return initFader(kBlock, 2, 44100, 0.0f, -6.0f, 0.0f); }},
        // Default settings, and a chain after a rate change.
        {"hqups lowpass 2 8000 chorus", 48000,
         [](void* c) {
             dspAdd(c,
                    initHqupsBySrcsize(3969, 2, 2, 44100, 0.3f, 50.0f, 5000, 1, 60.0f, 60.0f, 0, 1),
                    1);
             dspAdd(c, initIirFilter(4320, 2, 48000, 2, 8000.0f, 0), 2);
             dspAdd(c, initChorus(4320, 2, 48000, 3, 20.0f, 2.0f, 1.5f, 30.0f, 100.0f), 3);
             return static_cast<void*>(nullptr);
         },
         3969, 62400},
    };
    for (const EffectCase& e : cases) {
        SCOPED_TRACE(e.arguments);
        ToolRun r = runTool("--quiet " + effectArgs(e.arguments));
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(dsptest::readAudio(output_).format.rate, e.rate);
        EXPECT_TRUE(readInt16(output_) == viaLibrary(signal_, e.build, e.block, e.exactFrames));
    }
}

// A mono 16-bit tone of `frames` frames at 44100 Hz, -6 dBFS.
std::vector<int16_t> toneSamples(double hz, size_t frames) {
    std::vector<int16_t> s(frames);
    for (size_t i = 0; i < s.size(); ++i) {
        double t = static_cast<double>(i) / 44100;
        s[i] = static_cast<int16_t>(std::lround(16384.0 * std::sin(2 * M_PI * hz * t)));
    }
    return s;
}

// The amplitude in dB of a mono signal's component at `hz` (a Hann-windowed
// DFT over whole seconds, 0.5 s from each end).
double levelDb(const std::vector<int16_t>& s, uint32_t rate, double hz) {
    const size_t skip = rate / 2, n = (s.size() - 2 * skip) / rate * rate;
    std::complex<double> sum = 0.0;
    double weight = 0.0;
    for (size_t i = 0; i < n; ++i) {
        double hann = 0.5 - 0.5 * std::cos(2 * M_PI * static_cast<double>(i) / n);
        sum += hann * s[skip + i] * std::polar(1.0, -2 * M_PI * hz * static_cast<double>(i) / rate);
        weight += hann;
    }
    return 20 * std::log10(2 * std::abs(sum) / weight / 32768.0);
}

// The output length is the exact share of the input's, across blocks and
// for every kind of last block; a 600 s file included.
TEST_F(ToolTest, ResampledLengthIsExact) {
    struct LengthCase {
        uint32_t to;
        size_t frames;
    };
    // 3969 frames (27 cycles of 147) are one block; 3381 is a whole number
    // of cycles the resampler would count one short.
    const LengthCase cases[] = {{48000, 1},
                                {48000, 146},
                                {48000, 3381},
                                {48000, 3969},
                                {48000, 3969 * 13 + 3381},
                                {22050, 4097},
                                {32000, 44100 * 3 + 7}};
    for (const LengthCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.frames) + " frames to " + std::to_string(c.to));
        writeFile(input_, waveBytes(44100, 1, toneSamples(1000, c.frames)));
        ASSERT_EQ(runTool("--quiet " + effectArgs("resample " + std::to_string(c.to))).status, 0);
        EXPECT_EQ(readInt16(output_).size(), static_cast<uint64_t>(c.frames) * c.to / 44100);
    }
    // 600 s of silence (a sparse file) at 44100 Hz: exactly 600 s at 48000 Hz.
    const uint32_t dataBytes = 600 * 44100 * 2;
    Bytes header = waveBytes(44100, 1, {});
    const Bytes riffSize = dsptest::le(static_cast<uint32_t>(header.size() - 8 + dataBytes), 4);
    const Bytes dataSize = dsptest::le(dataBytes, 4);
    std::copy(riffSize.begin(), riffSize.end(), header.begin() + 4);
    std::copy(dataSize.begin(), dataSize.end(), header.end() - 4);
    writeFile(input_, header);
    fs::resize_file(input_, header.size() + dataBytes);
    ToolRun r = runTool(effectArgs("resample 48000"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("(28800000 frames)"), std::string::npos) << r.out;
    std::remove(input_.c_str());
    std::remove(output_.c_str());
}

// Restarting the interpolation at every 4096-frame chunk puts sidebands at
// the block rate beside a tone (about -46 dB); blocks of whole cycles of the
// two rates leave none above the noise. --verbose tells the block chosen.
TEST_F(ToolTest, ResampledToneHasNoBlockRateSidebands) {
    const std::vector<int16_t> tone = toneSamples(1000, 6 * 44100);
    writeFile(input_, waveBytes(44100, 1, tone));
    ToolRun r = runTool("--quiet --verbose " + effectArgs("resample 48000"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("blocks of 3969 frames"), std::string::npos) << r.err;
    const std::vector<int16_t> tool = readInt16(output_);
    // The same resampler driven with 4096-frame blocks.
    void* chain = dspCreate(kBlock, 1, 44100);
    dspAdd(chain, initResampler(kBlock, 1, 1, 44100, 48000, 1, 60.0f, kResampleSlope, 1), 1);
    std::vector<int16_t> chunked, dst(2 * kBlock);
    for (size_t at = 0; at < tone.size(); at += kBlock) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(kBlock, tone.size() - at));
        uint32_t bytes = dspSend(chain, tone.data() + at, dst.data(), 2 * n);
        chunked.insert(chunked.end(), dst.begin(), dst.begin() + bytes / 2);
    }
    dspDestroy(chain);
    auto sideband = [](const std::vector<int16_t>& s, double hz) {
        return levelDb(s, 48000, hz) - levelDb(s, 48000, 1000);
    };
    // At the rate of 4096-frame blocks, and at that of the tool's blocks.
    for (double blockHz : {44100.0 / 4096, 44100.0 / 3969}) {
        for (double side : {1000.0 - blockHz, 1000.0 + blockHz}) {
            SCOPED_TRACE(side);
            EXPECT_GT(blockHz < 11 ? sideband(chunked, side) : 0.0, -50.0);
            EXPECT_LT(sideband(tool, side), -90.0);
        }
    }
}

// The whole resample effect is flat from 0 Hz to 0.9 of the lower Nyquist
// frequency: the low-pass's pass band reaches there and the tool's
// equaliser makes up for the interpolation's droop (without it, cubic is
// 3.8 dB and linear 6.2 dB down at 0.45 of 44100 Hz; halving the rate puts
// every output frame on a source frame, where the kernel is flat). What is
// left is the low-pass's 0.1 dB ripple. The old shape (--passband 0.5)
// removes a tone there.
TEST_F(ToolTest, ResamplePassBandReachesNineTenthsOfNyquist) {
    struct BandCase {
        std::string arguments;
        uint32_t from, to;
        double lo, hi; // the output's level relative to the input's, dB
    };
    const BandCase cases[] = {{"resample 48000", 44100, 48000, -0.25, 0.25},
                              {"resample 44100", 48000, 44100, -0.25, 0.25},
                              {"resample 22050", 44100, 22050, -0.25, 0.25},
                              {"resample 48000 linear", 44100, 48000, -0.25, 0.25},
                              {"resample 48000 --passband 0.5", 44100, 48000, -200, -50}};
    for (const BandCase& c : cases) {
        const double edge = 0.9 * std::min(c.from, c.to) / 2;
        for (double fraction : {0.05, 0.3, 0.6, 0.8, 0.9, 0.97, 1.0}) {
            if (c.hi < 0 && fraction < 1.0) {
                continue; // the stop case: only at the edge
            }
            const double hz = fraction * edge;
            SCOPED_TRACE(c.arguments + " from " + std::to_string(c.from) + " Hz at " +
                         std::to_string(hz) + " Hz");
            // toneSamples counts 44100 frames a second.
            std::vector<int16_t> tone = toneSamples(hz * 44100 / c.from, 3 * size_t{c.from});
            writeFile(input_, waveBytes(c.from, 1, tone));
            ASSERT_EQ(runTool("--quiet " + effectArgs(c.arguments)).status, 0);
            const double level = levelDb(readInt16(output_), c.to, hz) - levelDb(tone, c.from, hz);
            EXPECT_GT(level, c.lo);
            EXPECT_LT(level, c.hi);
        }
    }
}

// Stereo to mono is the average of the two channels: left = right gives
// what the mono signal gives, left = -right silence (float output, so that
// both go the same way).
TEST_F(ToolTest, ResampleToMonoAveragesTheChannels) {
    const std::vector<int16_t> mono = toneSamples(440, 20000);
    std::vector<int16_t> same(2 * mono.size()), opposite(2 * mono.size());
    for (size_t i = 0; i < mono.size(); ++i) {
        same[2 * i] = same[2 * i + 1] = opposite[2 * i] = mono[i];
        opposite[2 * i + 1] = static_cast<int16_t>(-mono[i]);
    }
    auto resampled = [&](uint16_t channels, const std::vector<int16_t>& samples,
                         const std::string& effects) {
        writeFile(input_, waveBytes(44100, channels, samples));
        EXPECT_EQ(runTool("--quiet --bits float " + effectArgs(effects)).status, 0);
        return dsptest::fileText(output_);
    };
    EXPECT_EQ(resampled(2, same, "resample 48000 mono"), resampled(1, mono, "resample 48000"));
    EXPECT_EQ(resampled(2, opposite, "gain 0 resample 48000 mono"),
              resampled(1, std::vector<int16_t>(mono.size()), "resample 48000"));
}

TEST_F(ToolTest, InfoReportsFormatLengthAndLevels) {
    std::vector<int16_t> s(2 * 44100, 0);
    s[100] = -16384; // left peak at -6 dBFS
    s[201] = 32767;
    writeFile(input_, waveBytes(44100, 2, s));
    ToolRun r = runTool("info " + input_);
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char* line :
         {"44100 Hz, stereo", "1.000 s (44100 frames)", "left      peak -6.0 dBFS (-16384)",
          "right     peak -0.0 dBFS (32767)"}) {
        EXPECT_NE(r.out.find(line), std::string::npos) << r.out;
    }
}

TEST_F(ToolTest, SpectrumCsvIsTheAnalyzerOutputRelativeToFullScale) {
    ToolRun r = runTool("spectrum " + input_ + " --size 1024 --at 0.1 --csv");
    ASSERT_EQ(r.status, 0) << r.err;
    // The analyzer's dB are relative to a full-scale sine's peak bin, N / 4.
    void* fft = initFft(1024, 2, 2, 120);
    std::vector<float> db(1024);
    doFft(fft, signal_.data() + 2 * 4410, db.data(), 1024 * 4);
    termFft(fft);
    std::istringstream lines(r.out);
    std::string line;
    ASSERT_TRUE(std::getline(lines, line) && line == "frequency_hz,left_db,right_db") << r.out;
    const double reference = 20.0 * std::log10(256.0);
    for (int k = 0; k < 512; ++k) {
        ASSERT_TRUE(std::getline(lines, line)) << k;
        double hz, left, right;
        ASSERT_EQ(std::sscanf(line.c_str(), "%lf,%lf,%lf", &hz, &left, &right), 3) << line;
        EXPECT_NEAR(hz, k * 44100.0 / 1024, 1e-3);
        EXPECT_NEAR(left, db[k] - reference, 0.006) << k;
        EXPECT_NEAR(right, db[512 + k] - reference, 0.006) << k;
    }
}

// Every slice listed is split into its own file.
TEST_F(ToolTest, SlicesAreListedAndSplit) {
    std::string dir = scratchPath("slices");
    fs::remove_all(dir);
    ToolRun r = runTool("slices " + input_ + " --split " + dir + " --csv");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("index,start_s,end_s\n", 0), 0u);
    const auto rows = std::count(r.out.begin(), r.out.end(), '\n');
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), rows - 1);
}

// The main job: 4 s of demo material resampled to 48000 Hz with a report.
TEST_F(ToolTest, DemoRunsAndReports) {
    std::string out = scratchPath("demo.wav");
    ToolRun r = runTool("demo " + out);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("resample 44100 -> 48000 Hz cubic"), std::string::npos) << r.out;
    const dsptest::Decoded d = dsptest::readAudio(out);
    EXPECT_EQ(d.format.rate, 48000u);
    EXPECT_EQ(d.samples.size(), 4u * 4 * 48000);
}

// Errors: one line naming the problem, the right status, and no output: none
// created, an existing one untouched, no temporary file left behind. A
// truncated input fails only after the output was started. (Malformed headers:
// tool_formats_test.cpp.)
TEST_F(ToolTest, ErrorsGiveOneLineAndTheRightStatusAndWriteNothing) {
    const std::string text = scratchPath("text.wav"), truncated = scratchPath("truncated.wav");
    writeFile(text, {'t', 'e', 'x', 't'});
    const Bytes whole = waveBytes(44100, 2, signal_);
    writeFile(truncated, Bytes(whole.begin(), whole.begin() + whole.size() / 2));
    auto gain = [&](const std::string& in) { return in + " " + output_ + " gain 1"; };
    const struct {
        std::string arguments;
        int status;
        std::string message;
    } cases[] = {
        {gain(scratchPath("missing.wav")), 1, "cannot open"},
        {gain(text), 1, "not a RIFF WAVE"},
        {gain(scratchPath()), 1, "is a directory"},
        {gain(truncated), 1, "ends early"},
        {effectArgs("reverb 3"), 2, "unknown effect 'reverb'"},
        {input_, 2, "expected IN.wav OUT.wav"},
        {effectArgs("lowpass 4"), 2, "lowpass: missing argument"},
        {effectArgs("chorus 2 15 3 0.5 50 80 9"), 2,
         "chorus: too many arguments ('9'); usage: chorus"},
        {effectArgs("lowpass 4 30000"), 2, "below half the sample rate"},
        {effectArgs("gain loud"), 2, "DB must be a number"},
        {effectArgs("gain 3 --grain 0.1"), 2, "gain: unknown option '--grain'"},
        {effectArgs("tempo 1.1 --spacing 0.3 --grain 0.2"), 2, "must not exceed --grain"},
        {effectArgs("pitch 100 --grain"), 2, "--grain needs a value"},
        {input_ + " " + input_ + " gain 1", 2, "is the input file"},
        {input_ + " " + scratchPath("no/such/dir/out.wav") + " gain 1", 1, "no directory"},
        {"crossfade " + input_ + " " + input_ + " " + output_ + " 5", 2, "longer than"},
        {"", 2, "nothing to do"},
    };
    for (const auto& c : cases) {
        for (bool existing : {false, true}) {
            if (existing) {
                writeFile(output_, {'k', 'e', 'e', 'p'});
            }
            ToolRun r = runTool(c.arguments);
            EXPECT_EQ(r.status, c.status) << c.arguments << "\n" << r.err;
            EXPECT_NE(r.err.find(c.message), std::string::npos) << c.arguments << "\n" << r.err;
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << c.arguments;
            EXPECT_EQ(r.err.rfind("dsp: ", 0), 0u) << r.err;
            if (existing) {
                EXPECT_EQ(dsptest::fileText(output_), "keep") << c.arguments;
                std::remove(output_.c_str());
            } else {
                EXPECT_FALSE(fs::exists(output_)) << c.arguments;
            }
        }
    }
    for (const auto& entry : fs::directory_iterator(scratchPath())) {
        EXPECT_EQ(entry.path().filename().string().find(".part"), std::string::npos)
            << entry.path();
    }
}

} // namespace

#endif // DSP_TOOL_PATH && DSP_TOOL_FORMATS && !_WIN32
