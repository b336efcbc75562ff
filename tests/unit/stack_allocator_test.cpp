// The stack allocator over a large-block layer that nothing else uses.
#include "support/alloc_driver.h"
#include "support/mem_walk.h"
#include "support/scale.h"
#include "support/stack_model.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <list>
#include <random>
#include <vector>

using namespace psptest;

namespace {

// The chunks of a tree, the newest first.
void append_tree(const STACK_CHUNK_HDR* tree, std::vector<const STACK_CHUNK_HDR*>& chunks)
{
    if (tree == nullptr)
        return;
    append_tree(tree->newer, chunks);
    chunks.push_back(tree);
    append_tree(tree->older, chunks);
}

void expect_same_chunks(const std::vector<const STACK_CHUNK_HDR*>& hdrs,
                        const std::list<StackModel::Chunk>& chunks)
{
    ASSERT_EQ(hdrs.size(), chunks.size());
    auto hdr = hdrs.begin();
    for (const StackModel::Chunk& chunk : chunks) {
        ASSERT_EQ(address_of(*hdr), chunk.address);
        ASSERT_EQ((*hdr)->offset, chunk.offset);
        ASSERT_EQ((*hdr)->left, chunk.left);
        ++hdr;
    }
}

void expect_same_chunks(const STACK_ALLOCATOR_ENTRY& entry, const StackModel& model)
{
    std::vector<const STACK_CHUNK_HDR*> partial;
    if (entry.partial_chunks != nullptr)
        partial.push_back(entry.partial_chunks);
    append_tree(entry.behind, partial);
    expect_same_chunks(partial, model.partial);

    std::vector<const STACK_CHUNK_HDR*> full;
    for (const STACK_CHUNK_HDR* hdr = entry.full_chunks; hdr != nullptr; hdr = hdr->next) {
        ASSERT_EQ(hdr->prev, full.empty() ? nullptr : full.back());
        full.push_back(hdr);
    }
    expect_same_chunks(full, model.full);
}

class StackAllocator : public ::testing::Test {
  protected:
    void SetUp() override
    {
        entry_.blocksize = 4096;
    }
    void TearDown() override
    {
        psp_memlimit = 0;
        stack_allocator_free_all(&entry_);
        EXPECT_EQ(psp_mem_stats.current, 0u);
        EXPECT_EQ(LargeBlock.chunks, nullptr);
    }

    char* alloc(std::size_t size)
    {
        return static_cast<char*>(stack_allocator_alloc(size, &entry_));
    }
    PSP_TAG_MEM_INFO info() const
    {
        PSP_TAG_MEM_INFO copy{};
        stack_allocator_mem_info(&entry_, &copy);
        return copy;
    }

