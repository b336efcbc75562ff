// Paths as text, and the directories of the file system.
//
// Only psp_dirCreateAll knows '\' as a separator. Nothing is resolved: a path is split, joined and
// shortened by one separator as it is written, and one quirk follows that callers rely on: the
// root shortened is the empty string, which then counts as relative.
//
// A function that holds a string while it needs another allocates without jumping, gives the
// first back, and only then lets the tag raise its jump.
#include "psp/path.h"

#include "psp/core.h"
#include "psp/mem.h"
#include "psp_atomic.h"
#include "psp_file_int.h"
#include "psp_probe.h"
#include "pspint.h"
#include "pspposix.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t currdir_step = 10; // by which the buffer for getcwd starts and grows

bool diskless()
{
    return relaxed_load(psp_diskless) != 0;
}

// psp_freeMem for strings of this file
void drop(const char* str, PSP_MEMTAG tag)
{
    psp_freeMem(str, tag, __FILE__, __LINE__);
}

char* copy_string(const char* str, PSP_MEMTAG tag)
{
    return static_cast<char*>(psp_memTryGet(0, tag, PSP_MEM_STRING, str));
}

// Copies the first `length` bytes of a string that is at least as long.
char* copy_start(const char* str, size_t length, PSP_MEMTAG tag)
{
    auto* copy = static_cast<char*>(psp_memTryGet(length + 1, tag, PSP_MEM_COPY, str));
    if (copy != nullptr)
        copy[length] = '\0';
    return copy;
}

// Grows *buf until the current directory fits in; *buf stays owned by the caller whatever happens.
ZYN_RETCODE read_currdir(PSP_MEMTAG tag, char** buf)
{
    for (size_t size = currdir_step;; size += currdir_step) {
        void* grown = psp_memTryExtend(*buf, size, tag, PSP_MEM_PLAIN, currdir_step, nullptr);
        if (grown == nullptr)
            return eNOMEMORY;
        *buf = static_cast<char*>(grown);
        if (getcwd(*buf, size) != nullptr)
            return sOKAY;
        if (errno != ERANGE)
            return ePSP_FAILURE;
    }
}

} // namespace

// ---- Paths as text ----

char* normalize_path(char* path)
{
    char* last = path + strlen(path) - 1;
    if (*last == '/')
        *last = '\0';
    return path;
}

char* psp_pathJoin(const char* dir, const char* name, PSP_MEMTAG tag)
{
    const size_t size = strlen(dir) + strlen(name) + 2;
    auto* path = static_cast<char*>(psp_memTryGet(size, tag, PSP_MEM_PLAIN, nullptr));
    if (path != nullptr)
        snprintf(path, size, "%s/%s", dir, name);
    return path;
}

namespace {

// Joins the current directory and `relative`, a string of `tag`. The result is the thread's: only
// the two parts are the caller's tag's.
char* join_currdir(const char* relative, PSP_MEMTAG tag)
{
    char* dir;
    const ZYN_RETCODE rc = psp_currdirTry(tag, &dir);
    if (rc != sOKAY) {
        drop(relative, tag);
        if (rc == eNOMEMORY)
            psp_memRaise(tag);
        return nullptr;
    }
    char* path = psp_pathJoin(normalize_path(dir), relative, PSP_THREAD_TAG);
    drop(dir, tag);
    drop(relative, tag);
    if (path == nullptr)
        psp_memRaise(PSP_THREAD_TAG);
    return path;
}

} // namespace

char* psp_fullpathEx(const char* userpath, PSP_MEMTAG tag)
{
    if (userpath == nullptr || *userpath == '\0' || strcmp(userpath, ".") == 0 ||
        strcmp(userpath, "./") == 0) {
        char* dir = psp_currdirEx(tag);
        return dir == nullptr ? nullptr : normalize_path(dir);
    }
    auto* path =
        static_cast<char*>(psp_getMem(0, tag, PSP_MEM_STRING, userpath, __FILE__, __LINE__));
    if (path == nullptr || *normalize_path(path) == '/')
        return path;
    return join_currdir(path, tag);
}

