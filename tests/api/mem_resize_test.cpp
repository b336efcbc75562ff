// Blocks that are resized or moved to another tag, and the jump when memory runs out.
#include "support/mem_test.h"

#include <algorithm>
#include <csetjmp>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

using namespace psptest;

namespace {

class ExtendMem : public PspTest {};
class MoveMem : public PspTest {};
class JumpBuffer : public PspTest {};

// ---- Resizing ----

TEST_F(ExtendMem, OfNullIsAnAllocation)
{
    EXPECT_EQ(extend(nullptr, 0, PSP_GLOBAL_TAG), nullptr);
    EXPECT_EQ(extend(nullptr, 10, nullptr), nullptr);
    EXPECT_EQ(extend(nullptr, 10, PSP_GLOBAL_TAG, 5), nullptr);
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    EXPECT_TRUE(holds(extend(nullptr, 40, tag, 3, 4), 40, 0)) << "incsize plays no part";
    EXPECT_EQ(std::memcmp(extend(nullptr, 4, tag, 5, 2, "wxyz"), "wxyz", 4), 0);
    EXPECT_STREQ(static_cast<char*>(extend(nullptr, 0, tag, 13, 0, "str")), "str");
    EXPECT_NE(extend(nullptr, 0, tag, 9), nullptr);
    EXPECT_EQ(info_of(tag).used.current, 40u + 4 + 4);
    destroy_tag(tag);
}

TEST_F(ExtendMem, KeepsTheContentsUpToTheSmallerSize)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        for (const std::size_t from : {1u, 16u, 30u, 500u, 8192u, 9000u, 100000u})
            for (const std::size_t to : {1u, 17u, 32u, 600u, 8192u, 8193u, 200000u}) {
                auto* block = static_cast<unsigned char*>(get(from, tag));
                for (std::size_t i = 0; i < from; i++)
                    block[i] = static_cast<unsigned char>(i * 13 + from);
                block = static_cast<unsigned char*>(extend(block, to, tag));
                ASSERT_NE(block, nullptr);
                bool same = true;
                for (std::size_t i = 0; i < std::min(from, to); i++)
                    same = same && block[i] == static_cast<unsigned char>(i * 13 + from);
                EXPECT_TRUE(same) << from << " to " << to << " type " << type;
                std::memset(block, 1, to);
                get(24, tag); // so that the next block has a neighbour
                release(block, tag);
            }
        destroy_tag(tag);
    }
}

TEST_F(ExtendMem, WithModeTwoZeroFillsOnlyTheLastBytes)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR})
        for (const int mode : {2, 3, 6, 7}) {
            PSP_MEMTAG tag = make_tag(type);
            void* block = get(20, tag);
            std::memset(block, 'a', 20);
            block = extend(block, 50, tag, mode, 30, "0123456789012345678901234567890");
            ASSERT_NE(block, nullptr);
            EXPECT_TRUE(holds(static_cast<char*>(block) + 20, 30, 0));
            const bool kept = (mode & 4) == 0; // with bit 4 the old contents need not survive
            EXPECT_TRUE(!kept || holds(block, 20, 'a'));
            destroy_tag(tag);
        }
}

TEST_F(ExtendMem, WithModeTwoAndNoIncreaseFillsNothing)
{
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    void* block = get(20, tag);
    std::memset(block, 'a', 20);
    block = extend(block, 30, tag, 3, 0);
    EXPECT_TRUE(holds(block, 20, 'a'));
    destroy_tag(tag);
}

TEST_F(ExtendMem, WithModeTwoFillsByIncreaseAndNotByGrowth)
{
    // The caller states the increase; the library does not work it out.
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    void* block = get(32, tag);
    std::memset(block, 'a', 32);
    block = extend(block, 32, tag, 3, 5);
    EXPECT_TRUE(holds(block, 27, 'a'));
    EXPECT_TRUE(holds(static_cast<char*>(block) + 27, 5, 0));
    block = extend(block, 32, tag, 3, 32);
    EXPECT_TRUE(holds(block, 32, 0));
    destroy_tag(tag);
}

TEST_F(ExtendMem, WithModeFourCopiesToTheLastBytes)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        auto* block = static_cast<char*>(get(10, tag));
        std::memset(block, 'a', 10);
        block = static_cast<char*>(extend(block, 14, tag, 5, 4, "WXYZ"));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::memcmp(block + 10, "WXYZ", 4), 0);
        destroy_tag(tag);
    }
}

