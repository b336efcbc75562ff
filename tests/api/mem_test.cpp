// Memory tags as a caller of the shared library sees them.
#include "support/mem_test.h"

#include "psp/sync.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

class MemTag : public PspTest {};
class GetMem : public PspTest {};
class FreeMem : public PspTest {};
class FreeTagMem : public PspTest {};
class SpecialTag : public PspTest {};

// Notes the order of calls of destroy callbacks.
std::vector<int>* destroyed = nullptr;

void note_destroyed(void* ctx)
{
    destroyed->push_back(*static_cast<int*>(ctx));
}

// ---- Creating tags ----

TEST_F(MemTag, OfEveryTypeServesBlocks)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        PSP_MEMTAG tag = nullptr;
        ASSERT_EQ(psp_createTagEx_rc(nullptr, 0, type, nullptr, nullptr, &tag, __FILE__, __LINE__),
                  sOKAY);
        ASSERT_NE(tag, nullptr);
        auto* block = static_cast<char*>(get(100, tag));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(address_of(block) % 8, 0u);
        std::memset(block, 'x', 100);
        release(block, tag);
        destroy_tag(tag);
    }
}

TEST_F(MemTag, OfUnknownTypeIsRefused)
{
    for (const int type : {4, 5, 100, -1}) {
        PSP_MEMTAG tag = nullptr;
        EXPECT_EQ(make_tag_of_type(type, &tag), ePSP_FAILURE);
        EXPECT_EQ(tag, nullptr);
    }
}

TEST_F(MemTag, RefusedForItsTypeTakesNoMemory)
{
    destroy_tag(make_tag(LEGACY_ALLOCATOR)); // whatever is taken once is taken now
    const std::size_t before = memory_in_use();
    PSP_MEMTAG tag = nullptr;
    for (int i = 0; i < 1000; i++)
        EXPECT_EQ(make_tag_of_type(4, &tag), ePSP_FAILURE);
    EXPECT_EQ(memory_in_use(), before);
}

TEST_F(MemTag, CreatedThousandTimesAndDestroyedTakesNoMemory)
{
    const std::size_t before = memory_in_use();
    for (int i = 0; i < 1000; i++)
        for (const PSP_ALLOCATOR_TYPE type : all_types) {
            PSP_MEMTAG tag = make_tag(type, static_cast<std::int16_t>(i % 2));
            ASSERT_NE(get(50, tag), nullptr);
            destroy_tag(tag);
        }
    EXPECT_EQ(memory_in_use(), before);
}

TEST_F(MemTag, LeftOverIsReleasedAtStop)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types)
        for (const std::int16_t flags : {0, 1}) {
            PSP_MEMTAG tag = make_tag(type, flags);
            ASSERT_NE(get(10000, tag), nullptr);
            ASSERT_NE(get(10, tag), nullptr);
        }
    // The fixture sees that nothing stays behind; a leak checker sees the blocks of the heap.
}

TEST_F(MemTag, LeftOverRunsItsCallbackAtStopInOrderOfCreation)
{
    int ids[] = {0, 1, 2, 3};
    std::vector<int> order;
    destroyed = &order;
    for (int i = 0; i < 4; i++)
        ASSERT_NE(make_tag(all_types[i], 0, nullptr, note_destroyed, &ids[i]), nullptr);
    psp_term();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(MemTag, DestroyedInTheMiddleLeavesTheOrderOfTheOthers)
{
    int ids[] = {0, 1, 2, 3, 4};
    std::vector<int> order;
    destroyed = &order;
    PSP_MEMTAG tags[5];
    for (int i = 0; i < 5; i++)
        tags[i] = make_tag(LIST_ALLOCATOR, 0, nullptr, note_destroyed, &ids[i]);
    destroy_tag(tags[2]);
    destroy_tag(tags[0]);
    destroy_tag(tags[4]);
    EXPECT_EQ(order, (std::vector<int>{2, 0, 4}));
    psp_term();
    EXPECT_EQ(order, (std::vector<int>{2, 0, 4, 1, 3}));
    ASSERT_EQ(psp_init(), sOKAY);
}

TEST_F(MemTag, GetsItsMutexOnlyForFlagsExactlyOne)
{
    // A new mutex takes the entry that was freed last, so the next handle tells whether the tag
    // took one.
    for (const int flags : {0, 1, 2, 3, -1}) {
        PSP_SEM probe = psp_syncCreate_check(1, __FILE__, __LINE__);
        psp_syncDelete(probe);
        PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, static_cast<std::int16_t>(flags));
        PSP_SEM next = psp_syncCreate_check(1, __FILE__, __LINE__);
        EXPECT_EQ(next != probe, flags == 1) << "flags " << flags;
        psp_syncDelete(next);
        destroy_tag(tag);
        next = psp_syncCreate_check(1, __FILE__, __LINE__);
        EXPECT_EQ(next, probe) << "the mutex went with the tag";
        psp_syncDelete(next);
    }
}

