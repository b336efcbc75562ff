// Loading and starting the library beside other portable runtimes.
//
// Each batch is a process of its own, which has none of them loaded, reads the clock itself and
// tells the time: what it takes to make the process does not count.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "row.h"

namespace {

using bench::Registered;
using bench::Row;
using bench::Work;

// The time of all processes so far.
double elapsed = 0;

void run_fresh(const char* what, const char* library, size_t n)
{
    const std::string command =
        std::string(PSP_BENCH_FRESH) + ' ' + what + ' ' + library + ' ' + std::to_string(n);
    FILE* const process = popen(command.c_str(), "r");
    double time = 0;
    const bool read = process != nullptr && std::fscanf(process, "%lf", &time) == 1;
    if (!read || pclose(process) != 0)
        std::abort();
    elapsed += time;
}

Work batch_of(const char* what, const char* library)
{
    return [what, library](size_t n) { run_fresh(what, library, n); };
}

void compare(Row& row, const char* what, double goal, bool with_nspr)
{
    row.clock([] { return elapsed; });
    row.psp(batch_of(what, PSP_BENCH_LIBRARY));
#ifdef PSP_FILE_APR
    row.peer("APR", batch_of(what, PSP_FILE_APR), goal);
#endif
#ifdef PSP_FILE_NSPR
    if (with_nspr)
        row.peer("NSPR", batch_of(what, PSP_FILE_NSPR), goal);
#endif
    row.run();
}

void load(Row& row)
{
    row.batch(20);
    compare(row, "load", 1.0, true);
}

void first_start(Row& row)
{
    row.batch(1);
    compare(row, "first", 2.0, true);
}

// NSPR cannot be started again.
void start_again(Row& row)
{
    row.batch(50);
    compare(row, "again", 0.4, false);
}

const Registered load_row("start", "load and unload", "ns/pair", load);
const Registered first_row("start", "first start", "ns", first_start);
const Registered again_row("start", "warm start and stop", "ns/pair", start_again);

} // namespace
