// The operating-system layer ("VFS") that SQLite opens every file through.
//
// Files. A temporary file has its name removed as soon as it is open: a killed process leaves
// nothing behind. The name of the database itself must not be a symbolic link: the journal lies
// beside the name, and two names would mean two journals, of which a recovery sees only one.
//
// One layer. SQLite starts with its built-in layers registered. They are all unregistered and ours
// put in their place, so that nothing, no file name and no pragma, can choose another.
//
// Chance. SQLite asks once, to seed its own generator: the bytes of a library generator, seeded
// from clock and process, mixed with those of the system's random device. Neither being weak
// weakens the other.

#include "sql_vfs.h"

#include "psp.h"
#include "sql_file.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace sql {
namespace {

constexpr const char* vfs_name = "psp";
constexpr int max_path = 4096;

PSP_SEM name_sem = PSP_SEM_INVALID; // guards name_counter
uint32_t name_counter = 0;

const char* new_temporary_name()
{
    psp_syncEnterExcl(name_sem);
    const char* name = psp_fileCreateTmpName(&name_counter, "sqlengine", "tmp", 0, PSP_THREAD_TAG);
    psp_syncExitExcl(name_sem);
    return name;
}

PSP_FH open_temporary_file()
{
    const char* name = new_temporary_name();
    if (name == nullptr)
        return nullptr;
    const PSP_FH handle = psp_fileOpen(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0);
    if (handle != nullptr) {
        psp_fileRemove(name);
        file_figures.temporary.fetch_add(1);
    }
    psp_freeMem(name, PSP_THREAD_TAG, __FILE__, __LINE__);
    return handle;
}

uint32_t open_flags(int flags)
{
    uint32_t result = O_CLOEXEC;
    result |= (flags & SQLITE_OPEN_READWRITE) != 0 ? O_RDWR : O_RDONLY;
    if ((flags & SQLITE_OPEN_CREATE) != 0)
        result |= O_CREAT;
    if ((flags & SQLITE_OPEN_EXCLUSIVE) != 0)
        result |= O_EXCL;
    if ((flags & SQLITE_OPEN_MAIN_DB) != 0)
        result |= O_NOFOLLOW;
    return result;
}

bool may_only_read(int error)
{
    return error == EACCES || error == EPERM || error == EROFS;
}

// Opens a file by name; what may not be written is opened for reading, and `flags` says so then.
PSP_FH open_named_file(const char* name, int* flags)
{
    const PSP_FH handle = psp_fileOpen(name, open_flags(*flags), 0);
    if (handle != nullptr || (*flags & SQLITE_OPEN_READWRITE) == 0 ||
        (*flags & SQLITE_OPEN_EXCLUSIVE) != 0 || !may_only_read(psp_errno()))
        return handle;
    const int refused = psp_errno();
    const int read_only =
        (*flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY;
    const PSP_FH reader = psp_fileOpen(name, open_flags(read_only), 0);
    if (reader != nullptr)
        *flags = read_only;
    else
        errno = refused; // why it cannot be made, rather than that it is not there
    return reader;
}

int vfs_open(sqlite3_vfs*, const char* name, sqlite3_file* base, int flags, int* out_flags)
{
    File* file = reinterpret_cast<File*>(base);
    memset(file, 0, sizeof *file);
    const bool existed = name == nullptr || psp_fileValidate(name);
    file->handle = name == nullptr ? open_temporary_file() : open_named_file(name, &flags);
    if (file->handle == nullptr)
        return file_failed(SQLITE_CANTOPEN);
    if (name != nullptr && (flags & SQLITE_OPEN_DELETEONCLOSE) != 0)
        psp_fileRemove(name);
    file->base.pMethods = &file_methods;
    file->name = name;
    file->created = !existed && (flags & SQLITE_OPEN_DELETEONCLOSE) == 0;
    file_figures.opened.fetch_add(1);
    file_figures.open_now.fetch_add(1);
    if (out_flags != nullptr)
        *out_flags = flags;
    return SQLITE_OK;
}

int vfs_delete(sqlite3_vfs*, const char* name, int sync_directory)
{
    if (!psp_fileValidate(name))
        return SQLITE_IOERR_DELETE_NOENT;
    if (psp_fileRemove(name) != sOKAY)
        return file_failed(SQLITE_IOERR_DELETE);
    file_figures.removals.fetch_add(1);
    if (sync_directory != 0 && !sync_directory_of(name))
        return file_failed(SQLITE_IOERR_DIR_FSYNC);
    return SQLITE_OK;
}

int vfs_access(sqlite3_vfs*, const char* name, int what, int* result)
{
    *result = psp_fileValidate(name);
    if (*result == 0 || what == SQLITE_ACCESS_EXISTS)
        return SQLITE_OK;
    const uint32_t flags = what == SQLITE_ACCESS_READWRITE ? O_RDWR : O_RDONLY;
    const PSP_FH handle = psp_fileOpen(name, flags | O_CLOEXEC, 0);
    *result = handle != nullptr;
    psp_fileClose(handle);
    return SQLITE_OK;
}

int vfs_full_path(sqlite3_vfs*, const char* name, int room, char* out)
{
    char* path = psp_fullpathEx(name, PSP_THREAD_TAG);
    if (path == nullptr)
        return file_failed(SQLITE_CANTOPEN_FULLPATH);
    const size_t length = strlen(path);
    const bool fits = length < static_cast<size_t>(room);
    if (fits)
        memcpy(out, path, length + 1);
    psp_freeMem(path, PSP_THREAD_TAG, __FILE__, __LINE__);
    if (fits)
        return SQLITE_OK;
    errno = ENAMETOOLONG;
    return file_failed(SQLITE_CANTOPEN_FULLPATH);
}

// ---- Extensions: not offered ----

void* vfs_no_library(sqlite3_vfs*, const char*)
{
    return nullptr;
}

void vfs_no_library_error(sqlite3_vfs*, int room, char* out)
{
    psp_snprintf(out, static_cast<size_t>(room), "extensions cannot be loaded");
}

void (*vfs_no_symbol(sqlite3_vfs*, void*, const char*))(void)
{
    return nullptr;
}

void vfs_no_close(sqlite3_vfs*, void*) {}

// ---- Chance and time ----

void fill_from_generator(char* out, uint32_t amount)
{
    const uint64_t moment = psp_timeNanoSecs() ^ (psp_get_pid() << 32);
    const PSP_RAND generator = psp_randCreateNoSem(static_cast<uint32_t>(moment ^ (moment >> 32)) ^
                                                   static_cast<uint32_t>(psp_seed()));
    memset(out, 0, amount);
    if (generator == nullptr)
        return;
    for (uint32_t i = 0; i < amount; i++)
        out[i] = static_cast<char>(psp_randGetUInt32(generator) >> 24);
    psp_randDestroy(generator);
}

void mix_in_device(char* out, uint32_t amount)
{
    const PSP_FH device = psp_fileOpen("/dev/urandom", O_RDONLY | O_CLOEXEC, 0);
    if (device == nullptr)
        return;
    char bytes[256];
    uint32_t done = 0;
    while (done < amount) {
        const uint32_t left = amount - done;
        const auto room = static_cast<uint32_t>(sizeof bytes);
        const uint32_t got = psp_fileRead(device, bytes, left < room ? left : room);
        if (got == 0)
            break;
        for (uint32_t i = 0; i < got; i++)
            out[done + i] = static_cast<char>(out[done + i] ^ bytes[i]);
        done += got;
    }
    psp_fileClose(device);
}

int vfs_randomness(sqlite3_vfs*, int amount, char* out)
{
    if (amount <= 0)
        return 0;
    fill_from_generator(out, static_cast<uint32_t>(amount));
    mix_in_device(out, static_cast<uint32_t>(amount));
    file_figures.random_bytes.fetch_add(static_cast<uint64_t>(amount));
    return amount;
}

int vfs_sleep(sqlite3_vfs*, int microseconds)
{
    const auto milliseconds =
        static_cast<uint32_t>((static_cast<int64_t>(microseconds) + 999) / 1000);
    psp_sleep(milliseconds);
    file_figures.sleeps.fetch_add(1);
    return static_cast<int>(milliseconds * 1000);
}

// Milliseconds since noon of the day 4714-11-24 before our era, Greenwich: Julian days times
// 86400000.
int vfs_time_int64(sqlite3_vfs*, sqlite3_int64* now)
{
    constexpr sqlite3_int64 unix_epoch = INT64_C(210866760000000);
    *now = unix_epoch + static_cast<sqlite3_int64>(psp_timeMilliSecs());
    return SQLITE_OK;
}

int vfs_time(sqlite3_vfs* vfs, double* now)
{
    sqlite3_int64 milliseconds = 0;
    const int result = vfs_time_int64(vfs, &milliseconds);
    *now = static_cast<double>(milliseconds) / 86400000.0;
    return result;
}

int vfs_last_error(sqlite3_vfs*, int, char*)
{
    return file_last_errno();
}

// clang-format off
sqlite3_vfs vfs = {
    2, // with the time in milliseconds
    sizeof(File),
    max_path,
    nullptr, // SQLite's link
    vfs_name,
    nullptr,
    vfs_open,
    vfs_delete,
    vfs_access,
    vfs_full_path,
    vfs_no_library, vfs_no_library_error, vfs_no_symbol, vfs_no_close,
    vfs_randomness,
    vfs_sleep,
    vfs_time,
    vfs_last_error,
    vfs_time_int64,
    nullptr, nullptr, nullptr, // replacing system calls
};
// clang-format on

} // namespace

bool vfs_install()
{
    name_sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    if (name_sem == PSP_SEM_INVALID)
        return false;
    while (sqlite3_vfs* built_in = sqlite3_vfs_find(nullptr))
        sqlite3_vfs_unregister(built_in);
    return sqlite3_vfs_register(&vfs, 1) == SQLITE_OK;
}

bool vfs_is_ours(sqlite3* db)
{
    static constexpr const char* built_in[] = {"unix", "unix-none", "unix-dotfile", "unix-excl",
                                               "memdb"};
    for (const char* name : built_in) {
        if (sqlite3_vfs_find(name) != nullptr)
            return false;
    }
    sqlite3_vfs* used = &vfs;
    if (db != nullptr)
        sqlite3_file_control(db, "main", SQLITE_FCNTL_VFS_POINTER, &used);
    return used == &vfs && sqlite3_vfs_find(nullptr) == &vfs;
}

} // namespace sql
