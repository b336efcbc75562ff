// The walk over the other allocators, tags and pools finds every kind of damage that it has a name
// for. Each is planted in real records, found where it is, and taken out again.
#include "support/walk_test.h"

#include "psp/pool.h"
#include "psp_track.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <vector>

using namespace psptest;

namespace {

// ---- The block allocator ----

class BlockWalk : public Walk {
  protected:
    void SetUp() override
    {
        Walk::SetUp();
        for (BLOCK_INFO& info : entry_.blocks)
            info.mult = 2;
        entry_.mem_info.overhead = {sizeof entry_, sizeof entry_};
        small_ = alloc(50);
        other_ = alloc(100);
        alloc(50);
        for (int i = 0; i < 3; i++) // the second chunk of the class has four blocks
            alloc(50);
        large_ = alloc(10000);
        block_allocator_free(alloc(60) + 1, &entry_);
        avail_ = entry_.blocks[2].avail;
        ASSERT_NE(avail_, nullptr);
        expect_sound(entry_);
    }
    void TearDown() override
    {
        expect_sound(entry_);
        block_allocator_free_all(&entry_);
        expect_sound(entry_);
        Walk::TearDown();
    }
    BLOCK_HDR* alloc(std::size_t size)
    {
        return static_cast<BLOCK_HDR*>(block_allocator_alloc(size, &entry_)) - 1;
    }
    void expect_found(MEM_DAMAGE damage, const void* place) const
    {
        expect_damage(psp_walkBlock(&entry_), damage, place);
    }

    BLOCK_ALLOCATOR_ENTRY entry_{};
    BLOCK_HDR* small_ = nullptr; // of class 64
    BLOCK_HDR* other_ = nullptr; // of class 128
    BLOCK_HDR* large_ = nullptr;
    BLOCK_HDR* avail_ = nullptr; // of class 64
};

TEST_F(BlockWalk, FindsAChunkThatIsNoLargeBlock)
{
    for (void* place : {static_cast<void*>(nowhere), static_cast<void*>(small_ + 1)}) {
        const Planted planted(entry_.chunks, static_cast<BLOCK_CHUNK_HDR*>(place));
        expect_found(MEM_DAMAGE::CHUNK_PLACE, place);
    }
}

TEST_F(BlockWalk, FindsALinkThatDoesNotLeadBack)
{
    BLOCK_CHUNK_HDR* second = entry_.chunks->next;
    {
        const Planted planted(second->prev, second);
        expect_found(MEM_DAMAGE::CHUNK_LINK, second);
    }
    const Planted circle(second->next, entry_.chunks);
    expect_found(MEM_DAMAGE::CHUNK_LINK, entry_.chunks);
}

TEST_F(BlockWalk, FindsAChunkOfNoClass)
{
    BLOCK_CHUNK_HDR* chunk = entry_.chunks->next; // of four blocks
    for (const std::size_t size :
         {8u + 15u, 8u + 16u + 72u, 8u + 16u + 3u * 72u, 8u + 16u + 290u}) {
        const Planted planted(large_header(chunk)->size, size);
        expect_found(MEM_DAMAGE::CHUNK_SIZE, chunk);
    }
}

TEST_F(BlockWalk, FindsALargeBlockOfAnotherLengthThanItsChunk)
{
    for (const BLOCK_SIZE size :
         {BLOCK_SIZE{10000, 10048}, BLOCK_SIZE{9984, 10016}, BLOCK_SIZE{10017, 10016}}) {
        const Planted planted(large_->size, size);
        expect_found(MEM_DAMAGE::BLOCK_LENGTH, large_);
    }
}

TEST_F(BlockWalk, FindsABlockThatIsNeitherInUseNorFree)
{
    for (const BLOCK_SIZE size : {BLOCK_SIZE{50, 128}, BLOCK_SIZE{65, 64}, BLOCK_SIZE{32, 64}}) {
        const Planted planted(small_->size, size);
        expect_found(MEM_DAMAGE::BLOCK_STATE, &entry_.blocks[2]);
    }
    const Planted lost(entry_.blocks[2].avail, avail_->next);
    expect_found(MEM_DAMAGE::BLOCK_STATE, &entry_.blocks[2]);
}

TEST_F(BlockWalk, FindsAFreeListThatLeadsAstray)
{
    for (BLOCK_HDR* place : {reinterpret_cast<BLOCK_HDR*>(nowhere), moved_by(small_, 8), other_,
                             large_, moved_by(avail_, 4)}) {
        const Planted planted(avail_->next, place);
        expect_found(MEM_DAMAGE::FREE_LINK, place);
    }
}

TEST_F(BlockWalk, FindsAFreeListThatDoesNotEnd)
{
    const Planted planted(avail_->next, avail_);
    expect_found(MEM_DAMAGE::FREE_CYCLE, &entry_.blocks[2]);
}

TEST_F(BlockWalk, FindsAClassThatRefillsWrongly)
{
    for (const std::uint32_t mult : {0u, 1u, 3u, 256u}) {
        const Planted planted(entry_.blocks[7].mult, mult);
        expect_found(MEM_DAMAGE::REFILL, &entry_.blocks[7]);
    }
}

TEST_F(BlockWalk, FindsEveryCounterThatIsOff)
{
    PSP_TAG_MEM_INFO& info = entry_.mem_info;
    for (PSP_MEM_INFO* counter : {&info.used, &info.free, &info.overhead}) {
        for (const int by : {1, -1}) {
            const Planted planted(counter->current, counter->current + static_cast<size_t>(by));
            expect_found(MEM_DAMAGE::COUNTER, &entry_);
        }
        const Planted planted(counter->max, counter->current - 1);
        expect_found(MEM_DAMAGE::COUNTER, &entry_);
    }
}

TEST_F(BlockWalk, FindsABlockInUseOnAFreeList)
{
    const Planted link(small_->next, avail_);
    const Planted head(entry_.blocks[2].avail, small_);
    expect_found(MEM_DAMAGE::COUNTER, &entry_);
}

// ---- The stack allocator ----

class StackWalk : public Walk {
  protected:
    void SetUp() override
    {
        Walk::SetUp();
        entry_.blocksize = 4096;
        stack_allocator_alloc(4000, &entry_); // 96 left
        stack_allocator_alloc(3000, &entry_);
        stack_allocator_alloc(5000, &entry_); // full
        do {                                  // where the root of the tree is depends on addresses
            stack_allocator_alloc(4000, &entry_);
            root_ = entry_.behind;
        } while (root_->newer == nullptr || root_->older == nullptr);
        head_ = entry_.partial_chunks;
        expect_sound(entry_);
    }
    void TearDown() override
    {
        expect_sound(entry_);
        stack_allocator_free_all(&entry_);
        expect_sound(entry_);
        Walk::TearDown();
    }
    void expect_found(MEM_DAMAGE damage, const void* place) const
    {
        expect_damage(psp_walkStack(&entry_), damage, place);
    }

