/**
 * @file global.h
 * Process-wide state by name: made on first use, destroyed by the last psp_term().
 */
#ifndef PSP_GLOBAL_H
#define PSP_GLOBAL_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup global
 * @{
 */

/**
 * Sets up a new block.
 *
 * It must not register another name, nor print or log, nor use a pool that has a mutex: opening a
 * destination and a pool's callbacks take the registry's mutex inside their own.
 *
 * @param data the block, filled with zeros
 * @return `sOKAY`; anything else discards the block
 * @threads{runs in the thread of psp_globalGet(), under the registry's mutex}
 * @jumps{it must not: the mutex would stay locked}
 */
typedef ZYN_RETCODE (*PSP_GLOBAL_CREATE_FCN)(void* data);

/**
 * Tears a block down, before its memory goes. Memory and locks still work, output does not. It must
 * not use the critical section, which psp_term() holds.
 * @param data the block
 * @threads{runs in the thread of the last psp_term()} @jumps{it must not}
 */
typedef void (*PSP_GLOBAL_DELETE_FCN)(void* data);

/**
 * Gives the block of a name, making it if this is the first call with that name.
 *
 * Every later caller gets the same block; its own `size` and callbacks are ignored. The last
 * psp_term() destroys the blocks in falling order of their names (as `strcmp` sorts).
 *
 * When there is no memory for a longer list of names, the names so far are forgotten: later calls
 * make new blocks for them. The old ones stay valid until psp_term(), but are not torn down.
 *
 * @param name       the name; it is copied
 * @param size       bytes of the block, below 4 GiB, not 0
 * @param create_fcn sets a new block up; may be NULL
 * @param delete_fcn tears it down; may be NULL; not called for a block that `create_fcn` refused
 * @param pglobal    receives the block; untouched on failure
 * @retval sOKAY        the block is in `*pglobal`
 * @retval eINVNULLARG  `size` is 0, or `name` or `pglobal` is NULL
 * @retval eNOMEMORY    memory ran out, or `create_fcn` failed; a later call tries anew
 * @retval ePSP_FAILURE the library is not initialised, or its registry is gone already
 * @threads{any; the calls are serialised, what a block holds is not guarded}
 * @before{`ePSP_FAILURE`} @jumps{by ::PSP_GLOBAL_TAG, not when `create_fcn` failed}
 * @owner{the block belongs to the library until the last psp_term()}
 */
PSP_API ZYN_RETCODE psp_globalGet(const char* name, size_t size, PSP_GLOBAL_CREATE_FCN create_fcn,
                                  PSP_GLOBAL_DELETE_FCN delete_fcn, void** pglobal);

/** @} */

PSP_END_DECLS

#endif
