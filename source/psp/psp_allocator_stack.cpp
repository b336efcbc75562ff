// The stack allocator: for data that dies together.
//
// Blocks are cut from the start of a chunk upwards and have no header; they cannot be freed or
// resized, only the whole tag is emptied. A request is served by the newest chunk that has enough
// left. That is nearly always the newest chunk of all with anything left, and costs a handful of
// instructions; chunks without space wait on a list for the tag to be emptied.
//
// The chunks in between are the nodes of a tree in the order of their age, with the newest at one
// end: each knows the most that a chunk of either subtree has left, so that one way from the root
// finds the newest with enough. The links take the place of the list's, the two figures lie in the
// chunk's own free space, of which there are at least their 8 bytes. The tree is a treap; the ways
// in it are as long as the logarithm of the chunks.
//
// Nothing here locks or jumps; the only memory that is taken is the large-block layer's.

#include <algorithm>

#include "psp_mem_data_int.h"
#include "psp_track.h"
#include "pspint.h"

namespace {

constexpr size_t UNIT = 8;          // blocks are multiples of this
constexpr size_t CHUNK_SIZE = 4096; // smallest payload of a chunk

// ---- Chunks behind the newest ----

STACK_CHUNK_TAIL* tail_of(const STACK_CHUNK_HDR* chunk)
{
    auto* const payload = reinterpret_cast<std::byte*>(const_cast<STACK_CHUNK_HDR*>(chunk) + 1);
    return reinterpret_cast<STACK_CHUNK_TAIL*>(payload + chunk->offset + chunk->left) - 1;
}

void set_tail(STACK_CHUNK_HDR* chunk, STACK_CHUNK_TAIL value)
{
    STACK_CHUNK_TAIL* const tail = tail_of(chunk);
    psp_track_open(tail, sizeof(*tail));
    *tail = value;
    psp_track_close(tail, sizeof(*tail));
}

uint32_t most_left(const STACK_CHUNK_HDR* tree)
{
    if (!tree)
        return 0;
    const STACK_CHUNK_TAIL below = stack_chunk_tail(tree);
    return std::max({tree->left, below.newer, below.older});
}

void set_newer(STACK_CHUNK_HDR* tree, STACK_CHUNK_HDR* newer)
{
    tree->newer = newer;
    set_tail(tree, {most_left(newer), stack_chunk_tail(tree).older});
}

void set_older(STACK_CHUNK_HDR* tree, STACK_CHUNK_HDR* older)
{
    tree->older = older;
    set_tail(tree, {stack_chunk_tail(tree).newer, most_left(older)});
}

// One tree of two; all chunks of the first are newer.
STACK_CHUNK_HDR* join(STACK_CHUNK_HDR* newer, STACK_CHUNK_HDR* older)
{
    if (!newer || !older)
        return newer ? newer : older;
    if (stack_chunk_rank(newer) > stack_chunk_rank(older)) {
        set_older(newer, join(newer->older, older));
        return newer;
    }
    set_newer(older, join(newer, older->newer));
    return older;
}

STACK_CHUNK_HDR* with_newest(STACK_CHUNK_HDR* tree, STACK_CHUNK_HDR* chunk)
{
    chunk->newer = chunk->older = nullptr;
    set_tail(chunk, {0, 0});
    return join(chunk, tree);
}

STACK_CHUNK_HDR* without_newest(STACK_CHUNK_HDR* tree, STACK_CHUNK_HDR** newest)
{
    if (!tree->newer) {
        *newest = tree;
        return tree->older;
    }
    set_newer(tree, without_newest(tree->newer, newest));
    return tree;
}

// ---- Allocation ----

STACK_CHUNK_HDR* stack_add_chunk(const STACK_ALLOCATOR_ENTRY* alctr, size_t size)
{
    const size_t inner = std::max(size, alctr->blocksize);
    size_t whole = inner + sizeof(STACK_CHUNK_HDR);
    auto* const chunk = static_cast<STACK_CHUNK_HDR*>(psp_allocLargeBlock(&whole, nullptr));
    if (!chunk)
        return nullptr;
    chunk->prev = chunk->next = nullptr;
    chunk->offset = 0;
    chunk->left = static_cast<uint32_t>(inner);
    psp_track_close(chunk + 1, inner);
    return chunk;
}

void push_full(STACK_ALLOCATOR_ENTRY* alctr, STACK_CHUNK_HDR* chunk)
{
    chunk->prev = nullptr;
    chunk->next = alctr->full_chunks;
    if (chunk->next)
        chunk->next->prev = chunk;
    alctr->full_chunks = chunk;
}

// A request in bytes, and the same as whole units.
struct REQUEST {
    size_t size;
    size_t taken;
};

// Cuts a block from a chunk that has enough left.
void* cut_block(STACK_ALLOCATOR_ENTRY* alctr, STACK_CHUNK_HDR* chunk, REQUEST request)
{
    std::byte* const block = reinterpret_cast<std::byte*>(chunk + 1) + chunk->offset;
    chunk->offset += static_cast<uint32_t>(request.taken);
    chunk->left -= static_cast<uint32_t>(request.taken);
    mem_info_add(alctr->mem_info.used, request.taken);
    psp_track_fresh(block, request.size);
    return block;
}

// Cuts a block from the newest chunk of a tree that has enough left; there is one. The result is
// the tree without the chunk, if that became full.
STACK_CHUNK_HDR* cut_behind(STACK_ALLOCATOR_ENTRY* alctr, STACK_CHUNK_HDR* tree, REQUEST request,
                            void** block)
{
    if (stack_chunk_tail(tree).newer >= request.taken) {
        set_newer(tree, cut_behind(alctr, tree->newer, request, block));
        return tree;
    }
    if (tree->left < request.taken) {
        set_older(tree, cut_behind(alctr, tree->older, request, block));
        return tree;
    }
    *block = cut_block(alctr, tree, request);
    if (tree->left != 0)
        return tree;
    STACK_CHUNK_HDR* const rest = join(tree->newer, tree->older);
    push_full(alctr, tree);
    return rest;
}

void* cut_new_chunk(STACK_ALLOCATOR_ENTRY* alctr, REQUEST request)
{
    STACK_CHUNK_HDR* const chunk = stack_add_chunk(alctr, request.taken);
    if (!chunk)
        return nullptr;
    void* const block = cut_block(alctr, chunk, request);
    if (chunk->left == 0) {
        push_full(alctr, chunk);
        return block;
    }
    if (alctr->partial_chunks)
        alctr->behind = with_newest(alctr->behind, alctr->partial_chunks);
    alctr->partial_chunks = chunk;
    return block;
}

// The newest chunk gives its last bytes; the one behind it takes its place.
void* cut_last(STACK_ALLOCATOR_ENTRY* alctr, REQUEST request)
{
    STACK_CHUNK_HDR* const chunk = alctr->partial_chunks;
    void* const block = cut_block(alctr, chunk, request);
    push_full(alctr, chunk);
    alctr->partial_chunks = nullptr;
    if (alctr->behind) {
        alctr->behind = without_newest(alctr->behind, &alctr->partial_chunks);
        alctr->partial_chunks->prev = alctr->partial_chunks->next = nullptr;
    }
    return block;
}

// All but the usual case, in which the newest chunk keeps something.
[[gnu::noinline]] void* alloc_elsewhere(STACK_ALLOCATOR_ENTRY* alctr, REQUEST request)
{
    const STACK_CHUNK_HDR* const newest = alctr->partial_chunks;
    if (newest && newest->left >= request.taken)
        return cut_last(alctr, request);
    if (!alctr->behind || most_left(alctr->behind) < request.taken)
        return cut_new_chunk(alctr, request);
    void* block = nullptr;
    alctr->behind = cut_behind(alctr, alctr->behind, request, &block);
    return block;
}

// ---- Release ----

// The next chunk to go: from the newest to the oldest with space left, then the full ones. Turning
// the tree until its newest chunk is the root costs a step a chunk in all; what the subtrees have
// left is not kept up any more.
STACK_CHUNK_HDR* take_chunk(STACK_ALLOCATOR_ENTRY* alctr)
{
    if (STACK_CHUNK_HDR* const newest = alctr->partial_chunks) {
        alctr->partial_chunks = nullptr;
        return newest;
    }
    if (STACK_CHUNK_HDR* tree = alctr->behind) {
        while (STACK_CHUNK_HDR* const newer = tree->newer) {
            tree->newer = newer->older;
            newer->older = tree;
            tree = newer;
        }
        alctr->behind = tree->older;
        return tree;
    }
    STACK_CHUNK_HDR* const full = alctr->full_chunks;
    if (full)
        alctr->full_chunks = full->next;
    return full;
}

} // namespace

STACK_CHUNK_TAIL stack_chunk_tail(const STACK_CHUNK_HDR* chunk)
{
    const STACK_CHUNK_TAIL* const tail = tail_of(chunk);
    psp_track_open(tail, sizeof(*tail));
    const STACK_CHUNK_TAIL value = *tail;
    psp_track_close(tail, sizeof(*tail));
    return value;
}

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
        return alloc_elsewhere(entry, {size, taken});
    return cut_block(entry, chunk, {size, taken});
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
    free_large_blocks([entry] { return take_chunk(entry); });
}

void stack_allocator_get_size(size_t* size, const void*)
{
    *size = 0;
}

void stack_allocator_mem_info(const void* alctr, PSP_TAG_MEM_INFO* mem_info)
{
    *mem_info = mem_info_load(static_cast<const STACK_ALLOCATOR_ENTRY*>(alctr)->mem_info);
}
