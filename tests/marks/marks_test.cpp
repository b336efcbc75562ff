// Bugs in the use of tags and pools, each planted with one access to memory: the address checker
// that this is built for must report it, and nothing that is rightly done.
#include "support/mem_test.h"

#include "psp/pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#ifdef PSP_VALGRIND
#include <valgrind/memcheck.h>
#else
#include <sanitizer/asan_interface.h>
#endif

using namespace psptest;

namespace {

// Reads a byte and lets what comes next depend on it.
void touch(const void* ptr)
{
    if (*static_cast<const volatile char*>(ptr) == 1)
        asm volatile("");
}

void* past(void* ptr, std::size_t bytes)
{
    return static_cast<char*>(ptr) + bytes;
}

#ifdef PSP_VALGRIND

template <class Access>
unsigned errors_of(Access access)
{
    const auto before = VALGRIND_COUNT_ERRORS;
    access();
    return VALGRIND_COUNT_ERRORS - before;
}

void expect_reported(const void* ptr)
{
    EXPECT_GT(errors_of([&] { touch(ptr); }), 0u);
}
void expect_reported_by_the_heap(const void* ptr)
{
    expect_reported(ptr);
}

bool is_closed(const void* ptr)
{
    return VALGRIND_CHECK_MEM_IS_ADDRESSABLE(ptr, 1) != 0;
}

// Neither closed nor undefined.
void expect_readable(const void* ptr, std::size_t size)
{
    EXPECT_EQ(VALGRIND_CHECK_MEM_IS_DEFINED(ptr, size), 0u);
}
void expect_writable(void* ptr, std::size_t size)
{
    EXPECT_EQ(VALGRIND_CHECK_MEM_IS_ADDRESSABLE(ptr, size), 0u);
}

#else

void expect_reported(const void* ptr)
{
    EXPECT_DEATH(touch(ptr), "AddressSanitizer: use-after-poison");
}
void expect_reported_by_the_heap(const void* ptr)
{
    EXPECT_DEATH(touch(ptr), "AddressSanitizer: heap-use-after-free");
}

bool is_closed(const void* ptr)
{
    return __asan_address_is_poisoned(ptr) != 0;
}

// A closed byte would end the test.
void expect_readable(const void* ptr, std::size_t size)
{
    for (std::size_t i = 0; i < size; i++)
        touch(static_cast<const char*>(ptr) + i);
}
void expect_writable(void* ptr, std::size_t size)
{
    std::memset(ptr, 0, size);
}

#endif

class Marks : public PspTest {
  protected:
    void SetUp() override
    {
        PspTest::SetUp();
        block_ = make_tag(BLOCK_ALLOCATOR);
        list_ = make_tag(LIST_ALLOCATOR);
        stack_ = make_tag(STACK_ALLOCATOR);
        legacy_ = make_tag(LEGACY_ALLOCATOR);
    }

