// Other heaps as peers: opened at run time and in a scope of their own, so that the C library's
// stays what it is for everybody else in the process.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>

#include "row.h"

namespace bench {

struct Heap {
    void* (*get)(size_t);
    void (*put)(void*);
};

inline constexpr Heap GLIBC = {std::malloc, std::free};

// A function of a library that stays open, or NULL.
template <class Function>
Function* function_of(const char* library, const char* name)
{
    void* const opened = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    return opened ? reinterpret_cast<Function*>(dlsym(opened, name)) : nullptr;
}

inline Heap heap_of(const char* library, const char* get, const char* put)
{
    return {function_of<void*(size_t)>(library, get), function_of<void(void*)>(library, put)};
}

#ifdef PSP_HEAP_JEMALLOC
// Its plain functions bear the C library's names. It needs more thread-local memory than a program
// has to spare, unless GLIBC_TUNABLES=glibc.rtld.optional_static_tls=16384 sets some aside.
inline const auto jemalloc_mallocx = function_of<void*(size_t, int)>(PSP_HEAP_JEMALLOC, "mallocx");
inline const auto jemalloc_dallocx = function_of<void(void*, int)>(PSP_HEAP_JEMALLOC, "dallocx");

inline void* jemalloc_get(size_t size)
{
    return jemalloc_mallocx(size, 0);
}

inline void jemalloc_put(void* block)
{
    jemalloc_dallocx(block, 0);
}
#endif

// The heaps that are there, by name.
inline std::vector<std::pair<std::string, Heap>> heaps()
{
    std::vector<std::pair<std::string, Heap>> found = {{"glibc", GLIBC}};
    [[maybe_unused]] const auto add = [&found](const char* name, Heap heap) {
        if (heap.get && heap.put)
            found.emplace_back(name, heap);
    };
#ifdef PSP_HEAP_MIMALLOC
    add("mimalloc", heap_of(PSP_HEAP_MIMALLOC, "mi_malloc", "mi_free"));
#endif
#ifdef PSP_HEAP_TCMALLOC
    add("tcmalloc", heap_of(PSP_HEAP_TCMALLOC, "tc_malloc", "tc_free"));
#endif
#ifdef PSP_HEAP_JEMALLOC
    if (jemalloc_mallocx && jemalloc_dallocx)
        add("jemalloc", {jemalloc_get, jemalloc_put});
#endif
    return found;
}

} // namespace bench
