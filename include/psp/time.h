/**
 * @file time.h
 * Clocks, broken-down time and sleep. All functions work without psp_init() and from any thread.
 */
#ifndef PSP_TIME_H
#define PSP_TIME_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup time
 * @{
 */

/**
 * The clock of intervals and timed waits: `CLOCK_MONOTONIC` when greater than 0, otherwise
 * `CLOCK_REALTIME`. Read only: psp_init() writes it, at each start the same.
 * @threads{any} @before{-1 until the first psp_init() asks the system; kept after psp_term()}
 */
extern PSP_API int32_t gUseMonotonicClock;

/**
 * Reads the clock for measuring intervals, see ::gUseMonotonicClock.
 * @return nanoseconds since an origin that is arbitrary for the monotonic clock, and
 *         1970-01-01 00:00:00 UTC for the real-time clock
 * @threads{any} @before{works; before the first psp_init() it is the real-time clock, so a reading
 * from then does not compare with later ones} @jumps{never} @owner{nothing}
 */
PSP_API uint64_t psp_timeNanoSecs(void);

/**
 * Reads the wall clock, which jumps when the system's time is set.
 * @return whole milliseconds since 1970-01-01 00:00:00 UTC
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint64_t psp_timeMilliSecs(void);

/**
 * Reads the wall clock in seconds.
 * @return whole seconds since 1970-01-01 00:00:00 UTC
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint64_t psp_timeSecs(void);

/**
 * Offers a seed for a random generator. Calls within one second give the same.
 * @return the wall clock in seconds, cut to 32 bits
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API int32_t psp_seed(void);

/**
 * Breaks down the current time into its fields in UTC.
 * @param tm_info  receives the fields
 * @param fraction receives the part below a second in units of 100 microseconds, 0 to 9999; may
 *                 be NULL
 * @return `tm_info`; NULL when it is NULL or its fields cannot hold the time
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API struct tm* psp_timeUTC(struct tm* tm_info, uint16_t* fraction);

/**
 * Breaks down a time into its fields in the local time zone.
 * @param tm  seconds since 1970-01-01 00:00:00 UTC
 * @param res receives the fields
 * @return `res`; NULL when it is NULL or its fields cannot hold the time
 * @threads{any, while none changes the environment} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API struct tm* psp_timeLocaltime(time64_t tm, struct tm* res);

/**
 * Sleeps at least so long, also when signals come in between.
 * @param recMillisecs milliseconds; 0 returns at once
 * @threads{any; stops only the calling thread} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_sleep(uint32_t recMillisecs);

/** @} */

PSP_END_DECLS

#endif
