// One open file of SQLite's, between the layer that opens it and the methods that work on it.
#pragma once

#include "psp.h"

#include <sqlite3.h>

#include <atomic>
#include <cstdint>

namespace sql {

// SQLite allocates this, `base` first, and hands it to every method.
struct File {
    sqlite3_file base;
    PSP_FH handle;
    const char* name; // full path, SQLite's; NULL for a temporary file, whose name is gone
    int lock;         // SQLITE_LOCK_NONE … SQLITE_LOCK_EXCLUSIVE
    bool created;     // this process made the file, and its directory entry is not yet durable
};

extern const sqlite3_io_methods file_methods;

// What the whole layer did. Counted without order: figures, not synchronisation.
struct FileFigures {
    std::atomic<uint64_t> opened, temporary, open_now;
    std::atomic<uint64_t> reads, bytes_read;
    std::atomic<uint64_t> writes, bytes_written;
    std::atomic<uint64_t> syncs, directory_syncs, truncations, removals;
    std::atomic<uint64_t> locks_taken, locks_refused;
    std::atomic<uint64_t> random_bytes, sleeps;
};

extern FileFigures file_figures;

// Keeps the system's reason of a failure for SQLite to ask for; gives `code` back.
int file_failed(int code);
// The reason kept last on this thread.
int file_last_errno();

// Makes the entries of the directory that holds `name` durable.
bool sync_directory_of(const char* name);

} // namespace sql
