// Output stacks, printing and logging with every call of the system failing in every way: no
// message is printed twice or out of order, and none is lost but those that a closed file took
// along.
#include "support/call_faults.h"
#include "support/text_test.h"

#include "psp/core.h"
#include "psp/output.h"

#include <cstdio>
#include <string>

using namespace psptest;

namespace {

constexpr std::size_t time_prefix = 23; // "[2024-05-01 13:07:42]  "

// Standard output and the log redirected into files.
struct Redirected {
    Redirected()
    {
        EXPECT_EQ(psp_stdout_openEx(nullptr, out.c_str()), sOKAY);
        EXPECT_EQ(psp_log_openEx(nullptr, log.c_str()), sOKAY);
    }
    ~Redirected()
    {
        Fault::clear();
        psp_log_closeEx(nullptr);
        psp_stdout_closeEx(nullptr);
    }
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;

    // What the log holds, each line without its time.
    std::string log_text() const
    {
        std::string bytes;
        std::string rest = read_file(log);
        while (rest.size() > time_prefix) {
            EXPECT_EQ(rest[0], '[');
            EXPECT_EQ(rest.substr(time_prefix - 3, 3), "]  ");
            const std::size_t end = rest.find('\n');
            bytes += rest.substr(time_prefix, end + 1 - time_prefix);
            rest.erase(0, end + 1);
        }
        return bytes + rest;
    }

    // The stacks keep what was popped until they end: only their own tags grow, which the footprint
    // does not count.
    TempDir dir;
    const std::string out = dir / "out";
    const std::string log = dir / "log";
    const std::string other = dir / "other";
    CapturedFd standard{1};
    CapturedFd errors{2};
    std::string printed_errors;
};

using OutputRow = Row<Redirected>;

// ---- What is left behind: a message that was not written waits in its stream ----

void printed(Redirected& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.out), failure != nullptr ? "" : "line\n");
    EXPECT_EQ(w.log_text(), "");
}

void printed_twice(Redirected& w, const Failure*)
{
    EXPECT_EQ(read_file(w.out), "line\nline\n");
}

void logged(Redirected& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.out), failure != nullptr && failure->hits(1) ? "" : "line\n");
    EXPECT_EQ(w.log_text(), failure != nullptr && failure->hits(2) ? "" : "line\n");
}

void logged_twice(Redirected& w, const Failure*)
{
    EXPECT_EQ(read_file(w.out), "line\nline\n");
    EXPECT_EQ(w.log_text(), "line\nline\n");
}

// Whatever could not be opened, the messages go where they went before.
void destinations_stay(Redirected& w, const Failure* failure)
{
    if (failure == nullptr)
        return;
    EXPECT_EQ(psp_log("line\n"), 5);
    EXPECT_EQ(read_file(w.out), "line\n");
    EXPECT_EQ(w.log_text(), "line\n");
    EXPECT_FALSE(file_exists(w.other));
}

long open_and_close_stdout(Redirected& w)
{
    const ZYN_RETCODE rc = psp_stdout_openEx(nullptr, w.other.c_str());
    if (rc == sOKAY)
        psp_stdout_closeEx(nullptr);
    return rc;
}

long open_and_close_log(Redirected& w)
{
    const ZYN_RETCODE rc = psp_log_openEx(nullptr, w.other.c_str());
    if (rc == sOKAY)
        psp_log_closeEx(nullptr);
    return rc;
}

// Prints into a file of its own and pops it.
long print_elsewhere(Redirected& w)
{
    psp_stdout_openEx(nullptr, w.other.c_str());
    const long count = psp_printf("line\n");
    psp_stdout_closeEx(nullptr);
    return count;
}

void time_is_missing(Redirected& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.out), "line\n");
    EXPECT_EQ(read_file(w.log).size(), failure != nullptr ? 7u : time_prefix + 5);
    if (failure != nullptr) {
        EXPECT_EQ(read_file(w.log), "  line\n");
    }
}

// A year of five digits is the C library's to write.
long log_in_a_far_year(Redirected&)
{
    Fault::replace(
        "time", +[](time_t*) -> time_t { return 253403164800; });
    return psp_log("line\n");
}

void far_time_is_missing(Redirected& w, const Failure* failure)
{
    const std::string log = read_file(w.log);
    EXPECT_EQ(log.substr(0, 8), failure != nullptr ? "  line\n" : "[10000-0");
    EXPECT_EQ(log.size(), failure != nullptr ? 7u : time_prefix + 6);
}

