/**
 * @file sync.h
 * Recursive mutexes and manual-reset events.
 *
 * Both are addressed by a ::PSP_SEM. The operations trust the handle: mutex operations on an event,
 * event operations on a mutex, and anything but psp_syncDelete() on ::PSP_SEM_INVALID is undefined.
 * The last psp_term() destroys all objects; from then until the next psp_init() every operation on
 * any handle is harmless and does nothing.
 */
#ifndef PSP_SYNC_H
#define PSP_SYNC_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup sync
 * @{
 */

/** Kinds of synchronisation objects, for psp_syncCreate_check(). */
enum {
    PSP_SEM_MUTEX = 1, /**< recursive mutex */
    PSP_SEM_EVENT = 2  /**< manual-reset event */
};

/** Timeout of psp_syncWait() that never runs out. */
#define PSP_SYNC_FOREVER UINT32_C(0xFFFFFFFF)

/**
 * Creates a mutex that nobody holds, or an event that is signalled.
 *
 * At most 131072 objects exist at a time. When all are in use, or no memory is left for more of
 * them, the process is terminated: there is no code for it.
 *
 * @param type ::PSP_SEM_MUTEX or ::PSP_SEM_EVENT
 * @param file the caller's source file, named in the message of an exhausted table; may be NULL
 * @param line the caller's source line
 * @return the object; ::PSP_SEM_INVALID when the library is not initialised, and, with a message in
 *         the log and one object lost, for any other type
 * @threads{any, also while holding any locks} @before{::PSP_SEM_INVALID}
 * @jumps{never; the message about a wrong type may, by the thread's tag}
 * @owner{the caller destroys it with psp_syncDelete(), or leaves that to the last psp_term()}
 */
PSP_API PSP_SEM psp_syncCreate_check(int16_t type, const char* file, int32_t line);

/**
 * Acquires a mutex, waiting for its turn. The holder may enter again; it must exit as often.
 * @param sem the mutex; not NULL
 * @retval sOKAY always; nothing is acquired when the library is not initialised
 * @threads{any} @before{does nothing} @jumps{never}
 * @owner{the thread releases it with psp_syncExitExcl()}
 */
PSP_API ZYN_RETCODE psp_syncEnterExcl(PSP_SEM sem);

/**
 * Releases one level of a mutex; the last one lets the next thread in.
 * @param sem the mutex, held by the calling thread (not checked); not NULL
 * @threads{only the holder} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_syncExitExcl(PSP_SEM sem);

/**
 * Resets an event: from now on psp_syncWait() waits.
 * @param sem the event; not NULL
 * @threads{any} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_syncStart(PSP_SEM sem);

/**
 * Signals an event: all waiting threads go on, and later waits pass at once, until the next
 * psp_syncStart().
 * @param sem the event; not NULL
 * @threads{any} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_syncResume(PSP_SEM sem);

/**
 * Waits until an event is signalled.
 * @param sem     the event; not NULL
 * @param timeout milliseconds to wait at most, or ::PSP_SYNC_FOREVER; 0 looks at the event and does
 *                not sleep. A wake-up that finds the event reset starts the time afresh, so the
 *                whole wait may take longer.
 * @retval sOKAY        the event was signalled
 * @retval sTIMEOUT     the time ran out
 * @retval ePSP_FAILURE the library is not initialised
 * @threads{any, any number of them} @before{`ePSP_FAILURE`} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_syncWait(PSP_SEM sem, uint32_t timeout);

/**
 * Destroys a mutex or an event. Nobody may hold it, wait for it or use it later; deleting it
 * twice is undefined.
 * @param sem the object, not NULL; nothing happens for ::PSP_SEM_INVALID
 * @threads{any, also while holding other locks} @before{does nothing} @jumps{never}
 * @owner{frees the object}
 */
PSP_API void psp_syncDelete(PSP_SEM sem);

/**
 * Waits once on a condition variable of the system's; a wake-up without cause is passed on to the
 * caller.
 * @param c the condition variable. It must use the clock that the library chose: the monotonic one
 *          when ::gUseMonotonicClock is greater than 0, else the real-time clock; not NULL
 * @param m the mutex that guards the condition, locked by the caller; locked again on return; not
 *          NULL
 * @param t milliseconds to wait at most
 * @retval sOKAY    the thread was woken up
 * @retval sTIMEOUT the time ran out
 * @threads{any} @before{works; the clock is the real-time one before the first psp_init()}
 * @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_posix_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, uint32_t t);

/** @} */

PSP_END_DECLS

#endif
