// The index of the free blocks of a list allocator: see psp_free_index.h.

#include "psp_free_index.h"

#include <algorithm>

#include "psp_track.h"

namespace {

// ---- Words ----

constexpr int PIECE_BITS = 21; // of an order and a rank, below a link
constexpr uint64_t PIECE = (uint64_t{1} << PIECE_BITS) - 1;
constexpr int LINK_SHIFT = 17;
constexpr uint64_t LINK_ADDRESS = (uint64_t{1} << 47) - LIST_UNIT;

constexpr int RANK_BITS = 5;
constexpr uint64_t RANK = (uint64_t{1} << RANK_BITS) - 1;

constexpr uint32_t FRONT = 1; // place of the first block of a chunk

uint64_t* word_of(const LIST_HDR* block, uint32_t link)
{
    return const_cast<uint64_t*>(&block->ptr.word) + link;
}

// What the link in a word leads to; `home` is any header of the same allocator.
LIST_HDR* target(uint64_t word, const void* home)
{
    if (word <= PIECE)
        return nullptr;
    return reinterpret_cast<LIST_HDR*>((word >> LINK_SHIFT & LINK_ADDRESS) |
                                       (reinterpret_cast<uintptr_t>(home) & ~LINK_ADDRESS));
}

LIST_HDR* follow(const uint64_t* link, const void* home)
{
    return target(psp_track_peek(link), home);
}

void lead(uint64_t* link, const LIST_HDR* to)
{
    const uint64_t address = reinterpret_cast<uintptr_t>(to) & LINK_ADDRESS;
    psp_track_poke(link, (psp_track_peek(link) & PIECE) | address << LINK_SHIFT);
}

LIST_HDR* get(const LIST_HDR* block, NODE_LINK link)
{
    return follow(word_of(block, link), block);
}

void set(LIST_HDR* block, NODE_LINK link, const LIST_HDR* to)
{
    lead(word_of(block, link), to);
}

// The order and below it the rank.
uint64_t turn_of(const LIST_HDR* block)
{
    const uint64_t high = psp_track_peek(word_of(block, 0)) & PIECE;
    const uint64_t middle = psp_track_peek(word_of(block, 1)) & PIECE;
    const uint64_t low = psp_track_peek(word_of(block, 2)) & PIECE;
    return (high << PIECE_BITS | middle) << PIECE_BITS | low;
}

// A node without links, of rank 0.
void make_node(LIST_HDR* block, BLOCK_ORDER order)
{
    const uint64_t turn = order << RANK_BITS;
    psp_track_poke(word_of(block, 0), turn >> 2 * PIECE_BITS);
    psp_track_poke(word_of(block, 1), turn >> PIECE_BITS & PIECE);
    psp_track_poke(word_of(block, 2), turn & PIECE);
}

uint64_t rank_of(const LIST_HDR* block)
{
    return psp_track_peek(word_of(block, 2)) & RANK;
}

void set_rank(LIST_HDR* block, uint64_t rank)
{
    uint64_t* const word = word_of(block, 2);
    psp_track_poke(word, (psp_track_peek(word) & ~RANK) | std::min(rank, RANK));
}

BLOCK_ORDER order_in(const LIST_CHUNK_HDR* chunk, uint32_t push)
{
    return uint64_t{chunk->label} * FREE_PUSHES + push;
}

bool goes_before(const LIST_HDR* a, const LIST_HDR* b)
{
    return turn_of(a) > turn_of(b); // orders differ, so that ranks do not count
}

// ---- The heap of the blocks of one size ----

void push_child(LIST_HDR* parent, LIST_HDR* child)
{
    LIST_HDR* const next = get(parent, FREE_CHILD);
    set(child, FREE_NEXT, next);
    set(child, FREE_PREV, parent);
    set(parent, FREE_CHILD, child);
    if (next)
        set(next, FREE_PREV, child);
}

// Makes one heap of two. The links of its root to siblings are left as they were.
LIST_HDR* meld(LIST_HDR* a, LIST_HDR* b)
{
    if (goes_before(b, a))
        std::swap(a, b);
    const uint64_t rank = rank_of(a);
    const uint64_t other = rank_of(b);
    set_rank(a, rank == other ? rank + 1 : std::max(rank, other));
    push_child(a, b);
    return a;
}

// Adds a block of rank 0 below a root.
void add_child(LIST_HDR* root, LIST_HDR* child)
{
    for (;;) {
        LIST_HDR* const front = get(root, FREE_CHILD);
        if (!front || rank_of(front) != rank_of(child))
            break;
        set(root, FREE_CHILD, get(front, FREE_NEXT));
        child = meld(front, child);
    }
    push_child(root, child);
}

// Makes one heap of a list of siblings; NULL of none.
LIST_HDR* meld_siblings(LIST_HDR* first)
{
    if (!first || !get(first, FREE_NEXT))
        return first;
    LIST_HDR* pairs = nullptr;
    while (first) {
        LIST_HDR* const a = first;
        LIST_HDR* const b = get(a, FREE_NEXT);
        first = b ? get(b, FREE_NEXT) : nullptr;
        LIST_HDR* const pair = b ? meld(a, b) : a;
        set(pair, FREE_NEXT, pairs);
        pairs = pair;
    }
    LIST_HDR* heap = nullptr;
    while (pairs) {
        LIST_HDR* const next = get(pairs, FREE_NEXT);
        heap = heap ? meld(heap, pairs) : pairs;
        pairs = next;
    }
    return heap;
}

// Takes a block out that is not the root: its children take its place.
void remove_child(LIST_HDR* block)
{
    LIST_HDR* const next = get(block, FREE_NEXT);
    LIST_HDR* const prev = get(block, FREE_PREV);
    LIST_HDR* const heir = meld_siblings(get(block, FREE_CHILD));
    if (heir) {
        set(heir, FREE_NEXT, next);
        set(heir, FREE_PREV, prev);
    }
    if (next)
        set(next, FREE_PREV, heir ? heir : prev);
    set(prev, get(prev, FREE_CHILD) == block ? FREE_CHILD : FREE_NEXT, heir ? heir : next);
}

// ---- The tree of sizes ----

// A node on the way down, NULL at the end, and the link that leads to it.
struct STEP {
    uint64_t* place;
    LIST_HDR* node;
};

STEP step_from(uint64_t* place, const void* home)
{
    return {place, follow(place, home)};
}

// One step down, to where a size is to be sought. No branch decides: nothing could foretell it.
STEP step_down(const LIST_HDR* node, uint32_t size)
{
    const uint64_t less = psp_track_peek(word_of(node, FREE_LESS));
    const uint64_t more = psp_track_peek(word_of(node, FREE_MORE));
    const int64_t longer = (int64_t{node->size} - int64_t{size}) >> 63; // -1 or 0
    const uint64_t word = less ^ ((less ^ more) & static_cast<uint64_t>(longer));
    return {word_of(node, FREE_LESS) - longer, target(word, node)};
}

// Makes `block` the root that `place` leads to, with the sides of the one that was it.
void succeed(uint64_t* place, const LIST_HDR* root, LIST_HDR* block)
{
    set(block, FREE_LESS, get(root, FREE_LESS));
    set(block, FREE_MORE, get(root, FREE_MORE));
    block->back |= LIST_FIRST;
    lead(place, block);
}

void add_to_size(STEP step, LIST_HDR* block)
{
    if (goes_before(step.node, block)) {
        add_child(step.node, block);
        return;
    }
    succeed(step.place, step.node, block);
    step.node->back &= ~LIST_FIRST;
    push_child(block, step.node);
}

// Parts a tree into what is shorter and what is longer than a block, which comes above it.
void part(LIST_HDR* tree, LIST_HDR* block)
{
    uint64_t* less = word_of(block, FREE_LESS);
    uint64_t* more = word_of(block, FREE_MORE);
    while (tree) {
        uint64_t*& side = tree->size < block->size ? less : more;
        lead(side, tree);
        side = word_of(tree, tree->size < block->size ? FREE_MORE : FREE_LESS);
        tree = follow(side, block);
    }
    lead(less, nullptr);
    lead(more, nullptr);
}

// Puts one tree where `place` leads, of two of which one has the shorter sizes only.
void join(uint64_t* place, LIST_HDR* less, LIST_HDR* more)
{
    while (less && more) {
        if (free_index_above(less->size, more->size)) {
            lead(place, less);
            place = word_of(less, FREE_MORE);
            less = get(less, FREE_MORE);
        } else {
            lead(place, more);
            place = word_of(more, FREE_LESS);
            more = get(more, FREE_LESS);
        }
    }
    lead(place, less ? less : more);
}

void insert_by_size(FREE_INDEX& index, LIST_HDR* block)
{
    const uint32_t size = block->size;
    STEP step = step_from(&index.sizes, block);
    while (step.node && !free_index_above(size, step.node->size)) {
        if (step.node->size == size) {
            add_to_size(step, block);
            return;
        }
        step = step_down(step.node, size);
    }
    part(step.node, block);
    block->back |= LIST_FIRST;
    lead(step.place, block);
}

// The link that leads to a root.
uint64_t* place_of(FREE_INDEX& index, const LIST_HDR* root)
{
    STEP step = step_from(&index.sizes, root);
    while (step.node != root)
        step = step_down(step.node, root->size);
    return step.place;
}

void remove_root(uint64_t* place, LIST_HDR* root)
{
    if (LIST_HDR* const heir = meld_siblings(get(root, FREE_CHILD)))
        succeed(place, root, heir);
    else
        join(place, get(root, FREE_LESS), get(root, FREE_MORE));
    root->back &= ~LIST_FIRST;
}

// Whether `a` is found before `b`, where both are long enough.
bool is_better(const LIST_HDR* a, const LIST_HDR* b)
{
    return a->size != b->size ? a->size < b->size : goes_before(a, b);
}

// ---- The block aside ----

void set_aside(FREE_INDEX& index, LIST_HDR* block, BLOCK_ORDER order)
{
    if (index.aside)
        insert_by_size(index, index.aside);
    make_node(block, order);
    index.aside = block;
}

void remove(FREE_INDEX& index, LIST_HDR* block)
{
    if (block == index.aside)
        index.aside = nullptr;
    else if ((block->back & LIST_FIRST) != 0)
        remove_root(place_of(index, block), block);
    else
        remove_child(block);
}

// ---- Blocks without payload ----

uint32_t place_in(const LIST_CHUNK_HDR* chunk, const LIST_HDR* block)
{
    return list_distance(list_first_block(chunk), block) / LIST_UNIT + FRONT;
}

void push_empty(LIST_CHUNK_HDR* chunk, LIST_HDR* block, uint32_t push)
{
    const uint32_t place = place_in(chunk, block);
    list_set_back(block, push * LIST_UNIT);
    block->ptr.empty = {chunk->empties, 0};
    if (chunk->empties != 0)
        free_index_empty(chunk, chunk->empties)->ptr.empty.prev = place;
    chunk->empties = place;
}

// Afterwards `back` leads to the chunk.
void remove_empty(LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    const LIST_EMPTY link = block->ptr.empty;
    if (link.next != 0)
        free_index_empty(chunk, link.next)->ptr.empty.prev = link.prev;
    (link.prev != 0 ? free_index_empty(chunk, link.prev)->ptr.empty.next : chunk->empties) =
        link.next;
    list_set_back(block, list_distance(list_first_block(chunk), block));
}

LIST_HDR* take_empty(LIST_ALLOCATOR_ENTRY* alctr)
{
    for (LIST_CHUNK_HDR* chunk = alctr->chunks; chunk; chunk = chunk->next) {
        if (LIST_HDR* const block = free_index_empty(chunk, chunk->empties)) {
            remove_empty(chunk, block);
            return block;
        }
    }
    alctr->empties = 0;
    return nullptr;
}

// ---- New numbers ----

template <class Visit>
void visit_free_blocks(const LIST_CHUNK_HDR* chunk, Visit visit)
{
    for (LIST_HDR* block = list_first_block(chunk); block; block = list_upper(block)) {
        if (list_is_free(block))
            visit(block);
    }
}

// Numbers the free blocks of a chunk from 0 on, in the order that they have.
void renumber_pushes(FREE_INDEX& index, LIST_CHUNK_HDR* chunk)
{
    uint32_t count = 0;
    LIST_HDR* heap = nullptr;
    visit_free_blocks(chunk, [&](LIST_HDR* block) {
        ++count;
        if (block->size == 0)
            return;
        remove(index, block);
        make_node(block, free_index_order(block));
        heap = heap ? meld(heap, block) : block;
    });
    chunk->pushes = count;
    LIST_HDR* empty = free_index_empty(chunk, chunk->empties);
    while (count-- > 0) {
        if (empty && (!heap || free_index_push(empty) > free_index_push(heap))) {
            list_set_back(empty, count * LIST_UNIT);
            empty = free_index_empty(chunk, empty->ptr.empty.next);
        } else {
            LIST_HDR* const block = heap;
            heap = meld_siblings(get(block, FREE_CHILD));
            make_node(block, order_in(chunk, count));
            insert_by_size(index, block);
        }
    }
}

// Ranks begin anew: they save time, and decide nothing.
void relabel(LIST_CHUNK_HDR* chunk, uint32_t label)
{
    chunk->label = label;
    visit_free_blocks(chunk, [chunk](LIST_HDR* block) {
        if (block->size == 0)
            return;
        LIST_HDR* const links[] = {get(block, FREE_LESS), get(block, FREE_MORE),
                                   get(block, FREE_CHILD)};
        make_node(block, order_in(chunk, free_index_push(block)));
        for (uint32_t i = 0; i < 3; ++i)
            set(block, static_cast<NODE_LINK>(i), links[i]);
    });
}

} // namespace

