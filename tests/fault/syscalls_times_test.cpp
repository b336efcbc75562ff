// Clocks, sleep, locales and messages of errors with every call of the system failing in every way.
#include "support/call_faults.h"

#include "psp/string.h"
#include "psp/time.h"

#include <clocale>
#include <cstdint>
#include <ctime>
#include <string>

using namespace psptest;

namespace {

struct Times {
    ~Times()
    {
        Fault::clear();
    }

    std::tm parts{};
    std::uint16_t fraction = 7;
    std::string text;
    int naps = 0;
};

using TimeRow = Row<Times>;

void counted_from_the_epoch(Times& w, const Failure* failure)
{
    EXPECT_EQ(w.parts.tm_year == 70, failure != nullptr);
    if (failure != nullptr) {
        EXPECT_EQ(w.fraction, 0);
    }
}

// clang-format off
const TimeRow rows[] = {
    // A clock that cannot be read stands at 0.
    {"psp_timeNanoSecs", "clock_gettime",
     [](Times&) -> long { return psp_timeNanoSecs() != 0; }, 1, always<0>, unsaid},
    // The second reading wins; the first one stands in for it.
    {"psp_timeMilliSecs", "clock_gettime",
     [](Times&) -> long { return psp_timeMilliSecs() != 0; },
     1, [](const Failure& f) -> long { return !(f.forever && f.n == 1); }, unsaid},
    {"psp_timeSecs", "time",
     [](Times&) -> long { return psp_timeSecs() != UINT64_MAX; }, 1, always<0>, unsaid},
    {"psp_seed", "time",
     [](Times&) -> long { return psp_seed() != -1; }, 1, always<0>, unsaid},
    {"psp_timeUTC", "gettimeofday",
     [](Times& w) -> long { return psp_timeUTC(&w.parts, &w.fraction) == &w.parts; },
     1, always<1>, unsaid, counted_from_the_epoch},
    {"psp_timeUTC", "gmtime_r",
     [](Times& w) -> long { return psp_timeUTC(&w.parts, nullptr) == &w.parts; }, 1, always<0>},
    {"psp_timeLocaltime", "localtime_r",
     [](Times& w) -> long { return psp_timeLocaltime(0, &w.parts) == &w.parts; }, 1, always<0>},
    // Only a signal makes it go on.
    {"psp_sleep", "nanosleep",
     [](Times& w) -> long {
         const int before = Fault::calls("nanosleep");
         psp_sleep(1);
         w.naps = Fault::calls("nanosleep") - before;
         return 0;
     },
     0, always<0>, unsaid,
     [](Times& w, const Failure* f) { EXPECT_TRUE(f == nullptr || w.naps == 1); },
     [](Times& w, const Failure*) { EXPECT_EQ(w.naps, 1); }},
    {"psp_createlocale", "newlocale",
     [](Times&) -> long {
         const locale_t locale = psp_createlocale(LC_ALL_MASK, "C");
         psp_freelocale(locale);
         return locale != nullptr;
     },
     1, always<0>, kept},
    {"psp_setlocale", "setlocale",
     [](Times&) -> long { return psp_setlocale(LC_NUMERIC, "C") != nullptr; }, 1, always<0>},
    {"psp_strerr_alloc", "strerror_r",
     [](Times& w) -> long {
         w.text = taken(psp_strerr_alloc(ENOENT, PSP_GLOBAL_TAG), PSP_GLOBAL_TAG);
         return w.text != "(null)";
     },
     1, always<1>, unsaid,
     [](Times& w, const Failure* f) {
         EXPECT_EQ(w.text, f ? "no message" : "No such file or directory");
     }},
};
// clang-format on

class TimeCalls : public ClockFaultTest, public ::testing::WithParamInterface<TimeRow> {};

TEST_P(TimeCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, TimeCalls, ::testing::ValuesIn(rows), name_of_row<Times>);

TEST(TimeCallsTable, HasARowForEveryCall)
{
    EXPECT_EQ(calls_in(rows), calls_for(in_times));
}

} // namespace
