// The list allocator over chunks that the test supplies, so that every address is known.
#include "support/alloc_driver.h"
#include "support/mem_walk.h"
#include "support/scale.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

using namespace psptest;

namespace {

// What the source and sink of the allocator under test do and note.
struct Supply {
    ChunkLog log;
    std::size_t enlarge_by = 0; // bytes added to each request
    bool refuse = false;
    std::size_t held = 0; // chunks not given back
    void* last = nullptr;
};
Supply supply;

void* source(std::size_t* size, PSP_MEM_INFO* info)
{
    const std::size_t wanted = *size;
    // More than this only comes of a size that should have been refused.
    if (supply.refuse || wanted > 100000000) {
        supply.log.requests.push_back({wanted, wanted, 0});
        return nullptr;
    }
    *size += supply.enlarge_by;
    supply.last = std::malloc(*size);
    supply.log.requests.push_back({wanted, *size, address_of(supply.last)});
    supply.held++;
    info->current += *size;
    info->max = std::max(info->max, info->current);
    return supply.last;
}

void sink(void* chunk, PSP_MEM_INFO* info)
{
    supply.log.released.push_back(address_of(chunk));
    supply.held--;
    info->current -= 1; // a mark that the statistics came along
    std::free(chunk);
}

class ListAllocator : public ::testing::Test {
  protected:
    void SetUp() override
    {
        supply = Supply{};
        entry_ = LIST_ALLOCATOR_ENTRY{};
        entry_.blocksize = 4096;
        entry_.alloc_fcn = source;
        entry_.free_fcn = sink;
    }
    void TearDown() override
    {
        EXPECT_EQ(entry_.chunks, nullptr);
        EXPECT_EQ(supply.held, 0u);
        EXPECT_EQ(info().overhead, PSP_MEM_INFO{});
    }

    void* alloc(std::size_t size)
    {
        return list_allocator_alloc(size, &entry_);
    }
    void* realloc(void* ptr, std::size_t size, int preserve = 1)
    {
        return list_allocator_realloc(ptr, size, &entry_, preserve);
    }
    void release(void* ptr)
    {
        list_allocator_free(ptr, &entry_);
    }
    void release_all(std::initializer_list<void*> blocks)
    {
        for (void* block : blocks)
            release(block);
    }
    static std::size_t size_of(void* ptr)
    {
        std::size_t size = 0;
        list_allocator_get_size(&size, ptr);
        return size;
    }
    std::size_t used() const
    {
        return entry_.mem_info.used.current;
    }
    PSP_TAG_MEM_INFO info() const
    {
        PSP_TAG_MEM_INFO info{};
        list_allocator_mem_info(&entry_, &info);
        return info;
    }
    // Where the payload of the n-th chunk, newest first, starts.
    std::uintptr_t payload(int n = 0) const
    {
        const LIST_CHUNK_HDR* chunk = entry_.chunks;
        while (n-- > 0)
            chunk = chunk->next;
        return address_of(chunk) + 32;
    }
    // The payload sizes of the free blocks of the newest chunk, in list order.
    std::vector<std::size_t> free_sizes() const
    {
        std::vector<std::size_t> sizes;
        for (const LIST_HDR* hdr : free_blocks(entry_.chunks))
            sizes.push_back(hdr->size);
        return sizes;
    }

