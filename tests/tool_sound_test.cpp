// End-to-end tests of how the `dsp` tool drives the processors for sound:
// fades that begin and end in digital silence, the cross-fade curves, the
// clip warning and --no-clip, and the level the envelope reports.
#include "dsp.h"

#include "support/signals.h"
#include "support/tool_run.h"
#include "support/wavefile_test_files.h"

#if defined(DSP_TOOL_PATH) && defined(DSP_TOOL_FORMATS) && !defined(_WIN32)

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kRate = 44100;

using dsptest::runTool;
using dsptest::scratchPath;
using dsptest::ToolRun;
using dsptest::words;

// A 16-bit file of interleaved samples given at full scale 1.0.
void writeWave16(const std::string& path, uint16_t channels, const std::vector<float>& x) {
    std::vector<int16_t> s(x.size());
    for (size_t i = 0; i < x.size(); ++i) {
        s[i] = static_cast<int16_t>(std::lround(x[i] * 32767.0));
    }
    dsptest::writeFileBytes(path, dsptest::pcm16Wave(channels, kRate, s));
}

std::vector<float> readAudio(const std::string& path) {
    return dsptest::readAudio(path).floats();
}

std::vector<float> sine(uint16_t channels, double seconds, double hz, double amplitude,
                        double phase = 0.0) {
    std::vector<float> x(static_cast<size_t>(seconds * kRate) * channels);
    for (size_t i = 0; i < x.size(); ++i) {
        const size_t frame = i / channels;
        const double t = static_cast<double>(frame) / kRate;
        x[i] = static_cast<float>(amplitude * std::sin(2.0 * M_PI * hz * t + phase));
    }
    return x;
}

// RMS level in dB of interleaved samples [from, to) (frames).
double rmsDb(const std::vector<float>& x, uint32_t channels, size_t from, size_t to) {
    double sum = 0.0;
    for (size_t i = from * channels; i < to * channels; ++i) {
        sum += static_cast<double>(x[i]) * x[i];
    }
    return 10.0 * std::log10(sum / static_cast<double>((to - from) * channels));
}

// A fade: the library's fader ramps between 0 dB and -50 dB, and the frame
// before the fade-in and the one after the fade-out are digital silence; in
// between, exactly what the fader gives through the library's 16-bit path.
TEST(ToolSound, FadesBeginAndEndInDigitalSilence) {
    const std::string in = scratchPath("in.wav"), out = scratchPath("out.wav");
    const std::vector<float> x = sine(2, 1.0, 440.0, 0.5, 1.0);
    writeWave16(in, 2, x);
    ASSERT_EQ(runTool("--quiet " + in + " " + out + " fade 0.1 0.2").status, 0);
    const std::vector<float> a = readAudio(out);

    std::vector<int16_t> src(x.size()), expected(x.size());
    for (size_t i = 0; i < x.size(); ++i) {
        src[i] = static_cast<int16_t>(std::lround(x[i] * 32767.0));
    }
    const size_t frames = x.size() / 2;
    void* chain = dspCreate(4096, 2, kRate);
    void* fader = initFader(4096, 2, kRate, 0.0f, -50.0f, 0.0f);
    dspAdd(chain, fader, 1);
    setFaderAction(fader, 0, 1.5f / kRate, 0.1f, 0.0f);
    setFaderAction(fader, 0, 0.8f, static_cast<float>((frames - 0.5) / kRate), -50.0f);
    for (size_t at = 0; at < frames; at += 4096) {
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>(4096, frames - at));
        dspSend(chain, src.data() + 2 * at, expected.data() + 2 * at, n * 4);
    }
    dspDestroy(chain);
    for (size_t i : {size_t{0}, size_t{1}, x.size() - 2, x.size() - 1}) {
        EXPECT_NE(expected[i], 0) << i; // the fader alone ends at -50 dB
        expected[i] = 0;
    }
    ASSERT_EQ(a.size(), x.size());
    for (size_t i = 0; i < x.size(); ++i) {
        ASSERT_EQ(std::nearbyint(a[i] * 32767.0f), expected[i]) << i;
    }
    // The same in float, the faded ends exactly 0.0.
    ASSERT_EQ(runTool("--quiet --bits float " + in + " " + out + " fade 0.1 0.2").status, 0);
    const std::vector<float> f = readAudio(out);
    EXPECT_EQ(f[0], 0.0f);
    EXPECT_EQ(f[1], 0.0f);
    EXPECT_EQ(f[x.size() - 2], 0.0f);
    EXPECT_EQ(f[x.size() - 1], 0.0f);
    EXPECT_NE(f[x.size() - 4], 0.0f);
}

