/**
 * @file core.h
 * Start and stop of the library, its process-wide switches, the critical section, and the version.
 *
 * The flags are exported so that they can be read; only the library writes them. They change
 * while other threads run: read one with a single plain access.
 */
#ifndef PSP_CORE_H
#define PSP_CORE_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup core
 * @{
 */

/**
 * Calls of psp_init() minus calls of psp_term(). At 0 most functions refuse their work.
 * @threads{any may read it} @before{0}
 */
extern PSP_API int32_t psp_inited;

/**
 * 1 while the last psp_term() destroys globals, locks and memory, else 0.
 * @threads{any may read it} @before{0}
 */
extern PSP_API int32_t psp_terminating;

/**
 * 1 once psp_rdonly() was called: no file is opened for writing, created or removed.
 * @threads{any may read it} @before{as psp_rdonly() left it; 0 at first}
 */
extern PSP_API int32_t psp_readonly;

/**
 * 1 once psp_nodisk() was called: no file or directory is opened, removed or looked up.
 * @threads{any may read it} @before{as psp_nodisk() left it; 0 at first}
 */
extern PSP_API int32_t psp_diskless;

/**
 * 1 in a process that psp_daemonStart() put into the background: logging skips the console.
 * @threads{any may read it} @before{as psp_daemonStart() left it; 0 at first}
 */
extern PSP_API int32_t psp_background;

/**
 * Starts the library, or counts one more user of a started one.
 *
 * The first call sets up locks, memory, the registry of globals and the output stacks. For the
 * whole process it raises the soft limit of open descriptors to the hard one (to at least 1024
 * where there is no hard one), ignores `SIGPIPE`, and chooses the clock of timed waits
 * (::gUseMonotonicClock); those three stay after a stop. Every successful call needs one
 * psp_term(). A failed one leaves nothing to be stopped, and may be tried again. Not to be called
 * inside the critical section.
 *
 * @retval sOKAY              the library runs
 * @retval eNOMEMORY          memory ran out, or no thread-specific key is left
 * @retval eFILEOPEN          memory ran out while the standard streams were opened
 * @retval ePSP_FAILURE       the global tag, or a mutex of the memory layer, could not be made
 * @retval ePSP_MUTEX_FAILURE the mutex of the registry could not be made
 *
 * @threads{any; waits while another thread starts or stops the library} @before{works}
 * @jumps{never} @owner{the caller ends what it started with psp_term()}
 */
PSP_API ZYN_RETCODE psp_init(void);

/**
 * Gives up one start; the last one takes the library down.
 *
 * Then all output stacks are closed, the named globals destroyed, and every lock and all memory
 * released, whoever owned them; handles and pointers from before are dead. The library can be
 * started again. A call without a psp_init() takes the count below 0, and later starts only bring
 * it back: calls must pair. Not to be called inside the critical section.
 *
 * @threads{any, but while the last call runs no other thread may use the library}
 * @before{takes the count below 0} @jumps{never; the callbacks that it runs must not jump either}
 * @owner{frees everything that callers have not}
 */
PSP_API void psp_term(void);

/**
 * Refuses from now on, for the rest of the process, to open files for writing, to create and to
 * remove them. It outlasts psp_term(), and nothing undoes it.
 *
 * Directories can still be created and removed. A file that is open for writing already can still
 * be written, but psp_fileSync() does nothing any more.
 *
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_rdonly(void);

/**
 * Refuses from now on, for the rest of the process, to open, remove or look up files and
 * directories. It outlasts psp_term(), and nothing undoes it.
 *
 * The standard streams go on, and so do files that are open already.
 *
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_nodisk(void);

/**
 * Tells the version of the library.
 * @param major receives the major number, 14; may be NULL
 * @param minor receives the minor number, 1; may be NULL
 * @param build receives the build number, 3222; may be NULL
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_version(int16_t* major, int16_t* minor, int16_t* build);

/**
 * Tells the calling thread's `errno`. Ask right after the call that failed.
 * @return `errno` as the C library left it
 * @threads{any; each has its own} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API int32_t psp_errno(void);

/**
 * Writes a message and a newline to the C library's standard output (`puts`), past the output
 * stacks.
 * @param msg the text; nothing is written for NULL
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_errPrint(const char* msg);

/**
 * Enters the process-wide critical section, waiting for its turn.
 *
 * It serves one-time set-up. It is not recursive: a thread inside it must not enter it again, nor
 * call psp_init(), psp_term() or psp_tmpdir(), which use it themselves.
 *
 * @retval sOKAY always
 * @threads{any; one at a time gets in} @before{works} @jumps{never}
 * @owner{the same thread leaves it with psp_exitCritSec()}
 */
PSP_API ZYN_RETCODE psp_enterCritSec(void);

/**
 * Leaves the critical section.
 * @threads{only the one that entered it} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_exitCritSec(void);

/** @} */

PSP_END_DECLS

#endif
