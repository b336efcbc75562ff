/**
 * @file psp/output.h
 * Printing and logging through three stacks of destinations: standard output, standard error and
 * the log.
 *
 * Opening a name makes it the destination until it is closed again, which brings the one below
 * back. A name of NULL or "" is a destination that swallows everything. psp_init() makes one set of
 * stacks for the process: standard output and standard error lead to the process's own streams, and
 * the log is empty, which means that nothing is logged to a file. Further sets live in a
 * ::PSP_LOG_CTX; a NULL context stands for the process's set.
 *
 * Each stack has a mutex that every operation on it holds, so the texts of two threads never mix
 * within one destination. Formats are those of psp/format.h. No newline is added.
 */
#ifndef PSP_OUTPUT_H
#define PSP_OUTPUT_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** One level of a stack. */
struct _psp_file_entry;

/** A stack of destinations; the library alone reads and writes the fields. */
typedef struct PSP_FILE_STACK {
    PSP_SEM sem;                  /**< guards the stack and every use of its top stream */
    PSP_MEMTAG tag;               /**< owns the levels and the names */
    struct _psp_file_entry* root; /**< the current destination, NULL when empty */
} PSP_FILE_STACK;

/** A set of three stacks of the caller's; psp_log_initCtx() fills it. */
typedef struct _psplog_ctx {
    uint32_t magic;               /**< 2784ADB1 hexadecimal from psp_log_initCtx() on, for good */
    PSP_FILE_STACK psp_log_stack; /**< the log files; empty at first */
    PSP_FILE_STACK psp_stdout_stack; /**< where printing goes */
    PSP_FILE_STACK psp_stderr_stack; /**< where error output goes */
} PSP_LOG_CTX;

/** A message that is gathered piece by piece and logged as one. */
typedef struct LOG_CHUNK* PSP_LOG_CHUNK;

/* ---- Contexts and redirection ---- */

/**
 * Makes a set of stacks: standard output and standard error lead to the process's streams, the log
 * is empty.
 * @param ctx the caller's storage; must stay where it is until psp_log_termCtx()
 * @return `sOKAY`; `eINVNULLARG` for NULL; `eNOMEMORY`, also before psp_init(); `eFILEOPEN`. After
 * a failure nothing is left to be freed.
 */
PSP_API ZYN_RETCODE psp_log_initCtx(PSP_LOG_CTX* ctx);

/**
 * Closes every destination of a set and frees it. Call it before the last psp_term().
 * @param ctx the set; NULL, or storage without the magic value, is left alone
 */
PSP_API void psp_log_termCtx(PSP_LOG_CTX* ctx);

/**
 * Logs to a file from now on. A file that the stack holds already (names compare without regard to
 * case) is shared; any other is created or truncated.
 * @param ctx  the set, NULL for the process's
 * @param name the file, copied; NULL or "" stops the logging to files
 * @return `sOKAY`; `ePSP_FAILURE` before psp_init(); `eNOMEMORY`; `eFILEOPEN`. The stack is as
 *         before after a failure. Each success needs one psp_log_closeEx().
 */
PSP_API ZYN_RETCODE psp_log_openEx(PSP_LOG_CTX* ctx, const char* name);

/**
 * Goes back to the log before the last one; the file is closed when no level uses it any more. An
 * empty stack is left alone.
 * @param ctx the set, NULL for the process's
 */
PSP_API void psp_log_closeEx(PSP_LOG_CTX* ctx);

/** psp_log_openEx() for the standard output. */
PSP_API ZYN_RETCODE psp_stdout_openEx(PSP_LOG_CTX* ctx, const char* stdout_name);

/** psp_log_closeEx() for the standard output; the bottom level goes like any other. */
PSP_API void psp_stdout_closeEx(PSP_LOG_CTX* ctx);

/**
 * psp_log_openEx() of the path `docroot`/`name`.
 * @param ctx     the set, NULL for the process's
 * @param docroot the directory
 * @param name    the file in it
 * @return `sOKAY`, also when the file could not be opened; `eNOMEMORY` when there is no memory for
 *         the path, and before psp_init()
 */
PSP_API ZYN_RETCODE psp_log_createEx(PSP_LOG_CTX* ctx, const char* docroot, const char* name);

/* ---- Printing ---- */

