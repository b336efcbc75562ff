// The records of the memory layer: the tag, the table through which a tag reaches its allocator,
// what the allocators keep in front of and inside their memory, and the pools.
//
// The allocators lay out their chunks themselves, so the sizes of the headers are part of their
// algorithms; the assertions below hold them. Sizes inside chunks are 32-bit. The front end never
// asks an allocator for more than that, and the allocators do their rounding in size_t, so that
// nothing wraps before the large-block layer refuses it.
//
// Locks, outermost first: the tag's mutex, the static list tag's mutex, largeBlockSem. tagTabSem is
// taken inside a tag's mutex, and nothing inside it. No synchronisation object is made or deleted
// under any of them.
#pragma once

#include <cstddef>
#include <cstdint>

#include <pthread.h>

#include "psp/mem.h"
#include "psp/pool.h"
#include "psp/sync.h"
#include "psp_atomic.h"

// ---- The operations of an allocator. They run under the tag's mutex, if it has one. ----

// Releases the allocator's own record, after free-all; touches no block.
using ALLOCATOR_DESTROY_FCN = void (*)(void* alctr);

// A block of at least `size` bytes, or NULL.
using ALLOCATOR_ALLOC_FCN = void* (*)(size_t size, void* alctr);

// Resizes a block. One that moves keeps its contents only if `preserve` is not 0. NULL on failure:
// the old block stays valid.
using ALLOCATOR_REALLOC_FCN = void* (*)(const void* ptr, size_t newsize, void* alctr,
                                        int32_t preserve);

using ALLOCATOR_FREE_FCN = void (*)(const void* ptr, void* alctr);

// Releases every block; the allocator stays usable.
using ALLOCATOR_FREE_ALL_FCN = void (*)(void* alctr);

// The usable size of a block.
using ALLOCATOR_GET_SIZE_FCN = void (*)(size_t* size, const void* ptr);

using ALLOCATOR_MEM_INFO_FCN = void (*)(const void* alctr, PSP_TAG_MEM_INFO* mem_info);

struct ALLOCATOR_FCNS {
    ALLOCATOR_DESTROY_FCN destroy_fcn;
    ALLOCATOR_ALLOC_FCN alloc_fcn;
    ALLOCATOR_REALLOC_FCN realloc_fcn;
    ALLOCATOR_FREE_FCN free_fcn;
    ALLOCATOR_FREE_ALL_FCN free_all_fcn;
    ALLOCATOR_GET_SIZE_FCN get_size_fcn; // NULL in legacy tags
    ALLOCATOR_MEM_INFO_FCN mem_info_fcn; // NULL in the static list tag
};

static_assert(sizeof(ALLOCATOR_FCNS) == 7 * sizeof(void*));

// ---- Tags (pspmem.cpp) ----

struct TAG_ENTRY {
    TAG_ENTRY* t_next;             // links of the list of live tags, in order of creation
    TAG_ENTRY* t_prev;             //
    PSP_SEM t_sem;                 // the tag's mutex, or PSP_SEM_INVALID
    jmp_buf* t_jmpbuf;             // where a failed allocation goes; NULL: a NULL result
    void* t_allocator;             // the allocator's record
    ALLOCATOR_FCNS t_fcns;         // its operations, here for one access less
    PSP_DESTROY_FCN t_destroy_fcn; // called when the tag is destroyed; may be NULL
    void* t_destroy_ctx;           // its argument
};

static_assert(offsetof(TAG_ENTRY, t_fcns) == 40 && sizeof(TAG_ENTRY) == 112);

struct LIST_ALLOCATOR_ENTRY;

extern PSP_MEMTAG tagGlobal;                       // behind PSP_GLOBAL_TAG
extern TAG_ENTRY* taglisthead;                     // all tags but the static one
extern TAG_ENTRY* taglisttail;                     //
extern PSP_SEM tagTabSem;                          // guards the list of tags
extern pthread_key_t tagTLSkey;                    // holds each thread's own tag
extern LIST_ALLOCATOR_ENTRY static_list_allocator; //
extern TAG_ENTRY static_list_tag;                  // owns every tag's and allocator's record

// The tag behind a special value; any other value is returned as it is. NULL when the thread's tag
// cannot be made.
PSP_MEMTAG getCorrectTag(PSP_MEMTAG tag);

