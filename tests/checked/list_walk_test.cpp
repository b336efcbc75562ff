// The walk over list allocators and the large-block layer finds every kind of damage that it has a
// name for. Each is planted in real records, found where it is, and taken out again.
#include "support/walk_test.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

using namespace psptest;

namespace {

// ---- The list allocator ----

class ListWalk : public Walk {
  protected:
    void SetUp() override
    {
        Walk::SetUp();
        // From low addresses to high: the rest of the chunk, d, the hole c, b, a.
        for (LIST_HDR** hdr : {&a_, &b_, &c_, &d_})
            *hdr = static_cast<LIST_HDR*>(list_allocator_alloc(96, &entry_)) - 1;
        list_allocator_free(c_ + 1, &entry_);
        chunk_ = entry_.chunks;
        rest_ = c_->ptr.next;
        ASSERT_EQ(chunk_->free_hdrs, c_);
        ASSERT_EQ(rest_->ptr.next, nullptr);
        expect_sound(entry_);
    }
    void TearDown() override
    {
        expect_sound(entry_);
        list_allocator_free_all(&entry_);
        Walk::TearDown();
    }
    void expect_found(MEM_DAMAGE damage, const void* place) const
    {
        expect_damage(psp_walkList(&entry_), damage, place);
    }

    LIST_ALLOCATOR_ENTRY entry_ = list_allocator_empty();
    LIST_CHUNK_HDR* chunk_ = nullptr;
    LIST_HDR* a_ = nullptr;
    LIST_HDR* b_ = nullptr;
    LIST_HDR* c_ = nullptr;
    LIST_HDR* d_ = nullptr;
    LIST_HDR* rest_ = nullptr;
};

TEST_F(ListWalk, FindsAChunkThatIsNoLargeBlock)
{
    for (void* place : {static_cast<void*>(nowhere), static_cast<void*>(moved_by(chunk_, 4)),
                        static_cast<void*>(moved_by(chunk_, 8)), static_cast<void*>(a_)}) {
        const Planted planted(entry_.chunks, static_cast<LIST_CHUNK_HDR*>(place));
        expect_found(MEM_DAMAGE::CHUNK_PLACE, place);
    }
    const Planted planted(chunk_->next, reinterpret_cast<LIST_CHUNK_HDR*>(nowhere));
    expect_found(MEM_DAMAGE::CHUNK_PLACE, nowhere);
}

TEST_F(ListWalk, FindsALinkThatDoesNotLeadBack)
{
    list_allocator_alloc(4096, &entry_);
    ASSERT_EQ(entry_.chunks->next, chunk_);
    {
        const Planted planted(chunk_->prev, nullptr);
        expect_found(MEM_DAMAGE::CHUNK_LINK, chunk_);
    }
    const Planted circle(chunk_->next, entry_.chunks);
    expect_found(MEM_DAMAGE::CHUNK_LINK, entry_.chunks);
}

TEST_F(ListWalk, FindsAChunkOfAnotherLengthThanItsLargeBlock)
{
    for (const std::uint32_t size : {0u, 4080u, 4100u, 4112u}) {
        const Planted planted(chunk_->size, size);
        expect_found(MEM_DAMAGE::CHUNK_SIZE, chunk_);
    }
    const Planted planted(large_header(chunk_)->size, 39);
    expect_found(MEM_DAMAGE::CHUNK_SIZE, chunk_);
}

TEST_F(ListWalk, FindsAChunkWithoutABlockInUse)
{
    auto* only = static_cast<LIST_HDR*>(list_allocator_alloc(4096, &entry_)) - 1;
    LIST_CHUNK_HDR* chunk = entry_.chunks;
    const Planted free(only->ptr.next, nullptr);
    const Planted listed(chunk->free_hdrs, only);
    expect_found(MEM_DAMAGE::CHUNK_EMPTY, chunk);
}

TEST_F(ListWalk, FindsABlockThatLeavesItsChunk)
{
    for (const std::uint32_t size : {97u, 112u, UINT32_MAX}) {
        const Planted planted(a_->size, size); // the last of the chunk
        expect_found(MEM_DAMAGE::BLOCK_LENGTH, a_);
    }
}

TEST_F(ListWalk, FindsABlockThatReachesIntoTheNext)
{
    const Planted planted(b_->size, 96 + 32); // where no header is
    const MEM_WALK walk = psp_walkList(&entry_);
    EXPECT_TRUE(walk.damage == MEM_DAMAGE::BLOCK_LENGTH || walk.damage == MEM_DAMAGE::BLOCK_STATE);
}

TEST_F(ListWalk, FindsABlockThatIsNeitherInUseNorFree)
{
    {
        const Planted planted(b_->ptr.chunk, nullptr);
        expect_found(MEM_DAMAGE::BLOCK_STATE, b_);
    }
    {
        const Planted lost(c_->ptr.next, nullptr);
        expect_found(MEM_DAMAGE::BLOCK_STATE, rest_);
    }
    const Planted lost(chunk_->free_hdrs, rest_);
    expect_found(MEM_DAMAGE::BLOCK_STATE, c_);
}

TEST_F(ListWalk, FindsAFreeListThatLeadsAstray)
{
    for (LIST_HDR* place : {reinterpret_cast<LIST_HDR*>(nowhere), moved_by(rest_, 8),
                            reinterpret_cast<LIST_HDR*>(chunk_), moved_by(a_, 96 + 16)}) {
        const Planted planted(rest_->ptr.next, place);
        expect_found(MEM_DAMAGE::FREE_LINK, place);
    }
}

TEST_F(ListWalk, FindsAFreeListThatLeadsIntoABlock)
{
    LIST_HDR* inside = b_ + 2;
    inside->ptr.next = nullptr;
    const Planted planted(rest_->ptr.next, inside);
    const MEM_WALK walk = psp_walkList(&entry_);
    expect_damage(walk, MEM_DAMAGE::FREE_LINK, chunk_);
}

TEST_F(ListWalk, FindsAFreeListThatDoesNotEnd)
{
    const Planted planted(rest_->ptr.next, c_);
    expect_found(MEM_DAMAGE::FREE_CYCLE, chunk_);
}

TEST_F(ListWalk, FindsFreeNeighbours)
{
    LIST_HDR* second = a_ + 3; // 32 bytes of payload behind the first header
    *second = {96 - 32 - 16, {.next = c_}};
    const Planted size(a_->size, 32);
    const Planted next(a_->ptr.next, second);
    const Planted head(chunk_->free_hdrs, a_);
    expect_found(MEM_DAMAGE::FREE_NEIGHBORS, second);
}

TEST_F(ListWalk, FindsChunksThatAreNotCounted)
{
    {
        const Planted planted(entry_.mem_info.free.current, entry_.mem_info.free.current - 1);
        expect_found(MEM_DAMAGE::COUNTER, &entry_);
    }
    const Planted planted(entry_.mem_info.free.max, entry_.mem_info.free.current - 1);
    expect_found(MEM_DAMAGE::COUNTER, &entry_);
}

// ---- Large blocks ----

class LargeWalk : public Walk {
  protected:
    void SetUp() override
    {
        Walk::SetUp();
        std::size_t size = 1000;
        block_ = psp_allocLargeBlock(&size, nullptr);
        expect_sound_large_blocks();
    }
    void TearDown() override
    {
        psp_freeLargeBlock(block_, nullptr);
        Walk::TearDown();
    }

