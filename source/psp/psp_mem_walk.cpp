// The walk over the memory layer: see psp_mem_walk.h.
//
// Each allocator is looked at from two sides: along its lists, and along the memory of its chunks
// from the first byte to the last. What both sides see must be the same.

#include "psp_mem_walk.h"

#include <algorithm>
#include <bit>
#include <initializer_list>
#include <utility>

#include "psp_list_row.h"

namespace {

constexpr MEM_WALK damaged(MEM_DAMAGE damage, const void* place)
{
    return {damage, place, 0};
}

constexpr MEM_WALK sound(size_t held)
{
    return {MEM_DAMAGE::NONE, nullptr, held};
}

bool failed(const MEM_WALK& walk)
{
    return walk.damage != MEM_DAMAGE::NONE;
}

uintptr_t address(const void* ptr)
{
    return reinterpret_cast<uintptr_t>(ptr);
}

bool aligned(const void* ptr, size_t unit)
{
    return address(ptr) % unit == 0;
}

bool counts(const PSP_MEM_INFO& info, size_t current)
{
    return info.current == current && info.max >= current;
}

// ---- The rows of blocks of a list allocator ----

uintptr_t end_of(const LIST_CHUNK_HDR* chunk)
{
    return address(chunk + 1) + chunk->size;
}

// Whether a block's header can be at this address of a chunk.
bool can_start_at(const LIST_CHUNK_HDR* chunk, const LIST_HDR* block)
{
    const uintptr_t first = address(list_first_block(chunk));
    return address(block) >= first && address(block) + sizeof(LIST_HDR) <= end_of(chunk) &&
           (address(block) - first) % LIST_UNIT == 0;
}

// Whether the marks of a block are those of its place in the row.
bool is_marked(const LIST_CHUNK_HDR* chunk, const LIST_HDR* block, const LIST_HDR* free_below)
{
    if (list_is_last(block) != (address(list_next_block(block)) == end_of(chunk)))
        return false;
    if (!list_is_free(block))
        return block->ptr.chunk == chunk &&
               list_back(block) == (free_below ? list_distance(free_below, block) : 0);
    return block->size == 0 ? list_back(block) / LIST_UNIT < chunk->pushes
                            : list_chunk_of_free(block) == chunk;
}

// Goes from block to block through a chunk.
MEM_WALK walk_row(const LIST_CHUNK_HDR* chunk)
{
    size_t in_use = 0;
    const LIST_HDR* free_below = nullptr;
    for (const LIST_HDR* p = list_first_block(chunk); address(p) != end_of(chunk);
         p = list_next_block(p)) {
        if (!can_start_at(chunk, p) || p->size % LIST_UNIT != 0 ||
            p->size > end_of(chunk) - address(p + 1))
            return damaged(MEM_DAMAGE::BLOCK_LENGTH, p);
        if (list_is_free(p) && free_below)
            return damaged(MEM_DAMAGE::FREE_NEIGHBORS, p);
        if (!is_marked(chunk, p, free_below))
            return damaged(MEM_DAMAGE::BLOCK_STATE, p);
        free_below = list_is_free(p) ? p : nullptr;
        if (!free_below)
            ++in_use;
    }
    return in_use == 0 ? damaged(MEM_DAMAGE::CHUNK_EMPTY, chunk) : sound(0);
}

// The block in use that starts at an address, or NULL.
const LIST_HDR* live_block(const LIST_ALLOCATOR_ENTRY* alctr, const void* ptr)
{
    for (const LIST_CHUNK_HDR* chunk = alctr->chunks; chunk; chunk = chunk->next) {
        if (address(ptr) <= address(chunk) || address(ptr) >= end_of(chunk))
            continue;
        const LIST_HDR* p = list_first_block(chunk);
        while (can_start_at(chunk, p) && p + 1 < ptr)
            p = list_next_block(p);
        return p + 1 == ptr && !list_is_free(p) && p->ptr.chunk == chunk ? p : nullptr;
    }
    return nullptr;
}

// ---- Chunks ----

// The large block that is a chunk, or 0 bytes: its header and all that follows.
size_t large_block_bytes(const void* chunk)
{
    const void* const start = static_cast<const LARGE_BLOCK_HDR*>(chunk) - 1;
    if (!aligned(chunk, alignof(LARGE_BLOCK_HDR)) || !live_block(&LargeBlock, start))
        return 0;
    return static_cast<const LARGE_BLOCK_HDR*>(start)->size;
}

// Goes through the chunks of a tag's allocator. `look` gets each chunk with the bytes it has behind
// its header, and gives the damage in it.
template <class Chunk, class Look>
MEM_WALK walk_chunks(const Chunk* first, Look look)
{
    size_t held = 0;
    const Chunk* before = nullptr;
    for (const Chunk* chunk = first; chunk; before = chunk, chunk = chunk->next) {
        const size_t whole = large_block_bytes(chunk);
        if (whole == 0)
            return damaged(MEM_DAMAGE::CHUNK_PLACE, chunk);
        if (whole < sizeof(LARGE_BLOCK_HDR) + sizeof(Chunk))
            return damaged(MEM_DAMAGE::CHUNK_SIZE, chunk);
        if (chunk->prev != before)
            return damaged(MEM_DAMAGE::CHUNK_LINK, chunk);
        const MEM_WALK walk = look(chunk, whole - sizeof(LARGE_BLOCK_HDR) - sizeof(Chunk));
        if (failed(walk))
            return walk;
        held += whole;
    }
    return sound(held);
}

MEM_WALK walk_list_chunk(const LIST_CHUNK_HDR* chunk)
{
    if (chunk->size < sizeof(LIST_HDR) || chunk->size % LIST_UNIT != 0)
        return damaged(MEM_DAMAGE::CHUNK_SIZE, chunk);
    return walk_row(chunk);
}

// The chunks of a tag. Free-all leaves their bytes counted as they were: the counter may be higher.
MEM_WALK walk_list_of_tag(const LIST_ALLOCATOR_ENTRY* alctr)
{
    const MEM_WALK walk = walk_chunks(alctr->chunks, [](const LIST_CHUNK_HDR* chunk, size_t bytes) {
        return chunk->size == bytes ? walk_list_chunk(chunk)
                                    : damaged(MEM_DAMAGE::CHUNK_SIZE, chunk);
    });
    if (failed(walk))
        return walk;
    const MEM_WALK index = psp_walkFreeIndex(alctr);
    if (failed(index))
        return index;
    const PSP_MEM_INFO& counted = alctr->mem_info.free;
    if (counted.current < walk.held || counted.max < counted.current)
        return damaged(MEM_DAMAGE::COUNTER, alctr);
    return walk;
}

// ---- The size classes of a block allocator ----

constexpr size_t LARGEST_SMALL = 8192;
constexpr size_t LARGE_UNIT = 32;
constexpr size_t MOST_BLOCKS = 128;

// How a chunk is cut: the size of its blocks and their number. No length is cut in two ways.
struct CUT {
    size_t actual;
    size_t count;
};

CUT cut_of(size_t bytes)
{
    if (bytes > LARGEST_SMALL && (bytes - sizeof(BLOCK_HDR)) % LARGE_UNIT == 0)
        return {bytes - sizeof(BLOCK_HDR), 1};
    for (size_t actual = 16; actual <= LARGEST_SMALL; actual *= 2) {
        const size_t count = bytes / (actual + sizeof(BLOCK_HDR));
        if (count * (actual + sizeof(BLOCK_HDR)) == bytes && std::has_single_bit(count) &&
            count > 1 && count <= MOST_BLOCKS)
            return {actual, count};
    }
    return {0, 0};
}

size_t class_index(size_t actual)
{
    return static_cast<size_t>(std::countr_zero(actual)) - 4;
}

// Whether a block header is that of a block of this size in use.
bool says_in_use(const BLOCK_HDR* block, size_t actual)
{
    const BLOCK_SIZE size = block->size;
    if (size.actual != actual || size.requested > actual)
        return false;
    if (actual > LARGEST_SMALL)
        return actual - size.requested < LARGE_UNIT;
    return actual == 16 || size.requested > actual / 2;
}

const BLOCK_HDR* block_at(const BLOCK_CHUNK_HDR* chunk, CUT cut, size_t index)
{
    return reinterpret_cast<const BLOCK_HDR*>(address(chunk + 1) +
                                              index * (cut.actual + sizeof(BLOCK_HDR)));
}

// What is known of the blocks of one allocator.
struct BLOCK_TALLY {
    size_t blocks[BLOCK_CLASSES]; // in the chunks of a class
    size_t in_use[BLOCK_CLASSES]; // of them in use, as their headers say
    size_t used;                  // bytes requested
    size_t free;                  // bytes of free blocks
    size_t overhead;              // headers and rounding
};

MEM_WALK tally_chunk(BLOCK_TALLY& tally, const BLOCK_CHUNK_HDR* chunk, CUT cut)
{
    const bool large = cut.actual > LARGEST_SMALL;
    tally.overhead += sizeof(BLOCK_CHUNK_HDR) + cut.count * sizeof(BLOCK_HDR);
    for (size_t i = 0; i < cut.count; ++i) {
        const BLOCK_HDR* const block = block_at(chunk, cut, i);
        if (says_in_use(block, cut.actual)) {
            tally.used += block->size.requested;
            tally.overhead += cut.actual - block->size.requested;
            if (!large)
                ++tally.in_use[class_index(cut.actual)];
        } else if (large) {
            return damaged(MEM_DAMAGE::BLOCK_LENGTH, block);
        } else {
            tally.free += cut.actual;
        }
    }
    if (!large)
        tally.blocks[class_index(cut.actual)] += cut.count;
    return sound(0);
}

// The same of a chunk that is known to be sound.
CUT cut_of(const BLOCK_CHUNK_HDR* chunk)
{
    const auto* const block = reinterpret_cast<const LARGE_BLOCK_HDR*>(chunk) - 1;
    return cut_of(block->size - sizeof(LARGE_BLOCK_HDR) - sizeof(BLOCK_CHUNK_HDR));
}

// The size of the block whose header is at an address, 0 when there is none.
size_t size_of_block(const BLOCK_ALLOCATOR_ENTRY* alctr, const BLOCK_HDR* block)
{
    for (const BLOCK_CHUNK_HDR* chunk = alctr->chunks; chunk; chunk = chunk->next) {
        const CUT cut = cut_of(chunk);
        const uintptr_t offset = address(block) - address(chunk + 1); // wraps below the chunk
        const size_t step = cut.actual + sizeof(BLOCK_HDR);
        if (offset < cut.count * step)
            return offset % step == 0 ? cut.actual : 0;
    }
    return 0;
}

// Follows the free list of a class, whose blocks must be those that are not in use.
MEM_WALK walk_class(const BLOCK_ALLOCATOR_ENTRY* alctr, const BLOCK_TALLY& tally, size_t index)
{
    const BLOCK_INFO& info = alctr->blocks[index];
    const size_t actual = size_t{16} << index;
    size_t free_blocks = 0;
    for (const BLOCK_HDR* block = info.avail; block; block = block->next) {
        if (size_of_block(alctr, block) != actual)
            return damaged(MEM_DAMAGE::FREE_LINK, block);
        if (++free_blocks > tally.blocks[index])
            return damaged(MEM_DAMAGE::FREE_CYCLE, &info);
    }
    if (free_blocks + tally.in_use[index] != tally.blocks[index])
        return damaged(MEM_DAMAGE::BLOCK_STATE, &info);
    if (!std::has_single_bit(info.mult) || info.mult < 2 || info.mult > MOST_BLOCKS)
        return damaged(MEM_DAMAGE::REFILL, &info);
    return sound(0);
}

// ---- Stack tags ----

constexpr size_t STACK_UNIT = 8;

// A chunk with `bytes` behind its header.
MEM_WALK walk_stack_chunk(const STACK_ALLOCATOR_ENTRY* alctr, const STACK_CHUNK_HDR* chunk,
                          size_t bytes, bool full)
{
    if (bytes < alctr->blocksize || size_t{chunk->offset} + chunk->left != bytes ||
        chunk->offset % STACK_UNIT != 0)
        return damaged(MEM_DAMAGE::CHUNK_SIZE, chunk);
    if ((chunk->left == 0) != full)
        return damaged(MEM_DAMAGE::CHUNK_STATE, chunk);
    return sound(0);
}

MEM_WALK walk_stack_chunks(const STACK_ALLOCATOR_ENTRY* alctr, const STACK_CHUNK_HDR* first,
                           bool full, size_t* handed_out)
{
    return walk_chunks(first, [=](const STACK_CHUNK_HDR* chunk, size_t bytes) {
        const MEM_WALK walk = walk_stack_chunk(alctr, chunk, bytes, full);
        if (!failed(walk))
            *handed_out += chunk->offset;
        return walk;
    });
}

// What a tree of chunks with space left has handed out, and the most that one of them has left.
struct STACK_TALLY {
    size_t handed_out;
    uint32_t most_left;
};

// The ranks fall from parent to child, so that the way down comes to an end.
MEM_WALK walk_stack_tree(const STACK_ALLOCATOR_ENTRY* alctr, const STACK_CHUNK_HDR* tree,
                         STACK_TALLY* tally)
{
    constexpr size_t headers = sizeof(LARGE_BLOCK_HDR) + sizeof(STACK_CHUNK_HDR);
    const size_t whole = large_block_bytes(tree);
    if (whole == 0)
        return damaged(MEM_DAMAGE::CHUNK_PLACE, tree);
    if (whole < headers)
        return damaged(MEM_DAMAGE::CHUNK_SIZE, tree);
    const MEM_WALK own = walk_stack_chunk(alctr, tree, whole - headers, false);
    if (failed(own))
        return own;
    const STACK_CHUNK_TAIL tail = stack_chunk_tail(tree);
    size_t held = whole;
    *tally = {tree->offset, tree->left};
    for (const auto& [below, most] :
         {std::pair{tree->newer, tail.newer}, std::pair{tree->older, tail.older}}) {
        STACK_TALLY part = {};
        if (below && stack_chunk_rank(below) >= stack_chunk_rank(tree))
            return damaged(MEM_DAMAGE::CHUNK_LINK, below);
        const MEM_WALK walk = below ? walk_stack_tree(alctr, below, &part) : sound(0);
        if (failed(walk))
            return walk;
        if (part.most_left != most)
            return damaged(MEM_DAMAGE::BOUND, tree);
        held += walk.held;
        *tally = {tally->handed_out + part.handed_out, std::max(tally->most_left, most)};
    }
    return sound(held);
}

bool is_stack_block(const STACK_CHUNK_HDR* chunk, const void* ptr)
{
    return address(ptr) - address(chunk + 1) < chunk->offset && aligned(ptr, STACK_UNIT);
}

bool stack_tree_holds(const STACK_CHUNK_HDR* tree, const void* ptr)
{
    return tree && (is_stack_block(tree, ptr) || stack_tree_holds(tree->newer, ptr) ||
                    stack_tree_holds(tree->older, ptr));
}

bool stack_holds(const STACK_ALLOCATOR_ENTRY* alctr, const void* ptr)
{
    if (alctr->partial_chunks && is_stack_block(alctr->partial_chunks, ptr))
        return true;
    for (const STACK_CHUNK_HDR* chunk = alctr->full_chunks; chunk; chunk = chunk->next)
        if (is_stack_block(chunk, ptr))
            return true;
    return stack_tree_holds(alctr->behind, ptr);
}

// ---- Tags ----

// A block of a tag: the bytes it has, SIZE_MAX where that cannot be told, and 0 for what is no
// block in use. The tag is known to be sound.
size_t block_bytes(const TAG_ENTRY* tag, const void* ptr)
{
    if (tag->t_fcns.alloc_fcn == list_allocator_alloc) {
        const auto* const list = static_cast<LIST_ALLOCATOR_ENTRY*>(tag->t_allocator);
        const LIST_HDR* const block = live_block(list, ptr);
        return block ? block->size : 0;
    }
    if (tag->t_fcns.alloc_fcn == block_allocator_alloc) {
        const BLOCK_HDR* const block = static_cast<const BLOCK_HDR*>(ptr) - 1;
        const auto* const entry = static_cast<BLOCK_ALLOCATOR_ENTRY*>(tag->t_allocator);
        const size_t actual = size_of_block(entry, block);
        return actual != 0 && says_in_use(block, actual) ? actual : 0;
    }
    if (tag->t_fcns.alloc_fcn == stack_allocator_alloc) {
        const auto* const stack = static_cast<STACK_ALLOCATOR_ENTRY*>(tag->t_allocator);
        return stack_holds(stack, ptr) ? SIZE_MAX : 0;
    }
    const auto* const legacy = static_cast<LEGACY_ALLOCATOR_ENTRY*>(tag->t_allocator);
    const LEGACY_HDR* hdr = legacy->a_first;
    while (hdr && hdr + 1 != ptr)
        hdr = hdr->next;
    return hdr ? SIZE_MAX : 0;
}

// Whether a record lies in the tag that holds the records.
bool is_record(const void* ptr)
{
    return live_block(&static_list_allocator, ptr) != nullptr;
}

} // namespace

