// Rows of the table: text streams, output stacks, logging, string builders.
#include "memory_rows.h"
#include "support/mem_test.h"
#include "support/text_test.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>

namespace psptest {
namespace {

// ---- Opening streams ----

void close_made(Bench& bench)
{
    psp_fclose(bench.as<PSP_FILE_STREAM>());
}

// The stream and its cache are the global tag's; the file's record never jumps.
Row open_row(const char* function, ZYN_RETCODE (*run)(Bench&))
{
    return {.functions = function,
            .run = run,
            .refusals = {eNOMEMORY},
            .jumps = Jumps::sometimes,
            .undo = close_made};
}

void add_streams(std::vector<Row>& rows)
{
    rows.push_back(open_row("psp_fopen", [](Bench& b) {
        return b.keep(psp_fopen(b.file.c_str(), "w", PSP_FILE_MODE_UTF16));
    }));
    rows.push_back(open_row("psp_fopenEx", [](Bench& b) {
        return b.keep(psp_fopenEx(b.file.c_str(), "w", PSP_FILE_MODE_UTF8, 0));
    }));
    rows.push_back(
        open_row("psp_fopenStd", [](Bench& b) { return b.keep(psp_fopenStd("stdin")); }));
    rows.push_back(
        open_row("psp_fopenStd", [](Bench& b) { return b.keep(psp_fopenStd("stderr")); }));
    rows.push_back(
        open_row("psp_fopenStdEx", [](Bench& b) { return b.keep(psp_fopenStdEx("stdout", 0)); }));
}

// ---- Lines ----

ZYN_RETCODE get_line(Bench& bench)
{
    const char* line =
        psp_fGetLine(bench.as<PSP_FILE_STREAM>(), &bench.text, &bench.count, bench.tag);
    return done_if(line != nullptr && std::strchr(line, '\n') != nullptr);
}

void add_lines(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_fGetLine",
                    .run = get_line,
                    .refusals = {eNOMEMORY},
                    .prepare =
                        [](Bench& b) {
                            write_file(b.file, std::string(333, 'x') + "\n");
                            b.keep(psp_fopen(b.file.c_str(), "r", PSP_FILE_MODE_UTF8));
                        },
                    .verify = [](Bench& b) { EXPECT_NE(std::strchr(b.text, '\n'), nullptr); },
                    // The buffer, with the part of the line that it holds, is the caller's even so.
                    .settle =
                        [](Bench& b) {
                            release(b.text, b.tag);
                            b.text = nullptr;
                            b.count = 0;
                        },
                    .undo = close_made});
}

// ---- Output stacks ----

void close_log(Bench&)
{
    psp_log_closeEx(nullptr);
}

void close_stdout(Bench&)
{
    psp_stdout_closeEx(nullptr);
}

// Levels and names are a stack's own, which never jumps; a stream's memory may.
void add_stacks(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_log_initCtx",
                    .run = [](Bench& b) { return psp_log_initCtx(&b.log); },
                    .refusals = {eNOMEMORY, eFILEOPEN, sOKAY}, // a log can do without its tag
                    .jumps = Jumps::sometimes,
                    .undo = [](Bench& b) { psp_log_termCtx(&b.log); }});
    rows.push_back({.functions = "psp_log_openEx",
                    .run = [](Bench& b) { return psp_log_openEx(nullptr, b.file.c_str()); },
                    .refusals = {eNOMEMORY, eFILEOPEN},
                    .jumps = Jumps::sometimes,
                    .undo = close_log});
    rows.push_back({.functions = "psp_stdout_openEx",
                    .run = [](Bench& b) { return psp_stdout_openEx(nullptr, b.file.c_str()); },
                    .refusals = {eNOMEMORY, eFILEOPEN},
                    .jumps = Jumps::sometimes,
                    .undo = close_stdout});
    // A log that cannot be opened must not keep a server from starting: only the path counts.
    rows.push_back(
        {.functions = "psp_log_createEx",
         .run = [](Bench& b) { return psp_log_createEx(nullptr, b.dir.c_str(), "file"); },
         .refusals = {eNOMEMORY, sOKAY},
         .jumps = Jumps::sometimes,
         .verify = [](Bench& b) { EXPECT_EQ(file_exists(b.file), !b.refused); },
         .undo =
             [](Bench& b) {
                 psp_log_closeEx(nullptr);
                 unlink(b.file.c_str());
             }});
}

// ---- Printing ----

ZYN_RETCODE all_written(std::int32_t written, std::int32_t expected)
{
    return written == expected ? sOKAY : written;
}

PSP_PRINTF(2, 3)
std::int32_t print_listed(PSP_FILE_STREAM stream, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::int32_t written =
        stream == nullptr ? psp_printfV(format, args) : psp_vfprintf(stream, format, args);
    va_end(args);
    return written;
}

