/**
 * @file pool.h
 * Object pools: released objects wait on a list, so that the next request reuses one instead of
 * allocating and constructing it again.
 */
#ifndef PSP_POOL_H
#define PSP_POOL_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup pool
 * @{
 */

/** Handle of a pool, made by psp_poolCreateEx() and ended by psp_poolDestroy(). */
typedef struct PSP_POOL_CTX* PSP_POOL;

/** What the callbacks of a pool get as their first argument. */
typedef void* PSP_POOL_USERDATA;

/** Whether the objects of a pool are of one size. Recorded only: every pool serves any size. */
typedef enum PSP_POOL_SIZE_INFO {
    PSP_POOL_FIXED_SIZE = 0, /**< one size */
    PSP_POOL_VAR_SIZE = 1    /**< any size */
} PSP_POOL_SIZE_INFO;

/**
 * Sets up an object when it is first made, not when it is reused.
 * @param userdata the pool's `userdata`
 * @param object   the object, contents undefined
 * @threads{runs in the thread of psp_poolGetMem(), under the pool's mutex if there is one}
 * @jumps{never out of a pool with a mutex; else the object stays in the tag, unused}
 */
typedef void (*PSP_POOL_CONSTRUCTOR)(PSP_POOL_USERDATA userdata, void* object);

/**
 * Tears an object down before its memory goes.
 * @param userdata the pool's `userdata`
 * @param object   the object
 * @threads{runs in the thread of psp_poolGetMem(), psp_poolPut() or psp_poolDestroy(), under the
 * pool's mutex if there is one}
 * @jumps{never out of a pool with a mutex; else the object stays in the tag, unused}
 */
typedef void (*PSP_POOL_DESTRUCTOR)(PSP_POOL_USERDATA userdata, const void* object);

/**
 * Creates a pool that keeps at most 1000 idle objects.
 *
 * With `semName` its operations are serialised, callbacks included. Even so a caller's tag must
 * have a mutex if other threads use it outside the pool.
 *
 * @param tag         where the pool and its objects live; NULL: a tag of the pool's own, which goes
 *                    with it (destructors are then not called for idle objects)
 * @param size_info   recorded only
 * @param semName     not NULL: the pool gets a mutex (where none can be made the process ends, as
 *                    in psp_syncCreate_check()); the text itself is not used
 * @param constructor sets up a new object; may be NULL
 * @param destructor  tears an object down; may be NULL
 * @param userdata    first argument of both callbacks; may be NULL
 * @param hPool       receives the pool; untouched on failure
 * @retval sOKAY        the pool is in `*hPool`
 * @retval eNOMEMORY    memory ran out, or `tag` gives none, as before psp_init()
 * @retval ePSP_FAILURE `tag` is NULL and the pool's own cannot be made, as before psp_init()
 * @retval eINVNULLARG  `hPool` is NULL
 * @threads{any that may use `tag`} @before{`ePSP_FAILURE` for a NULL `tag`, else `eNOMEMORY`}
 * @jumps{by `tag`; never with a tag of the pool's own}
 * @owner{the caller ends the pool with psp_poolDestroy(); `tag` must live as long}
 */
PSP_API ZYN_RETCODE psp_poolCreateEx(PSP_MEMTAG tag, PSP_POOL_SIZE_INFO size_info,
                                     const char* semName, PSP_POOL_CONSTRUCTOR constructor,
                                     PSP_POOL_DESTRUCTOR destructor, PSP_POOL_USERDATA userdata,
                                     PSP_POOL* hPool);

/**
 * Takes an object out of the pool, or makes one.
 *
 * Only the object returned last is looked at: if it was made smaller than `sz`, it is destroyed
 * and a new one is made.
 *
 * @param hPool     the pool; NULL gives NULL
 * @param sz        bytes needed, below 4 GiB; may be 0
 * @param mode      exactly 3: `sz` bytes are filled with zeros; exactly 5: `sz` bytes are copied
 *                  from `data`, both after the constructor ran; anything else: contents as the
 *                  constructor, or the last user, left them
 * @param data      what mode 5 copies; nothing is copied from NULL
 * @param file,line the caller's source position; `file` may be NULL
 * @return the object, aligned to 8 bytes; NULL when memory ran out, if the tag has no jump buffer
 * @threads{any, if the pool has a mutex; else one at a time per pool} @before{NULL}
 * @jumps{by the pool's tag, with the pool's mutex released}
 * @owner{the caller gives the object back with psp_poolPut(); the pool's tag owns its memory}
 */
PSP_API void* psp_poolGetMem(PSP_POOL hPool, size_t sz, int32_t mode, const void* data,
                             const char* file, int32_t line);

/**
 * Gives an object back. It waits for the next request, or is destroyed at once when as many
 * objects wait as the pool may keep.
 * @param hPool the pool; nothing happens for NULL
 * @param ptr   an object of this pool; nothing happens for NULL
 * @threads{as psp_poolGetMem()} @before{does nothing} @jumps{only through the destructor}
 * @owner{the pool has the object again}
 */
PSP_API void psp_poolPut(PSP_POOL hPool, const void* ptr);

/**
 * Destroys a pool and its idle objects. Objects still handed out must not be given back later;
 * under a caller's tag they stay valid, with a tag of the pool's own they are gone.
 * @param hPool the pool; nothing happens for NULL
 * @threads{one, when no other thread uses the pool any more} @before{does nothing}
 * @jumps{only through the destructor}
 * @owner{frees the pool and its idle objects; with a tag of the pool's own, all its objects}
 */
PSP_API void psp_poolDestroy(PSP_POOL hPool);

/**
 * Sets how many idle objects the pool keeps. Those beyond the new number stay until taken.
 * @param hPool     the pool; nothing happens for NULL
 * @param max_items the number; 0: every object given back is destroyed
 * @threads{any; takes no lock} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_poolSetMaxPooled(PSP_POOL hPool, uint32_t max_items);

/** @} */

PSP_END_DECLS

#endif
