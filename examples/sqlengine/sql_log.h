// The program's log file, and SQLite's error log in it.
#pragma once

#include "psp.h"

#include <cstdint>

namespace sql {

struct LogFigures {
    uint64_t from_engine;  // lines that SQLite wrote
    uint64_t from_program; // lines that the program wrote
    const char* name;      // the file, NULL when there is none
};

// Opens the log, or none for NULL; `name` must outlive it. Gives NULL, or what went wrong, in
// words.
const char* log_start(const char* name);
void log_stop();

// Makes SQLite write its errors and notices to the log. Before SQLite starts.
bool log_install();

// Writes one line; no newline at the end of the format.
void log_line(const char* format, ...) PSP_PRINTF(1, 2);

LogFigures log_figures();

} // namespace sql
