// The walk over the index of a list allocator's free blocks, for psp_mem_walk.cpp.
//
// The index is followed from its top; each link must lead to a free block of the allocator, in the
// right order, and its counterpart must lead back. What is met is counted against the rows.

#include "psp_free_index.h"
#include "psp_mem_walk.h"

namespace {

constexpr MEM_WALK SOUND = {MEM_DAMAGE::NONE, nullptr, 0};

bool failed(const MEM_WALK& walk)
{
    return walk.damage != MEM_DAMAGE::NONE;
}

// Whether a free block of a chunk starts at an address.
bool is_free_block_of(const LIST_CHUNK_HDR* chunk, const LIST_HDR* ptr)
{
    const LIST_HDR* block = list_first_block(chunk);
    while (block && block < ptr)
        block = list_upper(block);
    return block && block == ptr && list_is_free(block);
}

const LIST_CHUNK_HDR* chunk_of_free_block(const LIST_ALLOCATOR_ENTRY* alctr, const LIST_HDR* ptr)
{
    const LIST_CHUNK_HDR* chunk = alctr->chunks;
    while (chunk && (ptr < list_first_block(chunk) || ptr >= list_block_at(chunk + 1, chunk->size)))
        chunk = chunk->next;
    return chunk && is_free_block_of(chunk, ptr) ? chunk : nullptr;
}

// ---- Blocks with payload ----

struct TREE_WALK {
    const LIST_ALLOCATOR_ENTRY* alctr;
    size_t left; // free blocks not met yet
};

MEM_WALK walk_node(TREE_WALK& tree, const LIST_HDR* node, bool first)
{
    const LIST_CHUNK_HDR* const chunk = chunk_of_free_block(tree.alctr, node);
    if (!chunk || node->size == 0)
        return {MEM_DAMAGE::FREE_LINK, node, 0};
    const BLOCK_ORDER order = free_index_order(node);
    if (order / FREE_PUSHES != chunk->label || order % FREE_PUSHES >= chunk->pushes ||
        ((node->back & LIST_FIRST) != 0) != first)
        return {MEM_DAMAGE::FREE_ORDER, node, 0};
    if (tree.left == 0)
        return {MEM_DAMAGE::FREE_CYCLE, node, 0};
    --tree.left;
    return SOUND;
}

// The block that `node`, which is known to be led to rightly, and its siblings are children of.
const LIST_HDR* parent_of(const LIST_HDR* node)
{
    const LIST_HDR* prev = free_index_link(node, FREE_PREV);
    while (free_index_link(prev, FREE_CHILD) != node) {
        node = prev;
        prev = free_index_link(node, FREE_PREV);
    }
    return prev;
}

// The blocks of a size behind the first: children first, then siblings.
MEM_WALK walk_heap(TREE_WALK& tree, const LIST_HDR* root)
{
    const LIST_HDR* parent = root;
    const LIST_HDR* prev = root;
    const LIST_HDR* node = free_index_link(root, FREE_CHILD);
    for (;;) {
        while (!node && parent != root) {
            node = free_index_link(parent, FREE_NEXT);
            prev = parent;
            parent = parent_of(parent);
        }
        if (!node)
            return SOUND;
        const MEM_WALK walk = walk_node(tree, node, false);
        if (failed(walk))
            return walk;
        if (free_index_link(node, FREE_PREV) != prev)
            return {MEM_DAMAGE::FREE_LINK, node, 0};
        if (node->size != root->size || free_index_order(node) >= free_index_order(parent))
            return {MEM_DAMAGE::FREE_ORDER, node, 0};
        prev = node;
        if (const LIST_HDR* const child = free_index_link(node, FREE_CHILD)) {
            parent = node;
            node = child;
        } else {
            node = free_index_link(node, FREE_NEXT);
        }
    }
}

// The tree at `node`, whose sizes lie between two others, and below that of `above`, if any.
MEM_WALK walk_tree(TREE_WALK& tree, const LIST_HDR* node, size_t longer_than, size_t shorter_than,
                   const LIST_HDR* above)
{
    if (!node)
        return SOUND;
    MEM_WALK walk = walk_node(tree, node, true);
    if (failed(walk))
        return walk;
    if (node->size <= longer_than || node->size >= shorter_than ||
        (above && !free_index_above(above->size, node->size)))
        return {MEM_DAMAGE::FREE_ORDER, node, 0};
    walk = walk_heap(tree, node);
    if (failed(walk))
        return walk;
    walk = walk_tree(tree, free_index_link(node, FREE_LESS), longer_than, node->size, node);
    if (failed(walk))
        return walk;
    return walk_tree(tree, free_index_link(node, FREE_MORE), node->size, shorter_than, node);
}

// ---- Blocks without ----

// Follows a chunk's list; the `left` free blocks of its row must be on it.
MEM_WALK walk_empties(const LIST_CHUNK_HDR* chunk, size_t left)
{
    uint32_t prev = 0;
    uint32_t pushes = chunk->pushes;
    for (uint32_t place = chunk->empties; place != 0;) {
        const LIST_HDR* const block = free_index_empty(chunk, place);
        if (block >= list_block_at(chunk + 1, chunk->size) || !is_free_block_of(chunk, block) ||
            block->size != 0 || block->ptr.empty.prev != prev)
            return {MEM_DAMAGE::FREE_LINK, block, 0};
        if (list_back(block) / LIST_UNIT >= pushes)
            return {MEM_DAMAGE::FREE_ORDER, block, 0};
        pushes = list_back(block) / LIST_UNIT;
        prev = place;
        place = block->ptr.empty.next;
        --left; // no block is met twice, as their numbers fall
    }
    return left == 0 ? SOUND : MEM_WALK{MEM_DAMAGE::FREE_LOST, chunk, 0};
}

} // namespace

MEM_WALK psp_walkFreeIndex(const LIST_ALLOCATOR_ENTRY* alctr)
{
    TREE_WALK tree = {alctr, 0};
    for (const LIST_CHUNK_HDR* chunk = alctr->chunks; chunk; chunk = chunk->next) {
        if (chunk->next && chunk->next->label >= chunk->label)
            return {MEM_DAMAGE::CHUNK_ORDER, chunk->next, 0};
        size_t empties = 0;
        for (const LIST_HDR* p = list_first_block(chunk); p; p = list_upper(p)) {
            if (list_is_free(p))
                ++(p->size == 0 ? empties : tree.left);
        }
        const MEM_WALK walk = walk_empties(chunk, empties);
        if (failed(walk))
            return walk;
        if (empties != 0 && alctr->empties == 0)
            return {MEM_DAMAGE::FREE_LOST, chunk, 0};
    }
    if (const LIST_HDR* const aside = alctr->index.aside) {
        const MEM_WALK walk = walk_node(tree, aside, false);
        if (failed(walk))
            return walk;
    }
    const MEM_WALK walk = walk_tree(tree, free_index_top(alctr), 0, SIZE_MAX, nullptr);
    if (failed(walk))
        return walk;
    return tree.left == 0 ? SOUND : MEM_WALK{MEM_DAMAGE::FREE_LOST, alctr, 0};
}
