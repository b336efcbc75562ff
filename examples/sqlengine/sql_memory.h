// Memory: who owns what the program allocates, and SQLite's allocator over it.
#pragma once

#include "psp.h"

#include <cstddef>
#include <cstdint>

namespace sql {

// Each owner is a memory tag of its own.
enum class Owner {
    engine,  // SQLite itself
    pages,   // SQLite's page cache, one block
    results, // rows on their way to the screen; dies as a whole
    program, // the rest: statements being typed, columns of a table
    count
};

struct MemoryFigures {
    const char* name;
    uint64_t allocations; // blocks handed out
    uint64_t bytes;       // bytes handed out, all together
    uint64_t in_use;      // bytes held now
    uint64_t high_water;  // most bytes held at a time
};

// Makes the tags. False when there is no memory.
bool memory_start();

// Makes SQLite allocate from Owner::engine and keep its pages in Owner::pages. Before SQLite
// starts. False when SQLite refuses.
bool memory_install();

// True while SQLite still has our allocator. Only before SQLite starts and after it stopped.
bool memory_installed();

// Frees the tags with everything in them. After SQLite stopped.
void memory_stop();

// Blocks are aligned to 8 bytes; NULL when there is no memory. Any thread.
void* memory_get(Owner owner, size_t size);
void* memory_extend(Owner owner, void* block, size_t size);
void memory_free(Owner owner, void* block);
// Frees every block of the owner at once. No other thread may be using it.
void memory_reset(Owner owner);

MemoryFigures memory_figures(Owner owner);

} // namespace sql