// ---- Counters, written under a lock and read without ----

inline void mem_info_add(PSP_MEM_INFO& info, size_t size)
{
    const size_t current = info.current + size;
    relaxed_store(info.current, current);
    if (current > info.max)
        relaxed_store(info.max, current);
}

inline void mem_info_sub(PSP_MEM_INFO& info, size_t size)
{
    relaxed_store(info.current, info.current - size);
}

inline PSP_MEM_INFO mem_info_load(const PSP_MEM_INFO& info)
{
    return {relaxed_load(info.current), relaxed_load(info.max)};
}

inline PSP_TAG_MEM_INFO mem_info_load(const PSP_TAG_MEM_INFO& info)
{
    return {mem_info_load(info.used), mem_info_load(info.free), mem_info_load(info.overhead)};
}

// ---- Optional mutexes ----

inline void mem_enter(PSP_SEM sem)
{
    if (sem != PSP_SEM_INVALID)
        psp_syncEnterExcl(sem);
}

inline void mem_exit(PSP_SEM sem)
{
    if (sem != PSP_SEM_INVALID)
        psp_syncExitExcl(sem);
}

// `size` raised to a multiple of `unit`, a power of two.
constexpr size_t round_up(size_t size, size_t unit)
{
    return (size + unit - 1) & ~(unit - 1);
}

// ---- List allocator (psp_allocator_list.cpp, psp_list_row.h, psp_free_index.h) ----

struct LIST_HDR;

struct LIST_CHUNK_HDR {
    uint32_t size;        // bytes of the chunk after this header
    uint32_t label;       // falls along the list of chunks
    LIST_CHUNK_HDR* next; // links of the allocator's chunks
    LIST_CHUNK_HDR* prev; //
    uint32_t pushes;      // number of the next block of this chunk to become free
    uint32_t empties;     // place of its free block without payload that was pushed last, or 0
};

// A free block without payload between the others of its chunk, by places.
struct LIST_EMPTY {
    uint32_t next; // pushed before
    uint32_t prev; // pushed after
};

struct LIST_HDR {
    uint32_t size; // payload bytes after this header
    uint32_t back; // flags, and how far back a header is that must be found: see psp_list_row.h
    union {
        LIST_CHUNK_HDR* chunk; // while in use: where the block belongs
        uint64_t word;         // while free: the first word of its node in the index
        LIST_EMPTY empty;      // while free without payload
    } ptr;
};

static_assert(sizeof(LIST_CHUNK_HDR) == 32 && sizeof(LIST_HDR) == 16);

// The free blocks of an allocator.
struct FREE_INDEX {
    uint64_t sizes;  // the link to the top of the tree of sizes
    LIST_HDR* aside; // the block that changed last, which is not in the tree; or NULL
};

struct LIST_MEM_INFO {
    PSP_MEM_INFO used; // handed out
    PSP_MEM_INFO free; // chunks held, counted by their source
};

struct LIST_ALLOCATOR_ENTRY {
    LIST_CHUNK_HDR* chunks; // newest first
    uint32_t blocksize;     // smallest payload of a new chunk
    uint32_t empties;       // not 0: there may be free blocks without payload
    void* (*alloc_fcn)(size_t* size, PSP_MEM_INFO* mem_info); // source of chunks; may enlarge
    void (*free_fcn)(void* ptr, PSP_MEM_INFO* mem_info);      // sink of chunks
    LIST_MEM_INFO mem_info;
    FREE_INDEX index;
};

// Its size decides where the record of the next tag lies.
static_assert(sizeof(LIST_ALLOCATOR_ENTRY) == 80);

// The allocator itself, for tags and for the large-block layer. A size that does not fit a chunk
// with its headers gives NULL.
void* internal_alloc(size_t size, LIST_ALLOCATOR_ENTRY* alctr);
void* internal_realloc(const void* ptr, size_t newsize, LIST_ALLOCATOR_ENTRY* alctr,
                       int32_t preserve);
void internal_free(const void* ptr, LIST_ALLOCATOR_ENTRY* alctr);