// ---- Allocation ----

TEST_F(GetMem, OfSizeZeroNeedsModeBit8Or16)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        PSP_MEMTAG tag = make_tag(type);
        for (const int mode : {0, 1, 2, 3, 32})
            EXPECT_EQ(get(0, tag, mode), nullptr) << "mode " << mode;
        EXPECT_EQ(get(0, tag, 5, "x"), nullptr);
        for (const int mode : {8, 9, 16, 17, 24, 11})
            EXPECT_NE(get(0, tag, mode), nullptr) << "mode " << mode << " type " << type;
        destroy_tag(tag);
    }
}

TEST_F(GetMem, BlocksOfSizeZeroCanBeFreed)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        void* first = get(0, tag, 8);
        void* second = get(0, tag, 16);
        EXPECT_NE(first, second);
        release(first, tag);
        release(second, tag);
        EXPECT_EQ(info_of(tag).used.current, 0u);
        destroy_tag(tag);
    }
}

TEST_F(GetMem, WithModeTwoZeroFillsTheWholeBlock)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        PSP_MEMTAG tag = make_tag(type);
        for (const std::size_t size : {1u, 15u, 64u, 100u, 5000u, 20000u}) {
            void* used = get(size, tag);
            std::memset(used, 0xAA, size);
            release(used, tag);
            for (const int mode : {2, 3}) {
                void* block = get(size, tag, mode);
                EXPECT_TRUE(holds(block, size, 0)) << size;
            }
        }
        destroy_tag(tag);
    }
}

TEST_F(GetMem, WithModeFourCopiesTheData)
{
    std::string data(20000, 'q');
    for (std::size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(i * 7);
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        PSP_MEMTAG tag = make_tag(type);
        for (const std::size_t size : {1u, 2u, 16u, 100u, 8192u, 20000u})
            for (const int mode : {4, 5}) {
                void* block = get(size, tag, mode, data.data());
                ASSERT_NE(block, nullptr);
                EXPECT_NE(block, data.data());
                EXPECT_EQ(std::memcmp(block, data.data(), size), 0) << size;
            }
        destroy_tag(tag);
    }
}

TEST_F(GetMem, WithModeSixZeroFillsAndDoesNotCopy)
{
    for (const int mode : {6, 7}) {
        void* block = get(8, PSP_GLOBAL_TAG, mode, "abcdefgh");
        EXPECT_TRUE(holds(block, 8, 0));
        release(block, PSP_GLOBAL_TAG);
    }
}

TEST_F(GetMem, WithModeFourNeedsData)
{
    for (const int mode : {4, 5, 6, 7, 12, 13, 29})
        EXPECT_EQ(get(10, PSP_GLOBAL_TAG, mode, nullptr), nullptr) << "mode " << mode;
}

TEST_F(GetMem, WithModeThirteenDuplicatesAString)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        PSP_MEMTAG tag = make_tag(type);
        for (const std::size_t size : {std::size_t{0}, std::size_t{2}, std::size_t{1000}, SIZE_MAX,
                                       SIZE_MAX - 1, std::size_t{1} << 33}) {
            auto* copy = static_cast<char*>(get(size, tag, 13, "abc"));
            ASSERT_NE(copy, nullptr) << "the size given does not count: " << size;
            EXPECT_STREQ(copy, "abc");
        }
        EXPECT_STREQ(static_cast<char*>(get(0, tag, 13, "")), "");
        const std::string text(9000, 't');
        EXPECT_EQ(static_cast<char*>(get(0, tag, 13, text.c_str())), text);
        destroy_tag(tag);
    }
}

