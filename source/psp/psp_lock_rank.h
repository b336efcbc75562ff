// The order in which the library's own locks are taken, and the watch that a checked build keeps
// over it.
//
// A thread that holds a lock takes further ones of later ranks only, so no two threads can wait for
// each other. One rank is no order among its own: two locks of it are never held together. Pools
// are the exception, since an object of one may hold objects of another, and the caller who nests
// them orders them. A lock that its holder enters again is not taken anew.
//
// The table of synchronisation objects comes before the tags, because it grows under its mutex by
// a block of the global tag; in return nothing makes or deletes an object under a tag's mutex.
#pragma once

#include <cstdint>

enum class LockRank : int16_t {
    unranked,         // a caller's own mutex: its order is the caller's business
    critical_section, // start, stop, search for the temporary directory
    pool,             // over the callbacks of a pool
    output_stack,     // over every print, and over opening what is pushed
    registry,         // over the create callback of a named global
    file_handle,      // over the call that locks a file
    sync_table,       // semTabMutex
    tag,              // of a tag with a mutex, the global tag included
    tag_list,         // tagTabSem
    tag_records,      // of the tag that holds the records of tags and allocators
    large_block,      // largeBlockSem
    event,            // around an event's flag
};

#ifdef PSP_CHECKED

// To be called before the lock is waited for: a lock against the order ends the process with a
// message, where the same call in another thread could end in a deadlock.
void psp_rankEnter(LockRank rank, const void* lock);

// A lock that is not held is left alone, as one is that was entered before the last stop.
void psp_rankLeave(const void* lock);

// The number of ranked locks that the calling thread holds.
int psp_ranksHeld();

#else

inline void psp_rankEnter(LockRank, const void*) {}

inline void psp_rankLeave(const void*) {}

#endif
