/**
 * @file sync.h
 * Recursive mutexes and manual-reset events.
 *
 * Both are addressed by a ::PSP_SEM. At most 131072 objects exist at a time. The operations trust
 * the handle: mutex operations on an event, event operations on a mutex, and anything but
 * psp_syncDelete() on ::PSP_SEM_INVALID is undefined. The last psp_term() destroys all objects;
 * from then until the next psp_init() every operation on any handle is harmless and does nothing.
 */
#ifndef PSP_SYNC_H
#define PSP_SYNC_H

#include "psptypes.h"

PSP_BEGIN_DECLS

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
 * When all objects are in use, or no memory is left for more of them, the process is terminated:
 * there is no code for it. May be called while holding any locks.
 *
 * @param type ::PSP_SEM_MUTEX or ::PSP_SEM_EVENT
 * @param file the caller's source file, named in the message of an exhausted table; may be NULL
 * @param line the caller's source line
 * @return the object, to be given to psp_syncDelete(); ::PSP_SEM_INVALID when the library is not
 *         initialised, and, with a message in the log and one object lost, for any other type
 */
PSP_API PSP_SEM psp_syncCreate_check(int16_t type, const char* file, int32_t line);

/**
 * Acquires a mutex, waiting for its turn. The holder may enter again; it must exit as often.
 * @param sem the mutex
 * @return `sOKAY`, always; nothing is acquired when the library is not initialised
 */
PSP_API ZYN_RETCODE psp_syncEnterExcl(PSP_SEM sem);

/**
 * Releases one level of a mutex; the last one lets the next thread in.
 * @param sem the mutex, held by the calling thread (not checked)
 */
PSP_API void psp_syncExitExcl(PSP_SEM sem);

/**
 * Resets an event: from now on psp_syncWait() waits.
 * @param sem the event
 */
PSP_API void psp_syncStart(PSP_SEM sem);

/**
 * Signals an event: all waiting threads go on, and later waits pass at once, until the next
 * psp_syncStart().
 * @param sem the event
 */
PSP_API void psp_syncResume(PSP_SEM sem);

/**
 * Waits until an event is signalled.
 * @param sem     the event
 * @param timeout milliseconds to wait at most, or ::PSP_SYNC_FOREVER; 0 looks at the event and does
 *                not sleep. A wake-up that finds the event reset starts the time afresh, so the
 *                whole wait may take longer.
 * @return `sOKAY` when the event was signalled, `sTIMEOUT` when the time ran out, `ePSP_FAILURE`
 *         when the library is not initialised
 */
PSP_API ZYN_RETCODE psp_syncWait(PSP_SEM sem, uint32_t timeout);

/**
 * Destroys a mutex or an event. Nobody may hold it, wait for it or use it later; deleting it
 * twice is undefined.
 * @param sem the object; nothing happens for ::PSP_SEM_INVALID
 */
PSP_API void psp_syncDelete(PSP_SEM sem);

/**
 * Waits once on a condition variable, as psp_syncWait() does; wake-ups without cause are passed
 * on to the caller. Works without psp_init().
 * @param c the condition variable. It must use the clock that the library chose, see
 *          ::gUseMonotonicClock in psp/time.h.
 * @param m the mutex that guards the condition, locked by the caller; locked again on return
 * @param t milliseconds to wait at most
 * @return `sTIMEOUT` when the time ran out, else `sOKAY`
 */
PSP_API ZYN_RETCODE psp_posix_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, uint32_t t);

PSP_END_DECLS

#endif