TEST_F(GetMem, WithModeThirteenTakesTheLengthPlusOne)
{
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    ASSERT_NE(get(1000, tag, 13, "abc"), nullptr);
    EXPECT_EQ(info_of(tag).used.current, 4u);
    destroy_tag(tag);
}

TEST_F(GetMem, IsAStringCopyForModeThirteenExactly)
{
    // Mode 12 and 29 have the bits of 13 but copy the size that is given.
    const char data[] = "ab\0cdef";
    for (const int mode : {12, 15, 29}) {
        PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
        void* block = get(7, tag, mode, data);
        EXPECT_EQ(info_of(tag).used.current, 7u);
        if (mode == 15) // bit 2 wins
            EXPECT_TRUE(holds(block, 7, 0));
        else
            EXPECT_EQ(std::memcmp(block, data, 7), 0);
        destroy_tag(tag);
    }
}

TEST_F(GetMem, OfNoTagFails)
{
    EXPECT_EQ(get(10, nullptr), nullptr);
    EXPECT_EQ(get(10, nullptr, 3), nullptr);
    void* result = &result;
    EXPECT_EQ(psp_getMem_rc(10, nullptr, 1, nullptr, &result, __FILE__, __LINE__), eNOMEMORY);
    EXPECT_EQ(result, nullptr);
}

TEST_F(GetMem, OfSizesFrom4GiBFails)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        PSP_MEMTAG tag = make_tag(type);
        const PSP_TAG_MEM_INFO before = info_of(tag);
        const std::size_t held = memory_in_use();
        for (const std::size_t size : impossible_sizes) {
            if (type == LEGACY_ALLOCATOR && size < gib4)
                continue; // the heap may have that much
            EXPECT_EQ(get(size, tag), nullptr) << size << " type " << type;
            EXPECT_EQ(get(size, tag, 3), nullptr) << size;
        }
        EXPECT_EQ(get(SIZE_MAX, tag), nullptr);
        EXPECT_EQ(get(SIZE_MAX - 1, tag), nullptr);
        EXPECT_EQ(info_of(tag), before);
        EXPECT_EQ(memory_in_use(), held);
        EXPECT_NE(get(10, tag), nullptr);
        destroy_tag(tag);
    }
}

TEST_F(GetMem, OfSizesWhoseHeadersPass4GiBFails)
{
    for (const PSP_ALLOCATOR_TYPE type : chunk_types) {
        PSP_MEMTAG tag = make_tag(type);
        for (std::size_t below = 1; below < 64; below++)
            EXPECT_EQ(get(gib4 - below, tag), nullptr) << below << " type " << type;
        EXPECT_NE(get(10, tag), nullptr);
        destroy_tag(tag);
    }
}

TEST_F(GetMem, ReturnCodeTwinStoresThePointer)
{
    char* block = nullptr;
    ASSERT_EQ(psp_getMem_rc(4, PSP_GLOBAL_TAG, 5, "abc", &block, __FILE__, __LINE__), sOKAY);
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block, "abc");
    release(block, PSP_GLOBAL_TAG);
    EXPECT_EQ(psp_getMem_rc(0, PSP_GLOBAL_TAG, 1, nullptr, &block, __FILE__, __LINE__), eNOMEMORY);
    EXPECT_EQ(block, nullptr);
    ASSERT_EQ(psp_getMem_rc(0, PSP_GLOBAL_TAG, 13, "xy", &block, __FILE__, __LINE__), sOKAY);
    EXPECT_STREQ(block, "xy");
    release(block, PSP_GLOBAL_TAG);
}

TEST_F(GetMem, TakesNoSourcePosition)
{
    void* block = psp_getMem(10, PSP_GLOBAL_TAG, 1, nullptr, nullptr, 0);
    ASSERT_NE(block, nullptr);
    block = psp_extendMem(block, 20, PSP_GLOBAL_TAG, 1, 10, nullptr, nullptr, -1);
    ASSERT_NE(block, nullptr);
    psp_freeMem(block, PSP_GLOBAL_TAG, nullptr, 0);
}

// ---- Freeing ----

TEST_F(FreeMem, OfNullOrNoTagDoesNothing)
{
    release(nullptr, PSP_GLOBAL_TAG);
    release(nullptr, nullptr);
    int local = 0;
    release(&local, nullptr);
}

