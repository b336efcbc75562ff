// Start and stop of the library, and the logging before it, with every call of the system failing
// in every way.
#include "support/call_faults.h"

#include "psp/core.h"
#include "psp/output.h"
#include "psp/time.h"

#include <string>

using namespace psptest;

namespace {

struct Stopped {
    Stopped() : choice(gUseMonotonicClock) {}
    ~Stopped()
    {
        Fault::clear();
        gUseMonotonicClock = choice;
    }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

    // Starts, makes use of the start and stops: the code of the start.
    long start()
    {
        const ZYN_RETCODE rc = psp_init();
        EXPECT_EQ(psp_inited, rc == sOKAY ? 1 : 0);
        clock = gUseMonotonicClock;
        if (rc == sOKAY) {
            const std::size_t objects = Footprint::count_objects(false);
            EXPECT_GE(objects, 8u) << "four of memory, the registry's, three of output";
            release(get(100, PSP_GLOBAL_TAG), PSP_GLOBAL_TAG);
            psp_term();
        }
        EXPECT_EQ(psp_inited, 0);
        EXPECT_EQ(memory_in_use(), 0u);
        return rc;
    }

    TempDir dir;
    const std::string path = dir / "out";
    CapturedFd out{1};
    std::int32_t choice;
    std::int32_t clock = 77;
};

using StartRow = Row<Stopped>;

long start(Stopped& w)
{
    return w.start();
}

// Prints into a file and stops with the text still waiting.
long print_and_stop(Stopped& w)
{
    const ZYN_RETCODE rc = psp_init();
    EXPECT_EQ(psp_stdout_openEx(nullptr, w.path.c_str()), sOKAY);
    EXPECT_EQ(psp_printf("line\n"), 5);
    psp_term();
    EXPECT_EQ(psp_inited, 0);
    return rc;
}

// clang-format off
const StartRow rows[] = {
    {"psp_init", "pthread_key_create", start, sOKAY, always<eNOMEMORY>, unsaid},
    {"psp_init", "pthread_setspecific", start, sOKAY, always<sOKAY>, unsaid},
    {"psp_init", "pthread_mutex_init", start, sOKAY, always<sOKAY>, unsaid},
    {"psp_init", "getrlimit", start, sOKAY, always<sOKAY>, unsaid},
    {"psp_init", "setrlimit", start, sOKAY, always<sOKAY>, unsaid},
    {"psp_init", "signal", start, sOKAY, always<sOKAY>, unsaid},
    {"psp_init", "sysconf", start, sOKAY, always<sOKAY>, unsaid,
     [](Stopped& w, const Failure* f) {
         EXPECT_EQ(w.clock, f ? -1 : sysconf(_SC_CLOCK_SELECTION));
     }},
    {"psp_term", "pthread_key_delete", start, sOKAY, always<sOKAY>, unsaid},
    {"psp_term", "write", print_and_stop, sOKAY, always<sOKAY>, unsaid,
     [](Stopped& w, const Failure* f) { EXPECT_EQ(read_file(w.path), f ? "" : "line\n"); },
     [](Stopped& w, const Failure*) { EXPECT_EQ(read_file(w.path), "line\n"); }},
    {"psp_term", "close", print_and_stop, sOKAY, always<sOKAY>, unsaid,
     [](Stopped& w, const Failure*) { EXPECT_EQ(read_file(w.path), "line\n"); }},
    {"psp_log before the start", "vfprintf",
     [](Stopped&) -> long { return psp_log("%s\n", "line"); },
     5, always<-1>, kept,
     [](Stopped& w, const Failure* f) { EXPECT_EQ(w.out.text(), f ? "" : "line\n"); }},
};
// clang-format on

class StartCalls : public RawTest, public ::testing::WithParamInterface<StartRow> {};

TEST_P(StartCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, StartCalls, ::testing::ValuesIn(rows), name_of_row<Stopped>);

TEST(StartCallsTable, HasARowForEveryCall)
{
    EXPECT_EQ(calls_in(rows), calls_for(in_start));
}

} // namespace
