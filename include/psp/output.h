/**
 * @file output.h
 * Printing and logging through three stacks of destinations: standard output, standard error and
 * the log.
 *
 * Opening a name makes it the destination until it is closed again, which brings the one below
 * back. A name of NULL or "" is a destination that swallows everything. Formats are those of
 * format.h; no newline is added.
 */
#ifndef PSP_OUTPUT_H
#define PSP_OUTPUT_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** @addtogroup output
 *  @{ */

/** One level of a stack. */
struct _psp_file_entry;

/** A stack of destinations; the library alone reads and writes the fields. */
typedef struct PSP_FILE_STACK {
    PSP_SEM sem;                  /**< guards the stack and every use of its top stream */
    PSP_MEMTAG tag;               /**< owns the levels and the names */
    struct _psp_file_entry* root; /**< the current destination, NULL when empty */
} PSP_FILE_STACK;

/**
 * A set of three stacks of the caller's: psp_log_initCtx() fills it, psp_log_termCtx() frees what
 * is in it. Wherever a set is taken, NULL stands for the process's own.
 */
typedef struct _psplog_ctx {
    uint32_t magic;               /**< 2784ADB1 hexadecimal from psp_log_initCtx() on, for good */
    PSP_FILE_STACK psp_log_stack; /**< the log files; empty at first */
    PSP_FILE_STACK psp_stdout_stack; /**< where printing goes */
    PSP_FILE_STACK psp_stderr_stack; /**< where error output goes */
} PSP_LOG_CTX;

/**
 * A message that is gathered piece by piece and logged as one: psp_log_chunk_init() makes it,
 * psp_log_chunk_end() logs and frees it.
 */
typedef struct LOG_CHUNK* PSP_LOG_CHUNK;

/* ---- Contexts and redirection ---- */

/**
 * Makes a set of stacks: standard output and standard error lead to the process's streams, the log
 * is empty. Each has a mutex; where none can be made the process ends, as in
 * psp_syncCreate_check().
 * @param ctx the caller's storage, which must stay where it is until psp_log_termCtx()
 * @retval sOKAY       the set is ready
 * @retval eINVNULLARG `ctx` is NULL
 * @retval eNOMEMORY   no memory; nothing is left to be freed
 * @retval eFILEOPEN   a standard stream could not be opened, for want of memory too; nothing is
 *                     left to be freed
 * @threads{any, one per set} @before{`eNOMEMORY`} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{the caller frees the set's contents with psp_log_termCtx()}
 */
PSP_API ZYN_RETCODE psp_log_initCtx(PSP_LOG_CTX* ctx);

/**
 * Closes every destination of a set and frees it. Call it before the last psp_term(), which frees
 * the memory but leaves the files open.
 * @param ctx the set; NULL, or storage without the magic value, is left alone
 * @threads{one, when no other uses the set} @before{frees nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_log_termCtx(PSP_LOG_CTX* ctx);

/**
 * Logs to a file from now on. A file that the stack holds already (names compare without regard to
 * case) is shared; any other is created or truncated.
 * @param ctx  the set; NULL for the process's
 * @param name the file; NULL or "" stops the logging to files
 * @retval sOKAY        the file is the log until psp_log_closeEx()
 * @retval ePSP_FAILURE the library is not initialised
 * @retval eNOMEMORY    no memory for the level; the stack is as before
 * @retval eFILEOPEN    the file could not be opened, for want of memory too; the stack is as before
 * @threads{any} @before{`ePSP_FAILURE`} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{each success needs one psp_log_closeEx(); `name` is copied}
 */
PSP_API ZYN_RETCODE psp_log_openEx(PSP_LOG_CTX* ctx, const char* name);

/**
 * Goes back to the log before the last one; the file is closed when no level uses it any more. An
 * empty stack is left alone.
 * @param ctx the set; NULL for the process's
 * @threads{any} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_log_closeEx(PSP_LOG_CTX* ctx);

/**
 * Prints to a file from now on, and shows log messages there; otherwise like psp_log_openEx().
 * @param ctx         the set; NULL for the process's
 * @param stdout_name the file; NULL or "" silences the standard output
 * @retval sOKAY        the file is the standard output until psp_stdout_closeEx()
 * @retval ePSP_FAILURE the library is not initialised
 * @retval eNOMEMORY    no memory for the level; the stack is as before
 * @retval eFILEOPEN    the file could not be opened, for want of memory too; the stack is as before
 * @threads{any} @before{`ePSP_FAILURE`} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{each success needs one psp_stdout_closeEx(); `stdout_name` is copied}
 */
PSP_API ZYN_RETCODE psp_stdout_openEx(PSP_LOG_CTX* ctx, const char* stdout_name);

/**
 * Goes back to the standard output before the last one. The bottom level goes like any other, and
 * without it nothing is printed: close no more often than you opened.
 * @param ctx the set; NULL for the process's
 * @threads{any} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_stdout_closeEx(PSP_LOG_CTX* ctx);

/**
 * Logs to the file `docroot`/`name` from now on, if it can be opened: a log that cannot must not
 * keep a server from starting.
 * @param ctx     the set; NULL for the process's
 * @param docroot the directory; must not be NULL
 * @param name    the file in it; must not be NULL
 * @retval sOKAY     also when the file could not be opened and the stack is as before
 * @retval eNOMEMORY no memory for the path
 * @threads{any} @before{`eNOMEMORY`} @jumps{by the thread's tag or ::PSP_GLOBAL_TAG}
 * @owner{one psp_log_closeEx() if the file was opened; the names are copied}
 */
PSP_API ZYN_RETCODE psp_log_createEx(PSP_LOG_CTX* ctx, const char* docroot, const char* name);

/* ---- Printing ---- */

/**
 * Formats text into a stream.
 * @param stream the stream; NULL gives -1
 * @param format the format; must not be NULL
 * @param args   its values; the list is not advanced
 * @return the number of bytes written; a NUL byte within the text ends it. -1 for a format that
 *         fails (nothing is written), no memory, or a byte that the stream refuses
 * @threads{one at a time per stream} @before{undefined: needs an open stream}
 * @jumps{by ::PSP_GLOBAL_TAG} @owner{nothing}
 */
PSP_API int32_t psp_vfprintf(PSP_FILE_STREAM stream, const char* format, va_list args)
    PSP_PRINTF(2, 0);

/**
 * Formats text into a stream like psp_vfprintf(), the values being arguments.
 * @param stream the stream; NULL gives -1
 * @param format the format; must not be NULL
 * @param ...    its values
 * @return as psp_vfprintf(): the bytes written, or -1
 * @threads{one at a time per stream} @before{undefined: needs an open stream}
 * @jumps{by ::PSP_GLOBAL_TAG} @owner{nothing}
 */
PSP_API int32_t psp_fprintf(PSP_FILE_STREAM stream, const char* format, ...) PSP_PRINTF(2, 3);

/**
 * Prints to the process's standard output stack. The text may wait in the destination's cache, up
 * to psp_flush() or the next log message.
 * @param format the format; must not be NULL
 * @param args   its values; the list is not advanced
 * @return as psp_vfprintf(): the bytes written, or -1; 0 when the destination swallows everything
 *         and when there is none
 * @threads{any} @before{0, nothing is printed} @jumps{by ::PSP_GLOBAL_TAG} @owner{nothing}
 */
PSP_API int32_t psp_printfV(const char* format, va_list args) PSP_PRINTF(1, 0);

/**
 * Prints like psp_printfV(), the values being arguments.
 * @param format the format; must not be NULL
 * @param ...    its values
 * @return as psp_printfV(): the bytes written, 0 or -1
 * @threads{any} @before{0, nothing is printed} @jumps{by ::PSP_GLOBAL_TAG} @owner{nothing}
 */
PSP_API int32_t psp_printf(const char* format, ...) PSP_PRINTF(1, 2);

/**
 * Prints to the process's standard error stack, whose cache waits for psp_flushErr() or the next
 * error message in the log.
 * @param format the format; must not be NULL
 * @param args   its values; the list is not advanced
 * @return as psp_printfV(): the bytes written, 0 or -1
 * @threads{any} @before{0, nothing is printed} @jumps{by ::PSP_GLOBAL_TAG} @owner{nothing}
 */
PSP_API int32_t psp_printfErrV(const char* format, va_list args) PSP_PRINTF(1, 0);

/**
 * Flushes the destination of psp_printf(), or the C library's `stdout` when it has no file.
 * @threads{any} @before{flushes `stdout`} @jumps{never} @owner{nothing}
 */
PSP_API void psp_flush(void);

/**
 * Flushes the destination of psp_printfErrV(), or the C library's `stderr` when it has no file.
 * @threads{any} @before{flushes `stderr`} @jumps{never} @owner{nothing}
 */
PSP_API void psp_flushErr(void);

/* ---- Logging ----
 *
 * A message goes to the console, that is the standard output or the standard error stack, unless
 * the process runs in the background; and to the log stack, there always behind the local time as
 * "[2024-05-01 13:07:42]" and two blanks. Both are flushed.
 */

/**
 * Logs a message: on the standard output as it is, in the log behind the local time.
 * @param format the format; must not be NULL
 * @param ...    its values
 * @return the number of bytes printed on the console: 0 when there is none, when the process runs
 *         in the background, when the format fails and when there is no memory; -1 when the console
 *         refuses a byte
 * @threads{any} @before{the C library's `vfprintf` prints to its `stdout`}
 * @jumps{by the thread's tag} @owner{nothing}
 */
PSP_API int32_t psp_log(const char* format, ...) PSP_PRINTF(1, 2);

/**
 * Logs a message like psp_log(), with the time on the standard output too.
 * @param format the format; must not be NULL
 * @param ...    its values
 * @return as psp_log(): the bytes printed on the console, 0 or -1
 * @threads{any} @before{the C library's `vfprintf` prints to its `stdout`}
 * @jumps{by the thread's tag} @owner{nothing}
 */
PSP_API int32_t psp_log_with_time(const char* format, ...) PSP_PRINTF(1, 2);

/**
 * Logs a message like psp_log(), to a given set.
 * @param ctx    the set; NULL for the process's
 * @param format the format; must not be NULL
 * @param ...    its values
 * @return as psp_log(): the bytes printed on the console, 0 or -1
 * @threads{any} @before{the C library's `vfprintf` prints to its `stdout`}
 * @jumps{by the thread's tag} @owner{nothing}
 */
PSP_API int32_t psp_logEx(PSP_LOG_CTX* ctx, const char* format, ...) PSP_PRINTF(2, 3);

/**
 * Logs a message like psp_log_with_time(), to a given set.
 * @param ctx    the set; NULL for the process's
 * @param format the format; must not be NULL
 * @param ...    its values
 * @return as psp_log(): the bytes printed on the console, 0 or -1
 * @threads{any} @before{the C library's `vfprintf` prints to its `stdout`}
 * @jumps{by the thread's tag} @owner{nothing}
 */
PSP_API int32_t psp_logEx_with_time(PSP_LOG_CTX* ctx, const char* format, ...) PSP_PRINTF(2, 3);

/**
 * Logs a message like psp_log(), with the standard error as console.
 * @param format the format; must not be NULL
 * @param ...    its values
 * @return as psp_log(): the bytes printed on the console, 0 or -1
 * @threads{any} @before{the C library's `vfprintf` prints to its `stderr`}
 * @jumps{by the thread's tag} @owner{nothing}
 */
PSP_API int32_t psp_log_err(const char* format, ...) PSP_PRINTF(1, 2);

/**
 * Logs a message like psp_logEx(), with the standard error as console.
 * @param ctx     the set; NULL for the process's
 * @param logTime not ::ZYN_FALSE: the console shows the time too
 * @param format  the format; must not be NULL
 * @param args    its values; the list is not advanced, except by the C library before psp_init()
 * @return as psp_log(): the bytes printed on the console, 0 or -1
 * @threads{any} @before{the C library's `vfprintf` prints to its `stderr`}
 * @jumps{by the thread's tag} @owner{nothing}
 */
PSP_API int32_t psp_log_errV_Ex(PSP_LOG_CTX* ctx, ZYN_BOOL_T logTime, const char* format,
                                va_list args) PSP_PRINTF(3, 0);

/* ---- Messages in pieces ---- */

/**
 * Begins a message.
 * @return the message; NULL without memory
 * @threads{any} @before{NULL} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{the caller ends it with psp_log_chunk_end()}
 */
PSP_API PSP_MUST_USE PSP_LOG_CHUNK psp_log_chunk_init(void);

/**
 * Adds a piece. A format that fails, or a piece for which there is no memory, adds nothing.
 * @param chunk  the message; NULL is ignored
 * @param format the format; NULL adds nothing
 * @param ...    its values
 * @threads{one at a time per message} @before{does nothing} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{nothing}
 */
PSP_API void psp_log_chunk(PSP_LOG_CHUNK chunk, const char* format, ...) PSP_PRINTF(2, 3);

/**
 * Adds a last piece, logs the message as psp_log() does in one go, and frees it. A message to which
 * nothing was added is not logged.
 * @param chunk  the message, not usable afterwards; NULL is ignored
 * @param format the format of the last piece; NULL adds nothing
 * @param ...    its values
 * @threads{one at a time per message} @before{does nothing}
 * @jumps{by ::PSP_GLOBAL_TAG, after the message was logged and freed} @owner{nothing}
 */
PSP_API void psp_log_chunk_end(PSP_LOG_CHUNK chunk, const char* format, ...) PSP_PRINTF(2, 3);

/** @} */

PSP_END_DECLS

#endif
