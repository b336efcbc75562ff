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

/** The size of ::psp_usertmpdir, its terminator included. */
#define PSP_USERTMPDIR_SIZE 512

/** The directory given to psp_setTmpDir(), empty when there is none. Read only. */
extern PSP_API char psp_usertmpdir[PSP_USERTMPDIR_SIZE];

/**
 * The directory for temporary files. The first calls serialise their search on the critical
 * section (psp_enterCritSec()): do not call this from inside it.
 * @param tag owner of the result
 * @return a new copy of the name, to be freed with psp_freeMem(); NULL when no directory will do
 *         (none does in read-only mode and without a disk, unless ZYN_TMPDIR is set or one was
 *         found before), memory is short, or the library is not started
 */
PSP_API const char* psp_tmpdir(PSP_MEMTAG tag);

/**
 * Sets the application's own directory; the next psp_tmpdir() chooses anew. Works before
 * psp_init() and lasts beyond psp_term(). Call it at start-up, before other threads ask.
 * @param dir the directory, cut to 511 bytes if longer; it is not tried here. NULL takes the
 *            setting back.
 * @return `sOKAY`
 */
PSP_API ZYN_RETCODE psp_setTmpDir(const char* dir);

/**
 * Whether a file can be created in a directory: creates one and removes it again.
 * @param dir the directory; names beyond about 470 bytes are cut in the trial. NULL gives
 *            ::ZYN_FALSE.
 * @return ::ZYN_TRUE or ::ZYN_FALSE (always in read-only mode and without a disk)
 */
PSP_API ZYN_BOOL_T psp_dirWritable(const char* dir);

PSP_END_DECLS

#endif
