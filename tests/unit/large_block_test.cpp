// The large-block layer: its statistics, its chunks, the limit and the caller's buffer.
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

constexpr std::size_t chunk = 4194304;
constexpr std::size_t smallest_limit = 4195328;

// The library is not started: nothing else uses the layer, and its mutex is invalid.
class LargeBlocks : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(largeBlockSem, PSP_SEM_INVALID);
        ASSERT_EQ(LargeBlock.chunks, nullptr);
    }
    void TearDown() override
    {
        EXPECT_EQ(LargeBlock.chunks, nullptr);
        EXPECT_EQ(psp_mem_stats.current, 0u);
        EXPECT_EQ(psp_membuffer_used, 0);
        psp_memlimit = 0;
        psp_membuffer = nullptr;
    }

    static void* alloc(std::size_t size, PSP_MEM_INFO* info = nullptr)
    {
        const std::size_t wanted = size;
        void* block = psp_allocLargeBlock(&size, info);
        EXPECT_EQ(size, wanted) << "the requested size is not changed";
        return block;
    }
    static std::size_t recorded_size(void* block)
    {
        return (static_cast<LARGE_BLOCK_HDR*>(block) - 1)->size;
    }

    LargeBlockSpy spy_;
    ChunkLog& log_ = LargeBlockSpy::log();
};

TEST_F(LargeBlocks, AreCarvedFromAChunkOf4MiB)
{
    void* block = alloc(1000);
    ASSERT_EQ(log_.requests.size(), 1u);
    EXPECT_EQ(log_.requests[0].wanted, chunk + 32);
    EXPECT_EQ(LargeBlock.chunks->size, chunk);
    EXPECT_EQ(recorded_size(block), 1008u);
    // 1008 bytes, a multiple of 16, from the end of the chunk; the caller's start after the size.
    EXPECT_EQ(address_of(block), log_.requests[0].address + 32 + chunk - 1008 + 8);
    void* other = alloc(1000);
    EXPECT_EQ(log_.requests.size(), 1u);
    EXPECT_EQ(distance(other, block), 1008 + 16);
    psp_freeLargeBlock(block, nullptr);
    EXPECT_TRUE(log_.released.empty());
    psp_freeLargeBlock(other, nullptr);
    ASSERT_EQ(log_.released.size(), 1u) << "an empty chunk goes back at once";
    EXPECT_EQ(log_.released[0], log_.requests[0].address);
}

TEST_F(LargeBlocks, LongerThanAChunkGetOneOfTheirOwn)
{
    void* block = alloc(5000000);
    EXPECT_EQ(log_.requests[0].wanted, 5000016u + 16 + 32) << "5000008 rounded up and the headers";
    psp_freeLargeBlock(block, nullptr);
}

TEST_F(LargeBlocks, AreCountedWithTheirHeader)
{
    PSP_MEM_INFO info{100, 100};
    void* a = alloc(1000, &info);
    EXPECT_EQ(psp_mem_stats, (PSP_MEM_INFO{1008, 1008}));
    EXPECT_EQ(info, (PSP_MEM_INFO{1108, 1108}));
    void* b = alloc(7); // 15 bytes, counted as they are
    EXPECT_EQ(psp_mem_stats, (PSP_MEM_INFO{1023, 1023}));
    psp_freeLargeBlock(a, &info);
    EXPECT_EQ(psp_mem_stats, (PSP_MEM_INFO{15, 1023}));
    EXPECT_EQ(info, (PSP_MEM_INFO{100, 1108}));
    psp_freeLargeBlock(b, nullptr);
    EXPECT_EQ(psp_mem_stats, (PSP_MEM_INFO{0, 1023}));
    std::size_t current = 1;
    std::size_t highest = 1;
    psp_getMemUsage(&current, &highest);
    EXPECT_EQ(current, 0u);
    EXPECT_EQ(highest, 1023u);
}

TEST_F(LargeBlocks, ThatCannotBeHadAreNotCounted)
{
    psp_memlimit = smallest_limit;
    PSP_MEM_INFO info{};
    EXPECT_EQ(alloc(5000000, &info), nullptr);
    EXPECT_EQ(info, PSP_MEM_INFO{});
    EXPECT_EQ(psp_mem_stats, PSP_MEM_INFO{});
    EXPECT_EQ(LargeBlock.chunks, nullptr);
}

TEST_F(LargeBlocks, RefuseSizesThatDoNotFitThirtyTwoBits)
{
    for (std::size_t below = 1; below < 40; below++)
        EXPECT_EQ(alloc((std::size_t{1} << 32) - below), nullptr) << below;
    for (const std::size_t size : {std::size_t{1} << 32, std::size_t{5} << 32, SIZE_MAX - 100})
        EXPECT_EQ(alloc(size), nullptr) << size;
    EXPECT_EQ(psp_mem_stats, PSP_MEM_INFO{});
}

