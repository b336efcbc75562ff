// The methods of an open file.
//
// Reading and writing carry their own offset, so threads need no lock here. The library's reads
// and writes give a count, and 0 for both "end of the file" and "failed"; `errno`, which a
// successful call leaves at 0, tells them apart. What SQLite wants and the file does not have is
// filled with zeros.
//
// Locking. SQLite knows five levels so that readers may share; the library's lock is one lock on
// the whole file that never waits. Any level above NONE therefore means that this file holds the
// lock, and going up costs nothing. Nobody can ever be between levels, so no two connections can
// wait for each other; who finds the lock taken gets "busy" and asks again later.
//
// Never say that something is durable before the system said so: a new file's directory entry is
// synchronised together with its contents.

#include "sql_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace sql {

FileFigures file_figures;

namespace {

thread_local int last_errno = 0;

File* as_file(sqlite3_file* file)
{
    return reinterpret_cast<File*>(file);
}

bool no_room(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

int file_close(sqlite3_file* base)
{
    File* file = as_file(base);
    psp_fileClose(file->handle);
    file->handle = nullptr;
    file_figures.open_now.fetch_sub(1);
    return SQLITE_OK;
}

int file_read(sqlite3_file* base, void* buffer, int amount, sqlite3_int64 offset)
{
    char* to = static_cast<char*>(buffer);
    const auto wanted = static_cast<uint32_t>(amount);
    uint32_t done = 0;
    while (done < wanted) {
        const uint32_t got =
            psp_fileSeekRead(as_file(base)->handle, static_cast<PSP_FILE_OFFSET>(offset) + done,
                             to + done, wanted - done);
        if (got == 0)
            break;
        done += got;
    }
    const bool failed = done < wanted && psp_errno() != 0;
    file_figures.reads.fetch_add(1);
    file_figures.bytes_read.fetch_add(done);
    if (failed)
        return file_failed(SQLITE_IOERR_READ);
    if (done == wanted)
        return SQLITE_OK;
    memset(to + done, 0, wanted - done);
    return SQLITE_IOERR_SHORT_READ;
}

int file_write(sqlite3_file* base, const void* buffer, int amount, sqlite3_int64 offset)
{
    if (amount <= 0)
        return SQLITE_OK;
    const auto wanted = static_cast<uint32_t>(amount);
    const uint32_t done = psp_fileSeekWrite(as_file(base)->handle,
                                            static_cast<PSP_FILE_OFFSET>(offset), buffer, wanted);
    if (done != wanted)
        return file_failed(no_room(psp_errno()) ? SQLITE_FULL : SQLITE_IOERR_WRITE);
    file_figures.writes.fetch_add(1);
    file_figures.bytes_written.fetch_add(done);
    return SQLITE_OK;
}

int file_truncate(sqlite3_file* base, sqlite3_int64 size)
{
    if (psp_fileSetSize(as_file(base)->handle, static_cast<PSP_FILE_OFFSET>(size)) != sOKAY)
        return file_failed(SQLITE_IOERR_TRUNCATE);
    file_figures.truncations.fetch_add(1);
    return SQLITE_OK;
}

int file_sync(sqlite3_file* base, int)
{
    File* file = as_file(base);
    if (psp_fileSync(file->handle) != sOKAY)
        return file_failed(SQLITE_IOERR_FSYNC);
    file_figures.syncs.fetch_add(1);
    if (!file->created)
        return SQLITE_OK;
    if (!sync_directory_of(file->name))
        return file_failed(SQLITE_IOERR_DIR_FSYNC);
    file->created = false;
    return SQLITE_OK;
}

// A length of 0 may also mean that the question failed, and a database taken for empty would be
// overwritten; seeking to the end tells the two apart. Nothing here uses the handle's own offset.
int file_size(sqlite3_file* base, sqlite3_int64* size)
{
    const PSP_FH handle = as_file(base)->handle;
    PSP_FILE_OFFSET length = psp_fileLength(handle);
    if (length == 0 && psp_fileSeek(handle, 0, SEEK_END, &length) != sOKAY)
        return file_failed(SQLITE_IOERR_FSTAT);
    *size = static_cast<sqlite3_int64>(length);
    return SQLITE_OK;
}

// ---- Locking ----

int take_lock(File* file)
{
    if (psp_fileLock(file->handle) == sOKAY) {
        file_figures.locks_taken.fetch_add(1);
        return SQLITE_OK;
    }
    const int error = psp_errno();
    if (error != EWOULDBLOCK && error != EINTR)
        return file_failed(SQLITE_IOERR_LOCK);
    file_figures.locks_refused.fetch_add(1);
    return SQLITE_BUSY;
}

int file_lock(sqlite3_file* base, int level)
{
    File* file = as_file(base);
    if (file->lock == SQLITE_LOCK_NONE) {
        const int result = take_lock(file);
        if (result != SQLITE_OK)
            return result;
    }
    if (file->lock < level)
        file->lock = level;
    return SQLITE_OK;
}

int file_unlock(sqlite3_file* base, int level)
{
    File* file = as_file(base);
    if (level == SQLITE_LOCK_NONE && file->lock != SQLITE_LOCK_NONE)
        psp_fileUnlock(file->handle);
    if (file->lock > level)
        file->lock = level;
    return SQLITE_OK;
}

// Does anyone prepare to write? Holding the lock, only we can; else who holds it might.
int file_check_reserved(sqlite3_file* base, int* reserved)
{
    File* file = as_file(base);
    if (file->lock != SQLITE_LOCK_NONE) {
        *reserved = file->lock >= SQLITE_LOCK_RESERVED;
        return SQLITE_OK;
    }
    const int result = take_lock(file);
    if (result == SQLITE_OK)
        psp_fileUnlock(file->handle);
    *reserved = result == SQLITE_BUSY;
    return result == SQLITE_BUSY ? SQLITE_OK : result;
}

// ---- What SQLite may assume ----

int file_control(sqlite3_file* base, int operation, void* argument)
{
    if (operation != SQLITE_FCNTL_LOCKSTATE)
        return SQLITE_NOTFOUND;
    *static_cast<int*>(argument) = as_file(base)->lock;
    return SQLITE_OK;
}

int file_sector_size(sqlite3_file*)
{
    return 4096;
}

// Nothing: no write is atomic, none arrives in order, and a power failure may hurt its neighbours.
int file_characteristics(sqlite3_file*)
{
    return 0;
}

} // namespace

// clang-format off
const sqlite3_io_methods file_methods = {
    1, // no shared memory, so no write-ahead log; no mapping
    file_close,
    file_read,
    file_write,
    file_truncate,
    file_sync,
    file_size,
    file_lock,
    file_unlock,
    file_check_reserved,
    file_control,
    file_sector_size,
    file_characteristics,
    nullptr, nullptr, nullptr, nullptr, // shared memory
    nullptr, nullptr,                   // mapping
};
// clang-format on

int file_failed(int code)
{
    last_errno = psp_errno();
    return code;
}

int file_last_errno()
{
    return last_errno;
}

bool sync_directory_of(const char* name)
{
    char* directory = nullptr;
    if (psp_pathSplitEx(name, &directory, nullptr, PSP_THREAD_TAG) != sOKAY || directory == nullptr)
        return false;
    const bool done = psp_dirSync(directory) == sOKAY;
    psp_freeMem(directory, PSP_THREAD_TAG, __FILE__, __LINE__);
    if (done)
        file_figures.directory_syncs.fetch_add(1);
    return done;
}

} // namespace sql
