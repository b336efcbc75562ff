/**
 * @file path.h
 * Paths and directories.
 *
 * A path is a string of bytes with '/' between its parts. Nothing here resolves ".", "..",
 * symbolic links or repeated separators, unless a comment says so. Strings that are returned come
 * from the tag given by the caller, who frees them with psp_freeMem() (psp/mem.h); an allocation
 * that fails under a tag with a jump buffer jumps.
 *
 * psp_nodisk() (psp/core.h) switches off what would touch the disk, as each comment tells; the
 * read-only switch has no effect on directories. The operating system's reason for a failure
 * stays in `errno`. The functions keep no state; the current directory is the process's own, so
 * another thread may change it at any time.
 */
#ifndef PSP_PATH_H
#define PSP_PATH_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/* ---- Paths as text ---- */

/**
 * The full path of a path that a user gave, without a separator at its end.
 *
 * NULL, "", "." and "./" give the current directory; an absolute path is copied; anything else is
 * joined to the current directory as it stands ("./a" and "a/../b" are not rewritten). One
 * separator at the end is dropped, so the root itself becomes the empty string: "." at the root
 * gives "", and the path "/" is joined like a relative one.
 * @param userpath the path; may be NULL
 * @param tag      owner of the result, except that a joined path belongs to the calling thread's
 *                 own tag (::PSP_THREAD_TAG), whatever `tag` is
 * @return the new string, or NULL: no memory, or the current directory cannot be told
 */
PSP_API char* psp_fullpathEx(const char* userpath, PSP_MEMTAG tag);

/**
 * Splits a path at its last '/'.
 * @param path the path; NULL gives `eINVNULLARG`
 * @param dir  receives the part up to and including the last '/', or NULL when there is no '/';
 *             the pointer itself may be NULL
 * @param file receives the part after the last '/', the whole path when there is no '/', or NULL
 *             when the path ends with '/'; the pointer itself may be NULL
 * @param tag  owner of both strings
 * @return `sOKAY`; `eNOMEMORY`, and then there is no string to free
 */
PSP_API ZYN_RETCODE psp_pathSplitEx(const char* path, char** dir, char** file, PSP_MEMTAG tag);

/** The path without its drive. This platform has no drives: `path` itself. */
PSP_API const char* psp_pathStripDrive(const char* path);

/**
 * Whether a path is written as a directory, with '/' at its end. The file system is not asked.
 * @return `sOKAY` if it is, `sNOTFOUND` if not, `eINVNULLARG` for NULL and ""
 */
PSP_API ZYN_RETCODE psp_pathIsDir(const char* path);

/* ---- Directories ---- */

/**
 * The process's current directory.
 * @param tag owner of the result
 * @return the new string; without a disk always "/". NULL: no memory, or it cannot be told
 */
PSP_API char* psp_currdirEx(PSP_MEMTAG tag);

/**
 * Makes one directory, with mode 0777 less the process's umask.
 * @return `sOKAY`; `sDUPLICATE` when something of that name exists, directory or not;
 *         `ePSP_FAILURE` otherwise, and always without a disk
 */
PSP_API ZYN_RETCODE psp_dirCreate(const char* dir);

/**
 * Makes a directory and the parents that are missing. When the path cannot be made as it stands,
 * both '/' and '\' separate its parts.
 * @return `sOKAY`; `sDUPLICATE` when it exists already; `eNOMEMORY`; `ePSP_FAILURE` otherwise, and
 *         always without a disk. Parents made before a failure stay.
 */
PSP_API ZYN_RETCODE psp_dirCreateAll(const char* directory);

/**
 * Removes an empty directory.
 * @return `sOKAY`, also when there is none of that name; `ePSP_FAILURE` otherwise, and always
 *         without a disk
 */
PSP_API ZYN_RETCODE psp_dirRemove(const char* dir);

/**
 * Makes the entries of a directory durable: after a file is created, renamed or removed in it.
 * Works without a disk as well.
 * @return `sOKAY`, or `ePSP_FAILURE` when it cannot be opened as a directory or be written out
 */
PSP_API ZYN_RETCODE psp_dirSync(const char* path);

PSP_END_DECLS

#endif
