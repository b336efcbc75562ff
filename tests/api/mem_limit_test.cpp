// The limit of the memory that the library takes, and the buffer that a caller may give it.
#include "support/mem_test.h"

#include <cstdint>
#include <cstring>
#include <vector>

using namespace psptest;

namespace {

class MemLimit : public RawTest {};

constexpr std::size_t smallest_limit = 4195328;

TEST_F(MemLimit, IsZeroOrAtLeast4MiBAnd1KiB)
{
    EXPECT_EQ(psp_memlimit, 0u);
    for (const std::size_t limit : {std::size_t{1}, std::size_t{4194304}, smallest_limit - 1}) {
        EXPECT_EQ(psp_setMemLimit(nullptr, limit), ePSP_FAILURE) << limit;
        EXPECT_EQ(psp_memlimit, 0u);
    }
    EXPECT_EQ(psp_setMemLimit(nullptr, smallest_limit), sOKAY);
    EXPECT_EQ(psp_memlimit, smallest_limit);
    EXPECT_EQ(psp_setMemLimit(nullptr, 5), ePSP_FAILURE);
    EXPECT_EQ(psp_memlimit, smallest_limit) << "a refused limit changes nothing";
    EXPECT_EQ(psp_setMemLimit(nullptr, SIZE_MAX), sOKAY);
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
    EXPECT_EQ(psp_memlimit, 0u);
}

TEST_F(MemLimit, TakesABufferOnlyBeforeStart)
{
    static char buffer[64];
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_EQ(psp_setMemLimit(buffer, smallest_limit), ePSP_FAILURE);
    EXPECT_EQ(psp_setMemLimit(buffer, 0), ePSP_FAILURE);
    EXPECT_EQ(psp_membuffer, nullptr);
    EXPECT_EQ(psp_memlimit, 0u);
    EXPECT_EQ(psp_setMemLimit(nullptr, smallest_limit - 1), ePSP_FAILURE);
    EXPECT_EQ(psp_setMemLimit(nullptr, smallest_limit), sOKAY) << "without a buffer it may change";
    EXPECT_EQ(psp_memlimit, smallest_limit);
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
    psp_term();
}

TEST_F(MemLimit, BufferCanBeReplacedBeforeStart)
{
    static char first[16];
    static char second[16];
    EXPECT_EQ(psp_setMemLimit(first, smallest_limit - 1), ePSP_FAILURE);
    EXPECT_EQ(psp_membuffer, nullptr);
    EXPECT_EQ(psp_setMemLimit(first, smallest_limit), sOKAY);
    EXPECT_EQ(psp_membuffer, first);
    EXPECT_EQ(psp_setMemLimit(second, smallest_limit + 1), sOKAY);
    EXPECT_EQ(psp_membuffer, second);
    EXPECT_EQ(psp_memlimit, smallest_limit + 1);
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
    EXPECT_EQ(psp_membuffer, nullptr);
}

TEST_F(MemLimit, OfOneChunkGrantsTheFirstAndRefusesTheSecond)
{
    ASSERT_EQ(psp_setMemLimit(nullptr, smallest_limit), sOKAY);
    ASSERT_EQ(psp_init(), sOKAY);
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    EXPECT_NE(get(1000000, tag), nullptr);
    EXPECT_EQ(get(3900000, tag), nullptr) << "it would need a second chunk";
    EXPECT_NE(get(1000000, tag), nullptr);
    // The limit can be lifted while the library runs.
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
    EXPECT_NE(get(3900000, tag), nullptr);
    psp_term();
}

TEST_F(MemLimit, CountsWhatIsInUseNotWhatIsHeld)
{
    // A second chunk of 4 MiB and 32 bytes is granted as soon as it fits above the bytes in use.
    ASSERT_EQ(psp_init(), sOKAY);
    PSP_MEMTAG tag = make_tag(BLOCK_ALLOCATOR);
    ASSERT_NE(get(3000000, tag), nullptr);
    const std::size_t in_use = memory_in_use();
    constexpr std::size_t chunk = 4194304 + 32;
    ASSERT_EQ(psp_setMemLimit(nullptr, chunk + in_use - 1), sOKAY);
    EXPECT_EQ(get(2000000, tag), nullptr);
    ASSERT_EQ(psp_setMemLimit(nullptr, chunk + in_use), sOKAY);
    EXPECT_NE(get(2000000, tag), nullptr);
    psp_term();
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
}

TEST_F(MemLimit, DoesNotBindLegacyTags)
{
    ASSERT_EQ(psp_setMemLimit(nullptr, smallest_limit), sOKAY);
    ASSERT_EQ(psp_init(), sOKAY);
    PSP_MEMTAG tag = make_tag(LEGACY_ALLOCATOR);
    EXPECT_NE(get(6000000, tag), nullptr);
    EXPECT_NE(get(6000000, tag), nullptr);
    psp_term();
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
}

TEST_F(MemLimit, BufferHoldsAllMemory)
{
    constexpr std::size_t size = smallest_limit + 1000000;
    std::vector<char> buffer(size + 16);
    char* start = buffer.data() + (16 - address_of(buffer.data()) % 16) % 16;
    ASSERT_EQ(psp_setMemLimit(start, size), sOKAY);
    ASSERT_EQ(psp_init(), sOKAY);
    for (const PSP_ALLOCATOR_TYPE type : chunk_types) {
        PSP_MEMTAG tag = make_tag(type);
        for (const std::size_t bytes : {1u, 100u, 5000u, 300000u}) {
            auto* block = static_cast<char*>(get(bytes, tag));
            ASSERT_NE(block, nullptr);
            EXPECT_GE(block, start);
            EXPECT_LE(block + bytes, start + size);
        }
    }
    PSP_MEMTAG tag = make_tag();
    EXPECT_EQ(get(size, tag), nullptr);
    EXPECT_EQ(get(4900000, tag), nullptr);
    EXPECT_NE(get(2000000, tag), nullptr);
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), ePSP_FAILURE) << "a buffer stays while in use";
    EXPECT_EQ(psp_setMemLimit(start, size), ePSP_FAILURE);
    EXPECT_EQ(psp_membuffer, start);
    psp_term();
    std::memset(start, 0xEE, size); // it is the caller's again
    // The same buffer serves the next start.
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_NE(get(4000000, PSP_GLOBAL_TAG), nullptr);
    psp_term();
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
}

