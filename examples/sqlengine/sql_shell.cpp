// A small SQL shell.
//
// A statement that gives rows is answered with a table and the number of rows, any other with a
// line that begins "ok". That line is printed, and flushed, only after SQLite reported the
// statement finished: outside a transaction, and for COMMIT, it says that the change is durable.
//
// A script stops at its first error, because what follows was written in the belief that it
// worked; the open transaction is rolled back. It may ask to go on instead, as a person at a
// terminal does: then what follows on the line is left out, and a transaction stays open unless
// SQLite had to roll it back. An input that ends inside a statement is refused
// rather than run: a cut-off condition may mean something else than the whole.

#include "sql_shell.h"

#include "psp.h"
#include "sql_figures.h"
#include "sql_memory.h"
#include "sql_platform.h"
#include "sql_table.h"
#include "sql_text.h"

#include <sqlite3.h>

#include <cstring>

namespace sql {
namespace {

// A statement as it is being typed; memory of Owner::program.
struct Text {
    char* data;
    size_t length; // without the NUL that always follows
    size_t room;
};

struct Shell {
    sqlite3* db;
    PSP_FILE_STREAM input;
    bool terminal; // input and output are one
    Text statement;
    uint32_t line;  // that is being read, from 1
    uint32_t first; // line on which the statement began
    bool ended;     // asked to stop
    bool failed;
};

bool append(Text& text, char c)
{
    if (text.length + 2 > text.room) {
        const size_t room = text.room == 0 ? 256 : text.room * 2;
        auto* data = static_cast<char*>(memory_extend(Owner::program, text.data, room));
        if (data == nullptr)
            return false;
        text.data = data;
        text.room = room;
    }
    text.data[text.length++] = c;
    text.data[text.length] = 0;
    return true;
}

bool is_blank(const Text& text)
{
    return text.length == 0 || text.data[strspn(text.data, " \t\r\n;")] == 0;
}

// The first character that is not a blank.
char* first_of(const Text& text)
{
    return text.data + strspn(text.data, " \t\r\n");
}

void fail(Shell& shell, const char* words)
{
    complain("line %u: %s", shell.first, words);
    shell.failed = true;
}

void fail_with_reason(Shell& shell)
{
    char where[32];
    psp_snprintf(where, sizeof where, "line %u", shell.first);
    complain_about(shell.db, where);
    shell.failed = true;
}

// ---- Running ----

void run_query(Shell& shell, sqlite3_stmt* query)
{
    constexpr uint32_t widest_on_terminal = 60;
    uint64_t rows = 0;
    const TableEnd end = print_table(query, shell.terminal ? widest_on_terminal : 0, &rows);
    if (end == TableEnd::no_memory)
        fail(shell, "out of memory");
    else if (end == TableEnd::failed)
        fail_with_reason(shell);
    else
        psp_printf("(%s row%s)\n", Grouped(rows).text, rows == 1 ? "" : "s");
}

void run_change(Shell& shell, sqlite3_stmt* change)
{
    const sqlite3_int64 before = sqlite3_total_changes64(shell.db);
    if (sqlite3_step(change) != SQLITE_DONE) {
        fail_with_reason(shell);
        return;
    }
    const auto changed = static_cast<uint64_t>(sqlite3_total_changes64(shell.db) - before);
    if (changed == 0)
        psp_printf("ok\n");
    else
        psp_printf("ok, %s row%s\n", Grouped(changed).text, changed == 1 ? "" : "s");
}

void run_statements(Shell& shell, const char* sql)
{
    while (*sql != 0 && !shell.failed) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(shell.db, sql, -1, &statement, &sql) != SQLITE_OK) {
            fail_with_reason(shell);
            return;
        }
        if (statement == nullptr)
            continue; // a comment or nothing at all
        if (sqlite3_column_count(statement) > 0)
            run_query(shell, statement);
        else
            run_change(shell, statement);
        sqlite3_finalize(statement);
        psp_flush();
    }
}

// ---- Commands of the shell itself ----

void command_help(Shell&)
{
    psp_printf("Type SQL; a statement ends with a semicolon and may span lines.\n"
               "  .tables    lists the tables\n"
               "  .schema    shows how they were made\n"
               "  .figures   what the engine asked of the platform so far\n"
               "  .quit      ends, like the end of the input\n");
}

