// The buffered RIFF file layer against an in-memory model, chunk searches and
// refusals. (Chunk creation shows in the WAVE writer's exact files.)
#include "wavefile/riff_file.h"

#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>

namespace {

using dsp::makeFourcc;
using dsp::RiffChunk;
using dsp::RiffFile;
using dsptest::Bytes;

constexpr size_t kBuf = RiffFile::kBufferBytes;

// Random seeks, writes and reads against a byte-vector model. Wide runs cross,
// straddle and bypass the buffer; narrow runs stay within one window.
void runAgainstModel(uint32_t seed, int steps, bool wide) {
    std::string path = dsptest::wavefileTempPath("riff_model.bin");
    RiffFile file;
    ASSERT_TRUE(file.open(path.c_str(), RiffFile::Access::kCreate));
    Bytes model;
    size_t position = 0;
    std::mt19937 rng(seed);
    for (int step = 0; step < steps; ++step) {
        const int kind = static_cast<int>(rng() % 3);
        const size_t n =
            wide ? (rng() % (2 * kBuf + 999)) / (rng() % 2 == 0 ? 1 : 997) + 1 : rng() % 300 + 1;
        if (kind == 0) {
            position = wide ? rng() % (3 * kBuf + 500)
                            : static_cast<size_t>(std::max<int64_t>(
                                  0, int64_t(position) - int64_t(rng() % 900) + 300));
            ASSERT_EQ(file.seek(int64_t(position), RiffFile::Origin::kBegin), int64_t(position));
        } else if (kind == 1) {
            Bytes data = dsptest::patternSamples(n, static_cast<uint32_t>(step));
            ASSERT_EQ(file.write(data.data(), n), int64_t(n));
            model.resize(std::max(model.size(), position + n), 0);
            std::copy(data.begin(), data.end(), model.begin() + position);
            position += n;
        } else {
            Bytes got(n + 1, 0xEE);
            const size_t expected =
                position >= model.size() ? 0 : std::min(n, model.size() - position);
            ASSERT_EQ(file.read(got.data(), n), int64_t(expected)) << "step " << step;
            ASSERT_TRUE(std::equal(got.begin(), got.begin() + expected, model.begin() + position))
                << "step " << step;
            EXPECT_EQ(got[n], 0xEE);
            position += expected;
        }
        ASSERT_EQ(file.tell(), int64_t(position));
        ASSERT_EQ(file.size(), int64_t(model.size()));
        if (!wide && step % 500 == 499) {
            ASSERT_TRUE(file.flush());
            ASSERT_EQ(dsptest::readFileBytes(path), model) << "step " << step;
        }
    }
    ASSERT_TRUE(file.close());
    EXPECT_EQ(dsptest::readFileBytes(path), model);
    std::remove(path.c_str());
}

TEST(RiffFile, RandomSeeksReadsAndWritesMatchAPlainModel) {
    runAgainstModel(7, 600, true);
    runAgainstModel(8, 4000, false);
}

// Searches skip other forms, chunks and pad bytes, stay inside the parent and
// restore the position when nothing is found.
TEST(RiffDescend, FindsFormsListsAndChunksWithinTheirParent) {
    const std::string path = dsptest::wavefileTempPath("riff_descend.bin");
    const Bytes other = dsptest::riffBytes("XXXX", dsptest::chunkBytes("junk", {9, 9}));
    const Bytes info = dsptest::chunkBytes(
        "LIST",
        dsptest::joinBytes({{'I', 'N', 'F', 'O'}, dsptest::chunkBytes("INAM", {'a', 'b'})}));
    const Bytes form = dsptest::riffBytes(
        "GOOD", dsptest::joinBytes({dsptest::chunkBytes("odd ", {1, 2, 3, 4, 5}), info,
                                    dsptest::chunkBytes("want", {7, 7, 7, 7})}));
    const int64_t goodStart = static_cast<int64_t>(other.size());
    dsptest::writeFileBytes(path,
                            dsptest::joinBytes({other, form, dsptest::chunkBytes("tail", {1, 1})}));
    RiffFile file;
    ASSERT_TRUE(file.open(path.c_str(), RiffFile::Access::kRead));
    RiffChunk riff;
    riff.formType = makeFourcc('W', 'A', 'V', 'E');
    EXPECT_FALSE(file.descend(riff, nullptr, RiffFile::Search::kRiff));
    EXPECT_EQ(file.tell(), 0);
    riff.formType = makeFourcc('G', 'O', 'O', 'D');
    ASSERT_TRUE(file.descend(riff, nullptr, RiffFile::Search::kRiff));
    EXPECT_EQ(riff.dataOffset, static_cast<uint64_t>(goodStart + 8));
    EXPECT_EQ(file.tell(), goodStart + 12);

    RiffChunk list;
    list.formType = makeFourcc('I', 'N', 'F', 'O');
    ASSERT_TRUE(file.descend(list, &riff, RiffFile::Search::kList));
    RiffChunk name;
    ASSERT_TRUE(file.descend(name, &list, RiffFile::Search::kNext));
    EXPECT_EQ(name.id, makeFourcc('I', 'N', 'A', 'M'));
    EXPECT_EQ(name.size, 2u);
    ASSERT_TRUE(file.ascend(name));
    ASSERT_TRUE(file.ascend(list));

    RiffChunk want;
    want.id = makeFourcc('w', 'a', 'n', 't');
    ASSERT_TRUE(file.descend(want, &riff, RiffFile::Search::kChunk));
    uint8_t body[4] = {};
    ASSERT_EQ(file.read(body, 4), 4);
    EXPECT_EQ(body[0], 7);
    ASSERT_TRUE(file.ascend(want));
    const int64_t formEnd = static_cast<int64_t>(riff.dataOffset) + riff.size;
    EXPECT_EQ(file.tell(), formEnd);

    ASSERT_EQ(file.seek(goodStart + 12, RiffFile::Origin::kBegin), goodStart + 12);
    RiffChunk tail;
    tail.id = makeFourcc('t', 'a', 'i', 'l');
    EXPECT_FALSE(file.descend(tail, &riff, RiffFile::Search::kChunk));
    EXPECT_EQ(file.tell(), goodStart + 12);
    // Without a parent the search runs on past the form's end; from there a
    // search inside the parent finds nothing.
    EXPECT_TRUE(file.descend(tail, nullptr, RiffFile::Search::kChunk));
    EXPECT_FALSE(file.descend(tail, &riff, RiffFile::Search::kNext));
    RiffChunk none;
    none.id = makeFourcc('n', 'o', 'n', 'e');
    EXPECT_FALSE(file.descend(none, nullptr, RiffFile::Search::kChunk));
    file.close();
    std::remove(path.c_str());
}

TEST(RiffFile, ChunkSizesPastTheEndAndReadsPastTheEndAreHarmless) {
    std::string path = dsptest::wavefileTempPath("riff_past_end.bin");
    Bytes image =
        dsptest::joinBytes({dsptest::chunkBytesWithSize("huge", 0xFFFFFFFFu, {1, 2, 3, 4}),
                            dsptest::chunkBytes("next", {5, 6})});
    dsptest::writeFileBytes(path, image);
    RiffFile file;
    ASSERT_TRUE(file.open(path.c_str(), RiffFile::Access::kRead));
    RiffChunk wanted;
    wanted.id = makeFourcc('n', 'e', 'x', 't');
    EXPECT_FALSE(file.descend(wanted, nullptr, RiffFile::Search::kChunk));
    RiffChunk huge;
    ASSERT_TRUE(file.descend(huge, nullptr, RiffFile::Search::kNext));
    EXPECT_EQ(huge.size, 0xFFFFFFFFu);
    ASSERT_TRUE(file.ascend(huge)); // lands far past the end
    uint8_t byte = 0;
    EXPECT_EQ(file.read(&byte, 1), 0);
    EXPECT_EQ(file.seek(-1, RiffFile::Origin::kBegin), -1);
    EXPECT_EQ(file.seek(-2, RiffFile::Origin::kEnd), static_cast<int64_t>(image.size()) - 2);
    uint8_t two[4] = {};
    EXPECT_EQ(file.read(two, 4), 2);
    EXPECT_EQ(two[0], 5);
    file.close();
    std::remove(path.c_str());
}

TEST(RiffFile, RefusesBadPathsAndWritesToReadOnlyFiles) {
    RiffFile file;
    EXPECT_FALSE(file.open(nullptr, RiffFile::Access::kRead));
    EXPECT_FALSE(file.open("", RiffFile::Access::kRead));
    EXPECT_FALSE(
        file.open(dsptest::wavefileTempPath("riff_missing.bin").c_str(), RiffFile::Access::kRead));
    EXPECT_FALSE(file.open(DSP_TEST_TMPDIR, RiffFile::Access::kCreate));
    EXPECT_FALSE(file.isOpen());
    uint8_t byte = 0;
    EXPECT_EQ(file.read(&byte, 1), -1);
    EXPECT_EQ(file.write(&byte, 1), -1);
    EXPECT_EQ(file.seek(0, RiffFile::Origin::kBegin), -1);

    std::string path = dsptest::wavefileTempPath("riff_readonly.bin");
    dsptest::writeFileBytes(path, {1, 2, 3, 4});
    ASSERT_TRUE(file.open(path.c_str(), RiffFile::Access::kRead));
    EXPECT_EQ(file.write(&byte, 1), -1);
    RiffChunk chunk;
    EXPECT_FALSE(file.createChunk(chunk, false));
    EXPECT_TRUE(file.close());
    EXPECT_EQ(dsptest::readFileBytes(path), (Bytes{1, 2, 3, 4}));
    std::remove(path.c_str());
}

} // namespace