TEST_F(ExtendMem, WithModeFourInPlaceLeavesTheBytesBefore)
{
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    auto* block = static_cast<char*>(get(20, tag));
    std::memset(block, 'a', 20);
    void* same = extend(block, 30, tag, 4, 10, "0123456789");
    EXPECT_EQ(same, block) << "20 and 30 bytes share a class";
    EXPECT_EQ(std::string(block, 30), std::string(20, 'a') + "0123456789");
    destroy_tag(tag);
}

TEST_F(ExtendMem, WithModeFourAndNoIncreaseCopiesTheWholeBlock)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR})
        for (const std::size_t size : {5u, 30u, 1000u}) {
            const std::string data(size, 'N');
            PSP_MEMTAG tag = make_tag(type);
            void* block = get(20, tag);
            std::memset(block, 'a', 20);
            block = extend(block, size, tag, 5, 0, data.data());
            EXPECT_TRUE(holds(block, size, 'N'));
            destroy_tag(tag);
        }
}

TEST_F(ExtendMem, WithModeThirteenTakesTheSizeOfTheString)
{
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    void* block = get(100, tag);
    block = extend(block, 3, tag, 13, 0, "a longer string");
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(static_cast<char*>(block), "a longer string");
    EXPECT_EQ(info_of(tag).used.current, 16u);
    block = extend(block, 0, tag, 13, 0, "");
    EXPECT_STREQ(static_cast<char*>(block), "");
    EXPECT_EQ(info_of(tag).used.current, 1u);
    destroy_tag(tag);
}

TEST_F(ExtendMem, RefusesBadArgumentsAndKeepsTheBlock)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        void* block = get(20, tag);
        std::memset(block, 'k', 20);
        const PSP_TAG_MEM_INFO before = info_of(tag);
        EXPECT_EQ(extend(block, 0, tag), nullptr);
        EXPECT_EQ(extend(block, 0, tag, 3), nullptr);
        EXPECT_EQ(extend(block, 30, tag, 4), nullptr);
        EXPECT_EQ(extend(block, 30, tag, 13), nullptr);
        EXPECT_EQ(extend(block, SIZE_MAX, tag), nullptr);
        EXPECT_EQ(extend(block, SIZE_MAX - 1, tag), nullptr);
        EXPECT_EQ(extend(block, 30, nullptr), nullptr);
        EXPECT_EQ(info_of(tag), before);
        EXPECT_TRUE(holds(block, 20, 'k'));
        release(block, tag);
        destroy_tag(tag);
    }
}

TEST_F(ExtendMem, OfSizesFrom4GiBFailsAndKeepsTheBlock)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR, LEGACY_ALLOCATOR})
        for (const std::size_t old : {20u, 9000u}) {
            PSP_MEMTAG tag = make_tag(type);
            void* block = get(old, tag);
            std::memset(block, 'k', old);
            for (const std::size_t size : impossible_sizes) {
                if (type == LEGACY_ALLOCATOR && size < gib4)
                    continue; // the heap may have that much
                EXPECT_EQ(extend(block, size, tag), nullptr) << size << " type " << type;
            }
            const std::size_t headers = type == LEGACY_ALLOCATOR ? 0 : 63;
            for (std::size_t below = 1; below <= headers; below++)
                EXPECT_EQ(extend(block, gib4 - below, tag), nullptr) << below;
            EXPECT_TRUE(holds(block, old, 'k'));
            release(block, tag);
            destroy_tag(tag);
        }
}

TEST_F(ExtendMem, ToSizeZeroNeedsModeBit8Or16)
{
    for (const PSP_ALLOCATOR_TYPE type : {BLOCK_ALLOCATOR, LIST_ALLOCATOR}) {
        PSP_MEMTAG tag = make_tag(type);
        void* block = get(100, tag);
        EXPECT_EQ(extend(block, 0, tag, 1), nullptr);
        block = extend(block, 0, tag, 9);
        ASSERT_NE(block, nullptr);
        block = extend(block, 0, tag, 16);
        ASSERT_NE(block, nullptr);
        release(block, tag);
        destroy_tag(tag);
    }
}

TEST_F(ExtendMem, ReturnCodeTwinStoresThePointer)
{
    char* block = static_cast<char*>(get(4, PSP_GLOBAL_TAG, 5, "abc"));
    char* grown = nullptr;
    ASSERT_EQ(psp_extendMem_rc(block, 100, PSP_GLOBAL_TAG, 1, 96, nullptr, &grown, "", 0), sOKAY);
    EXPECT_STREQ(grown, "abc");
    char* refused = grown;
    EXPECT_EQ(psp_extendMem_rc(grown, 0, PSP_GLOBAL_TAG, 1, 0, nullptr, &refused, "", 0),
              eNOMEMORY);
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(psp_extendMem_rc(grown, 9, nullptr, 1, 0, nullptr, &refused, "", 0), eNOMEMORY);
    release(grown, PSP_GLOBAL_TAG);
}