// The stream has no staging buffer yet; what it has printed tells how often it did.
Row print_row(const char* function, ZYN_RETCODE (*run)(Bench&))
{
    return {.functions = function,
            .run = run,
            .refusals = {-1},
            .prepare = [](Bench& b) { b.keep(psp_fopen(b.file.c_str(), "w", PSP_FILE_MODE_UTF8)); },
            .undo =
                [](Bench& b) {
                    close_made(b);
                    EXPECT_EQ(read_file(b.file), std::string(99, ' ') + "1");
                }};
}

Row print_to_stack_row(const char* function, ZYN_RETCODE (*run)(Bench&))
{
    Row row = print_row(function, run);
    row.prepare = [](Bench& b) { ASSERT_EQ(psp_stdout_openEx(nullptr, b.file.c_str()), sOKAY); };
    row.undo = [](Bench& b) {
        psp_stdout_closeEx(nullptr);
        EXPECT_EQ(read_file(b.file), std::string(99, ' ') + "1");
    };
    return row;
}

void add_printing(std::vector<Row>& rows)
{
    rows.push_back(print_row("psp_fprintf", [](Bench& b) {
        return all_written(psp_fprintf(b.as<PSP_FILE_STREAM>(), "%100d", 1), 100);
    }));
    rows.push_back(print_row("psp_vfprintf", [](Bench& b) {
        return all_written(print_listed(b.as<PSP_FILE_STREAM>(), "%100d", 1), 100);
    }));
    rows.push_back(print_to_stack_row(
        "psp_printf", [](Bench&) { return all_written(psp_printf("%100d", 1), 100); }));
    rows.push_back(print_to_stack_row(
        "psp_printfV", [](Bench&) { return all_written(print_listed(nullptr, "%100d", 1), 100); }));
    // The process's own error output: the text ends with its first byte, so that nobody sees it,
    // and the staging buffer stays until psp_term.
    rows.push_back({.functions = "psp_printfErrV",
                    .run = [](Bench&) { return all_written(print_err("%c%99d", 0, 1), 0); },
                    .refusals = {-1},
                    .restarts = true});
}

// ---- Logging: the log file tells whether a message came through. ----

void open_logs(Bench& bench)
{
    bench.count = 0;
    ASSERT_EQ(psp_stdout_openEx(nullptr, bench.other.c_str()), sOKAY);
    ASSERT_EQ(psp_log_openEx(nullptr, bench.file.c_str()), sOKAY);
}

void close_logs(Bench&)
{
    psp_log_closeEx(nullptr);
    psp_stdout_closeEx(nullptr);
}

off_t log_size(const Bench& bench)
{
    struct stat status = {};
    EXPECT_EQ(stat(bench.file.c_str(), &status), 0);
    return status.st_size;
}

template <auto Log>
ZYN_RETCODE log_through(Bench& bench)
{
    const off_t before = log_size(bench);
    Log(bench);
    return done_if(log_size(bench) > before);
}

// The message is formatted into the thread's tag.
Row log_row(const char* function, ZYN_RETCODE (*run)(Bench&))
{
    return {.functions = function,
            .run = run,
            .refusals = {eNOMEMORY},
            .prepare = open_logs,
            .undo = close_logs};
}

PSP_PRINTF(1, 2)
void log_err_listed(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    psp_log_errV_Ex(nullptr, ZYN_FALSE, format, args);
    va_end(args);
}

Row context_row(const char* function, ZYN_RETCODE (*run)(Bench&))
{
    Row row = log_row(function, run);
    row.prepare = [](Bench& b) {
        ASSERT_EQ(psp_log_initCtx(&b.log), sOKAY);
        ASSERT_EQ(psp_stdout_openEx(&b.log, ""), sOKAY);
        ASSERT_EQ(psp_log_openEx(&b.log, b.file.c_str()), sOKAY);
    };
    row.undo = [](Bench& b) { psp_log_termCtx(&b.log); };
    return row;
}

void add_logging(std::vector<Row>& rows)
{
    rows.push_back(log_row("psp_log", log_through<[](Bench&) { psp_log("%d\n", 1); }>));
    rows.push_back(
        log_row("psp_log_with_time", log_through<[](Bench&) { psp_log_with_time("%d\n", 1); }>));
    // Of an empty message the log shows the time, and the process's error output nothing.
    rows.push_back(log_row("psp_log_err", log_through<[](Bench&) { psp_log_err("%s", ""); }>));
    rows.push_back(
        log_row("psp_log_errV_Ex", log_through<[](Bench&) { log_err_listed("%s", ""); }>));
    rows.push_back(
        context_row("psp_logEx", log_through<[](Bench& b) { psp_logEx(&b.log, "%d\n", 1); }>));
    rows.push_back(
        context_row("psp_logEx_with_time",
                    log_through<[](Bench& b) { psp_logEx_with_time(&b.log, "%d\n", 1); }>));
}

