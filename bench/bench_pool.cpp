// Object pools beside the C library's heap and lists of resources.

#include <cstdlib>

#ifdef PSP_PEER_APRUTIL
#include <apr_general.h>
#include <apr_reslist.h>
#endif

#include "row.h"

namespace {

using bench::Registered;
using bench::Row;

constexpr size_t OBJECT = 64;

template <class Get, class Put>
bench::Work pairs(Get get, Put put)
{
    return [=](size_t n) {
        for (size_t i = 0; i < n; ++i) {
            void* object = get();
            benchmark::DoNotOptimize(object);
            put(object);
        }
    };
}

// The library's side; `lock` is a name for a mutex, or NULL.
bool add_pool(Row& row, const char* lock)
{
    PSP_POOL pool = nullptr;
    if (psp_poolCreateEx(nullptr, PSP_POOL_FIXED_SIZE, lock, nullptr, nullptr, nullptr, &pool) !=
        sOKAY)
        return false;
    row.psp(pairs(
        [pool] { return psp_poolGetMem(pool, OBJECT, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__); },
        [pool](void* object) { psp_poolPut(pool, object); }));
    return true;
}

void plain(Row& row)
{
    const bench::Server server;
    if (!add_pool(row, nullptr))
        return row.fail("no pool");
    row.peer("glibc", pairs([] { return std::malloc(OBJECT); }, std::free), 0.6);
    row.run();
}

#ifdef PSP_PEER_APRUTIL

apr_status_t make_resource(void** resource, void*, apr_pool_t*)
{
    *resource = std::malloc(OBJECT);
    return *resource ? APR_SUCCESS : APR_ENOMEM;
}

apr_status_t end_resource(void* resource, void*, apr_pool_t*)
{
    std::free(resource);
    return APR_SUCCESS;
}

// Some idle resources are kept, none is ever too old.
apr_reslist_t* make_reslist(apr_pool_t* pool)
{
    constexpr int most = 100;
    apr_reslist_t* list = nullptr;
    const apr_status_t status =
        apr_reslist_create(&list, 1, most, most, 0, make_resource, end_resource, nullptr, pool);
    return status == APR_SUCCESS ? list : nullptr;
}

void with_mutex(Row& row)
{
    const bench::Server server;
    apr_initialize();
    apr_pool_t* apr_pool = nullptr;
    apr_pool_create(&apr_pool, nullptr);
    apr_reslist_t* const list = make_reslist(apr_pool);
    if (!list || !add_pool(row, "shared"))
        return row.fail("no pool");
    row.peer("apr",
             pairs(
                 [list] {
                     void* resource = nullptr;
                     apr_reslist_acquire(list, &resource);
                     return resource;
                 },
                 [list](void* resource) { apr_reslist_release(list, resource); }),
             0.8);
    row.run();
    apr_pool_destroy(apr_pool);
}

const Registered mutex_row("pool", "get and put 64 B, with a mutex", "ns/pair", with_mutex);

#endif

const Registered plain_row("pool", "get and put 64 B", "ns/pair", plain);

} // namespace
