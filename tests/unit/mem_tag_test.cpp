// The records behind the memory tags: what a new tag holds, and the list of all tags.
#include "support/block_model.h"
#include "support/mem_test.h"

#include "psp/thread.h"
#include "psp_mem_data_int.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace psptest;

namespace {

class TagRecord : public PspTest {};

std::vector<PSP_MEMTAG> listed_tags()
{
    std::vector<PSP_MEMTAG> tags;
    TAG_ENTRY* before = nullptr;
    for (TAG_ENTRY* tag = taglisthead; tag != nullptr; tag = tag->t_next) {
        EXPECT_EQ(tag->t_prev, before);
        before = tag;
        tags.push_back(tag);
    }
    EXPECT_EQ(taglisttail, before);
    return tags;
}

void ignore(void*) {}

TEST_F(TagRecord, HoldsWhatItWasCreatedWith)
{
    jmp_buf buffer;
    int ctx = 0;
    PSP_MEMTAG tag = make_tag(LIST_ALLOCATOR, 1, &buffer, ignore, &ctx);
    EXPECT_EQ(tag->t_jmpbuf, &buffer);
    EXPECT_EQ(tag->t_destroy_fcn, &ignore);
    EXPECT_EQ(tag->t_destroy_ctx, &ctx);
    EXPECT_NE(tag->t_sem, PSP_SEM_INVALID);
    psp_resetTag(nullptr, tag);
    EXPECT_EQ(tag->t_jmpbuf, nullptr);
    destroy_tag(tag);
    tag = make_tag(LIST_ALLOCATOR, 2);
    EXPECT_EQ(tag->t_sem, PSP_SEM_INVALID);
    EXPECT_EQ(tag->t_jmpbuf, nullptr);
    EXPECT_EQ(tag->t_destroy_fcn, nullptr);
    destroy_tag(tag);
}

TEST_F(TagRecord, OfABlockTag)
{
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    const auto* entry = static_cast<BLOCK_ALLOCATOR_ENTRY*>(tag->t_allocator);
    for (const BLOCK_INFO& info : entry->blocks) {
        EXPECT_EQ(info.avail, nullptr);
        EXPECT_EQ(info.mult, 2u);
    }
    EXPECT_EQ(entry->chunks, nullptr);
    EXPECT_EQ(entry->mem_info.overhead, (PSP_MEM_INFO{sizeof *entry, sizeof *entry}));
    EXPECT_EQ(tag->t_fcns.destroy_fcn, block_allocator_destroy);
    EXPECT_EQ(tag->t_fcns.alloc_fcn, block_allocator_alloc);
    EXPECT_EQ(tag->t_fcns.realloc_fcn, block_allocator_realloc);
    EXPECT_EQ(tag->t_fcns.free_fcn, block_allocator_free);
    EXPECT_EQ(tag->t_fcns.free_all_fcn, block_allocator_free_all);
    EXPECT_EQ(tag->t_fcns.get_size_fcn, block_allocator_get_size);
    EXPECT_EQ(tag->t_fcns.mem_info_fcn, block_allocator_mem_info);
    destroy_tag(tag);
}

TEST_F(TagRecord, OfAListTag)
{
    PSP_MEMTAG tag = make_tag(LIST_ALLOCATOR);
    const auto* entry = static_cast<LIST_ALLOCATOR_ENTRY*>(tag->t_allocator);
    EXPECT_EQ(entry->chunks, nullptr);
    EXPECT_EQ(entry->blocksize, 4096u);
    EXPECT_EQ(entry->alloc_fcn, psp_allocLargeBlock);
    EXPECT_EQ(entry->free_fcn, psp_freeLargeBlock);
    EXPECT_EQ(info_of(tag), PSP_TAG_MEM_INFO{});
    EXPECT_EQ(tag->t_fcns.alloc_fcn, list_allocator_alloc);
    EXPECT_EQ(tag->t_fcns.get_size_fcn, list_allocator_get_size);
    EXPECT_EQ(tag->t_fcns.mem_info_fcn, list_allocator_mem_info);
    destroy_tag(tag);
}

TEST_F(TagRecord, OfAStackTag)
{
    PSP_MEMTAG tag = make_tag(STACK_ALLOCATOR);
    const auto* entry = static_cast<STACK_ALLOCATOR_ENTRY*>(tag->t_allocator);
    EXPECT_EQ(entry->partial_chunks, nullptr);
    EXPECT_EQ(entry->full_chunks, nullptr);
    EXPECT_EQ(entry->blocksize, 4096u);
    EXPECT_EQ(entry->mem_info, PSP_TAG_MEM_INFO{});
    EXPECT_EQ(tag->t_fcns.get_size_fcn, stack_allocator_get_size);
    EXPECT_EQ(tag->t_fcns.mem_info_fcn, stack_allocator_mem_info);
    destroy_tag(tag);
}

TEST_F(TagRecord, OfALegacyTagCannotTellSizes)
{
    PSP_MEMTAG tag = make_tag(LEGACY_ALLOCATOR);
    EXPECT_EQ(static_cast<LEGACY_ALLOCATOR_ENTRY*>(tag->t_allocator)->a_first, nullptr);
    EXPECT_EQ(tag->t_fcns.get_size_fcn, nullptr);
    EXPECT_EQ(tag->t_fcns.mem_info_fcn, legacy_allocator_mem_info);
    EXPECT_EQ(tag->t_fcns.destroy_fcn, legacy_allocator_destroy);
    destroy_tag(tag);
}

TEST_F(TagRecord, OfTheStaticListTag)
{
    EXPECT_EQ(static_list_tag.t_allocator, &static_list_allocator);
    EXPECT_NE(static_list_tag.t_sem, PSP_SEM_INVALID);
    EXPECT_EQ(static_list_tag.t_jmpbuf, nullptr);
    EXPECT_EQ(static_list_tag.t_fcns.destroy_fcn, list_allocator_destroy);
    EXPECT_EQ(static_list_tag.t_fcns.alloc_fcn, list_allocator_alloc);
    EXPECT_EQ(static_list_tag.t_fcns.realloc_fcn, list_allocator_realloc);
    EXPECT_EQ(static_list_tag.t_fcns.free_fcn, list_allocator_free);
    EXPECT_EQ(static_list_tag.t_fcns.free_all_fcn, list_allocator_free_all);
    EXPECT_EQ(static_list_tag.t_fcns.get_size_fcn, list_allocator_get_size);
    EXPECT_EQ(static_list_tag.t_fcns.mem_info_fcn, nullptr);
    EXPECT_EQ(static_list_allocator.blocksize, 4096u);
    EXPECT_EQ(static_list_allocator.alloc_fcn, psp_allocLargeBlock);
    EXPECT_EQ(static_list_allocator.free_fcn, psp_freeLargeBlock);
}

TEST_F(TagRecord, OfTheGlobalTagIsASynchronisedBlockTagAtTheHeadOfTheList)
{
    ASSERT_NE(tagGlobal, nullptr);
    EXPECT_EQ(taglisthead, tagGlobal) << "it is created first";
    EXPECT_EQ(tagGlobal->t_fcns.alloc_fcn, block_allocator_alloc);
    EXPECT_NE(tagGlobal->t_sem, PSP_SEM_INVALID);
    EXPECT_EQ(tagGlobal->t_jmpbuf, nullptr);
    EXPECT_EQ(tagGlobal->t_destroy_fcn, nullptr);
    EXPECT_NE(tagTabSem, PSP_SEM_INVALID);
    EXPECT_NE(largeBlockSem, PSP_SEM_INVALID);
}

TEST_F(TagRecord, IsAppendedToTheListOfTags)
{
    const std::vector<PSP_MEMTAG> before = listed_tags();
    std::vector<PSP_MEMTAG> expected = before;
    for (const PSP_ALLOCATOR_TYPE type :
         {LEGACY_ALLOCATOR, BLOCK_ALLOCATOR, LIST_ALLOCATOR, STACK_ALLOCATOR})
        expected.push_back(make_tag(type));
    EXPECT_EQ(listed_tags(), expected);
    const std::size_t first = before.size();
    for (const std::size_t which : {first + 1, first + 2, first, first}) { // middle, tail, rest
        destroy_tag(expected[which]);
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(which));
        EXPECT_EQ(listed_tags(), expected);
    }
    for (PSP_MEMTAG tag : listed_tags())
        EXPECT_NE(tag, &static_list_tag);
}