// ---- The allocators ----

MEM_WALK psp_walkList(const LIST_ALLOCATOR_ENTRY* alctr)
{
    if (alctr->alloc_fcn == psp_allocLargeBlock)
        return walk_list_of_tag(alctr);
    size_t held = 0;
    const LIST_CHUNK_HDR* before = nullptr;
    for (const LIST_CHUNK_HDR* chunk = alctr->chunks; chunk; before = chunk, chunk = chunk->next) {
        if (!aligned(chunk, alignof(LIST_CHUNK_HDR)))
            return damaged(MEM_DAMAGE::CHUNK_PLACE, chunk);
        if (chunk->prev != before)
            return damaged(MEM_DAMAGE::CHUNK_LINK, chunk);
        const MEM_WALK walk = walk_list_chunk(chunk);
        if (failed(walk))
            return walk;
        held += sizeof(LIST_CHUNK_HDR) + chunk->size;
    }
    const MEM_WALK index = psp_walkFreeIndex(alctr);
    return failed(index) ? index : sound(held);
}

// A large block's headers stay counted as overhead when it goes: the counter may be higher by them.
MEM_WALK psp_walkBlock(const BLOCK_ALLOCATOR_ENTRY* alctr)
{
    constexpr size_t left_counted = sizeof(BLOCK_CHUNK_HDR) + sizeof(BLOCK_HDR);
    BLOCK_TALLY tally = {};
    tally.overhead = sizeof(BLOCK_ALLOCATOR_ENTRY);
    const MEM_WALK walk =
        walk_chunks(alctr->chunks, [&tally](const BLOCK_CHUNK_HDR* chunk, size_t bytes) {
            const CUT cut = cut_of(bytes);
            return cut.count == 0 ? damaged(MEM_DAMAGE::CHUNK_SIZE, chunk)
                                  : tally_chunk(tally, chunk, cut);
        });
    if (failed(walk))
        return walk;
    for (size_t i = 0; i < BLOCK_CLASSES; ++i) {
        const MEM_WALK in_class = walk_class(alctr, tally, i);
        if (failed(in_class))
            return in_class;
    }
    const PSP_TAG_MEM_INFO& info = alctr->mem_info;
    const bool counted = counts(info.used, tally.used) && counts(info.free, tally.free) &&
                         info.overhead.current >= tally.overhead &&
                         (info.overhead.current - tally.overhead) % left_counted == 0 &&
                         info.overhead.max >= info.overhead.current;
    return counted ? walk : damaged(MEM_DAMAGE::COUNTER, alctr);
}