    STACK_ALLOCATOR_ENTRY entry_{};
    STACK_CHUNK_HDR* head_ = nullptr;
    STACK_CHUNK_HDR* root_ = nullptr; // of the chunks behind
};

TEST_F(StackWalk, FindsAChunkThatIsNoLargeBlock)
{
    for (STACK_CHUNK_HDR** list : {&entry_.partial_chunks, &entry_.behind, &entry_.full_chunks}) {
        const Planted planted(*list, reinterpret_cast<STACK_CHUNK_HDR*>(nowhere));
        expect_found(MEM_DAMAGE::CHUNK_PLACE, nowhere);
    }
}

TEST_F(StackWalk, FindsALinkThatDoesNotLeadBack)
{
    for (STACK_CHUNK_HDR* chunk : {head_, entry_.full_chunks}) {
        const Planted planted(chunk->prev, chunk);
        expect_found(MEM_DAMAGE::CHUNK_LINK, chunk);
    }
}

TEST_F(StackWalk, FindsATreeThatLeadsInACircle)
{
    for (STACK_CHUNK_HDR** link : {&root_->newer, &root_->older}) {
        const Planted planted(*link, root_);
        expect_found(MEM_DAMAGE::CHUNK_LINK, root_);
    }
    const Planted planted(root_->older->older, root_);
    expect_found(MEM_DAMAGE::CHUNK_LINK, root_);
}

TEST_F(StackWalk, FindsAChunkWhosePartsDoNotMakeIt)
{
    {
        const Planted planted(head_->offset, head_->offset + 8);
        expect_found(MEM_DAMAGE::CHUNK_SIZE, head_);
    }
    {
        const Planted planted(head_->left, head_->left + 8);
        expect_found(MEM_DAMAGE::CHUNK_SIZE, head_);
    }
    {
        const Planted offset(head_->offset, head_->offset + 4);
        const Planted left(head_->left, head_->left - 4);
        expect_found(MEM_DAMAGE::CHUNK_SIZE, head_);
    }
    const Planted longer(entry_.blocksize, 4104);
    expect_found(MEM_DAMAGE::CHUNK_SIZE, head_);
}

TEST_F(StackWalk, FindsAChunkOnTheWrongList)
{
    {
        const Planted full(entry_.full_chunks, head_);
        const Planted partial(entry_.partial_chunks, nullptr);
        expect_found(MEM_DAMAGE::CHUNK_STATE, head_);
    }
    STACK_CHUNK_HDR* full = entry_.full_chunks;
    {
        const Planted partial(entry_.partial_chunks, full);
        expect_found(MEM_DAMAGE::CHUNK_STATE, full);
    }
    const Planted behind(entry_.behind, full);
    expect_found(MEM_DAMAGE::CHUNK_STATE, full);
}

TEST_F(StackWalk, FindsATreeThatKnowsItsRoomWrongly)
{
    auto* tail = reinterpret_cast<STACK_CHUNK_TAIL*>(moved_by(root_, 24 + 4096)) - 1;
    const STACK_CHUNK_TAIL before = stack_chunk_tail(root_);
    for (const STACK_CHUNK_TAIL wrong :
         {STACK_CHUNK_TAIL{before.newer - 8, before.older}, {before.newer, before.older + 8}}) {
        psp_track_open(tail, sizeof *tail);
        *tail = wrong;
        expect_found(MEM_DAMAGE::BOUND, root_);
    }
    psp_track_open(tail, sizeof *tail);
    *tail = before;
    psp_track_close(tail, sizeof *tail);
}

TEST_F(StackWalk, FindsBlocksThatAreNotCounted)
{
    {
        const Planted planted(entry_.mem_info.used.current, entry_.mem_info.used.current - 1);
        expect_found(MEM_DAMAGE::COUNTER, &entry_);
    }
    const Planted planted(entry_.mem_info.used.max, entry_.mem_info.used.max - 1);
    expect_found(MEM_DAMAGE::COUNTER, &entry_);
}

// ---- The legacy allocator ----

TEST_F(Walk, FindsALegacyBlockThatDoesNotLeadBack)
{
    LEGACY_ALLOCATOR_ENTRY entry{};
    auto* a = static_cast<LEGACY_HDR*>(legacy_allocator_alloc(10, &entry)) - 1;
    auto* b = static_cast<LEGACY_HDR*>(legacy_allocator_alloc(10, &entry)) - 1;
    expect_sound(entry);
    {
        const Planted planted(a->prev, nullptr);
        expect_damage(psp_walkLegacy(&entry), MEM_DAMAGE::CHUNK_LINK, a);
    }
    {
        const Planted circle(a->next, b);
        expect_damage(psp_walkLegacy(&entry), MEM_DAMAGE::CHUNK_LINK, b);
    }
    {
        LEGACY_HDR* astray = moved_by(a, 8);
        const Planted planted(b->next, astray);
        expect_damage(psp_walkLegacy(&entry), MEM_DAMAGE::CHUNK_PLACE, astray);
    }
    expect_sound(entry);
    legacy_allocator_free_all(&entry);
}

// ---- Tags and pools, in the running library ----

class MemoryWalk : public PspTest {
  protected:
    void SetUp() override
    {
        PspTest::SetUp();
        for (const PSP_ALLOCATOR_TYPE type : all_types) {
            tags_.push_back(make_tag(type));
            get(100, tags_.back());
        }
        expect_sound_memory();
    }
    void TearDown() override
    {
        expect_sound_memory();
        PspTest::TearDown();
    }

