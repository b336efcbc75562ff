// A mutex of SQLite's is a handle of the library's, nothing around it: both are opaque pointers,
// and the library's mutexes are recursive, which serves SQLite's plain and recursive kinds alike.
// The twelve static mutexes, which SQLite names by number, are made when SQLite starts and deleted
// when it stops.
//
// The library has no attempt that gives up at once. SQLite allows for that: an attempt may always
// answer "busy", it is only ever made to save time.

#include "sql_mutex.h"

#include "psp.h"

#include <sqlite3.h>

#include <array>
#include <atomic>

namespace sql {
namespace {

constexpr int first_static = SQLITE_MUTEX_STATIC_MAIN;
constexpr size_t static_count = SQLITE_MUTEX_STATIC_VFS3 - SQLITE_MUTEX_STATIC_MAIN + 1;

std::array<PSP_SEM, static_count> static_mutexes;
bool statics_made = false;
std::atomic<uint64_t> created{0};
std::atomic<uint64_t> alive{0};
std::atomic<uint64_t> entered{0};

PSP_SEM create()
{
    const PSP_SEM sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    if (sem != PSP_SEM_INVALID) {
        created.fetch_add(1);
        alive.fetch_add(1);
    }
    return sem;
}

void destroy(PSP_SEM sem)
{
    psp_syncDelete(sem);
    alive.fetch_sub(1);
}

sqlite3_mutex* as_mutex(PSP_SEM sem)
{
    return reinterpret_cast<sqlite3_mutex*>(sem);
}

PSP_SEM as_sem(sqlite3_mutex* mutex)
{
    return reinterpret_cast<PSP_SEM>(mutex);
}

int mutex_end()
{
    if (!statics_made)
        return SQLITE_OK;
    statics_made = false;
    for (PSP_SEM sem : static_mutexes) {
        if (sem != PSP_SEM_INVALID)
            destroy(sem);
    }
    return SQLITE_OK;
}

// SQLite may call this again while it runs; then nothing is to be done.
int mutex_init()
{
    if (statics_made)
        return SQLITE_OK;
    statics_made = true;
    bool complete = true;
    for (PSP_SEM& sem : static_mutexes) {
        sem = create();
        complete = complete && sem != PSP_SEM_INVALID;
    }
    if (complete)
        return SQLITE_OK;
    mutex_end();
    return SQLITE_NOMEM;
}

sqlite3_mutex* mutex_alloc(int kind)
{
    if (kind >= first_static)
        return as_mutex(static_mutexes[static_cast<size_t>(kind - first_static)]);
    const PSP_SEM sem = create();
    return sem != PSP_SEM_INVALID ? as_mutex(sem) : nullptr;
}

void mutex_free(sqlite3_mutex* mutex)
{
    destroy(as_sem(mutex));
}

void mutex_enter(sqlite3_mutex* mutex)
{
    psp_syncEnterExcl(as_sem(mutex));
    entered.fetch_add(1, std::memory_order_relaxed);
}

int mutex_try(sqlite3_mutex*)
{
    return SQLITE_BUSY;
}

void mutex_leave(sqlite3_mutex* mutex)
{
    psp_syncExitExcl(as_sem(mutex));
}

// Only SQLite's own assertions ask these two; who cannot tell answers yes.
int mutex_unknown(sqlite3_mutex*)
{
    return 1;
}

const sqlite3_mutex_methods mutex_methods = {mutex_init,  mutex_end,     mutex_alloc,
                                             mutex_free,  mutex_enter,   mutex_try,
                                             mutex_leave, mutex_unknown, mutex_unknown};

} // namespace

bool mutex_install()
{
    return sqlite3_config(SQLITE_CONFIG_MUTEX, &mutex_methods) == SQLITE_OK && mutex_installed();
}

bool mutex_installed()
{
    sqlite3_mutex_methods current = {};
    return sqlite3_config(SQLITE_CONFIG_GETMUTEX, &current) == SQLITE_OK &&
           current.xMutexAlloc == mutex_alloc && current.xMutexEnter == mutex_enter &&
           current.xMutexLeave == mutex_leave;
}

MutexFigures mutex_figures()
{
    return {created.load(), alive.load(), entered.load()};
}

} // namespace sql
