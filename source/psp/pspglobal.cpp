// The named global registry: process-wide blocks, made on first use.
//
// An array of entries sorted by name, searched by bisection and grown by five places at a time.
// Entries and array live in the global tag. There are few names and they are asked for often, so
// insertion may move entries but a look-up only compares.
//
// All of it happens under psp_globals_sem, the create callback included. The global tag may carry a
// jump buffer: memory is asked for without jumping, and the jump comes after the mutex is released.

#include <cstring>

#include "psp/global.h"
#include "psp/sync.h"
#include "psp_atomic.h"
#include "psp_mem_data_int.h"
#include "psp_sync_int.h"
#include "pspint.h"

uint64_t psp_globalRemovals = 0;

namespace {

struct PSP_GLOBAL_ENTRY {
    const char* name;                 // a copy in the global tag
    void* data;                       // the block, in the global tag
    size_t size;                      // its size
    PSP_GLOBAL_DELETE_FCN delete_fcn; // tears it down; may be NULL
};

constexpr int32_t GROWTH = 5;

PSP_GLOBAL_ENTRY* psp_globals_list = nullptr; // sorted by name
int32_t psp_globals_num = 0;                  // entries in use
int32_t psp_globals_max = 0;                  // capacity

// Invalid while there is no registry: nothing is looked up or made then.
PSP_SEM psp_globals_sem = PSP_SEM_INVALID;

// Where a name is, or where it belongs.
struct Position {
    int32_t index;
    bool found;
};

// What became of a new entry; `no_memory` tells a failed allocation from a failed callback.
struct Added {
    ZYN_RETCODE rc;
    bool no_memory;
};

Position findGlobalEntry(const char* name)
{
    int32_t low = 0;
    int32_t high = psp_globals_num - 1;
    while (low <= high) {
        const int32_t middle = (low + high) / 2;
        const int order = strcmp(name, psp_globals_list[middle].name);
        if (order == 0)
            return {middle, true};
        if (order < 0)
            high = middle - 1;
        else
            low = middle + 1;
    }
    return {low, false};
}

// Under the registry's mutex, or while the library stops.
void count_removal()
{
    relaxed_store(psp_globalRemovals, psp_globalRemovals + 1);
}

void free_global(const void* ptr)
{
    psp_freeMem(ptr, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

size_t bytes_of(int32_t entries)
{
    return static_cast<size_t>(entries) * sizeof(PSP_GLOBAL_ENTRY);
}

// Removes an entry. Its callback may have registered names, which moves the entry, or may have lost
// the whole list in trying to.
void cleanupGlobalEntry(int32_t index)
{
    const PSP_GLOBAL_ENTRY entry = psp_globals_list[index];
    Position at = {index, true};
    if (entry.delete_fcn) {
        entry.delete_fcn(entry.data);
        at = findGlobalEntry(entry.name);
    }
    count_removal();
    free_global(entry.name);
    free_global(entry.data);
    if (!at.found)
        return;
    --psp_globals_num;
    memmove(psp_globals_list + at.index, psp_globals_list + at.index + 1,
            bytes_of(psp_globals_num - at.index));
}

// Makes room for more entries. When that fails, the entries so far are forgotten; their blocks stay
// valid for those who have them.
bool expand_list()
{
    psp_globals_max += GROWTH;
    void* const list = psp_memTryExtend(psp_globals_list, bytes_of(psp_globals_max), PSP_GLOBAL_TAG,
                                        PSP_MEM_PLAIN, 0, nullptr);
    if (!list) {
        free_global(psp_globals_list);
        psp_globals_num = 0;
        count_removal();
    }
    psp_globals_list = static_cast<PSP_GLOBAL_ENTRY*>(list);
    return list != nullptr;
}

// Puts an empty entry into the list and allocates what it holds.
bool insert_entry(int32_t index, const char* name, size_t size)
{
    PSP_GLOBAL_ENTRY* const entry = psp_globals_list + index;
    memmove(entry + 1, entry, bytes_of(psp_globals_num - index));
    ++psp_globals_num;
    *entry = {nullptr, nullptr, size, nullptr};
    entry->data = psp_memTryGet(size, PSP_GLOBAL_TAG, PSP_MEM_ZERO, nullptr);
    entry->name = static_cast<const char*>(psp_memTryGet(0, PSP_GLOBAL_TAG, PSP_MEM_STRING, name));
    return entry->data && entry->name;
}

// The entry is addressed by position while its callback runs, and looked up again afterwards: a
// callback that registers a name against the rules does no harm to the list.
Added addGlobalEntry(int32_t index, const char* name, size_t size, PSP_GLOBAL_CREATE_FCN create_fcn,
                     PSP_GLOBAL_DELETE_FCN delete_fcn, void** pglobal)
{
    if ((!psp_globals_list || psp_globals_num == psp_globals_max) && !expand_list())
        return {eNOMEMORY, true};
    if (!insert_entry(index, name, size)) {
        cleanupGlobalEntry(index);
        return {eNOMEMORY, true};
    }
    void* const data = psp_globals_list[index].data;
    const bool created = !create_fcn || create_fcn(data) == sOKAY;
    const Position at = findGlobalEntry(name);
    if (!at.found)
        return {eNOMEMORY, false};
    if (!created) {
        cleanupGlobalEntry(at.index); // without its callback, which is not stored yet
        return {eNOMEMORY, false};
    }
    psp_globals_list[at.index].delete_fcn = delete_fcn;
    *pglobal = data;
    return {sOKAY, false};
}

} // namespace

ZYN_RETCODE psp_globalInit()
{
    psp_globals_num = 0;
    psp_globals_max = 0;
    psp_globals_list = nullptr;
    const PSP_SEM sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    psp_syncRank(sem, LockRank::registry);
    relaxed_store(psp_globals_sem, sem);
    return sem == PSP_SEM_INVALID ? ePSP_MUTEX_FAILURE : sOKAY;
}

// From the greatest name to the smallest. What callers do afterwards finds no registry.
void psp_globalTerm()
{
    while (psp_globals_num > 0)
        cleanupGlobalEntry(psp_globals_num - 1);
    free_global(psp_globals_list);
    const PSP_SEM sem = psp_globals_sem;
    relaxed_store(psp_globals_sem, PSP_SEM_INVALID);
    psp_syncDelete(sem);
}

ZYN_RETCODE psp_globalTryGet(const char* name, size_t size, PSP_GLOBAL_CREATE_FCN create_fcn,
                             PSP_GLOBAL_DELETE_FCN delete_fcn, void** pglobal, bool* exhausted)
{
    if (size == 0 || !name || !pglobal)
        return eINVNULLARG;
    const PSP_SEM sem = relaxed_load(psp_globals_sem);
    if (sem == PSP_SEM_INVALID)
        return ePSP_FAILURE;
    psp_syncEnterExcl(sem);
    const Position at = findGlobalEntry(name);
    Added added = {sOKAY, false};
    if (at.found)
        *pglobal = psp_globals_list[at.index].data;
    else
        added = addGlobalEntry(at.index, name, size, create_fcn, delete_fcn, pglobal);
    psp_syncExitExcl(sem);
    *exhausted = added.no_memory;
    return added.rc;
}

ZYN_RETCODE psp_globalGet(const char* name, size_t size, PSP_GLOBAL_CREATE_FCN create_fcn,
                          PSP_GLOBAL_DELETE_FCN delete_fcn, void** pglobal)
{
    bool exhausted = false;
    const ZYN_RETCODE rc =
        psp_globalTryGet(name, size, create_fcn, delete_fcn, pglobal, &exhausted);
    if (exhausted)
        psp_memRaise(PSP_GLOBAL_TAG);
    return rc;
}
