// The block allocator over a large-block layer that nothing else uses, so that a model of both
// predicts every address.
#include "support/alloc_driver.h"
#include "support/block_model.h"
#include "support/mem_walk.h"
#include "support/scale.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

using namespace psptest;

namespace {

// A record as a new tag has it.
BLOCK_ALLOCATOR_ENTRY new_record()
{
    BLOCK_ALLOCATOR_ENTRY entry{};
    for (BLOCK_INFO& info : entry.blocks)
        info.mult = 2;
    entry.mem_info.overhead = {sizeof entry, sizeof entry};
    return entry;
}

// ---- One allocation after the other ----

class BlockAllocator : public ::testing::Test {
  protected:
    void SetUp() override
    {
        entry_ = new_record();
    }
    void TearDown() override
    {
        block_allocator_free_all(&entry_);
        EXPECT_EQ(psp_mem_stats.current, 0u);
        EXPECT_EQ(LargeBlock.chunks, nullptr);
        psp_memlimit = 0;
    }

    void* alloc(std::size_t size)
    {
        return block_allocator_alloc(size, &entry_);
    }
    void* realloc(void* ptr, std::size_t size, int preserve = 1)
    {
        return block_allocator_realloc(ptr, size, &entry_, preserve);
    }
    void release(void* ptr)
    {
        block_allocator_free(ptr, &entry_);
    }
    static std::size_t size_of(void* ptr)
    {
        std::size_t size = 0;
        block_allocator_get_size(&size, ptr);
        return size;
    }
    PSP_TAG_MEM_INFO info() const
    {
        PSP_TAG_MEM_INFO copy{};
        block_allocator_mem_info(&entry_, &copy);
        return copy;
    }