    void* block_ = nullptr;
};

TEST_F(LargeWalk, FindsADamagedChunk)
{
    {
        const Planted planted(LargeBlock.chunks->prev, LargeBlock.chunks);
        expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::CHUNK_LINK, LargeBlock.chunks);
    }
    LIST_CHUNK_HDR* astray = moved_by(LargeBlock.chunks, 1);
    const Planted planted(LargeBlock.chunks, astray);
    expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::CHUNK_PLACE, astray);
}

TEST_F(LargeWalk, FindsALargeBlockLongerThanItsMemory)
{
    for (const std::size_t size : {std::size_t{0}, std::size_t{8}, std::size_t{1009}, SIZE_MAX}) {
        const Planted planted(large_header(block_)->size, size);
        expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::BLOCK_LENGTH,
                      reinterpret_cast<LIST_HDR*>(large_header(block_)) - 1);
    }
}

TEST_F(LargeWalk, FindsAnotherSumThanTheStatistics)
{
    {
        const Planted planted(psp_mem_stats.current, psp_mem_stats.current + 1);
        expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::COUNTER, &psp_mem_stats);
    }
    const Planted planted(psp_mem_stats.max, psp_mem_stats.current - 1);
    expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::COUNTER, &psp_mem_stats);
}

TEST_F(LargeWalk, FindsABufferWhoseMarkIsWrong)
{
    const Planted buffer(psp_membuffer, LargeBlock.chunks);
    expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::BUFFER, psp_membuffer);
    const Planted used(psp_membuffer_used, 1);
    expect_sound_large_blocks();
    const Planted other(psp_membuffer, static_cast<void*>(nowhere));
    expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::BUFFER, nowhere);
    const Planted none(LargeBlock.chunks, nullptr);
    const Planted nothing_used(psp_mem_stats.current, 0);
    expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::BUFFER, nowhere);
}

} // namespace
