// Memory tags: the front end of every allocation.
//
// A tag is a record with a table of operations; this file checks arguments, resolves the special
// tags, takes the tag's mutex, calls the allocator and fills the block. It keeps the list of all
// tags, so that the last stop can release what is left. The records of tags and allocators
// themselves live in a tag in static storage, which is not in the list.
//
// An allocation may end in a longjmp: that happens here only, in psp_memRaise, after the tag's
// mutex is released. While the library terminates, freeing takes no tag's mutex: the table of
// mutexes goes before the memory does.

#include <algorithm>
#include <cstring>
#include <iterator>

#include "psp/core.h"
#include "psp_block_list.h"
#include "psp_mem_data_int.h"
#include "psp_probe.h"
#include "psp_sync_int.h"
#include "pspint.h"

PSP_MEMTAG tagGlobal = nullptr;
TAG_ENTRY* taglisthead = nullptr;
TAG_ENTRY* taglisttail = nullptr;
PSP_SEM tagTabSem = PSP_SEM_INVALID;
pthread_key_t tagTLSkey;
LIST_ALLOCATOR_ENTRY static_list_allocator;
TAG_ENTRY static_list_tag;

namespace {

constexpr int32_t ZERO_BIT = 2;
constexpr int32_t COPY_BIT = 4;
constexpr int32_t EMPTY_BITS = 8 | 16;
constexpr int16_t WITH_MUTEX = 1; // flags of a tag that threads share

// A limit leaves room for the first chunk of the large-block layer.
constexpr size_t SMALLEST_LIMIT = 4195328;

// The result of an allocation, and the tag whose allocator failed: no tag when the request was
// refused before it got that far, which never jumps.
struct Allocated {
    void* ptr;
    PSP_MEMTAG failed;
};

constexpr Allocated REFUSED = {nullptr, nullptr};

// Whether tags can be made: below 0, after a stop too many, the records' tag and the threads' key
// are no more there than at 0.
bool started()
{
    return relaxed_load(psp_inited) > 0;
}

// ---- Tag resolution ----

// The value is set on every use, and a tag that it cannot be set to loses its memory. A new tag
// goes altogether; one that the thread has already only becomes empty, because the thread's value,
// which could not be changed, still leads to it.
bool is_threads(PSP_MEMTAG tag, ZYN_BOOL_T is_new)
{
    if (pthread_setspecific(tagTLSkey, tag) == 0) [[likely]]
        return true;
    psp_freeTagMem(tag, is_new, __FILE__, __LINE__);
    return false;
}

[[gnu::noinline]] PSP_MEMTAG new_thread_tag()
{
    const PSP_MEMTAG tag =
        psp_createTagEx(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
    return tag && is_threads(tag, ZYN_TRUE) ? tag : nullptr;
}

[[gnu::always_inline]] inline PSP_MEMTAG thread_tag()
{
    if (!started())
        return nullptr;
    auto* const tag = static_cast<PSP_MEMTAG>(pthread_getspecific(tagTLSkey));
    if (!tag) [[unlikely]]
        return new_thread_tag();
    return is_threads(tag, ZYN_FALSE) ? tag : nullptr;
}

// Whether a tag needs no resolution and is there: one comparison, since the special values lie
// above NULL and below every address.
bool is_real(PSP_MEMTAG tag)
{
    return reinterpret_cast<uintptr_t>(tag) > reinterpret_cast<uintptr_t>(PSP_GLOBAL_TAG);
}

// ---- One request ----

// Checks a request. Mode 13 brings its own size.
bool validateGetMem(size_t& size, int32_t mode, const void* data)
{
    if (relaxed_load(psp_inited) == 0)
        return false;
    if (size == 0 && (mode & EMPTY_BITS) == 0)
        return false;
    if (!data && (mode & COPY_BIT) != 0)
        return false;
    if (mode == PSP_MEM_STRING)
        size = strlen(static_cast<const char*>(data)) + 1;
    return size < SIZE_MAX - 1;
}

// Allocators work with 32-bit sizes.
bool fits(size_t size)
{
    return size <= UINT32_MAX;
}

void* allocate_memory(PSP_MEMTAG tag, size_t size)
{
    if (!fits(size)) [[unlikely]]
        return nullptr;
    mem_enter(tag->t_sem);
    void* const ptr = tag->t_fcns.alloc_fcn(size, tag->t_allocator);
    mem_exit(tag->t_sem);
    return ptr;
}

void* resize_memory(PSP_MEMTAG tag, const void* ptr, size_t newsize, int32_t preserve)
{
    if (!fits(newsize))
        return nullptr;
    mem_enter(tag->t_sem);
    void* const moved = tag->t_fcns.realloc_fcn(ptr, newsize, tag->t_allocator, preserve);
    mem_exit(tag->t_sem);
    return moved;
}

// The mutex to hold while a tag's memory is released. It is asked for once, so that what was
// taken is given back even if the library begins to terminate in between.
PSP_SEM release_sem(PSP_MEMTAG tag)
{
    return relaxed_load(psp_terminating) != 0 ? PSP_SEM_INVALID : tag->t_sem;
}

void free_memory(PSP_MEMTAG tag, const void* ptr)
{
    const PSP_SEM sem = release_sem(tag);
    mem_enter(sem);
    tag->t_fcns.free_fcn(ptr, tag->t_allocator);
    mem_exit(sem);
}

Allocated get_memory(size_t size, PSP_MEMTAG tt, int32_t mode, const void* data)
{
    if (!validateGetMem(size, mode, data))
        return REFUSED;
    const PSP_MEMTAG tag = getCorrectTag(tt);
    if (!tag)
        return REFUSED;
    void* const ptr = allocate_memory(tag, size);
    if (!ptr) {
        PSP_PROBE2(alloc_fail, size, tag);
        return {nullptr, tag};
    }
    if ((mode & ZERO_BIT) != 0)
        memset(ptr, 0, size);
    else if ((mode & COPY_BIT) != 0)
        memcpy(ptr, data, size);
    return {ptr, tag};
}

// Fills what a resized block gained: its last `incsize` bytes, or for a copy of unknown growth all.
void fill_extended(void* ptr, size_t size, int32_t mode, size_t incsize, const void* data)
{
    auto* const start = static_cast<std::byte*>(ptr);
    const size_t grown = std::min(incsize, size);
    if ((mode & ZERO_BIT) != 0)
        memset(start + (size - grown), 0, grown);
    else if ((mode & COPY_BIT) != 0 && grown != 0)
        memcpy(start + (size - grown), data, grown);
    else if ((mode & COPY_BIT) != 0)
        memcpy(start, data, size);
}

Allocated extend_memory(const void* ptr, size_t newsize, PSP_MEMTAG tt, int32_t mode,
                        size_t incsize, const void* data)
{
    if (!ptr)
        return get_memory(newsize, tt, mode, data);
    if (!validateGetMem(newsize, mode, data))
        return REFUSED;
    const PSP_MEMTAG tag = getCorrectTag(tt);
    if (!tag)
        return REFUSED;
    // A copy brings new contents: the old ones need not be kept.
    void* const moved = resize_memory(tag, ptr, newsize, (mode & COPY_BIT) == 0);
    if (!moved) {
        PSP_PROBE2(alloc_fail, newsize, tag);
        return {nullptr, tag};
    }
    fill_extended(moved, newsize, mode, incsize, data);
    return {moved, tag};
}

void jump_from(PSP_MEMTAG tag)
{
    jmp_buf* const jb = relaxed_load(tag->t_jmpbuf);
    if (jb)
        longjmp(*jb, 1);
}

void* or_jump(Allocated result)
{
    if (!result.ptr && result.failed) [[unlikely]]
        jump_from(result.failed);
    return result.ptr;
}

// ---- The usual requests: blocks of tags without a mutex ----

bool is_unlocked(PSP_MEMTAG tag)
{
    if (!is_real(tag)) [[unlikely]]
        return false;
    return tag->t_sem == PSP_SEM_INVALID;
}

// Most requests need nothing but the allocator. The call of it is then the last thing to do, and
// costs no frame but in a build with probes.
[[gnu::noinline]] void* get_from_allocator(size_t size, PSP_MEMTAG tag)
{
    if (size - 1 >= UINT32_MAX || relaxed_load(tag->t_jmpbuf)) [[unlikely]]
        return or_jump(get_memory(size, tag, PSP_MEM_PLAIN, nullptr));
    void* const ptr = tag->t_fcns.alloc_fcn(size, tag->t_allocator);
    if (!ptr) {
        PSP_PROBE2(alloc_fail, size, tag);
    }
    return ptr;
}

// Most find a free block in a block tag. Inline wherever it is used: they need no call at all.
[[gnu::always_inline]] inline void* get_plain(size_t size, PSP_MEMTAG tag)
{
    if (!is_block_tag(tag) || size - 1 >= LARGEST_CLASS) [[unlikely]]
        return get_from_allocator(size, tag);
    void* const block = pop_block(blocks_of(tag), size);
    return block ? block : get_from_allocator(size, tag);
}

[[gnu::always_inline]] inline void free_plain(const void* ptr, PSP_MEMTAG tag)
{
    if (!is_block_tag(tag) || !is_small(block_header(ptr))) [[unlikely]]
        return tag->t_fcns.free_fcn(ptr, tag->t_allocator);
    push_block(blocks_of(tag), block_header(ptr));
}

// A thread's own tag never has a mutex.
[[gnu::noinline]] void* get_elsewhere(size_t size, PSP_MEMTAG tt, int32_t mode, const void* data)
{
    if (tt == PSP_THREAD_TAG && mode == PSP_MEM_PLAIN && size - 1 < LARGEST_CLASS) {
        const PSP_MEMTAG tag = thread_tag();
        return tag ? get_plain(size, tag) : nullptr;
    }
    return or_jump(get_memory(size, tt, mode, data));
}

[[gnu::noinline]] void free_elsewhere(const void* ptr, PSP_MEMTAG tt)
{
    const PSP_MEMTAG tag = getCorrectTag(tt);
    if (!tag)
        return;
    if (tt == PSP_THREAD_TAG)
        free_plain(ptr, tag);
    else
        free_memory(tag, ptr);
}

// `res` is the address of a pointer of any type.
ZYN_RETCODE store(void* res, void* ptr)
{
    memcpy(res, &ptr, sizeof(ptr));
    return ptr ? sOKAY : eNOMEMORY;
}

// ---- The list of tags ----

void append_tag(TAG_ENTRY* tag)
{
    const PSP_SEM sem = relaxed_load(tagTabSem);
    mem_enter(sem);
    tag->t_next = nullptr;
    tag->t_prev = taglisttail;
    (taglisttail ? taglisttail->t_next : taglisthead) = tag;
    taglisttail = tag;
    mem_exit(sem);
}

void remove_tag(TAG_ENTRY* tag)
{
    const PSP_SEM sem = relaxed_load(tagTabSem);
    mem_enter(sem);
    (tag->t_prev ? tag->t_prev->t_next : taglisthead) = tag->t_next;
    (tag->t_next ? tag->t_next->t_prev : taglisttail) = tag->t_prev;
    mem_exit(sem);
}

// An allocator's record, with its operations in `fcns`; NULL for an unknown type or without memory.
void* create_allocator(PSP_ALLOCATOR_TYPE type, ALLOCATOR_FCNS* fcns)
{
    switch (type) {
    case BLOCK_ALLOCATOR:
        return block_allocator_create(fcns);
    case LIST_ALLOCATOR:
        return list_allocator_create(fcns);
    case STACK_ALLOCATOR:
        return stack_allocator_create(fcns);
    case LEGACY_ALLOCATOR:
        return legacy_allocator_create(fcns);
    }
    return nullptr;
}

// A tag's record and its allocator's come and go under one entry into the mutex of the tag that
// holds them: the entries of the allocations themselves are nested then, and cheap.

ZYN_RETCODE get_records(PSP_ALLOCATOR_TYPE type, TAG_ENTRY** ptag)
{
    auto* const tag = static_cast<TAG_ENTRY*>(
        psp_memTryGet(sizeof(TAG_ENTRY), &static_list_tag, PSP_MEM_ZERO, nullptr));
    if (!tag)
        return eNOMEMORY;
    tag->t_allocator = create_allocator(type, &tag->t_fcns);
    if (!tag->t_allocator) {
        free_memory(&static_list_tag, tag);
        return ePSP_FAILURE;
    }
    *ptag = tag;
    return sOKAY;
}

ZYN_RETCODE create_records(PSP_ALLOCATOR_TYPE type, TAG_ENTRY** ptag)
{
    const PSP_SEM sem = relaxed_load(static_list_tag.t_sem);
    mem_enter(sem);
    const ZYN_RETCODE rc = get_records(type, ptag);
    mem_exit(sem);
    return rc;
}

void free_records(TAG_ENTRY* tag)
{
    const PSP_SEM sem = release_sem(&static_list_tag);
    mem_enter(sem);
    tag->t_fcns.destroy_fcn(tag->t_allocator);
    free_memory(&static_list_tag, tag);
    mem_exit(sem);
}

// The record of a tag is gone before its mutex is released and deleted.
void destroy_tag(TAG_ENTRY* tag, PSP_SEM held)
{
    remove_tag(tag);
    free_records(tag);
    mem_exit(held);
    psp_syncDelete(held);
}

// ---- Start ----

// Every operation but mem-info: nobody reads this tag's statistics.
void build_static_list_tag()
{
    static_list_allocator = list_allocator_empty();
    static_list_tag = {};
    static_list_tag.t_sem = PSP_SEM_INVALID;
    static_list_tag.t_allocator = &static_list_allocator;
    static_list_tag.t_fcns = {
        .destroy_fcn = list_allocator_destroy,
        .alloc_fcn = list_allocator_alloc,
        .realloc_fcn = list_allocator_realloc,
        .free_fcn = list_allocator_free,
        .free_all_fcn = list_allocator_free_all,
        .get_size_fcn = list_allocator_get_size,
        .mem_info_fcn = nullptr,
    };
}

// The first creation takes the mutex table's first block from the global tag, which has no mutex
// yet; afterwards the four are in use.
bool create_mutexes()
{
    PSP_SEM* const sems[] = {&tagGlobal->t_sem, &tagTabSem, &largeBlockSem, &static_list_tag.t_sem};
    constexpr LockRank ranks[] = {LockRank::tag, LockRank::tag_list, LockRank::large_block,
                                  LockRank::tag_records};
    static_assert(std::size(ranks) == std::size(sems));
    PSP_SEM made[std::size(sems)];
    for (PSP_SEM& sem : made)
        sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    if (std::find(std::begin(made), std::end(made), PSP_SEM_INVALID) != std::end(made)) {
        std::for_each(std::rbegin(made), std::rend(made), psp_syncDelete);
        return false;
    }
    for (size_t i = 0; i < std::size(sems); ++i) {
        psp_syncRank(made[i], ranks[i]);
        relaxed_store(*sems[i], made[i]);
    }
    return true;
}

ZYN_RETCODE create_global_tag()
{
    const ZYN_RETCODE rc = psp_createTagEx_rc(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr,
                                              &tagGlobal, __FILE__, __LINE__);
    if (rc != sOKAY)
        return rc;
    return create_mutexes() ? sOKAY : ePSP_FAILURE;
}

void destroy_global_tag()
{
    psp_freeTagMem(tagGlobal, ZYN_TRUE, __FILE__, __LINE__);
    tagGlobal = nullptr;
}

} // namespace

PSP_MEMTAG getCorrectTag(PSP_MEMTAG tag)
{
    if (tag == PSP_GLOBAL_TAG)
        return tagGlobal;
    return tag == PSP_THREAD_TAG ? thread_tag() : tag;
}

ZYN_RETCODE psp_memInit()
{
    taglisthead = taglisttail = nullptr;
    tagGlobal = nullptr;
    build_static_list_tag();
    if (pthread_key_create(&tagTLSkey, nullptr) != 0)
        return eNOMEMORY;
    pthread_setspecific(tagTLSkey, nullptr);
    const ZYN_RETCODE rc = create_global_tag();
    if (rc != sOKAY) {
        destroy_global_tag();
        pthread_key_delete(tagTLSkey);
    }
    return rc;
}

void psp_memTerm()
{
    // The mutexes died with their table.
    relaxed_store(tagTabSem, PSP_SEM_INVALID);
    relaxed_store(static_list_tag.t_sem, PSP_SEM_INVALID);
    relaxed_store(largeBlockSem, PSP_SEM_INVALID);

    psp_freeTagMem(static_cast<PSP_MEMTAG>(pthread_getspecific(tagTLSkey)), ZYN_TRUE, __FILE__,
                   __LINE__);
    pthread_setspecific(tagTLSkey, nullptr);
    destroy_global_tag();
    while (taglisthead)
        psp_freeTagMem(taglisthead, ZYN_TRUE, __FILE__, __LINE__);
    // With the key go the values of the threads that still run: a new key starts empty in all.
    pthread_key_delete(tagTLSkey);
    psp_freeTagMem(&static_list_tag, ZYN_FALSE, __FILE__, __LINE__);
}

void* psp_memTryGet(size_t size, PSP_MEMTAG tag, int32_t mode, const void* data)
{
    return get_memory(size, tag, mode, data).ptr;
}

void* psp_memTryExtend(const void* ptr, size_t newsize, PSP_MEMTAG tag, int32_t mode,
                       size_t incsize, const void* data)
{
    return extend_memory(ptr, newsize, tag, mode, incsize, data).ptr;
}

// Before the start there are no tags, and the thread's key is not this library's.
void psp_memRaise(PSP_MEMTAG tag)
{
    if (relaxed_load(psp_inited) == 0)
        return;
    const PSP_MEMTAG real = getCorrectTag(tag);
    if (real)
        jump_from(real);
}

ZYN_RETCODE psp_createTagEx_rc(jmp_buf* jb, int16_t flags, PSP_ALLOCATOR_TYPE type,
                               PSP_DESTROY_FCN destroy_fcn, void* destroy_ctx, PSP_MEMTAG* ptag,
                               const char* file, int32_t line)
{
    if (!started())
        return ePSP_FAILURE;
    if (!ptag)
        return eINVNULLARG;
    TAG_ENTRY* tag = nullptr;
    const ZYN_RETCODE rc = create_records(type, &tag);
    if (rc != sOKAY)
        return rc;
    tag->t_jmpbuf = jb;
    tag->t_destroy_fcn = destroy_fcn;
    tag->t_destroy_ctx = destroy_ctx;
    tag->t_sem =
        flags == WITH_MUTEX ? psp_syncCreate_check(PSP_SEM_MUTEX, file, line) : PSP_SEM_INVALID;
    psp_syncRank(tag->t_sem, LockRank::tag);
    *ptag = tag;
    append_tag(tag);
    return sOKAY;
}

PSP_MEMTAG psp_createTagEx(jmp_buf* jb, int16_t flags, PSP_ALLOCATOR_TYPE type,
                           PSP_DESTROY_FCN destroy_fcn, void* destroy_ctx, const char* file,
                           int32_t line)
{
    PSP_MEMTAG tag = nullptr;
    psp_createTagEx_rc(jb, flags, type, destroy_fcn, destroy_ctx, &tag, file, line);
    return tag;
}

// One condition after the other, each of them unlikely: the usual request then runs straight down.
[[gnu::aligned(64)]] void* psp_getMem(size_t size, PSP_MEMTAG tt, int32_t mode, const void* data,
                                      const char*, int32_t)
{
    if (mode != PSP_MEM_PLAIN || relaxed_load(psp_inited) == 0) [[unlikely]]
        return get_elsewhere(size, tt, mode, data);
    if (!is_unlocked(tt)) [[unlikely]]
        return get_elsewhere(size, tt, mode, data);
    return get_plain(size, tt);
}

ZYN_RETCODE psp_getMem_rc(size_t size, PSP_MEMTAG tt, int32_t mode, const void* data, void* res,
                          const char* file, int32_t line)
{
    if (!res)
        return eINVNULLARG;
    return store(res, psp_getMem(size, tt, mode, data, file, line));
}

void* psp_extendMem(const void* ptr, size_t newsize, PSP_MEMTAG tt, int32_t mode, size_t incsize,
                    const void* data, const char*, int32_t)
{
    return or_jump(extend_memory(ptr, newsize, tt, mode, incsize, data));
}

ZYN_RETCODE psp_extendMem_rc(const void* ptr, size_t newsize, PSP_MEMTAG tt, int32_t mode,
                             size_t incsize, const void* data, void* res, const char* file,
                             int32_t line)
{
    if (!res)
        return eINVNULLARG;
    return store(res, psp_extendMem(ptr, newsize, tt, mode, incsize, data, file, line));
}

void* psp_moveMem(const void* ptr, size_t size, PSP_MEMTAG ttDest, PSP_MEMTAG ttSrc, const char*,
                  int32_t)
{
    if (relaxed_load(psp_inited) == 0)
        return nullptr;
    if (!ptr || ttDest == ttSrc)
        return const_cast<void*>(ptr);
    const PSP_MEMTAG dest = getCorrectTag(ttDest);
    const PSP_MEMTAG src = getCorrectTag(ttSrc);
    if (!dest || !src || size == 0)
        return nullptr;
    void* const moved = allocate_memory(dest, size);
    if (!moved) {
        PSP_PROBE2(alloc_fail, size, dest);
        return nullptr;
    }
    memcpy(moved, ptr, size);
    free_memory(src, ptr);
    return moved;
}

[[gnu::aligned(64)]] void psp_freeMem(const void* ptr, PSP_MEMTAG tt, const char*, int32_t)
{
    if (relaxed_load(psp_inited) == 0 || !ptr)
        return;
    if (!is_unlocked(tt)) [[unlikely]]
        return free_elsewhere(ptr, tt);
    free_plain(ptr, tt);
}

void psp_freeTagMem(PSP_MEMTAG tt, ZYN_BOOL_T freetag, const char*, int32_t)
{
    if (relaxed_load(psp_inited) == 0 || !is_real(tt))
        return;
    if (freetag != ZYN_FALSE && tt->t_destroy_fcn)
        tt->t_destroy_fcn(tt->t_destroy_ctx);
    const PSP_SEM sem = release_sem(tt);
    mem_enter(sem);
    tt->t_fcns.free_all_fcn(tt->t_allocator);
    if (freetag != ZYN_FALSE)
        destroy_tag(tt, sem);
    else
        mem_exit(sem);
}

void psp_resetTag(jmp_buf* jb, PSP_MEMTAG tt)
{
    if (relaxed_load(psp_inited) == 0)
        return;
    const PSP_MEMTAG tag = getCorrectTag(tt);
    if (!tag)
        return;
    mem_enter(tag->t_sem);
    relaxed_store(tag->t_jmpbuf, jb);
    mem_exit(tag->t_sem);
}

ZYN_RETCODE psp_getTagMemInfo(PSP_MEMTAG tag, PSP_TAG_MEM_INFO* mem_info)
{
    if (relaxed_load(psp_inited) == 0 || !mem_info)
        return ePSP_FAILURE;
    const PSP_MEMTAG real = getCorrectTag(tag);
    if (!real)
        return ePSP_FAILURE;
    real->t_fcns.mem_info_fcn(real->t_allocator, mem_info);
    return sOKAY;
}

ZYN_RETCODE psp_setMemLimit(void* ptr, size_t limit)
{
    if (relaxed_load(psp_inited) != 0 && (ptr || relaxed_load(psp_membuffer)))
        return ePSP_FAILURE;
    if (limit != 0 && limit < SMALLEST_LIMIT)
        return ePSP_FAILURE;
    relaxed_store(psp_memlimit, limit);
    relaxed_store(psp_membuffer, ptr);
    return sOKAY;
}

void psp_getMemUsage(size_t* curr_usage, size_t* max_usage)
{
    const PSP_MEM_INFO usage = mem_info_load(psp_mem_stats);
    if (curr_usage)
        *curr_usage = usage.current;
    if (max_usage)
        *max_usage = usage.max;
}

void psp_memReport(uint32_t, const char*, ...) {}