// Free-all leaves the bytes handed out counted: the counter may be higher.
MEM_WALK psp_walkStack(const STACK_ALLOCATOR_ENTRY* alctr)
{
    size_t handed_out = 0;
    const MEM_WALK newest = walk_stack_chunks(alctr, alctr->partial_chunks, false, &handed_out);
    if (failed(newest))
        return newest;
    STACK_TALLY tally = {};
    const MEM_WALK behind =
        alctr->behind ? walk_stack_tree(alctr, alctr->behind, &tally) : sound(0);
    if (failed(behind))
        return behind;
    const MEM_WALK full = walk_stack_chunks(alctr, alctr->full_chunks, true, &handed_out);
    if (failed(full))
        return full;
    handed_out += tally.handed_out;
    const PSP_MEM_INFO& used = alctr->mem_info.used;
    if (used.current < handed_out || used.max < used.current)
        return damaged(MEM_DAMAGE::COUNTER, alctr);
    return sound(newest.held + behind.held + full.held);
}

// The heap looks after its blocks itself; only the links are this library's.
MEM_WALK psp_walkLegacy(const LEGACY_ALLOCATOR_ENTRY* alctr)
{
    const LEGACY_HDR* before = nullptr;
    for (const LEGACY_HDR* hdr = alctr->a_first; hdr; before = hdr, hdr = hdr->next) {
        if (!aligned(hdr, alignof(max_align_t)))
            return damaged(MEM_DAMAGE::CHUNK_PLACE, hdr);
        if (hdr->prev != before)
            return damaged(MEM_DAMAGE::CHUNK_LINK, hdr);
    }
    return sound(0);
}

