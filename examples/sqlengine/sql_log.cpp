// The log is a set of output stacks of the program's own: its console is silenced by an empty name
// on the standard output stack, so a line goes to the file alone, behind the time. Each line is
// flushed by the library, so the log is whole whatever becomes of the process.
//
// SQLite logs every error with its extended code, and what it repaired: a transaction rolled back
// from a journal that a killed process left behind appears here as notice 539.
//
// Opening a log truncates the file. A slip on the command line must not cost a database, so
// only what is empty, missing or begins like a log is opened.

#include "sql_log.h"

#include <sqlite3.h>

#include <atomic>
#include <fcntl.h>

namespace sql {
namespace {

PSP_LOG_CTX stacks;
const char* file_name = nullptr;
std::atomic<uint64_t> from_engine{0};
std::atomic<uint64_t> from_program{0};

bool may_be_overwritten(const char* name)
{
    if (!psp_fileValidate(name))
        return true;
    const PSP_FH file = psp_fileOpen(name, O_RDONLY | O_CLOEXEC, 0);
    if (file == nullptr)
        return false;
    char first = '[';
    psp_fileSeekRead(file, 0, &first, 1);
    psp_fileClose(file);
    return first == '[';
}

// Writes the text as one line, whatever is in it, and frees it. A statement that SQLite quotes may
// span lines; what it says must not pass for another line of the log.
void write_line(char* text)
{
    if (text == nullptr)
        return;
    for (char* c = text; *c != 0; c++) {
        if (static_cast<unsigned char>(*c) < ' ')
            *c = ' ';
    }
    psp_logEx(&stacks, "%s\n", text);
    psp_freeMem(text, PSP_THREAD_TAG, __FILE__, __LINE__);
}

// SQLite calls this with its locks held: it must not be called back from here.
void engine_line(void*, int code, const char* message)
{
    from_engine.fetch_add(1);
    if (file_name != nullptr)
        write_line(
            psp_makeStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, "sqlite (%d): %s", code, message));
}

} // namespace

const char* log_start(const char* name)
{
    if (name == nullptr)
        return nullptr;
    if (!may_be_overwritten(name))
        return "cannot be the log: it exists and is not one";
    if (psp_log_initCtx(&stacks) != sOKAY)
        return "no memory for the log";
    if (psp_stdout_openEx(&stacks, nullptr) == sOKAY && psp_log_openEx(&stacks, name) == sOKAY) {
        file_name = name;
        return nullptr;
    }
    psp_log_termCtx(&stacks);
    return "cannot be opened as the log";
}

void log_stop()
{
    if (file_name != nullptr)
        psp_log_termCtx(&stacks);
    file_name = nullptr;
}

bool log_install()
{
    return sqlite3_config(SQLITE_CONFIG_LOG, engine_line, nullptr) == SQLITE_OK;
}

void log_line(const char* format, ...)
{
    from_program.fetch_add(1);
    if (file_name == nullptr)
        return;
    va_list args;
    va_start(args, format);
    write_line(psp_makeStrV(__FILE__, __LINE__, PSP_THREAD_TAG, format, args));
    va_end(args);
}

LogFigures log_figures()
{
    return {from_engine.load(), from_program.load(), file_name};
}

} // namespace sql
