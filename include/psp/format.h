/**
 * @file format.h
 * Formatted output: an engine of the `printf` kind that writes to a callback, to a bounded buffer
 * or to a new string.
 *
 * The engine allocates nothing, keeps no state between calls and works before psp_init(); only the
 * builders at the end of this file need a memory tag. Every function may be called from any thread
 * as long as nobody changes the C locale meanwhile.
 *
 * A directive is `%[flags][width][.precision][modifier]conversion`:
 *
 * - flags: `-` left-justifies, `+` or a space stands before non-negative numbers, `#` asks for the
 *   alternate form, `0` pads with zeros, `'` groups digits in threes with the locale's separator
 * - width: digits, or `*` for an `int` argument; a negative one left-justifies
 * - precision: digits, or `*` for an `int` argument; a negative one counts as not given
 * - modifier: `hh` `h` `l` `ll` `j` `z` `t` as in C, `L` for `long double`
 * - conversion: `d i u o x X f F e E g G a A c s p n %`
 *
 * It differs from the C library's `printf` on purpose in these points:
 * - Widths and precisions count bytes; UTF-8 passes through unchanged.
 * - `%c` ignores flags and width; `%ls` and `%lc` are `%s` and `%c`.
 * - An unknown conversion is dropped and consumes no argument; a directive that the end of the
 *   format cuts off is dropped likewise.
 * - `%Ld` and the other integer conversions with `L` print 0 and consume no argument.
 * - `%#.0o` of 0 prints nothing. `'` groups every base.
 * - `%a` and `%A` print as `%f` and `%F`. Floating conversions round half up, print 19 fraction
 *   digits at most, refuse magnitudes from 2^64 - 1 on in fixed notation (`eRANGE`), and never
 *   give a minus sign to negative zero and NaN.
 */
#ifndef PSP_FORMAT_H
#define PSP_FORMAT_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * Formats and hands every byte of the output to a callback.
 * @param fcn  called once for each byte, in order; it must not be NULL
 * @param ctx  handed to `fcn` unchanged
 * @param fmt  the format; it must not be NULL
 * @param args the values; the list is copied, so the caller may use it once more
 * @return `sOKAY`; `eRANGE` when the digits of a width or precision exceed 2147483647 or a
 *         floating value is too large for fixed notation (output up to that directive was made);
 *         or the first result of `fcn` other than `sOKAY`, after which `fcn` is not called again
 */
PSP_API ZYN_RETCODE psp_vfnprintf(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* fmt,
                                  va_list args) PSP_PRINTF(3, 0);

/** psp_vfnprintf() with the values as arguments. */
PSP_API ZYN_RETCODE psp_fnprintf(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* fmt, ...)
    PSP_PRINTF(3, 4);

/**
 * Formats into a bounded buffer.
 *
 * At most `size` - 1 bytes are stored and a NUL follows them; a longer output is cut, possibly
 * inside a multi-byte character. When formatting fails, the bytes made so far are in the buffer
 * and no NUL follows them.
 * @param str  receives the text; NULL to measure only
 * @param size room at `str` in bytes, the NUL included; with 0 nothing is stored
 * @param fmt  the format; it must not be NULL
 * @param args the values; the list is copied, so the caller may use it once more
 * @return the length of the complete output in bytes without the NUL (`size` or more: it was cut),
 *         or -1 when formatting fails or the complete output and its NUL exceed 2147483646 bytes
 */
PSP_API int psp_vsnprintf(char* str, size_t size, const char* fmt, va_list args) PSP_PRINTF(3, 0);

/** psp_vsnprintf() with the values as arguments. */
PSP_API int psp_snprintf(char* str, size_t size, const char* fmt, ...) PSP_PRINTF(3, 4);

/**
 * Formats into a new string.
 * @param file the caller's source file, may be NULL
 * @param line the caller's source line
 * @param tag  owner of the string; the special values are accepted
 * @param fmt  the format; it must not be NULL
 * @param args the values; the list is copied, so the caller may use it once more
 * @return the NUL-terminated string, to be freed with psp_freeMem() into `tag`; NULL when
 *         formatting or the allocation fails (under a tag with a jump buffer a failed allocation
 *         jumps instead)
 */
PSP_API PSP_MUST_USE char* psp_makeStrV(const char* file, int32_t line, PSP_MEMTAG tag,
                                        const char* fmt, va_list args) PSP_PRINTF(4, 0);

/** psp_makeStrV() with the values as arguments. */
PSP_API PSP_MUST_USE char* psp_makeStrVA(const char* file, int32_t line, PSP_MEMTAG tag,
                                         const char* fmt, ...) PSP_PRINTF(4, 5);

/**
 * psp_makeStrVA() with a status.
 * @param file the caller's source file, may be NULL
 * @param line the caller's source line
 * @param res  receives the string; left alone on failure; it must not be NULL
 * @param tag  owner of the string; the special values are accepted
 * @param fmt  the format, followed by its values; it must not be NULL
 * @return `sOKAY`, or `eNOMEMORY` wherever psp_makeStrVA() gives NULL
 */
PSP_API ZYN_RETCODE psp_makeStrVA_rc(const char* file, int32_t line, char** res, PSP_MEMTAG tag,
                                     const char* fmt, ...) PSP_PRINTF(5, 6);

/**
 * Formats onto the end of a string that came from `tag`.
 * @param file the caller's source file, may be NULL
 * @param line the caller's source line
 * @param tag  owner of `str` and of the result; the special values are accepted
 * @param str  the NUL-terminated string to extend, which no value of the format may point into;
 *             NULL starts a new string
 * @param fmt  the format, followed by its values; it must not be NULL
 * @return the extended string, which replaces `str` (it may have moved), to be freed with
 *         psp_freeMem() into `tag`; NULL when formatting or the allocation fails, with `str` as it
 *         was (under a tag with a jump buffer a failed allocation jumps instead)
 */
PSP_API PSP_MUST_USE char* psp_appendStrVA(const char* file, int32_t line, PSP_MEMTAG tag,
                                           const char* str, const char* fmt, ...) PSP_PRINTF(5, 6);

/**
 * psp_appendStrVA() with a status.
 * @param file the caller's source file, may be NULL
 * @param line the caller's source line
 * @param res  receives the extended string; left alone on failure; it must not be NULL
 * @param tag  owner of `str` and of the result; the special values are accepted
 * @param str  the string to extend, or NULL
 * @param fmt  the format, followed by its values; it must not be NULL
 * @return `sOKAY`, or `eNOMEMORY` wherever psp_appendStrVA() gives NULL
 */
PSP_API ZYN_RETCODE psp_appendStrVA_rc(const char* file, int32_t line, char** res, PSP_MEMTAG tag,
                                       const char* str, const char* fmt, ...) PSP_PRINTF(6, 7);

PSP_END_DECLS

#endif