uint32_t free_index_label(LIST_ALLOCATOR_ENTRY* alctr)
{
    LIST_CHUNK_HDR* chunk = alctr->chunks;
    if (!chunk)
        return 0;
    if (chunk->label == FREE_LABELS - 1) {
        while (chunk->next)
            chunk = chunk->next;
        for (uint32_t label = 0; chunk; chunk = chunk->prev)
            relabel(chunk, label++);
    }
    return alctr->chunks->label + 1;
}

void free_index_insert(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    if (chunk->pushes == FREE_PUSHES)
        renumber_pushes(alctr->index, chunk);
    const uint32_t push = chunk->pushes++;
    block->back |= LIST_FREE;
    if (block->size == 0) {
        push_empty(chunk, block, push);
        alctr->empties = 1;
        return;
    }
    list_set_back(block, list_distance(list_first_block(chunk), block));
    set_aside(alctr->index, block, order_in(chunk, push));
}

void free_index_remove(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block)
{
    if (block->size == 0)
        remove_empty(chunk, block);
    else
        remove(alctr->index, block);
}

void free_index_grow(LIST_ALLOCATOR_ENTRY* alctr, LIST_CHUNK_HDR* chunk, LIST_HDR* block,
                     uint32_t size)
{
    FREE_INDEX& index = alctr->index;
    if (block->size == 0) {
        const uint32_t push = free_index_push(block);
        remove_empty(chunk, block);
        set_aside(index, block, order_in(chunk, push));
    } else if (block != index.aside) {
        remove(index, block);
        set_aside(index, block, free_index_order(block));
    }
    block->size = size;
}