TEST_F(FreeMem, ReturnsWhatWasTaken)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        std::vector<void*> blocks;
        std::size_t sum = 0;
        for (std::size_t size = 16; size < 30000; size *= 2) {
            blocks.push_back(get(size, tag));
            sum += size;
        }
        EXPECT_EQ(info_of(tag).used.current, sum);
        for (void* block : blocks)
            release(block, tag);
        EXPECT_EQ(info_of(tag).used.current, 0u);
        EXPECT_EQ(info_of(tag).used.max, sum);
        destroy_tag(tag);
    }
}

TEST_F(FreeMem, OfTheLastBlockOfAListTagGivesAllMemoryBack)
{
    PSP_MEMTAG tag = make_tag(LIST_ALLOCATOR);
    const std::size_t before = memory_in_use();
    void* first = get(10, tag);
    void* second = get(3000, tag);
    EXPECT_EQ(memory_in_use(), before + 4096 + 32 + 8);
    release(first, tag);
    EXPECT_EQ(memory_in_use(), before + 4096 + 32 + 8);
    release(second, tag);
    EXPECT_EQ(memory_in_use(), before);
    destroy_tag(tag);
}

TEST_F(FreeTagMem, WithoutTheTagEmptiesItAndCallsNothing)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types)
        for (const std::int16_t flags : {0, 1}) {
            int id = 7;
            std::vector<int> order;
            destroyed = &order;
            const std::size_t before_tag = memory_in_use();
            PSP_MEMTAG tag = make_tag(type, flags, nullptr, note_destroyed, &id);
            const std::size_t before = memory_in_use();
            for (int round = 0; round < 3; round++) {
                for (const std::size_t size : {1u, 100u, 5000u, 50000u})
                    ASSERT_NE(get(size, tag), nullptr);
                empty_tag(tag);
                EXPECT_EQ(memory_in_use(), before) << "type " << type;
            }
            empty_tag(tag);
            EXPECT_TRUE(order.empty());
            destroy_tag(tag);
            EXPECT_EQ(order, std::vector<int>{7});
            EXPECT_LE(memory_in_use(), before);
            EXPECT_GE(memory_in_use(), before_tag);
        }
}

// What a destroy callback found when it was called.
TEST_F(FreeTagMem, LeavesTheTagsMutexToTheOtherThreads)
{
    for (const PSP_ALLOCATOR_TYPE type : all_types) {
        PSP_MEMTAG tag = make_tag(type, 1);
        empty_tag(tag);
        std::thread([&] { EXPECT_NE(get(100, tag), nullptr); }).join();
        psp_resetTag(nullptr, tag);
        std::thread([&] { EXPECT_NE(get(100, tag), nullptr); }).join();
        destroy_tag(tag);
    }
}

struct CallbackView {
    PSP_MEMTAG tag;
    const char* block;
    std::string contents;
    std::size_t used;
};

void look_around(void* ctx)
{
    auto* view = static_cast<CallbackView*>(ctx);
    view->contents = view->block;
    view->used = info_of(view->tag).used.current;
}

TEST_F(FreeTagMem, CallsTheDestroyCallbackBeforeAnythingIsFreed)
{
    for (const std::int16_t flags : {0, 1}) {
        CallbackView view{};
        view.tag = make_tag(BLOCK_ALLOCATOR, flags, nullptr, look_around, &view);
        view.block = static_cast<char*>(get(0, view.tag, 13, "still here"));
        destroy_tag(view.tag);
        EXPECT_EQ(view.contents, "still here");
        EXPECT_EQ(view.used, 11u);
    }
}

TEST_F(FreeTagMem, OfNoTagDoesNothing)
{
    psp_freeTagMem(nullptr, ZYN_TRUE, __FILE__, __LINE__);
    psp_freeTagMem(nullptr, ZYN_FALSE, __FILE__, __LINE__);
}

TEST_F(FreeTagMem, OfASpecialTagDoesNothing)
{
    void* mine = get(0, PSP_THREAD_TAG, 13, "mine");
    void* ours = get(0, PSP_GLOBAL_TAG, 13, "ours");
    for (const ZYN_BOOL_T whole : {ZYN_FALSE, ZYN_TRUE}) {
        psp_freeTagMem(PSP_THREAD_TAG, whole, __FILE__, __LINE__);
        psp_freeTagMem(PSP_GLOBAL_TAG, whole, __FILE__, __LINE__);
    }
    EXPECT_STREQ(static_cast<char*>(mine), "mine");
    EXPECT_STREQ(static_cast<char*>(ours), "ours");
    release(mine, PSP_THREAD_TAG);
    release(ours, PSP_GLOBAL_TAG);
}