TEST_F(LargeBlocks, ResizedKeepTheirContentsAndAreCountedByTheDifference)
{
    auto* a = static_cast<char*>(alloc(1000));
    void* guard = alloc(100);
    std::memset(a, 'p', 1000);
    auto* moved = static_cast<char*>(psp_reallocLargeBlock(a, 50000));
    ASSERT_NE(moved, nullptr);
    EXPECT_TRUE(holds(moved, 1000, 'p'));
    EXPECT_EQ(recorded_size(moved), 50008u);
    EXPECT_EQ(psp_mem_stats, (PSP_MEM_INFO{50008 + 108, 50008 + 108}));
    EXPECT_EQ(psp_reallocLargeBlock(moved, 2000), moved);
    EXPECT_EQ(recorded_size(moved), 2008u);
    EXPECT_EQ(psp_mem_stats, (PSP_MEM_INFO{2008 + 108, 50008 + 108}));
    psp_memlimit = smallest_limit;
    EXPECT_EQ(psp_reallocLargeBlock(moved, 5000000), nullptr);
    EXPECT_EQ(recorded_size(moved), 2008u);
    EXPECT_TRUE(holds(moved, 1000, 'p'));
    EXPECT_EQ(psp_mem_stats, (PSP_MEM_INFO{2008 + 108, 50008 + 108}));
    psp_freeLargeBlock(moved, nullptr);
    psp_freeLargeBlock(guard, nullptr);
}

TEST_F(LargeBlocks, OfTheListTagsAreChunksOf4096BytesAndHeaders)
{
    LIST_ALLOCATOR_ENTRY entry{};
    entry.blocksize = 4096;
    entry.alloc_fcn = psp_allocLargeBlock;
    entry.free_fcn = psp_freeLargeBlock;
    void* block = list_allocator_alloc(10, &entry);
    EXPECT_EQ(psp_mem_stats.current, 4096u + 32 + 8);
    EXPECT_EQ(entry.mem_info.free, (PSP_MEM_INFO{4136, 4136}));
    list_allocator_free(block, &entry);
    EXPECT_EQ(psp_mem_stats.current, 0u);
    EXPECT_EQ(entry.mem_info.free, (PSP_MEM_INFO{0, 4136}));
}

// ---- The limit ----

TEST_F(LargeBlocks, LimitGrantsOneChunkAndRefusesTheSecond)
{
    psp_memlimit = smallest_limit;
    void* block = alloc(2000);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(log_.requests[0].wanted, 4194336u);
    EXPECT_EQ(alloc(chunk), nullptr);
    void* other = alloc(4000000);
    EXPECT_NE(other, nullptr) << "there is room in the first chunk";
    psp_freeLargeBlock(block, nullptr);
    psp_freeLargeBlock(other, nullptr);
}

TEST_F(LargeBlocks, LimitIsHeldAgainstTheRequestPlusWhatIsInUse)
{
    std::size_t size = 1000000;
    psp_mem_stats.current = 234;
    psp_memlimit = 1000233;
    EXPECT_EQ(psp_malloc(&size, nullptr), nullptr);
    EXPECT_EQ(size, 1000000u);
    psp_memlimit = 1000234;
    void* memory = psp_malloc(&size, nullptr);
    ASSERT_NE(memory, nullptr) << "the limit itself is granted";
    EXPECT_EQ(size, 1000000u);
    psp_free(memory, nullptr);
    psp_memlimit = 0;
    memory = psp_malloc(&size, nullptr);
    EXPECT_NE(memory, nullptr) << "0 is no limit";
    psp_free(memory, nullptr);
    psp_mem_stats.current = 0;
}

TEST_F(LargeBlocks, SourceAndSinkLeaveTheStatisticsAlone)
{
    PSP_MEM_INFO info{3, 4};
    std::size_t size = 1000;
    void* memory = psp_malloc(&size, &info);
    ASSERT_NE(memory, nullptr);
    psp_free(memory, &info);
    EXPECT_EQ(info, (PSP_MEM_INFO{3, 4}));
    EXPECT_EQ(psp_mem_stats, PSP_MEM_INFO{});
}

// ---- The caller's buffer ----

