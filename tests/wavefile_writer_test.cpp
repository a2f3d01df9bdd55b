// The WAVE writer through its C interface: the exact file layout, the sizes
// fixed at close and the provisional ones before, failed opens, and round
// trips with sox where it is installed.
#include "dsp.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

using dsptest::Bytes;

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

// The expected file: the fixed 46-byte header, then the samples and a pad.
Bytes expectedFile(const WavefileFormat& f, const Bytes& samples) {
    const uint8_t* record = reinterpret_cast<const uint8_t*>(&f);
    return dsptest::riffBytes(
        "WAVE", dsptest::joinBytes({dsptest::chunkBytes("fmt ", Bytes(record, record + 18)),
                                    dsptest::chunkBytes("data", samples)}));
}

// Everything the reader delivers from the first sample up to dataBytes.
Bytes readWithLibrary(const std::string& path, WavefileFormat& format) {
    void* h = initWavefileIn(path.c_str(), 1000);
    format = *getFormatWavefileIn(h);
    const WavefileHeader* header = getHeaderWavefileIn(h);
    Bytes got;
    int32_t n = 0;
    while (got.size() < header->dataBytes && (n = readWavefileIn(h, nullptr, 1000)) > 0) {
        got.insert(got.end(), header->buffer, header->buffer + n);
    }
    got.resize(std::min<size_t>(got.size(), header->dataBytes));
    termWavefileIn(h);
    return got;
}

class WavefileWriterTest : public ::testing::Test {
protected:
    void SetUp() override { path_ = dsptest::wavefileTempPath("writer.wav"); }
    void TearDown() override { std::remove(path_.c_str()); }
    std::string path_;
    WavefileFormat stereo_ = pcmFormat(2, 44100);
};

TEST_F(WavefileWriterTest, EmptyAndOddFilesHaveTheExactLayout) {
    void* h = initWavefileOut(path_.c_str(), &stereo_);
    EXPECT_EQ(termWavefileOut(h), 0u);
    Bytes file = dsptest::readFileBytes(path_);
    ASSERT_EQ(file.size(), 46u);
    EXPECT_EQ(dsptest::loadLe32(file, 4), 38u);
    EXPECT_EQ(file, expectedFile(stereo_, {}));
    // Odd data gets a pad byte, counted in the RIFF size.
    h = initWavefileOut(path_.c_str(), &stereo_);
    const uint8_t three[3] = {0x11, 0x22, 0x33};
    EXPECT_EQ(writeWavefileOut(h, three, 3), 3);
    EXPECT_EQ(termWavefileOut(h), 3u);
    file = dsptest::readFileBytes(path_);
    ASSERT_EQ(file.size(), 50u);
    EXPECT_EQ(dsptest::loadLe32(file, 4), 42u);
    EXPECT_EQ(file, expectedFile(stereo_, {0x11, 0x22, 0x33}));
}

TEST_F(WavefileWriterTest, FormatIsKeptExactlyAsPassed) {
    WavefileFormat f = stereo_;
    f.formatTag = 0xFFFE;
    f.avgBytesPerSecond = 12345; // inconsistent on purpose: not checked
    f.extraSize = 22;
    void* h = initWavefileOut(path_.c_str(), &f);
    ASSERT_NE(getFormatWavefileOut(h), nullptr);
    EXPECT_NE(getFormatWavefileOut(h), &f);
    EXPECT_EQ(std::memcmp(getFormatWavefileOut(h), &f, sizeof f), 0);
    termWavefileOut(h);
    EXPECT_EQ(dsptest::readFileBytes(path_), expectedFile(f, {}));
}

TEST_F(WavefileWriterTest, OddWritesAcrossBuffersLandInOrderAndSizesStayProvisional) {
    Bytes samples = dsptest::patternSamples(700001, 3);
    void* h = initWavefileOut(path_.c_str(), &stereo_);
    ASSERT_EQ(writeWavefileOut(h, samples.data(), 1000), 1000);
    EXPECT_EQ(flushWavefileOut(h), 1u);
    Bytes file = dsptest::readFileBytes(path_);
    ASSERT_EQ(file.size(), 1046u);
    EXPECT_EQ(dsptest::loadLe32(file, 4), 0u);
    EXPECT_EQ(dsptest::loadLe32(file, 42), 307200u);
    for (size_t at = 1000, piece = 1; at < samples.size(); at += piece, piece = piece * 3 + 7) {
        if (piece > 300000) {
            piece = 5;
            EXPECT_EQ(flushWavefileOut(h), 1u);
        }
        int32_t n = static_cast<int32_t>(std::min(piece, samples.size() - at));
        ASSERT_EQ(writeWavefileOut(h, &samples[at], n), n);
    }
    EXPECT_EQ(writeWavefileOut(h, samples.data(), 0), 0);
    EXPECT_EQ(writeWavefileOut(h, samples.data(), -5), -1);
    EXPECT_EQ(writeWavefileOut(h, nullptr, 5), -1);
    EXPECT_EQ(termWavefileOut(h), 700001u);
    EXPECT_EQ(dsptest::readFileBytes(path_), expectedFile(stereo_, samples));
    // And the reader gets it all back.
    WavefileFormat format{};
    EXPECT_EQ(readWithLibrary(path_, format), samples);
    EXPECT_EQ(std::memcmp(&format, &stereo_, sizeof format), 0);
}

