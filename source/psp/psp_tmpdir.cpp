// The directory for temporary files: a search over fixed candidates, done once and kept.
//
// A candidate is proved by creating a file in it and removing it again. The search runs inside the
// process's critical section, so that threads that ask at the same time probe once; nothing that
// is called in there may jump. The choice, once made, is read without it: the string is complete
// before its address is published.
#include "psp/tmpdir.h"

#include "psp/core.h"
#include "psp/file.h"
#include "psp/fileutil.h"
#include "psp/mem.h"
#include "psp/process.h"
#include "psp/thread.h"
#include "psp_atomic.h"
#include "psp_file_int.h"
#include "pspint.h"
#include "pspposix.h"

#include <cstdio>
#include <cstring>

char psp_usertmpdir[PSP_USERTMPDIR_SIZE];

namespace {

constexpr size_t probe_size = 512; // room for the name of the file that is tried

// The choice, in the global tag; null while there is none. Written by the search, which publishes
// the string with it, and cleared where nobody is searching.
constinit std::atomic<const char*> psp_tmp{nullptr};

const char* copy_for(const char* dir, PSP_MEMTAG tag)
{
    return static_cast<const char*>(psp_getMem(0, tag, PSP_MEM_STRING, dir, __FILE__, __LINE__));
}

void forget_choice()
{
    const char* dir = psp_tmp.exchange(nullptr, std::memory_order_acq_rel);
    psp_freeMem(dir, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

// The first usable directory of those that have a name; null when none is.
const char* psp_findOStmpdir()
{
    const char* const candidates[] = {
        *psp_usertmpdir != '\0' ? psp_usertmpdir : nullptr,
        psp_getenv("TMPDIR"),
        psp_getenv("TEMPDIR"),
        "/tmp",
    };
    for (const char* dir : candidates) {
        if (dir != nullptr && psp_dirWritable(dir))
            return dir;
    }
    return nullptr;
}

// Finds the directory and stores a string of the global tag through `dir`: sOKAY, eNOMEMORY, or
// ePSP_FAILURE when none is usable. Never jumps.
ZYN_RETCODE psp_osTmpdir(char** dir)
{
    const char* found = psp_findOStmpdir();
    if (found != nullptr) {
        *dir = static_cast<char*>(psp_memTryGet(0, PSP_GLOBAL_TAG, PSP_MEM_STRING, found));
        return *dir == nullptr ? eNOMEMORY : sOKAY;
    }
    const ZYN_RETCODE rc = psp_currdirTry(PSP_GLOBAL_TAG, dir);
    if (rc != sOKAY || psp_dirWritable(*dir))
        return rc;
    psp_freeMem(*dir, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    return ePSP_FAILURE;
}

// Fills the choice unless another thread was faster; it stays empty when none can be made.
void choose()
{
    ZYN_RETCODE rc = sOKAY;
    psp_enterCritSec();
    if (psp_tmp.load(std::memory_order_relaxed) == nullptr) {
        char* dir;
        rc = psp_osTmpdir(&dir);
        if (rc == sOKAY)
            psp_tmp.store(dir, std::memory_order_release);
    }
    psp_exitCritSec();
    if (rc == eNOMEMORY)
        psp_memRaise(PSP_GLOBAL_TAG);
}

} // namespace

const char* psp_tmpdir(PSP_MEMTAG tag)
{
    if (relaxed_load(psp_inited) == 0)
        return nullptr;
    const char* dir = psp_getenv("ZYN_TMPDIR");
    if (dir != nullptr)
        return copy_for(dir, tag);
    dir = psp_tmp.load(std::memory_order_acquire);
    if (dir == nullptr) {
        choose();
        dir = psp_tmp.load(std::memory_order_acquire);
    }
    return dir == nullptr ? nullptr : copy_for(dir, tag);
}

ZYN_RETCODE psp_setTmpDir(const char* dir)
{
    const size_t length = dir == nullptr ? 0 : strnlen(dir, sizeof(psp_usertmpdir) - 1);
    memmove(psp_usertmpdir, dir == nullptr ? "" : dir, length); // `dir` may be the array itself
    psp_usertmpdir[length] = '\0';
    if (relaxed_load(psp_inited) != 0)
        forget_choice();
    return sOKAY;
}

ZYN_BOOL_T psp_dirWritable(const char* dir)
{
    if (dir == nullptr)
        return ZYN_FALSE;
    // Process and thread keep probes of one directory apart.
    char probe[probe_size];
    snprintf(probe, sizeof(probe), "%s%czyn_dirtest_tmp_%lX_%p", dir, '/',
             static_cast<unsigned long>(psp_get_pid()), reinterpret_cast<void*>(psp_threadId()));
    PSP_FH file = psp_fileOpen(probe, O_RDWR | O_CREAT, 0);
    if (file == nullptr)
        return ZYN_FALSE;
    psp_fileClose(file);
    psp_fileRemove(probe);
    return ZYN_TRUE;
}

void psp_tmpTerm()
{
    forget_choice();
}
