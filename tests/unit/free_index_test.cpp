// The shape of the index over the free blocks of a list allocator, which is what its speed stands
// on. That it finds the right blocks is held against a model with the allocator.
#include "support/list_row.h"
#include "support/mem_test.h"
#include "support/mem_walk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

using namespace psptest;

namespace {

class FreeIndex : public ::testing::Test {
  protected:
    void TearDown() override
    {
        expect_sound(entry_);
        list_allocator_free_all(&entry_);
        EXPECT_EQ(LargeBlock.chunks, nullptr);
    }

    void* get(std::size_t size)
    {
        return list_allocator_alloc(size, &entry_);
    }
    void release(void* ptr)
    {
        list_allocator_free(ptr, &entry_);
    }
    // Blocks that have no free neighbours when they are freed, in order of allocation.
    std::vector<void*> apart(std::size_t count, std::size_t size)
    {
        std::vector<void*> blocks(count);
        for (void*& block : blocks) {
            block = get(size);
            get(size);
        }
        return blocks;
    }
    // The steps from a node to the end of its tree on the longer way.
    static std::size_t depth(const LIST_HDR* node)
    {
        if (node == nullptr)
            return 0;
        return 1 + std::max(depth(free_index_link(node, FREE_LESS)),
                            depth(free_index_link(node, FREE_MORE)));
    }
    static std::size_t children(const LIST_HDR* node)
    {
        std::size_t count = 0;
        for (node = free_index_link(node, FREE_CHILD); node != nullptr;
             node = free_index_link(node, FREE_NEXT))
            count++;
        return count;
    }
    // The first of the free blocks of a size that are in the tree.
    const LIST_HDR* first_of(std::size_t size) const
    {
        const LIST_HDR* node = free_index_top(&entry_);
        while (node->size != size)
            node = free_index_link(node, node->size < size ? FREE_MORE : FREE_LESS);
        return node;
    }

    LIST_ALLOCATOR_ENTRY entry_ = list_allocator_empty();
};

TEST_F(FreeIndex, StaysFlatOverTheSizesOfAChunk)
{
    std::vector<void*> blocks;
    for (std::size_t size = 16; size <= 2032; size += 16)
        blocks.push_back(apart(1, size)[0]);
    for (void* block : blocks)
        release(block);
    EXPECT_LE(depth(free_index_top(&entry_)), 16u); // 8 bits tell all sizes apart
}

TEST_F(FreeIndex, StaysFlatOverSizesWithoutAPattern)
{
    std::mt19937 random(1);
    std::vector<void*> blocks;
    for (int i = 0; i < 2000; i++)
        blocks.push_back(apart(1, 1 + random() % 100000)[0]);
    for (void* block : blocks)
        release(block);
    EXPECT_LE(depth(free_index_top(&entry_)), 40u);
}

// So that no allocation waits for all that was freed before it.
TEST_F(FreeIndex, KeepsTheChildrenOfABlockFewInAnyOrderOfRelease)
{
    constexpr std::size_t count = 20000;
    constexpr std::size_t few = 32; // a digit each
    std::mt19937 random(1);
    for (const int order : {0, 1, 2}) {
        std::vector<void*> blocks = apart(count, 64);
        if (order == 1)
            std::reverse(blocks.begin(), blocks.end());
        if (order == 2)
            std::shuffle(blocks.begin(), blocks.end(), random);
        for (void* block : blocks)
            release(block);
        for (std::size_t i = 0; i < count / 2; i++) {
            if (i % 100 == 0) {
                ASSERT_LE(children(first_of(64)), few) << order << ", " << i;
            }
            get(64);
        }
        list_allocator_free_all(&entry_);
    }
}

} // namespace