// The middle of the overlap keeps the level: equal gain for correlated
// (identical) inputs, equal power, the default, for uncorrelated noise;
// equal power raises correlated material by 3 dB there.
TEST(ToolSound, CrossfadeCurvesKeepTheLevelInTheMiddle) {
    const std::string a = scratchPath("a.wav"), b = scratchPath("b.wav"),
                      out = scratchPath("out.wav");
    const size_t frames = kRate; // 1 s each, 0.5 s overlap: the middle at 0.75 s
    const size_t middle = frames * 3 / 4, window = kRate / 20;
    struct Case {
        std::vector<float> a, b;
        std::string curve;
        double expectedDb; // at the middle, relative to the inputs
    };
    const std::vector<float> tone = sine(2, 1.0, 440.0, 0.3);
    const std::vector<float> noiseA = dsptest::noise(2 * frames, 1, 0.4f),
                             noiseB = dsptest::noise(2 * frames, 2, 0.4f);
    const Case cases[] = {
        {tone, tone, "--curve equal-gain", 0.0},
        {noiseA, noiseB, "", 0.0},
        {tone, tone, "--curve equal-power", 3.01},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.curve);
        writeWave16(a, 2, c.a);
        writeWave16(b, 2, c.b);
        ToolRun r = runTool(words({"--quiet crossfade", a, b, out, "0.5", c.curve}));
        ASSERT_EQ(r.status, 0) << r.err;
        const std::vector<float> o = readAudio(out);
        ASSERT_EQ(o.size(), 2 * (frames + frames / 2));
        const double inputDb = (rmsDb(c.a, 2, 0, frames) + rmsDb(c.b, 2, 0, frames)) / 2.0;
        EXPECT_NEAR(rmsDb(o, 2, middle - window / 2, middle + window / 2) - inputDb, c.expectedDb,
                    0.5);
    }
}

// Integer output: a clipped sample is counted in one warning with the peak
// the float output has; --no-clip scales that float output down to full
// scale as a whole (in memory or through a temporary file) instead.
TEST(ToolSound, ClippingIsReportedOrScaledAway) {
    const std::string in = scratchPath("in.wav"), out = scratchPath("out.wav");
    std::vector<float> x = sine(2, 1.0, 440.0, 0.5);
    const std::vector<float> hiss = dsptest::noise(x.size(), 3, 0.05f);
    for (size_t i = 0; i < x.size(); ++i) {
        x[i] += hiss[i];
    }
    writeWave16(in, 2, x);
    ASSERT_EQ(runTool("--quiet --bits float " + in + " " + out + " gain 12").status, 0);
    const std::vector<float> loud = readAudio(out);
    float peak = 0.0f;
    size_t clipped = 0;
    for (float v : loud) {
        peak = std::max(peak, std::fabs(v));
        clipped += std::fabs(v) > 1.0f ? 1 : 0;
    }
    ASSERT_GT(clipped, 1000u);

    ToolRun r = runTool("--quiet --bits float " + in + " " + out + " gain 12");
    EXPECT_EQ(r.err, ""); // float output does not clip
    r = runTool("--quiet " + in + " " + out + " gain 12");
    ASSERT_EQ(r.status, 0);
    char warning[256];
    std::snprintf(warning, sizeof warning,
                  "dsp: warning: '%s': %zu samples clipped (the peak would have been %+.1f "
                  "dBFS); --no-clip scales the whole output down instead\n",
                  out.c_str(), clipped, 20.0 * std::log10(peak));
    EXPECT_EQ(r.err, warning);

    for (const char* memory : {"", "DSP_NO_CLIP_MEMORY=1000"}) {
        SCOPED_TRACE(memory);
        r = runTool(words({"--quiet --no-clip", in, out, "gain 12"}), {memory, "", ""});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        const std::vector<float> a = readAudio(out);
        ASSERT_EQ(a.size(), loud.size());
        float top = 0.0f;
        for (size_t i = 0; i < loud.size(); ++i) {
            top = std::max(top, std::fabs(a[i]));
            // The library's 16-bit rule: x 32767 toward zero.
            ASSERT_NEAR(a[i] * 32767.0f, std::trunc(loud[i] / peak * 32767.0f), 1.0f) << i;
        }
        EXPECT_EQ(top, 1.0f);
        EXPECT_EQ(std::distance(fs::directory_iterator(scratchPath()), fs::directory_iterator()), 4)
            << "only in.wav, out.wav, stdout.txt and stderr.txt";
    }
}

// A sine of -6 dBFS reads -6.0 dB, after the first step (where the
// follower's filter overshoots as it settles), in text and in CSV.
TEST(ToolSound, EnvelopeReadsASineAtItsLevel) {
    const std::string in = scratchPath("in.wav");
    writeWave16(in, 1, sine(1, 1.0, 1000.0, 0.5));
    for (const char* csv : {"", " --csv"}) {
        SCOPED_TRACE(csv);
        ToolRun r = runTool("envelope " + in + csv);
        ASSERT_EQ(r.status, 0) << r.err;
        std::istringstream lines(r.out);
        std::string line;
        std::getline(lines, line);
        EXPECT_NE(line.find(*csv ? "time_s,mono_db" : "relative to a full-scale sine"),
                  std::string::npos)
            << line;
        std::getline(lines, line); // the first step
        int rows = 0;
        while (std::getline(lines, line)) {
            double t = 0.0, db = 0.0;
            ASSERT_EQ(std::sscanf(line.c_str(), *csv ? "%lf,%lf" : "%lf s %lf", &t, &db), 2)
                << line;
            EXPECT_NEAR(db, -6.02, 0.1) << line;
            ++rows;
        }
        EXPECT_EQ(rows, 9);
    }
}

} // namespace

#endif