void* list_allocator_create(ALLOCATOR_FCNS* fcns); // a new record, or NULL; fills the table
void list_allocator_destroy(void* alctr);
void* list_allocator_alloc(size_t size, void* alctr);
void* list_allocator_realloc(const void* ptr, size_t newsize, void* alctr, int32_t preserve);
void list_allocator_free(const void* ptr, void* alctr);
void list_allocator_free_all(void* alctr);
void list_allocator_get_size(size_t* size, const void* ptr);
void list_allocator_mem_info(const void* alctr, PSP_TAG_MEM_INFO* mem_info);

// The list allocator over 4096-byte chunks from the large-block layer, as every list tag has it.
LIST_ALLOCATOR_ENTRY list_allocator_empty();

// ---- Large blocks (psp_large_block.cpp) ----

struct LARGE_BLOCK_HDR {
    size_t size; // the large block in bytes, this header included
};

static_assert(sizeof(LARGE_BLOCK_HDR) == 8);

extern LIST_ALLOCATOR_ENTRY LargeBlock; // the list allocator over 4 MiB chunks
extern int32_t psp_membuffer_used;      // whether the caller's buffer is handed out

// Chunks for the allocators. `*size` is not changed; `mem_info`, if not NULL, counts the block with
// its header. Reallocation keeps the contents; on NULL the old block stays valid.
void* psp_allocLargeBlock(size_t* size, PSP_MEM_INFO* mem_info);
void* psp_reallocLargeBlock(void* ptr, size_t size);
void psp_freeLargeBlock(void* ptr, PSP_MEM_INFO* mem_info);

// Gives back, without a statistics pointer, every chunk that `take` takes out of a list until it
// returns NULL. The mutex is recursive: a run of chunks goes under one hold of it, short enough not
// to keep other tags waiting.
template <class Take>
void free_large_blocks(Take take)
{
    constexpr int run = 64;
    void* chunk = take();
    while (chunk) {
        const PSP_SEM sem = relaxed_load(largeBlockSem);
        mem_enter(sem);
        for (int i = 0; i < run && chunk; ++i) {
            psp_freeLargeBlock(chunk, nullptr);
            chunk = take();
        }
        mem_exit(sem);
    }
}

// Source and sink of LargeBlock: the heap within the limit, or the caller's buffer.
void* psp_malloc(size_t* size, PSP_MEM_INFO* mem_info);
void psp_free(void* ptr, PSP_MEM_INFO* mem_info);

// ---- Block allocator (psp_allocator_block.cpp) ----

struct BLOCK_SIZE {
    uint32_t requested; // what the caller asked for
    uint32_t actual;    // the size class, or for a large block the request raised to 32
};

struct BLOCK_HDR {
    union {
        BLOCK_SIZE size; // while in use
        BLOCK_HDR* next; // while free: the next free block of the class
    };
};

struct BLOCK_CHUNK_HDR {
    BLOCK_CHUNK_HDR* next;
    BLOCK_CHUNK_HDR* prev;
};

static_assert(sizeof(BLOCK_HDR) == 8 && sizeof(BLOCK_CHUNK_HDR) == 16);

struct BLOCK_INFO {
    BLOCK_HDR* avail; // free blocks of the class, last freed first
    uint32_t mult;    // number of blocks in the class's next chunk
};

inline constexpr size_t BLOCK_CLASSES = 10; // 16, 32, 64, ..., 8192

struct BLOCK_ALLOCATOR_ENTRY {
    BLOCK_INFO blocks[BLOCK_CLASSES]; // one a class
    BLOCK_CHUNK_HDR* chunks;          // newest first
    PSP_TAG_MEM_INFO mem_info;        // used: requests; free: idle blocks; overhead: the rest
};

static_assert(offsetof(BLOCK_ALLOCATOR_ENTRY, chunks) == 160);

void* block_allocator_create(ALLOCATOR_FCNS* fcns);
void block_allocator_destroy(void* alctr);
void* block_allocator_alloc(size_t size, void* alctr);
void* block_allocator_realloc(const void* ptr, size_t newsize, void* alctr, int32_t preserve);
void block_allocator_free(const void* ptr, void* alctr);
void block_allocator_free_all(void* alctr);
void block_allocator_get_size(size_t* size, const void* ptr);
void block_allocator_mem_info(const void* alctr, PSP_TAG_MEM_INFO* mem_info);

// ---- Stack allocator (psp_allocator_stack.cpp) ----

