/**
 * @file fileutil.h
 * Whole files by name: copying, comparing, removing, asking about them, and names for temporary
 * files.
 *
 * Extra flags (`xflags`) go to psp_fileOpen() (psp/file.h) where a file is opened and are ignored
 * elsewhere. The operating system's reason for a failure stays in `errno`. Copying, comparing and
 * naming use memory of the calling thread's tag: if that tag was given a jump buffer, running out
 * of memory ends in the jump, with all files closed.
 */
#ifndef PSP_FILEUTIL_H
#define PSP_FILEUTIL_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * Makes one file an exact copy of another. Only blocks (of 1024 bytes) that differ are written:
 * onto an equal file nothing is written at all.
 * @param src_name    the file to copy
 * @param src_xflags  extra flags for opening it
 * @param dest_name   the copy; created when missing
 * @param dest_xflags extra flags for opening it
 * @return `sOKAY`; `ePSP_FAILURE` for any failure, memory included: the copy may then be partly up
 *         to date. A missing source does not create the copy.
 */
PSP_API ZYN_RETCODE psp_fileCopyEx(const char* src_name, uint16_t src_xflags, const char* dest_name,
                                   uint16_t dest_xflags);

/** Copies a file: psp_fileCopyEx() with no extra flags. */
PSP_API ZYN_RETCODE psp_fileCopy(const char* src_name, const char* dest_name);

/**
 * Compares the contents of two files.
 * @return `sOKAY` when they are equal; `ePSP_FAILURE` when they differ; `ePSP_NOSOURCE` when the
 *         first cannot be opened, `ePSP_NODEST` when the second cannot; `eNOMEMORY`. A read error
 *         counts as the end of that file.
 */
PSP_API ZYN_RETCODE psp_fileCmp(const char* src_name, const char* dest_name);

/**
 * Removes a file or an empty directory.
 * @return `sOKAY`, also when there is none of that name; `ePSP_FAILURE` otherwise, and always in
 *         read-only mode and without a disk
 */
PSP_API ZYN_RETCODE psp_fileRemoveEx(const char* name, uint16_t xflags);

/** Removes a file: psp_fileRemoveEx() with no extra flags. */
PSP_API ZYN_RETCODE psp_fileRemove(const char* name);

/**
 * Whether something of that name exists.
 * @param name   the name; symbolic links are followed
 * @param xflags ignored on this platform
 * @param isdir  receives whether it is a directory, if it exists; may be NULL
 * @return ::ZYN_TRUE or ::ZYN_FALSE; without a disk always ::ZYN_FALSE
 */
PSP_API ZYN_BOOL_T psp_fileValidateEx(const char* name, uint16_t xflags, ZYN_BOOL_T* isdir);

/** Whether something of that name exists: psp_fileValidateEx() with nothing else asked. */
PSP_API ZYN_BOOL_T psp_fileValidate(const char* name);

/**
 * When a file was last modified.
 * @param fname    the name; symbolic links are followed
 * @param xflags   ignored on this platform
 * @param pModTime receives the time, in whole seconds since 1970-01-01 UTC; may be NULL
 * @return `sOKAY`; `eFILEOPEN` when there is none of that name, or no disk; `eINVFILE` when it
 *         cannot be asked for another reason
 */
PSP_API ZYN_RETCODE psp_fileModTimeStat(const char* fname, uint16_t xflags, time64_t* pModTime);

/**
 * A new name for a temporary file; the file is not created.
 *
 * The name lies in psp_tmpdir() (psp/tmpdir.h; in the root directory when there is none) and is
 * built from the base name, the address of the counter, the process's id and the counter, so it
 * is unique as long as counters live at different addresses or count on.
 * @param puFileNo    the caller's counter: read, then increased by one, without any lock. NULL
 *                    gives NULL.
 * @param pszBaseName the name's first part; NULL stands for "temp"
 * @param pszExt      the extension without its dot; NULL stands for "tmp"
 * @param xflags      ignored on this platform
 * @param tag         owner of the result
 * @return the new name, to be freed by the caller, or NULL when memory is short
 */
PSP_API const char* psp_fileCreateTmpName(uint32_t* puFileNo, const char* pszBaseName,
                                          const char* pszExt, uint16_t xflags, PSP_MEMTAG tag);

PSP_END_DECLS

#endif
