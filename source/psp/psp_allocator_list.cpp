// The list allocator: best fit over blocks of any size, carved from large chunks.
//
// A chunk is a header and a row of blocks without gaps, each with its own header. Free blocks hang
// on their chunk's list in no order. Allocation looks at all free blocks and takes the smallest
// that fits, cutting from its end so that the rest keeps its place in the list; freeing looks at
// the free blocks of one chunk to join the block with its neighbours, and gives the chunk back as
// soon as it is one free block. Both are linear in the free blocks looked at.
//
// Invariants: no two free blocks of a chunk are neighbours; a chunk exists only while one of its
// blocks is in use. Nothing here locks, jumps or touches payload, except to copy a block that
// moves.

#include <algorithm>
#include <cstring>

#include "psp_mem_data_int.h"
#include "psp_track.h"
#include "pspint.h"

namespace {

constexpr size_t UNIT = 16;          // payload sizes are multiples of this
constexpr uint32_t TAG_CHUNK = 4096; // smallest chunk payload of a tag

// Larger payloads would not fit a chunk whose size is 32-bit.
constexpr size_t LARGEST_CHUNK = UINT32_MAX & ~(UNIT - 1);
constexpr size_t LARGEST_REQUEST = LARGEST_CHUNK - sizeof(LIST_HDR);

// The free blocks next to a block by address, with the upper one's predecessor in the free list.
struct NEIGHBORS {
    LIST_HDR* upper;
    LIST_HDR* upper_prev;
    LIST_HDR* lower;
};

LIST_HDR* header_of(const void* ptr)
{
    return static_cast<LIST_HDR*>(const_cast<void*>(ptr)) - 1;
}

LIST_HDR* first_block(LIST_CHUNK_HDR* chunk)
{
    return reinterpret_cast<LIST_HDR*>(chunk + 1);
}

// The header that would follow `size` bytes of a block's payload.
LIST_HDR* header_after(LIST_HDR* block, size_t size)
{
    return reinterpret_cast<LIST_HDR*>(reinterpret_cast<std::byte*>(block + 1) + size);
}

LIST_HDR* next_block(LIST_HDR* block)
{
    return header_after(block, block->size);
}

void push_free(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    block->ptr.next = chunk->free_hdrs;
    chunk->free_hdrs = block;
}

void unlink_free(LIST_CHUNK_HDR* chunk, LIST_HDR* block, LIST_HDR* prev)
{
    (prev ? prev->ptr.next : chunk->free_hdrs) = block->ptr.next;
}

// Adds the block right behind to `block`; its header becomes payload.
void absorb(LIST_HDR* block, const LIST_HDR* behind)
{
    block->size += static_cast<uint32_t>(sizeof(LIST_HDR)) + behind->size;
    psp_track_close(behind, sizeof(LIST_HDR));
}

// ---- Allocation ----

// Improves `best` by the blocks of one chunk. True when a block fits exactly: no better one exists.
bool best_fit_chunk(LIST_CHUNK_HDR* chunk, size_t size, BEST_FIT& best)
{
    LIST_HDR* q = nullptr;
    for (LIST_HDR* p = chunk->free_hdrs; p; q = p, p = p->ptr.next) {
        if (p->size < size || (best.p && p->size >= best.p->size))
            continue;
        best = {chunk, p, q};
        if (p->size == size)
            return true;
    }
    return false;
}

BEST_FIT best_fit(const LIST_ALLOCATOR_ENTRY* alctr, size_t size)
{
    BEST_FIT best = {};
    for (LIST_CHUNK_HDR* chunk = alctr->chunks; chunk; chunk = chunk->next) {
        if (best_fit_chunk(chunk, size, best))
            break;
    }
    return best;
}

// A chunk with one free block of at least `size` bytes, at the head of the list; or NULL.
LIST_CHUNK_HDR* list_add_chunk(LIST_ALLOCATOR_ENTRY* alctr, size_t size)
{
    size_t whole =
        std::max<size_t>(alctr->blocksize, size + sizeof(LIST_HDR)) + sizeof(LIST_CHUNK_HDR);
    auto* const chunk =
        static_cast<LIST_CHUNK_HDR*>(alctr->alloc_fcn(&whole, &alctr->mem_info.free));
    if (!chunk)
        return nullptr;
    // A caller's buffer can have any size: what a chunk cannot use of it stays idle.
    const size_t inner = std::min((whole - sizeof(LIST_CHUNK_HDR)) & ~(UNIT - 1), LARGEST_CHUNK);
    *chunk = {static_cast<uint32_t>(inner), alctr->chunks, nullptr, nullptr};
    if (chunk->next)
        chunk->next->prev = chunk;
    alctr->chunks = chunk;

    LIST_HDR* const block = first_block(chunk);
    block->size = static_cast<uint32_t>(inner - sizeof(LIST_HDR));
    push_free(chunk, block);
    psp_track_close(block + 1, whole - sizeof(LIST_CHUNK_HDR) - sizeof(LIST_HDR));
    return chunk;
}

// Turns the block found, or its end if enough is left over for another block, into one in use.
LIST_HDR* use_entry(const BEST_FIT& fit, size_t size)
{
    LIST_HDR* block = fit.p;
    if (block->size > size + sizeof(LIST_HDR)) {
        block->size -= static_cast<uint32_t>(size + sizeof(LIST_HDR));
        block = next_block(block);
        psp_track_fresh(block, sizeof(LIST_HDR));
        block->size = static_cast<uint32_t>(size);
    } else {
        unlink_free(fit.chunk, block, fit.q);
    }
    block->ptr.chunk = fit.chunk;
    psp_track_fresh(block + 1, block->size);
    return block;
}

// ---- Freeing ----

NEIGHBORS find_next_neighbor(const LIST_CHUNK_HDR* chunk, const LIST_HDR* block)
{
    NEIGHBORS near = {};
    LIST_HDR* prev = nullptr;
    for (LIST_HDR* p = chunk->free_hdrs; p; prev = p, p = p->ptr.next) {
        if (p > block) {
            if (!near.upper || p < near.upper) {
                near.upper = p;
                near.upper_prev = prev;
            }
        } else if (!near.lower || p > near.lower) {
            near.lower = p;
        }
    }
    return near;
}

// Lets a block take in the free block above it, if that starts right behind.
void combine_with_next(LIST_CHUNK_HDR* chunk, LIST_HDR* block, const NEIGHBORS& near)
{
    if (!near.upper || next_block(block) != near.upper)
        return;
    unlink_free(chunk, near.upper, near.upper_prev);
    absorb(block, near.upper);
}

// Puts a block among the free ones. The result is the free block that it is now part of.
LIST_HDR* join_to_neighbors(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    const NEIGHBORS near = find_next_neighbor(chunk, block);
    combine_with_next(chunk, block, near);
    if (near.lower && next_block(near.lower) == block) {
        absorb(near.lower, block);
        return near.lower;
    }
    push_free(chunk, block);
    return block;
}

void unlink_chunk(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk)
{
    (chunk->prev ? chunk->prev->next : alctr->chunks) = chunk->next;
    if (chunk->next)
        chunk->next->prev = chunk->prev;
    psp_track_open(chunk, sizeof(LIST_CHUNK_HDR) + chunk->size);
}

void release_chunk(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk)
{
    unlink_chunk(alctr, chunk);
    alctr->free_fcn(chunk, &alctr->mem_info.free);
}

// ---- Resizing ----

// Cuts a block down to `size`, if what is left over makes another block. What follows is in use:
// the block took in a free neighbour just before.
void release_extra(LIST_CHUNK_HDR* chunk, LIST_HDR* block, size_t size)
{
    if (block->size <= size + sizeof(LIST_HDR))
        return;
    LIST_HDR* const extra = header_after(block, size);
    extra->size = static_cast<uint32_t>(block->size - size - sizeof(LIST_HDR));
    push_free(chunk, extra);
    psp_track_close(extra + 1, extra->size);
    block->size = static_cast<uint32_t>(size);
}

void* move_block(LIST_HDR* block, size_t size, LIST_ALLOCATOR_ENTRY* alctr, int32_t preserve)
{
    void* const moved = internal_alloc(size, alctr);
    if (!moved)
        return nullptr;
    if (preserve != 0)
        memcpy(moved, block + 1, block->size);
    internal_free(block + 1, alctr);
    return moved;
}

} // namespace

