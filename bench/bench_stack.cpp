// How the stack allocator's cost grows with its chunks: requests that only the oldest of many
// chunks can serve, because all newer ones have less left.

#include "row.h"

namespace {

using bench::Registered;
using bench::Row;

constexpr size_t REQUEST = 24;
constexpr size_t REQUESTS = 64;

void* get(PSP_MEMTAG tag, size_t size)
{
    return psp_getMem(size, tag, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
}

// An empty tag gets its chunks: 2096 bytes left in the oldest, 16 in each of the others.
void fill(PSP_MEMTAG tag, size_t chunks)
{
    psp_freeTagMem(tag, ZYN_FALSE, __FILE__, __LINE__);
    get(tag, 2000);
    for (size_t i = 1; i < chunks; ++i)
        get(tag, 4080);
}

void first_fit(Row& row, size_t chunks, const char* grows_from)
{
    const bench::Server server;
    const PSP_MEMTAG tag =
        psp_createTagEx(nullptr, 0, STACK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
    fill(tag, chunks);
    row.batch(REQUESTS);
    row.psp(
        [tag](size_t n) {
            for (size_t i = 0; i < n; ++i)
                benchmark::DoNotOptimize(get(tag, REQUEST));
        },
        [tag, chunks] { fill(tag, chunks); });
    if (grows_from)
        row.growth_from(grows_from, 8);
    row.run();
}

const Registered rows[] = {
    {"stack", "first fit, 100 chunks", "ns", [](Row& row) { first_fit(row, 100, nullptr); }},
    {"stack", "first fit, 1 k chunks", "ns",
     [](Row& row) { first_fit(row, 1000, "stack/first fit, 100 chunks"); }},
    {"stack", "first fit, 10 k chunks", "ns",
     [](Row& row) { first_fit(row, 10'000, "stack/first fit, 100 chunks"); }},
    {"stack", "first fit, 100 k chunks", "ns",
     [](Row& row) { first_fit(row, 100'000, "stack/first fit, 100 chunks"); }},
};

} // namespace
