// Clocks, broken-down time and sleep, against the system's own calls.
#include "support/psp_test.h"

#include "psp/time.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>

#include <sys/time.h>

using namespace psptest;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const std::int32_t choice_at_load = gUseMonotonicClock;

// Sets the choice of clock until the end of the scope.
class ClockChoice {
  public:
    explicit ClockChoice(std::int32_t choice) : before_(gUseMonotonicClock)
    {
        gUseMonotonicClock = choice;
    }
    ~ClockChoice()
    {
        gUseMonotonicClock = before_;
    }
    ClockChoice(const ClockChoice&) = delete;
    ClockChoice& operator=(const ClockChoice&) = delete;

  private:
    std::int32_t before_;
};

std::uint64_t nanosecs_of(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec);
}

void expect_nanosecs_follow(clockid_t clock)
{
    const std::uint64_t before = nanosecs_of(clock);
    const std::uint64_t now = psp_timeNanoSecs();
    const std::uint64_t after = nanosecs_of(clock);
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

// ---- Clocks ----

TEST(Clock, IsNotChosenBeforeTheStart)
{
    EXPECT_EQ(choice_at_load, -1);
}

TEST(Clock, OfIntervalsIsTheRealTimeOneUnlessMonotonicIsChosen)
{
    for (const std::int32_t choice : {-1, 0, INT32_MIN}) {
        const ClockChoice chosen(choice);
        expect_nanosecs_follow(CLOCK_REALTIME);
    }
    for (const std::int32_t choice : {1, 200809, INT32_MAX}) {
        const ClockChoice chosen(choice);
        expect_nanosecs_follow(CLOCK_MONOTONIC);
    }
}

TEST(Clock, OfIntervalsIsMonotonicInARunningLibrary)
{
    const ClockChoice chosen(-1);
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_GT(gUseMonotonicClock, 0);
    expect_nanosecs_follow(CLOCK_MONOTONIC);
    std::uint64_t last = psp_timeNanoSecs();
    for (int i = 0; i < 1000; i++) {
        const std::uint64_t now = psp_timeNanoSecs();
        EXPECT_GE(now, last);
        last = now;
    }
    psp_term();
}

TEST(Clock, OfTheWallIsTheSameUnderEveryChoice)
{
    for (const std::int32_t choice : {-1, 0, 1}) {
        const ClockChoice chosen(choice);
        const std::uint64_t before = nanosecs_of(CLOCK_REALTIME) / 1'000'000;
        const std::uint64_t now = psp_timeMilliSecs();
        const std::uint64_t after = nanosecs_of(CLOCK_REALTIME) / 1'000'000;
        EXPECT_LE(before, now);
        EXPECT_LE(now, after);
    }
}

TEST(Clock, InSecondsAgreesWithTheOneInMilliseconds)
{
    const ClockChoice chosen(1);
    const std::uint64_t secs = psp_timeSecs();
    const std::uint64_t millisecs = psp_timeMilliSecs();
    EXPECT_LE(secs * 1000, millisecs + 1000);
    EXPECT_LE(millisecs, (secs + 60) * 1000) << "or a minute passed between two lines";
    const std::time_t before = std::time(nullptr);
    const std::uint64_t now = psp_timeSecs();
    const std::time_t after = std::time(nullptr);
    EXPECT_LE(static_cast<std::uint64_t>(before), now);
    EXPECT_LE(now, static_cast<std::uint64_t>(after));
}

TEST(Clock, GivesASeed)
{
    const auto before = static_cast<std::uint32_t>(std::time(nullptr));
    const auto seed = static_cast<std::uint32_t>(psp_seed());
    const auto after = static_cast<std::uint32_t>(std::time(nullptr));
    EXPECT_LE(seed - before, after - before);
}

// ---- Broken-down time ----

TEST(TimeUtc, IsNow)
{
    for (const bool with_fraction : {true, false}) {
        timeval before{};
        timeval after{};
        std::uint16_t fraction = 0xFFFF;
        std::tm parts;
        std::memset(&parts, 0x55, sizeof parts);
        gettimeofday(&before, nullptr);
        EXPECT_EQ(psp_timeUTC(&parts, with_fraction ? &fraction : nullptr), &parts);
        gettimeofday(&after, nullptr);
        const std::int64_t secs = timegm(&parts);
        EXPECT_LE(before.tv_sec, secs);
        EXPECT_LE(secs, after.tv_sec);
        EXPECT_EQ(parts.tm_isdst, 0);
        if (with_fraction) {
            const std::int64_t now = secs * 10000 + fraction;
            EXPECT_LT(fraction, 10000);
            EXPECT_LE(before.tv_sec * 10000 + before.tv_usec / 100, now);
            EXPECT_LE(now, after.tv_sec * 10000 + after.tv_usec / 100);
        } else {
            EXPECT_EQ(fraction, 0xFFFF);
        }
    }
}

TEST(TimeUtc, NeedsAPlaceForItsFields)
{
    std::uint16_t fraction = 0;
    EXPECT_EQ(psp_timeUTC(nullptr, &fraction), nullptr);
    EXPECT_EQ(psp_timeUTC(nullptr, nullptr), nullptr);
}

// A time zone is a property of the process: `body` runs in a child with this one.
template <class Body>
void in_time_zone(const char* zone, Body body)
{
    EXPECT_EQ(run_in_child([&] {
                  setenv("TZ", zone, 1);
                  tzset();
                  body();
                  return 0;
              }),
              0);
}

void expect_local(time64_t when, int year, int month, int day, int hour, int minute, int second)
{
    std::tm parts;
    std::memset(&parts, 0x55, sizeof parts);
    ASSERT_EQ(psp_timeLocaltime(when, &parts), &parts);
    EXPECT_EQ(parts.tm_year + 1900, year);
    EXPECT_EQ(parts.tm_mon + 1, month);
    EXPECT_EQ(parts.tm_mday, day);
    EXPECT_EQ(parts.tm_hour, hour);
    EXPECT_EQ(parts.tm_min, minute);
    EXPECT_EQ(parts.tm_sec, second);
}

TEST(TimeLocal, IsThatOfTheZone)
{
    in_time_zone("UTC0", [] {
        expect_local(0, 1970, 1, 1, 0, 0, 0);
        expect_local(-1, 1969, 12, 31, 23, 59, 59);
        expect_local(951827696, 2000, 2, 29, 12, 34, 56);
        expect_local(time64_t{1} << 32, 2106, 2, 7, 6, 28, 16);
    });
    in_time_zone("XST-5:30", [] {
        expect_local(0, 1970, 1, 1, 5, 30, 0);
        expect_local(951827696, 2000, 2, 29, 18, 4, 56);
    });
    in_time_zone("XST8", [] { expect_local(0, 1969, 12, 31, 16, 0, 0); });
}

TEST(TimeLocal, KnowsSummerTime)
{
    in_time_zone("CET-1CEST,M3.5.0,M10.5.0/3", [] {
        std::tm parts{};
        expect_local(1705320000, 2024, 1, 15, 13, 0, 0); // 12:00 in UTC
        psp_timeLocaltime(1705320000, &parts);
        EXPECT_EQ(parts.tm_isdst, 0);
        expect_local(1721044800, 2024, 7, 15, 14, 0, 0); // 12:00 in UTC
        psp_timeLocaltime(1721044800, &parts);
        EXPECT_GT(parts.tm_isdst, 0);
    });
}

TEST(TimeLocal, BeyondTheRangeOfItsFieldsIsRefused)
{
    std::tm parts{};
    EXPECT_EQ(psp_timeLocaltime(INT64_MAX, &parts), nullptr);
    EXPECT_EQ(psp_timeLocaltime(INT64_MIN, &parts), nullptr);
    EXPECT_EQ(psp_timeLocaltime(0, nullptr), nullptr);
}

// ---- Sleep ----

std::int64_t millisecs_of_sleep(std::uint32_t millisecs)
{
    const auto start = steady_clock::now();
    psp_sleep(millisecs);
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
}

TEST(Sleep, LastsNoShorterThanAsked)
{
    for (const std::uint32_t wanted : {1u, 20u, 60u})
        EXPECT_GE(millisecs_of_sleep(wanted), wanted);
    psp_sleep(0);
}

std::atomic<int> alarms;

void note_alarm(int /*signal*/)
{
    alarms++;
}

TEST(Sleep, IsNotShortenedBySignals)
{
    alarms = 0;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = note_alarm; // without restart: every alarm ends the system's sleep
    sigaction(SIGALRM, &action, &before);
    const itimerval often = {{0, 7000}, {0, 7000}};
    const itimerval off = {{0, 0}, {0, 0}};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_GE(millisecs_of_sleep(100), 100);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GT(alarms, 0);
}

} // namespace
