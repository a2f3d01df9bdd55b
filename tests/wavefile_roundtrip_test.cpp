// Round trips with outside tools: files the writer makes are read by sox and
// by Python's wave module, and files they make are read by the reader. Skipped
// where the tools are missing.
#include "dsp.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace {

using dsptest::Bytes;

const char* const kPythonTool = R"(import sys, wave
mode, wav, raw = sys.argv[1], sys.argv[2], sys.argv[3]
if mode == "read":
    with wave.open(wav, "rb") as w:
        frames = w.readframes(w.getnframes())
        with open(sys.argv[4], "w") as info:
            info.write("%d %d %d %d\n" % (w.getnchannels(), w.getsampwidth(),
                                          w.getframerate(), w.getnframes()))
    with open(raw, "wb") as out:
        out.write(frames)
else:
    with wave.open(wav, "wb") as w:
        w.setnchannels(int(sys.argv[4]))
        w.setsampwidth(2)
        w.setframerate(int(sys.argv[5]))
        with open(raw, "rb") as src:
            w.writeframes(src.read())
)";

WavefileFormat pcmFormat(uint16_t channels, uint32_t rate) {
    WavefileFormat f;
    f.formatTag = 1;
    f.channels = channels;
    f.samplesPerSecond = rate;
    f.avgBytesPerSecond = rate * 2u * channels;
    f.blockAlign = static_cast<uint16_t>(2 * channels);
    f.bitsPerSample = 16;
    f.extraSize = 0;
    return f;
}

std::string shellQuoted(const std::string& path) {
    return "'" + path + "'";
}

std::string readText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeWithLibrary(const std::string& path, const WavefileFormat& f, const Bytes& samples) {
    void* h = initWavefileOut(path.c_str(), &f);
    // Odd-sized pieces, as a host's blocks may come.
    size_t at = 0;
    while (at < samples.size()) {
        size_t n = std::min<size_t>(12345, samples.size() - at);
        ASSERT_EQ(writeWavefileOut(h, &samples[at], static_cast<int32_t>(n)),
                  static_cast<int32_t>(n));
        at += n;
    }
    ASSERT_EQ(termWavefileOut(h), samples.size());
}

// Everything the reader delivers from the first sample up to dataBytes.
Bytes readWithLibrary(const std::string& path, WavefileFormat& format) {
    void* h = initWavefileIn(path.c_str(), 1000);
    EXPECT_NE(h, nullptr);
    format = *getFormatWavefileIn(h);
    const WavefileHeader* header = getHeaderWavefileIn(h);
    Bytes got;
    int32_t n = 0;
    while (got.size() < header->dataBytes && (n = readWavefileIn(h, nullptr, 1000)) > 0) {
        got.insert(got.end(), header->buffer, header->buffer + n);
    }
    if (got.size() > header->dataBytes) {
        got.resize(header->dataBytes);
    }
    termWavefileIn(h);
    return got;
}

class WavefileSoxRoundTrip : public ::testing::Test {
protected:
    void SetUp() override {
        if (!dsptest::commandAvailable("sox")) {
            GTEST_SKIP() << "sox is not installed";
        }
    }
};

TEST_F(WavefileSoxRoundTrip, SoxReadsWhatTheWriterWrites) {
    for (uint16_t channels : {1, 2}) {
        std::string wav = dsptest::wavefileTempPath("sox_in.wav");
        std::string raw = dsptest::wavefileTempPath("sox_in.raw");
        std::string info = dsptest::wavefileTempPath("sox_in.txt");
        Bytes samples = dsptest::patternSamples(2u * channels * 30011u, channels);
        writeWithLibrary(wav, pcmFormat(channels, 32000), samples);
        ASSERT_TRUE(dsptest::runCommand("sox -V1 " + shellQuoted(wav) +
                                        " -t raw -e signed-integer -b 16 " + shellQuoted(raw)));
        EXPECT_EQ(dsptest::readFileBytes(raw), samples);
        ASSERT_TRUE(dsptest::runCommand("sox --i -r " + shellQuoted(wav) + " > " +
                                        shellQuoted(info) + " && sox --i -c " + shellQuoted(wav) +
                                        " >> " + shellQuoted(info)));
        EXPECT_EQ(readText(info), "32000\n" + std::to_string(channels) + "\n");
        std::remove(wav.c_str());
        std::remove(raw.c_str());
        std::remove(info.c_str());
    }
}

