// The records hosts read through pointers: exact offsets and sizes. On 32-bit
// builds they are the documented layouts (38-byte header, 16-byte slice
// record); on 64-bit builds the pointers take 8 bytes and what follows them
// moves by the difference. The format record is 18 bytes, packed, everywhere.
#include "dsp.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

namespace {

constexpr size_t kGrowth = sizeof(void*) - 4;

TEST(RecordLayout, FormatRecordReadsTheFmtChunkBytesDirectly) {
    EXPECT_EQ(sizeof(WavefileFormat), 18u);
    WavefileFormat pair[2];
    EXPECT_EQ(reinterpret_cast<char*>(&pair[1]) - reinterpret_cast<char*>(&pair[0]), 18);
    // The body of a PCM "fmt " chunk: 44100 Hz stereo 16-bit, then extraSize 0x1234.
    const unsigned char chunk[18] = {0x01, 0x00, 0x02, 0x00, 0x44, 0xac, 0x00, 0x00, 0x10,
                                     0xb1, 0x02, 0x00, 0x04, 0x00, 0x10, 0x00, 0x34, 0x12};
    WavefileFormat f;
    std::memcpy(&f, chunk, sizeof chunk);
    EXPECT_EQ(f.formatTag, 1u);
    EXPECT_EQ(f.channels, 2u);
    EXPECT_EQ(f.samplesPerSecond, 44100u);
    EXPECT_EQ(f.avgBytesPerSecond, 176400u);
    EXPECT_EQ(f.blockAlign, 4u);
    EXPECT_EQ(f.bitsPerSample, 16u);
    EXPECT_EQ(f.extraSize, 0x1234u);
}

TEST(RecordLayout, HeaderAndSliceRecordOffsets) {
    EXPECT_EQ(offsetof(WavefileHeader, dataBytes), 4u + kGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, bytesRead), 8u + kGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, reserved12), 12u + kGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, reserved24), 24u + kGrowth);
    EXPECT_EQ(offsetof(WavefileHeader, seconds), 34u + kGrowth);
    EXPECT_EQ(sizeof(WavefileHeader), 38u + kGrowth);
    EXPECT_EQ(offsetof(SliceRecord, startSeconds), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(SliceRecord, endSeconds), 2 * sizeof(void*) + 4);
    EXPECT_EQ(sizeof(SliceRecord), 16u + 2 * kGrowth);
}

} // namespace
