// The walk over list allocators and the large-block layer finds every kind of damage that it has a
// name for. Each is planted in real records, found where it is, and taken out again.
#include "support/walk_test.h"

#include "psp_free_index.h"
#include "psp_track.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

using namespace psptest;

namespace {

// ---- The list allocator ----

// Another link in a node, until the end of the scope.
class PlantedLink {
  public:
    PlantedLink(LIST_HDR* node, NODE_LINK link, const void* to)
        : word_(&node->ptr.word + link), before_(psp_track_peek(word_))
    {
        constexpr std::uint64_t piece = (1u << 21) - 1;
        psp_track_poke(word_, address_of(to) / LIST_UNIT << 21 | (before_ & piece));
    }
    ~PlantedLink()
    {
        psp_track_poke(word_, before_);
    }
    PlantedLink(const PlantedLink&) = delete;
    PlantedLink& operator=(const PlantedLink&) = delete;

  private:
    std::uint64_t* word_;
    std::uint64_t before_;
};

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
        rest_ = list_first_block(chunk_);
        ASSERT_EQ(entry_.index.aside, c_);
        ASSERT_EQ(free_index_top(&entry_), rest_);
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
    const Planted free(only->back, only->back | LIST_FREE);
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
    const Planted planted(b_->ptr.chunk, nullptr);
    expect_found(MEM_DAMAGE::BLOCK_STATE, b_);
}

TEST_F(ListWalk, FindsABlockThatDoesNotKnowItsNeighbours)
{
    for (LIST_HDR* block : {rest_, d_, c_, b_, a_})
        for (const std::uint32_t wrong : {LIST_LAST, LIST_UNIT, 2 * LIST_UNIT}) {
            const Planted planted(block->back, block->back ^ wrong);
            expect_found(MEM_DAMAGE::BLOCK_STATE, block);
        }
}

TEST_F(ListWalk, FindsFreeBlocksThatAreLost)
{
    {
        const Planted lost(entry_.index.aside, nullptr);
        expect_found(MEM_DAMAGE::FREE_LOST, &entry_);
    }
    const Planted lost(entry_.index.sizes, 0);
    expect_found(MEM_DAMAGE::FREE_LOST, &entry_);
}

TEST_F(ListWalk, FindsALinkThatLeadsAstray)
{
    for (LIST_HDR* place :
         {reinterpret_cast<LIST_HDR*>(nowhere), moved_by(rest_, 8),
          reinterpret_cast<LIST_HDR*>(chunk_), moved_by(a_, 96 + 16), a_, b_ + 2, c_ + 1}) {
        const Planted planted(entry_.index.aside, place);
        expect_found(MEM_DAMAGE::FREE_LINK, place);
    }
    for (const NODE_LINK link : {FREE_LESS, FREE_MORE, FREE_CHILD})
        for (LIST_HDR* place : {moved_by(rest_, -16), a_, b_ + 2, moved_by(a_, 96 + 16)}) {
            const PlantedLink planted(rest_, link, place);
            expect_found(MEM_DAMAGE::FREE_LINK, place);
        }
}

TEST_F(ListWalk, FindsALinkThatDoesNotLeadBackInTheIndex)
{
    // Three holes of one size: each is the child of the one freed after it.
    LIST_HDR* holes[3];
    for (LIST_HDR*& hole : holes) {
        hole = static_cast<LIST_HDR*>(list_allocator_alloc(208, &entry_)) - 1;
        list_allocator_alloc(208, &entry_);
    }
    for (LIST_HDR* hole : holes)
        list_allocator_free(hole + 1, &entry_);
    list_allocator_free(a_ + 1, &entry_); // aside, where the last hole was
    expect_sound(entry_);
    for (LIST_HDR* hole : {holes[0], holes[1]}) {
        const PlantedLink planted(hole, FREE_PREV, c_);
        expect_found(MEM_DAMAGE::FREE_LINK, hole);
    }
    // Order and size of a child.
    {
        const PlantedLink child(holes[1], FREE_CHILD, nullptr);
        expect_found(MEM_DAMAGE::FREE_LOST, &entry_);
    }
    const PlantedLink none(holes[1], FREE_CHILD, nullptr);
    const PlantedLink first(holes[2], FREE_CHILD, holes[0]);
    const PlantedLink back(holes[0], FREE_PREV, holes[2]);
    const PlantedLink child(holes[0], FREE_CHILD, holes[1]);
    const PlantedLink parent(holes[1], FREE_PREV, holes[0]);
    expect_found(MEM_DAMAGE::FREE_ORDER, holes[1]);
}

