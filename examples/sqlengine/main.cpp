// sqlengine: SQLite with this library as its whole platform.
//
// The program shows that the library carries a database engine: SQLite's memory, mutexes, files,
// time, chance and error log all come from it, and nothing of SQLite's own platform code runs.
//
//   sql_memory    SQLite's allocator over memory tags
//   sql_mutex     SQLite's mutexes over the library's
//   sql_file      an open file: reading, writing, locking, making durable
//   sql_vfs       opening, removing and finding files; time, chance, sleep
//   sql_log       SQLite's error log over a set of output stacks
//   sql_platform  puts these together, and takes them apart
//   sql_shell     statements in, tables out (sql_table, sql_text)
//   sql_demo      the demonstration (sql_import, sql_figures)

#include "psp.h"
#include "sql_demo.h"
#include "sql_figures.h"
#include "sql_platform.h"
#include "sql_shell.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstring>

namespace {

enum ExitCode { exit_ok = 0, exit_failed = 1, exit_usage = 2 };

constexpr const char* default_file = "/usr/share/unicode/UnicodeData.txt";

constexpr const char* usage =
    "usage: sqlengine [--log FILE] [--wait MS] [--figures] [--go-on] DB\n"
    "       sqlengine --demo DIR [UNICODEDATA]\n"
    "\n"
    "A SQL shell on SQLite, which runs on libzynpsp-14 as its whole platform. Statements\n"
    "come from the terminal or the standard input; a script stops at its first error.\n"
    "\n"
    "  DB             the database file; made if it does not exist\n"
    "  --log FILE     write SQLite's errors and notices to FILE, with the time\n"
    "  --wait MS      wait up to MS milliseconds for another process's lock (5000)\n"
    "  --go-on        do not stop a script at an error; the exit status still tells of it\n"
    "  --figures      at the end print what the engine asked of the platform\n"
    "  --demo DIR     import the Unicode character table into DIR/unicode.db, query\n"
    "                 and check it; the log is DIR/sqlengine.log. UNICODEDATA is\n"
    "                 /usr/share/unicode/UnicodeData.txt if it is not given.\n"
    "  --help         this text\n"
    "  --version      the versions of library and engine\n"
    "\n"
    "Exit status: 0 all done, 1 a statement, a file or the database failed, 2 wrong use.\n";

struct Options {
    const char* database;
    const char* log;
    const char* demo_directory;
    const char* demo_file;
    uint32_t wait;
    bool figures, go_on, help, version;
};

// Takes the value of an option, the next argument; NULL when there is none.
const char* value_of(char** argv, int* at)
{
    return argv[*at + 1] != nullptr ? argv[++*at] : nullptr;
}

bool parse_name(Options& options, const char* name)
{
    if (options.demo_directory != nullptr && options.demo_file == nullptr)
        options.demo_file = name;
    else if (options.demo_directory == nullptr && options.database == nullptr)
        options.database = name;
    else
        return false;
    return true;
}

bool parse_argument(Options& options, char** argv, int* at)
{
    const char* argument = argv[*at];
    if (argument[0] != '-')
        return parse_name(options, argument);
    if (strcmp(argument, "--log") == 0)
        return (options.log = value_of(argv, at)) != nullptr;
    if (strcmp(argument, "--demo") == 0)
        return (options.demo_directory = value_of(argv, at)) != nullptr;
    if (strcmp(argument, "--wait") == 0) {
        const char* value = value_of(argv, at);
        return value != nullptr && strspn(value, "0123456789") == strlen(value) &&
               psp_atoui32(value, &options.wait) == sOKAY;
    }
    if (strcmp(argument, "--figures") == 0)
        return options.figures = true;
    if (strcmp(argument, "--go-on") == 0)
        return options.go_on = true;
    options.help = strcmp(argument, "--help") == 0;
    options.version = strcmp(argument, "--version") == 0;
    return options.help || options.version;
}

bool parse(Options& options, int argc, char** argv)
{
    for (int at = 1; at < argc; at++) {
        if (!parse_argument(options, argv, &at))
            return false;
        if (options.help || options.version)
            return true;
    }
    if (options.demo_directory != nullptr)
        return options.database == nullptr && options.log == nullptr && !options.figures &&
               !options.go_on;
    return options.database != nullptr && options.database[0] != 0;
}

void print_version()
{
    int16_t major = 0;
    int16_t minor = 0;
    int16_t build = 0;
    psp_version(&major, &minor, &build);
    printf("sqlengine: libzynpsp %d.%d.%d, SQLite %s\n", major, minor, build, sqlite3_libversion());
}

int run_shell(const Options& options)
{
    bool done = false;
    if (sql::platform_start(options.log)) {
        sqlite3* db = sql::database_open(options.database, options.wait);
        done = db != nullptr && sql::shell_run(db, options.go_on);
        if (options.figures)
            sql::print_figures(db);
        sql::database_close(db);
    }
    return sql::platform_stop() && done ? exit_ok : exit_failed;
}

// The directory is made, and the name of the log in it, before the platform starts with that log.
int run_demo(const Options& options)
{
    if (psp_init() != sOKAY)
        return exit_failed;
    const ZYN_RETCODE made = psp_dirCreateAll(options.demo_directory);
    char* log = psp_makeStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, "%s/sqlengine.log",
                              options.demo_directory);
    bool done = false;
    if ((made != sOKAY && made != sDUPLICATE) || log == nullptr)
        sql::complain("%s: cannot be made", options.demo_directory);
    else if (sql::platform_start(log))
        done = sql::demo_run(options.demo_directory,
                             options.demo_file != nullptr ? options.demo_file : default_file);
    done = sql::platform_stop() && done;
    psp_freeMem(log, PSP_THREAD_TAG, __FILE__, __LINE__);
    psp_term();
    return done ? exit_ok : exit_failed;
}

} // namespace

int main(int argc, char** argv)
{
    Options options = {};
    options.wait = 5000;
    if (!parse(options, argc, argv)) {
        fputs(usage, stderr);
        return exit_usage;
    }
    if (options.help)
        fputs(usage, stdout);
    else if (options.version)
        print_version();
    else
        return options.demo_directory != nullptr ? run_demo(options) : run_shell(options);
    return exit_ok;
}