    LIST_ALLOCATOR_ENTRY entry_{};
};

using Sizes = std::vector<std::size_t>;

TEST_F(ListAllocator, CutsOneByteFromTheEndOfANewChunk)
{
    void* block = alloc(1);
    ASSERT_EQ(supply.log.requests.size(), 1u);
    EXPECT_EQ(supply.log.requests[0].wanted, 4096u + 32);
    EXPECT_EQ(entry_.chunks->size, 4096u);
    EXPECT_EQ(free_sizes(), Sizes{4048});
    EXPECT_EQ(size_of(block), 16u);
    EXPECT_EQ(address_of(block), payload() + 4096 - 16);
    EXPECT_EQ(used(), 16u);
    release(block);
}

TEST_F(ListAllocator, TakesASingleBlockThatFillsItsChunkWhole)
{
    void* block = alloc(4096);
    EXPECT_EQ(supply.log.requests[0].wanted, 4112u + 32);
    EXPECT_EQ(entry_.chunks->size, 4112u);
    EXPECT_EQ(free_sizes(), Sizes{});
    EXPECT_EQ(address_of(block), payload() + 16);
    EXPECT_EQ(size_of(block), 4096u);
    release(block);
}

TEST_F(ListAllocator, TakesABlockSixteenTooLongWholeAndCountsItSoWhenFreed)
{
    // 4064 and 16 more are the free block of a fresh chunk: no room for a header and a block.
    void* block = alloc(4064);
    EXPECT_EQ(size_of(block), 4080u);
    EXPECT_EQ(used(), 4064u);
    EXPECT_EQ(free_sizes(), Sizes{});
    release(block);
    EXPECT_EQ(used(), std::size_t{0} - 16);
    EXPECT_EQ(entry_.mem_info.used.max, 4064u);
}

TEST_F(ListAllocator, SplitsABlockThirtyTwoTooLong)
{
    void* block = alloc(4048);
    EXPECT_EQ(size_of(block), 4048u);
    EXPECT_EQ(free_sizes(), Sizes{16});
    release(block);
    EXPECT_EQ(used(), 0u);
}

TEST_F(ListAllocator, GivesAChunkBackWithItsLastBlockAndThenMakesANewOne)
{
    void* first = alloc(100);
    void* second = alloc(200);
    release(first);
    EXPECT_EQ(supply.held, 1u);
    release(second);
    EXPECT_EQ(supply.held, 0u);
    EXPECT_EQ(entry_.chunks, nullptr);
    EXPECT_EQ(entry_.mem_info.free.current, 4128u - 1) << "the sink gets the statistics";
    void* third = alloc(100);
    EXPECT_EQ(supply.log.requests.size(), 2u);
    release(third);
}

TEST_F(ListAllocator, KeepsTheRestOfASplitInItsPlace)
{
    void* a = alloc(1000);
    void* b = alloc(16);
    void* c = alloc(500);
    void* d = alloc(16);
    release(a);
    release(c); // list: 500, 1000, then what is left of the chunk
    const std::size_t rest = 4096 - 16 - 1008 - 16 - 32 - 512 - 16 - 32;
    ASSERT_EQ(free_sizes(), (Sizes{512, 1008, rest}));
    void* e = alloc(100); // the smallest that fits is 512
    EXPECT_EQ(free_sizes(), (Sizes{512 - 112 - 16, 1008, rest}));
    EXPECT_EQ(address_of(e), address_of(c) + 512 - 112);
    release_all({b, d, e});
}

TEST_F(ListAllocator, TakesTheFirstOfEquallyGoodBlocks)
{
    void* a = alloc(160);
    void* b = alloc(16);
    void* c = alloc(160);
    void* d = alloc(16);
    release(a);
    release(c); // c is at the head now
    EXPECT_EQ(address_of(alloc(64)), address_of(c) + 160 - 64);
    EXPECT_EQ(alloc(160), a) << "an exact fit is taken even behind a longer block";
    void* e = alloc(80); // the rest of c, whole
    EXPECT_EQ(e, c);
    release_all({a, b, c, d});
    release(static_cast<char*>(c) + 160 - 64);
}

TEST_F(ListAllocator, SearchesTheNewestChunkFirst)
{
    void* old_keep = alloc(16);
    void* old_hole = alloc(480);
    void* old_guard = alloc(3500);
    EXPECT_EQ(supply.held, 1u);
    void* new_keep = alloc(16);
    void* new_hole = alloc(480);
    void* new_guard = alloc(3500);
    ASSERT_EQ(supply.held, 2u);
    release(new_hole);
    release(old_hole);
    EXPECT_EQ(alloc(480), new_hole) << "the newest chunk is searched first";
    EXPECT_EQ(alloc(480), old_hole);
    release_all({old_keep, old_hole, old_guard, new_keep, new_hole, new_guard});
}

TEST_F(ListAllocator, JoinsAFreedBlockWithBothNeighbours)
{
    void* a = alloc(96); // from high addresses to low: a, b, c, keep
    void* b = alloc(96);
    void* c = alloc(96);
    void* keep = alloc(16);
    const std::size_t rest = 4096 - 16 - 3 * 112 - 32;
    release(c);
    EXPECT_EQ(free_sizes(), (Sizes{96, rest}));
    release(a);
    EXPECT_EQ(free_sizes(), (Sizes{96, 96, rest}));
    release(b); // takes a in, then goes into c
    EXPECT_EQ(free_sizes(), (Sizes{96 + 2 * 112, rest}));
    EXPECT_EQ(address_of(free_blocks(entry_.chunks)[0]), address_of(c) - 16);
    release(keep);
}

TEST_F(ListAllocator, PushesABlockThatJoinsOnlyUpwardsOnTheHead)
{
    void* a = alloc(96);
    void* b = alloc(96);
    void* guard = alloc(16);
    void* c = alloc(32);
    void* keep = alloc(16);
    release(a);
    release(c);
    const std::size_t rest = 4096 - 16 - 2 * 112 - 32 - 48 - 32;
    ASSERT_EQ(free_sizes(), (Sizes{32, 96, rest}));
    release(b);
    EXPECT_EQ(free_sizes(), (Sizes{96 + 112, 32, rest}));
    release_all({guard, keep});
}

TEST_F(ListAllocator, ShrinkingBySixteenChangesNothingButTheCount)
{
    void* block = alloc(160);
    void* keep = alloc(16);
    EXPECT_EQ(realloc(block, 144), block);
    EXPECT_EQ(size_of(block), 160u);
    EXPECT_EQ(used(), 160u + 16 - 16);
    EXPECT_EQ(realloc(block, 129), block) << "129 rounds up to 144";
    EXPECT_EQ(size_of(block), 160u);
    release_all({block, keep});
}

TEST_F(ListAllocator, ShrinkingByThirtyTwoCutsOffASixteenByteBlock)
{
    void* block = alloc(160);
    void* keep = alloc(16);
    EXPECT_EQ(realloc(block, 128), block);
    EXPECT_EQ(size_of(block), 128u);
    EXPECT_EQ(free_sizes()[0], 16u);
    EXPECT_EQ(address_of(free_blocks(entry_.chunks)[0]), address_of(block) + 128);
    EXPECT_EQ(used(), 128u + 16);
    release_all({block, keep});
    EXPECT_EQ(used(), 0u);
}

TEST_F(ListAllocator, ResizingAbsorbsTheUpperNeighbourEvenWhenShrinking)
{
    void* upper = alloc(96);
    void* block = alloc(96);
    void* keep = alloc(16);
    release(upper);
    ASSERT_EQ(free_sizes()[0], 96u);
    // 96 + 112 bytes now; 64 of them stay, 128 with a header go back as one piece.
    EXPECT_EQ(realloc(block, 64), block);
    EXPECT_EQ(size_of(block), 64u);
    EXPECT_EQ(free_sizes()[0], 96u + 112 - 64 - 16);
    release_all({block, keep});
}

TEST_F(ListAllocator, GrowsInPlaceIntoTheUpperNeighbour)
{
    void* upper = alloc(96);
    void* block = alloc(96);
    void* keep = alloc(16);
    std::memset(block, 'p', 96);
    release(upper);
    EXPECT_EQ(realloc(block, 200), block); // 208 with the rounding: all of it
    EXPECT_EQ(size_of(block), 208u);
    EXPECT_TRUE(holds(block, 96, 'p'));
    // The count goes by the difference to the block as it was after absorbing.
    EXPECT_EQ(used(), 96u + 16 + 208 - 208);
    release_all({block, keep});
}

TEST_F(ListAllocator, TheCountOfBytesInUseMayPassZeroDownwards)
{
    void* upper = alloc(480);
    void* block = alloc(16);
    void* keep = alloc(16);
    release(upper);
    EXPECT_EQ(realloc(block, 16), block); // absorbs 496, keeps 16 and gives 480 back
    EXPECT_EQ(used(), std::size_t{16 + 16} - 496);
    release_all({block, keep});
}

TEST_F(ListAllocator, MovesABlockThatCannotGrowAndCopiesOnlyOnDemand)
{
    for (const int preserve : {1, 0}) {
        void* guard = alloc(16);
        void* block = alloc(96);
        std::memset(block, 'p', 96);
        void* moved = realloc(block, 300, preserve);
        ASSERT_NE(moved, nullptr);
        EXPECT_NE(moved, block);
        EXPECT_TRUE(preserve == 0 || holds(moved, 96, 'p'));
        EXPECT_EQ(used(), 16u + 304);
        release_all({guard, moved});
        EXPECT_EQ(used(), 0u);
    }
}

TEST_F(ListAllocator, FailedResizeLeavesTheBlockPossiblyLonger)
{
    void* upper = alloc(96);
    void* block = alloc(96);
    void* keep = alloc(16);
    std::memset(block, 'p', 96);
    release(upper);
    supply.refuse = true;
    EXPECT_EQ(realloc(block, 5000), nullptr);
    EXPECT_TRUE(holds(block, 96, 'p'));
    EXPECT_EQ(size_of(block), 208u) << "the neighbour was absorbed before memory ran out";
    EXPECT_EQ(used(), 96u + 16);
    supply.refuse = false;
    release_all({block, keep});
}

TEST_F(ListAllocator, FailedAllocationChangesNothing)
{
    supply.refuse = true;
    EXPECT_EQ(alloc(10), nullptr);
    EXPECT_EQ(entry_.chunks, nullptr);
    EXPECT_EQ(entry_.mem_info.used, PSP_MEM_INFO{});
    supply.refuse = false;
    void* block = alloc(10);
    supply.refuse = true;
    EXPECT_EQ(alloc(5000), nullptr);
    void* other = alloc(10);
    EXPECT_NE(other, nullptr) << "what the chunk still has needs no source";
    EXPECT_EQ(used(), 32u);
    release_all({block, other});
}

TEST_F(ListAllocator, UsesWhatTheSourceGaveBeyondTheRequest)
{
    supply.enlarge_by = 1000 * 16;
    void* block = alloc(1);
    EXPECT_EQ(entry_.chunks->size, 4096u + 16000);
    EXPECT_EQ(address_of(block), payload() + 4096 + 16000 - 16);
    void* other = alloc(15000);
    EXPECT_EQ(supply.held, 1u);
    release_all({block, other});
}

TEST_F(ListAllocator, RefusesSizesThatDoNotFitThirtyTwoBits)
{
    void* block = alloc(100);
    std::memset(block, 'p', 100);
    const PSP_TAG_MEM_INFO before = info();
    for (std::size_t below = 1; below <= 64; below++) {
        EXPECT_EQ(alloc(gib4 - below), nullptr) << below;
        EXPECT_EQ(realloc(block, gib4 - below), nullptr) << below;
    }
    for (const ChunkLog::Request& request : supply.log.requests)
        EXPECT_TRUE(request.wanted == 4128 || request.wanted > gib4 - 128) << request.wanted;
    EXPECT_EQ(info(), before);
    EXPECT_TRUE(holds(block, 100, 'p'));
    release(block);
}

TEST_F(ListAllocator, AsksForTheLargestChunkAndForNoLargerOne)
{
    void* block = alloc(100);
    supply.refuse = true;
    supply.log.requests.clear();
    constexpr std::size_t largest = gib4 - 32; // with its header the last multiple of 16
    EXPECT_EQ(alloc(largest + 1), nullptr);
    EXPECT_EQ(realloc(block, largest + 1), nullptr);
    EXPECT_EQ(supply.log.requests.size(), 0u);
    EXPECT_EQ(alloc(largest), nullptr);
    EXPECT_EQ(realloc(block, largest), nullptr);
    ASSERT_EQ(supply.log.requests.size(), 2u);
    for (const ChunkLog::Request& request : supply.log.requests)
        EXPECT_EQ(request.wanted, largest + 16 + 32);
    release(block);
}

TEST_F(ListAllocator, CopiesItsCounters)
{
    void* block = alloc(100);
    EXPECT_EQ(info().used, (PSP_MEM_INFO{112, 112}));
    EXPECT_EQ(info().free, (PSP_MEM_INFO{4128, 4128}));
    EXPECT_EQ(info().overhead, PSP_MEM_INFO{});
    release(block);
}

TEST_F(ListAllocator, FreeAllReleasesLargeBlocksPastTheSinkAndKeepsTheCounters)
{
    LargeBlockSpy spy;
    entry_.alloc_fcn = psp_allocLargeBlock;
    alloc(100);
    alloc(10000);
    alloc(4000);
    const PSP_TAG_MEM_INFO before = info();
    EXPECT_EQ(before.used.current, 112u + 10000 + 4000);
    EXPECT_EQ(before.free.current, 4096u + 32 + 8 + 10016 + 32 + 8 + 4096 + 32 + 8);
    EXPECT_EQ(psp_mem_stats.current, before.free.current);
    list_allocator_free_all(&entry_);
    EXPECT_EQ(entry_.chunks, nullptr);
    EXPECT_TRUE(supply.log.released.empty()) << "not through the sink";
    EXPECT_EQ(info(), before);
    EXPECT_EQ(psp_mem_stats.current, 0u);
    EXPECT_EQ(LargeBlock.chunks, nullptr);
    // It stays usable.
    void* block = alloc(100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(entry_.mem_info.used.current, before.used.current + 112);
    list_allocator_free_all(&entry_);
    list_allocator_free_all(&entry_);
}

// ---- Beside the model ----

class ListHarness {
  public:
    ListHarness(LIST_ALLOCATOR_ENTRY& entry, std::uint32_t blocksize, std::size_t longest)
        : entry_(entry), model_(blocksize, supply.log), longest_(longest)
    {
        entry.blocksize = blocksize;
        entry.mem_info = {};
    }

    std::size_t random_size(std::mt19937& random)
    {
        // Refusals and enlargements come and go with the sizes.
        supply.refuse = random() % 8 == 0;
        supply.enlarge_by = random() % 4 == 0 ? random() % 64 * 16 : 0;
        if (equals_ != 0)
            return 16 * (random() % equals_);
        switch (random() % 4) {
        case 0:
            return random() % 64;
        case 1:
            return 16 * (1 + random() % 20);
        case 2:
            return 1 + random() % 1000;
        default:
            return 1 + random() % longest_;
        }
    }
    void* alloc(std::size_t size)
    {
        void* ptr = list_allocator_alloc(size, &entry_);
        EXPECT_EQ(address_of(ptr), model_.alloc(size));
        check_size(ptr);
        return ptr;
    }
    void* realloc(void* ptr, std::size_t size, int preserve)
    {
        void* moved = list_allocator_realloc(ptr, size, &entry_, preserve);
        EXPECT_EQ(address_of(moved), model_.realloc(address_of(ptr), size));
        check_size(moved);
        return moved;
    }
    void free(void* ptr)
    {
        list_allocator_free(ptr, &entry_);
        model_.free(address_of(ptr));
    }
    void check()
    {
        ASSERT_TRUE(supply.log.requests.empty()) << "a chunk that was not due";
        ASSERT_TRUE(supply.log.released.empty()) << "a chunk given back too early";
        ASSERT_EQ(entry_.mem_info.used, (PSP_MEM_INFO{model_.used(), model_.used_mark()}));
        expect_same_lists(entry_, model_);
        if (worn_)
            wear_out();
    }

    void walk()
    {
        expect_sound(entry_);
    }

    // Only this many sizes, 0 among them.
    void with_equal_sizes(std::size_t sizes)
    {
        equals_ = sizes;
    }
    // The counters stand close to their ends all the time.
    void with_worn_counters()
    {
        worn_ = true;
    }

  private:
    void wear_out()
    {
        for (LIST_CHUNK_HDR* chunk = entry_.chunks; chunk != nullptr; chunk = chunk->next)
            chunk->pushes = std::max(chunk->pushes, FREE_PUSHES - 1);
        // No free block knows its label yet.
        if (entry_.chunks != nullptr && free_blocks(entry_.chunks).empty())
            entry_.chunks->label = FREE_LABELS - 1;
    }
    void check_size(void* ptr)
    {
        if (ptr == nullptr || ::testing::Test::HasFailure())
            return;
        std::size_t size = 0;
        list_allocator_get_size(&size, ptr);
        EXPECT_EQ(size, model_.size_of(address_of(ptr)));
    }

    LIST_ALLOCATOR_ENTRY& entry_;
    ListModel model_;
    std::size_t longest_;
    std::size_t equals_ = 0;
    bool worn_ = false;
};

class ListAllocatorModel : public ListAllocator, public ::testing::WithParamInterface<unsigned> {};

TEST_P(ListAllocatorModel, AgreesOnEveryAddressAndCounterOfATag)
{
    ListHarness harness(entry_, 4096, 6000);
    drive(harness, GetParam(), in_long_run(4000, 1000000), 200);
}

TEST_P(ListAllocatorModel, AgreesWithChunksThatHoldFewBlocks)
{
    ListHarness harness(entry_, 256, 400);
    drive(harness, GetParam() + 100, in_long_run(4000, 1000000), 60);
}

TEST_P(ListAllocatorModel, AgreesAmongManyBlocksOfFewSizes)
{
    for (const std::size_t sizes : {2u, 3u, 6u, 20u}) {
        ListHarness harness(entry_, sizes == 20 ? 4096 : 128, 400);
        harness.with_equal_sizes(sizes);
        drive(harness, GetParam() + 200, in_long_run(2500, 250000), 500);
    }
}

TEST_P(ListAllocatorModel, AgreesWhenTheCountersComeToTheirEnd)
{
    for (const std::size_t sizes : {0u, 2u, 5u}) {
        ListHarness harness(entry_, sizes == 0 ? 4096 : 256, 400);
        harness.with_equal_sizes(sizes);
        harness.with_worn_counters();
        drive(harness, GetParam() + 300, in_long_run(2500, 300000), 200);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ListAllocatorModel, ::testing::Range(1u, 6u));

} // namespace
