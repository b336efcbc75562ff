/**
 * @file file.h
 * File handles: opening, reading, writing, syncing and locking files.
 *
 * A handle holds one open descriptor and nothing more: no buffer, no lock around transfers. Where a
 * call of the operating system fails, its reason stays in `errno` (psp_errno()). A NULL handle is
 * no file: transfers and psp_fileLength() give 0, other operations `eINVNULLARG`; closing and
 * unlocking do nothing.
 */
#ifndef PSP_FILE_H
#define PSP_FILE_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup file
 * @{
 */

/** Extra flag of psp_fileOpen(): psp_fileSync() does nothing on this handle. */
#define PSP_XFLAG_NOSYNC 0x200

/* ---- Opening and closing ---- */

/**
 * Opens a file, or borrows one of the process's three standard streams.
 *
 * After psp_rdonly() no file opens for writing or creation, after psp_nodisk() no file at all; the
 * standard streams always open. Handles that are open already go on working.
 * @param name   the file's name; copied. "stdin", "stdout" and "stderr" are the streams: `flags`
 *               then only tell what the handle may be used for. The first three letters of these
 *               must be lower case, the rest may be of either: "stdOUT" is the stream, "STDOUT" a
 *               file.
 * @param flags  the operating system's open flags (`<fcntl.h>`): `O_RDONLY`, `O_WRONLY` or
 *               `O_RDWR`, with `O_CREAT`, `O_EXCL`, `O_TRUNC`, `O_APPEND` and so on.
 *               `O_TRUNC` implies `O_CREAT`. A new file gets mode 0666 less the process's umask.
 *               Programs that the process starts inherit the file unless `O_CLOEXEC` is given.
 * @param xflags 0 or ::PSP_XFLAG_NOSYNC; other bits are ignored
 * @return the handle; NULL when `name` is NULL, the library is not started, memory is short, a
 *         switch forbids it, or the system refuses (its reason is in `errno`)
 * @threads{any} @before{NULL} @jumps{never} @owner{the caller closes it with psp_fileClose()}
 */
PSP_API PSP_MUST_USE PSP_FH psp_fileOpen(const char* name, uint32_t flags, uint16_t xflags);

/**
 * Opens like psp_fileOpen() and tells whether the handle is a console.
 * @param name,flags,xflags as for psp_fileOpen()
 * @param is_console        receives ::ZYN_FALSE on success: this platform has no consoles of its
 *                          own, terminals are read and written like files. May be NULL.
 * @return as psp_fileOpen()
 * @threads{any} @before{NULL} @jumps{never} @owner{the caller closes it with psp_fileClose()}
 */
PSP_API PSP_MUST_USE PSP_FH psp_fileOpenStd(const char* name, uint32_t flags, uint16_t xflags,
                                            ZYN_BOOL_T* is_console);

/**
 * Closes a handle and its descriptor, which gives up the lock on the file. The descriptor of a
 * standard stream, and descriptor 0 whatever it stands for, stay open. `errno` is the same
 * afterwards as before; an error of closing is not told, so psp_fileSync() first where it matters.
 * @param handle the handle; NULL does nothing
 * @threads{any; no other thread may still use the handle} @before{does nothing} @jumps{never}
 * @owner{frees the handle, which is not to be used again}
 */
PSP_API void psp_fileClose(PSP_FH handle);

/* ---- Transfer: the result is a count of bytes, 0 when nothing was done or the call failed ---- */

/**
 * Reads at the handle's offset and moves it on. Goes on after an interruption by a signal.
 * @param handle a handle that was not opened `O_WRONLY`; on another, and on NULL, the result is 0
 * @param buf    receives up to `size` bytes; not NULL unless `size` is 0
 * @param size   bytes wanted; 0 gives 0
 * @return the bytes read, which may be fewer than wanted; 0 at the end of the file or on failure
 * @threads{one at a time per handle among the users of its offset: psp_fileRead(),
 * psp_fileWrite(), psp_fileSeek()} @before{0 for NULL; no other handle is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API uint32_t psp_fileRead(PSP_FH handle, void* buf, uint32_t size);

/**
 * Writes the whole buffer at the handle's offset and moves it on. Short and interrupted writes
 * are continued.
 * @param handle a handle opened `O_WRONLY` or `O_RDWR`; on another, and on NULL, the result is 0
 * @param buf    the bytes; not NULL unless `size` is 0
 * @param size   their number; 0 gives 0
 * @return `size`, or 0 on failure (a part may then have been written)
 * @threads{as psp_fileRead()} @before{0 for NULL; no other handle is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API uint32_t psp_fileWrite(PSP_FH handle, const void* buf, uint32_t size);

/**
 * Reads like psp_fileRead(), but from a place of its own: the handle's offset stays where it is.
 * @param handle,buf,size as for psp_fileRead(); a pipe or a terminal gives 0
 * @param addr            byte offset from the start of the file
 * @return the bytes read, which may be fewer than wanted; 0 at and beyond the end of the file or on
 *         failure
 * @threads{any} @before{0 for NULL; no other handle is alive} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_fileSeekRead(PSP_FH handle, PSP_FILE_OFFSET addr, void* buf, uint32_t size);

/**
 * Writes like psp_fileWrite(), but to a place of its own: the handle's offset stays where it is.
 * @param handle,buf,size as for psp_fileWrite(); a pipe or a terminal gives 0
 * @param addr            byte offset from the start of the file; a gap before it reads as zeros. On
 *                        a handle opened `O_APPEND` Linux ignores it and writes at the end.
 * @return `size`, or 0 on failure (a part may then have been written)
 * @threads{any; ranges that overlap end up in either order} @before{0 for NULL; no other handle is
 * alive} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_fileSeekWrite(PSP_FH handle, PSP_FILE_OFFSET addr, const void* buf,
                                   uint32_t size);

/**
 * Reads from a console, of which this platform has none.
 * @param handle,buf,size as for psp_fileRead(); not used
 * @return 0
 * @threads{any} @before{0 for NULL; no other handle is alive} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_fileConsoleRead(PSP_FH handle, void* buf, uint32_t size);

/**
 * Writes to a console, of which this platform has none.
 * @param handle,buf,size as for psp_fileWrite(); not used
 * @return 0
 * @threads{any} @before{0 for NULL; no other handle is alive} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_fileConsoleWrite(PSP_FH handle, const void* buf, uint32_t size);

/* ---- Control ---- */

/**
 * Moves the handle's offset.
 * @param handle  the handle
 * @param addr    the distance in bytes from `origin`; taken as signed, so it may lead backwards
 * @param origin  `SEEK_SET`, `SEEK_CUR` or `SEEK_END` (`<stdio.h>`)
 * @param newaddr receives the new offset from the start of the file; may be NULL
 * @retval sOKAY        the offset has moved
 * @retval ePSP_FAILURE it has not: a pipe, a place before the start, an unknown origin
 * @retval eINVNULLARG  `handle` is NULL
 * @threads{as psp_fileRead()} @before{`eINVNULLARG` for NULL; no other handle is alive}
 * @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileSeek(PSP_FH handle, PSP_FILE_OFFSET addr, int32_t origin,
                                 PSP_FILE_OFFSET* newaddr);

/**
 * Tells the file's length.
 * @param handle the handle
 * @return the length in bytes; 0 for an empty file, for NULL and on failure alike
 * @threads{any} @before{0 for NULL; no other handle is alive} @jumps{never} @owner{nothing}
 */
PSP_API PSP_FILE_OFFSET psp_fileLength(PSP_FH handle);

/**
 * Cuts the file or lengthens it with zeros. The handle's offset stays where it is.
 * @param handle a handle opened `O_WRONLY` or `O_RDWR`
 * @param size   the new length in bytes
 * @retval sOKAY        the file has that length
 * @retval eBADWRITE    the handle was not opened for writing
 * @retval ePSP_FAILURE the system refuses
 * @retval eINVNULLARG  `handle` is NULL
 * @threads{any} @before{`eINVNULLARG` for NULL; no other handle is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileSetSize(PSP_FH handle, PSP_FILE_OFFSET size);

/**
 * Waits until what was written to the file so far, through any handle, is on its storage (`fsync`).
 * Does nothing, with `sOKAY`, on a handle opened with ::PSP_XFLAG_NOSYNC and after psp_rdonly(). A
 * new file's name is made durable by psp_dirSync() on its directory.
 * @param handle the handle, opened in any mode
 * @retval sOKAY        the contents are durable, or there was nothing to do
 * @retval ePSP_FAILURE they may not be: the storage failed, or this is a pipe or a terminal
 * @retval eINVNULLARG  `handle` is NULL
 * @threads{any} @before{`eINVNULLARG` for NULL; no other handle is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileSync(PSP_FH handle);

/**
 * Tells the system that a range will not be needed soon, so that it need not keep it in memory.
 * Advice only; on a standard stream nothing is done.
 * @param handle the handle
 * @param addr   the range's start, in bytes
 * @param size   its length in bytes; 0 does nothing
 * @retval sOKAY       always but for NULL, whether the system follows the advice or not
 * @retval eINVNULLARG `handle` is NULL
 * @threads{any} @before{`eINVNULLARG` for NULL; no other handle is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_filePageOut(PSP_FH handle, PSP_FILE_OFFSET addr, uint32_t size);

/* ---- Mapping: not available on this platform ---- */

/**
 * Maps the start of the file into memory; not available on this platform.
 * @param handle the handle
 * @param size   bytes to map; not used
 * @param pMap   the place for their address; left as it is, may be NULL
 * @retval sOKAY           never on this platform
 * @retval eNOTIMPLEMENTED always but for NULL
 * @retval eINVNULLARG     `handle` is NULL
 * @threads{any} @before{`eINVNULLARG` for NULL; no other handle is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileMap(PSP_FH handle, size_t size, void** pMap);

/**
 * Replaces a mapping by one of another size; not available on this platform.
 * @param handle            the handle
 * @param old_size,old_map  the mapping so far; not used
 * @param new_size          bytes to map; not used
 * @param pMap              the place for their address; left as it is, may be NULL
 * @retval sOKAY           never on this platform
 * @retval eNOTIMPLEMENTED always but for NULL
 * @retval eINVNULLARG     `handle` is NULL
 * @threads{any} @before{`eINVNULLARG` for NULL; no other handle is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileRemap(PSP_FH handle, size_t old_size, void* old_map, size_t new_size,
                                  void** pMap);

/**
 * Ends a mapping; not available on this platform.
 * @param handle   the handle
 * @param size,map the mapping; not used
 * @retval sOKAY           never on this platform
 * @retval eNOTIMPLEMENTED always but for NULL
 * @retval eINVNULLARG     `handle` is NULL
 * @threads{any} @before{`eINVNULLARG` for NULL; no other handle is alive} @jumps{never}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_fileUnmap(PSP_FH handle, size_t size, void* map);

/* ---- Locking ---- */

/**
 * Takes the exclusive advisory lock on the whole file (`flock`), without ever waiting. The lock
 * belongs to the open file: two handles that opened one file by name exclude each other, in one
 * process as in two, and closing the handle gives it up. Handles on one standard stream share its
 * lock, which stays until it is given up.
 *
 * The first call on a handle also makes a mutex that serialises locking on it. Where the table of
 * synchronisation objects is exhausted the process ends, as in psp_syncCreate_check().
 * @param handle the handle
 * @retval sOKAY              the lock is held, also when this handle held it already: locks do not
 *                            add up
 * @retval ePSP_FAILURE       another holds it, or the system refuses
 * @retval ePSP_MUTEX_FAILURE the mutex cannot be made
 * @retval eINVNULLARG        `handle` is NULL
 * @threads{any, after the first call on a handle; that one comes before the handle is shared}
 * @before{`eINVNULLARG` for NULL; no other handle is alive} @jumps{never} @owner{the lock is given
 * up by psp_fileUnlock() or psp_fileClose()}
 */
PSP_API ZYN_RETCODE psp_fileLock(PSP_FH handle);

/**
 * Gives the lock up. Only after psp_fileLock() was called on this handle; else nothing is done.
 * @param handle the handle; NULL does nothing
 * @threads{any, after the first psp_fileLock() on the handle} @before{does nothing for NULL; no
 * other handle is alive} @jumps{never} @owner{nothing}
 */
PSP_API void psp_fileUnlock(PSP_FH handle);

/** @} */

PSP_END_DECLS

#endif