TEST_F(ExtendMem, ReturnCodeTwinNeedsAPlaceForThePointer)
{
    char* block = static_cast<char*>(get(4, PSP_GLOBAL_TAG, 5, "abc"));
    EXPECT_EQ(psp_extendMem_rc(block, 9, PSP_GLOBAL_TAG, 1, 5, nullptr, nullptr, "", 0),
              eINVNULLARG);
    EXPECT_STREQ(block, "abc");
    release(block, PSP_GLOBAL_TAG);
}

TEST_F(ExtendMem, FailsOnAStackTag)
{
    PSP_MEMTAG tag = make_tag(STACK_ALLOCATOR);
    void* block = get(20, tag, 3);
    EXPECT_EQ(extend(block, 10, tag), nullptr);
    EXPECT_EQ(extend(block, 20, tag), nullptr);
    EXPECT_EQ(extend(block, 40, tag), nullptr);
    EXPECT_NE(extend(nullptr, 40, tag), nullptr) << "an allocation is none";
    EXPECT_TRUE(holds(block, 20, 0));
    destroy_tag(tag);
}

// ---- Moving ----

TEST_F(MoveMem, CopiesToTheOtherTagAndFreesTheOldBlock)
{
    for (const PSP_ALLOCATOR_TYPE to : all_types) {
        PSP_MEMTAG source = make_tag(BLOCK_ALLOCATOR);
        PSP_MEMTAG target = make_tag(to);
        void* block = get(6, source, 5, "hello");
        void* moved = move(block, 6, target, source);
        ASSERT_NE(moved, nullptr);
        EXPECT_NE(moved, block);
        EXPECT_STREQ(static_cast<char*>(moved), "hello");
        EXPECT_EQ(info_of(source).used.current, 0u);
        EXPECT_EQ(get(6, source), block) << "a freed small block is the next one handed out";
        destroy_tag(source);
        EXPECT_STREQ(static_cast<char*>(moved), "hello");
        destroy_tag(target);
    }
}

TEST_F(MoveMem, BetweenEqualHandlesIsTheSamePointer)
{
    PSP_MEMTAG tag = make_tag();
    void* block = get(10, tag);
    EXPECT_EQ(move(block, 10, tag, tag), block);
    EXPECT_EQ(move(block, 0, tag, tag), block) << "the handles are compared first";
    EXPECT_EQ(move(block, 10, nullptr, nullptr), block);
    EXPECT_EQ(move(block, 10, PSP_THREAD_TAG, PSP_THREAD_TAG), block);
    EXPECT_EQ(info_of(tag).used.current, 10u);
    destroy_tag(tag);
}

TEST_F(MoveMem, OfNullIsNull)
{
    PSP_MEMTAG tag = make_tag();
    EXPECT_EQ(move(nullptr, 10, tag, PSP_GLOBAL_TAG), nullptr);
    EXPECT_EQ(move(nullptr, 10, tag, tag), nullptr);
    destroy_tag(tag);
}

TEST_F(MoveMem, OfSizeZeroLeavesTheBlock)
{
    PSP_MEMTAG tag = make_tag();
    void* block = get(10, tag);
    const PSP_TAG_MEM_INFO before = info_of(tag);
    EXPECT_EQ(move(block, 0, PSP_GLOBAL_TAG, tag), nullptr);
    EXPECT_EQ(info_of(tag), before);
    destroy_tag(tag);
}

TEST_F(MoveMem, FromOrToNoTagFails)
{
    PSP_MEMTAG tag = make_tag();
    void* block = get(10, tag);
    EXPECT_EQ(move(block, 10, nullptr, tag), nullptr);
    EXPECT_EQ(move(block, 10, tag, nullptr), nullptr);
    EXPECT_EQ(info_of(tag).used.current, 10u);
    destroy_tag(tag);
}

TEST_F(MoveMem, ToATagWithAJumpBufferNeverJumps)
{
    PSP_MEMTAG source = make_tag();
    jmp_buf buffer;
    PSP_MEMTAG volatile target = make_tag(LIST_ALLOCATOR, 0, &buffer);
    if (setjmp(buffer) == 0) {
        void* block = get(10, source);
        EXPECT_EQ(move(block, gib4 - 1, target, source), nullptr);
        EXPECT_EQ(move(block, gib4 + 5, target, source), nullptr);
        EXPECT_EQ(info_of(source).used.current, 10u);
    } else {
        ADD_FAILURE() << "it jumped";
    }
    destroy_tag(source);
    destroy_tag(target);
}

