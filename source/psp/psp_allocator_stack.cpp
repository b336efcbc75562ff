// The stack allocator: for data that dies together.
//
// Blocks are cut from the start of a chunk upwards and have no header; they cannot be freed or
// resized, only the whole tag is emptied. A request is served by the first chunk, newest first,
// that has enough left; chunks without any space left are kept on a list of their own.
//
// Chunks behind the first mostly keep a remainder too small for anything. An upper bound of these
// remainders makes a request that fits none of them pass by all of them at once; it changes no
// address. The bound may be too high, never too low: remainders only shrink.
//
// Nothing here locks or jumps; the only memory that is taken is the large-block layer's.

#include <algorithm>

#include "psp_mem_data_int.h"
#include "psp_track.h"
#include "pspint.h"

namespace {

constexpr size_t UNIT = 8;          // blocks are multiples of this
constexpr size_t CHUNK_SIZE = 4096; // smallest payload of a chunk

void push_chunk(STACK_CHUNK_HDR*& head, STACK_CHUNK_HDR* chunk)
{
    chunk->prev = nullptr;
    chunk->next = head;
    if (head)
        head->prev = chunk;
    head = chunk;
}

void unlink_chunk(STACK_CHUNK_HDR*& head, STACK_CHUNK_HDR* chunk)
{
    (chunk->prev ? chunk->prev->next : head) = chunk->next;
    if (chunk->next)
        chunk->next->prev = chunk->prev;
}

// The first chunk behind the head with `size` bytes left, or NULL; then the bound becomes exact.
STACK_CHUNK_HDR* find_behind(STACK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    if (!alctr->partial_chunks || size > alctr->left_behind)
        return nullptr;
    size_t most = 0;
    for (STACK_CHUNK_HDR* chunk = alctr->partial_chunks->next; chunk; chunk = chunk->next) {
        if (chunk->left >= size)
            return chunk;
        most = std::max<size_t>(most, chunk->left);
    }
    alctr->left_behind = most;
    return nullptr;
}

STACK_CHUNK_HDR* stack_add_chunk(STACK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    const size_t inner = std::max(size, alctr->blocksize);
    size_t whole = inner + sizeof(STACK_CHUNK_HDR);
    auto* const chunk = static_cast<STACK_CHUNK_HDR*>(psp_allocLargeBlock(&whole, nullptr));
    if (!chunk)
        return nullptr;
    if (const STACK_CHUNK_HDR* const head = alctr->partial_chunks)
        alctr->left_behind = std::max<size_t>(alctr->left_behind, head->left);
    chunk->offset = 0;
    chunk->left = static_cast<uint32_t>(inner);
    push_chunk(alctr->partial_chunks, chunk);
    psp_track_close(chunk + 1, inner);
    return chunk;
}

// Cuts a block from a chunk that has enough left.
void* cut_block(STACK_ALLOCATOR_ENTRY* alctr, STACK_CHUNK_HDR* chunk, size_t size, size_t taken)
{
    std::byte* const block = reinterpret_cast<std::byte*>(chunk + 1) + chunk->offset;
    chunk->offset += static_cast<uint32_t>(taken);
    chunk->left -= static_cast<uint32_t>(taken);
    mem_info_add(alctr->mem_info.used, taken);
    psp_track_fresh(block, size);
    return block;
}

// All but the usual case: a chunk behind the first, a new one, or one that becomes full.
[[gnu::noinline]] void* alloc_elsewhere(STACK_ALLOCATOR_ENTRY* alctr, size_t size, size_t taken)
{
    STACK_CHUNK_HDR* chunk = alctr->partial_chunks;
    if (!chunk || chunk->left < taken)
        chunk = find_behind(alctr, taken);
    if (!chunk)
        chunk = stack_add_chunk(alctr, taken);
    if (!chunk)
        return nullptr;
    void* const block = cut_block(alctr, chunk, size, taken);
    if (chunk->left == 0) {
        unlink_chunk(alctr->partial_chunks, chunk);
        push_chunk(alctr->full_chunks, chunk);
    }
    return block;
}

void free_chunks(STACK_CHUNK_HDR*& head)
{
    free_large_blocks([&head] {
        STACK_CHUNK_HDR* const chunk = head;
        if (chunk)
            head = chunk->next;
        return chunk;
    });
}

} // namespace

void* stack_allocator_create(ALLOCATOR_FCNS* fcns)
{
    *fcns = {
        .destroy_fcn = stack_allocator_destroy,
        .alloc_fcn = stack_allocator_alloc,
        .realloc_fcn = stack_allocator_realloc,
        .free_fcn = stack_allocator_free,
        .free_all_fcn = stack_allocator_free_all,
        .get_size_fcn = stack_allocator_get_size,
        .mem_info_fcn = stack_allocator_mem_info,
    };
    auto* const alctr = static_cast<STACK_ALLOCATOR_ENTRY*>(
        psp_memTryGet(sizeof(STACK_ALLOCATOR_ENTRY), &static_list_tag, PSP_MEM_ZERO, nullptr));
    if (alctr)
        alctr->blocksize = CHUNK_SIZE;
    return alctr;
}

void stack_allocator_destroy(void* alctr)
{
    psp_freeMem(alctr, &static_list_tag, __FILE__, __LINE__);
}

void* stack_allocator_alloc(size_t size, void* alctr)
{
    auto* const entry = static_cast<STACK_ALLOCATOR_ENTRY*>(alctr);
    const size_t taken = round_up(size, UNIT);
    STACK_CHUNK_HDR* const chunk = entry->partial_chunks;
    if (!chunk || chunk->left <= taken) [[unlikely]]
        return alloc_elsewhere(entry, size, taken);
    return cut_block(entry, chunk, size, taken);
}

void* stack_allocator_realloc(const void*, size_t, void*, int32_t)
{
    return nullptr;
}

void stack_allocator_free(const void*, void*) {}

// The counters keep their values: they tell what the tag went through.
void stack_allocator_free_all(void* alctr)
{
    auto* const entry = static_cast<STACK_ALLOCATOR_ENTRY*>(alctr);
    free_chunks(entry->partial_chunks);
    free_chunks(entry->full_chunks);
    entry->left_behind = 0;
}

void stack_allocator_get_size(size_t* size, const void*)
{
    *size = 0;
}

void stack_allocator_mem_info(const void* alctr, PSP_TAG_MEM_INFO* mem_info)
{
    *mem_info = mem_info_load(static_cast<const STACK_ALLOCATOR_ENTRY*>(alctr)->mem_info);
}