TEST_F(WavefileSoxRoundTrip, ReaderReadsWhatSoxWrites) {
    // Stereo gets the plain 16-byte format; three channels make sox write the
    // 40-byte extensible one.
    for (uint16_t channels : {2, 3}) {
        std::string wav = dsptest::wavefileTempPath("sox_out.wav");
        std::string raw = dsptest::wavefileTempPath("sox_out.raw");
        Bytes samples = dsptest::patternSamples(2u * channels * 22050u, 40u + channels);
        dsptest::writeFileBytes(raw, samples);
        ASSERT_TRUE(dsptest::runCommand("sox -V1 -t raw -r 22050 -e signed-integer -b 16 -c " +
                                        std::to_string(channels) + " " + shellQuoted(raw) + " " +
                                        shellQuoted(wav)));
        WavefileFormat format{};
        EXPECT_EQ(readWithLibrary(wav, format), samples);
        EXPECT_EQ(format.channels, channels);
        EXPECT_EQ(format.samplesPerSecond, 22050u);
        EXPECT_EQ(format.bitsPerSample, 16);
        EXPECT_EQ(format.blockAlign, 2 * channels);
        // The extensible format comes with a "fact" chunk before "data".
        EXPECT_EQ(format.formatTag, channels == 3 ? 0xFFFE : 1);
        EXPECT_EQ(format.extraSize, channels == 3 ? 22 : 0);
        void* h = initWavefileIn(wav.c_str(), 16);
        EXPECT_EQ(dsptest::wavefileSeconds(h), 1.0f);
        termWavefileIn(h);
        std::remove(wav.c_str());
        std::remove(raw.c_str());
    }
}

class WavefilePythonRoundTrip : public ::testing::Test {
protected:
    void SetUp() override {
        if (!dsptest::commandAvailable("python3")) {
            GTEST_SKIP() << "python3 is not installed";
        }
        // One script per test: ctest runs tests in parallel processes.
        script_ = dsptest::wavefileTempPath(
            std::string("python_tool_") +
            ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".py");
        std::ofstream(script_) << kPythonTool;
    }
    void TearDown() override { std::remove(script_.c_str()); }
    std::string script_;
};

TEST_F(WavefilePythonRoundTrip, PythonReadsWhatTheWriterWrites) {
    std::string wav = dsptest::wavefileTempPath("py_in.wav");
    std::string raw = dsptest::wavefileTempPath("py_in.raw");
    std::string info = dsptest::wavefileTempPath("py_in.txt");
    Bytes samples = dsptest::patternSamples(4u * 44100u + 4000u, 77);
    writeWithLibrary(wav, pcmFormat(2, 44100), samples);
    ASSERT_TRUE(dsptest::runCommand("python3 " + shellQuoted(script_) + " read " +
                                    shellQuoted(wav) + " " + shellQuoted(raw) + " " +
                                    shellQuoted(info)));
    EXPECT_EQ(dsptest::readFileBytes(raw), samples);
    EXPECT_EQ(readText(info), "2 2 44100 45100\n");
    std::remove(wav.c_str());
    std::remove(raw.c_str());
    std::remove(info.c_str());
}

TEST_F(WavefilePythonRoundTrip, ReaderReadsWhatPythonWrites) {
    std::string wav = dsptest::wavefileTempPath("py_out.wav");
    std::string raw = dsptest::wavefileTempPath("py_out.raw");
    Bytes samples = dsptest::patternSamples(2u * 48000u / 2u + 2u, 78);
    dsptest::writeFileBytes(raw, samples);
    ASSERT_TRUE(dsptest::runCommand("python3 " + shellQuoted(script_) + " write " +
                                    shellQuoted(wav) + " " + shellQuoted(raw) + " 1 48000"));
    WavefileFormat format{};
    EXPECT_EQ(readWithLibrary(wav, format), samples);
    EXPECT_EQ(format.formatTag, 1);
    EXPECT_EQ(format.channels, 1);
    EXPECT_EQ(format.samplesPerSecond, 48000u);
    EXPECT_EQ(format.avgBytesPerSecond, 96000u);
    EXPECT_EQ(format.extraSize, 0); // 16-byte "fmt ": no extra-size field
    void* h = initWavefileIn(wav.c_str(), 16);
    EXPECT_EQ(seekWavefileIn(h, 0, 1), 44);
    EXPECT_EQ(dsptest::wavefileSeconds(h), static_cast<float>(24001.0 / 48000.0));
    EXPECT_EQ(timeSeekWavefileIn(h, 0.5f, 0), 44 + 48000);
    termWavefileIn(h);
    std::remove(wav.c_str());
    std::remove(raw.c_str());
}

} // namespace