TEST_F(WavefileWriterTest, FailedOpensStillGiveAHandleThatDoesNothing) {
    const uint8_t byte = 1;
    for (const char* path :
         {static_cast<const char*>(DSP_TEST_TMPDIR), "", static_cast<const char*>(nullptr)}) {
        void* h = initWavefileOut(path, &stereo_);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(writeWavefileOut(h, &byte, 1), 0);
        EXPECT_EQ(flushWavefileOut(h), 0u);
        EXPECT_EQ(std::memcmp(getFormatWavefileOut(h), &stereo_, sizeof stereo_), 0);
        EXPECT_EQ(termWavefileOut(h), 0u);
    }
    // Without a format there is nothing to write, and no file is created.
    void* h = initWavefileOut(path_.c_str(), nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(writeWavefileOut(h, &byte, 1), 0);
    EXPECT_EQ(termWavefileOut(h), 0u);
    EXPECT_EQ(std::fopen(path_.c_str(), "rb"), nullptr);
}

TEST_F(WavefileWriterTest, WriteBackFailuresAreReported) {
    std::FILE* probe = std::fopen("/dev/full", "r+b");
    if (probe == nullptr) {
        GTEST_SKIP() << "no /dev/full here";
    }
    std::fclose(probe);
    void* h = initWavefileOut("/dev/full", &stereo_);
    const uint8_t bytes[64] = {};
    EXPECT_EQ(writeWavefileOut(h, bytes, 64), 64); // still in the buffer
    EXPECT_EQ(flushWavefileOut(h), 0u);
    EXPECT_EQ(termWavefileOut(h), 0u);
}

#if !defined(_WIN32)
// Writes in odd-sized pieces, as a host's blocks may come.
void writeWithLibrary(const std::string& path, const WavefileFormat& f, const Bytes& samples) {
    void* h = initWavefileOut(path.c_str(), &f);
    for (size_t at = 0; at < samples.size(); at += 12345) {
        int32_t n = static_cast<int32_t>(std::min<size_t>(12345, samples.size() - at));
        ASSERT_EQ(writeWavefileOut(h, &samples[at], n), n);
    }
    ASSERT_EQ(termWavefileOut(h), samples.size());
}

bool run(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

bool available(const char* program) {
    return run(std::string("command -v ") + program + " >/dev/null 2>&1");
}

std::string readText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST_F(WavefileWriterTest, SoxRoundTrips) {
    if (!available("sox")) {
        GTEST_SKIP() << "sox is not installed";
    }
    std::string raw = dsptest::wavefileTempPath("sox.raw");
    std::string info = dsptest::wavefileTempPath("sox.txt");
    Bytes samples = dsptest::patternSamples(2u * 2u * 30011u, 2);
    writeWithLibrary(path_, pcmFormat(2, 32000), samples);
    ASSERT_TRUE(run("sox -V1 '" + path_ + "' -t raw -e signed-integer -b 16 '" + raw + "'"));
    EXPECT_EQ(dsptest::readFileBytes(raw), samples);
    ASSERT_TRUE(run("sox --i -r '" + path_ + "' > '" + info + "' && sox --i -c '" + path_ +
                    "' >> '" + info + "'"));
    EXPECT_EQ(readText(info), "32000\n2\n");
    // Three channels make sox write the 40-byte extensible format and a
    // "fact" chunk before "data".
    samples = dsptest::patternSamples(2u * 3u * 22050u, 43);
    dsptest::writeFileBytes(raw, samples);
    ASSERT_TRUE(
        run("sox -V1 -t raw -r 22050 -e signed-integer -b 16 -c 3 '" + raw + "' '" + path_ + "'"));
    WavefileFormat format{};
    EXPECT_EQ(readWithLibrary(path_, format), samples);
    EXPECT_EQ(format.formatTag, 0xFFFE);
    EXPECT_EQ(format.channels, 3);
    EXPECT_EQ(format.samplesPerSecond, 22050u);
    EXPECT_EQ(format.blockAlign, 6);
    EXPECT_EQ(format.extraSize, 22);
    std::remove(raw.c_str());
    std::remove(info.c_str());
}

#endif

} // namespace
