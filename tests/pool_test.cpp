// The fastmem pool through its exports: alignment, accounting of size + 15,
// release in any order, refusal of unknown pointers, allocator failure.
#include "core/fastmem_pool.h"
#include "dsp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

bool aligned16(const void* p) {
    return reinterpret_cast<uintptr_t>(p) % 16 == 0;
}

TEST(FastmemPool, AllocationIsAlignedAndAccountsSizePlus15) {
    uint32_t before = fastmemGetAllocatedSize();
    void* p = fastmemAlloc(100);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(aligned16(p));
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 115);
    // The whole block is usable.
    std::memset(p, 0xAB, 100);
    EXPECT_EQ(fastmemFree(p), 1u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(FastmemPool, ZeroBytesGivesAValidAlignedBlock) {
    uint32_t before = fastmemGetAllocatedSize();
    void* p = fastmemAlloc(0);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(aligned16(p));
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 15);
    EXPECT_EQ(fastmemFree(p), 1u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(FastmemPool, ReleasingTheMiddleBlockKeepsTheOthers) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    uint32_t before = fastmemGetAllocatedSize();
    uint32_t count = pool.blockCount();
    void* a = fastmemAlloc(10);
    void* b = fastmemAlloc(20);
    void* c = fastmemAlloc(30);
    EXPECT_EQ(pool.blockCount(), count + 3);
    EXPECT_EQ(fastmemFree(b), 1u);
    EXPECT_EQ(pool.blockCount(), count + 2);
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 25 + 45);
    EXPECT_EQ(fastmemFree(a), 1u);
    EXPECT_EQ(fastmemFree(c), 1u);
    EXPECT_EQ(pool.blockCount(), count);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(FastmemPool, UnknownDoubleAndInteriorPointersAreRefused) {
    uint32_t before = fastmemGetAllocatedSize();
    void* p = fastmemAlloc(64);
    int onStack = 0;
    EXPECT_EQ(fastmemFree(&onStack), 0u);
    EXPECT_EQ(fastmemFree(static_cast<char*>(p) + 16), 0u);
    EXPECT_EQ(fastmemFree(nullptr), 0u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 79);
    EXPECT_EQ(fastmemFree(p), 1u);
    EXPECT_EQ(fastmemFree(p), 0u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(FastmemPool, ManyBlocksReleasedInAnyOrderReturnTheTotalToItsStart) {
    uint32_t before = fastmemGetAllocatedSize();
    std::vector<void*> blocks;
    uint32_t expected = before;
    for (uint32_t i = 0; i < 200; ++i) {
        blocks.push_back(fastmemAlloc(i * 3));
        expected += i * 3 + 15;
        ASSERT_TRUE(aligned16(blocks.back()));
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), expected);
    for (size_t i = 0; i < blocks.size(); i += 2) {
        EXPECT_EQ(fastmemFree(blocks[i]), 1u);
    }
    for (size_t i = blocks.size() - 1; i < blocks.size(); i -= 2) {
        EXPECT_EQ(fastmemFree(blocks[i]), 1u);
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(FastmemPool, SizesThatWouldOverflowTheAccountingAreRefused) {
    uint32_t before = fastmemGetAllocatedSize();
    EXPECT_EQ(fastmemAlloc(UINT32_MAX), nullptr);
    EXPECT_EQ(fastmemAlloc(UINT32_MAX - 14), nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

void* failingAlloc(size_t) {
    return nullptr;
}

TEST(FastmemPool, SystemAllocatorFailureReturnsNullAndLeavesNoTrace) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    uint32_t before = fastmemGetAllocatedSize();
    uint32_t count = pool.blockCount();
    pool.setSystemAllocator(failingAlloc);
    void* p = fastmemAlloc(128);
    pool.setSystemAllocator(nullptr);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
    EXPECT_EQ(pool.blockCount(), count);
}

TEST(FastmemPool, ReleaseAllEmptiesAPrivatePool) {
    dsp::FastmemPool pool;
    pool.allocate(1);
    pool.allocate(2);
    EXPECT_EQ(pool.allocatedSize(), 33u);
    pool.releaseAll();
    EXPECT_EQ(pool.allocatedSize(), 0u);
    EXPECT_EQ(pool.blockCount(), 0u);
    pool.releaseAll(); // nothing to do
    void* p = pool.allocate(5);
    EXPECT_TRUE(pool.release(p));
}

} // namespace
