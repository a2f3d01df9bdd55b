// The WAVE reader through its C interface: open checks, the header record,
// reads into the own and a caller's buffer, byte and time seeks.
#include "dsp.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

using dsptest::Bytes;

class WavefileReaderTest : public ::testing::Test {
protected:
    void TearDown() override {
        termWavefileIn(handle_);
        std::remove(path_.c_str());
    }
    void open(const Bytes& image, uint32_t frames = 1024) {
        path_ = dsptest::wavefileTempPath(
            "reader_" +
            std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".wav");
        dsptest::writeFileBytes(path_, image);
        handle_ = initWavefileIn(path_.c_str(), frames);
        ASSERT_NE(handle_, nullptr);
    }
    WavefileHeader* header() { return getHeaderWavefileIn(handle_); }
    WavefileFormat* format() { return getFormatWavefileIn(handle_); }
    int32_t position() { return seekWavefileIn(handle_, 0, 1); }

    std::string path_;
    void* handle_ = nullptr;
};

TEST_F(WavefileReaderTest, CanonicalFileOpensAtByte44) {
    Bytes samples = dsptest::patternSamples(4000);
    open(dsptest::canonicalWave(2, 44100, samples), 256);
    EXPECT_EQ(position(), 44);
    const WavefileFormat* f = format();
    EXPECT_EQ(f->formatTag, 1);
    EXPECT_EQ(f->channels, 2);
    EXPECT_EQ(f->samplesPerSecond, 44100u);
    EXPECT_EQ(f->avgBytesPerSecond, 176400u);
    EXPECT_EQ(f->blockAlign, 4);
    EXPECT_EQ(f->bitsPerSample, 16);
    EXPECT_EQ(f->extraSize, 0);
    const WavefileHeader* h = header();
    EXPECT_EQ(h->dataBytes, 4000u);
    EXPECT_EQ(h->bytesRead, 0u);
    EXPECT_EQ(h->reserved16, 0u);
    EXPECT_EQ(h->reserved20, 0u);
    ASSERT_NE(h->buffer, nullptr);
    for (int i = 0; i < 256 * 4; ++i) {
        ASSERT_EQ(h->buffer[i], 0) << i;
    }
    // Own-buffer reads deliver the samples in order, the last one short.
    Bytes got;
    int32_t n = 0;
    while ((n = readWavefileIn(handle_, nullptr, 256)) > 0) {
        EXPECT_EQ(h->bytesRead, static_cast<uint32_t>(n));
        got.insert(got.end(), h->buffer, h->buffer + n);
    }
    EXPECT_EQ(got, samples);
    EXPECT_EQ(position(), 44 + 4000);
}

TEST_F(WavefileReaderTest, FormatBeyondEighteenBytesIsIgnoredAndExtraSizeKept) {
    Bytes body = dsptest::pcmFormatBody(1, 22050, true, 22);
    Bytes extension(22, 0xAB);
    body.insert(body.end(), extension.begin(), extension.end());
    Bytes chunks = dsptest::chunkBytes("fmt ", body);
    Bytes data = dsptest::chunkBytes("data", {1, 2, 3, 4});
    chunks.insert(chunks.end(), data.begin(), data.end());
    open(dsptest::riffBytes("WAVE", chunks));
    EXPECT_EQ(format()->extraSize, 22);
    EXPECT_EQ(format()->channels, 1);
    EXPECT_EQ(position(), 12 + 8 + 40 + 8);
}

TEST_F(WavefileReaderTest, SkipsChunksAroundFormatAndData) {
    Bytes chunks = dsptest::chunkBytes("JUNK", {1, 2, 3});
    Bytes fmt = dsptest::chunkBytes("fmt ", dsptest::pcmFormatBody(2, 48000));
    Bytes list =
        dsptest::chunkBytes("LIST", {'I', 'N', 'F', 'O', 'I', 'S', 'F', 'T', 1, 0, 0, 0, 'x', 0});
    Bytes data = dsptest::chunkBytes("data", {10, 11, 12, 13});
    Bytes tail = dsptest::chunkBytes("tail", {99, 98});
    for (const Bytes* b : {&fmt, &list, &data, &tail}) {
        chunks.insert(chunks.end(), b->begin(), b->end());
    }
    open(dsptest::riffBytes("WAVE", chunks));
    int32_t firstSample = 12 + 12 + 24 + static_cast<int32_t>(list.size()) + 8;
    EXPECT_EQ(position(), firstSample);
    EXPECT_EQ(header()->dataBytes, 4u);
    // Reads are not held to the "data" chunk: they run on into what follows.
    uint8_t got[8] = {};
    EXPECT_EQ(readWavefileIn(handle_, got, 2), 8);
    EXPECT_EQ(header()->buffer, got);
    const uint8_t expected[8] = {10, 11, 12, 13, 't', 'a', 'i', 'l'};
    EXPECT_EQ(std::memcmp(got, expected, 8), 0);
}

