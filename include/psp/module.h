/**
 * @file module.h
 * Shared libraries loaded by module name, and their functions.
 */
#ifndef PSP_MODULE_H
#define PSP_MODULE_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** A loaded module. Made by psp_load(); callers may read `name`. */
typedef struct PSP_MOD_CTX_S {
    const char* name; /**< the module's name, without "lib" and ".so" */
    void* OSData;     /**< the platform's record of the loaded library */
} PSP_MOD_CTX;

/** Address of a function; convert it to the function's real type before calling it. */
typedef void (*VOID_FCN)(void*);

/**
 * Loads the shared library of a module: the file "lib", `modName`, ".so" on the dynamic loader's
 * search path, with all its symbols bound at once.
 * @param modName name of the module
 * @param pModCtx receives the module; untouched on failure. The library owns it: psp_unload()
 *                ends it, and its memory lives until psp_term().
 * @return `sOKAY`; `sNOTFOUND` (positive: compare with `sOKAY`) when the library is missing or
 *         cannot be loaded; `eNOMEMORY` when memory ran out, `modName` is NULL or the library is
 *         not initialised; `eINVNULLARG` when `pModCtx` is NULL
 */
PSP_API ZYN_RETCODE psp_load(const char* modName, PSP_MOD_CTX** pModCtx);

/**
 * Looks up a function of a module.
 * @param modCtx   the module
 * @param fcnName  name of the function's symbol
 * @param pFcnAddr receives its address, or NULL when the module has no such symbol
 * @return `sOKAY`, always
 */
PSP_API ZYN_RETCODE psp_getFcnAddr(const PSP_MOD_CTX* modCtx, const char* fcnName,
                                   VOID_FCN* pFcnAddr);

/**
 * Unloads a module. Its functions are gone then. Not to be called twice for one module.
 * @param modCtx the module
 * @return `sOKAY`; `eINVNULLARG` when `modCtx` is NULL or has no loaded library; `eUNAVAIL` when
 *         the library could not be unloaded
 */
PSP_API ZYN_RETCODE psp_unload(const PSP_MOD_CTX* modCtx);

PSP_END_DECLS

#endif
