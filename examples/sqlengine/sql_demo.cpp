// The demonstration: a real file in, answers with characters of many scripts out, and the engine's
// own check that every page, index and constraint is sound.

#include "sql_demo.h"

#include "psp.h"
#include "sql_figures.h"
#include "sql_import.h"
#include "sql_log.h"
#include "sql_platform.h"
#include "sql_table.h"
#include "sql_text.h"

#include <sqlite3.h>

#include <cstring>

namespace sql {
namespace {

constexpr uint32_t wait = 5000; // milliseconds, for another demonstration in the same directory

struct Question {
    const char* title;
    const char* sql;
};

constexpr Question questions[] = {
    {"What kinds of characters are there?",
     "SELECT meaning AS kind, count(*) AS characters,"
     " (SELECT group_concat(glyph, ' ') FROM (SELECT glyph FROM character e"
     "  WHERE e.kind = c.kind AND glyph IS NOT NULL AND name NOT LIKE '<%'"
     "  ORDER BY e.code * 7919 % 10007 LIMIT 8)) AS some"
     " FROM character c JOIN kind ON kind.code = c.kind"
     " WHERE glyph IS NOT NULL GROUP BY c.kind ORDER BY 2 DESC LIMIT 12"},
    {"How do scripts count from zero to nine?",
     "SELECT replace(name, ' DIGIT ZERO', '') AS script,"
     " (SELECT group_concat(glyph, ' ') FROM character d"
     "  WHERE d.code BETWEEN zero.code AND zero.code + 9) AS digits,"
     " printf('U+%04X', code) AS from_code"
     " FROM character zero WHERE kind = 'Nd' AND name LIKE '% DIGIT ZERO'"
     " AND code NOT BETWEEN 0x0600 AND 0x07FF ORDER BY code LIMIT 18"},
    {"Which characters mean the most, and which the least?",
     "SELECT number, glyph, name FROM (SELECT * FROM character WHERE value > 0"
     " ORDER BY value, code LIMIT 5)"
     " UNION ALL SELECT number, glyph, name FROM (SELECT * FROM (SELECT * FROM character"
     " WHERE value > 0 ORDER BY value DESC, code LIMIT 6) ORDER BY value, code)"},
    {"Which letters are decorated most often?",
     "SELECT b.glyph AS letter, b.name, count(*) AS forms,"
     " substr(group_concat(c.glyph, ''), 1, 24) AS some_of_them"
     " FROM character c JOIN character b ON b.code = c.base WHERE b.code <> c.code"
     " AND b.kind IN ('Ll', 'Lo') GROUP BY b.code ORDER BY forms DESC, b.code LIMIT 10"},
    {"Whose capital lives furthest from home?",
     "SELECT s.glyph AS small, c.glyph AS capital, abs(c.code - s.code) AS distance, s.name"
     " FROM character s JOIN character c ON c.code = s.upper"
     " ORDER BY distance DESC, s.code LIMIT 8"},
    {"What are the largest ranges, of which only the ends are listed?",
     "SELECT name, last - first + 1 AS characters, printf('U+%04X', first) AS first,"
     " printf('U+%04X', last) AS last, char(first) || ' … ' || char(last) AS ends"
     " FROM range WHERE name NOT LIKE '%Surrogate' AND name NOT LIKE '%Private Use%'"
     " ORDER BY 2 DESC LIMIT 8"},
    {"Which names are the shortest?",
     "SELECT glyph, name, printf('U+%04X', code) AS code FROM character"
     " WHERE glyph IS NOT NULL AND name NOT LIKE '<%' ORDER BY length(name), code LIMIT 10"},
};

bool answer(sqlite3* db, const Question& question)
{
    sqlite3_stmt* query = nullptr;
    uint64_t rows = 0;
    psp_printf("\n%s\n\n", question.title);
    if (sqlite3_prepare_v2(db, question.sql, -1, &query, nullptr) != SQLITE_OK) {
        complain_about(db, question.title);
        return false;
    }
    const TableEnd end = print_table(query, 0, &rows);
    if (end != TableEnd::done)
        complain_about(db, question.title);
    sqlite3_finalize(query);
    psp_flush();
    return end == TableEnd::done;
}

bool check(sqlite3* db)
{
    sqlite3_stmt* query = nullptr;
    bool sound = false;
    if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &query, nullptr) == SQLITE_OK &&
        sqlite3_step(query) == SQLITE_ROW) {
        const auto* verdict = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
        sound = verdict != nullptr && strcmp(verdict, "ok") == 0;
        psp_printf("\nintegrity check: %s\n\n", verdict != nullptr ? verdict : "no answer");
    } else {
        complain_about(db, "integrity check");
    }
    sqlite3_finalize(query);
    return sound;
}

bool import(sqlite3* db, const char* file_name)
{
    const uint64_t start = psp_timeMilliSecs();
    const int64_t rows = import_unicode(db, file_name);
    if (rows < 0)
        return false;
    const uint64_t took = psp_timeMilliSecs() - start;
    psp_printf("imported %s rows of %s in %llu.%03llu s\n",
               Grouped(static_cast<uint64_t>(rows)).text, file_name,
               static_cast<unsigned long long>(took / 1000),
               static_cast<unsigned long long>(took % 1000));
    log_line("imported %lld rows of %s", static_cast<long long>(rows), file_name);
    psp_flush();
    return true;
}

bool show(sqlite3* db, const char* file_name)
{
    if (!import(db, file_name))
        return false;
    for (const Question& question : questions) {
        if (!answer(db, question))
            return false;
    }
    const bool sound = check(db);
    print_figures(db);
    return sound;
}

// The demonstration begins with a new database. What an earlier one left, its journal included, is
// removed; the journal first, so that it never lies beside a database that it does not belong to.
sqlite3* new_database(const char* name)
{
    char* journal = psp_makeStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, "%s-journal", name);
    const bool gone =
        journal != nullptr && psp_fileRemove(journal) == sOKAY && psp_fileRemove(name) == sOKAY;
    psp_freeMem(journal, PSP_THREAD_TAG, __FILE__, __LINE__);
    if (gone)
        return database_open(name, wait);
    complain("%s: an earlier database cannot be removed", name);
    return nullptr;
}

} // namespace

bool demo_run(const char* directory, const char* file_name)
{
    char* name = psp_makeStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, "%s/unicode.db", directory);
    if (name == nullptr) {
        complain("out of memory");
        return false;
    }
    sqlite3* db = new_database(name);
    const bool done = db != nullptr && show(db, file_name);
    if (done)
        psp_printf("  database     %s\n", name);
    database_close(db);
    psp_freeMem(name, PSP_THREAD_TAG, __FILE__, __LINE__);
    return done;
}

} // namespace sql
