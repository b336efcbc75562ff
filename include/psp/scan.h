/**
 * @file scan.h
 * Listing a directory's entries by a pattern, and the pattern matcher itself.
 *
 *     PSP_DIR dir = psp_pathOpen("/var/data", "*.log");
 *     if (dir != NULL) {
 *         uint32_t isdir;
 *         const char* name;
 *         while ((name = psp_pathNext(dir, &isdir)) != NULL)
 *             use(name, isdir);
 *         psp_pathClose(dir);
 *     }
 *
 * A scan does not descend into directories and does not sort. One thread at a time uses it, and
 * the thread that takes names from it also closes it: a name belongs to the calling thread's tag.
 */
#ifndef PSP_SCAN_H
#define PSP_SCAN_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** Handle of an open scan. */
typedef struct DIR_ENTRY* PSP_DIR;

/**
 * Opens a scan of one directory. The entries "." and ".." take part like all others.
 * @param path    the directory
 * @param xflags  ignored on this platform
 * @param pattern which names to list, for psp_match(); "*" lists all. Must not be NULL.
 * @return the scan, to be given to psp_pathClose(); NULL when the directory cannot be opened (the
 *         reason is in `errno`), without a disk (psp_nodisk()), or when memory is short
 */
PSP_API PSP_MUST_USE PSP_DIR psp_pathOpenEx(const char* path, uint16_t xflags, const char* pattern);

/** Opens a scan: psp_pathOpenEx() with no extra flags. */
PSP_API PSP_MUST_USE PSP_DIR psp_pathOpen(const char* path, const char* pattern);

/**
 * The next name that matches.
 * @param dir   the scan
 * @param isdir receives 1 for a directory, 0 for anything else, a symbolic link to a directory
 *              included; must not be NULL
 * @return the name without its directory, owned by the scan and valid until the next call of
 *         psp_pathNext() or psp_pathClose() on it; NULL at the end, and when memory is short
 */
PSP_API const char* psp_pathNext(PSP_DIR dir, uint32_t* isdir);

/** Ends a scan and frees it, with the name returned last. `dir` must not be NULL. */
PSP_API void psp_pathClose(PSP_DIR dir);

/**
 * Matches a whole string against a pattern. Upper and lower case are equal, by the current C
 * locale, byte by byte.
 *
 * | In the pattern | matches                                                               |
 * |----------------|-----------------------------------------------------------------------|
 * | `*`            | any bytes or none; the character after it stands for itself, so a     |
 * |                | star or '?' there matches only that very character                    |
 * | `?`            | any one byte                                                          |
 * | `#`            | one digit, 0 to 9 or A to F; small a to f do not match                |
 * | any other      | itself                                                                |
 *
 * There are no classes and no escapes, and neither '/' nor a leading dot is special. The time is
 * at most proportional to the product of the two lengths.
 * @return ::ZYN_TRUE or ::ZYN_FALSE (also when either is NULL)
 */
PSP_API ZYN_BOOL_T psp_match(const char* str, const char* pattern);

PSP_END_DECLS

#endif