    LargeBlockSpy spy_;
    BLOCK_ALLOCATOR_ENTRY entry_{};
    static constexpr std::size_t record = sizeof(BLOCK_ALLOCATOR_ENTRY);
};

TEST_F(BlockAllocator, RoundsUpToPowersOfTwoFromSixteenTo8192)
{
    const struct {
        std::size_t requested, actual;
    } cases[] = {{1, 16},      {15, 16},     {16, 16},       {17, 32},       {32, 32},
                 {33, 64},     {64, 64},     {65, 128},      {128, 128},     {129, 256},
                 {257, 512},   {513, 1024},  {1025, 2048},   {2049, 4096},   {4096, 4096},
                 {4097, 8192}, {8191, 8192}, {8192, 8192},   {8193, 8224},   {8224, 8224},
                 {8225, 8256}, {9000, 9024}, {65536, 65536}, {65537, 65568}, {1000001, 1000032}};
    for (const auto& c : cases) {
        void* block = alloc(c.requested);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(size_of(block), c.actual) << c.requested;
    }
}

TEST_F(BlockAllocator, ServesSizeZeroAsItsSmallestBlock)
{
    void* block = alloc(0);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(size_of(block), 16u);
    EXPECT_EQ(info().used.current, 0u);
    EXPECT_EQ(info().overhead.current, record + 16 + 2 * 8 + 16);
    EXPECT_EQ(realloc(block, 16), block);
    EXPECT_EQ(realloc(block, 0), block);
    release(block);
    EXPECT_EQ(alloc(0), block);
}

TEST_F(BlockAllocator, DoublesItsChunksFromTwoBlocksTo128)
{
    std::size_t held = 0;
    for (const std::size_t blocks : {2u, 4u, 8u, 16u, 32u, 64u, 128u, 128u, 128u}) {
        // The first block of a refill gets the chunk, the others find it.
        for (std::size_t i = 0; i < blocks; i++) {
            ASSERT_NE(alloc(100), nullptr);
            ASSERT_EQ(psp_mem_stats.current, held + blocks * (128 + 8) + 16 + 8);
        }
        held = psp_mem_stats.current;
    }
}

TEST_F(BlockAllocator, RefillsEachClassForItself)
{
    for (std::size_t size = 16; size <= 8192; size *= 2) {
        const std::size_t before = psp_mem_stats.current;
        alloc(size);
        EXPECT_EQ(psp_mem_stats.current - before, 2 * (size + 8) + 16 + 8);
    }
}

TEST_F(BlockAllocator, LaysTheBlocksOfAChunkSideBySide)
{
    char* first = static_cast<char*>(alloc(64));
    char* second = static_cast<char*>(alloc(64));
    EXPECT_EQ(std::abs(second - first), 64 + 8);
    const std::uintptr_t chunk = address_of(entry_.chunks);
    EXPECT_EQ(std::min(address_of(first), address_of(second)), chunk + 16 + 8);
}

TEST_F(BlockAllocator, HandsOutTheLastFreedBlockOfAClassFirst)
{
    void* a = alloc(20);
    void* b = alloc(20);
    void* c = alloc(20);
    void* other = alloc(40);
    release(a);
    release(c);
    release(b);
    release(other);
    EXPECT_EQ(alloc(32), b);
    EXPECT_EQ(alloc(17), c);
    EXPECT_EQ(alloc(25), a);
    EXPECT_EQ(alloc(33), other);
}

TEST_F(BlockAllocator, NeverReusesABlockForAnotherClass)
{
    void* small = alloc(16);
    alloc(16);
    release(small);
    for (int i = 0; i < 50; i++)
        EXPECT_NE(alloc(40), small);
    EXPECT_EQ(alloc(1), small);
}

TEST_F(BlockAllocator, KeepsSmallChunksUntilFreeAll)
{
    std::vector<void*> blocks;
    for (int i = 0; i < 100; i++)
        blocks.push_back(alloc(50));
    const std::size_t held = psp_mem_stats.current;
    for (void* block : blocks)
        release(block);
    EXPECT_EQ(psp_mem_stats.current, held);
    for (std::size_t i = 0; i < blocks.size(); i++)
        alloc(50);
    EXPECT_EQ(psp_mem_stats.current, held);
    block_allocator_free_all(&entry_);
    EXPECT_EQ(psp_mem_stats.current, 0u);
}

TEST_F(BlockAllocator, GivesALargeBlockBackAtOnce)
{
    void* block = alloc(10000); // 10016 with the rounding
    EXPECT_EQ(psp_mem_stats.current, 10016u + 8 + 16 + 8);
    EXPECT_EQ(info().used.current, 10000u);
    EXPECT_EQ(info().free, (PSP_MEM_INFO{0, 10016}));
    EXPECT_EQ(info().overhead.current, record + 16 + 8 + 16);
    release(block);
    EXPECT_EQ(psp_mem_stats.current, 0u);
    EXPECT_EQ(info().used.current, 0u);
    EXPECT_EQ(info().free.current, 0u);
    EXPECT_EQ(info().overhead.current, record + 16 + 8) << "only the rounding comes off";
    EXPECT_EQ(entry_.chunks, nullptr);
}

TEST_F(BlockAllocator, UnlinksALargeBlockFromTheMiddleOfItsChunks)
{
    void* a = alloc(9000);
    void* b = alloc(9000);
    void* c = alloc(9000);
    release(b);
    ASSERT_EQ(address_of(entry_.chunks), address_of(c) - 24);
    EXPECT_EQ(address_of(entry_.chunks->next), address_of(a) - 24);
    EXPECT_EQ(entry_.chunks->next->prev, entry_.chunks);
    EXPECT_EQ(entry_.chunks->next->next, nullptr);
    release(c);
    EXPECT_EQ(address_of(entry_.chunks), address_of(a) - 24);
    EXPECT_EQ(entry_.chunks->prev, nullptr);
    release(a);
    EXPECT_EQ(entry_.chunks, nullptr);
}

TEST_F(BlockAllocator, CountsASmallBlock)
{
    void* block = alloc(20);
    EXPECT_EQ(info().used, (PSP_MEM_INFO{20, 20}));
    EXPECT_EQ(info().free, (PSP_MEM_INFO{32, 64}));
    EXPECT_EQ(info().overhead, (PSP_MEM_INFO{record + 16 + 16 + 12, record + 16 + 16 + 12}));
    release(block);
    EXPECT_EQ(info().used, (PSP_MEM_INFO{0, 20}));
    EXPECT_EQ(info().free, (PSP_MEM_INFO{64, 64}));
    EXPECT_EQ(info().overhead, (PSP_MEM_INFO{record + 16 + 16, record + 16 + 16 + 12}));
}

TEST_F(BlockAllocator, ResizesInPlaceWithinAClass)
{
    void* block = alloc(20);
    std::memset(block, 'p', 20);
    EXPECT_EQ(realloc(block, 30), block);
    EXPECT_TRUE(holds(block, 20, 'p'));
    EXPECT_EQ(info().used, (PSP_MEM_INFO{30, 30}));
    EXPECT_EQ(info().overhead.current, record + 16 + 16 + 2);
    EXPECT_EQ(realloc(block, 17), block);
    EXPECT_EQ(info().used, (PSP_MEM_INFO{17, 30}));
    EXPECT_EQ(info().overhead.current, record + 16 + 16 + 15);
    EXPECT_EQ(info().overhead.max, record + 16 + 16 + 15);
    EXPECT_EQ(realloc(block, 17), block);
    EXPECT_EQ(size_of(block), 32u);
}

TEST_F(BlockAllocator, MovesToAnotherClassAndCopiesTheWholeOldBlock)
{
    void* block = alloc(20);
    std::memset(block, 'p', 32); // all 32 bytes of the block are the caller's
    void* moved = realloc(block, 40);
    ASSERT_NE(moved, block);
    EXPECT_EQ(size_of(moved), 64u);
    EXPECT_TRUE(holds(moved, 32, 'p'));
    EXPECT_EQ(alloc(20), block) << "the old block is free";
    void* smaller = realloc(moved, 10);
    EXPECT_EQ(size_of(smaller), 16u);
    EXPECT_TRUE(holds(smaller, 10, 'p'));
}

TEST_F(BlockAllocator, MovesWithoutCopyingOnDemand)
{
    void* block = alloc(20);
    std::memset(block, 'p', 32);
    void* target = alloc(40);
    std::memset(target, 'q', 64);
    release(target);
    ASSERT_EQ(realloc(block, 40, 0), target);
    EXPECT_FALSE(holds(target, 20, 'p'));
}

TEST_F(BlockAllocator, MovesBetweenSmallAndLarge)
{
    void* block = alloc(8192);
    std::memset(block, 'p', 8192);
    void* large = realloc(block, 8193);
    ASSERT_NE(large, nullptr);
    EXPECT_EQ(size_of(large), 8224u);
    EXPECT_TRUE(holds(large, 8192, 'p'));
    std::memset(large, 'q', 8193);
    void* small = realloc(large, 8192);
    EXPECT_EQ(small, block) << "the class's last freed block";
    EXPECT_TRUE(holds(small, 8192, 'q'));
    EXPECT_EQ(info().used.current, 8192u);
}

TEST_F(BlockAllocator, ResizesALargeBlockAndAlwaysKeepsItsContents)
{
    for (const int preserve : {1, 0}) {
        void* first = alloc(10000);
        void* guard = alloc(10000);
        std::memset(first, 'p', 10000);
        void* moved = realloc(first, 100000, preserve);
        ASSERT_NE(moved, nullptr);
        EXPECT_TRUE(holds(moved, 10000, 'p'));
        EXPECT_EQ(size_of(moved), 100000u);
        EXPECT_EQ(info().used.current, 110000u);
        EXPECT_EQ(psp_mem_stats.current, 100000u + 32 + 10016 + 32);
        EXPECT_EQ(address_of(entry_.chunks), address_of(guard) - 24)
            << "the chunk keeps its place in the list";
        EXPECT_EQ(address_of(entry_.chunks->next), address_of(moved) - 24);
        EXPECT_EQ(entry_.chunks->next->prev, entry_.chunks);
        moved = realloc(moved, 9000, preserve);
        EXPECT_TRUE(holds(moved, 9000, 'p'));
        EXPECT_EQ(size_of(moved), 9024u);
        EXPECT_EQ(psp_mem_stats.current, 9024u + 32 + 10016 + 32);
        EXPECT_EQ(psp_mem_stats.max, 100000u + 32 + 10016 + 32);
        release(moved);
        release(guard);
        EXPECT_EQ(psp_mem_stats.current, 0u);
        psp_mem_stats.max = 0;
    }
}

TEST_F(BlockAllocator, FreeAllResetsItsCountersAndItsChunkSizes)
{
    for (int i = 0; i < 100; i++)
        alloc(100);
    void* large = alloc(50000);
    release(large);
    alloc(50000);
    const PSP_TAG_MEM_INFO before = info();
    block_allocator_free_all(&entry_);
    EXPECT_EQ(info().used, (PSP_MEM_INFO{0, before.used.max}));
    EXPECT_EQ(info().free, (PSP_MEM_INFO{0, before.free.max}));
    EXPECT_EQ(info().overhead, (PSP_MEM_INFO{record, before.overhead.max}));
    EXPECT_EQ(psp_mem_stats.current, 0u);
    EXPECT_EQ(entry_.chunks, nullptr);
    for (const BLOCK_INFO& info : entry_.blocks) {
        EXPECT_EQ(info.avail, nullptr);
        EXPECT_EQ(info.mult, 2u);
    }
    alloc(100);
    EXPECT_EQ(psp_mem_stats.current, 2u * (128 + 8) + 16 + 8) << "two blocks again";
}

TEST_F(BlockAllocator, FailedRefillHasDoubledTheNextChunkAndNothingElse)
{
    ASSERT_NE(alloc(3000000), nullptr);
    psp_memlimit = 4195328; // no second chunk of 4 MiB
    void* filler = nullptr;
    for (std::size_t size = 1000000; size > 8192; size -= 1000)
        while ((filler = alloc(size)) != nullptr)
            ;
    const PSP_TAG_MEM_INFO before = info();
    EXPECT_EQ(alloc(8192), nullptr); // 2 blocks of 8200 bytes do not fit
    EXPECT_EQ(info(), before);
    EXPECT_EQ(entry_.blocks[9].mult, 4u);
    EXPECT_EQ(alloc(8192), nullptr);
    EXPECT_EQ(entry_.blocks[9].mult, 8u);
    EXPECT_EQ(alloc(100000), nullptr);
    EXPECT_EQ(info(), before);
}

TEST_F(BlockAllocator, FailedResizeLeavesTheBlock)
{
    void* small = alloc(100);
    void* large = alloc(2000000);
    std::memset(small, 's', 100);
    std::memset(large, 'l', 2000000);
    psp_memlimit = 4195328;
    const PSP_TAG_MEM_INFO before = info();
    const PSP_MEM_INFO stats = psp_mem_stats;
    EXPECT_EQ(realloc(small, 3000000), nullptr);
    EXPECT_EQ(realloc(large, 3000000), nullptr);
    EXPECT_EQ(info(), before);
    EXPECT_EQ(psp_mem_stats, stats);
    EXPECT_TRUE(holds(small, 100, 's'));
    EXPECT_TRUE(holds(large, 2000000, 'l'));
    EXPECT_EQ(size_of(small), 128u);
    EXPECT_EQ(size_of(large), 2000000u);
    release(large);
    release(small);
}

TEST_F(BlockAllocator, RefusesSizesThatDoNotFitThirtyTwoBits)
{
    void* small = alloc(100);
    void* large = alloc(10000);
    const PSP_TAG_MEM_INFO before = info();
    for (std::size_t below = 1; below < 64; below++) {
        const std::size_t size = (std::size_t{1} << 32) - below;
        EXPECT_EQ(alloc(size), nullptr) << below;
        EXPECT_EQ(realloc(small, size), nullptr) << below;
        EXPECT_EQ(realloc(large, size), nullptr) << below;
    }
    EXPECT_EQ(info(), before);
    EXPECT_EQ(size_of(large), 10016u);
}

// ---- Beside the model ----

class BlockHarness {
  public:
    explicit BlockHarness(BLOCK_ALLOCATOR_ENTRY& entry, ChunkLog& log)
        : entry_(entry), log_(log), large_(log), model_(large_)
    {
    }