TEST_F(FreeTagMem, KeepsTheStatisticsThatTheAllocatorKeeps)
{
    PSP_MEMTAG list = make_tag(LIST_ALLOCATOR);
    PSP_MEMTAG stack = make_tag(STACK_ALLOCATOR);
    get(100, list);
    get(100, stack);
    const PSP_TAG_MEM_INFO list_info = info_of(list);
    const PSP_TAG_MEM_INFO stack_info = info_of(stack);
    EXPECT_EQ(list_info.used.current, 112u);
    EXPECT_EQ(stack_info.used.current, 104u);
    empty_tag(list);
    empty_tag(stack);
    EXPECT_EQ(info_of(list), list_info);
    EXPECT_EQ(info_of(stack), stack_info);
    destroy_tag(list);
    destroy_tag(stack);
}

// ---- The special tags ----

TEST_F(SpecialTag, OfTheThreadIsItsOwn)
{
    void* mine = get(24, PSP_THREAD_TAG);
    void* other = nullptr;
    std::size_t others_use = 0;
    std::thread([&] {
        EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 0u);
        other = get(40, PSP_THREAD_TAG);
        others_use = info_of(PSP_THREAD_TAG).used.current;
    }).join();
    EXPECT_NE(mine, nullptr);
    EXPECT_NE(other, nullptr);
    EXPECT_EQ(others_use, 40u);
    EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 24u);
}

TEST_F(SpecialTag, OfTheThreadOutlivesTheThread)
{
    char* text = nullptr;
    const std::size_t before = memory_in_use();
    std::thread([&] { text = static_cast<char*>(get(0, PSP_THREAD_TAG, 13, "left")); }).join();
    EXPECT_STREQ(text, "left");
    EXPECT_GT(memory_in_use(), before);
}

TEST_F(SpecialTag, OfTheThreadIsABlockAllocatorWithoutJump)
{
    ASSERT_NE(get(17, PSP_THREAD_TAG), nullptr);
    const PSP_TAG_MEM_INFO info = info_of(PSP_THREAD_TAG);
    EXPECT_EQ(info.used.current, 17u);
    EXPECT_EQ(info.free.current, 32u) << "the second block of the first chunk of class 32";
    EXPECT_EQ(get(gib4 - 1, PSP_THREAD_TAG), nullptr);
}

TEST_F(SpecialTag, OfTheThreadStaysTheSameBetweenCalls)
{
    void* block = get(24, PSP_THREAD_TAG);
    release(block, PSP_THREAD_TAG);
    EXPECT_EQ(get(24, PSP_THREAD_TAG), block);
}

TEST_F(SpecialTag, OfTheThreadDoesNotSurviveStopAndStart)
{
    ASSERT_NE(get(24, PSP_THREAD_TAG), nullptr);
    psp_term();
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 0u);
    ASSERT_NE(get(40, PSP_THREAD_TAG), nullptr);
    EXPECT_EQ(info_of(PSP_THREAD_TAG).used.max, 40u);
}

TEST_F(SpecialTag, OfTheLibraryIsShared)
{
    const std::size_t before = info_of(PSP_GLOBAL_TAG).used.current;
    void* block = nullptr;
    std::thread([&] { block = get(0, PSP_GLOBAL_TAG, 13, "shared"); }).join();
    EXPECT_EQ(info_of(PSP_GLOBAL_TAG).used.current, before + 7);
    EXPECT_STREQ(static_cast<char*>(block), "shared");
    release(block, PSP_GLOBAL_TAG);
    EXPECT_EQ(info_of(PSP_GLOBAL_TAG).used.current, before);
}

TEST_F(SpecialTag, OfTheLibraryIsABlockAllocator)
{
    void* first = get(200, PSP_GLOBAL_TAG);
    release(first, PSP_GLOBAL_TAG);
    EXPECT_EQ(get(255, PSP_GLOBAL_TAG), first) << "one class";
    release(first, PSP_GLOBAL_TAG);
}

} // namespace
