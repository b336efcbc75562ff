/**
 * @file fileutil.h
 * Whole files by name: copying, comparing, removing, asking about them, and names for temporary
 * files.
 *
 * Extra flags (`xflags`) go to psp_fileOpen() (psp/file.h) where a file is opened and are ignored
 * elsewhere. The operating system's reason for a failure stays in `errno` (psp_errno()).
 */
#ifndef PSP_FILEUTIL_H
#define PSP_FILEUTIL_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup fileutil
 * @{
 */

/**
 * Makes one file an exact copy of another. Only blocks (of 1024 bytes) that differ are written:
 * onto an equal file nothing is written at all. Modes and times are not copied, and nothing is
 * synced to the storage.
 * @param src_name    the file to copy; NULL fails
 * @param src_xflags  extra flags for opening it
 * @param dest_name   the copy; created when missing; NULL fails
 * @param dest_xflags extra flags for opening it
 * @retval sOKAY        the copy is equal
 * @retval ePSP_FAILURE any failure, memory included: the copy may then be partly up to date. A
 *                      missing source does not create the copy.
 * @threads{any; but not two copies onto one file at the same time} @before{`ePSP_FAILURE`}
 * @jumps{by the thread's tag, with both files closed} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileCopyEx(const char* src_name, uint16_t src_xflags, const char* dest_name,
                                   uint16_t dest_xflags);

/**
 * Copies a file: psp_fileCopyEx() with no extra flags.
 * @param src_name,dest_name as for psp_fileCopyEx()
 * @retval sOKAY        the copy is equal
 * @retval ePSP_FAILURE as for psp_fileCopyEx()
 * @threads{any; but not two copies onto one file at the same time} @before{`ePSP_FAILURE`}
 * @jumps{by the thread's tag, with both files closed} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileCopy(const char* src_name, const char* dest_name);

/**
 * Compares the contents of two files. A read error counts as the end of that file.
 * @param src_name  the first file; NULL counts as one that cannot be opened
 * @param dest_name the second file; NULL likewise
 * @retval sOKAY         they are equal
 * @retval ePSP_FAILURE  they differ
 * @retval ePSP_NOSOURCE the first cannot be opened
 * @retval ePSP_NODEST   the second cannot be opened
 * @retval eNOMEMORY     no memory for two blocks of 1024 bytes
 * @threads{any} @before{`ePSP_NOSOURCE`} @jumps{by the thread's tag, with both files closed}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileCmp(const char* src_name, const char* dest_name);

/**
 * Removes a file or an empty directory.
 * @param name   its name; NULL fails
 * @param xflags ignored on this platform
 * @retval sOKAY        it is gone, also when there was none of that name
 * @retval ePSP_FAILURE it is not; always so after psp_rdonly() and psp_nodisk()
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileRemoveEx(const char* name, uint16_t xflags);

/**
 * Removes a file or an empty directory: psp_fileRemoveEx() with no extra flags.
 * @param name its name; NULL fails
 * @retval sOKAY        it is gone, also when there was none of that name
 * @retval ePSP_FAILURE it is not; always so after psp_rdonly() and psp_nodisk()
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileRemove(const char* name);

/**
 * Tells whether something of that name exists, and whether it is a directory.
 * @param name   the name; symbolic links are followed. NULL gives ::ZYN_FALSE.
 * @param xflags ignored on this platform
 * @param isdir  receives whether it is a directory, if it exists; may be NULL
 * @return ::ZYN_TRUE or ::ZYN_FALSE; after psp_nodisk() always ::ZYN_FALSE
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_fileValidateEx(const char* name, uint16_t xflags, ZYN_BOOL_T* isdir);

/**
 * Tells whether something of that name exists: psp_fileValidateEx() with nothing else asked.
 * @param name as for psp_fileValidateEx()
 * @return as psp_fileValidateEx()
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_fileValidate(const char* name);

/**
 * Tells when a file was last modified.
 * @param fname    the name; symbolic links are followed
 * @param xflags   ignored on this platform
 * @param pModTime receives the time, in whole seconds since 1970-01-01 UTC; may be NULL
 * @retval sOKAY     the time is told
 * @retval eFILEOPEN there is none of that name; always so after psp_nodisk()
 * @retval eINVFILE  it cannot be asked for another reason, or `fname` is NULL
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileModTimeStat(const char* fname, uint16_t xflags, time64_t* pModTime);

/**
 * Makes a new name for a temporary file; the file is not created.
 *
 * The name is `DIR/BASE_COUNTER_PID_NUMBER.EXT`: the directory of psp_tmpdir() (nothing when there
 * is none, so the root), the base name, the address of the counter, the process's id in ten digits
 * and the counter's value in three or more. It is unique as long as counters live at different
 * addresses or count on.
 * @param puFileNo    the caller's counter: read, then increased by one, without any lock. NULL
 *                    gives NULL.
 * @param pszBaseName the name's first part; NULL stands for "temp"
 * @param pszExt      the extension without its dot; NULL stands for "tmp"
 * @param xflags      ignored on this platform
 * @param tag         owner of the result
 * @return the new name; NULL when memory is short, `tag` is NULL or `puFileNo` is
 * @threads{any, one at a time per counter; not inside the critical section, see psp_tmpdir()}
 * @before{NULL, but the counter counts on} @jumps{by the tag, and as psp_tmpdir() under
 * ::PSP_THREAD_TAG} @owner{the caller frees the name with psp_freeMem()}
 */
PSP_API const char* psp_fileCreateTmpName(uint32_t* puFileNo, const char* pszBaseName,
                                          const char* pszExt, uint16_t xflags, PSP_MEMTAG tag);

/** @} */

PSP_END_DECLS

#endif
