// File handles: each owns one descriptor from open to close, a copy of the file's name and the
// table of primitives chosen by that name.
//
// Every operation is a guard on how the handle was opened and one call through its table; there
// is no buffer, no cache of descriptors and no list of handles. All records live in one tag with a
// mutex of its own, kept in the registry of globals, so opening and closing is safe from any
// thread. Transfers take no lock.
//
// Closing must never change errno: the caller is about to read why an earlier call failed.
#include "psp/file.h"

#include <atomic>

#include "psp/core.h"
#include "psp/global.h"
#include "psp/mem.h"
#include "psp/sync.h"
#include "psp_atomic.h"
#include "psp_file_int.h"
#include "psp_file_transfer.h"
#include "psp_mem_data_int.h"
#include "psp_probe.h"
#include "psp_sync_int.h"
#include "pspint.h"
#include "pspposix.h"

namespace {

constexpr uint32_t create_flags = O_CREAT | O_TRUNC;
constexpr uint32_t guarded_flags = O_WRONLY | O_RDWR | O_CREAT; // refused in read-only mode

// Only O_WRONLY takes reading away; the value of O_RDWR is a bit of its own.
bool readable(PSP_FH handle)
{
    return handle != nullptr && (handle->flags & O_WRONLY) == 0;
}

bool writable(PSP_FH handle)
{
    return handle != nullptr && (handle->flags & (O_WRONLY | O_RDWR)) != 0;
}

// Runs a slot of a handle's table. The slot of both tables is `Usual`, which then runs in place.
template <auto Usual, class... Args>
ZYN_RETCODE run(decltype(Usual) slot, Args... args)
{
    return slot == Usual ? Usual(args...) : slot(args...);
}

// ---- Records ----
//
// A record and its name are two blocks. They come and go under one entry into the tag's mutex: the
// entries of the allocations themselves are nested then, and cheap.

// None while the library stops: its tags are released without locks, and this one may be gone.
PSP_SEM mutex_of(PSP_MEMTAG tag)
{
    return tag != nullptr && relaxed_load(psp_terminating) == 0 ? tag->t_sem : PSP_SEM_INVALID;
}

// The file tag has no jump buffer: a failed allocation comes back as null.
PSPFTAB* get_blocks(const char* name, PSP_MEMTAG tag)
{
    const PSP_SEM sem = mutex_of(tag);
    mem_enter(sem);
    auto* entry = static_cast<PSPFTAB*>(
        psp_getMem(sizeof(PSPFTAB), tag, PSP_MEM_ZERO, nullptr, __FILE__, __LINE__));
    if (entry != nullptr)
        entry->name =
            static_cast<const char*>(psp_getMem(0, tag, PSP_MEM_STRING, name, __FILE__, __LINE__));
    mem_exit(sem);
    return entry;
}

void free_blocks(const PSPFTAB* entry, PSP_MEMTAG tag)
{
    const PSP_SEM sem = mutex_of(tag);
    mem_enter(sem);
    psp_freeMem(entry->name, tag, __FILE__, __LINE__);
    psp_freeMem(entry, tag, __FILE__, __LINE__);
    mem_exit(sem);
}

// Closes what the record holds and frees it; also for a record that is only half built.
void release(PSPFTAB* entry, PSP_MEMTAG tag)
{
    const int saved_errno = errno;
    // A descriptor of value 0 reads like none, and is left alone.
    if (entry->handle != nullptr && entry->fcns->close != nullptr) {
        [[maybe_unused]] const ZYN_RETCODE rc = entry->fcns->close(entry->handle);
        PSP_PROBE3(file_close, entry->name, entry->handle, rc);
    }
    if (entry->lock != PSP_SEM_INVALID)
        psp_syncDelete(entry->lock);
    free_blocks(entry, tag);
    errno = saved_errno;
}

PSPFTAB* new_entry(const char* name, uint32_t flags, uint16_t xflags, PSP_MEMTAG tag)
{
    PSPFTAB* entry = get_blocks(name, tag);
    if (entry == nullptr)
        return nullptr;
    entry->flags = (flags & O_TRUNC) != 0 ? flags | O_CREAT : flags;
    entry->xflags = xflags;
    entry->lock = PSP_SEM_INVALID;
    if (entry->name != nullptr)
        return entry;
    release(entry, tag);
    return nullptr;
}

// The kind of file that a record is for; null when a switch of the process forbids to open it.
const PSP_FILE_FCNS* choose_fcns(const PSPFTAB* entry)
{
    if (check_for_stdio(entry->name, nullptr))
        return &stdio_file_fcns;
    if (relaxed_load(psp_readonly) != 0 && (entry->flags & guarded_flags) != 0)
        return nullptr;
    if (relaxed_load(psp_diskless) != 0)
        return nullptr;
    return &normal_file_fcns;
}

bool open_entry(PSPFTAB* entry, ZYN_BOOL_T* is_console)
{
    entry->fcns = choose_fcns(entry);
    if (entry->fcns == nullptr || entry->fcns->open == nullptr)
        return false;
    const ZYN_RETCODE rc = entry->fcns->open(entry->ctx, entry->name, entry->flags, entry->xflags,
                                             &entry->handle, is_console);
    PSP_PROBE4(file_open, entry->name, entry->handle, entry->flags, rc);
    if (rc != sOKAY)
        return false;
    entry->flags &= ~create_flags; // asked for once, done
    return true;
}

// What the registry gave, and how many removals it had counted before: opening and closing do not
// ask it again until there are more.
std::atomic<PSP_FILE_GLOBALS*> known_globals{nullptr};
uint64_t known_since = 0;

} // namespace

