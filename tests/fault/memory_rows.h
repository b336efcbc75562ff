// The table of operations that allocate, one row each, and the list of functions that never do.
// memory_everywhere_test.cpp takes every row through every way in which memory can fail.
#pragma once

#include "psp.h"
#include "psp/mem.h"

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace psptest {

struct Row;

// The result of an operation that has no code of its own.
inline ZYN_RETCODE done_if(bool done)
{
    return done ? sOKAY : eNOMEMORY;
}

// What the steps of a row work on and hand to one another. Nothing in here is made or ended by an
// operation under test, which may leave by a jump.
struct Bench {
    const Row& row;
    PSP_MEMTAG tag;          // the caller's tag, as the row wants it
    const std::string dir;   // empty at the start
    const std::string file;  // in it, as the other name: neither is there at the start
    const std::string other; //
    bool refused = false;    // whether the last call met a failure

    void* made = nullptr;  // what the operation gave
    void* given = nullptr; // what it works on
    char* text = nullptr;
    char* rest = nullptr;
    std::uint32_t count = 0;
    psp_thread_t thread = {};
    PSP_LOG_CTX log = {};

    // The result of an operation that gives a pointer.
    ZYN_RETCODE keep(const void* ptr)
    {
        made = const_cast<void*>(ptr);
        return done_if(ptr != nullptr);
    }
    template <class T>
    T as() const
    {
        return static_cast<T>(made);
    }
    template <class T>
    T on() const
    {
        return static_cast<T>(given);
    }
};

// Where memory fails.
enum Ways : unsigned {
    HEAP = 1,         // malloc, calloc, realloc; the layers above have nothing left
    LARGE_BLOCKS = 2, // the memory limit is reached; the tags have nothing left
    TAG_REQUESTS = 4, // any request of one part of the library to a tag
    CHUNKS = HEAP | LARGE_BLOCKS,
    EVERYWHERE = CHUNKS | TAG_REQUESTS,
};

// Whether a failure ends in the jump of the global tag, the thread's or the caller's, if it has a
// buffer.
enum class Jumps {
    never,
    sometimes, // by the tag that ran out; both ends must be met
    always,
};

using Step = void (*)(Bench&);

// An operation. `run` gives sOKAY when it did its work; with sOKAY among the refusals it may come
// to that without the memory that failed.
struct Row {
    const char* functions; // those it covers; the first one names it
    ZYN_RETCODE (*run)(Bench&);
    std::vector<ZYN_RETCODE> refusals; // the codes of a failure; eNOMEMORY stands for NULL
    Jumps jumps = Jumps::always;
    Step prepare = nullptr;
    Step verify = nullptr;  // what a success has made
    Step refused = nullptr; // what a refusal or a jump must have left alone
    Step settle = nullptr;  // takes back what the operation keeps on purpose, whatever it came to
    Step undo = nullptr;    // the end, after a success
    unsigned ways = EVERYWHERE;
    std::vector<const char*> system = {};      // functions of the C library that allocate for it
    PSP_ALLOCATOR_TYPE type = BLOCK_ALLOCATOR; // of the caller's tag
    std::int16_t flags = 1;                    // likewise: with a mutex
    std::size_t size = 100;
    std::vector<long> kept = {}; // bytes in use that a failure may add on purpose
    bool consumes = false;       // a failure ends what was prepared, too
    bool restarts = false;       // a success stays until psp_term: every run has its own start
};

std::vector<Row> memory_rows(); // memory, locks, threads, the registry, numbers
std::vector<Row> file_rows();   // files, paths, scans, modules, processes
std::vector<Row> text_rows();   // streams, output, formatting
std::vector<Row> value_rows();  // strings, wide characters, locales, binary streams
std::vector<Row> ending_rows(); // what ends the process without room for another lock

// A function that takes no memory, with a call of it.
struct NeverAllocates {
    const char* function;
    void (*call)();
};

// In an order in which they can all be called in one process, the last of which ends the library.
const std::vector<NeverAllocates>& never_allocating();
void lay_out_arguments(const std::string& dir); // of all these calls

} // namespace psptest
