// The block allocator: ten power-of-two size classes, each with a free list of its own.
//
// A request up to 8192 bytes pops the head of its class's list, a free pushes it back: both take a
// handful of instructions whatever the tag holds, and stand in psp_block_list.h. An empty list is
// refilled with a chunk of 2, 4, 8, ... up to 128 blocks, so that small tags stay small and large
// ones seldom ask. Greater requests get a chunk of their own. Emptying the tag gives whole chunks
// back and looks at no block.
//
// In front of every block stand 8 bytes: its two sizes while it is in use, the link of the free
// list while it is not. Small blocks never change their class and never leave their chunk. Nothing
// here locks or jumps; the only memory that is taken is the large-block layer's.

#include <algorithm>
#include <cstring>

#include "psp_block_list.h"
#include "psp_mem_data_int.h"
#include "psp_track.h"
#include "pspint.h"

namespace {

constexpr size_t LARGE_UNIT = 32; // large blocks are multiples of this
constexpr uint32_t FIRST_MULT = 2;
constexpr uint32_t LAST_MULT = 128;

BLOCK_CHUNK_HDR* chunk_of_large(BLOCK_HDR* block)
{
    return reinterpret_cast<BLOCK_CHUNK_HDR*>(block) - 1;
}

// The size of the block that serves a request: a class, or above LARGEST_CLASS a large block.
size_t find_block_size(size_t size)
{
    if (size > LARGEST_CLASS)
        return round_up(size, LARGE_UNIT);
    return class_size(order_of(size));
}

// ---- Chunks ----

BLOCK_CHUNK_HDR* add_chunk(BLOCK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    size_t whole = size + sizeof(BLOCK_CHUNK_HDR);
    auto* const chunk = static_cast<BLOCK_CHUNK_HDR*>(psp_allocLargeBlock(&whole, nullptr));
    if (!chunk)
        return nullptr;
    *chunk = {alctr->chunks, nullptr};
    if (chunk->next)
        chunk->next->prev = chunk;
    alctr->chunks = chunk;
    mem_info_add(alctr->mem_info.overhead, sizeof(BLOCK_CHUNK_HDR));
    return chunk;
}

void unlink_chunk(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_CHUNK_HDR* chunk)
{
    (chunk->prev ? chunk->prev->next : alctr->chunks) = chunk->next;
    if (chunk->next)
        chunk->next->prev = chunk->prev;
}

// Makes the neighbours of a chunk that has moved point at its new place.
void relink_chunk(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_CHUNK_HDR* chunk)
{
    (chunk->prev ? chunk->prev->next : alctr->chunks) = chunk;
    if (chunk->next)
        chunk->next->prev = chunk;
}

// Cuts a chunk into `count` blocks. The last one becomes the head of the free list.
void split_chunk(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_INFO& info, BLOCK_CHUNK_HDR* chunk,
                 size_t actual, size_t count)
{
    const size_t step = sizeof(BLOCK_HDR) + actual;
    auto* place = reinterpret_cast<std::byte*>(chunk + 1);
    const std::byte* const end = place + count * step;
    BLOCK_HDR* head = info.avail;
    for (; place != end; place += step) {
        auto* const block = reinterpret_cast<BLOCK_HDR*>(place);
        block->next = head;
        head = block;
        psp_track_close(block + 1, actual);
    }
    info.avail = head;
    mem_info_add(alctr->mem_info.free, count * actual);
}

// ---- Taking and giving blocks ----

// Refills an empty class. The multiplier grows before the chunk is asked for, also when there is
// none.
bool refill(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_INFO& info, size_t actual)
{
    const size_t count = info.mult;
    if (info.mult < LAST_MULT)
        info.mult *= 2;
    BLOCK_CHUNK_HDR* const chunk = add_chunk(alctr, count * (actual + sizeof(BLOCK_HDR)));
    if (!chunk)
        return false;
    mem_info_add(alctr->mem_info.overhead, count * sizeof(BLOCK_HDR));
    split_chunk(alctr, info, chunk, actual, count);
    return true;
}

// Out of line, like all that is seldom needed: the way past it stays short.
[[gnu::noinline]] void* alloc_large(BLOCK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    const size_t actual = find_block_size(size);
    BLOCK_CHUNK_HDR* const chunk = add_chunk(alctr, actual + sizeof(BLOCK_HDR));
    if (!chunk)
        return nullptr;
    mem_info_add(alctr->mem_info.overhead, sizeof(BLOCK_HDR));
    mem_info_add(alctr->mem_info.free, actual);
    return hand_out(alctr, reinterpret_cast<BLOCK_HDR*>(chunk + 1), size, actual);
}

[[gnu::noinline]] void* alloc_refilled(BLOCK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    BLOCK_INFO& info = class_of(alctr, order_of(size));
    return refill(alctr, info, find_block_size(size)) ? pop_block(alctr, size) : nullptr;
}

// The headers of a large block stay counted as overhead until the tag is emptied.
[[gnu::noinline]] void give_large(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_HDR* block)
{
    mem_info_sub(alctr->mem_info.used, block->size.requested);
    mem_info_sub(alctr->mem_info.overhead, block->size.actual - block->size.requested);
    BLOCK_CHUNK_HDR* const chunk = chunk_of_large(block);
    unlink_chunk(alctr, chunk);
    psp_freeLargeBlock(chunk, nullptr);
}

// ---- Resizing ----

// Moves bytes between the requested size and the rounding of a block.
void count_resize(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_SIZE before, BLOCK_SIZE after)
{
    // Each difference wraps when it is negative, and the sum wraps back.
    const size_t used = size_t{after.requested} - before.requested;
    mem_info_add(alctr->mem_info.used, used);
    mem_info_add(alctr->mem_info.overhead, size_t{after.actual} - before.actual - used);
}

void* realloc_large_block(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_HDR* block, size_t newsize)
{
    const BLOCK_SIZE before = block->size;
    const size_t actual = find_block_size(newsize);
    auto* const chunk = static_cast<BLOCK_CHUNK_HDR*>(psp_reallocLargeBlock(
        chunk_of_large(block), actual + sizeof(BLOCK_CHUNK_HDR) + sizeof(BLOCK_HDR)));
    if (!chunk)
        return nullptr;
    relink_chunk(alctr, chunk);
    block = reinterpret_cast<BLOCK_HDR*>(chunk + 1);
    block->size = {static_cast<uint32_t>(newsize), static_cast<uint32_t>(actual)};
    count_resize(alctr, before, block->size);
    return block + 1;
}

void* move_block(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_HDR* block, size_t newsize, int32_t preserve)
{
    void* const moved = block_allocator_alloc(newsize, alctr);
    if (!moved)
        return nullptr;
    if (preserve != 0)
        memcpy(moved, block + 1, std::min<size_t>(newsize, block->size.actual));
    block_allocator_free(block + 1, alctr);
    return moved;
}

// Chunks that were taken one after the other mostly stand at equal distances. Those a few further
// on are fetched while this one is given back, for the list alone would tell of one at a time.
void fetch_ahead(const BLOCK_CHUNK_HDR* chunk)
{
    constexpr uintptr_t ahead = 8;
    const auto here = reinterpret_cast<uintptr_t>(chunk);
    const uintptr_t distance = reinterpret_cast<uintptr_t>(chunk->next) - here;
    __builtin_prefetch(reinterpret_cast<const void*>(here + ahead * distance));
}

void empty_classes(BLOCK_ALLOCATOR_ENTRY* alctr)
{
    for (BLOCK_INFO& info : alctr->blocks)
        info = {nullptr, FIRST_MULT};
}

} // namespace

