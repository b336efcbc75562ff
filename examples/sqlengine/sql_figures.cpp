// The report at the end: what SQLite asked of the platform, from the counters that each part keeps,
// beside SQLite's own counters where it has them. Two bookkeepers that agree are the proof that
// nothing went past the platform.

#include "sql_figures.h"

#include "psp.h"
#include "sql_file.h"
#include "sql_log.h"
#include "sql_memory.h"
#include "sql_mutex.h"
#include "sql_text.h"
#include "sql_vfs.h"

#include <sqlite3.h>

namespace sql {
namespace {

void print_memory()
{
    psp_printf("  %-12s %12s %16s %14s %14s\n", "memory tag", "allocations", "bytes in all",
               "held now", "high-water");
    for (int i = 0; i < static_cast<int>(Owner::count); i++) {
        const MemoryFigures tag = memory_figures(static_cast<Owner>(i));
        psp_printf("  %-12s %12s %16s %14s %14s\n", tag.name, Grouped(tag.allocations).text,
                   Grouped(tag.bytes).text, Grouped(tag.in_use).text, Grouped(tag.high_water).text);
    }
    size_t now = 0;
    size_t most = 0;
    psp_getMemUsage(&now, &most);
    psp_printf("  %-12s %12s %16s %14s %14s\n\n", "the library", "", "", Grouped(now).text,
               Grouped(most).text);
}

uint64_t load(const std::atomic<uint64_t>& counter)
{
    return counter.load();
}

void print_files()
{
    const FileFigures& files = file_figures;
    psp_printf("  files        %s opened, %s of them temporary; %s removed, %s truncated\n",
               Grouped(load(files.opened)).text, Grouped(load(files.temporary)).text,
               Grouped(load(files.removals)).text, Grouped(load(files.truncations)).text);
    psp_printf("  read         %s bytes in %s reads\n", Grouped(load(files.bytes_read)).text,
               Grouped(load(files.reads)).text);
    psp_printf("  written      %s bytes in %s writes\n", Grouped(load(files.bytes_written)).text,
               Grouped(load(files.writes)).text);
    psp_printf("  syncs        %s of files, %s of directories\n", Grouped(load(files.syncs)).text,
               Grouped(load(files.directory_syncs)).text);
    psp_printf("  file locks   %s taken, %s refused; %s pauses\n",
               Grouped(load(files.locks_taken)).text, Grouped(load(files.locks_refused)).text,
               Grouped(load(files.sleeps)).text);
    psp_printf("  random       %s bytes\n", Grouped(load(files.random_bytes)).text);
}

void print_proof(sqlite3* db)
{
    const auto theirs = static_cast<uint64_t>(sqlite3_memory_highwater(0));
    const uint64_t ours = memory_figures(Owner::engine).high_water;
    psp_printf(
        "\n  SQLite's own count of its memory: at most %s bytes, which %s the engine's tag\n",
        Grouped(theirs).text, theirs == ours ? "is that of" : "DIFFERS FROM");
    psp_printf("  SQLite's own memory, mutex and operating-system code: %s\n",
               vfs_is_ours(db) ? "replaced, not used" : "IN USE");
}

} // namespace

void print_figures(sqlite3* db)
{
    const MutexFigures mutexes = mutex_figures();
    const LogFigures log = log_figures();
    psp_printf("What the engine asked of the platform\n\n");
    print_memory();
    psp_printf("  mutexes      %s created, %s alive, entered %s times\n",
               Grouped(mutexes.created).text, Grouped(mutexes.alive).text,
               Grouped(mutexes.entered).text);
    print_files();
    psp_printf("  log lines    %s by SQLite, %s by the program\n", Grouped(log.from_engine).text,
               Grouped(log.from_program).text);
    print_proof(db);
    if (log.name != nullptr)
        psp_printf("  log          %s\n", log.name);
    psp_flush();
}

} // namespace sql