// ---- The layer's state ----

ZYN_RETCODE psp_fileInit(void* data)
{
    auto* globals = static_cast<PSP_FILE_GLOBALS*>(data);
    return psp_createTagEx_rc(nullptr, 1, BLOCK_ALLOCATOR, nullptr, nullptr, &globals->fileTag,
                              __FILE__, __LINE__);
}

void psp_fileTerm(void* data)
{
    auto* globals = static_cast<PSP_FILE_GLOBALS*>(data);
    psp_freeTagMem(globals->fileTag, ZYN_TRUE, __FILE__, __LINE__);
    globals->fileTag = nullptr;
}

// Never jumps: files are opened and closed under locks of the layers above.
PSP_FILE_GLOBALS* psp_fileGlobals()
{
    PSP_FILE_GLOBALS* const known = known_globals.load(std::memory_order_acquire);
    const uint64_t removals = relaxed_load(psp_globalRemovals);
    if (known != nullptr && relaxed_load(known_since) == removals) [[likely]]
        return known;
    void* data = nullptr;
    bool exhausted = false;
    const ZYN_RETCODE rc = psp_globalTryGet("pspfile", sizeof(PSP_FILE_GLOBALS), psp_fileInit,
                                            psp_fileTerm, &data, &exhausted);
    if (rc != sOKAY)
        return nullptr;
    auto* const globals = static_cast<PSP_FILE_GLOBALS*>(data);
    if (relaxed_load(psp_globalRemovals) == removals) { // else somebody may know better
        relaxed_store(known_since, removals);
        known_globals.store(globals, std::memory_order_release);
    }
    return globals;
}

// ---- Opening and closing ----

PSP_FH psp_fileOpenStd(const char* name, uint32_t flags, uint16_t xflags, ZYN_BOOL_T* is_console)
{
    if (name == nullptr || relaxed_load(psp_inited) == 0)
        return nullptr;
    const PSP_FILE_GLOBALS* globals = psp_fileGlobals();
    if (globals == nullptr)
        return nullptr;
    PSPFTAB* entry = new_entry(name, flags, xflags, globals->fileTag);
    if (entry == nullptr || open_entry(entry, is_console))
        return entry;
    release(entry, globals->fileTag);
    return nullptr;
}

PSP_FH psp_fileOpen(const char* name, uint32_t flags, uint16_t xflags)
{
    return psp_fileOpenStd(name, flags, xflags, nullptr);
}

void psp_fileClose(PSP_FH handle)
{
    if (handle == nullptr)
        return;
    // Without the state the record is gone already.
    const PSP_FILE_GLOBALS* globals = psp_fileGlobals();
    if (globals != nullptr)
        release(handle, globals->fileTag);
}

// ---- Transfer ----

uint32_t psp_fileRead(PSP_FH handle, void* buf, uint32_t size)
{
    if (!readable(handle) || size == 0)
        return 0;
    size_t count = 0;
    const ZYN_RETCODE rc = run<psp_flRead>(handle->fcns->read, handle->handle, buf, size, &count);
    return rc == sOKAY ? static_cast<uint32_t>(count) : 0;
}

uint32_t psp_fileWrite(PSP_FH handle, const void* buf, uint32_t size)
{
    if (!writable(handle) || size == 0)
        return 0;
    return run<psp_flWrite>(handle->fcns->write, handle->handle, buf, size) == sOKAY ? size : 0;
}

uint32_t psp_fileSeekRead(PSP_FH handle, PSP_FILE_OFFSET addr, void* buf, uint32_t size)
{
    if (!readable(handle) || size == 0)
        return 0;
    size_t count = 0;
    const ZYN_RETCODE rc =
        run<psp_flSeekRead>(handle->fcns->seek_read, handle->handle, addr, buf, size, &count);
    return rc == sOKAY ? static_cast<uint32_t>(count) : 0;
}

