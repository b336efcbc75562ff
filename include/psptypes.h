/**
 * @file psptypes.h
 * The types that several families of the interface share. A type that one family owns stands in
 * that family's header below `psp/`.
 */
#ifndef PSPTYPES_H
#define PSPTYPES_H

#include "pspplatint.h"
#include "zynretcodetypes.h"

/**
 * @addtogroup types
 * @{
 */

/** Truth value: ::ZYN_FALSE or ::ZYN_TRUE. */
typedef int32_t ZYN_BOOL_T;

/** The values of ::ZYN_BOOL_T. */
enum {
    ZYN_FALSE = 0, /**< no */
    ZYN_TRUE = 1   /**< yes */
};

/** Handle of a mutex or an event: made by psp_syncCreate_check(), ended by psp_syncDelete(). */
typedef struct PSP_SEM_ENTRY* PSP_SEM;

/** No synchronisation object: all bits set. */
#define PSP_SEM_INVALID ((PSP_SEM)UINTPTR_MAX)

/** Handle of a memory tag, the owner of allocations: made by psp_createTagEx(), ended by
    psp_freeTagMem(). NULL is no tag. */
typedef struct TAG_ENTRY* PSP_MEMTAG;

/** The calling thread's own tag: a block allocator without a mutex, made on first use and kept
    until the last psp_term(), also when the thread has ended. */
#define PSP_THREAD_TAG ((PSP_MEMTAG)1)

/** The library's process-wide tag: a block allocator with a mutex, there from psp_init() on. */
#define PSP_GLOBAL_TAG ((PSP_MEMTAG)2)

/** Byte offset in a file, or a file's length in bytes. */
typedef uint64_t PSP_FILE_OFFSET;

/** Handle of an open file: made by psp_fileOpen(), ended by psp_fileClose(). NULL is no file. */
typedef struct PSPFTAB* PSP_FH;

/** Handle of a buffered text stream: made by psp_fopen(), ended by psp_fclose(). NULL is no
    stream. */
typedef struct PSP_FILE_CTX* PSP_FILE_STREAM;

/** What a ::ZYN_OUTPUT_FCN works on; the library hands it through unchanged. */
typedef void* ZYN_OUTPUT_CTX;

/**
 * A byte sink.
 * @param ctx the context given along with the function
 * @param ch  the byte, 0 to 255
 * @return `sOKAY` to go on; anything else stops the producer, which returns that code
 * @threads{runs in the thread that calls the producer} @jumps{it may: the producer holds nothing}
 */
typedef ZYN_RETCODE (*ZYN_OUTPUT_FCN)(ZYN_OUTPUT_CTX ctx, uint32_t ch);

/** What a ::ZYN_INPUT_FCN works on; the library hands it through unchanged. */
typedef void* ZYN_INPUT_CTX;

/**
 * A byte source.
 * @param ctx the context given along with the function
 * @param ch  receives the next byte, 0 to 255
 * @return `sOKAY`, or the reason why there is no byte (`eEOD` at the end of the input)
 * @threads{runs in the thread that calls the consumer} @jumps{it may: the consumer holds nothing}
 */
typedef ZYN_RETCODE (*ZYN_INPUT_FCN)(ZYN_INPUT_CTX ctx, uint32_t* ch);

/** What a decoder does with malformed UTF-8. */
typedef enum PSP_UTF8_ERROR_BEHAVIOR {
    PSP_UTF8_ERROR_BREAK = 0,   /**< fail, in the way that each function tells */
    PSP_UTF8_ERROR_CONTINUE = 1 /**< put one '?' in the place of each malformed piece */
} PSP_UTF8_ERROR_BEHAVIOR;

/** @} */

#endif