MEM_WALK psp_walkLargeBlocks()
{
    const MEM_WALK walk = psp_walkList(&LargeBlock);
    if (failed(walk))
        return walk;
    size_t held = 0;
    for (const LIST_CHUNK_HDR* chunk = LargeBlock.chunks; chunk; chunk = chunk->next) {
        for (const LIST_HDR* p = list_first_block(chunk); p; p = list_upper(p)) {
            if (list_is_free(p))
                continue;
            const auto* const block = reinterpret_cast<const LARGE_BLOCK_HDR*>(p + 1);
            if (block->size <= sizeof(LARGE_BLOCK_HDR) || block->size > p->size)
                return damaged(MEM_DAMAGE::BLOCK_LENGTH, p);
            held += block->size;
        }
    }
    if (!counts(psp_mem_stats, held))
        return damaged(MEM_DAMAGE::COUNTER, &psp_mem_stats);
    if (psp_membuffer && ((psp_membuffer_used != 0) != (LargeBlock.chunks != nullptr) ||
                          (LargeBlock.chunks && LargeBlock.chunks != psp_membuffer)))
        return damaged(MEM_DAMAGE::BUFFER, psp_membuffer);
    return sound(held);
}

// ---- Tags, pools, and all of it ----

MEM_WALK psp_walkTag(const TAG_ENTRY* tag)
{
    const ALLOCATOR_ALLOC_FCN kind = tag->t_fcns.alloc_fcn;
    const void* const record = tag->t_allocator;
    if (kind == legacy_allocator_alloc)
        return psp_walkLegacy(static_cast<const LEGACY_ALLOCATOR_ENTRY*>(record));
    if (record != &static_list_allocator && !is_record(record))
        return damaged(MEM_DAMAGE::TAG_RECORD, tag);
    if (kind == list_allocator_alloc)
        return psp_walkList(static_cast<const LIST_ALLOCATOR_ENTRY*>(record));
    if (kind == block_allocator_alloc)
        return psp_walkBlock(static_cast<const BLOCK_ALLOCATOR_ENTRY*>(record));
    if (kind == stack_allocator_alloc)
        return psp_walkStack(static_cast<const STACK_ALLOCATOR_ENTRY*>(record));
    return damaged(MEM_DAMAGE::TAG_RECORD, tag);
}