    PSP_MEMTAG block_ = nullptr;
    PSP_MEMTAG list_ = nullptr;
    PSP_MEMTAG stack_ = nullptr;
    PSP_MEMTAG legacy_ = nullptr;
};

// ---- Use after the end ----

TEST_F(Marks, ReportAUseAfterFree)
{
    for (PSP_MEMTAG tag : {block_, list_, PSP_GLOBAL_TAG, PSP_THREAD_TAG})
        for (const std::size_t size : {1u, 100u, 20000u}) {
            void* keep = get(size, tag);
            void* freed = get(size, tag);
            release(freed, tag);
            expect_reported(freed);
            expect_reported(past(freed, size - 1));
            release(keep, tag);
        }
    void* freed = get(100, legacy_);
    release(freed, legacy_);
    expect_reported_by_the_heap(freed);
}

// Where the allocators keep their own notes in free blocks, too.
TEST_F(Marks, CloseEveryByteOfFreeBlocks)
{
    for (const std::size_t size : {16u, 32u, 208u}) {
        void* blocks[8];
        for (void*& block : blocks) {
            block = get(size, list_);
            get(16, list_);
        }
        for (void* block : blocks)
            release(block, list_);
        release(get(size, list_), list_);
        for (void* block : blocks)
            for (std::size_t i = 0; i < size; i++)
                EXPECT_TRUE(is_closed(past(block, i))) << i << " of " << size;
    }
}

TEST_F(Marks, ReportAUseAfterTheTagIsEmptied)
{
    for (PSP_MEMTAG tag : {block_, list_, stack_}) {
        void* small = get(100, tag);
        void* large = get(20000, tag);
        empty_tag(tag);
        expect_reported(small);
        expect_reported(past(large, 19999));
    }
    void* freed = get(100, legacy_);
    empty_tag(legacy_);
    expect_reported_by_the_heap(freed);
}

TEST_F(Marks, ReportAUseAfterTheTagIsDestroyed)
{
    for (PSP_MEMTAG tag : {block_, list_, stack_}) {
        void* small = get(100, tag);
        destroy_tag(tag);
        expect_reported(small);
        expect_reported(tag);
    }
    void* freed = get(100, legacy_);
    destroy_tag(legacy_);
    expect_reported_by_the_heap(freed);
}

TEST_F(Marks, ReportAUseOfTheOldPlaceOfABlockThatMoved)
{
    for (PSP_MEMTAG tag : {block_, list_}) {
        void* old = get(100, tag);
        get(100, tag);
        void* moved = extend(old, 5000, tag);
        ASSERT_NE(moved, old);
        expect_reported(old);
        expect_writable(moved, 5000);
        move(moved, 5000, stack_, tag);
        expect_reported(moved);
    }
}

// ---- Memory that nobody has been given ----

TEST_F(Marks, ReportAnOverrunIntoAFreeBlock)
{
    void* small = get(64, block_); // the second of two blocks of 64 bytes and a header each
    expect_reported(past(small, static_cast<std::size_t>(-8) - 64));
    void* listed = get(64, list_); // the end of a chunk that is free below it
    expect_reported(past(listed, static_cast<std::size_t>(-16) - 1));
    expect_reported(past(listed, static_cast<std::size_t>(-2000)));
    void* bump = get(5, stack_);
    expect_writable(bump, 5);
    expect_reported(past(bump, 8));
    expect_reported(past(bump, 4095));
}

TEST_F(Marks, ReportAnOverrunIntoAFreedNeighbour)
{
    for (PSP_MEMTAG tag : {block_, list_}) {
        void* blocks[3];
        for (void*& block : blocks)
            block = get(64, tag);
        void* low = std::min(blocks[0], blocks[1]);
        void* high = std::max(blocks[0], blocks[1]);
        release(high, tag);
        const std::size_t header = static_cast<std::size_t>(distance(low, high)) - 64;
        EXPECT_EQ(header, tag == block_ ? 8u : 16u);
        expect_reported(past(low, 64 + header));
        expect_writable(low, 64);
    }
}

TEST_F(Marks, ReportAUseOfWhatAResizedBlockGaveUp)
{
    void* block = get(1000, list_);
    get(16, list_);
    ASSERT_EQ(extend(block, 100, list_), block);
    expect_writable(block, 112);
    expect_reported(past(block, 112 + 16));
    expect_reported(past(block, 999));
    ASSERT_EQ(extend(block, 500, list_), block);
    expect_writable(block, 500);
}

// ---- Pools ----

TEST_F(Marks, ReportAUseOfAnIdleObject)
{
    for (PSP_MEMTAG tag : {block_, list_, stack_, legacy_, PSP_MEMTAG{nullptr}}) {
        PSP_POOL pool = nullptr;
        ASSERT_EQ(
            psp_poolCreateEx(tag, PSP_POOL_VAR_SIZE, nullptr, nullptr, nullptr, nullptr, &pool),
            sOKAY);
        void* object = psp_poolGetMem(pool, 80, 1, nullptr, __FILE__, __LINE__);
        std::memset(object, 7, 80);
        psp_poolPut(pool, object);
        expect_reported(object);
        expect_reported(past(object, 79));
        ASSERT_EQ(psp_poolGetMem(pool, 70, 1, nullptr, __FILE__, __LINE__), object);
        expect_readable(object, 80);
        EXPECT_TRUE(holds(object, 80, 7));
        psp_poolPut(pool, object);
        psp_poolDestroy(pool);
        if (tag == legacy_)
            expect_reported_by_the_heap(object);
        else if (tag != stack_) // where freeing does nothing
            expect_reported(object);
    }
}

// ---- The caller's buffer ----

class MarksInABuffer : public RawTest {};

TEST_F(MarksInABuffer, ReportWhatIsNotHandedOutAndLeaveTheBufferAsItWas)
{
    constexpr std::size_t odd = 13; // no chunk can use the last bytes
    std::vector<char> buffer(5000000 + odd, 'b');
    ASSERT_EQ(psp_setMemLimit(buffer.data(), buffer.size()), sOKAY);
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(psp_init(), sOKAY);
        void* block = get(100, make_tag(LIST_ALLOCATOR), 3);
        EXPECT_GE(block, buffer.data());
        EXPECT_LT(block, buffer.data() + buffer.size());
        expect_readable(block, 100);
        expect_reported(&buffer[1000]);
        expect_reported(&buffer[2000000]);
        expect_reported(&buffer[buffer.size() - 2]);
        psp_term();
        expect_readable(buffer.data(), buffer.size());
        std::memset(buffer.data(), 'b', buffer.size());
    }
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
}

// ---- Contents that nobody wrote ----

#ifdef PSP_VALGRIND

TEST_F(Marks, ReportAReadOfWhatWasNeverWritten)
{
    for (PSP_MEMTAG tag : {block_, list_, stack_, legacy_, PSP_GLOBAL_TAG}) {
        auto* block = static_cast<char*>(get(100, tag));
        expect_writable(block, 100);
        expect_reported(block);
        expect_reported(block + 99);
        block[50] = 'x';
        expect_readable(block + 50, 1);
        expect_reported(block + 51);
        if (tag == stack_)
            continue;
        std::memset(block, 'x', 100);
        release(block, tag);
        block = static_cast<char*>(get(100, tag));
        expect_reported(block); // whatever was there before
        std::memset(block, 'x', 100);
        block = static_cast<char*>(extend(block, 120, tag));
        expect_readable(block, 100);
        expect_reported(block + 119);
        block = static_cast<char*>(extend(block, 3000, tag));
        expect_readable(block, 100);
        expect_reported(block + 100);
        release(block, tag);
    }
}

TEST_F(Marks, ReportAReadOfAFreshObject)
{
    PSP_POOL pool = nullptr;
    ASSERT_EQ(
        psp_poolCreateEx(block_, PSP_POOL_VAR_SIZE, nullptr, nullptr, nullptr, nullptr, &pool),
        sOKAY);
    expect_reported(psp_poolGetMem(pool, 80, 1, nullptr, __FILE__, __LINE__));
    expect_readable(psp_poolGetMem(pool, 80, 3, nullptr, __FILE__, __LINE__), 80);
}

TEST_F(Marks, LetFilledMemoryBeRead)
{
    for (PSP_MEMTAG tag : {block_, list_, stack_, legacy_}) {
        expect_readable(get(100, tag, 3), 100);
        expect_readable(get(100, tag, 5, std::vector<char>(100).data()), 100);
        expect_readable(get(0, tag, 13, "text"), 5);
    }
}

#endif

} // namespace
