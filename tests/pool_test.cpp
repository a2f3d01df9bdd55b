// The fastmem pool through its exports: alignment, accounting of size + 15,
// release in any order, refusal of unknown pointers, allocator failure.
#include "core/fastmem_pool.h"
#include "dsp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

bool aligned16(const void* p) {
    return p != nullptr && reinterpret_cast<uintptr_t>(p) % 16 == 0;
}

TEST(FastmemPool, BlocksAreAlignedAndAccountSizePlus15InAnyReleaseOrder) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t before = fastmemGetAllocatedSize(), count = pool.blockCount();
    void* p = fastmemAlloc(100);
    ASSERT_TRUE(aligned16(p));
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 115);
    std::memset(p, 0xAB, 100); // the whole block is usable
    void* empty = fastmemAlloc(0);
    ASSERT_TRUE(aligned16(empty));
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 130);
    void* c = fastmemAlloc(30);
    // Releasing the middle block keeps the others.
    EXPECT_EQ(fastmemFree(empty), 1u);
    EXPECT_EQ(pool.blockCount(), count + 2);
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 115 + 45);
    EXPECT_EQ(fastmemFree(p), 1u);
    EXPECT_EQ(fastmemFree(c), 1u);
    EXPECT_EQ(pool.blockCount(), count);

    std::vector<void*> blocks;
    uint32_t expected = before;
    for (uint32_t i = 0; i < 200; ++i) {
        blocks.push_back(fastmemAlloc(i * 3));
        expected += i * 3 + 15;
        ASSERT_TRUE(aligned16(blocks.back()));
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), expected);
    for (size_t i = 0; i < blocks.size(); i += 2) { // oldest first, then newest first
        EXPECT_EQ(fastmemFree(blocks[i]), 1u);
    }
    for (size_t i = blocks.size() - 1; i < blocks.size(); i -= 2) {
        EXPECT_EQ(fastmemFree(blocks[i]), 1u);
    }
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(FastmemPool, UnknownDoubleInteriorAndOversizedRequestsAreRefused) {
    const uint32_t before = fastmemGetAllocatedSize();
    void* p = fastmemAlloc(64);
    int onStack = 0;
    EXPECT_EQ(fastmemFree(&onStack), 0u);
    EXPECT_EQ(fastmemFree(static_cast<char*>(p) + 16), 0u);
    EXPECT_EQ(fastmemFree(nullptr), 0u);
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 79);
    EXPECT_EQ(fastmemFree(p), 1u);
    EXPECT_EQ(fastmemFree(p), 0u);
    // Sizes whose + 15 would overflow the accounting.
    EXPECT_EQ(fastmemAlloc(UINT32_MAX), nullptr);
    EXPECT_EQ(fastmemAlloc(UINT32_MAX - 14), nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
}

TEST(FastmemPool, SystemAllocatorFailureReturnsNullAndLeavesNoTrace) {
    dsp::FastmemPool& pool = dsp::fastmemPool();
    const uint32_t before = fastmemGetAllocatedSize(), count = pool.blockCount();
    pool.setSystemAllocator([](size_t) -> void* { return nullptr; });
    void* p = fastmemAlloc(128);
    pool.setSystemAllocator(nullptr);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), before);
    EXPECT_EQ(pool.blockCount(), count);
    void* next = fastmemAlloc(100);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(fastmemGetAllocatedSize(), before + 115);
    EXPECT_EQ(fastmemFree(next), 1u);
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
    EXPECT_TRUE(pool.release(pool.allocate(5)));
}

} // namespace
