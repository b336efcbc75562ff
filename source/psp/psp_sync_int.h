// The table of synchronisation objects: its records and its state.
//
// A handle (PSP_SEM) is the address of an entry. Entries stand in blocks of 1024, one block a
// slot of the table; a block is allocated when all earlier ones are full and never moves, so
// handles stay valid and need no look-up. The free entries of a block form a chain by index. Those
// that were never used are its end, in their order. Their memory is not touched before the chain
// comes to them: a start uses eight, and does not pay for a thousand.
#pragma once

#include <cstddef>

#include "psp_lock_rank.h"
#include "psptypes.h"

struct PSP_SEM_TABLE;

struct PSP_MUTEX_ENTRY {
    pthread_mutex_t mutex; // default attributes: recursion is counted here, not by the system
    int32_t count;         // depth of recursion, 0 when nobody holds the mutex
    psp_thread_id_t id;    // the holder, 0 when nobody holds the mutex
};

struct PSP_EVENT_ENTRY {
    pthread_cond_t cond;   // waits on the clock that gUseMonotonicClock names
    pthread_mutex_t mutex; // guards flag
    int16_t flag;          // 1 signalled, 0 not
};

struct PSP_SEM_ENTRY {
    union {
        PSP_MUTEX_ENTRY m;
        PSP_EVENT_ENTRY e;
    } obj;         // the object itself, as type says
    int16_t type;  // 0 free, PSP_SEM_MUTEX or PSP_SEM_EVENT
    int16_t avail; // free: index of the next free entry of the block, or SEM_CHAIN_END;
                   // allocated: SEM_ALLOCATED
#ifdef PSP_CHECKED
    LockRank rank; // of a mutex, in what else is a gap
#endif
    PSP_SEM_TABLE* owner; // the slot whose block holds this entry
};

struct PSP_SEM_TABLE {
    PSP_SEM_ENTRY* entry; // the block, nullptr until it is needed
    int16_t avail;        // index of the first free entry, SEM_CHAIN_END when the block is full
    int16_t untouched;    // index of the first entry that was never used
};

inline constexpr int16_t SEM_CHAIN_END = -1;
inline constexpr int16_t SEM_ALLOCATED = -2;

inline constexpr size_t SEM_BLOCK_ENTRIES = 1024;
inline constexpr size_t SEM_TABLE_SLOTS = 128;

// The index of the free entry after a free one.
inline int16_t sem_after(const PSP_SEM_TABLE& slot, int16_t at)
{
    if (at < slot.untouched)
        return slot.entry[at].avail;
    const auto next = static_cast<int16_t>(at + 1);
    return next < int16_t{SEM_BLOCK_ENTRIES} ? next : SEM_CHAIN_END;
}

// Blocks come from a memory tag, which aligns to 8 bytes only.
static_assert(alignof(PSP_SEM_ENTRY) <= 8);
static_assert(offsetof(PSP_SEM_ENTRY, obj) == 0);
static_assert(offsetof(PSP_MUTEX_ENTRY, mutex) == 0 && offsetof(PSP_EVENT_ENTRY, cond) == 0);
static_assert(SEM_BLOCK_ENTRIES - 1 <= INT16_MAX, "an index must fit the chain's links");

extern PSP_SEM_TABLE sem_table[SEM_TABLE_SLOTS]; // at most 131072 objects
extern pthread_mutex_t semTabMutex;              // guards the chains
extern bool psp_sync_inited;                     // the table is usable; read without a lock

// Tells the watch over the order of locks which of the library's own a new mutex is. The handle may
// be invalid.
#ifdef PSP_CHECKED
inline void psp_syncRank(PSP_SEM sem, LockRank rank)
{
    if (sem != PSP_SEM_INVALID)
        sem->rank = rank;
}

inline LockRank rank_of(const PSP_SEM_ENTRY& entry)
{
    return entry.rank;
}
#else
inline void psp_syncRank(PSP_SEM, LockRank) {}

inline LockRank rank_of(const PSP_SEM_ENTRY&)
{
    return LockRank::unranked;
}
#endif
