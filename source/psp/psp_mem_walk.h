// A walk over the memory layer that proves its records right, or names the first damage it meets.
// Only checked builds (PSP_CHECKED) have it.
//
// Nobody else may work on what is walked. The walk follows a link only after it has seen that the
// link leads into memory of the allocator's own, as far as anything tells that; it changes nothing
// and allocates nothing. Its cost grows with the free blocks of a list allocator times all of its
// blocks.
#pragma once

#include "psp_mem_data_int.h"

enum class MEM_DAMAGE : int32_t {
    NONE,
    CHUNK_PLACE,    // a chunk is misaligned or no large block in use
    CHUNK_LINK,     // the chunk before this one is not the one it names
    CHUNK_SIZE,     // a chunk is not as long as its allocator makes them, or as its large block
    CHUNK_STATE,    // a chunk is on the wrong list
    CHUNK_EMPTY,    // a chunk without a block in use was kept
    BLOCK_LENGTH,   // a block reaches out of its chunk, or its sizes contradict each other
    CHUNK_ORDER,    // a chunk is labelled as if it were newer than the one before it
    BLOCK_STATE,    // a block is neither in use nor free, or does not know its neighbours
    FREE_LINK,      // a free list or index leads to what is no free block, or not back
    FREE_CYCLE,     // a free list or index does not end
    FREE_ORDER,     // a free block is where it would be found too early or too late
    FREE_LOST,      // there are free blocks that would not be found
    FREE_NEIGHBORS, // two free blocks lie side by side
    REFILL,         // a size class makes chunks of a wrong number of blocks
    BOUND,          // a stack tag knows wrongly how much room its chunks have
    COUNTER,        // a counter is not what the walk counts
    BUFFER,         // the caller's buffer and the mark of its use contradict each other
    TAG_LINK,       // the list of tags does not lead back, or not to records of tags
    TAG_RECORD,     // a tag has no allocator of a known kind
    OWNER,          // large blocks that no tag has, or that two have
    POOL_LINK,      // an idle object is no block in use of the pool's tag
    POOL_SIZE,      // an idle object claims more than its block holds
    POOL_COUNT,     // there are more or fewer idle objects than counted
};

struct MEM_WALK {
    MEM_DAMAGE damage; // the first damage, or NONE
    const void* place; // the damaged chunk, block, record or object
    size_t held;       // without damage: bytes of the large blocks that are held
};

MEM_WALK psp_walkList(const LIST_ALLOCATOR_ENTRY* alctr);
MEM_WALK psp_walkBlock(const BLOCK_ALLOCATOR_ENTRY* alctr);
MEM_WALK psp_walkStack(const STACK_ALLOCATOR_ENTRY* alctr);
MEM_WALK psp_walkFreeIndex(const LIST_ALLOCATOR_ENTRY* alctr); // whose rows of blocks are sound
MEM_WALK psp_walkLegacy(const LEGACY_ALLOCATOR_ENTRY* alctr);
MEM_WALK psp_walkLargeBlocks();

MEM_WALK psp_walkTag(const TAG_ENTRY* tag); // a real one
MEM_WALK psp_walkPool(const PSP_POOL_CTX* pool);

// The large-block layer and every tag, and that each large block belongs to one tag.
MEM_WALK psp_walkMemory();