TEST_F(TagRecord, SpecialValuesResolve)
{
    EXPECT_EQ(getCorrectTag(PSP_GLOBAL_TAG), tagGlobal);
    EXPECT_EQ(getCorrectTag(nullptr), nullptr);
    PSP_MEMTAG tag = make_tag();
    EXPECT_EQ(getCorrectTag(tag), tag);
    destroy_tag(tag);
    PSP_MEMTAG mine = getCorrectTag(PSP_THREAD_TAG);
    ASSERT_NE(mine, nullptr);
    EXPECT_EQ(mine->t_sem, PSP_SEM_INVALID);
    EXPECT_EQ(mine->t_jmpbuf, nullptr);
    EXPECT_EQ(mine->t_fcns.alloc_fcn, block_allocator_alloc);
    EXPECT_EQ(getCorrectTag(PSP_THREAD_TAG), mine);
    EXPECT_EQ(taglisttail, mine);
    PSP_MEMTAG others = nullptr;
    std::thread([&] { others = getCorrectTag(PSP_THREAD_TAG); }).join();
    ASSERT_NE(others, nullptr);
    EXPECT_NE(others, mine);
    EXPECT_EQ(listed_tags().back(), others) << "it outlives its thread";
}

TEST_F(TagRecord, OfTheThreadIsMadeByFreeing)
{
    void* block = get(10, PSP_GLOBAL_TAG);
    const std::size_t before = listed_tags().size();
    psp_resetTag(nullptr, PSP_THREAD_TAG); // resolves it too
    EXPECT_EQ(listed_tags().size(), before + 1);
    std::thread([] { release(nullptr, PSP_THREAD_TAG); }).join();
    EXPECT_EQ(listed_tags().size(), before + 1) << "NULL is looked at before the tag";
    release(block, PSP_GLOBAL_TAG);
}

