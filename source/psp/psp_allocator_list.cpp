// The list allocator: best fit over blocks of any size, carved from large chunks.
//
// A chunk is a header and a row of blocks without gaps, each with its own header (psp_list_row.h).
// Allocation takes the smallest free block that fits, which an index over all of them finds
// (psp_free_index.h), and cuts from its end, so that the rest keeps its turn; freeing joins the
// block with its neighbours, which its header leads to, and gives the chunk back as soon as it is
// one free block.
//
// Invariants: no two free blocks of a chunk are neighbours; a chunk exists only while one of its
// blocks is in use. Nothing here locks, jumps or touches payload in use, except to copy a block
// that moves.

#include <algorithm>
#include <cstring>

#include "psp_free_index.h"
#include "psp_mem_data_int.h"
#include "psp_track.h"
#include "pspint.h"

namespace {

constexpr uint32_t TAG_CHUNK = 4096; // smallest chunk payload of a tag

// Larger payloads would not fit a chunk whose size is 32-bit.
constexpr size_t LARGEST_CHUNK = UINT32_MAX - LIST_FLAGS;
constexpr size_t LARGEST_REQUEST = LARGEST_CHUNK - sizeof(LIST_HDR);

LIST_HDR* header_of(const void* ptr)
{
    return static_cast<LIST_HDR*>(const_cast<void*>(ptr)) - 1;
}

// Adds the block right behind to `block`; its header becomes payload.
void absorb(LIST_HDR* block, const LIST_HDR* behind)
{
    block->size += static_cast<uint32_t>(sizeof(LIST_HDR)) + behind->size;
    block->back |= behind->back & LIST_LAST;
    psp_track_close(behind, sizeof(LIST_HDR));
}

// Cuts what follows `size` bytes of a block's payload off it, for a block of its own.
LIST_HDR* cut(LIST_HDR* block, size_t size)
{
    LIST_HDR* const behind = list_header_after(block, size);
    psp_track_fresh(behind, sizeof(LIST_HDR));
    behind->size = static_cast<uint32_t>(block->size - size - sizeof(LIST_HDR));
    behind->back = block->back & LIST_LAST;
    block->size = static_cast<uint32_t>(size);
    block->back &= ~LIST_LAST;
    return behind;
}

// ---- Allocation ----

// A new chunk at the head of the list, of one free block with at least `size` bytes. False without
// memory.
bool list_add_chunk(LIST_ALLOCATOR_ENTRY* alctr, size_t size)
{
    size_t whole =
        std::max<size_t>(alctr->blocksize, size + sizeof(LIST_HDR)) + sizeof(LIST_CHUNK_HDR);
    auto* const chunk =
        static_cast<LIST_CHUNK_HDR*>(alctr->alloc_fcn(&whole, &alctr->mem_info.free));
    if (!chunk)
        return false;
    // A caller's buffer can have any size: what a chunk cannot use of it stays idle.
    const size_t inner =
        std::min((whole - sizeof(LIST_CHUNK_HDR)) & ~size_t{LIST_FLAGS}, LARGEST_CHUNK);
    const uint32_t label = free_index_label(alctr);
    *chunk = {static_cast<uint32_t>(inner), label, alctr->chunks, nullptr, 0, 0};
    if (chunk->next)
        chunk->next->prev = chunk;
    alctr->chunks = chunk;

    LIST_HDR* const block = list_first_block(chunk);
    block->size = static_cast<uint32_t>(inner - sizeof(LIST_HDR));
    block->back = LIST_LAST;
    psp_track_close(block + 1, whole - sizeof(LIST_CHUNK_HDR) - sizeof(LIST_HDR));
    free_index_insert(alctr, chunk, block);
    return true;
}

// Turns the block found, or its end if enough is left over for another block, into one in use.
LIST_HDR* use_entry(LIST_HDR* block, size_t size)
{
    LIST_CHUNK_HDR* const chunk = list_chunk_of_free(block);
    if (list_is_cut(block, size)) {
        LIST_HDR* const rest = block;
        block = cut(rest, rest->size - size - sizeof(LIST_HDR));
        list_tell_upper(rest);
    } else {
        block->back &= LIST_LAST;
    }
    list_tell_upper(block);
    block->ptr.chunk = chunk;
    psp_track_fresh(block + 1, block->size);
    return block;
}

// ---- Freeing ----

// Lets a block in use take in the free block above it, if there is one.
void combine_with_next(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    LIST_HDR* const upper = list_upper(block);
    if (!upper || !list_is_free(upper))
        return;
    free_index_remove(alctr, chunk, upper);
    absorb(block, upper);
}

// Makes a block in use part of the free block below it.
void join_to_lower(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* lower,
                   const LIST_HDR* block)
{
    lower->back |= block->back & LIST_LAST;
    free_index_grow(alctr, chunk, lower,
                    lower->size + static_cast<uint32_t>(sizeof(LIST_HDR)) + block->size);
    psp_track_close(block, sizeof(LIST_HDR));
    list_tell_upper(lower);
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
void release_extra(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block, size_t size)
{
    if (!list_is_cut(block, size))
        return;
    LIST_HDR* const extra = cut(block, size);
    psp_track_close(extra + 1, extra->size);
    free_index_insert(alctr, chunk, extra);
    list_tell_upper(extra);
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
    size = round_up(size, LIST_UNIT);
    LIST_HDR* fit = free_index_take(alctr, static_cast<uint32_t>(size));
    if (!fit) {
        if (!list_add_chunk(alctr, size))
            return nullptr;
        fit = free_index_take(alctr, static_cast<uint32_t>(size));
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

    combine_with_next(alctr, chunk, block);
    LIST_HDR* const lower = list_free_lower(block);
    if (list_is_last(block) && (lower ? lower : block) == list_first_block(chunk)) {
        if (lower)
            free_index_remove(alctr, chunk, lower);
        release_chunk(alctr, chunk);
    } else if (lower) {
        join_to_lower(alctr, chunk, lower, block);
    } else {
        free_index_insert(alctr, chunk, block);
        list_tell_upper(block);
    }
}

void* internal_realloc(const void* ptr, size_t newsize, LIST_ALLOCATOR_ENTRY* alctr,
                       int32_t preserve)
{
    if (newsize > LARGEST_REQUEST)
        return nullptr;
    const size_t size = round_up(newsize, LIST_UNIT);
    LIST_HDR* const block = header_of(ptr);
    LIST_CHUNK_HDR* const chunk = block->ptr.chunk;
    const uint32_t before = block->size;
    combine_with_next(alctr, chunk, block);
    list_tell_upper(block);
    psp_track_fresh(list_header_after(block, before), block->size - before);
    if (size > block->size)
        return move_block(block, size, alctr, preserve);
    // Counted against the block as it is now, with what it took in: the difference wraps, and may
    // carry the counter below 0.
    mem_info_add(alctr->mem_info.used, size - block->size);
    release_extra(alctr, chunk, block, size);
    return block + 1;
}

// ---- The operations of a list tag ----

LIST_ALLOCATOR_ENTRY list_allocator_empty()
{
    return {
        .chunks = nullptr,
        .blocksize = TAG_CHUNK,
        .empties = 0,
        .alloc_fcn = psp_allocLargeBlock,
        .free_fcn = psp_freeLargeBlock,
        .mem_info = {},
        .index = {},
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
    list->index = {};
    list->empties = 0;
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
    const LIST_MEM_INFO& info = static_cast<const LIST_ALLOCATOR_ENTRY*>(alctr)->mem_info;
    *mem_info = {mem_info_load(info.used), mem_info_load(info.free), {}};
}
