/**
 * @file thread.h
 * Threads that return a status, and atomic operations on 32-bit counters. The atomic operations
 * work without psp_init().
 */
#ifndef PSP_THREAD_H
#define PSP_THREAD_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * The body of a thread.
 * @param arg the argument given at the start
 * @return the thread's status, handed to psp_threadJoin()
 */
typedef ZYN_RETCODE (*PSP_THREAD_FCN)(void* arg);

/** A thread that was started, kept by the caller until it is joined. */
typedef struct psp_thread_t {
    psp_thread_id_t id; /**< the thread */
    ZYN_RETCODE rc;     /**< for the caller's own use; the library leaves it alone */
} psp_thread_t;

/**
 * Starts a thread. It runs with `SIGINT`, `SIGTERM` and `SIGCHLD` blocked, so that signals sent to
 * the process reach other threads; the caller's own signal mask stays as it is.
 * @param fcn       the body
 * @param stacksize size of its stack in bytes; 0, or a size that the system refuses, means the
 *                  system's default
 * @param arg       argument of `fcn`; may be NULL
 * @param pThread   receives the thread's id before this call returns, not before `fcn` starts; to
 *                  be joined exactly once
 * @param priority  priority under explicit scheduling, or 0 to inherit the caller's scheduling; a
 *                  priority that the system refuses is ignored
 * @param name      not used; may be NULL
 * @return `sOKAY`; `ePSP_FAILURE` when the thread could not be started, `fcn` or `pThread` is
 *         NULL, or the library is not initialised
 */
PSP_API ZYN_RETCODE psp_threadBeginEx(PSP_THREAD_FCN fcn, uint32_t stacksize, void* arg,
                                      psp_thread_t* pThread, int32_t priority, const char* name);

/**
 * Starts a thread like psp_threadBeginEx() with priority 0. Mind the order of the arguments.
 * @param fcn       the body
 * @param stacksize size of its stack in bytes, 0 for the system's default
 * @param arg       argument of `fcn`; may be NULL
 * @param name      not used; may be NULL
 * @param pThread   receives the thread's id
 * @return as psp_threadBeginEx()
 */
PSP_API ZYN_RETCODE psp_threadBegin(PSP_THREAD_FCN fcn, uint32_t stacksize, void* arg,
                                    const char* name, psp_thread_t* pThread);

/**
 * Waits for a thread to end and collects its status. Works without psp_init().
 * @param pThread the thread
 * @return what the thread's body returned; `ePSP_FAILURE` when it cannot be joined or `pThread` is
 *         NULL
 */
PSP_API ZYN_RETCODE psp_threadJoin(psp_thread_t* pThread);

/**
 * @return the identity of the calling thread. Works without psp_init().
 */
PSP_API psp_thread_id_t psp_threadId(void);

/**
 * Adds 1 to a counter, wrapping at 2^32. A full memory barrier.
 * @param data the counter, aligned to 4 bytes
 */
PSP_API void psp_atomicIncrUInt32(volatile uint32_t* data);

/**
 * Takes 1 from a counter, wrapping below 0. A full memory barrier.
 * @param data the counter, aligned to 4 bytes
 */
PSP_API void psp_atomicDecrUInt32(volatile uint32_t* data);

/**
 * Replaces a value if it is the expected one. A full memory barrier.
 * @param data   the value, aligned to 4 bytes
 * @param oldval what it must be
 * @param newval what to store then
 * @return 1 when `oldval` was found and replaced, else 0
 */
PSP_API uint32_t psp_atomicSetUInt32(volatile uint32_t* data, uint32_t oldval, uint32_t newval);

PSP_END_DECLS

#endif