TEST_F(MemLimit, OfZeroLeavesABufferOfUnknownSizeAlone)
{
    static char buffer[64];
    std::memset(buffer, 'b', sizeof buffer);
    ASSERT_EQ(psp_setMemLimit(buffer, 0), sOKAY);
    EXPECT_EQ(psp_init(), eNOMEMORY);
    EXPECT_TRUE(holds(buffer, sizeof buffer, 'b'));
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
    ASSERT_EQ(psp_init(), sOKAY);
    psp_term();
}

TEST_F(MemLimit, ExhaustedTellsTheTagFromItsAllocator)
{
    ASSERT_EQ(psp_setMemLimit(nullptr, smallest_limit), sOKAY);
    ASSERT_EQ(psp_init(), sOKAY);
    // Take every large block that is left, down to one too small for a chunk of the list of tags.
    PSP_MEMTAG filler = make_tag(LIST_ALLOCATOR);
    for (std::size_t size = 2097152; size >= 4096; size /= 2)
        while (get(size, filler) != nullptr)
            ;
    // Legacy tags take only the tag's own record from there; fill it up with them.
    PSP_MEMTAG tag = nullptr;
    PSP_MEMTAG last = nullptr;
    ZYN_RETCODE code = sOKAY;
    int made = 0;
    do {
        last = tag;
        code = psp_createTagEx_rc(nullptr, 0, LEGACY_ALLOCATOR, nullptr, nullptr, &tag, "", 0);
        made += code == sOKAY;
        ASSERT_LT(made, 1000);
    } while (code == sOKAY);
    EXPECT_EQ(code, eNOMEMORY) << "no memory for the tag";
    ASSERT_NE(last, nullptr);
    destroy_tag(last);
    // One tag's record fits again, but not that of a block allocator beside it.
    tag = nullptr;
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(psp_createTagEx_rc(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, &tag, "", 0),
                  ePSP_FAILURE);
        EXPECT_EQ(tag, nullptr);
    }
    EXPECT_NE(make_tag(LEGACY_ALLOCATOR), nullptr) << "the failures gave the tag's record back";
    psp_term();
    EXPECT_EQ(psp_setMemLimit(nullptr, 0), sOKAY);
}

} // namespace
