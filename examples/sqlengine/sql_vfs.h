// SQLite's operating-system layer over the library: files, directories, time, chance, sleep.
#pragma once

#include <cstdint>

struct sqlite3;

namespace sql {

// Makes ours the only layer that SQLite knows, its built-in ones forgotten. After SQLite
// started, before anything is opened. False when there is no memory.
bool vfs_install();

// True when SQLite knows no layer but ours and `db`, if not NULL, uses it.
bool vfs_is_ours(sqlite3* db);

} // namespace sql
