/**
 * @file mem.h
 * Memory tags: owners of allocations that can be released one by one or all at once.
 *
 * A tag has one of four allocators (::PSP_ALLOCATOR_TYPE), an optional mutex and an optional jump
 * buffer. The special values ::PSP_THREAD_TAG and ::PSP_GLOBAL_TAG may stand wherever a tag is
 * taken, except in psp_freeTagMem(). The last psp_term() releases every tag that is left, the tags
 * of all threads included.
 *
 * Blocks are aligned to 8 bytes and smaller than 4 GiB: a request that does not fit fails like
 * one for which memory ran out. Failure means NULL, or, under a tag with a jump buffer,
 * `longjmp(*buffer, 1)` with none of the library's locks held. A bad argument, an unresolvable tag
 * and a library that is not initialised give NULL without a jump.
 *
 * A tag with a mutex may be shared by threads; any other tag must be used by one thread at a time.
 */
#ifndef PSP_MEM_H
#define PSP_MEM_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** A counter and its high-water mark, in bytes. */
typedef struct PSP_MEM_INFO {
    size_t current; /**< value now */
    size_t max;     /**< highest value so far */
} PSP_MEM_INFO;

/** Statistics of a tag. What is counted depends on its allocator, see ::PSP_ALLOCATOR_TYPE. */
typedef struct PSP_TAG_MEM_INFO {
    PSP_MEM_INFO used;     /**< bytes handed out */
    PSP_MEM_INFO free;     /**< bytes at hand */
    PSP_MEM_INFO overhead; /**< bytes of headers and rounding */
} PSP_TAG_MEM_INFO;

/* Any number may be tried, unknown ones are refused: in C++ only a fixed base makes that sound. */
#ifdef __cplusplus
#define PSP_ALLOCATOR_TYPE_BASE : int32_t
#else
#define PSP_ALLOCATOR_TYPE_BASE
#endif

/** Strategy of a tag. */
typedef enum PSP_ALLOCATOR_TYPE PSP_ALLOCATOR_TYPE_BASE {
    /** Power-of-two classes up to 8192 bytes, larger blocks on their own: fast, the usual choice.
        Small blocks return to their class, not to the system, until the tag is emptied. Counts
        requests as `used`, idle blocks as `free`, headers and rounding as `overhead`. */
    BLOCK_ALLOCATOR = 0,
    /** Best fit with joining of free neighbours: compact, for blocks of any size and life. Counts
        requests rounded up to 16 as `used` and chunks held as `free`. */
    LIST_ALLOCATOR = 1,
    /** Only grows: the fastest, for data that dies together. Blocks cannot be resized, and freeing
        one does nothing. Counts requests rounded up to 8 as `used`, also those of the past. */
    STACK_ALLOCATOR = 2,
    /** Every block from the C library's heap; outside the memory limit; counts nothing. */
    LEGACY_ALLOCATOR = 3
} PSP_ALLOCATOR_TYPE;
#undef PSP_ALLOCATOR_TYPE_BASE

/** Allocation modes: what psp_getMem() and its kin do with the block. */
enum {
    PSP_MEM_PLAIN = 1,   /**< contents undefined */
    PSP_MEM_ZERO = 3,    /**< filled with zeros (bit 2, which wins over bit 4) */
    PSP_MEM_COPY = 5,    /**< copied from `data` (bit 4) */
    PSP_MEM_EMPTY = 8,   /**< bit: size 0 is accepted (bit 16 says the same) */
    PSP_MEM_STRING = 13, /**< copy of the string at `data`; the size given does not count */
};

/**
 * Called when a tag is destroyed, before its memory goes.
 * @param ctx the context given at the tag's creation
 */
typedef void (*PSP_DESTROY_FCN)(void* ctx);

/** Limit in bytes of the memory that the library takes; 0: none. See psp_setMemLimit(). */
extern PSP_API size_t psp_memlimit;

/** The caller's buffer that holds all memory of the library, or NULL. See psp_setMemLimit(). */
extern PSP_API void* psp_membuffer;

/** Bytes held by all allocators but the legacy one. Read it with psp_getMemUsage(). */
extern PSP_API PSP_MEM_INFO psp_mem_stats;

/** The mutex over the memory that all tags share, the innermost of the memory locks;
    ::PSP_SEM_INVALID while the library is not initialised. Only the library uses it. */
