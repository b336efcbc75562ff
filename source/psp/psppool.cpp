// Object pools: a list of released objects in front of a memory tag.
//
// Each object has a header with its size and the link of the idle list, newest first. Getting and
// putting look at the head of the list only and take constant time; a head too small for the
// request is destroyed, whatever lies behind it.
//
// A pool with a mutex holds it over the callbacks, but never over a jump: objects are allocated
// without jumping, and a failure is raised after the mutex is released.

#include <cstring>

#include "psp/core.h"
#include "psp/pool.h"
#include "psp/sync.h"
#include "psp_atomic.h"
#include "psp_mem_data_int.h"
#include "psp_sync_int.h"
#include "psp_track.h"
#include "pspint.h"

namespace {

constexpr uint32_t MAX_POOLED_ITEMS = 1000;

PSP_POOL_HDR* header_of(const void* ptr)
{
    return static_cast<PSP_POOL_HDR*>(const_cast<void*>(ptr)) - 1;
}

// Takes the head off the idle list, which is not empty.
PSP_POOL_HDR* pop_idle(PSP_POOL pool)
{
    PSP_POOL_HDR* const hdr = pool->next;
    pool->next = hdr->next;
    --pool->count;
    psp_track_open(hdr + 1, hdr->size);
    return hdr;
}

void push_idle(PSP_POOL pool, PSP_POOL_HDR* hdr)
{
    hdr->next = pool->next;
    pool->next = hdr;
    ++pool->count;
    psp_track_close(hdr + 1, hdr->size);
}

PSP_POOL_HDR* createObject(PSP_POOL pool, size_t size)
{
    if (size > SIZE_MAX - sizeof(PSP_POOL_HDR))
        return nullptr;
    auto* const hdr = static_cast<PSP_POOL_HDR*>(
        psp_memTryGet(size + sizeof(PSP_POOL_HDR), pool->tag, PSP_MEM_PLAIN, nullptr));
    if (!hdr)
        return nullptr;
    hdr->size = size;
    if (pool->constructor)
        pool->constructor(pool->userdata, hdr + 1);
    return hdr;
}

void destroyObject(PSP_POOL pool, PSP_POOL_HDR* hdr)
{
    if (pool->destructor)
        pool->destructor(pool->userdata, hdr + 1);
    psp_freeMem(hdr, pool->tag, __FILE__, __LINE__);
}

// Whether a request takes the head of the idle list as it is.
bool head_serves(PSP_POOL pool, size_t size)
{
    return pool->next && size <= pool->next->size;
}

// The head of the idle list if it is large enough, or NULL; too small a head is destroyed.
PSP_POOL_HDR* getNextAvailableEntry(PSP_POOL pool, size_t size)
{
    if (head_serves(pool, size))
        return pop_idle(pool);
    if (pool->next)
        destroyObject(pool, pop_idle(pool));
    return nullptr;
}

// Gives an object the contents that the mode asks for.
void* fill(PSP_POOL_HDR* hdr, size_t size, int32_t mode, const void* data)
{
    if (mode == PSP_MEM_ZERO)
        return memset(hdr + 1, 0, size);
    if (mode == PSP_MEM_COPY && data)
        return memcpy(hdr + 1, data, size);
    return hdr + 1;
}

// Any request. Kept out of line, as put_object is: a pool without a mutex that has an object at
// hand goes a shorter way.
[[gnu::noinline]] void* get_object(PSP_POOL pool, size_t size, int32_t mode, const void* data)
{
    mem_enter(pool->sem);
    PSP_POOL_HDR* hdr = getNextAvailableEntry(pool, size);
    if (!hdr)
        hdr = createObject(pool, size);
    mem_exit(pool->sem);
    if (hdr)
        return fill(hdr, size, mode, data);
    psp_memRaise(pool->tag);
    return nullptr;
}

bool has_room(PSP_POOL pool)
{
    return pool->count < relaxed_load(pool->max_pooled_items);
}

[[gnu::noinline]] void put_object(PSP_POOL pool, PSP_POOL_HDR* hdr)
{
    mem_enter(pool->sem);
    if (has_room(pool))
        push_idle(pool, hdr);
    else
        destroyObject(pool, hdr);
    mem_exit(pool->sem);
}

ZYN_RETCODE create_local_tag(PSP_MEMTAG* tag)
{
    return psp_createTagEx_rc(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, tag, __FILE__,
                              __LINE__);
}

} // namespace

