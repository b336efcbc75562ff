/**
 * @file thread.h
 * Threads that return a status, and atomic operations on 32-bit counters.
 */
#ifndef PSP_THREAD_H
#define PSP_THREAD_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup thread
 * @{
 */

/**
 * The body of a thread.
 * @param arg the argument given at the start
 * @return the thread's status, handed to psp_threadJoin()
 * @threads{runs in the new thread} @jumps{only within itself: a jump cannot leave the thread}
 */
typedef ZYN_RETCODE (*PSP_THREAD_FCN)(void* arg);

/** A thread that was started by psp_threadBeginEx(): the caller's, until psp_threadJoin(). */
typedef struct psp_thread_t {
    psp_thread_id_t id; /**< the thread */
    ZYN_RETCODE rc;     /**< for the caller's own use; the library leaves it alone */
} psp_thread_t;

/**
 * Starts a thread. It runs with `SIGINT`, `SIGTERM` and `SIGCHLD` blocked, so that signals sent to
 * the process reach other threads; the caller's own signal mask stays as it is.
 * @param fcn       the body; not NULL
 * @param stacksize size of its stack in bytes; 0, or a size that the system refuses, means the
 *                  system's default
 * @param arg       argument of `fcn`; may be NULL
 * @param pThread   receives the thread's id before this call returns, not before `fcn` starts; not
 *                  NULL
 * @param priority  priority under explicit scheduling, or 0 to inherit the caller's scheduling; a
 *                  priority that the system refuses is ignored
 * @param name      not used; may be NULL
 * @retval sOKAY        the thread was started
 * @retval ePSP_FAILURE it could not be started, `fcn` or `pThread` is NULL, or the library is not
 *                      initialised
 * @threads{any} @before{`ePSP_FAILURE`} @jumps{never}
 * @owner{the caller joins it exactly once with psp_threadJoin(); what `arg` points to must outlive
 * its use by the thread}
 */
PSP_API ZYN_RETCODE psp_threadBeginEx(PSP_THREAD_FCN fcn, uint32_t stacksize, void* arg,
                                      psp_thread_t* pThread, int32_t priority, const char* name);

/**
 * Starts a thread like psp_threadBeginEx() with priority 0. Mind the order of the arguments.
 * @param fcn       the body; not NULL
 * @param stacksize size of its stack in bytes, 0 for the system's default
 * @param arg       argument of `fcn`; may be NULL
 * @param name      not used; may be NULL
 * @param pThread   receives the thread's id; not NULL
 * @retval sOKAY        the thread was started
 * @retval ePSP_FAILURE as psp_threadBeginEx()
 * @threads{any} @before{`ePSP_FAILURE`} @jumps{never}
 * @owner{the caller joins it exactly once with psp_threadJoin()}
 */
PSP_API ZYN_RETCODE psp_threadBegin(PSP_THREAD_FCN fcn, uint32_t stacksize, void* arg,
                                    const char* name, psp_thread_t* pThread);

/**
 * Waits for a thread to end and collects its status.
 * @param pThread the thread, started and not joined yet; NULL gives `ePSP_FAILURE`
 * @return what the thread's body returned, or `ePSP_FAILURE`
 * @retval sOKAY        the thread's body returned it
 * @retval ePSP_FAILURE the thread's body returned it, the system refuses to join the thread (the
 *                      caller itself, a detached one), or `pThread` is NULL
 * @threads{any, one of them per thread to be joined} @before{works} @jumps{never}
 * @owner{frees what the system keeps of the thread; its thread tag stays until psp_term()}
 */
PSP_API ZYN_RETCODE psp_threadJoin(psp_thread_t* pThread);

/**
 * Tells which thread this is.
 * @return the identity of the calling thread; compare with `==`
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API psp_thread_id_t psp_threadId(void);

/**
 * Adds 1 to a counter, wrapping at 2^32. A full memory barrier.
 * @param data the counter, aligned to 4 bytes; not NULL
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_atomicIncrUInt32(volatile uint32_t* data);

/**
 * Takes 1 from a counter, wrapping below 0. A full memory barrier.
 * @param data the counter, aligned to 4 bytes; not NULL
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_atomicDecrUInt32(volatile uint32_t* data);

/**
 * Replaces a value if it is the expected one. A full memory barrier.
 * @param data   the value, aligned to 4 bytes; not NULL
 * @param oldval what it must be
 * @param newval what to store then
 * @return 1 when `oldval` was found and replaced, else 0
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_atomicSetUInt32(volatile uint32_t* data, uint32_t oldval, uint32_t newval);

/** @} */

PSP_END_DECLS

#endif
