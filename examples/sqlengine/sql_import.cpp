// Reads UnicodeData.txt, fifteen fields a line between semicolons, into SQL tables.
//
// Lines come from a text stream of the library into a fixed buffer; every field stays where it is
// and is bound to the statement in place. Transactions of some thousand rows keep the journal
// small and lose little when the process is stopped. A line that is not in the format ends the
// import: half-understood data is worse than none.

#include "sql_import.h"

#include "psp.h"
#include "sql_platform.h"
#include "sql_text.h"

#include <sqlite3.h>

#include <cstring>

namespace sql {
namespace {

constexpr size_t field_count = 15;
constexpr int64_t rows_a_transaction = 4000;

// The fields that are used, by position.
enum Field {
    code_field,
    name_field,
    kind_field,
    base_field = 5,
    number_field = 8,
    upper_field = 12,
    lower_field = 13
};

constexpr const char* schema =
    "CREATE TABLE kind(code TEXT PRIMARY KEY, meaning TEXT NOT NULL) WITHOUT ROWID;"
    "INSERT INTO kind VALUES"
    " ('Lu', 'upper-case letter'), ('Ll', 'lower-case letter'), ('Lt', 'title-case letter'),"
    " ('Lm', 'modifier letter'), ('Lo', 'other letter'), ('Mn', 'mark above or below'),"
    " ('Mc', 'mark beside'), ('Me', 'mark around'), ('Nd', 'decimal digit'),"
    " ('Nl', 'number letter'), ('No', 'other number'), ('Pc', 'connector'), ('Pd', 'dash'),"
    " ('Ps', 'opening bracket'), ('Pe', 'closing bracket'), ('Pi', 'opening quote'),"
    " ('Pf', 'closing quote'), ('Po', 'other punctuation'), ('Sm', 'mathematical symbol'),"
    " ('Sc', 'currency symbol'), ('Sk', 'modifier symbol'), ('So', 'other symbol'),"
    " ('Zs', 'space'), ('Zl', 'line separator'), ('Zp', 'paragraph separator'),"
    " ('Cc', 'control'), ('Cf', 'format'), ('Cs', 'surrogate'), ('Co', 'private use');"
    "CREATE TABLE character(code INTEGER PRIMARY KEY, glyph TEXT, name TEXT NOT NULL,"
    " kind TEXT NOT NULL REFERENCES kind, base INTEGER, number TEXT, value REAL,"
    " upper INTEGER, lower INTEGER);"
    // Large ranges are given by their first and last line only, one right after the other.
    "CREATE VIEW range AS SELECT substr(f.name, 2, length(f.name) - 9) AS name, f.code AS first,"
    " (SELECT min(l.code) FROM character l WHERE l.code > f.code) AS last"
    " FROM character f WHERE f.name LIKE '<%, First>';";

constexpr const char* indexes = "CREATE INDEX character_by_kind ON character(kind);"
                                "CREATE INDEX character_by_base ON character(base)"
                                " WHERE base IS NOT NULL;";

struct Import {
    sqlite3* db;
    sqlite3_stmt* insert;
    PSP_FILE_STREAM file;
    const char* file_name;
    int64_t rows;
    uint64_t bytes_read;
    uint64_t bytes_all;
    bool shows_progress;
};

bool run(Import& import, const char* sql)
{
    if (sqlite3_exec(import.db, sql, nullptr, nullptr, nullptr) == SQLITE_OK)
        return true;
    complain_about(import.db, "import");
    return false;
}

// Cuts a line into its fields in place; false when their number is wrong.
bool split(char* line, char* (&fields)[field_count])
{
    size_t count = 0;
    line[strcspn(line, "\r\n")] = 0;
    while (line != nullptr && count < field_count) {
        fields[count++] = line;
        line = strchr(line, ';');
        if (line != nullptr)
            *line++ = 0;
    }
    return count == field_count && line == nullptr;
}

// Reads hexadecimal digits up to a blank or the end; false when there are none or others.
bool parse_code(const char* text, uint32_t* code)
{
    *code = 0;
    const char* end = text;
    for (; *end != 0 && *end != ' '; end++) {
        const uint8_t digit = psp_hexdigit(*end);
        if (digit > 15 || end - text >= 6)
            return false;
        *code = *code * 16 + digit;
    }
    return end != text && *code < 0x110000;
}

// What stands for the character on a screen, or nothing: a mark is shown on a dotted circle.
size_t glyph_of(uint32_t code, const char* kind, uint8_t (&glyph)[8])
{
    constexpr uint32_t dotted_circle = 0x25CC;
    if (kind[0] == 'C' || strcmp(kind, "Zl") == 0 || strcmp(kind, "Zp") == 0)
        return 0;
    const size_t carrier = kind[0] == 'M' ? psp_utf8_codes(dotted_circle, glyph) : 0;
    return carrier + psp_utf8_codes(code, glyph + carrier);
}

// The value of "7" or "1/320".
bool parse_number(const char* text, double* value)
{
    double divisor = 1;
    const char* slash = strchr(text, '/');
    if (psp_strtod(text, value) != sOKAY ||
        (slash != nullptr && (psp_strtod(slash + 1, &divisor) != sOKAY || divisor == 0)))
        return false;
    *value /= divisor;
    return true;
}

void bind_text(sqlite3_stmt* statement, int at, const char* text)
{
    if (text[0] == 0)
        sqlite3_bind_null(statement, at);
    else
        sqlite3_bind_text(statement, at, text, -1, SQLITE_STATIC);
}

void bind_code(sqlite3_stmt* statement, int at, const char* text)
{
    uint32_t code = 0;
    if (parse_code(text, &code))
        sqlite3_bind_int64(statement, at, code);
    else
        sqlite3_bind_null(statement, at);
}

bool insert_row(Import& import, char* const (&fields)[field_count])
{
    uint32_t code = 0;
    uint8_t glyph[8];
    double value = 0;
    if (!parse_code(fields[code_field], &code) || strlen(fields[kind_field]) != 2)
        return false;
    const size_t glyph_size = glyph_of(code, fields[kind_field], glyph);
    sqlite3_stmt* insert = import.insert;
    sqlite3_bind_int64(insert, 1, code);
    if (glyph_size != 0)
        sqlite3_bind_text(insert, 2, reinterpret_cast<char*>(glyph), static_cast<int>(glyph_size),
                          SQLITE_STATIC);
    else
        sqlite3_bind_null(insert, 2);
    bind_text(insert, 3, fields[name_field]);
    bind_text(insert, 4, fields[kind_field]);
    bind_code(insert, 5, fields[base_field]); // "<compat> 0043" is no base: it does not begin so
    bind_text(insert, 6, fields[number_field]);
    if (parse_number(fields[number_field], &value) && fields[number_field][0] != 0)
        sqlite3_bind_double(insert, 7, value);
    else
        sqlite3_bind_null(insert, 7);
    bind_code(insert, 8, fields[upper_field]);
    bind_code(insert, 9, fields[lower_field]);
    sqlite3_step(insert);
    return sqlite3_reset(insert) == SQLITE_OK;
}

void show_progress(const Import& import, bool last)
{
    if (!import.shows_progress)
        return;
    const uint64_t all = import.bytes_all != 0 ? import.bytes_all : 1;
    psp_printf("\rimporting  %s rows  %3llu%%%s", Grouped(static_cast<uint64_t>(import.rows)).text,
               static_cast<unsigned long long>(import.bytes_read * 100 / all),
               last ? "\r\x1b[K" : "");
    psp_flush();
}

bool import_line(Import& import, char* line)
{
    char* fields[field_count];
    import.bytes_read += strlen(line);
    if (!split(line, fields)) {
        complain("%s: line %lld is not in the format of UnicodeData.txt", import.file_name,
                 static_cast<long long>(import.rows + 1));
        return false;
    }
    if (!insert_row(import, fields)) {
        char where[64];
        psp_snprintf(where, sizeof where, "import of line %lld",
                     static_cast<long long>(import.rows + 1));
        if (sqlite3_errcode(import.db) == SQLITE_OK)
            complain("%s: not a character", where);
        else
            complain_about(import.db, where);
        return false;
    }
    import.rows++;
    return true;
}

bool import_lines(Import& import)
{
    char line[1024];
    while (psp_fgets(line, sizeof line, import.file) != nullptr) {
        if (!import_line(import, line))
            return false;
        if (import.rows % rows_a_transaction != 0)
            continue;
        show_progress(import, false);
        if (!run(import, "COMMIT; BEGIN IMMEDIATE"))
            return false;
    }
    return true;
}

bool import_all(Import& import)
{
    if (!run(import, "BEGIN IMMEDIATE") || !run(import, schema))
        return false;
    constexpr const char* insert =
        "INSERT INTO character VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)";
    if (sqlite3_prepare_v2(import.db, insert, -1, &import.insert, nullptr) != SQLITE_OK) {
        complain_about(import.db, "import");
        return false;
    }
    const bool done = import_lines(import);
    sqlite3_finalize(import.insert);
    show_progress(import, true);
    if (!done) {
        if (sqlite3_get_autocommit(import.db) == 0)
            sqlite3_exec(import.db, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    }
    return run(import, indexes) && run(import, "COMMIT");
}

uint64_t length_of(const char* name)
{
    const PSP_FH file = psp_fileOpen(name, 0, 0);
    if (file == nullptr)
        return 0;
    const PSP_FILE_OFFSET length = psp_fileLength(file);
    psp_fileClose(file);
    return length;
}

} // namespace

int64_t import_unicode(sqlite3* db, const char* file_name)
{
    Import import = {
        db, nullptr, nullptr, file_name, 0, 0, length_of(file_name), output_is_terminal()};
    import.file = psp_fopen(file_name, "r", PSP_FILE_MODE_UTF8);
    if (import.file == nullptr) {
        complain("%s: cannot be read", file_name);
        return -1;
    }
    const bool done = import_all(import);
    psp_fclose(import.file);
    return done ? import.rows : -1;
}

} // namespace sql
