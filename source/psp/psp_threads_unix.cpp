// The synchronisation table: recursive mutexes and manual-reset events behind handles.
//
// Creating and deleting an object costs a scan of at most 128 slots under semTabMutex and a pop or
// push on a chain; entering and leaving a mutex costs one look at the flag and, for the first
// level, one lock of the system's. A freed entry is the next to be reused, lower slots first.
//
// While the table is not usable every operation does nothing: at the end of a stop memory is
// released without locks. Nothing may be called under semTabMutex but the allocation of a block,
// which takes the global tag's own mutex inside it.

#include <cerrno>
#include <cstdlib>

#include "psp/core.h"
#include "psp/output.h"
#include "psp/sync.h"
#include "psp/time.h"
#include "psp_atomic.h"
#include "psp_probe.h"
#include "psp_sync_int.h"
#include "pspint.h"

PSP_SEM_TABLE sem_table[SEM_TABLE_SLOTS];
pthread_mutex_t semTabMutex = PTHREAD_MUTEX_INITIALIZER;
bool psp_sync_inited = false;

namespace {

constexpr int64_t NANOSECS_A_SECOND = 1'000'000'000;
constexpr uint32_t MILLISECS_A_SECOND = 1000;
constexpr uint32_t NANOSECS_A_MILLISEC = 1'000'000;

inline bool usable()
{
    return relaxed_load(psp_sync_inited);
}

// pthread_self() without a call: with this C library a thread's id is its thread pointer.
inline psp_thread_id_t callingThread()
{
    return reinterpret_cast<psp_thread_id_t>(__builtin_thread_pointer());
}

inline clockid_t waitClock()
{
    return relaxed_load(gUseMonotonicClock) > 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

// Without memory for a block no lock can be made, and callers have no way to go on without: the
// process ends here. No message: printing one needs memory, and at start the stacks are not there.
void semAddBlock(PSP_SEM_TABLE& slot)
{
    void* block = psp_memTryGet(SEM_BLOCK_ENTRIES * sizeof(PSP_SEM_ENTRY), PSP_GLOBAL_TAG,
                                PSP_MEM_PLAIN, nullptr);
    if (block == nullptr)
        abort();
    slot = {static_cast<PSP_SEM_ENTRY*>(block), 0, 0};
}

void lockTable()
{
    psp_rankEnter(LockRank::sync_table, &semTabMutex);
    pthread_mutex_lock(&semTabMutex);
}

void unlockTable()
{
    psp_rankLeave(&semTabMutex);
    pthread_mutex_unlock(&semTabMutex);
}

PSP_SEM_ENTRY* semPop(PSP_SEM_TABLE& slot)
{
    const int16_t at = slot.avail;
    PSP_SEM_ENTRY* entry = &slot.entry[at];
    slot.avail = sem_after(slot, at);
    if (at == slot.untouched) {
        ++slot.untouched;
        entry->owner = &slot;
    }
    entry->avail = SEM_ALLOCATED;
    return entry;
}

// nullptr when all blocks are full.
PSP_SEM_ENTRY* semTakeFree()
{
    for (PSP_SEM_TABLE& slot : sem_table) {
        if (slot.entry == nullptr)
            semAddBlock(slot);
        if (slot.avail != SEM_CHAIN_END)
            return semPop(slot);
    }
    return nullptr;
}

PSP_SEM_ENTRY* semGetNewEntry(const char* file, int32_t line)
{
    lockTable();
    PSP_SEM_ENTRY* entry = semTakeFree();
    unlockTable();
    if (entry == nullptr) {
        // A call upward: the log is the only place where the operator can learn the reason.
        psp_log("Insufficient number of semaphores, called from %s:%d\n", file, line);
        abort();
    }
    return entry;
}

// The entry may have held a mutex that is destroyed: should the system refuse, a usable one is
// left.
void initSystemMutex(pthread_mutex_t& mutex)
{
    mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_init(&mutex, nullptr);
}

void initMutex(PSP_MUTEX_ENTRY& m)
{
    initSystemMutex(m.mutex);
    m.count = 0;
    relaxed_store(m.id, 0);
}

void initEvent(PSP_EVENT_ENTRY& e)
{
    initSystemMutex(e.mutex);
    e.cond = PTHREAD_COND_INITIALIZER;
    pthread_condattr_t attr{}; // all zero are the defaults, should the system refuse to fill it
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, waitClock());
    pthread_cond_init(&e.cond, &attr);
    pthread_condattr_destroy(&attr);
    e.flag = 1;
}

// Only a build with probes asks whether somebody has the mutex. The id tells nearly always: it is
// written just after the mutex is taken, and taken back just before that is released.
void lockMutex(PSP_MUTEX_ENTRY& m)
{
#ifdef PSP_PROBES
    if (const psp_thread_id_t holder = relaxed_load(m.id); holder != 0) [[unlikely]] {
        PSP_PROBE2(lock_wait, &m, holder);
        pthread_mutex_lock(&m.mutex);
        PSP_PROBE1(lock_got, &m);
        return;
    }
#endif
    pthread_mutex_lock(&m.mutex);
}

void lockEvent(PSP_EVENT_ENTRY& e)
{
    psp_rankEnter(LockRank::event, &e);
    pthread_mutex_lock(&e.mutex);
}

void unlockEvent(PSP_EVENT_ENTRY& e)
{
    psp_rankLeave(&e);
    pthread_mutex_unlock(&e.mutex);
}

void psemDelete(PSP_SEM_ENTRY& entry)
{
    if (entry.type == PSP_SEM_MUTEX) {
        pthread_mutex_destroy(&entry.obj.m.mutex);
    } else if (entry.type == PSP_SEM_EVENT) {
        pthread_mutex_destroy(&entry.obj.e.mutex);
        pthread_cond_destroy(&entry.obj.e.cond);
    }
}

} // namespace