    LargeBlockSpy spy_;
    STACK_ALLOCATOR_ENTRY entry_{};
};

TEST_F(StackAllocator, PutsBlocksSideBySideInStepsOfEight)
{
    char* first = alloc(5);
    char* second = alloc(5);
    char* third = alloc(8);
    char* fourth = alloc(9);
    char* fifth = alloc(1);
    EXPECT_EQ(second - first, 8);
    EXPECT_EQ(third - second, 8);
    EXPECT_EQ(fourth - third, 8);
    EXPECT_EQ(fifth - fourth, 16);
    ASSERT_NE(entry_.partial_chunks, nullptr);
    EXPECT_EQ(address_of(first), address_of(entry_.partial_chunks) + 24);
    EXPECT_EQ(entry_.partial_chunks->offset, 48u);
    EXPECT_EQ(entry_.partial_chunks->left, 4096u - 48);
    EXPECT_EQ(psp_mem_stats.current, 4096u + 24 + 8);
}

TEST_F(StackAllocator, MovesAChunkToTheFullOnesWithItsLastByte)
{
    for (int i = 0; i < 511; i++)
        alloc(8);
    EXPECT_EQ(entry_.partial_chunks->left, 8u);
    EXPECT_EQ(entry_.full_chunks, nullptr);
    alloc(8);
    EXPECT_EQ(entry_.partial_chunks, nullptr);
    ASSERT_NE(entry_.full_chunks, nullptr);
    EXPECT_EQ(entry_.full_chunks->offset, 4096u);
    EXPECT_EQ(entry_.full_chunks->left, 0u);
    EXPECT_EQ(psp_mem_stats.current, 4096u + 24 + 8);
    alloc(8);
    EXPECT_NE(entry_.partial_chunks, nullptr);
    EXPECT_EQ(psp_mem_stats.current, 2u * (4096 + 24 + 8));
}

TEST_F(StackAllocator, GivesALongBlockAChunkOfItsOwnLength)
{
    char* block = alloc(10000);
    EXPECT_EQ(entry_.partial_chunks, nullptr);
    ASSERT_NE(entry_.full_chunks, nullptr);
    EXPECT_EQ(entry_.full_chunks->offset, 10000u);
    EXPECT_EQ(address_of(block), address_of(entry_.full_chunks) + 24);
    EXPECT_EQ(psp_mem_stats.current, 10000u + 24 + 8);
    alloc(9999); // rounded up
    EXPECT_EQ(psp_mem_stats.current, 2u * (10000 + 24 + 8));
    alloc(4096); // exactly a usual chunk
    EXPECT_EQ(entry_.partial_chunks, nullptr);
}

TEST_F(StackAllocator, TakesTheFirstPartialChunkWithRoom)
{
    char* a = alloc(4000);            // 96 left
    char* b = alloc(3000);            // a new chunk at the head, 1096 left
    char* c = alloc(2000);            // another, 2096 left
    EXPECT_EQ(alloc(96), c + 2000);   // the head has room
    EXPECT_EQ(alloc(1992), c + 2096); // 8 left
    EXPECT_EQ(alloc(80), b + 3000);
    EXPECT_EQ(alloc(1016), b + 3080); // b is full and gone from the list
    EXPECT_EQ(alloc(96), a + 4000);   // so is a
    EXPECT_EQ(alloc(8), c + 4088);
    EXPECT_EQ(entry_.partial_chunks, nullptr);
}

TEST_F(StackAllocator, FindsTheNewestOfManyChunksWithRoom)
{
    std::vector<char*> blocks; // of chunk i, which has 8 * (1 + i % 100) bytes left
    for (std::size_t i = 0; i < 1000; i++)
        blocks.push_back(alloc(4096 - 8 * (1 + i % 100)));
    EXPECT_EQ(alloc(800), blocks[999] + 3296); // the newest chunk of all is full now
    EXPECT_EQ(alloc(800), blocks[899] + 3296);
    EXPECT_EQ(alloc(792), blocks[998] + 3304);
    EXPECT_EQ(alloc(784), blocks[997] + 3312);
    EXPECT_EQ(alloc(8), blocks[996] + 3320);
    EXPECT_EQ(alloc(776), blocks[898] + 3304);
    EXPECT_EQ(alloc(768), blocks[996] + 3328);
}

TEST_F(StackAllocator, AnEmptyRequestTakesNothingOfTheNewestChunk)
{
    char* a = alloc(0); // in a new chunk
    EXPECT_EQ(alloc(4096), a);
    EXPECT_EQ(entry_.partial_chunks, nullptr);
    char* b = alloc(4000);
    char* c = alloc(3000);
    EXPECT_EQ(alloc(0), c + 3000);
    EXPECT_EQ(alloc(1096), c + 3000);
    EXPECT_EQ(alloc(0), b + 4000);
    EXPECT_EQ(info().used.current, 4096u + 4000 + 3000 + 1096);
}

TEST_F(StackAllocator, FreeingOneBlockDoesNothing)
{
    char* block = alloc(100);
    std::memset(block, 'p', 100);
    const PSP_TAG_MEM_INFO before = info();
    stack_allocator_free(block, &entry_);
    EXPECT_EQ(info(), before);
    EXPECT_TRUE(holds(block, 100, 'p'));
    EXPECT_EQ(alloc(8), block + 104);
}

TEST_F(StackAllocator, ResizingAlwaysFails)
{
    char* block = alloc(100);
    for (const std::size_t size : {1u, 100u, 104u, 200u})
        for (const int preserve : {0, 1})
            EXPECT_EQ(stack_allocator_realloc(block, size, &entry_, preserve), nullptr);
    EXPECT_EQ(info().used.current, 104u);
}

TEST_F(StackAllocator, KnowsNoSizes)
{
    std::size_t size = 77;
    stack_allocator_get_size(&size, alloc(100));
    EXPECT_EQ(size, 0u);
}

TEST_F(StackAllocator, CountsOnlyWhatWasHandedOutAndKeepsThatAtFreeAll)
{
    alloc(5);
    alloc(10000);
    EXPECT_EQ(info().used, (PSP_MEM_INFO{10008, 10008}));
    EXPECT_EQ(info().free, PSP_MEM_INFO{});
    EXPECT_EQ(info().overhead, PSP_MEM_INFO{});
    stack_allocator_free_all(&entry_);
    EXPECT_EQ(info().used, (PSP_MEM_INFO{10008, 10008}));
    EXPECT_EQ(entry_.partial_chunks, nullptr);
    EXPECT_EQ(entry_.full_chunks, nullptr);
    EXPECT_EQ(psp_mem_stats.current, 0u);
    alloc(5);
    EXPECT_EQ(info().used, (PSP_MEM_INFO{10016, 10016}));
}

TEST_F(StackAllocator, FailedAllocationChangesNothing)
{
    alloc(100);
    psp_memlimit = 4195328;
    EXPECT_EQ(alloc(5000000), nullptr);
    EXPECT_EQ(info().used.current, 104u);
    EXPECT_NE(alloc(100), nullptr);
}

TEST_F(StackAllocator, RefusesSizesThatDoNotFitThirtyTwoBits)
{
    alloc(100);
    const PSP_TAG_MEM_INFO before = info();
    for (std::size_t below = 1; below < 64; below++)
        EXPECT_EQ(alloc((std::size_t{1} << 32) - below), nullptr) << below;
    EXPECT_EQ(info(), before);
}

class StackHarness {
  public:
    StackHarness(STACK_ALLOCATOR_ENTRY& entry, ChunkLog& log)
        : entry_(entry), log_(log), large_(log), model_(large_)
    {
    }