/**
 * Formats text into a stream.
 * @param stream the stream; the caller serialises its use
 * @param format the format
 * @param args   its values; the list is not advanced
 * @return the number of bytes written; a NUL byte within the text ends it. -1 for a format that
 *         fails (nothing is written), no memory, or a byte that the stream refuses.
 */
PSP_API int32_t psp_vfprintf(PSP_FILE_STREAM stream, const char* format, va_list args)
    PSP_PRINTF(2, 0);

/** psp_vfprintf() with the values as arguments. */
PSP_API int32_t psp_fprintf(PSP_FILE_STREAM stream, const char* format, ...) PSP_PRINTF(2, 3);

/**
 * Prints to the process's standard output stack.
 * @param format the format
 * @param args   its values; the list is not advanced
 * @return as psp_vfprintf(); 0 when the destination swallows everything and when there is none
 */
PSP_API int32_t psp_printfV(const char* format, va_list args) PSP_PRINTF(1, 0);

/** psp_printfV() with the values as arguments. */
PSP_API int32_t psp_printf(const char* format, ...) PSP_PRINTF(1, 2);

/** psp_printfV() to the process's standard error stack. */
PSP_API int32_t psp_printfErrV(const char* format, va_list args) PSP_PRINTF(1, 0);

/** Flushes the destination of psp_printf(), or the C library's `stdout` when it has no file. */
PSP_API void psp_flush(void);

/** Flushes the destination of psp_printfErrV(), or the C library's `stderr` when it has no file. */
PSP_API void psp_flushErr(void);

/* ---- Logging ----
 *
 * A message goes to the console, that is the standard output or the standard error stack, unless
 * the process runs in the background; and to the log stack, there always behind the local time as
 * "[2024-05-01 13:07:42]" and two blanks. Both are flushed. Before psp_init() the C library's own
 * vfprintf() prints it to the standard output or the standard error.
 */

/**
 * Logs a message, on the standard output as it is.
 * @param format the format
 * @return the number of bytes printed on the console: 0 when there is none, when the process runs
 *         in the background, when the format fails and when there is no memory; -1 when the console
 *         refuses a byte
 */
PSP_API int32_t psp_log(const char* format, ...) PSP_PRINTF(1, 2);

/** psp_log(), with the time on the console too. */
PSP_API int32_t psp_log_with_time(const char* format, ...) PSP_PRINTF(1, 2);

/** psp_log() to the set `ctx`, NULL for the process's. */
PSP_API int32_t psp_logEx(PSP_LOG_CTX* ctx, const char* format, ...) PSP_PRINTF(2, 3);

/** psp_log_with_time() to the set `ctx`, NULL for the process's. */
PSP_API int32_t psp_logEx_with_time(PSP_LOG_CTX* ctx, const char* format, ...) PSP_PRINTF(2, 3);

/** psp_log() with the standard error as console. */
PSP_API int32_t psp_log_err(const char* format, ...) PSP_PRINTF(1, 2);

/**
 * Logs a message with the standard error as console.
 * @param ctx     the set, NULL for the process's
 * @param logTime whether the console shows the time too
 * @param format  the format
 * @param args    its values; the list is not advanced, except by the C library before psp_init()
 * @return as psp_log()
 */
PSP_API int32_t psp_log_errV_Ex(PSP_LOG_CTX* ctx, ZYN_BOOL_T logTime, const char* format,
                                va_list args) PSP_PRINTF(3, 0);

/* ---- Messages in pieces ---- */

/**
 * Begins a message.
 * @return the message, to be ended with psp_log_chunk_end(); NULL before psp_init() and without
 *         memory. One thread at a time may use it.
 */
PSP_API PSP_MUST_USE PSP_LOG_CHUNK psp_log_chunk_init(void);

/**
 * Adds a piece. A format that fails, or a piece for which there is no memory, adds nothing.
 * @param chunk  the message; NULL is ignored
 * @param format the format; NULL adds nothing
 */
PSP_API void psp_log_chunk(PSP_LOG_CHUNK chunk, const char* format, ...) PSP_PRINTF(2, 3);

/**
 * Adds a last piece, logs the message as psp_log() does in one go, and frees it. A message to which
 * nothing was added is not logged.
 * @param chunk  the message, not usable afterwards; NULL is ignored
 * @param format the format of the last piece, or NULL
 */
PSP_API void psp_log_chunk_end(PSP_LOG_CHUNK chunk, const char* format, ...) PSP_PRINTF(2, 3);

PSP_END_DECLS

#endif
