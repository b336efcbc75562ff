/**
 * @file path.h
 * Paths and directories.
 *
 * A path is a string of bytes with '/' between its parts. Nothing here resolves ".", "..",
 * symbolic links or repeated separators, unless a comment says so. The operating system's reason
 * for a failure stays in `errno` (psp_errno()). psp_nodisk() switches off what would touch the
 * disk, as each comment tells; psp_rdonly() has no effect on directories.
 */
#ifndef PSP_PATH_H
#define PSP_PATH_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup path
 * @{
 */

/* ---- Paths as text ---- */

/**
 * Makes the full path of a path that a user gave, without a separator at its end.
 *
 * NULL, "", "." and "./" give the current directory; an absolute path is copied; anything else is
 * joined to the current directory as it stands ("./a" and "a/../b" are not rewritten). One
 * separator at the end is dropped, so the root itself becomes the empty string: "." at the root
 * gives "", and the path "/" is joined like a relative one.
 * @param userpath the path; may be NULL
 * @param tag      owner of the result, except that a joined path belongs to the calling thread's
 *                 own tag (::PSP_THREAD_TAG), whatever `tag` is
 * @return the new string; NULL when memory is short, `tag` is NULL or the current directory cannot
 *         be told
 * @threads{any; the current directory is the process's, and another thread may change it}
 * @before{NULL} @jumps{by the tag, and by the thread's tag for a joined path} @owner{the caller
 * frees the string with psp_freeMem()}
 */
PSP_API char* psp_fullpathEx(const char* userpath, PSP_MEMTAG tag);

/**
 * Splits a path at its last '/'.
 * @param path the path
 * @param dir  receives the part up to and including the last '/', or NULL when there is no '/';
 *             the pointer itself may be NULL
 * @param file receives the part after the last '/', the whole path when there is no '/', or NULL
 *             when the path ends with '/'; the pointer itself may be NULL
 * @param tag  owner of both strings
 * @retval sOKAY       both are stored
 * @retval eNOMEMORY   memory is short or `tag` is NULL; nothing is stored, nothing to free
 * @retval eINVNULLARG `path` is NULL; nothing is stored
 * @threads{any} @before{`eNOMEMORY`, where a string would have to be made} @jumps{by the tag}
 * @owner{the caller frees both strings with psp_freeMem()}
 */
PSP_API ZYN_RETCODE psp_pathSplitEx(const char* path, char** dir, char** file, PSP_MEMTAG tag);

/**
 * Gives the path without its drive. This platform has no drives.
 * @param path the path; may be NULL
 * @return `path` itself
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API const char* psp_pathStripDrive(const char* path);

/**
 * Tells whether a path is written as a directory, with '/' at its end. The file system is not
 * asked; psp_fileValidateEx() asks it.
 * @param path the path
 * @retval sOKAY       it ends with '/'
 * @retval sNOTFOUND   it does not
 * @retval eINVNULLARG it is NULL or ""
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_pathIsDir(const char* path);

/* ---- Directories ---- */

/**
 * Tells the process's current directory.
 * @param tag owner of the result
 * @return the new string, after psp_nodisk() always "/"; NULL when memory is short, `tag` is NULL
 *         or the directory cannot be told
 * @threads{any; another thread may change the directory} @before{NULL} @jumps{by the tag}
 * @owner{the caller frees the string with psp_freeMem()}
 */
PSP_API char* psp_currdirEx(PSP_MEMTAG tag);

/**
 * Makes one directory, with mode 0777 less the process's umask.
 * @param dir its path; NULL fails
 * @retval sOKAY        it was made
 * @retval sDUPLICATE   something of that name exists, directory or not
 * @retval ePSP_FAILURE any other failure; always so after psp_nodisk()
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_dirCreate(const char* dir);

/**
 * Makes a directory and the parents that are missing. When the path cannot be made as it stands,
 * both '/' and '\' separate its parts.
 * @param directory its path; NULL fails
 * @retval sOKAY        it was made
 * @retval sDUPLICATE   something of that name exists already; also when the path ends with a
 *                      separator and it was made only now, with a parent
 * @retval eNOMEMORY    no memory to take the path apart
 * @retval ePSP_FAILURE any other failure; always so after psp_nodisk(). Parents made before a
 *                      failure stay.
 * @threads{any} @before{works where one `mkdir` does it; else `eNOMEMORY`} @jumps{by the thread's
 * tag} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_dirCreateAll(const char* directory);

/**
 * Removes an empty directory.
 * @param dir its path; NULL fails
 * @retval sOKAY        it is gone, also when there was none of that name
 * @retval ePSP_FAILURE it is not: not empty, not a directory, not allowed; always so after
 *                      psp_nodisk()
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_dirRemove(const char* dir);

/**
 * Makes the entries of a directory durable: after a file was created, renamed or removed in it.
 * Works after psp_nodisk() as well.
 * @param path the directory; NULL fails
 * @retval sOKAY        its entries are on the storage
 * @retval ePSP_FAILURE it cannot be opened as a directory or be written out
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_dirSync(const char* path);

/** @} */

PSP_END_DECLS

#endif
