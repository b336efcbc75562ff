// The legacy allocator: its list of blocks, and the repeated free that it notices.
#include "support/alloc_driver.h"
#include "support/mem_walk.h"
#include "support/scale.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

using namespace psptest;

namespace {

LEGACY_HDR* header(void* block)
{
    return static_cast<LEGACY_HDR*>(block) - 1;
}

class LegacyAllocator : public ::testing::Test {
  protected:
    void TearDown() override
    {
        legacy_allocator_free_all(&entry_);
        EXPECT_EQ(entry_.a_first, nullptr);
    }

    void* alloc(std::size_t size)
    {
        return legacy_allocator_alloc(size, &entry_);
    }
    void* realloc(void* ptr, std::size_t size, int preserve = 1)
    {
        return legacy_allocator_realloc(ptr, size, &entry_, preserve);
    }
    void release(void* ptr)
    {
        legacy_allocator_free(ptr, &entry_);
    }

    // The blocks from a_first on, the links checked in both directions.
    std::vector<void*> blocks() const
    {
        std::vector<void*> result;
        LEGACY_HDR* before = nullptr;
        for (LEGACY_HDR* hdr = entry_.a_first; hdr != nullptr; hdr = hdr->next) {
            EXPECT_EQ(hdr->prev, before);
            before = hdr;
            result.push_back(hdr + 1);
        }
        return result;
    }

    LEGACY_ALLOCATOR_ENTRY entry_{};
};

using Blocks = std::vector<void*>;

TEST_F(LegacyAllocator, ListsTheNewestBlockFirst)
{
    void* a = alloc(10);
    void* b = alloc(0);
    void* c = alloc(100000);
    EXPECT_EQ(blocks(), (Blocks{c, b, a}));
}

TEST_F(LegacyAllocator, UnlinksABlockFromAnyPlace)
{
    void* a = alloc(1);
    void* b = alloc(2);
    void* c = alloc(3);
    void* d = alloc(4);
    release(b);
    EXPECT_EQ(blocks(), (Blocks{d, c, a}));
    release(d);
    EXPECT_EQ(blocks(), (Blocks{c, a}));
    release(a);
    EXPECT_EQ(blocks(), (Blocks{c}));
    release(c);
    EXPECT_EQ(blocks(), Blocks{});
}

TEST_F(LegacyAllocator, RepointsTheNeighboursOfABlockThatMoves)
{
    // Growing far makes the heap move a block; whether it did or not, the links must be right.
    for (int which = 0; which < 3; which++) {
        Blocks made{alloc(10), alloc(10), alloc(10)};
        auto*& block = made[static_cast<std::size_t>(which)];
        std::memset(block, 'p', 10);
        block = realloc(block, 2000000, which % 2);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(holds(block, 10, 'p')) << "contents are always kept";
        EXPECT_EQ(blocks(), (Blocks{made[2], made[1], made[0]}));
        block = realloc(block, 5, 0);
        EXPECT_TRUE(holds(block, 5, 'p'));
        EXPECT_EQ(blocks(), (Blocks{made[2], made[1], made[0]}));
        legacy_allocator_free_all(&entry_);
        EXPECT_EQ(entry_.a_first, nullptr);
    }
}

TEST_F(LegacyAllocator, FreeAllReleasesEveryBlock)
{
    for (std::size_t i = 0; i < 100; i++)
        alloc(i);
    legacy_allocator_free_all(&entry_);
    EXPECT_EQ(entry_.a_first, nullptr);
    legacy_allocator_free_all(&entry_);
    EXPECT_NE(alloc(10), nullptr);
}

TEST_F(LegacyAllocator, NoticesARepeatedFree)
{
    // A header that free() did not get to keeps both links clear; a second free finds it so.
    struct {
        LEGACY_HDR header;
        char data[16];
    } freed{};
    void* other = alloc(10);
    CapturedFd out(1);
    release(freed.data);
    EXPECT_EQ(out.finish(), "Attempting to free previously freed memory\n");
    EXPECT_EQ(blocks(), Blocks{other});
    CapturedFd again(1);
    release(other);
    EXPECT_EQ(again.finish(), "");
    EXPECT_EQ(entry_.a_first, nullptr);
    CapturedFd empty(1);
    release(freed.data);
    EXPECT_EQ(empty.finish(), "Attempting to free previously freed memory\n");
}

TEST_F(LegacyAllocator, TakesABlockForFreedUnlessItsLinksLeadBack)
{
    struct Record {
        LEGACY_HDR header{};
        char data[16]{};
    };
    Record stranger;
    Record freed;
    LEGACY_HDR* const first = header(alloc(10));
    LEGACY_HDR* const second = header(alloc(10)); // in front of the first
    const auto at = [](std::uintptr_t address) { return reinterpret_cast<LEGACY_HDR*>(address); };
    LEGACY_HDR* const crooked = at(address_of(second) + 1);
    LEGACY_HDR* const beyond = at(std::uintptr_t{1} << 47);
    const LEGACY_HDR links[] = {
        {crooked, nullptr}, {beyond, nullptr},         // no address of a process: not followed
        {second, crooked},  {second, beyond},          // likewise
        {second, first},    {&stranger.header, first}, // not the neighbour of its neighbours
    };
    for (const LEGACY_HDR& link : links) {
        freed.header = link;
        CapturedFd out(1);
        release(freed.data);
        EXPECT_EQ(out.finish(), "Attempting to free previously freed memory\n");
        EXPECT_EQ(blocks(), (Blocks{second + 1, first + 1}));
    }
    // The one before it leads here, but the one behind does not lead back.
    freed.header = {&stranger.header, first};
    for (LEGACY_HDR* const behind : {crooked, beyond, first}) {
        stranger.header.next = &freed.header;
        freed.header.next = behind;
        CapturedFd out(1);
        release(freed.data);
        EXPECT_EQ(out.finish(), "Attempting to free previously freed memory\n");
        EXPECT_EQ(stranger.header.next, &freed.header) << "nothing was unlinked";
    }
}

TEST_F(LegacyAllocator, DoesNotMistakeTheOnlyBlockForAFreedOne)
{
    void* only = alloc(10);
    EXPECT_EQ(header(only)->prev, nullptr);
    EXPECT_EQ(header(only)->next, nullptr);
    CapturedFd out(1);
    release(only);
    EXPECT_EQ(out.finish(), "");
    EXPECT_EQ(entry_.a_first, nullptr);
}

TEST_F(LegacyAllocator, CountsNothing)
{
    alloc(1000);
    PSP_TAG_MEM_INFO info;
    std::memset(&info, 0xFF, sizeof info);
    legacy_allocator_mem_info(&entry_, &info);
    EXPECT_EQ(info, PSP_TAG_MEM_INFO{});
    EXPECT_EQ(psp_mem_stats.current, 0u);
}

// ---- Beside the model ----

// The heap decides about addresses; the list and the contents are predicted.
class LegacyHarness {
  public:
    explicit LegacyHarness(LEGACY_ALLOCATOR_ENTRY& entry) : entry_(entry) {}

