/**
 * @file core.h
 * Start and stop of the library, the process-wide critical section, flags and switches, and the
 * version.
 *
 * The flags are exported so that they can be read; only the library writes them. They change
 * while other threads run: read one with a single plain access.
 */
#ifndef PSP_CORE_H
#define PSP_CORE_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** Calls of psp_init() minus calls of psp_term(). At 0 most functions refuse their work. */
extern PSP_API int32_t psp_inited;

/** 1 while the last psp_term() takes the library down, else 0. */
extern PSP_API int32_t psp_terminating;

/** 1 once psp_rdonly() was called: no file is opened for writing or created. */
extern PSP_API int32_t psp_readonly;

/** 1 once psp_nodisk() was called: the disk is not touched. */
extern PSP_API int32_t psp_diskless;

/** 1 in a process that psp_daemonStart() put into the background: logging skips the console. */
extern PSP_API int32_t psp_background;

/**
 * Starts the library, or counts one more user of a started one.
 *
 * The first call raises the soft limit of open descriptors, ignores `SIGPIPE` for the whole
 * process and sets up locks, memory, the registry of globals and the output stacks. Every
 * successful call needs one psp_term(). May be called from any thread, but not inside the
 * critical section.
 *
 * @return `sOKAY`; on failure nothing is left behind and the code is `eNOMEMORY` (no memory, or
 *         no thread-specific key left), `ePSP_FAILURE` (the mutexes of the memory layer, or its
 *         global tag), `ePSP_MUTEX_FAILURE` (the mutex of the registry) or that of the output
 *         stack which could not be opened
 */
PSP_API ZYN_RETCODE psp_init(void);

/**
 * Gives up one start; the last one takes the library down.
 *
 * Then all output stacks are closed, the named globals destroyed, and every lock and all memory
 * released, whoever owned them; handles and pointers from before are dead. The library can be
 * started again. A call without a psp_init() takes the count below 0, and later starts only bring
 * it back: calls must pair. Not to be called inside the critical section.
 */
PSP_API void psp_term(void);

/**
 * Refuses from now on, for the rest of the process, to open files for writing or to create them.
 * Works before psp_init() and outlasts psp_term().
 */
PSP_API void psp_rdonly(void);

/**
 * Refuses from now on, for the rest of the process, to touch the disk.
 * Works before psp_init() and outlasts psp_term().
 */
PSP_API void psp_nodisk(void);

/**
 * Tells the version of the library. Works before psp_init().
 * @param major receives the major number, 14; may be NULL
 * @param minor receives the minor number, 1; may be NULL
 * @param build receives the build number, 3222; may be NULL
 */
PSP_API void psp_version(int16_t* major, int16_t* minor, int16_t* build);

/**
 * @return the calling thread's `errno` as the C library left it. Works before psp_init().
 */
PSP_API int32_t psp_errno(void);

/**
 * Writes a message and a newline to the C library's standard output (`puts`), past the output
 * stacks. Works before psp_init().
 * @param msg the text; nothing is written for NULL
 */
PSP_API void psp_errPrint(const char* msg);

/**
 * Enters the process-wide critical section, waiting for its turn.
 *
 * It serves one-time set-up. It is not recursive: a thread inside it must not enter it again, nor
 * call psp_init(), psp_term() or psp_tmpdir(), which use it themselves. Works before
 * psp_init() and after psp_term().
 *
 * @return `sOKAY`, always
 */
PSP_API ZYN_RETCODE psp_enterCritSec(void);

/**
 * Leaves the critical section. Only the thread that entered it may call this. Works before
 * psp_init() and after psp_term().
 */
PSP_API void psp_exitCritSec(void);

PSP_END_DECLS

#endif