// Slots get their blocks in their order: what follows the first one without a block is clear.
void psp_syncInit()
{
    for (PSP_SEM_TABLE& slot : sem_table) {
        if (slot.entry == nullptr)
            break;
        slot = {};
    }
    relaxed_store(psp_sync_inited, true);
}

// The slots keep their pointers, dangling: the next start clears them.
void psp_syncShutdown()
{
    relaxed_store(psp_sync_inited, false);
    for (const PSP_SEM_TABLE& slot : sem_table) {
        if (slot.entry == nullptr)
            break;
        for (int16_t i = 0; i < slot.untouched; ++i) {
            if (slot.entry[i].avail == SEM_ALLOCATED)
                psemDelete(slot.entry[i]);
        }
        psp_freeMem(slot.entry, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    }
}

PSP_SEM psp_syncCreate_check(int16_t type, const char* file, int32_t line)
{
    if (!usable() || relaxed_load(psp_inited) == 0)
        return PSP_SEM_INVALID;
    PSP_SEM_ENTRY* entry = semGetNewEntry(file, line);
    entry->type = type;
    psp_syncRank(entry, LockRank::unranked);
    if (type == PSP_SEM_MUTEX) {
        initMutex(entry->obj.m);
    } else if (type == PSP_SEM_EVENT) {
        initEvent(entry->obj.e);
    } else {
        // The entry stays taken. A call upward: this caller's mistake must not pass in silence.
        psp_log("Invalid semaphore type\n");
        return PSP_SEM_INVALID;
    }
    return entry;
}

void psp_syncDelete(PSP_SEM sem)
{
    if (sem == PSP_SEM_INVALID || !usable())
        return;
    PSP_SEM_TABLE* slot = sem->owner;
    psemDelete(*sem);
    sem->type = 0;
    lockTable();
    sem->avail = slot->avail;
    slot->avail = static_cast<int16_t>(sem - slot->entry);
    unlockTable();
}

// The id is read without the lock. Only the holder can find its own id there, and it alone changes
// the id while it holds the mutex, so any other value means "not mine"; id is 0 while nobody holds
// it, so one comparison also says that count is not 0. The count is the holder's alone: it changes
// in place, by one instruction, where an atomic load and a store would be three.
//
// The layout is measured: a nested pair needs no call, no stack frame and no jump, which makes it
// nearly as cheap as two calls of empty functions; the first level can bear a jump.
// The alignment keeps both at that wherever the linker puts them.
[[gnu::aligned(64)]] ZYN_RETCODE psp_syncEnterExcl(PSP_SEM sem)
{
    if (!usable()) [[unlikely]]
        return sOKAY;
    PSP_MUTEX_ENTRY& m = sem->obj.m;
    if (relaxed_load(m.id) == callingThread()) [[likely]] {
        ++m.count;
        return sOKAY;
    }
    psp_rankEnter(rank_of(*sem), sem);
    lockMutex(m);
    m.count = 1;
    relaxed_store(m.id, callingThread());
    return sOKAY;
}

[[gnu::aligned(64)]] void psp_syncExitExcl(PSP_SEM sem)
{
    if (!usable()) [[unlikely]] {
        psp_rankLeave(sem);
        return;
    }
    PSP_MUTEX_ENTRY& m = sem->obj.m;
    if (--m.count != 0) [[likely]]
        return;
    relaxed_store(m.id, 0);
    psp_rankLeave(sem);
    pthread_mutex_unlock(&m.mutex);
}

void psp_syncStart(PSP_SEM sem)
{
    if (!usable())
        return;
    PSP_EVENT_ENTRY& e = sem->obj.e;
    lockEvent(e);
    e.flag = 0;
    unlockEvent(e);
}

void psp_syncResume(PSP_SEM sem)
{
    if (!usable())
        return;
    PSP_EVENT_ENTRY& e = sem->obj.e;
    lockEvent(e);
    e.flag = 1;
    pthread_cond_broadcast(&e.cond);
    unlockEvent(e);
}

ZYN_RETCODE psp_syncWait(PSP_SEM sem, uint32_t timeout)
{
    if (!usable())
        return ePSP_FAILURE;
    PSP_EVENT_ENTRY& e = sem->obj.e;
    ZYN_RETCODE rc = sOKAY;
    lockEvent(e);
    while (e.flag == 0 && rc != sTIMEOUT) {
        if (timeout == PSP_SYNC_FOREVER)
            pthread_cond_wait(&e.cond, &e.mutex);
        else if (timeout == 0)
            rc = sTIMEOUT; // the system would sleep for as long as its timers are inexact
        else
            rc = psp_posix_cond_timedwait(&e.cond, &e.mutex, timeout);
    }
    unlockEvent(e);
    return rc;
}

ZYN_RETCODE psp_posix_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, uint32_t t)
{
    timespec deadline{};
    clock_gettime(waitClock(), &deadline);
    deadline.tv_sec += t / MILLISECS_A_SECOND;
    deadline.tv_nsec += static_cast<int64_t>(t % MILLISECS_A_SECOND) * NANOSECS_A_MILLISEC;
    // Exactly one second stays in the nanoseconds; such a wait fails at once and is begun anew.
    if (deadline.tv_nsec > NANOSECS_A_SECOND) {
        deadline.tv_sec += deadline.tv_nsec / NANOSECS_A_SECOND;
        deadline.tv_nsec %= NANOSECS_A_SECOND;
    }
    const int result = pthread_cond_timedwait(c, m, &deadline);
    return result == ETIMEDOUT || result == ETIME ? sTIMEOUT : sOKAY;
}