    std::size_t random_size(std::mt19937& random)
    {
        return random() % (random() % 4 == 0 ? 5000 : 300);
    }
    void* alloc(std::size_t size)
    {
        void* ptr = legacy_allocator_alloc(size, &entry_);
        model_.insert(model_.begin(), ptr);
        return ptr;
    }
    void* realloc(void* ptr, std::size_t size, int preserve)
    {
        void*& place = *std::find(model_.begin(), model_.end(), ptr);
        place = legacy_allocator_realloc(ptr, size, &entry_, preserve);
        return place;
    }
    void free(void* ptr)
    {
        legacy_allocator_free(ptr, &entry_);
        std::erase(model_, ptr);
    }
    void check()
    {
        const LEGACY_HDR* before = nullptr;
        const LEGACY_HDR* hdr = entry_.a_first;
        for (void* block : model_) {
            ASSERT_EQ(hdr + 1, block);
            ASSERT_EQ(hdr->prev, before);
            before = hdr;
            hdr = hdr->next;
        }
        ASSERT_EQ(hdr, nullptr);
    }
    void walk()
    {
        expect_sound(entry_);
    }

  private:
    LEGACY_ALLOCATOR_ENTRY& entry_;
    Blocks model_; // newest first
};

class LegacyAllocatorModel : public LegacyAllocator,
                             public ::testing::WithParamInterface<unsigned> {};

TEST_P(LegacyAllocatorModel, KeepsItsListAndTheContents)
{
    LegacyHarness harness(entry_);
    drive(harness, GetParam(), in_long_run(4000, 5000000), 50);
}

INSTANTIATE_TEST_SUITE_P(Seeds, LegacyAllocatorModel, ::testing::Range(1u, 3u));

} // namespace
