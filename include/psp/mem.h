/**
 * @file mem.h
 * Memory tags: owners of allocations that can be released one by one or all at once.
 *
 * The special values ::PSP_THREAD_TAG and ::PSP_GLOBAL_TAG may stand wherever a tag is taken,
 * except in psp_freeTagMem(). A tag with a mutex may be shared by threads; any other tag must be
 * used by one thread at a time.
 *
 * Blocks are aligned to 8 bytes and smaller than 4 GiB: a request that does not fit fails like
 * one for which memory ran out. Failure means NULL, or, under a tag with a jump buffer,
 * `longjmp(*buffer, 1)` with none of the library's locks held. A bad argument, an unresolvable tag
 * and a library that is not initialised give NULL without a jump.
 */
#ifndef PSP_MEM_H
#define PSP_MEM_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup mem
 * @{
 */

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
/** @cond */
#ifdef __cplusplus
#define PSP_ALLOCATOR_TYPE_BASE : int32_t
#else
#define PSP_ALLOCATOR_TYPE_BASE
#endif
/** @endcond */

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
 * Called when a tag is destroyed, before its memory goes. In psp_term() it finds locks that do
 * nothing, and neither output, named globals nor ::PSP_GLOBAL_TAG.
 * @param ctx the context given at the tag's creation
 * @threads{runs in the thread that destroys the tag}
 * @jumps{out of psp_freeTagMem() it may, which then has released nothing; out of psp_term() it must
 * not}
 */
typedef void (*PSP_DESTROY_FCN)(void* ctx);

/**
 * Limit in bytes of the memory that the library takes; 0: none. See psp_setMemLimit().
 * @threads{any may read it} @before{as psp_setMemLimit() left it; 0 at first}
 */
extern PSP_API size_t psp_memlimit;

/**
 * The caller's buffer that holds all memory of the library, or NULL. See psp_setMemLimit().
 * @threads{any may read it} @before{as psp_setMemLimit() left it; NULL at first}
 */
extern PSP_API void* psp_membuffer;

/**
 * Bytes held by all allocators but the legacy one.
 * @threads{any, through psp_getMemUsage()} @before{nothing is held; `max` outlasts a stop}
 */
extern PSP_API PSP_MEM_INFO psp_mem_stats;

/**
 * The mutex over the memory that all tags share, the innermost of the memory locks.
 * @threads{only the library uses it} @before{::PSP_SEM_INVALID}
 */
extern PSP_API PSP_SEM largeBlockSem;

/**
 * Creates a tag.
 * @param jb          where to jump when an allocation fails, or NULL for NULL results; it must stay
 *                    valid as long as the tag uses it (see psp_resetTag())
 * @param flags       1: the tag gets a mutex and may be shared by threads (where none can be made
 *                    the process ends, as in psp_syncCreate_check()); any other value: no mutex
 * @param type        the tag's strategy
 * @param destroy_fcn called when the tag is destroyed, by psp_term() too; may be NULL
 * @param destroy_ctx argument of `destroy_fcn`; may be NULL
 * @param ptag        receives the tag; untouched on failure
 * @param file,line   the caller's source position; `file` may be NULL
 * @retval sOKAY        the tag is in `*ptag`
 * @retval eNOMEMORY    there is no memory for the tag
 * @retval ePSP_FAILURE the library is not initialised, `type` is unknown, or there is no memory for
 *                      the allocator
 * @retval eINVNULLARG  `ptag` is NULL
 * @threads{any} @before{`ePSP_FAILURE`} @jumps{never, not even to `jb`}
 * @owner{the caller destroys the tag with psp_freeTagMem(), or leaves that to the last psp_term()}
 */
PSP_API ZYN_RETCODE psp_createTagEx_rc(jmp_buf* jb, int16_t flags, PSP_ALLOCATOR_TYPE type,
                                       PSP_DESTROY_FCN destroy_fcn, void* destroy_ctx,
                                       PSP_MEMTAG* ptag, const char* file, int32_t line);

/**
 * Creates a tag like psp_createTagEx_rc().
 * @param jb,flags,type,destroy_fcn,destroy_ctx,file,line as for psp_createTagEx_rc()
 * @return the tag, or NULL on any failure
 * @threads{any} @before{NULL} @jumps{never, not even to `jb`}
 * @owner{as psp_createTagEx_rc()}
 */
PSP_API PSP_MUST_USE PSP_MEMTAG psp_createTagEx(jmp_buf* jb, int16_t flags, PSP_ALLOCATOR_TYPE type,
                                                PSP_DESTROY_FCN destroy_fcn, void* destroy_ctx,
                                                const char* file, int32_t line);

/**
 * Allocates a block.
 * @param size      bytes, below 4 GiB; 0 only with mode bit 8 or 16; does not count in mode 13
 * @param tt        the owner; NULL gives NULL
 * @param mode      a bit set; 1 plain, 3 zero-filled, 5 copy, 13 string copy (::PSP_MEM_PLAIN ...)
 * @param data      with mode bit 4 what is copied, `size` bytes, not NULL; for mode 13 a string;
 *                  else not looked at
 * @param file,line the caller's source position; `file` may be NULL
 * @return the block; NULL when memory ran out or the size is too large, if the tag has no jump
 *         buffer, and for arguments that are not as above
 * @threads{any, if the tag has a mutex; else one at a time per tag} @before{NULL}
 * @jumps{by the tag}
 * @owner{the tag owns the block: psp_freeMem() releases it, or psp_freeTagMem() with all others}
 */
/* None of the compiler's allocation attributes: a copied block may hold pointers, and the size of a
   string copy is not the argument's. */
PSP_API void* psp_getMem(size_t size, PSP_MEMTAG tt, int32_t mode, const void* data,
                         const char* file, int32_t line);

/**
 * Allocates a block like psp_getMem().
 * @param size,tt,mode,data,file,line as for psp_getMem()
 * @param res receives the block, or NULL: the address of the caller's pointer of any type
 * @retval sOKAY       the block is in `*res`
 * @retval eNOMEMORY   there is no block, for whatever reason
 * @retval eINVNULLARG `res` is NULL
 * @threads{as psp_getMem()} @before{`eNOMEMORY`} @jumps{by the tag} @owner{as psp_getMem()}
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
 * @param file,line the caller's source position; `file` may be NULL
 * @return the block, which replaces `ptr`; NULL when memory ran out, the size is too large or the
 *         tag is a stack tag, if it has no jump buffer, and for arguments that are not as above
 * @threads{as psp_getMem()} @before{NULL} @jumps{by the tag; `ptr` is still valid then}
 * @owner{as psp_getMem(); `ptr` is gone when the result is another block}
 */
PSP_API void* psp_extendMem(const void* ptr, size_t newsize, PSP_MEMTAG tt, int32_t mode,
                            size_t incsize, const void* data, const char* file, int32_t line);

/**
 * Resizes a block like psp_extendMem().
 * @param ptr,newsize,tt,mode,incsize,data,file,line as for psp_extendMem()
 * @param res receives the block, or NULL: the address of the caller's pointer of any type
 * @retval sOKAY       the block is in `*res`
 * @retval eNOMEMORY   there is no block, for whatever reason; `ptr` is still valid
 * @retval eINVNULLARG `res` is NULL; `ptr` is as it was
 * @threads{as psp_getMem()} @before{`eNOMEMORY`} @jumps{by the tag; `ptr` is still valid then}
 * @owner{as psp_extendMem()}
 */
PSP_API ZYN_RETCODE psp_extendMem_rc(const void* ptr, size_t newsize, PSP_MEMTAG tt, int32_t mode,
                                     size_t incsize, const void* data, void* res, const char* file,
                                     int32_t line);

/**
 * Gives a block to another tag by copying it. On failure the old block stays valid.
 * @param ptr       a block of `ttSrc`; NULL gives NULL
 * @param size      the block's size in bytes, which the caller must know; 0 gives NULL
 * @param ttDest    the new owner; NULL gives NULL
 * @param ttSrc     the owner so far; when it is the same handle as `ttDest`, nothing is done
 * @param file,line the caller's source position; `file` may be NULL
 * @return the block, which replaces `ptr` (`ptr` itself for equal handles); NULL when memory ran
 *         out, and for arguments that are not as above
 * @threads{as psp_getMem(), for both tags} @before{NULL} @jumps{never}
 * @owner{`ttDest` owns the new block; the old one is released}
 */
PSP_API void* psp_moveMem(const void* ptr, size_t size, PSP_MEMTAG ttDest, PSP_MEMTAG ttSrc,
                          const char* file, int32_t line);

/**
 * Releases a block. In a stack tag this does nothing.
 * @param ptr       a block of `tt`; nothing happens for NULL
 * @param tt        the block's owner; nothing happens for NULL
 * @param file,line the caller's source position; `file` may be NULL
 * @threads{as psp_getMem()} @before{does nothing} @jumps{never} @owner{frees the block}
 */
PSP_API void psp_freeMem(const void* ptr, PSP_MEMTAG tt, const char* file, int32_t line);

/**
 * Releases all blocks of a tag, and on demand the tag itself.
 * @param tt        the tag, not one of the special values: nothing happens for those and for NULL
 * @param freetag   ::ZYN_FALSE: the tag stays, empty. Else the tag's destroy callback is called
 *                  first, and the tag is gone afterwards.
 * @param file,line the caller's source position; `file` may be NULL
 * @threads{as psp_getMem(); when the tag goes, no other thread may still use it}
 * @before{does nothing} @jumps{only through the destroy callback}
 * @owner{frees all blocks of the tag, and the tag unless `freetag` is ::ZYN_FALSE}
 */
PSP_API void psp_freeTagMem(PSP_MEMTAG tt, ZYN_BOOL_T freetag, const char* file, int32_t line);

/**
 * Replaces a tag's jump buffer.
 * @param jb the new buffer, or NULL for NULL results
 * @param tt the tag; nothing happens for NULL
 * @threads{as psp_getMem(); the jump is taken in the thread whose allocation fails, so that no
 * other one may use the tag while the buffer is set}
 * @before{does nothing} @jumps{never} @owner{`jb` stays the caller's and must outlive its use}
 */
PSP_API void psp_resetTag(jmp_buf* jb, PSP_MEMTAG tt);

/**
 * Reads a tag's statistics. While other threads use the tag, each number is whole, but they need
 * not fit one another.
 * @param tag      the tag; NULL gives `ePSP_FAILURE`
 * @param mem_info receives the statistics, in bytes; untouched on failure
 * @retval sOKAY        the statistics are in `*mem_info`
 * @retval ePSP_FAILURE the library is not initialised, there is no such tag, or `mem_info` is NULL
 * @threads{any; takes no lock. The tag must not be destroyed meanwhile} @before{`ePSP_FAILURE`}
 * @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_getTagMemInfo(PSP_MEMTAG tag, PSP_TAG_MEM_INFO* mem_info);

/**
 * Limits the memory of the library, or makes it use a buffer instead of the heap.
 *
 * A buffer can be given, or replaced, only before psp_init(); without one the limit may change at
 * any time. The blocks of legacy tags are not subject to either.
 *
 * @param ptr   a buffer of `limit` bytes, aligned to 16; or NULL. Not more than 4 GiB of it are
 *              used.
 * @param limit highest number of bytes: 0 for no limit (useless with a buffer), or at least 4195328
 * @retval sOKAY        the limit, and the buffer, hold from now on
 * @retval ePSP_FAILURE nothing is changed: `limit` is in between, or a buffer is given or set while
 *                      the library is initialised
 * @threads{any; with a buffer, while no other thread starts the library} @before{works}
 * @jumps{never} @owner{the buffer is the caller's, and in the library's use until psp_term()}
 */
PSP_API ZYN_RETCODE psp_setMemLimit(void* ptr, size_t limit);

/**
 * Tells how many bytes all tags hold together, with their headers; legacy tags are not counted.
 * @param curr_usage receives the bytes held now; may be NULL
 * @param max_usage  receives the highest number so far; may be NULL
 * @threads{any; takes no lock} @before{works: nothing is held, the highest number stays}
 * @jumps{never} @owner{nothing}
 */
PSP_API void psp_getMemUsage(size_t* curr_usage, size_t* max_usage);

/**
 * Does nothing: the place of a report that this library does not make.
 * @param flags  not used
 * @param format not used; may be NULL
 * @threads{any} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_memReport(uint32_t flags, const char* format, ...);

/** @} */

PSP_END_DECLS

#endif
