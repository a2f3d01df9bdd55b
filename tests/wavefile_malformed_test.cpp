// Malformed input to the WAVE reader: every case fails the open cleanly (or
// opens with sane values) and nothing afterwards crashes or overruns.
#include "dsp.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

namespace {

using dsptest::Bytes;

// Opens `image` from a file and reports whether the reader accepted it; a
// refused file must behave as closed in every call.
bool opens(const Bytes& image, const char* name = "malformed.wav") {
    std::string path = dsptest::wavefileTempPath(name);
    dsptest::writeFileBytes(path, image);
    void* h = initWavefileIn(path.c_str(), 64);
    EXPECT_NE(h, nullptr);
    uint8_t buffer[64 * 2 * 4];
    int32_t got = readWavefileIn(h, buffer, 1);
    bool isOpen = got != 0 || seekWavefileIn(h, 0, 1) != 0;
    if (!isOpen) {
        EXPECT_EQ(readWavefileIn(h, nullptr, 64), 0);
        EXPECT_EQ(seekWavefileIn(h, 0, 0), 0);
        EXPECT_EQ(timeSeekWavefileIn(h, 0.5f, 0), 0);
    }
    termWavefileIn(h);
    std::remove(path.c_str());
    return isOpen;
}

Bytes waveWith(const Bytes& chunks) {
    return dsptest::riffBytes("WAVE", chunks);
}

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

const Bytes kFmt = dsptest::chunkBytes("fmt ", dsptest::pcmFormatBody(2, 44100));
const Bytes kData = dsptest::chunkBytes("data", dsptest::patternSamples(16));

TEST(WavefileMalformed, TheWellFormedBaselineOpens) {
    EXPECT_TRUE(opens(waveWith(join({kFmt, kData}))));
}

TEST(WavefileMalformed, EveryTruncatedHeaderFails) {
    Bytes image = waveWith(join({kFmt, kData}));
    for (size_t length = 0; length < 44; ++length) {
        EXPECT_FALSE(opens(Bytes(image.begin(), image.begin() + length))) << length;
    }
    // With the whole "data" header present the samples may be cut short.
    EXPECT_TRUE(opens(Bytes(image.begin(), image.begin() + 45)));
}

TEST(WavefileMalformed, FormatChunkPastTheEndFails) {
    Bytes fmt = dsptest::chunkBytesWithSize("fmt ", 0x7FFFFFF0u, dsptest::pcmFormatBody(2, 44100));
    EXPECT_FALSE(opens(waveWith(join({fmt, kData}))));
    Bytes huge = dsptest::chunkBytesWithSize("fmt ", 0xFFFFFFFFu, dsptest::pcmFormatBody(2, 44100));
    EXPECT_FALSE(opens(waveWith(huge)));
    // A 16-byte "fmt " as the very last bytes of the file is fine up to the
    // missing "data".
    EXPECT_FALSE(opens(waveWith(kFmt)));
}

// A "fmt " body shorter than the record is read as far as it goes and the
// rest of the record is 0; the open succeeds whatever the body holds, also
// with no channels (then every read delivers 0 bytes and seconds is 0).
TEST(WavefileMalformed, ShortFormatsOpenWithTheMissingBytesAsZero) {
    std::string path = dsptest::wavefileTempPath("malformed_short_fmt.wav");
    Bytes body = dsptest::pcmFormatBody(2, 44100);
    for (size_t size : {0u, 2u, 3u, 8u, 13u, 14u}) {
        Bytes fmt = dsptest::chunkBytes("fmt ", Bytes(body.begin(), body.begin() + size));
        dsptest::writeFileBytes(path, waveWith(join({fmt, kData})));
        void* h = initWavefileIn(path.c_str(), 16);
        const int32_t firstSample = 12 + 8 + static_cast<int32_t>(size + (size & 1)) + 8;
        EXPECT_EQ(seekWavefileIn(h, 0, 1), firstSample) << size;
        Bytes expected(18, 0);
        std::copy(body.begin(), body.begin() + size, expected.begin());
        const WavefileFormat* f = getFormatWavefileIn(h);
        EXPECT_EQ(f->formatTag, dsptest::loadLe16(expected, 0)) << size;
        EXPECT_EQ(f->channels, dsptest::loadLe16(expected, 2)) << size;
        EXPECT_EQ(f->samplesPerSecond, dsptest::loadLe32(expected, 4)) << size;
        EXPECT_EQ(f->avgBytesPerSecond, dsptest::loadLe32(expected, 8)) << size;
        EXPECT_EQ(f->blockAlign, dsptest::loadLe16(expected, 12)) << size;
        EXPECT_EQ(f->bitsPerSample, 0) << size;
        EXPECT_EQ(f->extraSize, 0) << size;
        EXPECT_EQ(getHeaderWavefileIn(h)->dataBytes, 16u) << size;
        uint8_t buffer[64] = {};
        int32_t expectedBytes = f->channels == 0 ? 0 : 4;
        EXPECT_EQ(readWavefileIn(h, buffer, 1), expectedBytes) << size;
        EXPECT_EQ(readWavefileIn(h, nullptr, 1), expectedBytes) << size;
        termWavefileIn(h);
    }
    Bytes noChannels = dsptest::chunkBytes("fmt ", dsptest::pcmFormatBody(0, 44100));
    dsptest::writeFileBytes(path, waveWith(join({noChannels, kData})));
    void* h = initWavefileIn(path.c_str(), 16);
    EXPECT_EQ(seekWavefileIn(h, 0, 1), 44);
    EXPECT_EQ(getHeaderWavefileIn(h)->dataBytes, 16u);
    EXPECT_EQ(dsptest::wavefileSeconds(h), 0.0f);
    EXPECT_EQ(timeSeekWavefileIn(h, 1.0f, 0), 44);
    termWavefileIn(h);
    std::remove(path.c_str());
}

// The duration divides in floating point, so a rate of 0 gives an infinite
// duration (and 0 frames over 0 Hz no number at all).
TEST(WavefileMalformed, ZeroRateGivesAnUnboundedDuration) {
    std::string path = dsptest::wavefileTempPath("malformed_rate0.wav");
    Bytes fmt = dsptest::chunkBytes("fmt ", dsptest::pcmFormatBody(1, 0));
    dsptest::writeFileBytes(path, waveWith(join({fmt, kData})));
    void* h = initWavefileIn(path.c_str(), 16);
    EXPECT_EQ(dsptest::wavefileSeconds(h), std::numeric_limits<float>::infinity());
    EXPECT_EQ(timeSeekWavefileIn(h, 3.0f, 0), 44);
    termWavefileIn(h);
    dsptest::writeFileBytes(path, waveWith(join({fmt, dsptest::chunkBytes("data", {7})})));
    h = initWavefileIn(path.c_str(), 16);
    EXPECT_TRUE(std::isnan(dsptest::wavefileSeconds(h)));
    termWavefileIn(h);
    std::remove(path.c_str());
}

TEST(WavefileMalformed, WrongFormsAndRiffSizesFail) {
    Bytes chunks = join({kFmt, kData});
    EXPECT_FALSE(opens(dsptest::riffBytes("AVI ", chunks)));
    Bytes rifx = waveWith(chunks);
    rifx[3] = 'X';
    EXPECT_FALSE(opens(rifx));
    EXPECT_FALSE(opens(join({kFmt, kData})));                           // no RIFF at all
    EXPECT_FALSE(opens(dsptest::riffBytesWithSize("WAVE", 0, chunks))); // nothing inside
    // "data" starting beyond the RIFF size is outside the form.
    EXPECT_FALSE(opens(dsptest::riffBytesWithSize("WAVE", 4 + 24, chunks)));
    // A RIFF size past the end (a cut file) is no obstacle.
    EXPECT_TRUE(opens(dsptest::riffBytesWithSize("WAVE", 0xFFFFFFFFu, chunks)));
}

TEST(WavefileMalformed, ChunkSizesPastTheEndBeforeDataFail) {
    Bytes list = dsptest::chunkBytesWithSize("LIST", 0xFFFFFFFFu, {'I', 'N', 'F', 'O'});
    EXPECT_FALSE(opens(waveWith(join({kFmt, list, kData}))));
    Bytes junk = dsptest::chunkBytesWithSize("JUNK", 0x80000000u, {});
    EXPECT_FALSE(opens(waveWith(join({junk, kFmt, kData}))));
}

TEST(WavefileMalformed, PathsThatAreNoFiles) {
    EXPECT_FALSE(opens(Bytes{}));
    for (const char* path : {static_cast<const char*>(DSP_TEST_TMPDIR), "",
                             static_cast<const char*>(nullptr), "/nonexistent/dir/x.wav"}) {
        void* h = initWavefileIn(path, 64);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(readWavefileIn(h, nullptr, 1), 0);
        EXPECT_EQ(seekWavefileIn(h, 0, 1), 0);
        EXPECT_EQ(timeSeekWavefileIn(h, 0.0f, 1), 0);
        ASSERT_NE(getHeaderWavefileIn(h), nullptr);
        EXPECT_EQ(getHeaderWavefileIn(h)->buffer, nullptr);
        termWavefileIn(h);
    }
}

// Every header byte set to a handful of hostile values, and every truncation
// of each: an open either fails or delivers reads within the own buffer.
TEST(WavefileMalformed, MutatedHeadersNeverOverrunTheOwnBuffer) {
    Bytes base = waveWith(join({kFmt, dsptest::chunkBytes("LIST", {'I', 'N', 'F', 'O'}), kData}));
    std::string path = dsptest::wavefileTempPath("malformed_mutated.wav");
    const uint8_t values[] = {0x00, 0x80, 0xFF};
    int opened = 0;
    for (size_t at = 0; at < 56; ++at) {
        for (uint8_t value : values) {
            Bytes image = base;
            image[at] = value;
            for (size_t cut : {image.size(), at + 1}) {
                dsptest::writeFileBytes(path, Bytes(image.begin(), image.begin() + cut));
                void* h = initWavefileIn(path.c_str(), 3);
                uint32_t channels = getFormatWavefileIn(h)->channels;
                int32_t got = readWavefileIn(h, nullptr, 1000);
                ASSERT_GE(got, 0);
                ASSERT_LE(static_cast<uint32_t>(got), 3u * 2u * channels);
                opened += got > 0 ? 1 : 0;
                timeSeekWavefileIn(h, 1e9f, 0);
                readWavefileIn(h, nullptr, 1);
                seekWavefileIn(h, -2147483647 - 1, 1);
                termWavefileIn(h);
            }
        }
    }
    EXPECT_GT(opened, 0);
    std::remove(path.c_str());
}

} // namespace
