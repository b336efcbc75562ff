// Installs the library as the platform beneath SQLite, in the order that both sides want:
//
//   library → tags and log → SQLite's configuration → SQLite → its operating-system layer
//
// and takes it apart in reverse. SQLite reads its configuration when it starts, so allocator,
// mutexes and log come before; it registers its own operating-system layers while it starts, so
// ours replaces them right after. At the end the configuration is read back.
//
// Waiting for a lock is polling: the library's file lock never waits. The pauses grow from 1 to
// 20 ms and are spread by chance, so that two waiting processes do not move in step.

#include "sql_platform.h"

#include "sql_file.h"
#include "sql_log.h"
#include "sql_memory.h"
#include "sql_mutex.h"
#include "sql_vfs.h"

#include <sqlite3.h>

#include <fcntl.h>

namespace sql {
namespace {

uint32_t wait_limit = 0;        // milliseconds
PSP_RAND wait_spread = nullptr; // spreads the pauses of waiting processes
PSP_FH standard[3] = {};        // see hold_standard_descriptors()
bool library_started = false;
bool engine_started = false;

// A process may be started with its standard descriptors closed. A database opened then would take
// their numbers, and what is printed would be written into it. These three opens take any number
// that is free among 0 to 2, for good.
void hold_standard_descriptors()
{
    for (PSP_FH& handle : standard)
        handle = psp_fileOpen("/dev/null", O_RDWR | O_CLOEXEC, 0);
}

void release_standard_descriptors()
{
    for (PSP_FH& handle : standard) {
        psp_fileClose(handle);
        handle = nullptr;
    }
}

bool configure_engine()
{
    // A database's name is a name: no URI that could switch locking off.
    return mutex_install() && memory_install() && log_install() &&
           sqlite3_config(SQLITE_CONFIG_URI, 0) == SQLITE_OK;
}

bool start_engine()
{
    if (!memory_start() || !configure_engine() || sqlite3_initialize() != SQLITE_OK)
        return false;
    engine_started = true;
    wait_spread = psp_randCreateNoSem(static_cast<uint32_t>(psp_get_pid() ^ psp_timeNanoSecs()));
    return wait_spread != nullptr && vfs_install() && vfs_is_ours(nullptr);
}

int wait_for_lock(void*, int attempt)
{
    static uint64_t since = 0;
    const uint64_t now = psp_timeNanoSecs();
    if (attempt == 0)
        since = now;
    if (now - since >= uint64_t{wait_limit} * 1000000)
        return 0;
    const uint32_t most = attempt < 20 ? static_cast<uint32_t>(attempt) + 1 : 20;
    psp_sleep(1 + psp_randGetUInt32(wait_spread) % most);
    file_figures.sleeps.fetch_add(1);
    return 1;
}

bool prepare_database(sqlite3* db)
{
    // EXTRA: the end of a transaction also waits for the directory, from which the journal has
    // gone.
    return sqlite3_busy_handler(db, wait_for_lock, nullptr) == SQLITE_OK &&
           sqlite3_extended_result_codes(db, 1) == SQLITE_OK &&
           sqlite3_exec(db, "PRAGMA synchronous = EXTRA", nullptr, nullptr, nullptr) == SQLITE_OK &&
           sqlite3_exec(db, "SELECT count(*) FROM sqlite_schema", nullptr, nullptr, nullptr) ==
               SQLITE_OK;
}

bool all_returned()
{
    const bool ours = memory_installed() && mutex_installed();
    if (!ours)
        complain("SQLite did not keep the platform that it was given");
    const uint64_t blocks = memory_figures(Owner::engine).in_use;
    if (blocks != 0)
        complain("SQLite did not return %llu bytes", static_cast<unsigned long long>(blocks));
    const uint64_t mutexes = mutex_figures().alive;
    if (mutexes != 0)
        complain("SQLite did not return %llu mutexes", static_cast<unsigned long long>(mutexes));
    const uint64_t files = file_figures.open_now.load();
    if (files != 0)
        complain("SQLite did not close %llu files", static_cast<unsigned long long>(files));
    return ours && blocks == 0 && mutexes == 0 && files == 0;
}

} // namespace

bool platform_start(const char* log_name)
{
    if (psp_init() != sOKAY) {
        psp_errPrint("sqlengine: the library does not start");
        return false;
    }
    library_started = true;
    hold_standard_descriptors();
    const char* wrong = log_start(log_name);
    if (wrong != nullptr) {
        complain("%s: %s", log_name, wrong);
        return false;
    }
    if (!start_engine()) {
        complain("SQLite does not start on this platform");
        return false;
    }
    log_line("started: SQLite %s, process %llu", sqlite3_libversion(),
             static_cast<unsigned long long>(psp_get_pid()));
    return true;
}

bool platform_stop()
{
    bool clean = true;
    if (engine_started) {
        sqlite3_shutdown();
        clean = all_returned();
        psp_randDestroy(wait_spread);
    }
    if (!library_started)
        return clean;
    log_line("stopped");
    memory_stop();
    log_stop();
    release_standard_descriptors();
    psp_term();
    engine_started = library_started = false;
    return clean;
}

sqlite3* database_open(const char* name, uint32_t wait)
{
    sqlite3* db = nullptr;
    wait_limit = wait;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (sqlite3_open_v2(name, &db, flags, nullptr) == SQLITE_OK && prepare_database(db))
        return db;
    complain_about(db, name);
    sqlite3_close(db);
    return nullptr;
}

void database_close(sqlite3* db)
{
    if (sqlite3_close(db) != SQLITE_OK)
        complain_about(db, "closing");
}

void complain(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* text = psp_makeStrV(__FILE__, __LINE__, PSP_THREAD_TAG, format, args);
    va_end(args);
    psp_flush();
    const char* words = text != nullptr ? text : "out of memory";
    psp_log_err("sqlengine: %s\n", words);
    log_line("error: %s", words);
    psp_freeMem(text, PSP_THREAD_TAG, __FILE__, __LINE__);
}

void complain_about(sqlite3* db, const char* where)
{
    const int kind = sqlite3_errcode(db) & 0xff;
    const int reason =
        kind == SQLITE_CANTOPEN || kind == SQLITE_IOERR ? sqlite3_system_errno(db) : 0;
    char* words = reason != 0 ? psp_strerr_alloc(reason, PSP_THREAD_TAG) : nullptr;
    if (words != nullptr)
        complain("%s: %s: %s", where, sqlite3_errmsg(db), words);
    else if (kind == SQLITE_BUSY)
        complain("%s: %s: another process holds it (waited %u ms)", where, sqlite3_errmsg(db),
                 wait_limit);
    else
        complain("%s: %s", where, sqlite3_errmsg(db));
    psp_freeMem(words, PSP_THREAD_TAG, __FILE__, __LINE__);
}

} // namespace sql
