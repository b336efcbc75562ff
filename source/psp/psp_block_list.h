// The free lists of the block allocator, where nearly every request begins and ends. Inline: the
// front end of the tags serves most requests from here without a further call.
//
// The list of a class is a stack: the block freed last is handed out first. The counters change
// with every block, so that they and their high-water marks are right at any moment.
#pragma once

#include "psp_mem_data_int.h"
#include "psp_track.h"

inline constexpr size_t SMALLEST_CLASS = 16;
inline constexpr size_t LARGEST_CLASS = 8192;

static_assert(SMALLEST_CLASS << (BLOCK_CLASSES - 1) == LARGEST_CLASS);

// The position of the highest bit that is set, of a number that is not 0.
constexpr uint32_t highest_bit(uint64_t number)
{
    return 63 ^ static_cast<uint32_t>(__builtin_clzll(number));
}

// The order of a class is the highest bit of what is one less than its size: for a request of at
// most LARGEST_CLASS bytes it follows from the size in the same way. Orders stay in 32 bits, for
// extending one would stand in the middle of what every request waits for.
constexpr uint32_t order_of(size_t size)
{
    return highest_bit((size != 0 ? size - 1 : 0) | (SMALLEST_CLASS - 1));
}

// The same for the size of a class itself, in fewer steps.
constexpr uint32_t order_of_class(uint32_t actual)
{
    return highest_bit(actual) - 1;
}

constexpr size_t class_size(uint32_t order)
{
    return size_t{2} << order;
}

inline BLOCK_INFO& class_of(BLOCK_ALLOCATOR_ENTRY* alctr, uint32_t order)
{
    return alctr->blocks[order - order_of(SMALLEST_CLASS)];
}

inline BLOCK_HDR* block_header(const void* ptr)
{
    return static_cast<BLOCK_HDR*>(const_cast<void*>(ptr)) - 1;
}

// Whether a block that is in use belongs to a class.
inline bool is_small(const BLOCK_HDR* block)
{
    return block->size.actual <= LARGEST_CLASS;
}

inline bool is_block_tag(const TAG_ENTRY* tag)
{
    return tag->t_fcns.alloc_fcn == block_allocator_alloc;
}

inline BLOCK_ALLOCATOR_ENTRY* blocks_of(const TAG_ENTRY* tag)
{
    return static_cast<BLOCK_ALLOCATOR_ENTRY*>(tag->t_allocator);
}

// Writes the header of a block that is handed out, and counts it.
inline void* hand_out(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_HDR* block, size_t size, size_t actual)
{
    block->size = {static_cast<uint32_t>(size), static_cast<uint32_t>(actual)};
    mem_info_add(alctr->mem_info.used, size);
    mem_info_sub(alctr->mem_info.free, actual);
    mem_info_add(alctr->mem_info.overhead, actual - size);
    psp_track_fresh(block + 1, actual);
    return block + 1;
}

// The block freed last that serves a request of at most LARGEST_CLASS bytes; NULL if its class has
// none.
inline void* pop_block(BLOCK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    const uint32_t order = order_of(size);
    BLOCK_INFO& info = class_of(alctr, order);
    BLOCK_HDR* const block = info.avail;
    if (!block) [[unlikely]]
        return nullptr;
    info.avail = block->next;
    return hand_out(alctr, block, size, class_size(order));
}

// Gives a block of a class back.
inline void push_block(BLOCK_ALLOCATOR_ENTRY* alctr, BLOCK_HDR* block)
{
    const BLOCK_SIZE size = block->size;
    BLOCK_INFO& info = class_of(alctr, order_of_class(size.actual));
    block->next = info.avail;
    info.avail = block;
    mem_info_sub(alctr->mem_info.used, size.requested);
    mem_info_sub(alctr->mem_info.overhead, size_t{size.actual} - size.requested);
    mem_info_add(alctr->mem_info.free, size.actual);
    psp_track_close(block + 1, size.actual);
}
