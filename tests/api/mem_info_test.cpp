// The statistics of tags and of the whole library, and what the memory interface does while the
// library is not started.
#include "support/mem_test.h"

#include <cstdint>
#include <cstring>

using namespace psptest;

namespace {

class TagMemInfo : public PspTest {};
class MemBeforeStart : public RawTest {};

// ---- Statistics ----

TEST_F(TagMemInfo, OfNoTagFails)
{
    PSP_TAG_MEM_INFO info{};
    EXPECT_EQ(psp_getTagMemInfo(nullptr, &info), ePSP_FAILURE);
}

TEST_F(TagMemInfo, OfALegacyTagIsZero)
{
    PSP_MEMTAG tag = make_tag(LEGACY_ALLOCATOR);
    ASSERT_NE(get(1000, tag), nullptr);
    PSP_TAG_MEM_INFO info;
    std::memset(&info, 0xFF, sizeof info);
    EXPECT_EQ(psp_getTagMemInfo(tag, &info), sOKAY);
    EXPECT_EQ(info, PSP_TAG_MEM_INFO{});
    destroy_tag(tag);
}

TEST_F(TagMemInfo, OfAFreshTag)
{
    for (const PSP_ALLOCATOR_TYPE type : {LIST_ALLOCATOR, STACK_ALLOCATOR, LEGACY_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        EXPECT_EQ(info_of(tag), PSP_TAG_MEM_INFO{});
        destroy_tag(tag);
    }
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    const PSP_TAG_MEM_INFO info = info_of(tag);
    EXPECT_EQ(info.used, PSP_MEM_INFO{});
    EXPECT_EQ(info.free, PSP_MEM_INFO{});
    EXPECT_GT(info.overhead.current, 0u) << "the record itself";
    EXPECT_EQ(info.overhead.current, info.overhead.max);
    destroy_tag(tag);
}

TEST_F(TagMemInfo, OfAListTagCountsRoundedRequestsAndChunks)
{
    PSP_MEMTAG tag = make_tag(LIST_ALLOCATOR);
    get(1, tag);
    PSP_TAG_MEM_INFO info = info_of(tag);
    EXPECT_EQ(info.used.current, 16u);
    EXPECT_EQ(info.free.current, 4096u + 32 + 8);
    get(17, tag);
    get(5000, tag); // 5008 and its header make a chunk of their own
    info = info_of(tag);
    EXPECT_EQ(info.used.current, 16u + 32 + 5008);
    EXPECT_EQ(info.free.current, 4096u + 32 + 8 + 5008 + 16 + 32 + 8);
    EXPECT_EQ(info.overhead, PSP_MEM_INFO{});
    destroy_tag(tag);
}

TEST_F(TagMemInfo, OfABlockTagCountsRequestsIdleBlocksAndOverhead)
{
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    const std::size_t record = info_of(tag).overhead.current;
    get(20, tag);
    PSP_TAG_MEM_INFO info = info_of(tag);
    EXPECT_EQ(info.used.current, 20u);
    EXPECT_EQ(info.free.current, 32u);
    EXPECT_EQ(info.free.max, 64u) << "both blocks of the chunk were idle for a moment";
    EXPECT_EQ(info.overhead.current, record + 16 + 2 * 8 + 12);
    empty_tag(tag);
    info = info_of(tag);
    EXPECT_EQ(info.used.current, 0u);
    EXPECT_EQ(info.free.current, 0u);
    EXPECT_EQ(info.overhead.current, record);
    EXPECT_EQ(info.used.max, 20u);
    EXPECT_EQ(info.free.max, 64u);
    EXPECT_EQ(info.overhead.max, record + 16 + 2 * 8 + 12);
    destroy_tag(tag);
}

TEST_F(TagMemInfo, OfTheWholeLibraryCountsLargeBlocks)
{
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    std::size_t current = 0;
    std::size_t highest = 0;
    psp_getMemUsage(&current, &highest);
    const std::size_t before = current;
    void* block = get(100000, tag); // 100000 is a multiple of 32
    psp_getMemUsage(&current, &highest);
    EXPECT_EQ(current, before + 100000 + 8 + 16 + 8);
    EXPECT_GE(highest, current);
    release(block, tag);
    std::size_t highest_after = 0;
    psp_getMemUsage(&current, &highest_after);
    EXPECT_EQ(current, before);
    EXPECT_EQ(highest_after, highest);
    psp_getMemUsage(nullptr, nullptr);
    psp_getMemUsage(nullptr, &highest);
    EXPECT_EQ(highest, highest_after);
    EXPECT_EQ(psp_mem_stats.current, before);
    EXPECT_EQ(psp_mem_stats.max, highest);
    destroy_tag(tag);
}

TEST_F(TagMemInfo, MemReportDoesNothing)
{
    CapturedFd out(1);
    CapturedFd err(2);
    psp_memReport(0, nullptr);
    psp_memReport(0xFFFFFFFF, "%s %d\n", "text", 5);
    EXPECT_EQ(out.finish(), "");
    EXPECT_EQ(err.finish(), "");
}

// ---- Before start and after stop ----

void expect_refusals(PSP_MEMTAG tag)
{
    PSP_MEMTAG made = nullptr;
    int local = 5;
    PSP_TAG_MEM_INFO info{};
    void* result = &local;
    EXPECT_EQ(psp_createTagEx_rc(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, &made, "", 0),
              ePSP_FAILURE);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(make_tag(LEGACY_ALLOCATOR), nullptr);
    EXPECT_EQ(get(10, tag), nullptr);
    EXPECT_EQ(get(0, tag, 13, "x"), nullptr);
    EXPECT_EQ(psp_getMem_rc(10, tag, 1, nullptr, &result, "", 0), eNOMEMORY);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(extend(&local, 10, tag), nullptr);
    EXPECT_EQ(extend(nullptr, 10, tag), nullptr);
    EXPECT_EQ(psp_extendMem_rc(&local, 9, tag, 1, 0, nullptr, &result, "", 0), eNOMEMORY);
    EXPECT_EQ(move(&local, 4, tag, nullptr), nullptr);
    EXPECT_EQ(move(&local, 4, tag, tag), nullptr);
    release(&local, tag);
    psp_resetTag(nullptr, tag);
    EXPECT_EQ(psp_getTagMemInfo(tag, &info), ePSP_FAILURE);
    EXPECT_EQ(local, 5);
}

TEST_F(MemBeforeStart, EveryCallIsRefused)
{
    for (PSP_MEMTAG tag : {PSP_MEMTAG{}, PSP_THREAD_TAG, PSP_GLOBAL_TAG})
        expect_refusals(tag);
    psp_freeTagMem(nullptr, ZYN_TRUE, "", 0);
}

TEST_F(MemBeforeStart, EveryCallIsRefusedAfterStopToo)
{
    ASSERT_EQ(psp_init(), sOKAY);
    PSP_MEMTAG dead = make_tag();
    psp_term();
    for (PSP_MEMTAG tag : {PSP_MEMTAG{}, PSP_THREAD_TAG, PSP_GLOBAL_TAG, dead})
        expect_refusals(tag);
    psp_freeTagMem(dead, ZYN_TRUE, "", 0);
    psp_freeTagMem(dead, ZYN_FALSE, "", 0);
}

TEST_F(MemBeforeStart, UsageCanBeRead)
{
    std::size_t current = 77;
    std::size_t highest = 77;
    psp_getMemUsage(&current, &highest);
    EXPECT_EQ(current, 0u);
    EXPECT_NE(highest, 77u);
    psp_getMemUsage(nullptr, nullptr);
}

TEST_F(MemBeforeStart, TheMutexOfTheLargeBlocksIsInvalid)
{
    EXPECT_EQ(largeBlockSem, PSP_SEM_INVALID);
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_NE(largeBlockSem, PSP_SEM_INVALID);
    psp_term();
    EXPECT_EQ(largeBlockSem, PSP_SEM_INVALID);
}

} // namespace
