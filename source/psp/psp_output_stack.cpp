// The stacks of output destinations, the process's three and those of log contexts.
//
// A stack is a chain of levels; levels with the same name share one open stream, which is closed
// with the last of them. Pushing looks through the chain, popping is O(1). The mutex is held over
// every look at the chain except the first one of a pop; never over a jump, and never two at a
// time. Levels and names come from a stack allocator: what is popped stays with the tag until the
// stack goes, which suits the few redirections of a process.

#include <strings.h>

#include "psp/core.h"
#include "psp/format.h"
#include "psp/mem.h"
#include "psp/output.h"
#include "psp/sync.h"
#include "psp_atomic.h"
#include "psp_output_int.h"
#include "psp_stream_int.h"
#include "psp_sync_int.h"
#include "pspint.h"

namespace {

// Zero until start, which means without mutex and empty.
PSP_FILE_STACK g_psp_log_stack;
PSP_FILE_STACK g_psp_stdout_stack;
PSP_FILE_STACK g_psp_stderr_stack;

inline bool hasMutex(const PSP_FILE_STACK* stack)
{
    return stack->sem != PSP_SEM_INVALID && stack->sem != nullptr;
}

// The state after the end, on which every operation is harmless.
void clearStack(PSP_FILE_STACK* stack)
{
    stack->sem = PSP_SEM_INVALID;
    stack->tag = nullptr;
    relaxed_store(stack->root, nullptr);
}

void freeTo(const PSP_FILE_STACK* stack, const void* ptr)
{
    psp_freeMem(ptr, stack->tag, __FILE__, __LINE__);
}

bool isNamed(const PSP_FILE_INFO* info, const char* name)
{
    if (info->name == nullptr || name == nullptr)
        return info->name == name;
    return strcasecmp(info->name, name) == 0;
}

PSP_FILE_INFO* findInfo(const PSP_FILE_STACK* stack, const char* name)
{
    for (const PSP_FILE_ENTRY* entry = stack->root; entry != nullptr; entry = entry->next)
        if (isNamed(entry->info, name))
            return entry->info;
    return nullptr;
}

ZYN_RETCODE openInfo(const PSP_FILE_STACK* stack, PSP_FILE_INFO* info, const char* name,
                     bool* exhausted)
{
    info->name = static_cast<const char*>(psp_memTryGet(0, stack->tag, PSP_MEM_STRING, name));
    if (info->name == nullptr)
        return eNOMEMORY;
    const ZYN_RETCODE rc = psp_streamOpen(name, "w", PSP_FILE_MODE_UTF8, 0, &info->file);
    *exhausted = rc == eNOMEMORY;
    return rc == sOKAY ? sOKAY : eFILEOPEN;
}

void freeInfo(const PSP_FILE_STACK* stack, PSP_FILE_INFO* info)
{
    psp_fclose(info->file);
    freeTo(stack, info->name);
    freeTo(stack, info);
}

ZYN_RETCODE newInfo(const PSP_FILE_STACK* stack, const char* name, PSP_FILE_INFO** pinfo,
                    bool* exhausted)
{
    auto* info = static_cast<PSP_FILE_INFO*>(
        psp_memTryGet(sizeof(PSP_FILE_INFO), stack->tag, PSP_MEM_ZERO, nullptr));
    if (info == nullptr)
        return eNOMEMORY;
    const ZYN_RETCODE rc = name == nullptr ? sOKAY : openInfo(stack, info, name, exhausted);
    if (rc != sOKAY)
        freeInfo(stack, info);
    else
        *pinfo = info;
    return rc;
}

ZYN_RETCODE push(PSP_FILE_STACK* stack, const char* name, bool* exhausted)
{
    auto* entry = static_cast<PSP_FILE_ENTRY*>(
        psp_memTryGet(sizeof(PSP_FILE_ENTRY), stack->tag, PSP_MEM_PLAIN, nullptr));
    if (entry == nullptr)
        return eNOMEMORY;
    entry->info = findInfo(stack, name);
    if (entry->info == nullptr) {
        const ZYN_RETCODE rc = newInfo(stack, name, &entry->info, exhausted);
        if (rc != sOKAY) {
            freeTo(stack, entry);
            return rc;
        }
    }
    ++entry->info->count;
    entry->next = stack->root;
    relaxed_store(stack->root, entry);
    return sOKAY;
}

// Standard output, standard error, log, in this order; all or none.
ZYN_RETCODE initStacks(PSP_FILE_STACK* out, PSP_FILE_STACK* err, PSP_FILE_STACK* log,
                       bool* exhausted)
{
    ZYN_RETCODE rc = psp_fileStackInit(out, "stdout", exhausted);
    if (rc != sOKAY)
        return rc;
    rc = psp_fileStackInit(err, "stderr", exhausted);
    if (rc != sOKAY) {
        psp_fileStackTerm(out);
        return rc;
    }
    return psp_fileStackInit(log, nullptr, exhausted); // opens nothing: it cannot fail
}

ZYN_RETCODE openOn(PSP_FILE_STACK* stack, const char* name)
{
    if (relaxed_load(psp_inited) == 0)
        return ePSP_FAILURE;
    bool exhausted = false;
    const ZYN_RETCODE rc = psp_fileStackOpen(stack, name, &exhausted);
    if (exhausted)
        psp_memRaise(PSP_GLOBAL_TAG);
    return rc;
}

void closeOn(PSP_FILE_STACK* stack)
{
    if (relaxed_load(psp_inited) != 0)
        psp_fileStackClose(stack);
}

} // namespace

