/**
 * @file string.h
 * Strings: case, bounded copies, tokens, error messages, hexadecimal digits; and locale objects.
 *
 * The functions that take a memory tag need psp_init(); the others work before it. All may be
 * called from any thread, as long as no other thread changes the process's locale meanwhile.
 */
#ifndef PSP_STRING_H
#define PSP_STRING_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * Turns lower-case letters into upper-case ones, in place and byte by byte, by the rules of the
 * process's current locale.
 * @param str the string; may be NULL
 * @return `str`
 */
PSP_API char* strupr(char* str);

/**
 * Turns upper-case letters into lower-case ones; see strupr().
 * @param str the string; may be NULL
 * @return `str`
 */
PSP_API char* strlwr(char* str);

/**
 * Copies a string into a field of a fixed length, which it fills: what the string leaves over
 * becomes zero bytes, and the last byte of the field is always NUL.
 * @param dest the field, `len` bytes; may be NULL when `len` is 0
 * @param src  the string; NULL counts as the empty string. Only its first `len` - 1 bytes are
 *             looked at, so it need not end within the field
 * @param len  length of the field in bytes; 0 does nothing
 * @return `dest`
 */
PSP_API char* psp_strncpyZ(char* dest, const char* src, size_t len);

/**
 * Takes the next token off a string, as the C library's `strtok_r` does.
 * @param str     the string to begin with, NULL to go on with the one begun; its delimiters are
 *                overwritten
 * @param delim   the bytes that separate tokens; may differ from call to call
 * @param saveptr where the state is kept between calls
 * @return the token, or NULL when there is none left
 */
PSP_API char* psp_strtok(char* str, const char* delim, char** saveptr);

/**
 * Splits a string into words. The words are not copied: they stand in `input`, whose delimiters
 * are overwritten with NUL. Runs of delimiters count as one.
 * @param input       the string to split; NULL counts as the empty string
 * @param tokens      the bytes that separate words
 * @param words       receives the array of pointers to the words, NULL when there is none. It is
 *                    allocated from `tag` and the caller frees it with psp_freeMem()
 * @param numwords    receives the count of words
 * @param trim_spaces not 0: blanks and tabs are taken off both ends of a word, and a word that
 *                    becomes empty is dropped
 * @param tag         the memory tag; may be one of the special values
 * @return `sOKAY`, or `eNOMEMORY` (then nothing is stored and nothing stays allocated; a tag with
 *         a jump buffer jumps)
 */
PSP_API ZYN_RETCODE psp_tokenize(char* input, const char* tokens, const char*** words,
                                 uint32_t* numwords, int32_t trim_spaces, PSP_MEMTAG tag);

/**
 * Gives the system's message for an error number.
 * @param err the error number, as in `errno`
 * @param tag the memory tag that the message is allocated from
 * @return the message, which the caller frees with psp_freeMem(); NULL when memory runs out (a
 *         tag with a jump buffer jumps)
 */
PSP_API PSP_MUST_USE char* psp_strerr_alloc(int32_t err, PSP_MEMTAG tag);

/**
 * Gives the value of a hexadecimal digit.
 * @param val the digit in either case
 * @return 0 to 15, or 255 when `val` is no hexadecimal digit
 */
PSP_API uint8_t psp_hexdigit(char val);

/**
 * Sets or asks for the process's locale, as the C library's `setlocale` does. No other thread may
 * use the locale meanwhile.
 * @param category a category (`LC_ALL`, `LC_NUMERIC`, …)
 * @param str      the locale's name, "" for the environment's choice; NULL asks only
 * @return the locale's name, valid until the next call, or NULL when there is no such locale
 */
PSP_API char* psp_setlocale(int32_t category, const char* str);

/**
 * Makes a locale object.
 * @param category a mask of categories (`LC_ALL_MASK`, `LC_NUMERIC_MASK`, …); those left out are
 *                 those of the C locale
 * @param str      the locale's name, "" for the environment's choice
 * @return the locale, which the caller frees with psp_freelocale(), or NULL when there is no such
 *         locale
 */
PSP_API PSP_MUST_USE locale_t psp_createlocale(int32_t category, const char* str);

/**
 * Frees a locale object. No thread may be using it.
 * @param locale what psp_createlocale() gave; NULL does nothing
 */
PSP_API void psp_freelocale(locale_t locale);

/**
 * Tells whether a locale's name leaves the code set open or names UTF-8.
 * @param strLocale the name, for example "en_US.UTF-8"; may be NULL
 * @return ::ZYN_TRUE when what follows the name's last '.' is "UTF-8" (in either case) or nothing,
 *         or when there is no '.'; ::ZYN_FALSE for every other code set, "utf8" without the hyphen
 *         among them
 */
PSP_API ZYN_BOOL_T psp_locale_validate_utf8(const char* strLocale);

PSP_END_DECLS

#endif
