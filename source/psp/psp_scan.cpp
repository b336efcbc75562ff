// Listing a directory by a pattern, and the pattern matcher.
//
// A scan is a record over a platform record that holds the directory stream. Both live in the
// global tag, the name last handed out in the thread's tag. No jump may leave an open directory
// behind, so everything that is allocated while a scan opens comes without jumping.
//
// The matcher goes back to the last star only. Between two stars the pattern consumes a fixed
// number of bytes, and a later star takes up whatever an earlier start of that stretch leaves
// over, so trying earlier stars again could find nothing new. The time is bounded by the product
// of the two lengths, and no stack is used.
#include "psp/scan.h"

#include "psp/core.h"
#include "psp/mem.h"
#include "psp_atomic.h"
#include "psp_file_int.h"
#include "pspint.h"
#include "pspposix.h"

#include <cctype>

// The platform's part of a scan.
struct FILE_DIR_ENTRY {
    DIR* entry;          // the directory stream
    const char* path;    // copy of the directory's path, global tag
    const char* pattern; // copy of the pattern, global tag
    const char* tmp;     // the name last returned, thread's tag; null before the first
};
typedef FILE_DIR_ENTRY* PSP_DIR_ENTRY;

struct DIR_ENTRY {
    uint16_t inmemory;  // always 0: every directory is on the disk
    const wchar_t* tmp; // always null: names need no conversion
    PSP_DIR_ENTRY data; // the platform's part
};

namespace {

template <class T>
T* new_record()
{
    return static_cast<T*>(psp_memTryGet(sizeof(T), PSP_GLOBAL_TAG, PSP_MEM_ZERO, nullptr));
}

const char* global_copy(const char* str)
{
    return static_cast<const char*>(psp_memTryGet(0, PSP_GLOBAL_TAG, PSP_MEM_STRING, str));
}

void global_free(const void* ptr)
{
    psp_freeMem(ptr, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

// ---- The platform's part ----

// Also for a record that is only half built.
void psp_flPathClose(PSP_DIR_ENTRY data)
{
    if (data->entry != nullptr)
        closedir(data->entry);
    psp_freeMem(data->tmp, PSP_THREAD_TAG, __FILE__, __LINE__);
    global_free(data->pattern);
    global_free(data->path);
    global_free(data);
}

// Opens the directory, stored through `pdata`: sOKAY, ePSP_FAILURE or eNOMEMORY.
ZYN_RETCODE psp_flPathOpen(const char* path, const char* pattern, PSP_DIR_ENTRY* pdata)
{
    PSP_DIR_ENTRY data = new_record<FILE_DIR_ENTRY>();
    if (data == nullptr)
        return eNOMEMORY;
    ZYN_RETCODE rc = sOKAY;
    data->entry = opendir(path);
    if (data->entry == nullptr)
        rc = ePSP_FAILURE;
    else if ((data->path = global_copy(path)) == nullptr ||
             (data->pattern = global_copy(pattern)) == nullptr)
        rc = eNOMEMORY;
    if (rc == sOKAY)
        *pdata = data;
    else
        psp_flPathClose(data);
    return rc;
}

// 1 when `path` is a directory, else 0.
uint32_t getPathType(const char* path)
{
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

// 1 when the entry is a directory, else 0. Not every file system tells the type with the name.
uint32_t getFileType(const FILE_DIR_ENTRY* data, const struct dirent* entry)
{
    if (entry->d_type != DT_UNKNOWN)
        return entry->d_type == DT_DIR ? 1 : 0;
    const char* path = psp_pathJoin(data->path, entry->d_name, PSP_THREAD_TAG);
    if (path == nullptr) {
        psp_memRaise(PSP_THREAD_TAG);
        return 0;
    }
    const uint32_t isdir = getPathType(path);
    psp_freeMem(path, PSP_THREAD_TAG, __FILE__, __LINE__);
    return isdir;
}

const char* psp_flPathNext(PSP_DIR_ENTRY data, uint32_t* isdir)
{
    psp_freeMem(data->tmp, PSP_THREAD_TAG, __FILE__, __LINE__);
    data->tmp = nullptr;
    const struct dirent* entry;
    do {
        // Safe while each thread has its own stream, and a scan is one thread's.
        entry = readdir(data->entry); // NOLINT(concurrency-mt-unsafe)
        if (entry == nullptr)
            return nullptr;
    } while (!psp_match(entry->d_name, data->pattern));
    if (isdir != nullptr)
        *isdir = getFileType(data, entry);
    data->tmp = static_cast<const char*>(
        psp_getMem(0, PSP_THREAD_TAG, PSP_MEM_STRING, entry->d_name, __FILE__, __LINE__));
    return data->tmp;
}

} // namespace

// ---- Scans ----

PSP_DIR psp_pathOpenEx(const char* path, uint16_t, const char* pattern)
{
    if (path == nullptr || pattern == nullptr)
        return nullptr;
    ZYN_RETCODE rc = eNOMEMORY;
    PSP_DIR dir = new_record<DIR_ENTRY>();
    if (dir != nullptr)
        rc = relaxed_load(psp_diskless) != 0 ? ePSP_FAILURE
                                             : psp_flPathOpen(path, pattern, &dir->data);
    if (rc == sOKAY)
        return dir;
    global_free(dir);
    if (rc == eNOMEMORY)
        psp_memRaise(PSP_GLOBAL_TAG);
    return nullptr;
}

PSP_DIR psp_pathOpen(const char* path, const char* pattern)
{
    return psp_pathOpenEx(path, 0, pattern);
}

const char* psp_pathNext(PSP_DIR dir, uint32_t* isdir)
{
    if (dir == nullptr || dir->data == nullptr)
        return nullptr;
    return psp_flPathNext(dir->data, isdir);
}

void psp_pathClose(PSP_DIR dir)
{
    if (dir == nullptr)
        return;
    if (dir->data != nullptr)
        psp_flPathClose(dir->data);
    global_free(dir->tmp);
    global_free(dir);
}

// ---- Matching ----

namespace {

// Bytes count as signed; toupper takes them from -128 on.
int upper(char ch)
{
    return toupper(static_cast<signed char>(ch));
}

// Whether one pattern character other than a star accepts one byte.
bool accepts(char wanted, char ch)
{
    if (wanted == '?')
        return true;
    if (wanted == '#') // capital letters only, though all else ignores case
        return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'F');
    return upper(wanted) == upper(ch);
}

// The first place in `str` of a byte, in either case; null when it has none.
const char* find_literal(const char* str, char wanted)
{
    const int folded = upper(wanted);
    for (; *str != '\0'; ++str) {
        if (upper(*str) == folded)
            return str;
    }
    return nullptr;
}

} // namespace

ZYN_BOOL_T psp_match(const char* str, const char* pattern)
{
    if (str == nullptr || pattern == nullptr)
        return ZYN_FALSE;
    const char* literal = nullptr; // what follows the last star and stands for itself
    const char* retry = nullptr;   // where to look for it next
    for (;;) {
        if (*pattern == '*') {
            literal = pattern + 1;
            retry = str;
            if (*literal == '\0')
                return ZYN_TRUE;
        } else if (*str == '\0') {
            return *pattern == '\0' ? ZYN_TRUE : ZYN_FALSE;
        } else if (*pattern != '\0' && accepts(*pattern, *str)) {
            ++pattern;
            ++str;
            continue;
        }
        // A new star, or a mismatch: the stretch after the last star starts one place later.
        if (literal == nullptr || (str = find_literal(retry, *literal)) == nullptr)
            return ZYN_FALSE;
        retry = ++str;
        pattern = literal + 1;
    }
}