void* internal_alloc(size_t size, LIST_ALLOCATOR_ENTRY* alctr)
{
    if (size > LARGEST_REQUEST)
        return nullptr;
    size = round_up(size, UNIT);
    BEST_FIT fit = best_fit(alctr, size);
    if (!fit.p) {
        fit.chunk = list_add_chunk(alctr, size);
        if (!fit.chunk)
            return nullptr;
        fit.p = fit.chunk->free_hdrs;
    }
    LIST_HDR* const block = use_entry(fit, size);
    // The rounded request is counted, not the block: freeing one that was taken whole takes off
    // more than was added here.
    mem_info_add(alctr->mem_info.used, size);
    return block + 1;
}

void internal_free(const void* ptr, LIST_ALLOCATOR_ENTRY* alctr)
{
    LIST_HDR* const block = header_of(ptr);
    LIST_CHUNK_HDR* const chunk = block->ptr.chunk;
    mem_info_sub(alctr->mem_info.used, block->size);
    psp_track_close(block + 1, block->size);

    const LIST_HDR* const joined = join_to_neighbors(chunk, block);
    if (joined == first_block(chunk) && joined->size + sizeof(LIST_HDR) == chunk->size)
        release_chunk(alctr, chunk);
}

void* internal_realloc(const void* ptr, size_t newsize, LIST_ALLOCATOR_ENTRY* alctr,
                       int32_t preserve)
{
    if (newsize > LARGEST_REQUEST)
        return nullptr;
    const size_t size = round_up(newsize, UNIT);
    LIST_HDR* const block = header_of(ptr);
    LIST_CHUNK_HDR* const chunk = block->ptr.chunk;
    const uint32_t before = block->size;
    combine_with_next(chunk, block, find_next_neighbor(chunk, block));
    psp_track_fresh(header_after(block, before), block->size - before);
    if (size > block->size)
        return move_block(block, size, alctr, preserve);
    // Counted against the block as it is now, with what it took in: the difference wraps, and may
    // carry the counter below 0.
    mem_info_add(alctr->mem_info.used, size - block->size);
    release_extra(chunk, block, size);
    return block + 1;
}

