/**
 * @file stream.h
 * Buffered text streams: a file handle with a 1024-byte cache in front of it.
 *
 * A caller always sees UTF-8, one byte a call. A UTF-16 file is decoded while it is read and
 * encoded while it is written. The file is read and written strictly in sequence; there is no
 * seeking. Writing does not tell when the disk refuses: where that must be known, write with the
 * functions of file.h.
 */
#ifndef PSP_STREAM_H
#define PSP_STREAM_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** @addtogroup stream
 *  @{ */

/** The encoding of a stream's file. */
typedef enum PSP_FILE_MODE {
    PSP_FILE_MODE_UNKNOWN = 0, /**< not decided: a writer takes UTF-8, a reader detects */
    PSP_FILE_MODE_UTF8 = 1,    /**< bytes as they are */
    PSP_FILE_MODE_UTF16 = 2    /**< 16-bit units behind a byte-order mark */
} PSP_FILE_MODE;

/* ---- Opening and closing ---- */

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
 * @param name   the file; "stdin", "stdout" and "stderr" are the process's own streams; NULL gives
 *               NULL
 * @param mode   how to open; NULL reads
 * @param fmode  the encoding to write, and the fallback of a reader
 * @param xflags extra flags of the file handle, usually 0; see psp_fileOpen()
 * @return the stream; NULL when memory is short, `mode` has an unknown character, or the file
 *         cannot be opened (then `errno` tells why, if the operating system refused)
 * @threads{any} @before{NULL} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{the caller closes it with psp_fclose(); `name` is copied}
 */
PSP_API PSP_MUST_USE PSP_FILE_STREAM psp_fopenEx(const char* name, const char* mode,
                                                 PSP_FILE_MODE fmode, uint16_t xflags);

/**
 * Opens a file as a text stream without extra flags: psp_fopenEx() with `xflags` 0.
 * @param name,mode,fmode as for psp_fopenEx()
 * @return the stream; NULL when memory is short, `mode` has an unknown character, or the file
 *         cannot be opened
 * @threads{any} @before{NULL} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{the caller closes it with psp_fclose(); `name` is copied}
 */
PSP_API PSP_MUST_USE PSP_FILE_STREAM psp_fopen(const char* name, const char* mode,
                                               PSP_FILE_MODE fmode);

/**
 * Opens one of the process's standard streams in UTF-8, without looking for a byte-order mark.
 * @param stdfile "stdin", "stdout" or "stderr", in lower case; any other name is opened as an
 *                ordinary file for reading; NULL gives NULL
 * @param xflags  extra flags of the file handle, usually 0; see psp_fileOpen()
 * @return the stream; NULL when memory is short or the file cannot be opened
 * @threads{any} @before{NULL} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{the caller closes it with psp_fclose(); the process's descriptor stays open}
 */
PSP_API PSP_MUST_USE PSP_FILE_STREAM psp_fopenStdEx(const char* stdfile, uint16_t xflags);

/**
 * Opens one of the process's standard streams: psp_fopenStdEx() with `xflags` 0.
 * @param stdfile as for psp_fopenStdEx()
 * @return the stream; NULL when memory is short or the file cannot be opened
 * @threads{any} @before{NULL} @jumps{by ::PSP_GLOBAL_TAG}
 * @owner{the caller closes it with psp_fclose(); the process's descriptor stays open}
 */
PSP_API PSP_MUST_USE PSP_FILE_STREAM psp_fopenStd(const char* stdfile);

/**
 * Writes what the cache holds, closes the file and frees the stream.
 * @param stream the stream, not usable afterwards; NULL does nothing
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API void psp_fclose(PSP_FILE_STREAM stream);

/* ---- Reading ---- */

/**
 * Reads one byte of UTF-8 text: the last one pushed back if there is any, else the next of the
 * file. In UTF-16 a lone low surrogate reads as '.'.
 * @param stream the stream; NULL reads like the end of a file
 * @return the byte as a signed value (80 to FF hexadecimal are -128 to -1), or -1 at the end of the
 *         file and after a read error. The byte FF cannot be told from the end. 0 without end from
 *         a stream that kept ::PSP_FILE_MODE_UNKNOWN (see psp_fopenEx()).
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API int32_t psp_fgetc(PSP_FILE_STREAM stream);

/**
 * Pushes a value back in front of the file; it is read again last in, first out.
 * @param c      the value; psp_fgetc() returns it as it is
 * @param stream the stream; NULL takes nothing
 * @return `c`, or -1 when 20 values are waiting already
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API int32_t psp_fungetc(int32_t c, PSP_FILE_STREAM stream);

/**
 * Reads up to and including the next newline, or as much as there is room for.
 * @param str    receives the text and a NUL; left alone when the result is NULL
 * @param n      the room in `str` in bytes; 1 stores an empty string and reads nothing
 * @param stream the stream
 * @return `str`; NULL when the file had ended, `str` or `stream` is NULL, or `n` is below 1
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API char* psp_fgets(char* str, int32_t n, PSP_FILE_STREAM stream);

/**
 * Reads a line of any length, its newline included, into a buffer that grows by 100 bytes a step.
 *
 * Start with a NULL `*buf` and `*len` 0, and pass both on from call to call. When memory runs out
 * the part of the line that fits is returned (or the tag's jump is taken, `*buf` and `*len` being
 * stored before); the next call continues the line. A NUL byte hides the newline behind it: the
 * following line is then read into the same buffer.
 *
 * @param fh  the stream
 * @param buf the buffer, from `tag`; receives the new place of it, also on failure
 * @param len the buffer's size in bytes, 0 stands for 100; receives its new size
 * @param tag owner of the buffer; the special values are accepted. Under one with the stack
 *            allocator the buffer cannot grow
 * @return `*buf`; NULL when the file had ended, memory ran out at the start, or `fh`, `buf` or
 *         `len` is NULL
 * @threads{one at a time per stream and per tag without a mutex}
 * @before{undefined: needs an open stream} @jumps{by the tag}
 * @owner{the caller frees the buffer with psp_freeMem() at the end, also when the result is NULL}
 */
PSP_API char* psp_fGetLine(PSP_FILE_STREAM fh, char** buf, uint32_t* len, PSP_MEMTAG tag);

/* ---- Writing ---- */

/**
 * Writes one byte of UTF-8 text. Into UTF-16 the first bytes of a character are held back until
 * its last one arrives.
 * @param c      the byte, in the low eight bits
 * @param stream the stream; NULL takes nothing
 * @return 1, or 0 when the byte cannot be taken: in UTF-16, one that does not continue the text.
 *         A character begun before stays begun. 1 does not mean that the disk will take the byte.
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API int32_t psp_fputc(int32_t c, PSP_FILE_STREAM stream);

/**
 * Writes a string, as psp_fputc() does for each of its bytes.
 * @param str    the NUL-terminated text
 * @param stream the stream
 * @return the number of bytes; -1 at the first byte that is not taken, and when an argument is NULL
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API int32_t psp_fputs(const char* str, PSP_FILE_STREAM stream);

/**
 * Passes the bytes in the cache on to the operating system.
 * @param stream the stream; NULL does nothing
 * @return 0, also when the bytes were refused
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API int32_t psp_fflush(PSP_FILE_STREAM stream);

/**
 * Flushes, and makes the operating system write the file to the disk, as psp_fileSync() does.
 * @param stream the stream; NULL does nothing
 * @return 0, also when either failed
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API int32_t psp_fsync(PSP_FILE_STREAM stream);

/* ---- What the file is ---- */

/**
 * Tells whether the stream's file is a terminal.
 * @param stream the stream
 * @param is_tty receives the answer: not 0 for a terminal
 * @retval sOKAY           the answer is there
 * @retval eNOTIMPLEMENTED this kind of file cannot tell; on this platform every kind can
 * @retval eINVNULLARG     an argument is NULL
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fIsATTY(PSP_FILE_STREAM stream, ZYN_BOOL_T* is_tty);

/**
 * Switches the echo of a terminal, and drops its pending input.
 * @param stream the stream; one that is no terminal is left alone
 * @param echo   ::ZYN_TRUE to show what is typed, anything else to hide it
 * @retval sOKAY       also when there is nothing to switch, and when the terminal refuses
 * @retval eINVNULLARG `stream` is NULL
 * @threads{one at a time per stream} @before{undefined: needs an open stream} @jumps{never}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fSetEcho(PSP_FILE_STREAM stream, ZYN_BOOL_T echo);

/**
 * Tells whether psp_fopenStd() or psp_fopenStdEx() opened the stream on the standard input.
 * @param stream the stream; NULL gives ::ZYN_FALSE
 * @return ::ZYN_TRUE for such a stream, ::ZYN_FALSE for every other one, "stdin" opened with
 *         psp_fopen() among them
 * @threads{any} @before{undefined: needs an open stream} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_fIsStdIn(PSP_FILE_STREAM stream);

/** @} */

PSP_END_DECLS

#endif
