// Brings the Unicode character table into a database.
#pragma once

#include <cstdint>

struct sqlite3;

namespace sql {

// Makes the tables `character`, `kind` and `range` and fills them from a file in the format of
// UnicodeData.txt, with a progress line on a terminal. Gives the number of lines imported, or -1
// after a message; the database then holds what was committed before.
int64_t import_unicode(sqlite3* db, const char* file_name);

} // namespace sql
