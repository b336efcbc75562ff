/**
 * @file scan.h
 * Listing a directory's entries by a pattern, and the pattern matcher itself.
 *
 * A scan does not descend into directories and does not sort: names come in the order in which the
 * file system delivers them. The operating system's reason for a failure stays in `errno`
 * (psp_errno()).
 */
#ifndef PSP_SCAN_H
#define PSP_SCAN_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup scan
 * @{
 */

/** Handle of an open scan, made by psp_pathOpen() and freed by psp_pathClose(). */
typedef struct DIR_ENTRY* PSP_DIR;

/**
 * Opens a scan of one directory. The entries "." and ".." take part like all others.
 * @param path    the directory; copied. NULL gives NULL.
 * @param xflags  ignored on this platform
 * @param pattern which names to list, for psp_match(); "*" lists all. Copied; must not be NULL.
 * @return the scan; NULL when the directory cannot be opened, after psp_nodisk(), when memory is
 *         short or the library is not started
 * @threads{any} @before{NULL} @jumps{by the global tag, if psp_resetTag() gave it a buffer}
 * @owner{the caller ends it with psp_pathClose()}
 */
PSP_API PSP_MUST_USE PSP_DIR psp_pathOpenEx(const char* path, uint16_t xflags, const char* pattern);

/**
 * Opens a scan: psp_pathOpenEx() with no extra flags.
 * @param path,pattern as for psp_pathOpenEx()
 * @return as psp_pathOpenEx()
 * @threads{any} @before{NULL} @jumps{by the global tag, if psp_resetTag() gave it a buffer}
 * @owner{the caller ends it with psp_pathClose()}
 */
PSP_API PSP_MUST_USE PSP_DIR psp_pathOpen(const char* path, const char* pattern);

/**
 * Gives the next name that matches.
 * @param dir   the scan; NULL gives NULL
 * @param isdir receives 1 for a directory, 0 for anything else, a symbolic link to a directory
 *              included, and 0 where that cannot be told; must not be NULL
 * @return the name without its directory, valid until the next call of psp_pathNext() or
 *         psp_pathClose() on the scan; NULL at the end, and when memory is short
 * @threads{one thread for the whole scan, psp_pathClose() included: names are memory of the thread
 * that takes them} @before{NULL for NULL; no scan is alive} @jumps{by the thread's tag; the scan
 * stays open, the name is lost} @owner{the scan keeps and frees the name}
 */
PSP_API const char* psp_pathNext(PSP_DIR dir, uint32_t* isdir);

/**
 * Ends a scan.
 * @param dir the scan; must not be NULL
 * @threads{the thread that took names from the scan} @before{undefined: no scan is alive}
 * @jumps{never} @owner{frees the scan and the name returned last}
 */
PSP_API void psp_pathClose(PSP_DIR dir);

/**
 * Matches a whole string against a pattern. Upper and lower case are equal, by the current C
 * locale, byte by byte.
 *
 * | In the pattern | matches                                                                    |
 * |----------------|----------------------------------------------------------------------------|
 * | `*`            | any bytes or none; the character after it, even a wildcard, matches itself |
 * | `?`            | any one byte                                                               |
 * | `#`            | one digit, 0 to 9 or A to F; small a to f do not match                     |
 * | any other      | itself                                                                     |
 *
 * There are no classes and no escapes, and neither '/' nor a leading dot is special. The time is
 * at most proportional to the product of the two lengths.
 * @param str     the string
 * @param pattern the pattern
 * @return ::ZYN_TRUE or ::ZYN_FALSE (also when either is NULL)
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_match(const char* str, const char* pattern);

/** @} */

PSP_END_DECLS

#endif
