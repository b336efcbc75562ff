// How the blocks of a list allocator lie in their chunk, and how they find their neighbours.
//
// A chunk is a header and a row of blocks without gaps, each a header and its payload, which may be
// empty. No two free blocks lie side by side, so that whatever lies around a free block is in use.
//
// `size` leads from a block to the one above it; the last one says that it is the last. `back`
// leads the other way:
// - in a block in use, to the free block right below it; 0 when that one is in use or missing;
// - in a free block with payload, to the first block of the chunk and so to the chunk;
// - in a free block without payload it is no distance but the number of the block's push: the list
//   of such blocks hangs on its chunk.
// Distances go from header to header. They are multiples of 16, like the number here, and leave
// room for flags.
#pragma once

#include "psp_mem_data_int.h"

constexpr uint32_t LIST_UNIT = 16; // payload sizes are multiples of this

constexpr uint32_t LIST_FREE = 1;  // the block is free
constexpr uint32_t LIST_LAST = 2;  // no block lies above it
constexpr uint32_t LIST_FIRST = 4; // it is the first of the free blocks of its size
constexpr uint32_t LIST_FLAGS = LIST_UNIT - 1;

inline LIST_HDR* list_block_at(const void* ptr, size_t offset)
{
    return reinterpret_cast<LIST_HDR*>(reinterpret_cast<uintptr_t>(ptr) + offset);
}

inline LIST_HDR* list_first_block(const LIST_CHUNK_HDR* chunk)
{
    return list_block_at(chunk, sizeof(LIST_CHUNK_HDR));
}

// The header that would follow `size` bytes of a block's payload.
inline LIST_HDR* list_header_after(const LIST_HDR* block, size_t size)
{
    return list_block_at(block, sizeof(LIST_HDR) + size);
}

inline LIST_HDR* list_next_block(const LIST_HDR* block)
{
    return list_header_after(block, block->size);
}

inline bool list_is_free(const LIST_HDR* block)
{
    return (block->back & LIST_FREE) != 0;
}

inline bool list_is_last(const LIST_HDR* block)
{
    return (block->back & LIST_LAST) != 0;
}

// The block above, NULL for the last one.
inline LIST_HDR* list_upper(const LIST_HDR* block)
{
    return list_is_last(block) ? nullptr : list_next_block(block);
}

inline uint32_t list_back(const LIST_HDR* block)
{
    return block->back & ~LIST_FLAGS;
}

inline void list_set_back(LIST_HDR* block, uint32_t back)
{
    block->back = back | (block->back & LIST_FLAGS);
}

// The free block below a block in use, NULL if there is none.
inline LIST_HDR* list_free_lower(const LIST_HDR* block)
{
    const size_t back = list_back(block);
    return back != 0 ? list_block_at(block, 0 - back) : nullptr;
}

// The distance between two headers of a chunk.
inline uint32_t list_distance(const LIST_HDR* lower, const LIST_HDR* upper)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(upper) -
                                 reinterpret_cast<uintptr_t>(lower));
}

// Tells the block above, if there is one, that this one is free, or that it is no longer.
inline void list_tell_upper(const LIST_HDR* block)
{
    if (LIST_HDR* const upper = list_upper(block))
        list_set_back(upper, list_is_free(block) ? list_distance(block, upper) : 0);
}

// Whether a free block is cut for a request: what is left over makes another block.
inline bool list_is_cut(const LIST_HDR* block, size_t size)
{
    return block->size > size + sizeof(LIST_HDR);
}

// The chunk of a free block with payload.
inline LIST_CHUNK_HDR* list_chunk_of_free(const LIST_HDR* block)
{
    return reinterpret_cast<LIST_CHUNK_HDR*>(reinterpret_cast<uintptr_t>(block) -
                                             list_back(block)) -
           1;
}