// ---- Messages in pieces ----

void begin_message(Bench& bench)
{
    open_logs(bench);
    ASSERT_EQ(bench.keep(psp_log_chunk_init()), sOKAY);
}

void expect_logged(const Bench& bench, const char* text, bool expected)
{
    EXPECT_EQ(read_file(bench.other), expected ? text : "");
    EXPECT_EQ(read_file(bench.file).find(text) != std::string::npos, expected);
}

void add_chunks(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_log_chunk_init",
                    .run = [](Bench& b) { return b.keep(psp_log_chunk_init()); },
                    .refusals = {eNOMEMORY},
                    .undo = [](Bench& b) { psp_log_chunk_end(b.as<PSP_LOG_CHUNK>(), nullptr); }});
    // Neither function can tell that it dropped its piece.
    rows.push_back({.functions = "psp_log_chunk",
                    .run =
                        [](Bench& b) {
                            psp_log_chunk(b.as<PSP_LOG_CHUNK>(), "%s", "piece");
                            return done_if(true);
                        },
                    .refusals = {sOKAY},
                    .prepare = begin_message,
                    .undo =
                        [](Bench& b) {
                            psp_log_chunk_end(b.as<PSP_LOG_CHUNK>(), nullptr);
                            expect_logged(b, "piece", !b.refused);
                            close_logs(b);
                        }});
    rows.push_back({.functions = "psp_log_chunk_end",
                    .run =
                        [](Bench& b) {
                            psp_log_chunk_end(b.as<PSP_LOG_CHUNK>(), "%s", "last");
                            return done_if(true);
                        },
                    .refusals = {sOKAY},
                    .prepare = begin_message,
                    .verify = [](Bench& b) { expect_logged(b, "last", !b.refused); },
                    .refused = [](Bench& b) { expect_logged(b, "last", false); },
                    .undo = close_logs,
                    .kept = {-16}, // the message itself is gone, whatever happens
                    .consumes = true});
}

// ---- String builders ----

PSP_PRINTF(2, 3)
char* make_listed(PSP_MEMTAG tag, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* const text = psp_makeStrV(__FILE__, __LINE__, tag, format, args);
    va_end(args);
    return text;
}

Row make_row(const char* function, ZYN_RETCODE (*run)(Bench&))
{
    return {.functions = function,
            .run = run,
            .refusals = {eNOMEMORY},
            .verify = [](Bench& b) { EXPECT_STREQ(b.as<char*>(), "7 built"); },
            .undo = [](Bench& b) { release(b.made, b.tag); }};
}

// The string to extend is as it was after a failure.
Row append_row(const char* function, ZYN_RETCODE (*run)(Bench&))
{
    Row row = make_row(function, run);
    row.prepare = [](Bench& b) { b.given = make_listed(b.tag, "%s", "given"); };
    row.verify = [](Bench& b) {
        EXPECT_EQ(std::string(b.as<char*>()), "given" + std::string(200, ' '));
    };
    row.refused = [](Bench& b) { EXPECT_STREQ(b.on<char*>(), "given"); };
    return row;
}

void add_builders(std::vector<Row>& rows)
{
    rows.push_back(make_row(
        "psp_makeStrV", [](Bench& b) { return b.keep(make_listed(b.tag, "%d %s", 7, "built")); }));
    rows.push_back(make_row("psp_makeStrVA", [](Bench& b) {
        return b.keep(psp_makeStrVA(__FILE__, __LINE__, b.tag, "%d %s", 7, "built"));
    }));
    rows.push_back(make_row("psp_makeStrVA_rc", [](Bench& b) {
        const ZYN_RETCODE code =
            psp_makeStrVA_rc(__FILE__, __LINE__, &b.text, b.tag, "%d %s", 7, "built");
        b.made = b.text;
        return code;
    }));
    rows.push_back(append_row("psp_appendStrVA", [](Bench& b) {
        return b.keep(psp_appendStrVA(__FILE__, __LINE__, b.tag, b.on<char*>(), "%200s", ""));
    }));
    rows.push_back(append_row("psp_appendStrVA_rc", [](Bench& b) {
        const ZYN_RETCODE code =
            psp_appendStrVA_rc(__FILE__, __LINE__, &b.text, b.tag, b.on<char*>(), "%200s", "");
        b.made = b.text;
        return code;
    }));
}

} // namespace

std::vector<Row> text_rows()
{
    std::vector<Row> rows;
    add_streams(rows);
    add_lines(rows);
    add_stacks(rows);
    add_printing(rows);
    add_logging(rows);
    add_chunks(rows);
    add_builders(rows);
    return rows;
}

} // namespace psptest
