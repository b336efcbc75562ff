// The legacy allocator: every block straight from the C library's heap.
//
// A header in front of each block links all blocks of the tag, newest first, so that emptying the
// tag can free them; everything else takes constant time. Neither the memory limit nor the
// statistics know these blocks.
//
// A block freed twice is told by its header: the links of a block in use lead to blocks that lead
// back. Freeing clears them, and the heap may then write its own notes over them; neither passes
// for a link. The check reads memory that was freed, so it can only help as long as that memory is
// still there. Nothing here locks or jumps.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "psp_mem_data_int.h"

namespace {

LEGACY_ALLOCATOR_ENTRY* entry_of(void* alctr)
{
    return static_cast<LEGACY_ALLOCATOR_ENTRY*>(alctr);
}

LEGACY_HDR* header_of(const void* ptr)
{
    return static_cast<LEGACY_HDR*>(const_cast<void*>(ptr)) - 1;
}

// Makes the neighbours of a header, or the list's head, point at `place` instead.
void repoint(LEGACY_ALLOCATOR_ENTRY* alctr, const LEGACY_HDR& links, LEGACY_HDR* place)
{
    (links.prev ? links.prev->next : alctr->a_first) = place;
    if (links.next)
        links.next->prev = place;
}

void unlink(LEGACY_ALLOCATOR_ENTRY* alctr, const LEGACY_HDR* hdr)
{
    (hdr->prev ? hdr->prev->next : alctr->a_first) = hdr->next;
    if (hdr->next)
        hdr->next->prev = hdr->prev;
}

// Whether the heap could have returned this address: aligned, and of a process. Tells links from
// the notes of the heap, which are scrambled, without following them.
bool plausible(const LEGACY_HDR* link)
{
    const auto address = reinterpret_cast<uintptr_t>(link);
    return address % alignof(max_align_t) == 0 && address >> 47 == 0;
}

bool in_use(const LEGACY_ALLOCATOR_ENTRY* alctr, const LEGACY_HDR* hdr)
{
    if (!plausible(hdr->prev) || !plausible(hdr->next))
        return false;
    if ((hdr->prev ? hdr->prev->next : alctr->a_first) != hdr)
        return false;
    return !hdr->next || hdr->next->prev == hdr;
}

// Written through volatile: to the compiler these stores are dead, the memory being freed next.
void clear_links(LEGACY_HDR* hdr)
{
    volatile LEGACY_HDR* const links = hdr;
    links->prev = nullptr;
    links->next = nullptr;
}

} // namespace

void* legacy_allocator_create(ALLOCATOR_FCNS* fcns)
{
    *fcns = {
        .destroy_fcn = legacy_allocator_destroy,
        .alloc_fcn = legacy_allocator_alloc,
        .realloc_fcn = legacy_allocator_realloc,
        .free_fcn = legacy_allocator_free,
        .free_all_fcn = legacy_allocator_free_all,
        .get_size_fcn = nullptr,
        .mem_info_fcn = legacy_allocator_mem_info,
    };
    auto* const alctr =
        static_cast<LEGACY_ALLOCATOR_ENTRY*>(malloc(sizeof(LEGACY_ALLOCATOR_ENTRY)));
    if (alctr)
        alctr->a_first = nullptr;
    return alctr;
}

void legacy_allocator_destroy(void* alctr)
{
    free(alctr);
}

void* legacy_allocator_alloc(size_t size, void* alctr)
{
    auto* const hdr = static_cast<LEGACY_HDR*>(malloc(size + sizeof(LEGACY_HDR)));
    if (!hdr)
        return nullptr;
    LEGACY_HDR*& first = entry_of(alctr)->a_first;
    *hdr = {nullptr, first};
    if (first)
        first->prev = hdr;
    first = hdr;
    return hdr + 1;
}

void* legacy_allocator_realloc(const void* ptr, size_t newsize, void* alctr, int32_t)
{
    auto* const hdr =
        static_cast<LEGACY_HDR*>(realloc(header_of(ptr), newsize + sizeof(LEGACY_HDR)));
    if (!hdr)
        return nullptr;
    repoint(entry_of(alctr), *hdr, hdr);
    return hdr + 1;
}

void legacy_allocator_free(const void* ptr, void* alctr)
{
    LEGACY_HDR* const hdr = header_of(ptr);
    if (!in_use(entry_of(alctr), hdr)) {
        puts("Attempting to free previously freed memory");
        return;
    }
    unlink(entry_of(alctr), hdr);
    clear_links(hdr);
    free(hdr);
}

void legacy_allocator_free_all(void* alctr)
{
    LEGACY_HDR*& first = entry_of(alctr)->a_first;
    while (LEGACY_HDR* const hdr = first) {
        first = hdr->next;
        free(hdr);
    }
}

void legacy_allocator_mem_info(const void*, PSP_TAG_MEM_INFO* mem_info)
{
    *mem_info = {};
}