struct STACK_CHUNK_HDR {
    union {
        STACK_CHUNK_HDR* prev;  // on the list of full chunks: the one that became full later
        STACK_CHUNK_HDR* newer; // in the tree: the subtree of newer chunks
    };
    union {
        STACK_CHUNK_HDR* next;  // on the list: the one that became full before
        STACK_CHUNK_HDR* older; // in the tree: the subtree of older chunks
    };
    uint32_t offset; // payload bytes handed out
    uint32_t left;   // payload bytes still free
};

// The end of the free bytes of a chunk in the tree: the most that any chunk of a subtree has left.
struct STACK_CHUNK_TAIL {
    uint32_t newer;
    uint32_t older;
};

static_assert(sizeof(STACK_CHUNK_HDR) == 24 && sizeof(STACK_CHUNK_TAIL) == 8);

struct STACK_ALLOCATOR_ENTRY {
    STACK_CHUNK_HDR* partial_chunks; // the newest chunk with space left
    STACK_CHUNK_HDR* full_chunks;    // those without; the last to become full first
    size_t blocksize;                // smallest payload of a new chunk
    PSP_TAG_MEM_INFO mem_info;       // used: handed out; the others stay 0
    STACK_CHUNK_HDR* behind;         // the tree of the other chunks with space left
};

// A parent in the tree has a higher rank than its children. The rank mixes the address, no two
// chunks have the same, and the tree is as deep as one built in random order.
inline uint64_t stack_chunk_rank(const STACK_CHUNK_HDR* chunk)
{
    const uint64_t mixed = reinterpret_cast<uintptr_t>(chunk) * 0x9E3779B97F4A7C15u;
    return (mixed ^ mixed >> 32) * 0xD6E8FEB86659FD93u;
}

STACK_CHUNK_TAIL stack_chunk_tail(const STACK_CHUNK_HDR* chunk); // of one in the tree

void* stack_allocator_create(ALLOCATOR_FCNS* fcns);
void stack_allocator_destroy(void* alctr);
void* stack_allocator_alloc(size_t size, void* alctr);
void* stack_allocator_realloc(const void* ptr, size_t newsize, void* alctr, int32_t preserve);
void stack_allocator_free(const void* ptr, void* alctr);
void stack_allocator_free_all(void* alctr);
void stack_allocator_get_size(size_t* size, const void* ptr);
void stack_allocator_mem_info(const void* alctr, PSP_TAG_MEM_INFO* mem_info);

// ---- Legacy allocator (psp_allocator_legacy.cpp) ----

struct LEGACY_HDR {
    LEGACY_HDR* prev; // the block allocated after this one
    LEGACY_HDR* next; // the block allocated before it
};

static_assert(sizeof(LEGACY_HDR) == 16);

struct LEGACY_ALLOCATOR_ENTRY {
    LEGACY_HDR* a_first; // the block allocated last
};

void* legacy_allocator_create(ALLOCATOR_FCNS* fcns);
void legacy_allocator_destroy(void* alctr);
void* legacy_allocator_alloc(size_t size, void* alctr);
void* legacy_allocator_realloc(const void* ptr, size_t newsize, void* alctr, int32_t preserve);
void legacy_allocator_free(const void* ptr, void* alctr);
void legacy_allocator_free_all(void* alctr);
void legacy_allocator_mem_info(const void* alctr, PSP_TAG_MEM_INFO* mem_info);

// ---- Pools (psppool.cpp) ----

struct PSP_POOL_HDR {
    PSP_POOL_HDR* next; // while idle: the object returned before this one
    size_t size;        // what the object was made for
};

static_assert(sizeof(PSP_POOL_HDR) == 16);

struct PSP_POOL_CTX {
    PSP_POOL_HDR* next;               // idle objects, the last returned first
    PSP_MEMTAG tag;                   // owner of this record and of the objects
    PSP_SEM sem;                      // the pool's mutex, or PSP_SEM_INVALID
    ZYN_BOOL_T local_tag;             // whether the tag is the pool's own
    uint32_t count;                   // idle objects
    uint32_t max_pooled_items;        // most idle objects kept
    PSP_POOL_SIZE_INFO size_info;     // recorded only
    PSP_POOL_CONSTRUCTOR constructor; // for new objects; may be NULL
    PSP_POOL_DESTRUCTOR destructor;   // before an object goes; may be NULL
    PSP_POOL_USERDATA userdata;       // first argument of both
};
