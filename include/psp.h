/**
 * @file psp.h
 * The platform-support library: everything that a caller includes.
 *
 * Call psp_init() first and psp_term() last; both count references. Unless a comment says
 * otherwise, a function refuses its work (with `ePSP_FAILURE`, NULL or nothing) before psp_init()
 * and after the last psp_term().
 *
 * Three conventions hold throughout:
 * - A function that returns a ::ZYN_RETCODE succeeded exactly when the result is `sOKAY`. A
 *   function that returns a pointer returns NULL on failure; its twin with the ending `_rc` stores
 *   the pointer and returns a code instead.
 * - `file` and `line` are the caller's source position (`__FILE__`, `__LINE__`); they serve
 *   diagnostics only and `file` may be NULL.
 * - Memory belongs to a tag (psp/mem.h). An allocation that fails under a tag with a jump buffer
 *   does not return: it ends in `longjmp(buffer, 1)`, after the library released its own locks.
 */
#ifndef PSP_H
#define PSP_H

#include "psptypes.h"

#include "psp/core.h"

#include "psp/global.h"
#include "psp/sync.h"
#include "psp/thread.h"

#include "psp/mem.h"
#include "psp/pool.h"

#include "psp/file.h"
#include "psp/fileutil.h"
#include "psp/path.h"
#include "psp/scan.h"
#include "psp/tmpdir.h"

#include "psp/output.h"
#include "psp/stream.h"

#include "psp/format.h"
#include "psp/number.h"
#include "psp/string.h"
#include "psp/utf8.h"

#include "psp/binstream.h"
#include "psp/bits.h"
#include "psp/varint.h"

#include "psp/module.h"
#include "psp/process.h"
#include "psp/random.h"
#include "psp/time.h"

#endif