LIST_HDR* free_index_take(LIST_ALLOCATOR_ENTRY* alctr, uint32_t size)
{
    if (size == 0 && alctr->empties != 0) {
        if (LIST_HDR* const empty = take_empty(alctr))
            return empty;
    }
    FREE_INDEX& index = alctr->index;
    STEP best = {};
    for (STEP step = step_from(&index.sizes, alctr->chunks); step.node;) {
        const bool fits = step.node->size >= size;
        best = fits ? step : best;
        step = step_down(step.node, size);
    }
    LIST_HDR* const aside = index.aside;
    if (aside && aside->size >= size && (!best.node || is_better(aside, best.node))) {
        if (!list_is_cut(aside, size))
            index.aside = nullptr;
        return aside;
    }
    if (best.node) {
        remove_root(best.place, best.node);
        if (list_is_cut(best.node, size))
            set_aside(index, best.node, free_index_order(best.node));
    }
    return best.node;
}

// ---- What the nodes say ----

LIST_HDR* free_index_top(const LIST_ALLOCATOR_ENTRY* alctr)
{
    return follow(&alctr->index.sizes, alctr->chunks);
}

LIST_HDR* free_index_link(const LIST_HDR* block, NODE_LINK link)
{
    return get(block, link);
}

LIST_HDR* free_index_empty(const LIST_CHUNK_HDR* chunk, uint32_t place)
{
    if (place == 0)
        return nullptr;
    return list_block_at(list_first_block(chunk), size_t{place - FRONT} * LIST_UNIT);
}

BLOCK_ORDER free_index_order(const LIST_HDR* block)
{
    return turn_of(block) >> RANK_BITS;
}

uint32_t free_index_push(const LIST_HDR* block)
{
    return block->size == 0 ? list_back(block) / LIST_UNIT
                            : static_cast<uint32_t>(free_index_order(block) % FREE_PUSHES);
}