uint32_t psp_fileSeekWrite(PSP_FH handle, PSP_FILE_OFFSET addr, const void* buf, uint32_t size)
{
    if (!writable(handle) || size == 0)
        return 0;
    return run<psp_flSeekWrite>(handle->fcns->seek_write, handle->handle, addr, buf, size) == sOKAY
               ? size
               : 0;
}

uint32_t psp_fileConsoleRead(PSP_FH handle, void* buf, uint32_t size)
{
    if (!readable(handle) || size == 0 || handle->fcns->console_read == nullptr)
        return 0;
    size_t count = 0;
    const ZYN_RETCODE rc = handle->fcns->console_read(handle->handle, buf, size, &count);
    return rc == sOKAY ? static_cast<uint32_t>(count) : 0;
}

uint32_t psp_fileConsoleWrite(PSP_FH handle, const void* buf, uint32_t size)
{
    if (!writable(handle) || size == 0 || handle->fcns->console_write == nullptr)
        return 0;
    return handle->fcns->console_write(handle->handle, buf, size) == sOKAY ? size : 0;
}

// ---- Control ----

ZYN_RETCODE psp_fileSeek(PSP_FH handle, PSP_FILE_OFFSET addr, int32_t origin,
                         PSP_FILE_OFFSET* newaddr)
{
    if (handle == nullptr)
        return eINVNULLARG;
    return handle->fcns->seek(handle->handle, addr, origin, newaddr);
}

PSP_FILE_OFFSET psp_fileLength(PSP_FH handle)
{
    PSP_FILE_OFFSET length = 0;
    if (handle == nullptr || handle->fcns->length(handle->handle, &length) != sOKAY)
        return 0;
    return length;
}

ZYN_RETCODE psp_fileSetSize(PSP_FH handle, PSP_FILE_OFFSET size)
{
    if (handle == nullptr)
        return eINVNULLARG;
    if (!writable(handle))
        return eBADWRITE;
    return handle->fcns->set_size(handle->handle, size);
}

ZYN_RETCODE psp_fileSync(PSP_FH handle)
{
    if (handle == nullptr)
        return eINVNULLARG;
    if ((handle->xflags & PSP_XFLAG_NOSYNC) != 0 || relaxed_load(psp_readonly) != 0 ||
        handle->fcns->sync == nullptr)
        return sOKAY;
    const ZYN_RETCODE rc = handle->fcns->sync(handle->handle);
    PSP_PROBE3(file_sync, handle->name, handle->handle, rc);
    return rc;
}

ZYN_RETCODE psp_filePageOut(PSP_FH handle, PSP_FILE_OFFSET addr, uint32_t size)
{
    if (handle == nullptr)
        return eINVNULLARG;
    if (size == 0 || handle->fcns->page_out == nullptr)
        return sOKAY;
    return handle->fcns->page_out(handle->handle, addr, size);
}

// ---- Mapping ----

ZYN_RETCODE psp_fileMap(PSP_FH handle, size_t size, void** pMap)
{
    if (handle == nullptr)
        return eINVNULLARG;
    if (handle->fcns->map == nullptr)
        return eNOTIMPLEMENTED;
    return handle->fcns->map(handle->handle, size, pMap);
}

ZYN_RETCODE psp_fileRemap(PSP_FH handle, size_t old_size, void* old_map, size_t new_size,
                          void** pMap)
{
    if (handle == nullptr)
        return eINVNULLARG;
    if (handle->fcns->remap == nullptr)
        return eNOTIMPLEMENTED;
    return handle->fcns->remap(handle->handle, old_size, old_map, new_size, pMap);
}

ZYN_RETCODE psp_fileUnmap(PSP_FH handle, size_t size, void* map)
{
    if (handle == nullptr)
        return eINVNULLARG;
    if (handle->fcns->unmap == nullptr)
        return eNOTIMPLEMENTED;
    return handle->fcns->unmap(handle->handle, size, map);
}

// ---- Locking ----

ZYN_RETCODE psp_fileLock(PSP_FH handle)
{
    if (handle == nullptr)
        return eINVNULLARG;
    if (handle->lock == PSP_SEM_INVALID) {
        handle->lock = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
        psp_syncRank(handle->lock, LockRank::file_handle);
    }
    if (handle->lock == PSP_SEM_INVALID)
        return ePSP_MUTEX_FAILURE;
    psp_syncEnterExcl(handle->lock);
    const ZYN_RETCODE rc = handle->fcns->lock(handle->handle);
    psp_syncExitExcl(handle->lock);
    return rc;
}

void psp_fileUnlock(PSP_FH handle)
{
    if (handle == nullptr || handle->lock == PSP_SEM_INVALID)
        return;
    psp_syncEnterExcl(handle->lock);
    handle->fcns->unlock(handle->handle);
    psp_syncExitExcl(handle->lock);
}
