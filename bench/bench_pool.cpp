// Object pools beside the C library's heap.

#include <cstdlib>

#include "row.h"

namespace {

using bench::Registered;
using bench::Row;

constexpr size_t OBJECT = 64;

void plain(Row& row)
{
    const bench::Server server;
    PSP_POOL pool = nullptr;
    if (psp_poolCreateEx(nullptr, PSP_POOL_FIXED_SIZE, nullptr, nullptr, nullptr, nullptr, &pool) !=
        sOKAY)
        return row.fail("no pool");
    row.psp([pool](size_t n) {
        for (size_t i = 0; i < n; ++i) {
            void* object = psp_poolGetMem(pool, OBJECT, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__);
            benchmark::DoNotOptimize(object);
            psp_poolPut(pool, object);
        }
    });
    row.peer(
        "malloc",
        [](size_t n) {
            for (size_t i = 0; i < n; ++i) {
                void* object = std::malloc(OBJECT);
                benchmark::DoNotOptimize(object);
                std::free(object);
            }
        },
        0.6);
    row.run();
}

const Registered plain_row("pool", "get and put 64 B", "ns/pair", plain);

} // namespace