    std::vector<PSP_MEMTAG> tags_;
};

TEST_F(MemoryWalk, FindsDamageInEveryTag)
{
    const auto* block = static_cast<BLOCK_ALLOCATOR_ENTRY*>(tags_[0]->t_allocator);
    const auto* list = static_cast<LIST_ALLOCATOR_ENTRY*>(tags_[1]->t_allocator);
    const auto* stack = static_cast<STACK_ALLOCATOR_ENTRY*>(tags_[2]->t_allocator);
    for (void* chunk : {static_cast<void*>(block->chunks), static_cast<void*>(list->chunks),
                        static_cast<void*>(stack->partial_chunks)}) {
        // First the sum of the large blocks is off; when that is made to fit, the chunk's length
        // is.
        const Planted size(large_header(chunk)->size, large_header(chunk)->size - 4);
        expect_damage(psp_walkMemory(), MEM_DAMAGE::COUNTER, &psp_mem_stats);
        const Planted stats(psp_mem_stats.current, psp_mem_stats.current - 4);
        expect_damage(psp_walkMemory(), MEM_DAMAGE::CHUNK_SIZE, chunk);
    }
    auto* legacy = static_cast<LEGACY_ALLOCATOR_ENTRY*>(tags_[3]->t_allocator);
    const Planted planted(legacy->a_first->prev, legacy->a_first);
    expect_damage(psp_walkMemory(), MEM_DAMAGE::CHUNK_LINK, legacy->a_first);
}

TEST_F(MemoryWalk, FindsDamageInTheTagOfTheRecords)
{
    LIST_CHUNK_HDR* chunk = static_list_allocator.chunks;
    const Planted planted(chunk->prev, chunk);
    expect_damage(psp_walkMemory(), MEM_DAMAGE::CHUNK_LINK, chunk);
}

TEST_F(MemoryWalk, FindsALinkBetweenTagsThatDoesNotLeadBack)
{
    {
        const Planted planted(tags_[1]->t_prev, nullptr);
        expect_damage(psp_walkMemory(), MEM_DAMAGE::TAG_LINK, tags_[1]);
    }
    {
        auto* astray = reinterpret_cast<TAG_ENTRY*>(nowhere);
        const Planted planted(tags_[1]->t_next, astray);
        expect_damage(psp_walkMemory(), MEM_DAMAGE::TAG_LINK, astray);
    }
    const Planted planted(taglisttail, tags_[2]);
    expect_damage(psp_walkMemory(), MEM_DAMAGE::TAG_LINK, tags_[2]);
}

TEST_F(MemoryWalk, FindsATagWithoutAnAllocatorOfItsOwn)
{
    {
        const Planted planted(tags_[0]->t_allocator, static_cast<void*>(nowhere));
        expect_damage(psp_walkMemory(), MEM_DAMAGE::TAG_RECORD, tags_[0]);
    }
    const Planted planted(tags_[2]->t_fcns.alloc_fcn, nullptr);
    expect_damage(psp_walkMemory(), MEM_DAMAGE::TAG_RECORD, tags_[2]);
}

TEST_F(MemoryWalk, FindsALargeBlockThatNoTagHas)
{
    std::size_t size = 1000;
    void* stray = psp_allocLargeBlock(&size, nullptr);
    EXPECT_EQ(psp_walkMemory().damage, MEM_DAMAGE::OWNER);
    psp_freeLargeBlock(stray, nullptr);
}

TEST_F(MemoryWalk, FindsDamageInAPoolOverEveryTag)
{
    for (PSP_MEMTAG tag : {tags_[0], tags_[1], tags_[2], tags_[3], PSP_GLOBAL_TAG}) {
        PSP_POOL pool = nullptr;
        ASSERT_EQ(
            psp_poolCreateEx(tag, PSP_POOL_VAR_SIZE, nullptr, nullptr, nullptr, nullptr, &pool),
            sOKAY);
        void* objects[3];
        for (void*& object : objects)
            object = psp_poolGetMem(pool, 80, 1, nullptr, __FILE__, __LINE__);
        psp_poolPut(pool, objects[0]);
        psp_poolPut(pool, objects[1]);
        expect_sound(*pool);
        PSP_POOL_HDR* head = pool->next;
        {
            auto* astray = reinterpret_cast<PSP_POOL_HDR*>(nowhere);
            const Planted planted(head->next->next, astray);
            expect_damage(psp_walkPool(pool), MEM_DAMAGE::POOL_LINK, astray);
        }
        {
            const Planted planted(head->next, head); // a circle
            expect_damage(psp_walkPool(pool), MEM_DAMAGE::POOL_COUNT, pool);
        }
        for (const std::uint32_t count : {0u, 1u, 3u}) {
            const Planted planted(pool->count, count);
            expect_damage(psp_walkPool(pool), MEM_DAMAGE::POOL_COUNT, pool);
        }
        if (tag != tags_[2] && tag != tags_[3]) { // those know no sizes
            const Planted planted(head->size, 128);
            expect_damage(psp_walkPool(pool), MEM_DAMAGE::POOL_SIZE, head);
        }
        expect_sound(*pool);
        psp_poolPut(pool, objects[2]);
        psp_poolDestroy(pool);
    }
}

} // namespace