MEM_WALK psp_walkPool(const PSP_POOL_CTX* pool)
{
    const TAG_ENTRY* const tag = getCorrectTag(pool->tag);
    size_t count = 0;
    for (const PSP_POOL_HDR* hdr = pool->next; hdr; hdr = hdr->next) {
        const size_t bytes = block_bytes(tag, hdr);
        if (bytes == 0)
            return damaged(MEM_DAMAGE::POOL_LINK, hdr);
        if (bytes < sizeof(PSP_POOL_HDR) || hdr->size > bytes - sizeof(PSP_POOL_HDR))
            return damaged(MEM_DAMAGE::POOL_SIZE, hdr);
        if (++count > pool->count)
            break;
    }
    return count == pool->count ? sound(0) : damaged(MEM_DAMAGE::POOL_COUNT, pool);
}

MEM_WALK psp_walkMemory()
{
    const MEM_WALK layer = psp_walkLargeBlocks();
    if (failed(layer))
        return layer;
    const MEM_WALK records = psp_walkTag(&static_list_tag);
    if (failed(records))
        return records;
    size_t held = records.held;
    const TAG_ENTRY* before = nullptr;
    for (const TAG_ENTRY* tag = taglisthead; tag; before = tag, tag = tag->t_next) {
        if (!is_record(tag) || tag->t_prev != before)
            return damaged(MEM_DAMAGE::TAG_LINK, tag);
        const MEM_WALK walk = psp_walkTag(tag);
        if (failed(walk))
            return walk;
        held += walk.held;
    }
    if (taglisttail != before)
        return damaged(MEM_DAMAGE::TAG_LINK, taglisttail);
    return held == layer.held ? sound(held) : damaged(MEM_DAMAGE::OWNER, nullptr);
}
