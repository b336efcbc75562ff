/**
 * @file psp/stream.h
 * Buffered text streams: a file handle with a 1024-byte cache in front of it.
 *
 * A caller always sees UTF-8, one byte a call. A UTF-16 file is decoded while it is read and
 * encoded while it is written. The file is read and written strictly in sequence; there is no
 * seeking.
 *
 * A stream has no lock of its own: callers serialise their use of it. Its memory belongs to
 * ::PSP_GLOBAL_TAG. A NULL stream is refused by every function with the result it has for a
 * failure.
 */
#ifndef PSP_STREAM_H
#define PSP_STREAM_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** The encoding of a stream's file. */
typedef enum PSP_FILE_MODE {
    PSP_FILE_MODE_UNKNOWN = 0, /**< not decided: a writer takes UTF-8, a reader detects */
    PSP_FILE_MODE_UTF8 = 1,    /**< bytes as they are */
    PSP_FILE_MODE_UTF16 = 2    /**< 16-bit units behind a byte-order mark */
} PSP_FILE_MODE;

/**
 * Opens a file as a text stream.
 *
 * Of `mode` at most three characters count: "r" reads, "w" creates or truncates and writes, "a"
 * creates and appends, "+" makes the handle readable and writable. Any other character ("b" and
 * "t" too) makes the call fail, and the few bytes of the stream's record then stay with
 * ::PSP_GLOBAL_TAG until psp_term().
 *
 * A stream opened without "w" and "a" looks for a byte-order mark: EF BB BF is UTF-8, FF FE and
 * FE FF are UTF-16, and a file without a mark is UTF-8 whatever `fmode` says. Only a file that ends
 * inside a mark keeps `fmode`, and those bytes are lost to the reader. A stream opened with "w" or
 * "a" writes a mark first when `fmode` is ::PSP_FILE_MODE_UTF16, in append mode too.
 *
 * @param name   the file; "stdin", "stdout" and "stderr" are the process's own streams
 * @param mode   how to open; NULL reads
 * @param fmode  the encoding to write, and the fallback of a reader
 * @param xflags extra flags of the file handle (psp/file.h), usually 0
 * @return the stream, or NULL: no memory, an unknown mode character, a file that cannot be opened,
 *         or a library that is not initialised. Close it with psp_fclose().
 */
PSP_API PSP_MUST_USE PSP_FILE_STREAM psp_fopenEx(const char* name, const char* mode,
                                                 PSP_FILE_MODE fmode, uint16_t xflags);

/** psp_fopenEx() with `xflags` 0. */
PSP_API PSP_MUST_USE PSP_FILE_STREAM psp_fopen(const char* name, const char* mode,
                                               PSP_FILE_MODE fmode);

/**
 * Opens one of the process's standard streams, without a byte-order mark.
 * @param stdfile "stdin", "stdout" or "stderr", in lower case; any other name is opened as an
 *                ordinary file for reading
 * @param xflags  extra flags of the file handle (psp/file.h), usually 0
 * @return the stream, or NULL on failure. Close it with psp_fclose(); the process's descriptor
 *         stays open.
 */
PSP_API PSP_MUST_USE PSP_FILE_STREAM psp_fopenStdEx(const char* stdfile, uint16_t xflags);

/** psp_fopenStdEx() with `xflags` 0. */
PSP_API PSP_MUST_USE PSP_FILE_STREAM psp_fopenStd(const char* stdfile);

/**
 * Writes what the cache holds, closes the file and frees the stream.
 * @param stream the stream, not usable afterwards
 */
PSP_API void psp_fclose(PSP_FILE_STREAM stream);

/**
 * Reads one byte of UTF-8 text: the last one pushed back if there is any, else the next of the
 * file. In UTF-16 a lone low surrogate reads as '.'.
 * @param stream the stream
 * @return the byte as a signed value (80 to FF hexadecimal are -128 to -1), or -1 at the end of the
 *         file and after a read error. The byte FF cannot be told from the end. 0 without end from
 *         a stream that kept ::PSP_FILE_MODE_UNKNOWN (see psp_fopenEx()).
 */