// ---- The operations of a list tag ----

LIST_ALLOCATOR_ENTRY list_allocator_empty()
{
    return {
        .chunks = nullptr,
        .blocksize = TAG_CHUNK,
        .alloc_fcn = psp_allocLargeBlock,
        .free_fcn = psp_freeLargeBlock,
        .mem_info = {},
    };
}

void* list_allocator_create(ALLOCATOR_FCNS* fcns)
{
    *fcns = {
        .destroy_fcn = list_allocator_destroy,
        .alloc_fcn = list_allocator_alloc,
        .realloc_fcn = list_allocator_realloc,
        .free_fcn = list_allocator_free,
        .free_all_fcn = list_allocator_free_all,
        .get_size_fcn = list_allocator_get_size,
        .mem_info_fcn = list_allocator_mem_info,
    };
    auto* const alctr = static_cast<LIST_ALLOCATOR_ENTRY*>(
        psp_memTryGet(sizeof(LIST_ALLOCATOR_ENTRY), &static_list_tag, PSP_MEM_PLAIN, nullptr));
    if (alctr)
        *alctr = list_allocator_empty();
    return alctr;
}

void list_allocator_destroy(void* alctr)
{
    psp_freeMem(alctr, &static_list_tag, __FILE__, __LINE__);
}

void* list_allocator_alloc(size_t size, void* alctr)
{
    return internal_alloc(size, static_cast<LIST_ALLOCATOR_ENTRY*>(alctr));
}

void* list_allocator_realloc(const void* ptr, size_t newsize, void* alctr, int32_t preserve)
{
    return internal_realloc(ptr, newsize, static_cast<LIST_ALLOCATOR_ENTRY*>(alctr), preserve);
}

void list_allocator_free(const void* ptr, void* alctr)
{
    internal_free(ptr, static_cast<LIST_ALLOCATOR_ENTRY*>(alctr));
}

// The counters keep their values: they tell what the tag went through.
void list_allocator_free_all(void* alctr)
{
    auto* const list = static_cast<LIST_ALLOCATOR_ENTRY*>(alctr);
    free_large_blocks([list] {
        LIST_CHUNK_HDR* const chunk = list->chunks;
        if (chunk)
            unlink_chunk(list, chunk);
        return chunk;
    });
}

void list_allocator_get_size(size_t* size, const void* ptr)
{
    *size = header_of(ptr)->size;
}

void list_allocator_mem_info(const void* alctr, PSP_TAG_MEM_INFO* mem_info)
{
    *mem_info = mem_info_load(static_cast<const LIST_ALLOCATOR_ENTRY*>(alctr)->mem_info);
}
