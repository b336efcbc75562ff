// Clocks, broken-down time and sleep: thin calls of the system's, without state but the choice of
// the clock for intervals.

#include "psp/time.h"
#include "psp_atomic.h"
#include "pspposix.h"

int32_t gUseMonotonicClock = -1;

namespace {

constexpr int64_t NANOSECS_A_SECOND = 1'000'000'000;
constexpr int64_t NANOSECS_A_MILLISEC = 1'000'000;
constexpr int64_t MILLISECS_A_SECOND = 1000;

timespec readIntervalClock()
{
    timespec now{};
    const bool monotonic = relaxed_load(gUseMonotonicClock) > 0;
    clock_gettime(monotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME, &now);
    return now;
}

} // namespace

uint64_t psp_timeNanoSecs(void)
{
    const timespec now = readIntervalClock();
    return static_cast<uint64_t>(now.tv_sec * NANOSECS_A_SECOND + now.tv_nsec);
}

uint64_t psp_timeMilliSecs(void)
{
    // The wall clock overwrites the first reading, which stands in only when it cannot be read.
    timespec now = readIntervalClock();
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec * MILLISECS_A_SECOND +
                                 now.tv_nsec / NANOSECS_A_MILLISEC);
}

uint64_t psp_timeSecs(void)
{
    return static_cast<uint64_t>(time(nullptr));
}

int32_t psp_seed(void)
{
    return static_cast<int32_t>(time(nullptr));
}

struct tm* psp_timeUTC(struct tm* tm_info, uint16_t* fraction)
{
    if (tm_info == nullptr)
        return nullptr;
    timeval now{};
    gettimeofday(&now, nullptr);
    if (fraction != nullptr)
        *fraction = static_cast<uint16_t>(now.tv_usec / 100);
    return gmtime_r(&now.tv_sec, tm_info);
}

struct tm* psp_timeLocaltime(time64_t tm, struct tm* res)
{
    return res != nullptr ? localtime_r(&tm, res) : nullptr;
}

void psp_sleep(uint32_t recMillisecs)
{
    if (recMillisecs == 0)
        return;
    timespec left{};
    left.tv_sec = recMillisecs / MILLISECS_A_SECOND;
    left.tv_nsec = recMillisecs % MILLISECS_A_SECOND * NANOSECS_A_MILLISEC;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