TEST_F(WavefileReaderTest, DataBeforeFormatFails) {
    Bytes chunks = dsptest::chunkBytes("data", {1, 2, 3, 4});
    Bytes fmt = dsptest::chunkBytes("fmt ", dsptest::pcmFormatBody(2, 44100));
    chunks.insert(chunks.end(), fmt.begin(), fmt.end());
    open(dsptest::riffBytes("WAVE", chunks));
    uint8_t buffer[16];
    EXPECT_EQ(readWavefileIn(handle_, buffer, 1), 0);
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 1), 0);
    EXPECT_EQ(seekWavefileIn(handle_, 4, 1), 0);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.0f, 0), 0);
}

TEST_F(WavefileReaderTest, SecondsFollowTheIntegerThenFloatingDivision) {
    open(dsptest::canonicalWave(2, 44100, Bytes(176400)));
    EXPECT_EQ(dsptest::wavefileSeconds(handle_), 1.0f);
    termWavefileIn(handle_);
    // 3 data bytes of mono hold one whole frame; 7 stereo bytes one frame.
    struct Case {
        uint16_t channels;
        uint32_t rate;
        uint32_t bytes;
    } cases[] = {{1, 8000, 3}, {2, 44100, 7}, {1, 22050, 123457}, {2, 96000, 1000001}};
    for (const Case& c : cases) {
        open(dsptest::canonicalWave(c.channels, c.rate, Bytes(c.bytes)));
        uint32_t frames = c.bytes / (2u * c.channels);
        float expected = static_cast<float>(static_cast<double>(frames) / c.rate);
        EXPECT_EQ(dsptest::wavefileSeconds(handle_), expected) << c.bytes;
        termWavefileIn(handle_);
    }
    handle_ = nullptr;
}

TEST_F(WavefileReaderTest, TimeSeekCountsFromTheFirstSampleOrTheCurrentPosition) {
    Bytes samples = dsptest::patternSamples(176400);
    open(dsptest::canonicalWave(2, 44100, samples));
    readWavefileIn(handle_, nullptr, 100);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.5f, 0), 44 + 88200);
    uint8_t got[4];
    ASSERT_EQ(readWavefileIn(handle_, got, 1), 4);
    EXPECT_EQ(std::memcmp(got, &samples[88200], 4), 0);
    // Relative: 0.25 s = 11025 frames from 88204.
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.25f, 1), 44 + 88204 + 44100);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -0.25f, 1), 44 + 88204);
    // Frames truncate toward zero: 44100 x 0.00003 = 1.323 -> 1 frame.
    EXPECT_EQ(timeSeekWavefileIn(handle_, 0.00003f, 0), 44 + 4);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -0.00003f, 0), 44 - 4);
    // Not clamped to the data chunk, but never before the file's start.
    EXPECT_EQ(timeSeekWavefileIn(handle_, 10.0f, 0), 44 + 1764000);
    EXPECT_EQ(timeSeekWavefileIn(handle_, -1.0f, 0), -1);
    EXPECT_EQ(timeSeekWavefileIn(handle_, 1e30f, 0), -1);
}

TEST_F(WavefileReaderTest, ByteSeekIsAbsoluteInTheSamplesOrRelative) {
    Bytes samples = dsptest::patternSamples(1000);
    open(dsptest::canonicalWave(1, 8000, samples));
    EXPECT_EQ(seekWavefileIn(handle_, 500, 0), 544);
    EXPECT_EQ(seekWavefileIn(handle_, 100, 0), 144);
    EXPECT_EQ(seekWavefileIn(handle_, 10, 1), 154);
    EXPECT_EQ(seekWavefileIn(handle_, -20, 1), 134);
    uint8_t got[2];
    ASSERT_EQ(readWavefileIn(handle_, got, 1), 2);
    EXPECT_EQ(got[0], samples[90]);
    EXPECT_EQ(got[1], samples[91]);
    EXPECT_EQ(seekWavefileIn(handle_, -1000, 1), -1);
    EXPECT_EQ(position(), 136);
    EXPECT_EQ(seekWavefileIn(handle_, 2000, 0), 2044);
    EXPECT_EQ(readWavefileIn(handle_, got, 1), 0);
}