// clang-format off
const OutputRow rows[] = {
    // ---- Opening and closing destinations ----
    {"psp_stdout_openEx", "open", open_and_close_stdout, sOKAY, always<eFILEOPEN>, unsaid,
     destinations_stay},
    {"psp_log_openEx", "open", open_and_close_log, sOKAY, always<eFILEOPEN>, unsaid,
     destinations_stay},
    {"psp_stdout_openEx", "fstat", open_and_close_stdout, sOKAY, always<sOKAY>, unsaid},
    {"psp_log_closeEx", "close", open_and_close_log, sOKAY, always<sOKAY>, unsaid},
    {"psp_log_createEx", "open",
     [](Redirected& w) -> long {
         const ZYN_RETCODE rc = psp_log_createEx(nullptr, w.dir.c_str(), "other");
         if (unlink(w.other.c_str()) == 0) // it was opened
             psp_log_closeEx(nullptr);
         return rc;
     },
     sOKAY, always<sOKAY>, unsaid, destinations_stay},
    {"psp_stdout_closeEx", "write", print_elsewhere, 5, always<5>, unsaid,
     [](Redirected& w, const Failure* f) { EXPECT_EQ(read_file(w.other), f ? "" : "line\n"); },
     [](Redirected& w, const Failure*) { EXPECT_EQ(read_file(w.other), "line\n"); }},
    {"psp_stdout_closeEx", "close", print_elsewhere, 5, always<5>, unsaid,
     [](Redirected& w, const Failure*) { EXPECT_EQ(read_file(w.other), "line\n"); }},

    // ---- Printing ----
    {"psp_printf and psp_flush", "write",
     [](Redirected&) -> long {
         const long count = psp_printf("%s\n", "line");
         psp_flush();
         return count;
     },
     5, always<5>, unsaid, printed, printed_twice},
    {"psp_flush without a file", "fflush",
     [](Redirected&) -> long {
         psp_stdout_openEx(nullptr, nullptr);
         psp_flush();
         psp_stdout_closeEx(nullptr);
         return 0;
     },
     0, always<0>, unsaid},
    {"psp_errPrint", "puts",
     [](Redirected&) -> long {
         psp_errPrint("line");
         return 0;
     },
     0, always<0>, unsaid,
     [](Redirected& w, const Failure* f) { EXPECT_EQ(w.standard.text(), f ? "" : "line\n"); }},

    // ---- Logging ----
    {"psp_log", "write",
     [](Redirected&) -> long { return psp_log("%s\n", "line"); },
     5, always<5>, unsaid, logged, logged_twice},
    {"psp_log_chunk_end", "write",
     [](Redirected&) -> long {
         const PSP_LOG_CHUNK chunk = psp_log_chunk_init();
         psp_log_chunk(chunk, "li");
         psp_log_chunk_end(chunk, "%s\n", "ne");
         return 0;
     },
     0, always<0>, unsaid, logged, logged_twice},
    {"psp_logEx", "write", // with stacks of its own, which end with what they hold
     [](Redirected& w) -> long {
         PSP_LOG_CTX ctx;
         EXPECT_EQ(psp_log_initCtx(&ctx), sOKAY);
         EXPECT_EQ(psp_log_openEx(&ctx, w.other.c_str()), sOKAY);
         const long count = psp_logEx(&ctx, "line\n");
         psp_log_termCtx(&ctx);
         return count;
     },
     5, always<5>, unsaid,
     [](Redirected& w, const Failure* f) {
         const bool shown = f == nullptr || !f->forever; // the end of the stack tries once more
         EXPECT_EQ(w.standard.text(), shown || f->n > 1 ? "line\n" : "");
         EXPECT_EQ(read_file(w.other).size(), shown ? time_prefix + 5 : 0);
     }},
    {"psp_printfErrV and psp_flushErr", "write",
     [](Redirected& w) -> long {
         const long count = print_err("line\n");
         psp_flushErr();
         w.printed_errors = w.errors.text();
         return count;
     },
     5, always<5>, unsaid,
     [](Redirected& w, const Failure* f) { EXPECT_EQ(w.printed_errors, f ? "" : "line\n"); },
     [](Redirected& w, const Failure*) { EXPECT_EQ(w.printed_errors, "line\nline\n"); }},
    {"psp_log_with_time", "write",
     [](Redirected&) -> long { return psp_log_with_time("line\n"); },
     time_prefix + 5, always<time_prefix + 5>, unsaid,
     [](Redirected& w, const Failure* f) {
         EXPECT_EQ(read_file(w.out).size(), f && f->hits(1) ? 0 : time_prefix + 5);
         EXPECT_EQ(w.log_text(), f && f->hits(2) ? "" : "line\n");
     }},
    {"psp_log_err", "write",
     [](Redirected&) -> long { return psp_log_err("line\n"); },
     5, always<5>, unsaid,
     [](Redirected& w, const Failure* f) {
         EXPECT_EQ(w.errors.text(), f && f->hits(1) ? "" : "line\n");
         EXPECT_EQ(w.log_text(), f && f->hits(2) ? "" : "line\n");
     },
     [](Redirected& w, const Failure*) { EXPECT_EQ(w.log_text(), "line\nline\n"); }},
    {"psp_log", "localtime_r",
     [](Redirected&) -> long { return psp_log("line\n"); },
     5, always<5>, unsaid, time_is_missing},
    {"psp_log in a far year", "strftime", log_in_a_far_year, 5, always<5>, unsaid,
     far_time_is_missing},
};
// clang-format on

class OutputCalls : public FaultTest, public ::testing::WithParamInterface<OutputRow> {};

TEST_P(OutputCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, OutputCalls, ::testing::ValuesIn(rows), name_of_row<Redirected>);

TEST(OutputCallsTable, HasARowForEveryCall)
{
    EXPECT_EQ(calls_in(rows), calls_for(in_output));
}

} // namespace
