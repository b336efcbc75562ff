// Start and stop: the library, SQLite on top of it, and one open database.
#pragma once

#include "psp.h"

struct sqlite3;

namespace sql {

// Starts the library and SQLite on it; `log_name` may be NULL. False after a message.
bool platform_start(const char* log_name);

// Stops both. Safe after a start that failed. False, after a message, when SQLite did not use
// the platform all along or did not give everything back.
bool platform_stop();

// Opens a database and reads from it, so that a bad file, a missing right or a lock is found now.
// `wait` is how long to wait for a lock, in milliseconds. NULL after a message.
sqlite3* database_open(const char* name, uint32_t wait);

// Closes a database; NULL is harmless.
void database_close(sqlite3* db);

// Writes a line of the form "sqlengine: …" to the standard error; no newline in the format.
void complain(const char* format, ...) PSP_PRINTF(1, 2);

// Complains about the last failure on `db` in words, with the system's reason where there is one,
// behind `where` (such as "line 3").
void complain_about(sqlite3* db, const char* where);

} // namespace sql