extern PSP_API PSP_SEM largeBlockSem;

/**
 * Creates a tag.
 * @param jb          where to jump when an allocation fails, or NULL for NULL results; it must stay
 *                    valid as long as the tag uses it (see psp_resetTag())
 * @param flags       1: the tag gets a mutex and may be shared by threads (it goes without if none
 *                    can be made); any other value: no mutex
 * @param type        the tag's strategy
 * @param destroy_fcn called when the tag is destroyed, by psp_term() too; may be NULL
 * @param destroy_ctx argument of `destroy_fcn`
 * @param ptag        receives the tag, to be given to psp_freeTagMem(); untouched on failure
 * @param file,line   the caller's source position
 * @return `sOKAY`; `eNOMEMORY` when there is no memory for the tag; `ePSP_FAILURE` when the library
 *         is not initialised, `type` is unknown or there is no memory for the allocator;
 *         `eINVNULLARG` when `ptag` is NULL
 */
PSP_API ZYN_RETCODE psp_createTagEx_rc(jmp_buf* jb, int16_t flags, PSP_ALLOCATOR_TYPE type,
                                       PSP_DESTROY_FCN destroy_fcn, void* destroy_ctx,
                                       PSP_MEMTAG* ptag, const char* file, int32_t line);

/**
 * Creates a tag like psp_createTagEx_rc().
 * @return the tag, or NULL on any failure
 */
PSP_API PSP_MUST_USE PSP_MEMTAG psp_createTagEx(jmp_buf* jb, int16_t flags, PSP_ALLOCATOR_TYPE type,
                                                PSP_DESTROY_FCN destroy_fcn, void* destroy_ctx,
                                                const char* file, int32_t line);

/**
 * Allocates a block.
 *
 * The function carries none of the compiler's allocation attributes: a copied block may hold
 * pointers, and the size of a string copy is not the argument's.
 *
 * @param size      bytes, below 4 GiB; 0 only with mode bit 8 or 16; does not count in mode 13
 * @param tt        the owner; NULL gives NULL
 * @param mode      a bit set; 1 plain, 3 zero-filled, 5 copy, 13 string copy (::PSP_MEM_PLAIN ...)
 * @param data      with mode bit 4 what is copied, `size` bytes, not NULL; for mode 13 a string;
 *                  else not looked at
 * @param file,line the caller's source position
 * @return the block, to be released by psp_freeMem() or along with the tag; NULL on failure, if the
 *         tag has no jump buffer
 */
PSP_API void* psp_getMem(size_t size, PSP_MEMTAG tt, int32_t mode, const void* data,
                         const char* file, int32_t line);

/**
 * Allocates a block like psp_getMem().
 * @param size,tt,mode,data,file,line as for psp_getMem()
 * @param res receives the block, or NULL: the address of the caller's pointer of any type
 * @return `sOKAY`; `eNOMEMORY` exactly when there is no block; `eINVNULLARG` when `res` is NULL
 */
PSP_API ZYN_RETCODE psp_getMem_rc(size_t size, PSP_MEMTAG tt, int32_t mode, const void* data,
                                  void* res, const char* file, int32_t line);

/**
 * Resizes a block, moving it if need be. On failure the old block stays valid.
 *
 * Old contents are kept up to the smaller size, unless mode bit 4 is set: then a moved block has
 * lost them. Blocks of a stack tag cannot be resized; that fails.
 *
 * @param ptr       a block of `tt`; NULL makes this psp_getMem() with the same size, mode and data
 * @param newsize   the new size in bytes; as `size` of psp_getMem()
 * @param tt        the block's owner; NULL gives NULL
 * @param mode      as in psp_getMem(). Bit 2 zero-fills the last `incsize` bytes. Otherwise bit 4
 *                  copies `incsize` bytes from `data` to the end of the block or, when `incsize`
 *                  is 0, `newsize` bytes to its start.
 * @param incsize   by how many bytes the block grows; what exceeds `newsize` does not count
 * @param data      with mode bit 4 what is copied, not NULL; else not looked at
 * @param file,line the caller's source position
 * @return the block, which replaces `ptr`; NULL on failure, if the tag has no jump buffer
 */
PSP_API void* psp_extendMem(const void* ptr, size_t newsize, PSP_MEMTAG tt, int32_t mode,
                            size_t incsize, const void* data, const char* file, int32_t line);

