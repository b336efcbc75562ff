// Start and stop of the library, the process-wide flags and the critical section.
//
// The frame calls each family's hook in a fixed order and holds nothing else. Both directions run
// wholly inside the critical section; a failed start undoes its steps in reverse, so that the next
// one finds a clean process.

#include <cerrno>
#include <cstdio>

#include "psp/core.h"
#include "psp_atomic.h"
#include "psp_sync_int.h"
#include "pspint.h"

int32_t psp_inited = 0;
int32_t psp_terminating = 0;
int32_t psp_readonly = 0;
int32_t psp_diskless = 0;
int32_t psp_background = 0;

namespace {

// Not recursive, and usable at any time: it guards the start itself.
pthread_mutex_t globalMutex = PTHREAD_MUTEX_INITIALIZER;

// Locks go first, so that memory can be released without them; the block of the lock table lives
// in memory that psp_memTerm releases.
void stopCore()
{
    psp_syncShutdown();
    psp_memTerm();
}

// A failed psp_memInit has released the lock table's block with everything else: the table must
// not be shut down then, only declared unusable, which psp_init does.
ZYN_RETCODE startAll()
{
    psp_syncInit();
    ZYN_RETCODE rc = psp_memInit();
    if (rc != sOKAY)
        return rc;
    rc = psp_globalInit();
    if (rc == sOKAY) {
        psp_osInit();
        rc = psp_outputInit();
        if (rc == sOKAY)
            return sOKAY;
        psp_globalTerm();
    }
    stopCore();
    return rc;
}

void stopAll()
{
    psp_outputTerm();
    psp_tmpTerm();
    relaxed_store(psp_terminating, 1);
    psp_globalTerm();
    stopCore();
    relaxed_store(psp_terminating, 0);
}

} // namespace

ZYN_RETCODE psp_init(void)
{
    ZYN_RETCODE rc = sOKAY;
    psp_enterCritSec();
    const int32_t before = relaxed_load(psp_inited);
    relaxed_store(psp_inited, before + 1); // at once: the steps below use the library
    if (before == 0)
        rc = startAll();
    if (rc != sOKAY) {
        relaxed_store(psp_inited, before);
        relaxed_store(psp_sync_inited, false);
    }
    psp_exitCritSec();
    return rc;
}

void psp_term(void)
{
    psp_enterCritSec();
    const int32_t before = relaxed_load(psp_inited);
    if (before == 1)
        stopAll();
    relaxed_store(psp_inited, before - 1);
    psp_exitCritSec();
}

void psp_rdonly(void)
{
    relaxed_store(psp_readonly, 1);
}

void psp_nodisk(void)
{
    relaxed_store(psp_diskless, 1);
}

int32_t psp_errno(void)
{
    return errno;
}

void psp_errPrint(const char* msg)
{
    if (msg != nullptr)
        puts(msg);
}

ZYN_RETCODE psp_enterCritSec(void)
{
    psp_rankEnter(LockRank::critical_section, &globalMutex);
    pthread_mutex_lock(&globalMutex);
    return sOKAY;
}

void psp_exitCritSec(void)
{
    psp_rankLeave(&globalMutex);
    pthread_mutex_unlock(&globalMutex);
}