TEST_F(ListWalk, FindsABlockThatIsLedToTwice)
{
    const Planted aside(entry_.index.aside, nullptr);
    const PlantedLink twice(rest_, FREE_CHILD, c_);
    const MEM_WALK walk = psp_walkList(&entry_);
    EXPECT_TRUE(walk.damage == MEM_DAMAGE::FREE_LINK || walk.damage == MEM_DAMAGE::FREE_CYCLE);
}

TEST_F(ListWalk, FindsABlockOutOfOrder)
{
    {
        const Planted planted(rest_->back, rest_->back & ~LIST_FIRST);
        expect_found(MEM_DAMAGE::FREE_ORDER, rest_);
    }
    {
        const Planted planted(c_->back, c_->back | LIST_FIRST);
        expect_found(MEM_DAMAGE::FREE_ORDER, c_);
    }
    {
        const Planted label(c_->ptr.word, c_->ptr.word ^ 1);
        expect_found(MEM_DAMAGE::FREE_ORDER, c_);
    }
    {
        const Planted numbers(chunk_->pushes, 1);
        expect_found(MEM_DAMAGE::FREE_ORDER, c_);
    }
    // With c in the tree: on the wrong side of the rest, which is longer, or above it.
    list_allocator_free(a_ + 1, &entry_);
    const bool rest_above = free_index_top(&entry_) == rest_;
    LIST_HDR* above = rest_above ? rest_ : c_;
    LIST_HDR* below = rest_above ? c_ : rest_;
    {
        const PlantedLink none(above, rest_above ? FREE_LESS : FREE_MORE, nullptr);
        const PlantedLink wrong(above, rest_above ? FREE_MORE : FREE_LESS, below);
        expect_found(MEM_DAMAGE::FREE_ORDER, below);
    }
    const PlantedLink none(above, rest_above ? FREE_LESS : FREE_MORE, nullptr);
    const PlantedLink over(below, rest_above ? FREE_MORE : FREE_LESS, above);
    const std::uint64_t top = address_of(below) / LIST_UNIT << 21;
    const Planted planted(entry_.index.sizes, top);
    expect_found(MEM_DAMAGE::FREE_ORDER, above);
}

TEST_F(ListWalk, FindsAChunkLabelledOutOfOrder)
{
    list_allocator_alloc(4096, &entry_);
    const Planted planted(entry_.chunks->label, chunk_->label);
    expect_found(MEM_DAMAGE::CHUNK_ORDER, chunk_);
}

TEST_F(ListWalk, FindsDamageAmongBlocksWithoutPayload)
{
    LIST_HDR* empties[2];
    for (LIST_HDR*& empty : empties) {
        empty = static_cast<LIST_HDR*>(list_allocator_alloc(0, &entry_)) - 1;
        list_allocator_alloc(0, &entry_);
    }
    for (LIST_HDR* empty : empties)
        list_allocator_free(empty + 1, &entry_);
    ASSERT_NE(chunk_->empties, 0u);
    expect_sound(entry_);
    {
        const Planted lost(entry_.empties, 0);
        expect_found(MEM_DAMAGE::FREE_LOST, chunk_);
    }
    {
        const Planted lost(chunk_->empties, 0);
        expect_found(MEM_DAMAGE::FREE_LOST, chunk_);
    }
    for (const std::uint32_t astray : {1u, chunk_->empties - 1, chunk_->empties + 1000}) {
        const Planted planted(chunk_->empties, astray);
        expect_found(MEM_DAMAGE::FREE_LINK, free_index_empty(chunk_, astray));
    }
    {
        const Planted planted(empties[0]->ptr.empty.prev, 0);
        expect_found(MEM_DAMAGE::FREE_LINK, empties[0]);
    }
    {
        const Planted planted(empties[0]->back, empties[1]->back);
        expect_found(MEM_DAMAGE::FREE_ORDER, empties[0]);
    }
    const Planted planted(empties[0]->back, LIST_FREE | chunk_->pushes * LIST_UNIT);
    expect_found(MEM_DAMAGE::BLOCK_STATE, empties[0]);
}

TEST_F(ListWalk, FindsFreeNeighbours)
{
    LIST_HDR* second = a_ + 3; // 32 bytes of payload behind the first header
    const std::uint32_t place = list_distance(rest_, a_);
    *second = {96 - 32 - 16, (place + 48) | LIST_FREE | LIST_LAST, {.word = 0}};
    const Planted size(a_->size, 32);
    const Planted back(a_->back, place | LIST_FREE);
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
    const Planted nothing_free(LargeBlock.index, FREE_INDEX{});
    const Planted nothing_used(psp_mem_stats.current, 0);
    expect_damage(psp_walkLargeBlocks(), MEM_DAMAGE::BUFFER, nowhere);
}

} // namespace
