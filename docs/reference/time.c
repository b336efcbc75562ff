/* A poller that looks every few milliseconds and gives up at a deadline, and the time stamp of its
   report. Intervals are measured with the nanosecond clock, which nobody sets. */
#include <stdio.h>
#include <string.h>

#include "psp.h"

#define MILLISEC UINT64_C(1000000)

/* Ready at the fourth look. */
static int ready(void)
{
    static int looks;
    return ++looks == 4;
}

/* The looks it took; 0 when the time ran out first. */
static int await_ready(uint32_t pause, uint64_t limit)
{
    const uint64_t start = psp_timeNanoSecs();
    for (int looks = 1; psp_timeNanoSecs() - start < limit; looks++) {
        if (ready())
            return looks;
        psp_sleep(pause);
    }
    return 0;
}

/* Like 2026-01-31T23:59:59.123Z; `stamp` has room for 25 bytes. */
static int stamp_now(char* stamp, size_t size)
{
    struct tm now;
    uint16_t fraction; /* in units of 100 microseconds */
    if (psp_timeUTC(&now, &fraction) == NULL)
        return 0;
    const size_t length = strftime(stamp, size, "%Y-%m-%dT%H:%M:%S", &now);
    return length != 0 && snprintf(stamp + length, size - length, ".%03dZ", fraction / 10) == 5;
}

int main(void)
{
    if (psp_init() != sOKAY) /* chooses the clock: before it the nanoseconds are the wall clock's */
        return 1;
    const uint64_t wall = psp_timeMilliSecs();
    const uint64_t start = psp_timeNanoSecs();
    const int looks = await_ready(5, 60000 * MILLISEC);
    const uint64_t taken = psp_timeNanoSecs() - start;
    printf("ready at look %d\n", looks);
    printf("three pauses of 5 ms took %s\n", taken >= 15 * MILLISEC ? "15 ms or more" : "less");

    char stamp[32];
    const int stamped = stamp_now(stamp, sizeof stamp);
    printf("a stamp has %zu characters\n", strlen(stamp));

    /* The wall clock may be set back while the program runs, the interval clock may not. */
    struct tm local;
    const int known = psp_timeLocaltime((time64_t)(wall / 1000), &local) == &local;
    psp_term();
    return looks == 4 && taken >= 15 * MILLISEC && stamped && known ? 0 : 1;
}