// ---- One stack ----

PSP_FILE_STACK* get_stdout_stack(PSP_LOG_CTX* ctx)
{
    return ctx == nullptr ? &g_psp_stdout_stack : &ctx->psp_stdout_stack;
}

PSP_FILE_STACK* get_stderr_stack(PSP_LOG_CTX* ctx)
{
    return ctx == nullptr ? &g_psp_stderr_stack : &ctx->psp_stderr_stack;
}

PSP_FILE_STACK* get_log_stack(PSP_LOG_CTX* ctx)
{
    return ctx == nullptr ? &g_psp_log_stack : &ctx->psp_log_stack;
}

// Without its mutex a stack works unlocked, without its tag every push fails: neither needs a look
// here.
ZYN_RETCODE psp_fileStackInit(PSP_FILE_STACK* stack, const char* initname, bool* exhausted)
{
    clearStack(stack);
    stack->sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    psp_syncRank(stack->sem, LockRank::output_stack);
    stack->tag = psp_createTagEx(nullptr, 0, STACK_ALLOCATOR, nullptr, nullptr, __FILE__, __LINE__);
    if (initname == nullptr)
        return sOKAY;
    const ZYN_RETCODE rc = psp_fileStackOpen(stack, initname, exhausted);
    if (rc != sOKAY)
        psp_fileStackTerm(stack);
    return rc;
}

void psp_fileStackTerm(PSP_FILE_STACK* stack)
{
    // The stop of the library frees all tags: a context that outlives it has no levels left.
    while (relaxed_load(psp_inited) != 0 && relaxed_load(stack->root) != nullptr)
        psp_fileStackClose(stack);
    psp_syncDelete(stack->sem);
    psp_freeTagMem(stack->tag, ZYN_TRUE, __FILE__, __LINE__);
    clearStack(stack);
}

ZYN_RETCODE psp_fileStackOpen(PSP_FILE_STACK* stack, const char* name, bool* exhausted)
{
    const bool named = name != nullptr && *name != '\0';
    psp_fileStackLock(stack);
    const ZYN_RETCODE rc = push(stack, named ? name : nullptr, exhausted);
    psp_fileStackRelease(stack);
    return rc;
}