ZYN_RETCODE psp_pathSplitEx(const char* path, char** dir, char** file, PSP_MEMTAG tag)
{
    if (path == nullptr)
        return eINVNULLARG;
    const char* separator = strrchr(path, '/');
    const char* name = separator == nullptr ? path : separator + 1;
    const auto dirlen = static_cast<size_t>(name - path);
    // A path without a separator is all name, even when it is empty.
    const bool want_file = file != nullptr && (dirlen == 0 || *name != '\0');
    const bool want_dir = dir != nullptr && dirlen != 0;

    char* filecopy = nullptr;
    char* dircopy = nullptr;
    bool done = !want_file || (filecopy = copy_string(name, tag)) != nullptr;
    done = done && (!want_dir || (dircopy = copy_start(path, dirlen, tag)) != nullptr);
    if (!done) {
        drop(filecopy, tag);
        psp_memRaise(tag);
        return eNOMEMORY;
    }
    if (file != nullptr)
        *file = filecopy;
    if (dir != nullptr)
        *dir = dircopy;
    return sOKAY;
}

const char* psp_pathStripDrive(const char* path)
{
    return path;
}

ZYN_RETCODE psp_pathIsDir(const char* path)
{
    if (path == nullptr || *path == '\0')
        return eINVNULLARG;
    return path[strlen(path) - 1] == '/' ? sOKAY : sNOTFOUND;
}

// ---- The current directory ----

ZYN_RETCODE psp_currdirTry(PSP_MEMTAG tag, char** dir)
{
    *dir = nullptr;
    if (diskless()) {
        *dir = copy_string("/", tag);
        return *dir == nullptr ? eNOMEMORY : sOKAY;
    }
    const ZYN_RETCODE rc = read_currdir(tag, dir);
    if (rc != sOKAY) {
        drop(*dir, tag);
        *dir = nullptr;
    }
    return rc;
}

char* psp_currdirEx(PSP_MEMTAG tag)
{
    char* dir;
    if (psp_currdirTry(tag, &dir) == eNOMEMORY)
        psp_memRaise(tag);
    return dir;
}

// ---- Directories ----

ZYN_RETCODE psp_dirCreate(const char* dir)
{
    if (diskless() || dir == nullptr)
        return ePSP_FAILURE;
    if (mkdir(dir, 0777) == 0)
        return sOKAY;
    return errno == EEXIST ? sDUPLICATE : ePSP_FAILURE;
}

namespace {

// Makes every parent that `path` names, rewriting it to '/' on the way: sOKAY when all exist.
ZYN_RETCODE create_parents(char* path)
{
    // A separator at the start is the root, which exists.
    for (char* pos = path + 1; *pos != '\0'; ++pos) {
        if (*pos != '/' && *pos != '\\')
            continue;
        *pos = '\0';
        const ZYN_RETCODE rc = psp_dirCreate(path);
        if (rc != sOKAY && rc != sDUPLICATE)
            return rc;
        *pos = '/';
    }
    return sOKAY;
}

} // namespace

ZYN_RETCODE psp_dirCreateAll(const char* directory)
{
    if (diskless() || directory == nullptr)
        return ePSP_FAILURE;
    ZYN_RETCODE rc = psp_dirCreate(directory); // mostly the parents exist and one call does it
    if (rc == sOKAY || rc == sDUPLICATE || *directory == '\0')
        return rc;
    auto* path = static_cast<char*>(
        psp_getMem(0, PSP_THREAD_TAG, PSP_MEM_STRING, directory, __FILE__, __LINE__));
    if (path == nullptr)
        return eNOMEMORY;
    rc = create_parents(path);
    if (rc == sOKAY)
        rc = psp_dirCreate(path);
    drop(path, PSP_THREAD_TAG);
    return rc;
}

ZYN_RETCODE psp_dirRemove(const char* dir)
{
    if (diskless() || dir == nullptr)
        return ePSP_FAILURE;
    return rmdir(dir) == 0 || errno == ENOENT ? sOKAY : ePSP_FAILURE;
}

ZYN_RETCODE psp_dirSync(const char* path)
{
    const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_DIRECTORY);
    if (fd == -1)
        return ePSP_FAILURE;
    const ZYN_RETCODE rc = fsync(fd) == 0 ? sOKAY : ePSP_FAILURE;
    PSP_PROBE3(file_sync, path, fd, rc);
    const int saved_errno = errno;
    close(fd);
    errno = saved_errno;
    return rc;
}
