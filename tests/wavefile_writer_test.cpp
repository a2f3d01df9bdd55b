// The WAVE writer through its C interface: the exact file layout, the sizes
// fixed at close, the provisional sizes before it, and failed opens.
#include "dsp.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

namespace {

using dsptest::Bytes;

WavefileFormat stereoFormat() {
    WavefileFormat f;
    f.formatTag = 1;
    f.channels = 2;
    f.samplesPerSecond = 44100;
    f.avgBytesPerSecond = 176400;
    f.blockAlign = 4;
    f.bitsPerSample = 16;
    f.extraSize = 0;
    return f;
}

// The expected file: the fixed 46-byte header, then the samples and a pad.
Bytes expectedFile(const WavefileFormat& f, const Bytes& samples) {
    Bytes body;
    dsptest::appendLe16(body, f.formatTag);
    dsptest::appendLe16(body, f.channels);
    dsptest::appendLe32(body, f.samplesPerSecond);
    dsptest::appendLe32(body, f.avgBytesPerSecond);
    dsptest::appendLe16(body, f.blockAlign);
    dsptest::appendLe16(body, f.bitsPerSample);
    dsptest::appendLe16(body, f.extraSize);
    Bytes chunks = dsptest::chunkBytes("fmt ", body);
    Bytes data = dsptest::chunkBytes("data", samples);
    chunks.insert(chunks.end(), data.begin(), data.end());
    return dsptest::riffBytes("WAVE", chunks);
}

class WavefileWriterTest : public ::testing::Test {
protected:
    void SetUp() override {
        path_ = dsptest::wavefileTempPath(
            "writer_" +
            std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".wav");
    }
    void TearDown() override { std::remove(path_.c_str()); }
    std::string path_;
};

TEST_F(WavefileWriterTest, EmptyFileIs46BytesWithRiffSize38) {
    WavefileFormat f = stereoFormat();
    void* h = initWavefileOut(path_.c_str(), &f);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(termWavefileOut(h), 0u);
    Bytes file = dsptest::readFileBytes(path_);
    ASSERT_EQ(file.size(), 46u);
    EXPECT_EQ(dsptest::loadLe32(file, 4), 38u);
    EXPECT_EQ(dsptest::loadLe32(file, 16), 18u);
    EXPECT_EQ(dsptest::loadLe32(file, 42), 0u);
    EXPECT_EQ(file, expectedFile(f, {}));
}

TEST_F(WavefileWriterTest, OddDataGetsAPadByteCountedInTheRiffSize) {
    WavefileFormat f = stereoFormat();
    void* h = initWavefileOut(path_.c_str(), &f);
    const uint8_t three[3] = {0x11, 0x22, 0x33};
    EXPECT_EQ(writeWavefileOut(h, three, 3), 3);
    EXPECT_EQ(termWavefileOut(h), 3u);
    Bytes file = dsptest::readFileBytes(path_);
    ASSERT_EQ(file.size(), 50u);
    EXPECT_EQ(dsptest::loadLe32(file, 42), 3u);
    EXPECT_EQ(file[49], 0);
    EXPECT_EQ(dsptest::loadLe32(file, 4), 42u);
    EXPECT_EQ(file, expectedFile(f, {0x11, 0x22, 0x33}));
}

TEST_F(WavefileWriterTest, FormatIsKeptExactlyAsPassed) {
    WavefileFormat f = stereoFormat();
    f.formatTag = 0xFFFE;
    f.avgBytesPerSecond = 12345; // inconsistent on purpose: not checked
    f.extraSize = 22;
    void* h = initWavefileOut(path_.c_str(), &f);
    const WavefileFormat* kept = getFormatWavefileOut(h);
    ASSERT_NE(kept, nullptr);
    EXPECT_NE(kept, &f);
    EXPECT_EQ(std::memcmp(kept, &f, sizeof f), 0);
    termWavefileOut(h);
    Bytes file = dsptest::readFileBytes(path_);
    ASSERT_EQ(file.size(), 46u);
    EXPECT_EQ(dsptest::loadLe16(file, 20), 0xFFFE);
    EXPECT_EQ(dsptest::loadLe32(file, 28), 12345u);
    EXPECT_EQ(dsptest::loadLe16(file, 36), 22);
}

TEST_F(WavefileWriterTest, ManyOddWritesAcrossBuffersLandInOrder) {
    WavefileFormat f = stereoFormat();
    Bytes samples = dsptest::patternSamples(700001, 3);
    void* h = initWavefileOut(path_.c_str(), &f);
    size_t at = 0;
    size_t piece = 1;
    while (at < samples.size()) {
        size_t n = std::min(piece, samples.size() - at);
        ASSERT_EQ(writeWavefileOut(h, &samples[at], static_cast<int32_t>(n)),
                  static_cast<int32_t>(n));
        at += n;
        piece = piece * 3 + 7;
        if (piece > 300000) {
            piece = 5;
            EXPECT_EQ(flushWavefileOut(h), 1u);
        }
    }
    EXPECT_EQ(writeWavefileOut(h, samples.data(), 0), 0);
    EXPECT_EQ(writeWavefileOut(h, samples.data(), -5), -1);
    EXPECT_EQ(writeWavefileOut(h, nullptr, 5), -1);
    EXPECT_EQ(termWavefileOut(h), 700001u);
    EXPECT_EQ(dsptest::readFileBytes(path_), expectedFile(f, samples));
}

TEST_F(WavefileWriterTest, SizesStayProvisionalUntilClose) {
    WavefileFormat f = stereoFormat();
    void* h = initWavefileOut(path_.c_str(), &f);
    Bytes samples = dsptest::patternSamples(1000);
    ASSERT_EQ(writeWavefileOut(h, samples.data(), 1000), 1000);
    EXPECT_EQ(flushWavefileOut(h), 1u);
    Bytes file = dsptest::readFileBytes(path_);
    ASSERT_EQ(file.size(), 1046u);
    EXPECT_EQ(dsptest::loadLe32(file, 4), 0u);
    EXPECT_EQ(dsptest::loadLe32(file, 42), 307200u);
    EXPECT_EQ(termWavefileOut(h), 1000u);
    EXPECT_EQ(dsptest::readFileBytes(path_), expectedFile(f, samples));
}

TEST_F(WavefileWriterTest, WrittenFileReadsBackThroughTheReader) {
    WavefileFormat f = stereoFormat();
    Bytes samples = dsptest::patternSamples(176400, 9);
    void* out = initWavefileOut(path_.c_str(), &f);
    ASSERT_EQ(writeWavefileOut(out, samples.data(), 176400), 176400);
    ASSERT_EQ(termWavefileOut(out), 176400u);
    void* in = initWavefileIn(path_.c_str(), 44100);
    EXPECT_EQ(seekWavefileIn(in, 0, 1), 46);
    EXPECT_EQ(std::memcmp(getFormatWavefileIn(in), &f, sizeof f), 0);
    EXPECT_EQ(dsptest::wavefileSeconds(in), 1.0f);
    ASSERT_EQ(readWavefileIn(in, nullptr, 44100), 176400);
    EXPECT_EQ(std::memcmp(getHeaderWavefileIn(in)->buffer, samples.data(), 176400), 0);
    termWavefileIn(in);
}

TEST_F(WavefileWriterTest, FailedOpensStillGiveAHandleThatDoesNothing) {
    WavefileFormat f = stereoFormat();
    const uint8_t byte = 1;
    for (const char* path :
         {static_cast<const char*>(DSP_TEST_TMPDIR), "", static_cast<const char*>(nullptr)}) {
        void* h = initWavefileOut(path, &f);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(writeWavefileOut(h, &byte, 1), 0);
        EXPECT_EQ(flushWavefileOut(h), 0u);
        ASSERT_NE(getFormatWavefileOut(h), nullptr);
        EXPECT_EQ(std::memcmp(getFormatWavefileOut(h), &f, sizeof f), 0);
        EXPECT_EQ(termWavefileOut(h), 0u);
    }
    // Without a format there is nothing to write, and no file is created.
    void* h = initWavefileOut(path_.c_str(), nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(writeWavefileOut(h, &byte, 1), 0);
    EXPECT_EQ(termWavefileOut(h), 0u);
    EXPECT_EQ(std::fopen(path_.c_str(), "rb"), nullptr);
}

TEST(WavefileWriterErrors, WriteBackFailuresAreReported) {
    std::FILE* probe = std::fopen("/dev/full", "r+b");
    if (probe == nullptr) {
        GTEST_SKIP() << "no /dev/full here";
    }
    std::fclose(probe);
    WavefileFormat f = stereoFormat();
    void* h = initWavefileOut("/dev/full", &f);
    const uint8_t bytes[64] = {};
    EXPECT_EQ(writeWavefileOut(h, bytes, 64), 64); // still in the buffer
    EXPECT_EQ(flushWavefileOut(h), 0u);
    EXPECT_EQ(termWavefileOut(h), 0u);
}

TEST(WavefileWriterNullHandle, EveryCallIsHarmless) {
    const uint8_t byte = 0;
    EXPECT_EQ(writeWavefileOut(nullptr, &byte, 1), 0);
    EXPECT_EQ(flushWavefileOut(nullptr), 0u);
    EXPECT_EQ(getFormatWavefileOut(nullptr), nullptr);
    EXPECT_EQ(termWavefileOut(nullptr), 0u);
}

} // namespace