void* block_allocator_create(ALLOCATOR_FCNS* fcns)
{
    *fcns = {
        .destroy_fcn = block_allocator_destroy,
        .alloc_fcn = block_allocator_alloc,
        .realloc_fcn = block_allocator_realloc,
        .free_fcn = block_allocator_free,
        .free_all_fcn = block_allocator_free_all,
        .get_size_fcn = block_allocator_get_size,
        .mem_info_fcn = block_allocator_mem_info,
    };
    auto* const alctr = static_cast<BLOCK_ALLOCATOR_ENTRY*>(
        psp_memTryGet(sizeof(BLOCK_ALLOCATOR_ENTRY), &static_list_tag, PSP_MEM_ZERO, nullptr));
    if (!alctr)
        return nullptr;
    empty_classes(alctr);
    mem_info_add(alctr->mem_info.overhead, sizeof(BLOCK_ALLOCATOR_ENTRY));
    return alctr;
}

void block_allocator_destroy(void* alctr)
{
    psp_freeMem(alctr, &static_list_tag, __FILE__, __LINE__);
}

void* block_allocator_alloc(size_t size, void* alctr)
{
    auto* const entry = static_cast<BLOCK_ALLOCATOR_ENTRY*>(alctr);
    if (size > LARGEST_CLASS) [[unlikely]]
        return alloc_large(entry, size);
    void* const block = pop_block(entry, size);
    return block ? block : alloc_refilled(entry, size);
}

void block_allocator_free(const void* ptr, void* alctr)
{
    auto* const entry = static_cast<BLOCK_ALLOCATOR_ENTRY*>(alctr);
    BLOCK_HDR* const block = block_header(ptr);
    if (is_small(block)) [[likely]]
        push_block(entry, block);
    else
        give_large(entry, block);
}

void* block_allocator_realloc(const void* ptr, size_t newsize, void* alctr, int32_t preserve)
{
    auto* const entry = static_cast<BLOCK_ALLOCATOR_ENTRY*>(alctr);
    BLOCK_HDR* const block = block_header(ptr);
    const BLOCK_SIZE before = block->size;
    const size_t actual = find_block_size(newsize);
    if (actual > LARGEST_CLASS && before.actual > LARGEST_CLASS)
        return realloc_large_block(entry, block, newsize);
    if (actual != before.actual)
        return move_block(entry, block, newsize, preserve);
    block->size.requested = static_cast<uint32_t>(newsize);
    count_resize(entry, before, block->size);
    return block + 1;
}

void block_allocator_free_all(void* alctr)
{
    auto* const entry = static_cast<BLOCK_ALLOCATOR_ENTRY*>(alctr);
    free_large_blocks([entry] {
        BLOCK_CHUNK_HDR* const chunk = entry->chunks;
        if (chunk) {
            entry->chunks = chunk->next;
            fetch_ahead(chunk);
        }
        return chunk;
    });
    empty_classes(entry);
    relaxed_store(entry->mem_info.used.current, 0);
    relaxed_store(entry->mem_info.free.current, 0);
    relaxed_store(entry->mem_info.overhead.current, sizeof(BLOCK_ALLOCATOR_ENTRY));
}

void block_allocator_get_size(size_t* size, const void* ptr)
{
    *size = block_header(ptr)->size.actual;
}

void block_allocator_mem_info(const void* alctr, PSP_TAG_MEM_INFO* mem_info)
{
    *mem_info = mem_info_load(static_cast<const BLOCK_ALLOCATOR_ENTRY*>(alctr)->mem_info);
}
