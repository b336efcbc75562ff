// Threads over POSIX threads, and atomic operations on 32-bit counters.
//
// A new thread starts in a trampoline of the system's signature, which fetches body and argument
// from a small record on the heap: a function pointer is never called through another type. The
// record belongs to the thread once that exists, and to the starter until then.

#include <atomic>
#include <cstdlib>

#include "psp/core.h"
#include "psp/thread.h"
#include "psp_atomic.h"
#include "pspposix.h"

namespace {

struct ThreadStart {
    PSP_THREAD_FCN fcn; // the caller's body
    void* arg;          // its argument
};

extern "C" void* threadMain(void* record)
{
    const ThreadStart start = *static_cast<ThreadStart*>(record);
    free(record);
    const ZYN_RETCODE rc = start.fcn(start.arg);
    return reinterpret_cast<void*>(static_cast<intptr_t>(rc));
}

// What the system refuses is left at its default.
void setAttributes(pthread_attr_t* attr, uint32_t stacksize, int32_t priority)
{
    if (stacksize != 0)
        pthread_attr_setstacksize(attr, stacksize);
    if (priority != 0) {
        sched_param param{};
        pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_getschedparam(attr, &param);
        param.sched_priority = priority;
        pthread_attr_setschedparam(attr, &param);
    }
}

// The thread inherits the mask of its starter: created in between, it never gets these signals.
int createWithoutSignals(pthread_t* id, const pthread_attr_t* attr, void* record)
{
    sigset_t blocked;
    sigset_t previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    const int result = pthread_create(id, attr, threadMain, record);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return result;
}

std::atomic_ref<uint32_t> atomicRef(volatile uint32_t* data)
{
    return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(*data));
}

} // namespace

ZYN_RETCODE psp_threadBeginEx(PSP_THREAD_FCN fcn, uint32_t stacksize, void* arg,
                              psp_thread_t* pThread, int32_t priority, const char* /*name*/)
{
    if (relaxed_load(psp_inited) == 0 || fcn == nullptr || pThread == nullptr)
        return ePSP_FAILURE;
    auto* record = static_cast<ThreadStart*>(malloc(sizeof(ThreadStart)));
    if (record == nullptr)
        return ePSP_FAILURE;
    *record = {fcn, arg};

    pthread_attr_t attr{}; // all zero are the defaults, should the system refuse to fill it
    pthread_attr_init(&attr);
    setAttributes(&attr, stacksize, priority);
    const int result = createWithoutSignals(&pThread->id, &attr, record);
    pthread_attr_destroy(&attr);
    if (result != 0) {
        free(record);
        return ePSP_FAILURE;
    }
    return sOKAY;
}

ZYN_RETCODE psp_threadBegin(PSP_THREAD_FCN fcn, uint32_t stacksize, void* arg, const char* /*name*/,
                            psp_thread_t* pThread)
{
    return psp_threadBeginEx(fcn, stacksize, arg, pThread, 0, nullptr);
}

// A body may end its thread with a wider exit value of its own: the low 32 bits are the status.
ZYN_RETCODE psp_threadJoin(psp_thread_t* pThread)
{
    void* value = nullptr;
    if (pThread == nullptr || pthread_join(pThread->id, &value) != 0)
        return ePSP_FAILURE;
    return static_cast<ZYN_RETCODE>(reinterpret_cast<intptr_t>(value));
}

psp_thread_id_t psp_threadId(void)
{
    return pthread_self();
}

void psp_atomicIncrUInt32(volatile uint32_t* data)
{
    atomicRef(data).fetch_add(1);
}

void psp_atomicDecrUInt32(volatile uint32_t* data)
{
    atomicRef(data).fetch_sub(1);
}

uint32_t psp_atomicSetUInt32(volatile uint32_t* data, uint32_t oldval, uint32_t newval)
{
    return atomicRef(data).compare_exchange_strong(oldval, newval) ? 1 : 0;
}
