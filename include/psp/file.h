/**
 * @file file.h
 * File handles: open files, and reading, writing and locking them.
 *
 * The names "stdin", "stdout" and "stderr" stand for the process's own three streams: opening one
 * borrows its descriptor, closing the handle leaves the descriptor open. (The first three letters
 * must be lower case, the rest may be of either case: "stdOUT" is the stream, "STDOUT" is a file.)
 * Every other name is a file of the file system.
 *
 * Two switches of the process (psp/core.h) guard opening: after psp_rdonly() no file opens for
 * writing or creation, after psp_nodisk() no file opens at all. The standard streams always open,
 * and handles that are open already go on working.
 *
 * Threads: opening and closing are safe from any thread. psp_fileSeekRead() and
 * psp_fileSeekWrite() carry their own offset and may run at the same time on one handle;
 * psp_fileSeek(), psp_fileRead() and psp_fileWrite() share the handle's offset, and threads that
 * mix them on one handle serialise them themselves.
 *
 * Where a call of the operating system fails, its reason stays in `errno` (psp_errno()). A NULL
 * handle is no file: transfers and psp_fileLength() give 0, other operations `eINVNULLARG`; closing
 * and unlocking do nothing.
 */
#ifndef PSP_FILE_H
#define PSP_FILE_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** Extra flag: psp_fileSync() does nothing on this handle. */
#define PSP_XFLAG_NOSYNC 0x200

/* ---- Opening and closing ---- */

/**
 * Opens a file, or borrows a standard stream.
 * @param name   the file's name; copied
 * @param flags  the operating system's open flags: `O_RDONLY`, `O_WRONLY` or `O_RDWR`, with
 *               `O_CREAT`, `O_EXCL`, `O_TRUNC`, `O_APPEND` and so on. `O_TRUNC` implies `O_CREAT`.
 *               A new file gets mode 0666 less the process's umask.
 * @param xflags 0 or ::PSP_XFLAG_NOSYNC; other bits are ignored
 * @return the handle, to be given to psp_fileClose(); NULL on any failure: `name` is NULL, the
 *         library is not started, memory is short, a switch forbids it, or the system refuses
 */
PSP_API PSP_MUST_USE PSP_FH psp_fileOpen(const char* name, uint32_t flags, uint16_t xflags);

/**
 * Opens like psp_fileOpen() and tells whether the handle is a console.
 * @param name,flags,xflags as for psp_fileOpen()
 * @param is_console        receives ::ZYN_FALSE on success: this platform has no consoles of its
 *                          own, terminals are read and written like files. May be NULL.
 * @return as psp_fileOpen()
 */
PSP_API PSP_MUST_USE PSP_FH psp_fileOpenStd(const char* name, uint32_t flags, uint16_t xflags,
                                            ZYN_BOOL_T* is_console);

/**
 * Closes a handle and its descriptor; the descriptor of a standard stream, and descriptor 0
 * whatever it stands for, stay open. `errno` is the same afterwards as before.
 * @param handle the handle, not to be used again; NULL does nothing
 */
PSP_API void psp_fileClose(PSP_FH handle);

/* ---- Transfer: the result is a count of bytes, 0 when nothing was done or the call failed ---- */

/**
 * Reads at the handle's offset and moves it on. Goes on after an interruption by a signal.
 * @param handle a handle that was not opened `O_WRONLY`; on another the result is 0
 * @param buf    receives up to `size` bytes
 * @param size   bytes wanted; 0 gives 0
 * @return the bytes read, which may be fewer than wanted; 0 at the end of the file or on failure
 */
PSP_API uint32_t psp_fileRead(PSP_FH handle, void* buf, uint32_t size);

/**
 * Writes the whole buffer at the handle's offset and moves it on. Short and interrupted writes
 * are continued.
 * @param handle a handle opened `O_WRONLY` or `O_RDWR`; on another the result is 0
 * @param buf    the bytes
 * @param size   their number; 0 gives 0
 * @return `size`, or 0 on failure (a part may then have been written)
 */
PSP_API uint32_t psp_fileWrite(PSP_FH handle, const void* buf, uint32_t size);

/** Reads like psp_fileRead(), but at byte offset `addr`: the handle's offset stays where it is. */
PSP_API uint32_t psp_fileSeekRead(PSP_FH handle, PSP_FILE_OFFSET addr, void* buf, uint32_t size);

