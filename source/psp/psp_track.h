// Marks for address checkers.
//
// The allocators carve their blocks out of large pieces of memory, which an address checker sees
// as one object each. These two tell it which bytes of a piece belong to somebody: all payload is
// closed while its block is free and opened when it is handed out, so that a use after a free and
// an overrun into a free block are reported like those of the C library's heap. Headers always
// stay open. A piece is opened in whole before it goes back to where it came from: a caller's
// buffer is the caller's own again. In an ordinary build nothing is left of all this.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define PSP_TRACK_ADDRESSES
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PSP_TRACK_ADDRESSES
#endif
#endif

#ifdef PSP_TRACK_ADDRESSES

#include <sanitizer/asan_interface.h>

inline void psp_track_close(const void* ptr, size_t size)
{
    __asan_poison_memory_region(ptr, size);
}

inline void psp_track_open(const void* ptr, size_t size)
{
    __asan_unpoison_memory_region(ptr, size);
}

#else

inline void psp_track_close(const void*, size_t) {}

inline void psp_track_open(const void*, size_t) {}

#endif