TEST_F(TagRecord, OfTheThreadIsNotMadeForWhatIsRefused)
{
    const std::vector<PSP_MEMTAG> before = listed_tags();
    std::thread([] {
        for (const std::size_t size : {std::size_t{0}, SIZE_MAX - 1, SIZE_MAX}) {
            EXPECT_EQ(get(size, PSP_THREAD_TAG), nullptr);
            EXPECT_EQ(pthread_getspecific(tagTLSkey), nullptr) << size;
        }
    }).join();
    EXPECT_EQ(listed_tags(), before);
}

// A block of a size has the size of its class, and is the next one of the class when it is freed.
void expect_class(PSP_MEMTAG tag, std::size_t size)
{
    void* block = get(size, tag);
    ASSERT_NE(block, nullptr) << size;
    const BLOCK_SIZE header = (static_cast<const BLOCK_HDR*>(block) - 1)->size;
    EXPECT_EQ(header.requested, size);
    EXPECT_EQ(header.actual, BlockModel::class_size(size)) << size;
    EXPECT_EQ(info_of(tag).used.current, size);
    release(block, tag);
    EXPECT_EQ(info_of(tag).used.current, 0u) << size;
    if (size > 8192)
        return;
    void* again = get(header.actual, tag);
    EXPECT_EQ(again, block) << size;
    release(again, tag);
}

TEST_F(TagRecord, OfEveryBlockTagServesEachSizeFromItsClass)
{
    jmp_buf buffer;
    PSP_MEMTAG tags[] = {make_tag(), make_tag(BLOCK_ALLOCATOR, 0, &buffer),
                         make_tag(BLOCK_ALLOCATOR, 1), PSP_THREAD_TAG};
    std::thread([&tags] {
        for (PSP_MEMTAG tag : tags) {
            for (std::size_t size = 1; size <= 8300; size++)
                expect_class(tag, size);
        }
    }).join();
    for (PSP_MEMTAG tag : tags)
        if (tag != PSP_THREAD_TAG)
            destroy_tag(tag);
}

TEST_F(TagRecord, OfEveryKindIsGoneAfterStop)
{
    make_tag(LIST_ALLOCATOR, 1);
    get(10, PSP_THREAD_TAG);
    psp_term();
    EXPECT_EQ(taglisthead, nullptr);
    EXPECT_EQ(taglisttail, nullptr);
    EXPECT_EQ(static_list_allocator.chunks, nullptr);
    EXPECT_EQ(LargeBlock.chunks, nullptr);
    EXPECT_EQ(tagTabSem, PSP_SEM_INVALID);
    EXPECT_EQ(largeBlockSem, PSP_SEM_INVALID);
    EXPECT_EQ(static_list_tag.t_sem, PSP_SEM_INVALID);
    ASSERT_EQ(psp_init(), sOKAY);
}

} // namespace
