/**
 * @file tmpdir.h
 * The directory for temporary files.
 *
 * The environment variable ZYN_TMPDIR, when set, overrides everything. Otherwise the first of
 * these in which a file can be created is taken, and kept until psp_setTmpDir() or the library's
 * stop: the directory given to psp_setTmpDir(), the environment variables TMPDIR and TEMPDIR,
 * "/tmp", the current directory.
 */
#ifndef PSP_TMPDIR_H
#define PSP_TMPDIR_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup tmpdir
 * @{
 */

/** The size of ::psp_usertmpdir in bytes, its terminator included. */
#define PSP_USERTMPDIR_SIZE 512

/**
 * The directory given to psp_setTmpDir(), empty when there is none. Read only.
 * @threads{any, while none calls psp_setTmpDir()} @before{holds what psp_setTmpDir() was given}
 */
extern PSP_API char psp_usertmpdir[PSP_USERTMPDIR_SIZE];

/**
 * Tells the directory for temporary files, and chooses it if that is not done yet. Choosing creates
 * and removes a file in each directory that it tries.
 * @param tag owner of the result
 * @return a new copy of the name, without a separator added at its end; NULL when no directory will
 *         do (none does after psp_rdonly() and psp_nodisk(), unless ZYN_TMPDIR is set or one was
 *         found before), memory is short, `tag` is NULL or the library is not started
 * @threads{any, while none calls psp_setTmpDir(); choosing takes the critical section: do not call
 * this from inside it (psp_enterCritSec())} @before{NULL} @jumps{by the tag; while choosing by the
 * global tag as well, if psp_resetTag() gave it a buffer} @owner{the caller frees the name with
 * psp_freeMem()}
 */
PSP_API const char* psp_tmpdir(PSP_MEMTAG tag);

/**
 * Sets the application's own directory; the next psp_tmpdir() chooses anew. Lasts beyond
 * psp_term().
 * @param dir the directory, cut to 511 bytes if longer; it is not tried here. NULL takes the
 *            setting back.
 * @retval sOKAY always
 * @threads{one at a time, and none in psp_tmpdir() meanwhile: call it at start-up} @before{works}
 * @jumps{never} @owner{the name is copied}
 */
PSP_API ZYN_RETCODE psp_setTmpDir(const char* dir);

/**
 * Tells whether a file can be created in a directory: creates one and removes it again.
 * @param dir the directory; names beyond about 470 bytes are cut in the trial. NULL gives
 *            ::ZYN_FALSE.
 * @return ::ZYN_TRUE or ::ZYN_FALSE (always after psp_rdonly() and psp_nodisk())
 * @threads{any} @before{::ZYN_FALSE} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_dirWritable(const char* dir);

/** @} */

PSP_END_DECLS

#endif