TEST_F(WavefileReaderTest, CallerBufferIsFollowedAndNeverTakenOver) {
    Bytes samples = dsptest::patternSamples(64 * 4);
    open(dsptest::canonicalWave(2, 44100, samples), 8);
    uint8_t* own = header()->buffer;
    std::vector<uint8_t> mine(16 * 4, 0);
    EXPECT_EQ(readWavefileIn(handle_, mine.data(), 16), 64);
    EXPECT_EQ(header()->buffer, mine.data());
    EXPECT_EQ(header()->bytesRead, 64u);
    EXPECT_TRUE(std::equal(mine.begin(), mine.end(), samples.begin()));
    // A read without a buffer fills the own buffer again and leaves ours alone.
    std::vector<uint8_t> before = mine;
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 8), 32);
    EXPECT_EQ(header()->buffer, own);
    EXPECT_EQ(mine, before);
    EXPECT_EQ(std::memcmp(own, &samples[64], 32), 0);
}

TEST_F(WavefileReaderTest, OwnBufferReadsStopAtItsSizeUntilExtended) {
    Bytes samples = dsptest::patternSamples(4000);
    open(dsptest::canonicalWave(2, 44100, samples), 10);
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 500), 40);
    uint8_t* bigger = bufSizeExtendWavefileIn(handle_, 300);
    ASSERT_NE(bigger, nullptr);
    EXPECT_EQ(header()->buffer, bigger);
    for (int i = 0; i < 1200; ++i) {
        ASSERT_EQ(bigger[i], 0);
    }
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 500), 1200);
    EXPECT_EQ(std::memcmp(bigger, &samples[40], 1200), 0);
    // A size that cannot be described in 32 bits is refused; nothing changes.
    EXPECT_EQ(bufSizeExtendWavefileIn(handle_, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(header()->buffer, bigger);
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 1), 4);
    // Zero frames: an empty own buffer, reads into it deliver nothing.
    ASSERT_NE(bufSizeExtendWavefileIn(handle_, 0), nullptr);
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 10), 0);
}

TEST_F(WavefileReaderTest, DataSizePastTheEndOpensAndReadsShort) {
    Bytes samples = dsptest::patternSamples(100);
    Bytes image = dsptest::canonicalWave(1, 8000, samples);
    image[40] = 0x00; // data size 307200, as an unfinished writer leaves it
    image[41] = 0xB0;
    image[42] = 0x04;
    image[43] = 0x00;
    open(image);
    EXPECT_EQ(header()->dataBytes, 307200u);
    std::vector<uint8_t> got(1000);
    EXPECT_EQ(readWavefileIn(handle_, got.data(), 500), 100);
    EXPECT_EQ(readWavefileIn(handle_, got.data(), 500), 0);
}

TEST_F(WavefileReaderTest, OwnBufferSizesBeyond32BitsFailTheOpen) {
    open(dsptest::canonicalWave(2, 44100, Bytes(8)), 0x40000000u);
    EXPECT_EQ(readWavefileIn(handle_, nullptr, 1), 0);
    EXPECT_EQ(seekWavefileIn(handle_, 0, 0), 0);
}

TEST(WavefileReaderNullHandle, EveryCallIsHarmless) {
    uint8_t buffer[4];
    EXPECT_EQ(readWavefileIn(nullptr, buffer, 1), 0);
    EXPECT_EQ(seekWavefileIn(nullptr, 0, 0), 0);
    EXPECT_EQ(timeSeekWavefileIn(nullptr, 1.0f, 0), 0);
    EXPECT_EQ(bufSizeExtendWavefileIn(nullptr, 10), nullptr);
    EXPECT_EQ(getHeaderWavefileIn(nullptr), nullptr);
    EXPECT_EQ(getFormatWavefileIn(nullptr), nullptr);
    termWavefileIn(nullptr);
}

} // namespace
