/**
 * @file string.h
 * Strings: case, bounded copies, tokens, error messages, hexadecimal digits; and locale objects.
 *
 * Only the two functions that take a memory tag need psp_init().
 */
#ifndef PSP_STRING_H
#define PSP_STRING_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** @addtogroup string
 *  @{ */

/* ---- In place ---- */

/**
 * Turns lower-case letters into upper-case ones, in place and byte by byte, by the rules of the
 * process's locale. Letters of several bytes stay as they are.
 * @param str the NUL-terminated string; NULL is given back
 * @return `str`
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API char* strupr(char* str);

/**
 * Turns upper-case letters into lower-case ones, in place and byte by byte, by the rules of the
 * process's locale. Letters of several bytes stay as they are.
 * @param str the NUL-terminated string; NULL is given back
 * @return `str`
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API char* strlwr(char* str);

/* ---- Copies and tokens ---- */

/**
 * Copies a string into a field of a fixed length, which it fills: what the string leaves over
 * becomes zero bytes, and the last byte of the field is always NUL.
 * @param dest the field, `len` bytes; may be NULL when `len` is 0
 * @param src  the string; NULL counts as the empty string. Only its first `len` - 1 bytes are
 *             looked at, so it need not be terminated behind them
 * @param len  length of the field in bytes; 0 does nothing
 * @return `dest`
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API char* psp_strncpyZ(char* dest, const char* src, size_t len);

/**
 * Takes the next token off a string, as the C library's `strtok_r` does.
 * @param str     the string to begin with, NULL to go on with the one begun; its delimiters are
 *                overwritten with NUL
 * @param delim   the bytes that separate tokens, a NUL-terminated string; may differ from call to
 *                call
 * @param saveptr where the state is kept between calls; must not be NULL
 * @return the token, or NULL when there is none left
 * @threads{any, one at a time per string} @before{works} @jumps{never}
 * @owner{nothing: the token lies in the string}
 */
PSP_API char* psp_strtok(char* str, const char* delim, char** saveptr);

/**
 * Splits a string into words. The words are not copied: they stand in `input`, whose delimiters
 * are overwritten with NUL. Runs of delimiters count as one.
 * @param input       the string to split; NULL counts as the empty string
 * @param tokens      the bytes that separate words, a NUL-terminated string
 * @param words       receives the array of pointers to the words, NULL when there is none; must
 *                    not be NULL
 * @param numwords    receives the number of words; must not be NULL
 * @param trim_spaces not 0: blanks and tabs are taken off both ends of a word, and a word that
 *                    becomes empty is dropped
 * @param tag         owner of the array; may be one of the special values. The array grows with
 *                    each word, which the stack allocator cannot do beyond the first
 * @retval sOKAY     also when there are no words
 * @retval eNOMEMORY no memory for the array: nothing is stored and nothing stays allocated, but
 *                   delimiters of `input` have been overwritten
 * @threads{one at a time per tag without a mutex}
 * @before{`eNOMEMORY` for a text with words, else `sOKAY`} @jumps{by the tag}
 * @owner{the caller frees the array with psp_freeMem(); `input` must outlive the words}
 */
PSP_API ZYN_RETCODE psp_tokenize(char* input, const char* tokens, const char*** words,
                                 uint32_t* numwords, int32_t trim_spaces, PSP_MEMTAG tag);

/**
 * Gives the system's message for an error number, in the language of the process's locale.
 * @param err the error number, as in `errno`; one that the system does not know has a message too
 * @param tag owner of the message; may be one of the special values
 * @return the NUL-terminated message; NULL when memory runs out
 * @threads{one at a time per tag without a mutex} @before{NULL} @jumps{by the tag}
 * @owner{the caller frees the message with psp_freeMem()}
 */
PSP_API PSP_MUST_USE char* psp_strerr_alloc(int32_t err, PSP_MEMTAG tag);

/**
 * Gives the value of a hexadecimal digit.
 * @param val the digit in either case
 * @return 0 to 15, or 255 when `val` is no hexadecimal digit
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint8_t psp_hexdigit(char val);

/* ---- Locales ---- */

/**
 * Sets or asks for the process's locale, as the C library's `setlocale` does.
 * @param category a category (`LC_ALL`, `LC_NUMERIC` and so on)
 * @param str      the locale's name, "" for the environment's choice; NULL asks only
 * @return the locale's name, or NULL when there is no such locale (the old one stays)
 * @threads{any, while no other uses the locale} @before{works} @jumps{never}
 * @owner{nothing: the name is the C library's, valid until the next call}
 */
PSP_API char* psp_setlocale(int32_t category, const char* str);

/**
 * Makes a locale object, for the C library's functions whose names end in `_l`; the process's
 * locale stays as it is.
 * @param category a mask of categories (`LC_ALL_MASK`, `LC_NUMERIC_MASK` and so on); those left
 *                 out are those of the C locale
 * @param str      the locale's name, "" for the environment's choice
 * @return the locale; NULL when there is no such locale, `str` is NULL or memory is short, and
 *         `errno` tells which
 * @threads{any} @before{works} @jumps{never} @owner{the caller frees it with psp_freelocale()}
 */
PSP_API PSP_MUST_USE locale_t psp_createlocale(int32_t category, const char* str);

/**
 * Frees a locale object.
 * @param locale what psp_createlocale() gave, not usable afterwards; NULL does nothing
 * @threads{any, when no thread uses the object} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_freelocale(locale_t locale);

/**
 * Tells whether a locale's name leaves the code set open or names UTF-8.
 * @param strLocale the name, for example "en_US.UTF-8"; may be NULL
 * @return ::ZYN_TRUE when what follows the name's last '.' is "UTF-8" (in either case) or nothing,
 *         when there is no '.', and for NULL; ::ZYN_FALSE for every other code set, "utf8" without
 *         the hyphen among them
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_locale_validate_utf8(const char* strLocale);

/** @} */

PSP_END_DECLS

#endif