ZYN_RETCODE psp_poolCreateEx(PSP_MEMTAG tag, PSP_POOL_SIZE_INFO size_info, const char* semName,
                             PSP_POOL_CONSTRUCTOR constructor, PSP_POOL_DESTRUCTOR destructor,
                             PSP_POOL_USERDATA userdata, PSP_POOL* hPool)
{
    if (!hPool)
        return eINVNULLARG;
    const bool local_tag = !tag;
    if (local_tag) {
        const ZYN_RETCODE rc = create_local_tag(&tag);
        if (rc != sOKAY)
            return rc;
    }
    auto* const pool = static_cast<PSP_POOL>(
        psp_getMem(sizeof(PSP_POOL_CTX), tag, PSP_MEM_ZERO, nullptr, __FILE__, __LINE__));
    if (!pool) {
        if (local_tag)
            psp_freeTagMem(tag, ZYN_TRUE, __FILE__, __LINE__);
        return eNOMEMORY;
    }
    pool->tag = tag;
    pool->sem = semName ? psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__) : PSP_SEM_INVALID;
    psp_syncRank(pool->sem, LockRank::pool);
    pool->local_tag = local_tag ? ZYN_TRUE : ZYN_FALSE;
    pool->max_pooled_items = MAX_POOLED_ITEMS;
    pool->size_info = size_info;
    pool->constructor = constructor;
    pool->destructor = destructor;
    pool->userdata = userdata;
    *hPool = pool;
    return sOKAY;
}

void* psp_poolGetMem(PSP_POOL hPool, size_t sz, int32_t mode, const void* data, const char*,
                     int32_t)
{
    if (!hPool || relaxed_load(psp_inited) == 0) [[unlikely]]
        return nullptr;
    if (hPool->sem != PSP_SEM_INVALID) [[unlikely]]
        return get_object(hPool, sz, mode, data);
    if (!head_serves(hPool, sz)) [[unlikely]]
        return get_object(hPool, sz, mode, data);
    return fill(pop_idle(hPool), sz, mode, data);
}

void psp_poolPut(PSP_POOL hPool, const void* ptr)
{
    if (!hPool || !ptr || relaxed_load(psp_inited) == 0) [[unlikely]]
        return;
    if (hPool->sem != PSP_SEM_INVALID) [[unlikely]]
        return put_object(hPool, header_of(ptr));
    if (!has_room(hPool)) [[unlikely]]
        return put_object(hPool, header_of(ptr));
    push_idle(hPool, header_of(ptr));
}

// A tag of the pool's own goes in one piece: no destructor is called.
void psp_poolDestroy(PSP_POOL hPool)
{
    if (!hPool || relaxed_load(psp_inited) == 0)
        return;
    const PSP_SEM sem = hPool->sem;
    mem_enter(sem);
    if (hPool->local_tag != ZYN_FALSE) {
        psp_freeTagMem(hPool->tag, ZYN_TRUE, __FILE__, __LINE__);
    } else {
        while (hPool->next)
            destroyObject(hPool, pop_idle(hPool));
        psp_freeMem(hPool, hPool->tag, __FILE__, __LINE__);
    }
    mem_exit(sem);
    psp_syncDelete(sem);
}

void psp_poolSetMaxPooled(PSP_POOL hPool, uint32_t max_items)
{
    if (!hPool || relaxed_load(psp_inited) == 0)
        return;
    relaxed_store(hPool->max_pooled_items, max_items);
}
