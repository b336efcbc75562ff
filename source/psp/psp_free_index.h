// The free blocks of a list allocator in the order in which a search has to find them.
//
// A search wants the smallest free block that is long enough and, of several of that size, the
// first: chunks go newest first, and in a chunk the blocks that became free last go first. A block
// keeps its turn while it is cut or grows. The index finds it in a few steps, and takes up and
// lets go any block as fast, in no memory but what free blocks have themselves.
//
// Order. A chunk has a label, larger than those of all older chunks, and counts the blocks that it
// ever made free. Label and count together are a block's order, and the larger order goes first.
// When a counter has come to its end, what is left is numbered anew: chunks from the oldest to the
// newest, the blocks of a chunk as their orders stand.
//
// Shape. The blocks of one size are a pairing heap whose root is the first of them, so that a
// block is added in constant time. The roots are the nodes of a binary search tree over the sizes;
// a root has no siblings, so that its links are free for that. Which of two sizes lies above the
// other follows from their bits alone: at the lowest bit in which they differ, the upper one has a
// 0. With all multiples of 16 up to some size that gives a balanced tree; sizes without a pattern
// give the tree that a random order of insertion gives. The longest way that sizes can be chosen
// for is the square root of their number: 255 steps with every size up to a megabyte.
//
// A heap whose root collects many children makes the search that takes the root wait for all of
// them. So children have ranks, and a child that finds one of its own rank at the front is paired
// with it at once: the number of children stays small, like the digits of a number.
//
// The block that changed last is kept aside, and goes into the tree when another one changes. It is
// often the next one that changes: whoever fills chunks or frees what lies side by side works on
// the block aside.
//
// Node. Three words: the last of the header and the first two of the payload. The upper 43 bits of
// each are a link, the part of an address in which the blocks of an allocator differ: they agree in
// the 4 bits below it and the 17 above. The lower 21 bits of all three words together hold the
// label (31), the count (27) and the rank (5).
//
// Blocks without payload have no room for a node. They only serve requests for nothing, which look
// through the chunks when there may be any: each chunk has them on a doubly linked list, last
// pushed first. A place is a distance to the first block in units of 16, plus 1.
#pragma once

#include "psp_list_row.h"

constexpr uint32_t FREE_LABELS = uint32_t{1} << 31; // of chunks
constexpr uint32_t FREE_PUSHES = uint32_t{1} << 27; // of the blocks of a chunk

// Where a block stands among those of its size: larger goes first.
using BLOCK_ORDER = uint64_t;

// The label of a chunk that is going to be the newest. It may give the others new ones.
uint32_t free_index_label(LIST_ALLOCATOR_ENTRY* alctr);

// Takes up a block that becomes free now, as the last one of its chunk. It gets the marks of a free
// block, but not the one above it. The row of the chunk must be in order.
void free_index_insert(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block);

// Lets a block go, which stays as it is otherwise.
void free_index_remove(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block);

// Makes a block longer, which keeps its turn.
void free_index_grow(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block,
                     uint32_t size);

// Finds the block for a request, or NULL. If a request is cut off it (list_is_cut), it stays in the
// index and may be cut at once; otherwise the index lets it go. Its `back` leads to its chunk.
LIST_HDR* free_index_take(LIST_ALLOCATOR_ENTRY* alctr, uint32_t size);

// ---- What the nodes say, for those who look the index over ----

// The links of a node: a root's children and the two sides of the tree below it; another's children
// and its siblings.
enum NODE_LINK : uint32_t {
    FREE_LESS = 0,  // shorter sizes
    FREE_MORE = 1,  // longer sizes
    FREE_NEXT = 0,  // the sibling that became one before
    FREE_PREV = 1,  // the sibling that became one after; the parent for the first child
    FREE_CHILD = 2, // the first child
};

LIST_HDR* free_index_top(const LIST_ALLOCATOR_ENTRY* alctr);
LIST_HDR* free_index_link(const LIST_HDR* block, NODE_LINK link);
LIST_HDR* free_index_empty(const LIST_CHUNK_HDR* chunk, uint32_t place);
BLOCK_ORDER free_index_order(const LIST_HDR* block);
uint32_t free_index_push(const LIST_HDR* block); // its number in its chunk, with payload or not

// Whether the node of the size `a` lies above that of the size `b`.
inline bool free_index_above(uint32_t a, uint32_t b)
{
    const uint32_t differ = a ^ b;
    return (b & differ & (0 - differ)) != 0;
}