void command_tables(Shell& shell)
{
    run_statements(shell, "SELECT name, type FROM sqlite_schema "
                          "WHERE type IN ('table', 'view') ORDER BY name");
}

void command_schema(Shell& shell)
{
    run_statements(shell, "SELECT sql FROM sqlite_schema WHERE sql IS NOT NULL ORDER BY name");
}

void command_figures(Shell& shell)
{
    print_figures(shell.db);
}

void command_quit(Shell& shell)
{
    shell.ended = true;
}

struct Command {
    const char* name;
    void (*run)(Shell&);
};

constexpr Command commands[] = {
    {".help", command_help},       {".tables", command_tables}, {".schema", command_schema},
    {".figures", command_figures}, {".quit", command_quit},
};

void run_command(Shell& shell)
{
    char* text = first_of(shell.statement);
    text[strcspn(text, " \t\r\n")] = 0;
    for (const Command& command : commands) {
        if (strcmp(text, command.name) == 0) {
            command.run(shell);
            psp_flush();
            return;
        }
    }
    fail(shell, "no such command: .help lists them");
}

// ---- Reading ----

void prompt(const Shell& shell)
{
    if (!shell.terminal)
        return;
    psp_printf("%s", is_blank(shell.statement) ? "sql> " : "...> ");
    psp_flush();
}

// Adds one line of input to the statement; false at the end of the input.
bool read_line(Shell& shell)
{
    prompt(shell);
    shell.line++;
    if (is_blank(shell.statement)) {
        shell.statement.length = 0;
        shell.first = shell.line;
    }
    int32_t c;
    while ((c = psp_fgetc(shell.input)) != -1) {
        if (c == 0 || !append(shell.statement, static_cast<char>(c))) {
            fail(shell, c == 0 ? "the input is not text" : "out of memory");
            return false;
        }
        if (c == '\n')
            return true;
    }
    return false;
}

void clear_statement(Shell& shell)
{
    shell.statement.length = 0;
    if (shell.statement.data != nullptr)
        shell.statement.data[0] = 0;
}

// Runs what has been typed if it is complete.
void run_if_complete(Shell& shell)
{
    if (is_blank(shell.statement))
        return;
    if (*first_of(shell.statement) == '.')
        run_command(shell);
    else if (sqlite3_complete(shell.statement.data) != 0)
        run_statements(shell, shell.statement.data);
    else
        return;
    clear_statement(shell);
}

bool only_comments(Shell& shell)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(shell.db, shell.statement.data, -1, &statement, nullptr);
    const bool nothing = statement == nullptr && sqlite3_errcode(shell.db) == SQLITE_OK;
    sqlite3_finalize(statement);
    return nothing;
}

void finish(Shell& shell)
{
    run_if_complete(shell);
    if (shell.failed)
        return;
    if (!is_blank(shell.statement) && !only_comments(shell))
        fail(shell, "the input ends inside a statement, which was not run");
    else if (sqlite3_get_autocommit(shell.db) == 0)
        fail(shell, "the input ends inside a transaction, which was rolled back");
}

} // namespace

bool shell_run(sqlite3* db, bool go_on)
{
    Shell shell = {};
    shell.db = db;
    shell.input = psp_fopenStd("stdin");
    if (shell.input == nullptr) {
        complain("the standard input cannot be read");
        return false;
    }
    shell.terminal = is_terminal(shell.input) && output_is_terminal();
    bool ever_failed = false;
    while (!shell.ended && read_line(shell)) {
        run_if_complete(shell);
        ever_failed = ever_failed || shell.failed;
        if (shell.failed && !shell.terminal && !go_on)
            break;
        if (shell.failed)
            clear_statement(shell);
        shell.failed = false;
    }
    if (!shell.ended && !shell.failed)
        finish(shell);
    if (shell.terminal && !shell.ended)
        psp_printf("\n");
    memory_free(Owner::program, shell.statement.data);
    psp_fclose(shell.input);
    return !ever_failed && !shell.failed;
}

} // namespace sql