/** Writes like psp_fileWrite(), but at byte offset `addr`: the handle's offset stays. */
PSP_API uint32_t psp_fileSeekWrite(PSP_FH handle, PSP_FILE_OFFSET addr, const void* buf,
                                   uint32_t size);

/** Reads from a console. This platform has none: the result is always 0. */
PSP_API uint32_t psp_fileConsoleRead(PSP_FH handle, void* buf, uint32_t size);

/** Writes to a console. This platform has none: the result is always 0. */
PSP_API uint32_t psp_fileConsoleWrite(PSP_FH handle, const void* buf, uint32_t size);

/* ---- Control ---- */

/**
 * Moves the handle's offset.
 * @param handle  the handle
 * @param addr    the distance in bytes from `origin`; taken as signed, so it may lead backwards
 * @param origin  `SEEK_SET`, `SEEK_CUR` or `SEEK_END`
 * @param newaddr receives the new offset from the start of the file; may be NULL
 * @return `sOKAY`, or `ePSP_FAILURE` (a pipe, a place before the start, an unknown origin)
 */
PSP_API ZYN_RETCODE psp_fileSeek(PSP_FH handle, PSP_FILE_OFFSET addr, int32_t origin,
                                 PSP_FILE_OFFSET* newaddr);

/** The file's length in bytes; 0 for an empty file and on failure alike. */
PSP_API PSP_FILE_OFFSET psp_fileLength(PSP_FH handle);

/**
 * Cuts the file or lengthens it with zeros.
 * @param handle the handle
 * @param size   the new length in bytes
 * @return `sOKAY`; `eBADWRITE` when the handle was not opened for writing; `ePSP_FAILURE` when the
 *         system refuses
 */
PSP_API ZYN_RETCODE psp_fileSetSize(PSP_FH handle, PSP_FILE_OFFSET size);

/**
 * Makes everything written so far durable. Does nothing, with `sOKAY`, on a handle opened with
 * ::PSP_XFLAG_NOSYNC and in read-only mode.
 * @return `sOKAY`, or `ePSP_FAILURE`
 */
PSP_API ZYN_RETCODE psp_fileSync(PSP_FH handle);

/**
 * Tells the system that a range will not be needed soon. Advice only.
 * @param handle the handle; on a standard stream nothing is done
 * @param addr   the range's start, in bytes
 * @param size   its length in bytes; 0 does nothing
 * @return `sOKAY`
 */
PSP_API ZYN_RETCODE psp_filePageOut(PSP_FH handle, PSP_FILE_OFFSET addr, uint32_t size);

/* ---- Mapping: not available on this platform ---- */

/**
 * Maps the first `size` bytes of the file; `*pMap` would receive their address.
 * @return `eNOTIMPLEMENTED`; `*pMap` is left as it is
 */
PSP_API ZYN_RETCODE psp_fileMap(PSP_FH handle, size_t size, void** pMap);

/** Replaces a mapping by one of another size. @return `eNOTIMPLEMENTED` */
PSP_API ZYN_RETCODE psp_fileRemap(PSP_FH handle, size_t old_size, void* old_map, size_t new_size,
                                  void** pMap);

/** Ends a mapping. @return `eNOTIMPLEMENTED` */
PSP_API ZYN_RETCODE psp_fileUnmap(PSP_FH handle, size_t size, void* map);

/* ---- Locking ---- */

/**
 * Takes the exclusive advisory lock on the whole file, without ever waiting. The lock belongs to
 * the open file: two handles that opened one file by name exclude each other, in one process as in
 * two, and closing the handle gives it up. Handles on one standard stream share its lock, which
 * stays until it is given up.
 *
 * The first call on a handle also makes the mutex that serialises locking on it, and is not
 * itself guarded: it must come before the handle is shared between threads.
 * @return `sOKAY` (also when this handle holds the lock already); `ePSP_FAILURE` when another holds
 *         it or the system refuses; `ePSP_MUTEX_FAILURE` when the mutex cannot be made
 */
PSP_API ZYN_RETCODE psp_fileLock(PSP_FH handle);

/** Gives the lock up. Only after psp_fileLock() was called on this handle; else nothing is done. */
PSP_API void psp_fileUnlock(PSP_FH handle);

PSP_END_DECLS

#endif
