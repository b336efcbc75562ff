// Marks for address checkers.
//
// The allocators carve their blocks out of large pieces of memory, which an address checker sees
// as one object each. These three tell it which bytes of a piece belong to somebody: all payload is
// closed while its block is free and opened when it is handed out, so that a use after a free and
// an overrun into a free block are reported like those of the C library's heap. Headers always
// stay open. A piece is opened in whole before it goes back to where it came from: a caller's
// buffer is the caller's own again.
//
// The address sanitizer reads the marks in every build that it is in, Valgrind's memcheck in builds
// with PSP_VALGRIND. In an ordinary build nothing is left of all this.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define PSP_TRACK_ADDRESSES
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PSP_TRACK_ADDRESSES
#endif
#endif

#if defined(PSP_VALGRIND)
#include <valgrind/memcheck.h>
#elif defined(PSP_TRACK_ADDRESSES)
#include <sanitizer/asan_interface.h>
#endif

// Memory that belongs to nobody.
inline void psp_track_close([[maybe_unused]] const void* ptr, [[maybe_unused]] size_t size)
{
#if defined(PSP_VALGRIND)
    VALGRIND_MAKE_MEM_NOACCESS(ptr, size);
#elif defined(PSP_TRACK_ADDRESSES)
    __asan_poison_memory_region(ptr, size);
#endif
}

// Memory with contents that somebody may read.
inline void psp_track_open([[maybe_unused]] const void* ptr, [[maybe_unused]] size_t size)
{
#if defined(PSP_VALGRIND)
    VALGRIND_MAKE_MEM_DEFINED(ptr, size);
#elif defined(PSP_TRACK_ADDRESSES)
    __asan_unpoison_memory_region(ptr, size);
#endif
}

// Memory that is somebody's to write, and to read only then.
inline void psp_track_fresh([[maybe_unused]] const void* ptr, [[maybe_unused]] size_t size)
{
#if defined(PSP_VALGRIND)
    VALGRIND_MAKE_MEM_UNDEFINED(ptr, size);
#elif defined(PSP_TRACK_ADDRESSES)
    __asan_unpoison_memory_region(ptr, size);
#endif
}

// A word of closed memory for its keeper, who leaves it closed.
#if defined(PSP_VALGRIND)

inline uint64_t psp_track_peek(const uint64_t* word)
{
    VALGRIND_DISABLE_ERROR_REPORTING;
    const uint64_t value = *word;
    VALGRIND_ENABLE_ERROR_REPORTING;
    return value;
}

inline void psp_track_poke(uint64_t* word, uint64_t value)
{
    VALGRIND_DISABLE_ERROR_REPORTING;
    *word = value;
    VALGRIND_ENABLE_ERROR_REPORTING;
}

#else

#if defined(PSP_TRACK_ADDRESSES)
#define PSP_TRACK_KEEPER __attribute__((no_sanitize("address"), noinline))
#else
#define PSP_TRACK_KEEPER
#endif

PSP_TRACK_KEEPER inline uint64_t psp_track_peek(const uint64_t* word)
{
    return *word;
}

PSP_TRACK_KEEPER inline void psp_track_poke(uint64_t* word, uint64_t value)
{
    *word = value;
}

#endif
