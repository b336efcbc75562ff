// What tests that allocate share: the types and sizes to try, and short forms of the memory
// interface with the caller's position filled in.
#pragma once

#include "support/psp_test.h"

#include "psp/mem.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>

namespace psptest {

// The types of tags: all, and those that take their blocks out of chunks.
inline constexpr PSP_ALLOCATOR_TYPE all_types[] = {BLOCK_ALLOCATOR, LIST_ALLOCATOR, STACK_ALLOCATOR,
                                                   LEGACY_ALLOCATOR};
inline constexpr PSP_ALLOCATOR_TYPE chunk_types[] = {BLOCK_ALLOCATOR, LIST_ALLOCATOR,
                                                     STACK_ALLOCATOR};

// The sizes that no allocator can serve: block sizes are 32-bit numbers.
inline constexpr std::size_t gib4 = std::size_t{1} << 32;
inline constexpr std::size_t impossible_sizes[] = {gib4 - 1,   gib4,          gib4 + 1,
                                                   gib4 + 100, 3 * gib4 + 16, SIZE_MAX - 2};

inline void* get(std::size_t size, PSP_MEMTAG tag, std::int32_t mode = 1,
                 const void* data = nullptr)
{
    return psp_getMem(size, tag, mode, data, __FILE__, __LINE__);
}

inline void* extend(const void* ptr, std::size_t size, PSP_MEMTAG tag, std::int32_t mode = 1,
                    std::size_t incsize = 0, const void* data = nullptr)
{
    return psp_extendMem(ptr, size, tag, mode, incsize, data, __FILE__, __LINE__);
}

inline void* move(const void* ptr, std::size_t size, PSP_MEMTAG to, PSP_MEMTAG from)
{
    return psp_moveMem(ptr, size, to, from, __FILE__, __LINE__);
}

inline void release(const void* ptr, PSP_MEMTAG tag)
{
    psp_freeMem(ptr, tag, __FILE__, __LINE__);
}

inline PSP_MEMTAG make_tag(PSP_ALLOCATOR_TYPE type = BLOCK_ALLOCATOR, std::int16_t flags = 0,
                           jmp_buf* jb = nullptr, PSP_DESTROY_FCN destroy = nullptr,
                           void* ctx = nullptr)
{
    return psp_createTagEx(jb, flags, type, destroy, ctx, __FILE__, __LINE__);
}

// Asks for a tag of a type that no enumerator names, as a caller in C can.
inline ZYN_RETCODE make_tag_of_type(std::int32_t type, PSP_MEMTAG* tag)
{
    using Create = ZYN_RETCODE(jmp_buf*, std::int16_t, std::int32_t, PSP_DESTROY_FCN, void*,
                               PSP_MEMTAG*, const char*, std::int32_t);
    auto* const create = reinterpret_cast<Create*>(psp_createTagEx_rc);
    return create(nullptr, 0, type, nullptr, nullptr, tag, __FILE__, __LINE__);
}

inline void empty_tag(PSP_MEMTAG tag)
{
    psp_freeTagMem(tag, ZYN_FALSE, __FILE__, __LINE__);
}

inline void destroy_tag(PSP_MEMTAG tag)
{
    psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
}

inline PSP_TAG_MEM_INFO info_of(PSP_MEMTAG tag)
{
    PSP_TAG_MEM_INFO info{};
    EXPECT_EQ(psp_getTagMemInfo(tag, &info), sOKAY);
    return info;
}

// True when all `size` bytes from `ptr` on hold `value`: the first does, and each its neighbour's.
inline bool holds(const void* ptr, std::size_t size, int value)
{
    const auto* bytes = static_cast<const unsigned char*>(ptr);
    return size == 0 || (bytes[0] == static_cast<unsigned char>(value) &&
                         std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

// The distance from `from` to `to` in bytes.
inline std::ptrdiff_t distance(const void* from, const void* to)
{
    return static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(to) -
                                       reinterpret_cast<std::uintptr_t>(from));
}

inline std::uintptr_t address_of(const void* ptr)
{
    return reinterpret_cast<std::uintptr_t>(ptr);
}

// The value that setjmp gave when `attempt` failed by a jump to `buffer`; 0 when it returned.
// Nothing with a destructor may be alive in `attempt` where it jumps.
template <class Attempt>
int jumped_with(jmp_buf& buffer, Attempt attempt)
{
    const int value = setjmp(buffer);
    if (value == 0)
        attempt();
    return value;
}

} // namespace psptest

// Found by name look-up where statistics are compared or printed.
inline bool operator==(const PSP_MEM_INFO& a, const PSP_MEM_INFO& b)
{
    return a.current == b.current && a.max == b.max;
}

inline bool operator==(const PSP_TAG_MEM_INFO& a, const PSP_TAG_MEM_INFO& b)
{
    return a.used == b.used && a.free == b.free && a.overhead == b.overhead;
}

inline std::ostream& operator<<(std::ostream& out, const PSP_MEM_INFO& info)
{
    return out << info.current << " (max " << info.max << ")";
}

inline std::ostream& operator<<(std::ostream& out, const PSP_TAG_MEM_INFO& info)
{
    return out << "used " << info.used << ", free " << info.free << ", overhead " << info.overhead;
}
