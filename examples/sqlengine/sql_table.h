// The result of a query as a table.
#pragma once

#include <cstdint>

struct sqlite3_stmt;

namespace sql {

enum class TableEnd { done, failed, no_memory };

// Steps through the query and prints its rows; `rows` receives their number. `widest` limits a
// column, 0: not at all. After `failed` the connection knows the reason.
TableEnd print_table(sqlite3_stmt* query, uint32_t widest, uint64_t* rows);

} // namespace sql