PSP_API int32_t psp_fgetc(PSP_FILE_STREAM stream);

/**
 * Pushes a value back in front of the file; it is read again last in, first out.
 * @param c      the value; psp_fgetc() returns it as it is
 * @param stream the stream
 * @return `c`, or -1 when 20 values are waiting already
 */
PSP_API int32_t psp_fungetc(int32_t c, PSP_FILE_STREAM stream);

/**
 * Reads up to and including the next newline.
 * @param str    receives the text and a NUL; left alone when the result is NULL
 * @param n      the room in `str` in bytes; 1 stores an empty string and reads nothing
 * @param stream the stream
 * @return `str`, or NULL when the file had ended, `str` is NULL or `n` is below 1
 */
PSP_API char* psp_fgets(char* str, int32_t n, PSP_FILE_STREAM stream);

/**
 * Writes one byte of UTF-8 text. Into UTF-16 the first bytes of a character are held back until
 * its last one arrives.
 * @param c      the byte, in the low eight bits
 * @param stream the stream
 * @return 1, or 0 when the byte cannot be taken: in UTF-16, one that does not continue the text.
 *         A character begun before stays begun. Bytes that the disk refuses later are lost without
 *         notice.
 */
PSP_API int32_t psp_fputc(int32_t c, PSP_FILE_STREAM stream);

/**
 * Writes a string, as psp_fputc() does for each of its bytes.
 * @param str    the NUL-terminated text
 * @param stream the stream
 * @return the number of bytes, or -1 at the first byte that is not taken
 */
PSP_API int32_t psp_fputs(const char* str, PSP_FILE_STREAM stream);

/**
 * Passes the bytes in the cache on to the operating system.
 * @param stream the stream
 * @return 0, also when the bytes were refused
 */
PSP_API int32_t psp_fflush(PSP_FILE_STREAM stream);

/**
 * Flushes, and makes the operating system write the file to the disk.
 * @param stream the stream
 * @return 0, also when either failed
 */
PSP_API int32_t psp_fsync(PSP_FILE_STREAM stream);

/**
 * Tells whether the stream's file is a terminal.
 * @param stream the stream
 * @param is_tty receives the answer: not 0 for a terminal
 * @return `sOKAY`; `eNOTIMPLEMENTED` when this kind of file cannot tell; `eINVNULLARG` for a NULL
 *         argument
 */
PSP_API ZYN_RETCODE psp_fIsATTY(PSP_FILE_STREAM stream, ZYN_BOOL_T* is_tty);

/**
 * Switches the echo of a terminal, and drops its pending input.
 * @param stream the stream; one that is no terminal is left alone
 * @param echo   ::ZYN_TRUE to show what is typed
 * @return `sOKAY`, also for a file that knows no echo; `eINVNULLARG` for a NULL stream
 */
PSP_API ZYN_RETCODE psp_fSetEcho(PSP_FILE_STREAM stream, ZYN_BOOL_T echo);

/**
 * Tells whether psp_fopenStd() opened the stream on the standard input.
 * @param stream the stream
 */
PSP_API ZYN_BOOL_T psp_fIsStdIn(PSP_FILE_STREAM stream);

/**
 * Reads a line of any length, its newline included, into a buffer that grows by 100 bytes a step.
 *
 * Start with a NULL `*buf` and `*len` 0, pass both on from call to call, and free the buffer with
 * psp_freeMem() under the same tag at the end. When memory runs out the part of the line that fits
 * is returned (or the tag's jump is taken); the next call continues it.
 *
 * @param fh  the stream
 * @param buf the buffer, from `tag`; receives the new place of it, also on failure
 * @param len the buffer's size in bytes, 0 stands for 100; receives its new size
 * @param tag where the buffer lives
 * @return `*buf`, or NULL when the file had ended, memory ran out at the start or an argument is
 *         NULL
 */
PSP_API char* psp_fGetLine(PSP_FILE_STREAM fh, char** buf, uint32_t* len, PSP_MEMTAG tag);

PSP_END_DECLS

#endif