    std::size_t random_size(std::mt19937& random)
    {
        psp_memlimit = random() % 10 == 0 ? 4195328 : 0;
        const unsigned kind = random() % 100;
        if (kind < 70)
            return 1 + random() % 100;
        return 1 + random() % (kind < 97 ? 4200 : 200000);
    }
    void* alloc(std::size_t size)
    {
        void* ptr = stack_allocator_alloc(size, &entry_);
        EXPECT_EQ(address_of(ptr), model_.alloc(size)) << size;
        return ptr;
    }
    void* realloc(void* ptr, std::size_t size, int preserve)
    {
        return stack_allocator_realloc(ptr, size, &entry_, preserve);
    }
    void free(void* ptr)
    {
        stack_allocator_free(ptr, &entry_);
    }
    void free_all()
    {
        stack_allocator_free_all(&entry_);
        model_.free_all();
    }
    void check()
    {
        ASSERT_TRUE(log_.requests.empty());
        ASSERT_TRUE(log_.released.empty());
        PSP_TAG_MEM_INFO info{};
        stack_allocator_mem_info(&entry_, &info);
        ASSERT_EQ(info, (PSP_TAG_MEM_INFO{model_.used.info(), {}, {}}));
        ASSERT_EQ(psp_mem_stats, large_.stats());
        expect_same_chunks(entry_, model_);
        expect_same_lists(LargeBlock, large_.blocks());
    }

    void walk()
    {
        expect_sound(entry_);
        expect_sound_large_blocks();
    }

  private:
    STACK_ALLOCATOR_ENTRY& entry_;
    ChunkLog& log_;
    LargeModel large_;
    StackModel model_;
};

// Leaves a rest of up to a hundred bytes in each of many chunks, and fills them from anywhere.
class ManyChunks : public StackHarness {
  public:
    using StackHarness::StackHarness;

    std::size_t random_size(std::mt19937& random)
    {
        psp_memlimit = 0;
        return random() % 4 == 0 ? 3500 + random() % 600 : random() % 600;
    }
};

class StackAllocatorModel : public StackAllocator,
                            public ::testing::WithParamInterface<unsigned> {};

TEST_P(StackAllocatorModel, AgreesOnEveryAddressAndChunk)
{
    StackHarness harness(entry_, LargeBlockSpy::log());
    for (unsigned round = 0; round < in_long_run(3u, 600u) && !HasFailure(); round++) {
        drive(harness, round * 10 + GetParam(), in_long_run(1500, 3500), 1500);
        if (HasFailure())
            return;
        harness.free_all();
        harness.check();
    }
}

TEST_P(StackAllocatorModel, AgreesOverManyChunksWithALittleRoom)
{
    ManyChunks harness(entry_, LargeBlockSpy::log());
    for (unsigned round = 0; round < in_long_run(2u, 400u) && !HasFailure(); round++) {
        drive(harness, round * 10 + GetParam(), in_long_run(3000, 6000), 6000);
        if (HasFailure())
            return;
        harness.free_all();
        harness.check();
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, StackAllocatorModel, ::testing::Range(1u, 6u));

} // namespace
