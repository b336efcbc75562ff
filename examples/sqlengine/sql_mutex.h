// SQLite's mutexes over the library's.
#pragma once

#include <cstdint>

namespace sql {

struct MutexFigures {
    uint64_t created; // all together
    uint64_t alive;   // now
    uint64_t entered; // acquisitions
};

// Makes SQLite lock with the library's mutexes. Before SQLite starts. False when it refuses.
bool mutex_install();

// True while SQLite still has our mutexes. Only before SQLite starts and after it stopped.
bool mutex_installed();

MutexFigures mutex_figures();

} // namespace sql