/**
 * Resizes a block like psp_extendMem().
 * @param ptr,newsize,tt,mode,incsize,data,file,line as for psp_extendMem()
 * @param res receives the block, or NULL: the address of the caller's pointer of any type
 * @return `sOKAY`; `eNOMEMORY` exactly when there is no block; `eINVNULLARG` when `res` is NULL
 */
PSP_API ZYN_RETCODE psp_extendMem_rc(const void* ptr, size_t newsize, PSP_MEMTAG tt, int32_t mode,
                                     size_t incsize, const void* data, void* res, const char* file,
                                     int32_t line);

/**
 * Gives a block to another tag by copying it. Never jumps; on failure the old block stays valid.
 * @param ptr       a block of `ttSrc`; NULL gives NULL
 * @param size      the block's size in bytes, which the caller must know; 0 gives NULL
 * @param ttDest    the new owner
 * @param ttSrc     the owner so far; when it is the same handle as `ttDest`, nothing is done
 * @param file,line the caller's source position
 * @return the block, which replaces `ptr` (`ptr` itself for equal handles); NULL on failure
 */
PSP_API void* psp_moveMem(const void* ptr, size_t size, PSP_MEMTAG ttDest, PSP_MEMTAG ttSrc,
                          const char* file, int32_t line);

/**
 * Releases a block.
 * @param ptr       a block of `tt`; nothing happens for NULL
 * @param tt        the block's owner
 * @param file,line the caller's source position
 */
PSP_API void psp_freeMem(const void* ptr, PSP_MEMTAG tt, const char* file, int32_t line);

/**
 * Releases all blocks of a tag, and on demand the tag itself.
 * @param tt        the tag, not one of the special values: nothing happens for those and for NULL
 * @param freetag   ::ZYN_FALSE: the tag stays, empty. Else the tag's destroy callback is called
 *                  first, and the tag is gone afterwards; no other thread may still use it.
 * @param file,line the caller's source position
 */
PSP_API void psp_freeTagMem(PSP_MEMTAG tt, ZYN_BOOL_T freetag, const char* file, int32_t line);

/**
 * Replaces a tag's jump buffer.
 * @param jb the new buffer, or NULL for NULL results
 * @param tt the tag; nothing happens for NULL
 */
PSP_API void psp_resetTag(jmp_buf* jb, PSP_MEMTAG tt);

/**
 * Reads a tag's statistics. Takes no lock: while other threads use the tag, each number is whole,
 * but they need not fit one another.
 * @param tag      the tag
 * @param mem_info receives the statistics
 * @return `sOKAY`; `ePSP_FAILURE` when the library is not initialised, there is no such tag or
 *         `mem_info` is NULL
 */
PSP_API ZYN_RETCODE psp_getTagMemInfo(PSP_MEMTAG tag, PSP_TAG_MEM_INFO* mem_info);

/**
 * Limits the memory of the library, or makes it use a buffer instead of the heap.
 *
 * A buffer can be given, or replaced, only before psp_init(); without one the limit may change at
 * any time. The blocks of legacy tags are not subject to either.
 *
 * @param ptr   a buffer of `limit` bytes, aligned to 16, that stays the library's own until
 *              psp_term(); or NULL. Not more than 4 GiB of it are used.
 * @param limit highest number of bytes: 0 for no limit (useless with a buffer), or at least 4195328
 * @return `sOKAY`; `ePSP_FAILURE`, with nothing changed, for a limit between, or when a buffer is
 *         given or set while the library is initialised
 */
PSP_API ZYN_RETCODE psp_setMemLimit(void* ptr, size_t limit);

/**
 * Tells how many bytes all tags hold together, with their headers; legacy tags are not counted.
 * Works before psp_init() and after psp_term(), and takes no lock.
 * @param curr_usage receives the bytes held now; may be NULL
 * @param max_usage  receives the highest number so far; may be NULL
 */
PSP_API void psp_getMemUsage(size_t* curr_usage, size_t* max_usage);

/**
 * Does nothing: the place of a report that this library does not make.
 * @param flags  not used
 * @param format not used; may be NULL
 */
PSP_API void psp_memReport(uint32_t flags, const char* format, ...);

PSP_END_DECLS

#endif
