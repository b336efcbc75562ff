/**
 * @file format.h
 * Formatted output: an engine of the `printf` kind that writes to a callback, to a bounded buffer
 * or to a new string.
 *
 * A directive is `%[flags][width][.precision][modifier]conversion`, the conversion one of
 * `d i u o x X f F e E g G a A c s p n %`. The page of the family tells about them, and the guide
 * to text shows every difference from the C library's `printf`.
 *
 * The engine allocates nothing, keeps no state between calls and works before psp_init(); only the
 * builders at the end of this file need a memory tag.
 */
#ifndef PSP_FORMAT_H
#define PSP_FORMAT_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** @addtogroup format
 *  @{ */

/* ---- To a callback ---- */

/**
 * Formats and hands every byte of the output to a callback.
 * @param fcn  called once for each byte, in order, on the calling thread; must not be NULL
 * @param ctx  handed to `fcn` unchanged
 * @param fmt  the format; must not be NULL
 * @param args the values; the list is not advanced, so the caller may use it once more
 * @retval sOKAY  the whole output was made; any other code but `eRANGE` is the callback's, which is
 *                not called again after it
 * @retval eRANGE the digits of a width or precision exceed 2147483647, or a floating value is too
 *                large for fixed notation; the output up to that directive was made
 * @threads{any, while none changes the locale} @before{works} @jumps{only through the callback}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_vfnprintf(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* fmt,
                                  va_list args) PSP_PRINTF(3, 0);

/**
 * Formats like psp_vfnprintf(), the values being arguments.
 * @param fcn  called once for each byte, in order, on the calling thread; must not be NULL
 * @param ctx  handed to `fcn` unchanged
 * @param fmt  the format; must not be NULL
 * @param ...  the values of the format
 * @retval sOKAY  the whole output was made; other codes may be the callback's
 * @retval eRANGE a width, a precision or a floating value is too large
 * @threads{any, while none changes the locale} @before{works} @jumps{only through the callback}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fnprintf(ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx, const char* fmt, ...)
    PSP_PRINTF(3, 4);

/* ---- Into a buffer ---- */

/**
 * Formats into a bounded buffer.
 *
 * At most `size` - 1 bytes are stored and a NUL follows them; a longer output is cut, possibly
 * inside a multi-byte character. When formatting fails, the bytes made so far are in the buffer
 * and no NUL follows them.
 * @param str  receives the text; NULL to measure only
 * @param size room at `str` in bytes, the NUL included; with 0 nothing is stored
 * @param fmt  the format; must not be NULL
 * @param args the values; the list is not advanced, so the caller may use it once more
 * @return the length of the complete output in bytes without the NUL (`size` or more: it was cut),
 *         or -1 when formatting fails (as told by psp_vfnprintf()) and when the complete output and
 *         its NUL exceed 2147483646 bytes
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API int psp_vsnprintf(char* str, size_t size, const char* fmt, va_list args) PSP_PRINTF(3, 0);

/**
 * Formats into a bounded buffer like psp_vsnprintf(), the values being arguments.
 * @param str  receives the text; NULL to measure only
 * @param size room at `str` in bytes, the NUL included; with 0 nothing is stored
 * @param fmt  the format; must not be NULL
 * @param ...  the values of the format
 * @return as psp_vsnprintf(): the length of the complete output in bytes without the NUL, or -1
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API int psp_snprintf(char* str, size_t size, const char* fmt, ...) PSP_PRINTF(3, 4);

/* ---- Into a string of a tag ---- */

/**
 * Formats into a new string.
 * @param file the caller's source file; may be NULL
 * @param line the caller's source line
 * @param tag  owner of the string; the special values are accepted
 * @param fmt  the format; must not be NULL
 * @param args the values; the list is not advanced, so the caller may use it once more
 * @return the NUL-terminated string; NULL when formatting fails or memory runs out
 * @threads{one at a time per tag without a mutex, while none changes the locale} @before{NULL}
 * @jumps{by the tag} @owner{the caller frees the string with psp_freeMem()}
 */
PSP_API PSP_MUST_USE char* psp_makeStrV(const char* file, int32_t line, PSP_MEMTAG tag,
                                        const char* fmt, va_list args) PSP_PRINTF(4, 0);

/**
 * Formats into a new string like psp_makeStrV(), the values being arguments.
 * @param file the caller's source file; may be NULL
 * @param line the caller's source line
 * @param tag  owner of the string; the special values are accepted
 * @param fmt  the format; must not be NULL
 * @param ...  the values of the format
 * @return the NUL-terminated string; NULL when formatting fails or memory runs out
 * @threads{one at a time per tag without a mutex, while none changes the locale} @before{NULL}
 * @jumps{by the tag} @owner{the caller frees the string with psp_freeMem()}
 */
PSP_API PSP_MUST_USE char* psp_makeStrVA(const char* file, int32_t line, PSP_MEMTAG tag,
                                         const char* fmt, ...) PSP_PRINTF(4, 5);

/**
 * Formats into a new string like psp_makeStrVA(), with a status.
 * @param file the caller's source file; may be NULL
 * @param line the caller's source line
 * @param res  receives the string; left alone on failure; must not be NULL
 * @param tag  owner of the string; the special values are accepted
 * @param fmt  the format; must not be NULL
 * @param ...  the values of the format
 * @retval sOKAY     the string is there
 * @retval eNOMEMORY there is none: memory ran out, or formatting failed
 * @threads{one at a time per tag without a mutex, while none changes the locale}
 * @before{`eNOMEMORY`} @jumps{by the tag} @owner{the caller frees the string with psp_freeMem()}
 */
PSP_API ZYN_RETCODE psp_makeStrVA_rc(const char* file, int32_t line, char** res, PSP_MEMTAG tag,
                                     const char* fmt, ...) PSP_PRINTF(5, 6);

/**
 * Formats onto the end of a string that came from `tag`.
 * @param file the caller's source file; may be NULL
 * @param line the caller's source line
 * @param tag  owner of `str` and of the result, not one with the stack allocator, whose blocks do
 *             not grow; the special values are accepted
 * @param str  the NUL-terminated string to extend, which no value of the format may point into;
 *             NULL starts a new string
 * @param fmt  the format; must not be NULL
 * @param ...  the values of the format
 * @return the extended string, which replaces `str` (it may have moved); NULL when formatting
 *         fails or memory runs out, with `str` as it was
 * @threads{one at a time per tag without a mutex, while none changes the locale} @before{NULL}
 * @jumps{by the tag} @owner{the caller frees the result with psp_freeMem()}
 */
PSP_API PSP_MUST_USE char* psp_appendStrVA(const char* file, int32_t line, PSP_MEMTAG tag,
                                           const char* str, const char* fmt, ...) PSP_PRINTF(5, 6);

/**
 * Formats onto the end of a string like psp_appendStrVA(), with a status.
 * @param file the caller's source file; may be NULL
 * @param line the caller's source line
 * @param res  receives the extended string, and may be the place of `str`; left alone on failure;
 *             must not be NULL
 * @param tag  owner of `str` and of the result, as for psp_appendStrVA()
 * @param str  the string to extend, which no value of the format may point into; NULL starts a new
 *             string
 * @param fmt  the format; must not be NULL
 * @param ...  the values of the format
 * @retval sOKAY     the string is extended
 * @retval eNOMEMORY it is as it was: memory ran out, or formatting failed
 * @threads{one at a time per tag without a mutex, while none changes the locale}
 * @before{`eNOMEMORY`} @jumps{by the tag} @owner{the caller frees the result with psp_freeMem()}
 */
PSP_API ZYN_RETCODE psp_appendStrVA_rc(const char* file, int32_t line, char** res, PSP_MEMTAG tag,
                                       const char* str, const char* fmt, ...) PSP_PRINTF(6, 7);

/** @} */

PSP_END_DECLS

#endif