void psp_fileStackClose(PSP_FILE_STACK* stack)
{
    if (relaxed_load(stack->root) == nullptr)
        return;
    psp_fileStackLock(stack);
    PSP_FILE_ENTRY* top = stack->root;
    if (top != nullptr) { // still: another thread may have been faster
        if (--top->info->count == 0)
            freeInfo(stack, top->info);
        relaxed_store(stack->root, top->next);
    }
    psp_fileStackRelease(stack);
    freeTo(stack, top);
}

void psp_fileStackLock(PSP_FILE_STACK* stack)
{
    if (hasMutex(stack))
        psp_syncEnterExcl(stack->sem);
}

void psp_fileStackRelease(PSP_FILE_STACK* stack)
{
    if (hasMutex(stack))
        psp_syncExitExcl(stack->sem);
}

// ---- The process's stacks ----

// No jump here: this runs inside the critical section, before anyone can have set a jump buffer.
ZYN_RETCODE psp_outputInit()
{
    bool exhausted = false;
    return initStacks(&g_psp_stdout_stack, &g_psp_stderr_stack, &g_psp_log_stack, &exhausted);
}

void psp_outputTerm()
{
    psp_fileStackTerm(&g_psp_log_stack);
    psp_fileStackTerm(&g_psp_stdout_stack);
    psp_fileStackTerm(&g_psp_stderr_stack);
}

// ---- Contexts ----

ZYN_RETCODE psp_log_initCtx(PSP_LOG_CTX* ctx)
{
    if (ctx == nullptr)
        return eINVNULLARG;
    ctx->magic = PSP_LOG_CTX_MAGIC;
    for (PSP_FILE_STACK* stack :
         {&ctx->psp_log_stack, &ctx->psp_stdout_stack, &ctx->psp_stderr_stack})
        clearStack(stack); // so that psp_log_termCtx is harmless after a failure, too
    bool exhausted = false;
    const ZYN_RETCODE rc =
        initStacks(&ctx->psp_stdout_stack, &ctx->psp_stderr_stack, &ctx->psp_log_stack, &exhausted);
    if (exhausted)
        psp_memRaise(PSP_GLOBAL_TAG);
    return rc;
}

void psp_log_termCtx(PSP_LOG_CTX* ctx)
{
    if (ctx == nullptr || ctx->magic != PSP_LOG_CTX_MAGIC)
        return;
    psp_fileStackTerm(&ctx->psp_log_stack);
    psp_fileStackTerm(&ctx->psp_stderr_stack);
    psp_fileStackTerm(&ctx->psp_stdout_stack);
}

// ---- Opening and closing ----

ZYN_RETCODE psp_log_openEx(PSP_LOG_CTX* ctx, const char* name)
{
    return openOn(get_log_stack(ctx), name);
}

void psp_log_closeEx(PSP_LOG_CTX* ctx)
{
    closeOn(get_log_stack(ctx));
}

ZYN_RETCODE psp_stdout_openEx(PSP_LOG_CTX* ctx, const char* stdout_name)
{
    return openOn(get_stdout_stack(ctx), stdout_name);
}

void psp_stdout_closeEx(PSP_LOG_CTX* ctx)
{
    closeOn(get_stdout_stack(ctx));
}

// A log that cannot be opened must not keep a server from starting: only the path counts.
ZYN_RETCODE psp_log_createEx(PSP_LOG_CTX* ctx, const char* docroot, const char* name)
{
    const char* path =
        psp_makeStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, "%s%c%s", docroot, '/', name);
    if (path == nullptr)
        return eNOMEMORY;
    bool exhausted = false;
    psp_fileStackOpen(get_log_stack(ctx), path, &exhausted);
    psp_freeMem(path, PSP_THREAD_TAG, __FILE__, __LINE__);
    if (exhausted)
        psp_memRaise(PSP_GLOBAL_TAG);
    return sOKAY;
}