TEST_F(MoveMem, WorksBetweenTheSpecialTags)
{
    void* block = get(4, PSP_THREAD_TAG, 13, "abc");
    void* moved = move(block, 4, PSP_GLOBAL_TAG, PSP_THREAD_TAG);
    ASSERT_NE(moved, nullptr);
    EXPECT_STREQ(static_cast<char*>(moved), "abc");
    EXPECT_EQ(info_of(PSP_THREAD_TAG).used.current, 0u);
    release(moved, PSP_GLOBAL_TAG);
}

// ---- Jump buffers ----

TEST_F(JumpBuffer, IsTakenWithOneWhenAllocationFails)
{
    for (const PSP_ALLOCATOR_TYPE type : chunk_types)
        for (const std::int16_t flags : {0, 1}) {
            jmp_buf buffer;
            PSP_MEMTAG tag = make_tag(type, flags, &buffer);
            EXPECT_EQ(jumped_with(buffer, [&] { get(gib4 - 1, tag); }), 1);
            EXPECT_EQ(jumped_with(buffer, [&] { get(gib4 + 7, tag, 3); }), 1);
            EXPECT_EQ(jumped_with(buffer, [&] { extend(nullptr, gib4 - 1, tag); }), 1);
            void* block = get(100, tag);
            EXPECT_EQ(jumped_with(buffer, [&] { extend(block, gib4 - 1, tag); }), 1);
            void* result = nullptr;
            EXPECT_EQ(
                jumped_with(buffer,
                            [&] { psp_getMem_rc(gib4 - 1, tag, 1, nullptr, &result, "", 0); }),
                1);
            EXPECT_NE(get(100, tag), nullptr) << "the tag stays usable";
            // The mutex is free again: another thread gets through.
            if (flags == 1)
                std::thread([&] { EXPECT_NE(get(100, tag), nullptr); }).join();
            destroy_tag(tag);
        }
}

TEST_F(JumpBuffer, IsTakenWhenAStackBlockIsResized)
{
    jmp_buf buffer;
    PSP_MEMTAG tag = make_tag(STACK_ALLOCATOR, 0, &buffer);
    void* block = get(10, tag);
    EXPECT_EQ(jumped_with(buffer, [&] { extend(block, 5, tag); }), 1);
    destroy_tag(tag);
}

TEST_F(JumpBuffer, IsNotTakenForBadArguments)
{
    jmp_buf buffer;
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR, 0, &buffer);
    void* block = get(10, tag);
    EXPECT_EQ(jumped_with(buffer,
                          [&] {
                              EXPECT_EQ(get(0, tag), nullptr);
                              EXPECT_EQ(get(10, tag, 4), nullptr);
                              EXPECT_EQ(get(10, tag, 13), nullptr);
                              EXPECT_EQ(get(SIZE_MAX, tag), nullptr);
                              EXPECT_EQ(get(SIZE_MAX - 1, tag), nullptr);
                              EXPECT_EQ(extend(block, 0, tag), nullptr);
                              EXPECT_EQ(extend(block, 10, tag, 4), nullptr);
                              EXPECT_EQ(extend(block, SIZE_MAX, tag), nullptr);
                          }),
              0);
    destroy_tag(tag);
}

TEST_F(JumpBuffer, CanBeReplacedAndSwitchedOff)
{
    jmp_buf first;
    jmp_buf second;
    PSP_MEMTAG tag = make_tag(LIST_ALLOCATOR, 1, &first);
    psp_resetTag(&second, tag);
    if (setjmp(first) == 0)
        EXPECT_EQ(jumped_with(second, [&] { get(gib4 - 1, tag); }), 1);
    else
        ADD_FAILURE() << "the replaced buffer was taken";
    psp_resetTag(nullptr, tag);
    EXPECT_EQ(jumped_with(second, [&] { EXPECT_EQ(get(gib4 - 1, tag), nullptr); }), 0);
    psp_resetTag(&first, tag);
    EXPECT_EQ(jumped_with(first, [&] { get(gib4 - 1, tag); }), 1);
    destroy_tag(tag);
}

TEST_F(JumpBuffer, CanBeGivenToTheSpecialTags)
{
    for (PSP_MEMTAG tag : {PSP_THREAD_TAG, PSP_GLOBAL_TAG}) {
        jmp_buf buffer;
        psp_resetTag(&buffer, tag);
        EXPECT_EQ(jumped_with(buffer, [&] { get(gib4 - 1, tag); }), 1);
        psp_resetTag(nullptr, tag);
        EXPECT_EQ(get(gib4 - 1, tag), nullptr);
    }
    psp_resetTag(nullptr, nullptr);
}

} // namespace
