// Large blocks: the memory that every allocator's chunks come from.
//
// One list allocator with chunks of 4 MiB serves the whole process, so that the chunks of all tags
// lie close together and an empty 4 MiB goes back to the heap at once. Its own chunks come from
// the C library, within the limit, or are all carved from one buffer of the caller. Each large
// block starts with its size, which the statistics need when it is freed.
//
// All work happens under largeBlockSem, the innermost memory lock: nothing called from here may
// take another lock, allocate from a tag, or jump.

#include <cstdlib>

#include "psp_mem_data_int.h"
#include "psp_track.h"

size_t psp_memlimit = 0;
void* psp_membuffer = nullptr;
int32_t psp_membuffer_used = 0;
PSP_MEM_INFO psp_mem_stats = {0, 0};
PSP_SEM largeBlockSem = PSP_SEM_INVALID;

LIST_ALLOCATOR_ENTRY LargeBlock = {
    .chunks = nullptr,
    .blocksize = 4194304,
    .empties = 0,
    .alloc_fcn = psp_malloc,
    .free_fcn = psp_free,
    .mem_info = {},
    .index = {},
};

static LARGE_BLOCK_HDR* header_of(void* ptr)
{
    return static_cast<LARGE_BLOCK_HDR*>(ptr) - 1;
}

void* psp_allocLargeBlock(size_t* size, PSP_MEM_INFO* mem_info)
{
    const size_t whole = *size + sizeof(LARGE_BLOCK_HDR);
    const PSP_SEM sem = relaxed_load(largeBlockSem);
    mem_enter(sem);
    auto* const block = static_cast<LARGE_BLOCK_HDR*>(internal_alloc(whole, &LargeBlock));
    if (block) {
        mem_info_add(psp_mem_stats, whole);
        if (mem_info)
            mem_info_add(*mem_info, whole);
    }
    mem_exit(sem);
    if (!block)
        return nullptr;
    block->size = whole;
    return block + 1;
}

void* psp_reallocLargeBlock(void* ptr, size_t size)
{
    const size_t whole = size + sizeof(LARGE_BLOCK_HDR);
    const size_t before = header_of(ptr)->size;
    const PSP_SEM sem = relaxed_load(largeBlockSem);
    mem_enter(sem);
    auto* const block =
        static_cast<LARGE_BLOCK_HDR*>(internal_realloc(header_of(ptr), whole, &LargeBlock, 1));
    if (block)
        mem_info_add(psp_mem_stats, whole - before); // wraps into a subtraction when it shrinks
    mem_exit(sem);
    if (!block)
        return nullptr;
    block->size = whole;
    return block + 1;
}

void psp_freeLargeBlock(void* ptr, PSP_MEM_INFO* mem_info)
{
    LARGE_BLOCK_HDR* const block = header_of(ptr);
    const PSP_SEM sem = relaxed_load(largeBlockSem);
    mem_enter(sem);
    mem_info_sub(psp_mem_stats, block->size);
    if (mem_info)
        mem_info_sub(*mem_info, block->size);
    internal_free(block, &LargeBlock);
    mem_exit(sem);
}

// The limit is held against the large blocks in use, not against the chunks that hold them.
void* psp_malloc(size_t* size, PSP_MEM_INFO*)
{
    const size_t limit = relaxed_load(psp_memlimit);
    void* const buffer = relaxed_load(psp_membuffer);
    if (limit != 0 && limit < *size + psp_mem_stats.current)
        return nullptr;
    if (!buffer)
        return malloc(*size);
    if (psp_membuffer_used != 0 || limit < *size) // a buffer without a limit has no known size
        return nullptr;
    *size = limit;
    psp_membuffer_used = 1;
    return buffer;
}

void psp_free(void* ptr, PSP_MEM_INFO*)
{
    if (void* const buffer = relaxed_load(psp_membuffer)) {
        psp_membuffer_used = 0;
        psp_track_open(buffer, relaxed_load(psp_memlimit)); // also what no chunk could use
    } else {
        free(ptr);
    }
}