TEST_F(LargeBlocks, BufferIsHandedOutWholeAndOnce)
{
    std::vector<char> buffer(smallest_limit + 5000);
    psp_membuffer = buffer.data();
    psp_memlimit = buffer.size();
    std::size_t size = chunk + 32;
    EXPECT_EQ(psp_malloc(&size, nullptr), buffer.data());
    EXPECT_EQ(size, buffer.size()) << "the request becomes the buffer's size";
    EXPECT_EQ(psp_membuffer_used, 1);
    size = 100;
    EXPECT_EQ(psp_malloc(&size, nullptr), nullptr);
    EXPECT_EQ(size, 100u);
    psp_free(buffer.data(), nullptr);
    EXPECT_EQ(psp_membuffer_used, 0);
    EXPECT_EQ(psp_malloc(&size, nullptr), buffer.data());
    EXPECT_EQ(size, buffer.size());
    psp_free(buffer.data(), nullptr);
}

TEST_F(LargeBlocks, BufferServesARequestOfItsWholeSizeAndNoByteMore)
{
    std::vector<char> buffer(smallest_limit);
    psp_membuffer = buffer.data();
    psp_memlimit = buffer.size();
    std::size_t size = buffer.size() + 1;
    EXPECT_EQ(psp_malloc(&size, nullptr), nullptr);
    size = buffer.size();
    EXPECT_EQ(psp_malloc(&size, nullptr), buffer.data());
    psp_free(buffer.data(), nullptr);
}

TEST_F(LargeBlocks, BufferHoldsEveryBlockUntilItIsFullAndIsFreeAgainWithTheLast)
{
    std::vector<std::max_align_t> buffer(5000000 / sizeof(std::max_align_t));
    const std::size_t bytes = buffer.size() * sizeof(std::max_align_t);
    psp_membuffer = buffer.data();
    psp_memlimit = bytes;
    for (int round = 0; round < 2; round++) {
        std::vector<void*> blocks;
        while (void* block = alloc(100000)) {
            EXPECT_GE(block, buffer.data());
            EXPECT_LT(block, buffer.data() + buffer.size());
            std::memset(block, 1, 100000);
            blocks.push_back(block);
        }
        // The whole buffer is one chunk: 100008 rounds to 100016, and 16 for each header.
        EXPECT_EQ(blocks.size(), (bytes - 32) / (100016 + 16));
        EXPECT_EQ(psp_membuffer_used, 1);
        EXPECT_EQ(LargeBlock.chunks->size, bytes - 32);
        for (void* block : blocks)
            psp_freeLargeBlock(block, nullptr);
        EXPECT_EQ(psp_membuffer_used, 0);
        std::memset(static_cast<void*>(buffer.data()), 0xEE, bytes); // it is the caller's again
    }
}

// ---- Beside the model ----

class LargeHarness {
  public:
    explicit LargeHarness(ChunkLog& log) : log_(log), model_(log) {}

    std::size_t random_size(std::mt19937& random)
    {
        psp_memlimit = random() % 10 == 0 ? smallest_limit : 0;
        const unsigned kind = random() % 100;
        return 1 + random() % (kind < 50 ? 5000 : kind < 95 ? 100000 : 6000000);
    }
    void* alloc(std::size_t size)
    {
        void* ptr = psp_allocLargeBlock(&size, &info_);
        EXPECT_EQ(address_of(ptr), model_.alloc(size)) << size;
        if (ptr != nullptr)
            mirror_.add(size + 8);
        return ptr;
    }
    void* realloc(void* ptr, std::size_t size, int)
    {
        void* moved = psp_reallocLargeBlock(ptr, size);
        EXPECT_EQ(address_of(moved), model_.realloc(address_of(ptr), size)) << size;
        return moved;
    }
    void free(void* ptr)
    {
        psp_freeLargeBlock(ptr, nullptr);
        model_.free(address_of(ptr));
    }
    void check()
    {
        ASSERT_TRUE(log_.requests.empty()) << "a chunk that was not due";
        ASSERT_TRUE(log_.released.empty()) << "a chunk given back too early";
        ASSERT_EQ(psp_mem_stats, model_.stats());
        ASSERT_EQ(info_, mirror_.info());
        ASSERT_EQ(LargeBlock.mem_info.used.current, model_.blocks().used());
        expect_same_lists(LargeBlock, model_.blocks());
    }

    void walk()
    {
        expect_sound_large_blocks();
    }

  private:
    ChunkLog& log_;
    LargeModel model_;
    PSP_MEM_INFO info_{};
    ModelCounter mirror_;
};

class LargeBlocksModel : public LargeBlocks, public ::testing::WithParamInterface<unsigned> {};

TEST_P(LargeBlocksModel, AgreesOnEveryAddressAndCounter)
{
    LargeHarness harness(log_);
    drive(harness, GetParam(), in_long_run(4000, 2000000), 150);
}

INSTANTIATE_TEST_SUITE_P(Seeds, LargeBlocksModel, ::testing::Range(1u, 6u));

} // namespace
