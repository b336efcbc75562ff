// Shared libraries by module name, over the dynamic loader.
//
// A module's record and its name stay in the global tag until psp_term, also after psp_unload:
// callers may hold on to them. Memory that is half of a load is given back before a failed
// allocation may jump.

#include <cstring>

#include "psp/format.h"
#include "psp/mem.h"
#include "psp/module.h"
#include "pspint.h"
#include "pspposix.h"

namespace {

constexpr int32_t PLAIN = 1; // modes of allocation
constexpr int32_t ZERO_FILLED = 3;
constexpr int32_t STRING_COPY = 13;

struct DYNALIB {
    void* hLib; // the loader's handle
};

void release(const void* ptr, PSP_MEMTAG tag)
{
    psp_freeMem(ptr, tag, __FILE__, __LINE__);
}

// A record with its name; nullptr, with nothing left of it, when memory ran out.
PSP_MOD_CTX* makeContext(const char* modName)
{
    auto* ctx = static_cast<PSP_MOD_CTX*>(
        psp_memTryGet(sizeof(PSP_MOD_CTX), PSP_GLOBAL_TAG, ZERO_FILLED, nullptr));
    if (ctx == nullptr)
        return nullptr;
    ctx->name = static_cast<char*>(psp_memTryGet(0, PSP_GLOBAL_TAG, STRING_COPY, modName));
    if (ctx->name == nullptr) {
        release(ctx, PSP_GLOBAL_TAG);
        return nullptr;
    }
    return ctx;
}

void dropContext(PSP_MOD_CTX* ctx)
{
    release(ctx->name, PSP_GLOBAL_TAG);
    release(ctx, PSP_GLOBAL_TAG);
}

// Opens the file and hangs it on the context. On a failure of memory `starved` names the tag that
// ran out; a library that is open by then stays loaded.
ZYN_RETCODE openLibrary(PSP_MOD_CTX* ctx, PSP_MEMTAG& starved)
{
    const size_t size = strlen("lib") + strlen(ctx->name) + strlen(".so") + 1;
    auto* fileName = static_cast<char*>(psp_memTryGet(size, PSP_THREAD_TAG, PLAIN, nullptr));
    if (fileName == nullptr) {
        starved = PSP_THREAD_TAG;
        return eNOMEMORY;
    }
    psp_snprintf(fileName, size, "lib%s%s", ctx->name, ".so");
    void* hLib = dlopen(fileName, RTLD_NOW);
    release(fileName, PSP_THREAD_TAG);
    if (hLib == nullptr)
        return sNOTFOUND;

    auto* lib =
        static_cast<DYNALIB*>(psp_memTryGet(sizeof(DYNALIB), PSP_GLOBAL_TAG, PLAIN, nullptr));
    if (lib == nullptr) {
        starved = PSP_GLOBAL_TAG;
        return eNOMEMORY;
    }
    lib->hLib = hLib;
    ctx->OSData = lib;
    return sOKAY;
}

} // namespace

ZYN_RETCODE psp_load(const char* modName, PSP_MOD_CTX** pModCtx)
{
    if (pModCtx == nullptr)
        return eINVNULLARG;
    PSP_MOD_CTX* ctx = makeContext(modName);
    if (ctx == nullptr) {
        psp_memRaise(PSP_GLOBAL_TAG);
        return eNOMEMORY;
    }
    PSP_MEMTAG starved = nullptr;
    const ZYN_RETCODE rc = openLibrary(ctx, starved);
    if (rc == sOKAY) {
        *pModCtx = ctx;
        return sOKAY;
    }
    dropContext(ctx);
    if (starved != nullptr)
        psp_memRaise(starved);
    return rc;
}

ZYN_RETCODE psp_getFcnAddr(const PSP_MOD_CTX* modCtx, const char* fcnName, VOID_FCN* pFcnAddr)
{
    void* address = nullptr;
    if (modCtx != nullptr && modCtx->OSData != nullptr && fcnName != nullptr)
        address = dlsym(static_cast<const DYNALIB*>(modCtx->OSData)->hLib, fcnName);
    *pFcnAddr = reinterpret_cast<VOID_FCN>(address);
    return sOKAY;
}

ZYN_RETCODE psp_unload(const PSP_MOD_CTX* modCtx)
{
    if (modCtx == nullptr || modCtx->OSData == nullptr)
        return eINVNULLARG;
    if (dlclose(static_cast<const DYNALIB*>(modCtx->OSData)->hLib) != 0)
        return eUNAVAIL;
    release(modCtx->OSData, PSP_GLOBAL_TAG);
    return sOKAY;
}
