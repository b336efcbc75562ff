// Lays rows out in columns.
//
// A window of rows is kept, the columns are made as wide as its widest cells, the window is printed
// and its memory freed as a whole; later windows keep the widths. So a result of any size
// takes the memory of one window, and the usual result is laid out perfectly.

#include "sql_table.h"

#include "psp.h"
#include "sql_memory.h"
#include "sql_text.h"

#include <sqlite3.h>

#include <cstring>

namespace sql {
namespace {

constexpr uint32_t window_rows = 256;
constexpr uint64_t window_bytes = 4 << 20;

struct Column {
    uint32_t width;
    bool numbers; // every value so far is a number or NULL
};

struct Table {
    sqlite3_stmt* query;
    uint32_t widest;
    int columns;
    Column* column;   // Owner::program
    ShownText* cells; // Owner::results: the window, row by row
    uint32_t kept;    // rows in the window
    bool head_printed;
};

ShownText shown_blob(sqlite3_stmt* query, int column, uint32_t widest)
{
    const auto* bytes = static_cast<const unsigned char*>(sqlite3_column_blob(query, column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(query, column));
    auto* text = static_cast<char*>(memory_get(Owner::results, size * 2 + 4));
    if (text == nullptr)
        return {nullptr, 0, 0};
    memcpy(text, "x'", 2);
    for (size_t i = 0; i < size; i++)
        psp_snprintf(text + 2 + 2 * i, 3, "%02x", bytes[i]);
    memcpy(text + 2 + 2 * size, "'", 2);
    return shown_text(text, size * 2 + 3, widest);
}

ShownText shown_cell(const Table& table, int column)
{
    const int type = sqlite3_column_type(table.query, column);
    if (type == SQLITE_BLOB)
        return shown_blob(table.query, column, table.widest);
    if (type == SQLITE_NULL)
        return shown_text("NULL", 4, 0);
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(table.query, column));
    if (text == nullptr)
        return {nullptr, 0, 0};
    const auto size = static_cast<size_t>(sqlite3_column_bytes(table.query, column));
    return shown_text(text, size, table.widest);
}

void widen(Column& column, const ShownText& cell)
{
    if (cell.columns > column.width)
        column.width = cell.columns;
}

bool keep_row(Table& table)
{
    const auto columns = static_cast<size_t>(table.columns);
    if (table.cells == nullptr) {
        table.cells = static_cast<ShownText*>(
            memory_get(Owner::results, sizeof(ShownText) * columns * window_rows));
        if (table.cells == nullptr)
            return false;
    }
    ShownText* row = table.cells + table.kept * columns;
    for (int i = 0; i < table.columns; i++) {
        row[i] = shown_cell(table, i);
        if (row[i].text == nullptr)
            return false;
        const int type = sqlite3_column_type(table.query, i);
        if (!table.head_printed) {
            widen(table.column[i], row[i]);
            table.column[i].numbers =
                table.column[i].numbers &&
                (type == SQLITE_INTEGER || type == SQLITE_FLOAT || type == SQLITE_NULL);
        }
    }
    table.kept++;
    return true;
}

void print_cell(const Column& column, const ShownText& cell, bool last)
{
    const int space =
        column.width > cell.columns ? static_cast<int>(column.width - cell.columns) : 0;
    if (column.numbers)
        psp_printf("%*s%s%s", space, "", cell.text, last ? "\n" : "  ");
    else if (last)
        psp_printf("%s\n", cell.text);
    else
        psp_printf("%s%*s  ", cell.text, space, "");
}

bool print_head(Table& table)
{
    for (int i = 0; i < table.columns; i++) {
        const char* name = sqlite3_column_name(table.query, i);
        const ShownText cell =
            shown_text(name != nullptr ? name : "", name != nullptr ? strlen(name) : 0, 0);
        if (cell.text == nullptr)
            return false;
        widen(table.column[i], cell);
        print_cell(table.column[i], cell, i + 1 == table.columns);
    }
    for (int i = 0; i < table.columns; i++) {
        for (uint32_t drawn = 0; drawn < table.column[i].width; drawn++)
            psp_printf("─");
        psp_printf("%s", i + 1 == table.columns ? "\n" : "  ");
    }
    table.head_printed = true;
    return true;
}

bool print_window(Table& table)
{
    if (!table.head_printed && !print_head(table))
        return false;
    for (uint32_t r = 0; r < table.kept; r++) {
        const ShownText* row = table.cells + r * static_cast<size_t>(table.columns);
        for (int i = 0; i < table.columns; i++)
            print_cell(table.column[i], row[i], i + 1 == table.columns);
    }
    memory_reset(Owner::results);
    table.cells = nullptr;
    table.kept = 0;
    return true;
}

bool window_full(const Table& table)
{
    return table.kept == window_rows || memory_figures(Owner::results).in_use >= window_bytes;
}

TableEnd print_rows(Table& table, uint64_t* rows)
{
    int step;
    while ((step = sqlite3_step(table.query)) == SQLITE_ROW) {
        if (!keep_row(table))
            return TableEnd::no_memory;
        (*rows)++;
        if (window_full(table) && !print_window(table))
            return TableEnd::no_memory;
    }
    if ((table.kept > 0 || *rows == 0) && step == SQLITE_DONE && !print_window(table))
        return TableEnd::no_memory;
    return step == SQLITE_DONE ? TableEnd::done : TableEnd::failed;
}

} // namespace

TableEnd print_table(sqlite3_stmt* query, uint32_t widest, uint64_t* rows)
{
    Table table = {query, widest, sqlite3_column_count(query), nullptr, nullptr, 0, false};
    const auto columns = static_cast<size_t>(table.columns);
    *rows = 0;
    table.column = static_cast<Column*>(memory_get(Owner::program, columns * sizeof(Column)));
    if (table.column == nullptr)
        return TableEnd::no_memory;
    for (size_t i = 0; i < columns; i++)
        table.column[i] = {0, true};
    const TableEnd end = print_rows(table, rows);
    memory_reset(Owner::results);
    memory_free(Owner::program, table.column);
    return end;
}

} // namespace sql
