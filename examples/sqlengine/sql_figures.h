// What the engine asked of the platform, as a report.
#pragma once

struct sqlite3;

namespace sql {

// Prints the report. While `db` is open it is asked whether it uses the platform; it may be NULL.
void print_figures(sqlite3* db);

} // namespace sql