    std::size_t random_size(std::mt19937& random)
    {
        // Now and then the limit stands so low that only what is held already can be handed out.
        psp_memlimit = random() % 10 == 0 ? 4195328 : 0;
        const unsigned kind = random() % 100;
        if (kind < 60)
            return 1 + random() % 300;
        if (kind < 75)
            return (std::size_t{16} << random() % 10) + random() % 3 - 1; // around the classes
        if (kind < 90)
            return 1 + random() % 20000;
        return 1 + random() % (kind < 98 ? 300000 : 3000000);
    }
    void* alloc(std::size_t size)
    {
        void* ptr = block_allocator_alloc(size, &entry_);
        EXPECT_EQ(address_of(ptr), model_.alloc(size)) << size;
        check_size(ptr);
        return ptr;
    }
    void* realloc(void* ptr, std::size_t size, int preserve)
    {
        void* moved = block_allocator_realloc(ptr, size, &entry_, preserve);
        EXPECT_EQ(address_of(moved), model_.realloc(address_of(ptr), size)) << size;
        check_size(moved);
        return moved;
    }
    void free(void* ptr)
    {
        block_allocator_free(ptr, &entry_);
        model_.free(address_of(ptr));
    }
    void free_all()
    {
        block_allocator_free_all(&entry_);
        model_.free_all();
    }
    void check()
    {
        ASSERT_TRUE(log_.requests.empty()) << "a chunk that was not due";
        ASSERT_TRUE(log_.released.empty()) << "a chunk given back too early";
        PSP_TAG_MEM_INFO info{};
        block_allocator_mem_info(&entry_, &info);
        ASSERT_EQ(info, model_.info());
        ASSERT_EQ(psp_mem_stats, large_.stats());
        auto chunk = model_.chunks().begin();
        for (const BLOCK_CHUNK_HDR* hdr = entry_.chunks; hdr != nullptr; hdr = hdr->next, ++chunk) {
            ASSERT_NE(chunk, model_.chunks().end());
            ASSERT_EQ(address_of(hdr), *chunk);
        }
        ASSERT_EQ(chunk, model_.chunks().end());
        for (std::size_t i = 0; i < BLOCK_CLASSES; i++) {
            ASSERT_EQ(entry_.blocks[i].mult, model_.mult(i));
            const auto& avail = model_.avail(i);
            const std::uintptr_t head = avail.empty() ? 0 : avail.front() - 8;
            ASSERT_EQ(address_of(entry_.blocks[i].avail), head);
        }
        expect_same_lists(LargeBlock, large_.blocks());
    }

    void walk()
    {
        expect_sound(entry_);
        expect_sound_large_blocks();
    }

  private:
    void check_size(void* ptr)
    {
        if (ptr == nullptr || ::testing::Test::HasFailure())
            return;
        std::size_t size = 0;
        block_allocator_get_size(&size, ptr);
        EXPECT_EQ(size, model_.actual_of(address_of(ptr)));
    }

    BLOCK_ALLOCATOR_ENTRY& entry_;
    ChunkLog& log_;
    LargeModel large_;
    BlockModel model_;
};

class BlockAllocatorModel : public BlockAllocator,
                            public ::testing::WithParamInterface<unsigned> {};

TEST_P(BlockAllocatorModel, AgreesOnEveryAddressAndCounter)
{
    BlockHarness harness(entry_, LargeBlockSpy::log());
    for (unsigned round = 0; round < 3 && !HasFailure(); round++) {
        drive(harness, round * 10 + GetParam(), in_long_run(1500, 700000), 300);
        if (HasFailure())
            return;
        harness.free_all();
        harness.check();
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, BlockAllocatorModel, ::testing::Range(1u, 6u));

} // namespace
