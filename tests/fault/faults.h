// Makes chosen calls fail, without a hook in the library: the linker puts the functions of
// faults.cpp in the place of those named in wrapped.txt (--wrap), wherever the static twin of the
// library calls them. Each counts its calls, fails when the plan says so, and otherwise does what
// the real one does. Without a plan nothing changes.
//
// To wrap one more function: a row in faults.cpp and its name in wrapped.txt; and where the library
// makes that call, its errors in support/system_calls.h, which then asks for rows that drive it.
#pragma once

#include <cstddef>

namespace psptest {

// A plan for one function, in force from construction to disarm() or the end of the scope. Several
// plans for different functions may be in force at once. Calls of all threads count.
//
// Names are those of the functions ("malloc", "fsync", "pthread_create"), and "tag_alloc" for
// every allocation and extension under a memory tag that one source file asks of another; such a
// failure jumps when the tag carries a jump buffer, exactly as a real one. "heap" counts malloc,
// calloc and realloc together, "large_block" what the allocators ask of the large-block layer: a
// request that is to fail finds the layer empty and the memory limit reached.
class Fault {
  public:
    // The `nth` call from now on fails (1: the next), and with `forever` all after it; 0 lets all
    // pass and only counts. `error` is the errno of the failure (or the result, for functions that
    // return an error number); 0 takes a fitting one.
    explicit Fault(const char* name, int nth = 0, bool forever = false, int error = 0);
    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    int calls() const;    // made since this plan began
    int failures() const; // of these, how many were made to fail
    void disarm();        // from here on every call passes; the counts stay

    // The same for a transfer ("read", "write", "pread", "pwrite") that does not fail but moves
    // at most `bytes` bytes.
    static void shorten_nth(const char* name, int nth, std::size_t bytes, bool forever = false);
    // The plain form of a plan; it stays in force until clear().
    static void fail_nth(const char* name, int nth, bool forever = false, int error = 0);
    // The same for `count` calls from the `nth` on, after which they pass again.
    static void fail_run(const char* name, int nth, int count, int error = 0);
    // Puts `function`, which must have the real one's type, in its place until clear().
    template <class Function>
    static void replace(const char* name, Function* function)
    {
        set_replacement(name, reinterpret_cast<void (*)()>(function));
    }
    static int calls(const char* name);    // since the last plan for the name, or clear()
    static int failures(const char* name); // likewise
    // Ends all plans and replacements and sets all counts to zero.
    static void clear();

  private:
    static void set_replacement(const char* name, void (*function)());
    struct Point* point_;
};

// Heap blocks that malloc, calloc and realloc gave through the wrapped calls and free has not yet
// taken back.
long live_heap_blocks();

// The lowest memory limit that can be set, until the end of the scope.
class MemoryLimit {
  public:
    MemoryLimit();
    ~MemoryLimit();
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;

  private:
    std::size_t before_;
};

// Takes all that the large-block layer has at hand, until the end of the scope: whatever an
// allocator asks for now comes from the heap.
class Hoard {
  public:
    Hoard();
    ~Hoard();
    Hoard(const Hoard&) = delete;
    Hoard& operator=(const Hoard&) = delete;

  private:
    struct Piece {
        Piece* next;
    };
    Piece* pieces_ = nullptr;
};

// Runs body(fault, n) with a plan to fail the n-th call of the named function, for n = 1, 2, …,
// until a run needed fewer than n calls. Gives the number of runs that met a failure.
template <class Body>
int fail_every_call(const char* name, bool forever, Body body)
{
    for (int n = 1;; n++) {
        Fault fault(name, n, forever);
        body(fault, n);
        if (fault.failures() == 0)
            return n - 1;
    }
}

} // namespace psptest
