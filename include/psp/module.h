/**
 * @file module.h
 * Shared libraries loaded by module name, and their functions.
 */
#ifndef PSP_MODULE_H
#define PSP_MODULE_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup module
 * @{
 */

/** A loaded module, made by psp_load() and ended by psp_unload(). Callers may read `name`. */
typedef struct PSP_MOD_CTX_S {
    const char* name; /**< the module's name, without "lib" and ".so" */
    void* OSData;     /**< the platform's record of the loaded library */
} PSP_MOD_CTX;

/**
 * Address of a function; convert it to the function's real type before calling it.
 * @threads{those of the function behind it} @jumps{if the function behind it does}
 */
typedef void (*VOID_FCN)(void*);

/**
 * Loads the shared library of a module: the file "lib", `modName`, ".so" on the dynamic loader's
 * search path, with all its symbols bound at once.
 *
 * The path is `LD_LIBRARY_PATH`, the loader's cache and the system's directories. A run path of the
 * program belongs to it only if the program was linked with `--disable-new-dtags`.
 *
 * @param modName name of the module; it is copied
 * @param pModCtx receives the module; untouched on failure
 * @retval sOKAY       the module is in `*pModCtx`
 * @retval sNOTFOUND   the library is missing or cannot be loaded; the C library's `dlerror` tells
 *                     why. The code is positive: compare with `sOKAY`.
 * @retval eNOMEMORY   memory ran out, `modName` is NULL, or the library is not initialised
 * @retval eINVNULLARG `pModCtx` is NULL
 * @threads{any} @before{`eNOMEMORY`} @jumps{by ::PSP_GLOBAL_TAG or the thread's tag}
 * @owner{the caller unloads the module with psp_unload(); its record and name live until the last
 * psp_term(), which unloads nothing}
 */
PSP_API ZYN_RETCODE psp_load(const char* modName, PSP_MOD_CTX** pModCtx);

/**
 * Looks up a function of a module.
 * @param modCtx   the module; for NULL no function is found
 * @param fcnName  name of the function's symbol; for NULL no function is found
 * @param pFcnAddr receives its address, or NULL when the module has no such symbol; not NULL itself
 * @retval sOKAY always: look at `*pFcnAddr`
 * @threads{any, while the module stays loaded}
 * @before{undefined but for a NULL `modCtx`: no module is left after psp_term()}
 * @jumps{never} @owner{the address is good until psp_unload()}
 */
PSP_API ZYN_RETCODE psp_getFcnAddr(const PSP_MOD_CTX* modCtx, const char* fcnName,
                                   VOID_FCN* pFcnAddr);

/**
 * Unloads a module. Not to be called twice for one module.
 *
 * A module that was loaded several times stays until each load is undone.
 *
 * @param modCtx the module
 * @retval sOKAY       the module is unloaded
 * @retval eINVNULLARG `modCtx` is NULL or has no loaded library
 * @retval eUNAVAIL    the library could not be unloaded
 * @threads{one, when no other thread uses the module any more}
 * @before{undefined but for a NULL `modCtx`: no module is left after psp_term()}
 * @jumps{never} @owner{frees the loader's record; `modCtx` and its name stay until psp_term()}
 */
PSP_API ZYN_RETCODE psp_unload(const PSP_MOD_CTX* modCtx);

/** @} */

PSP_END_DECLS

#endif
