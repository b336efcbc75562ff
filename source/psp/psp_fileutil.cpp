// Whole files by name: copying, comparing, removing, asking, and names for temporary files.
//
// Copying and comparing walk two open files side by side in blocks of 1024 bytes, at explicit
// offsets, through two small buffers. The copy reads before it writes, so an equal block of the
// destination is never written. Whatever happens, both files are closed before a tag may jump.
#include "psp/fileutil.h"

#include "psp/core.h"
#include "psp/file.h"
#include "psp/format.h"
#include "psp/mem.h"
#include "psp/process.h"
#include "psp/tmpdir.h"
#include "psp_atomic.h"
#include "pspint.h"
#include "pspposix.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t block_size = 1024;

// Two open files, each with a buffer of one block in the thread's tag.
struct FILE_PAIR {
    PSP_FH src;
    PSP_FH dest;
    void* src_block;
    void* dest_block;
};

bool diskless()
{
    return relaxed_load(psp_diskless) != 0;
}

void free_block(const void* block)
{
    psp_freeMem(block, PSP_THREAD_TAG, __FILE__, __LINE__);
}

bool get_blocks(FILE_PAIR& pair)
{
    pair.src_block = psp_memTryGet(block_size, PSP_THREAD_TAG, PSP_MEM_PLAIN, nullptr);
    if (pair.src_block != nullptr)
        pair.dest_block = psp_memTryGet(block_size, PSP_THREAD_TAG, PSP_MEM_PLAIN, nullptr);
    return pair.dest_block != nullptr;
}

// Also for a pair that is only half built.
void close_pair(const FILE_PAIR& pair)
{
    free_block(pair.src_block);
    free_block(pair.dest_block);
    psp_fileClose(pair.dest);
    psp_fileClose(pair.src);
}

// ---- Copying ----

// Whether the destination holds the same `count` bytes at `addr` as the source's block.
bool same_block(const FILE_PAIR& pair, PSP_FILE_OFFSET addr, uint32_t count)
{
    return psp_fileSeekRead(pair.dest, addr, pair.dest_block, count) == count &&
           memcmp(pair.src_block, pair.dest_block, count) == 0;
}

ZYN_RETCODE copy_blocks(const FILE_PAIR& pair, PSP_FILE_OFFSET src_length,
                        PSP_FILE_OFFSET dest_length)
{
    PSP_FILE_OFFSET addr = 0;
    while (addr < src_length) {
        const uint32_t count = psp_fileSeekRead(pair.src, addr, pair.src_block, block_size);
        if (count == 0)
            return ePSP_FAILURE;
        const PSP_FILE_OFFSET end = addr + count;
        if (end > dest_length || !same_block(pair, addr, count)) {
            if (psp_fileSeekWrite(pair.dest, addr, pair.src_block, count) != count)
                return ePSP_FAILURE;
        }
        addr = end;
    }
    return sOKAY;
}

ZYN_RETCODE copy_contents(const FILE_PAIR& pair)
{
    const PSP_FILE_OFFSET src_length = psp_fileLength(pair.src);
    const PSP_FILE_OFFSET dest_length = psp_fileLength(pair.dest);
    const ZYN_RETCODE rc = copy_blocks(pair, src_length, dest_length);
    if (rc != sOKAY || src_length == dest_length)
        return rc;
    return psp_fileSetSize(pair.dest, src_length);
}

// ---- Comparing ----

ZYN_RETCODE compare_contents(const FILE_PAIR& pair)
{
    PSP_FILE_OFFSET addr = 0;
    for (;;) {
        const uint32_t count = psp_fileSeekRead(pair.src, addr, pair.src_block, block_size);
        if (count == 0) { // the second file must end here as well
            const uint32_t more = psp_fileSeekRead(pair.dest, addr, pair.dest_block, 1);
            return more == 1 ? ePSP_FAILURE : sOKAY;
        }
        if (!same_block(pair, addr, count))
            return ePSP_FAILURE;
        addr += count;
    }
}

} // namespace

ZYN_RETCODE psp_fileCopyEx(const char* src_name, uint16_t src_xflags, const char* dest_name,
                           uint16_t dest_xflags)
{
    FILE_PAIR pair = {};
    pair.src = psp_fileOpen(src_name, O_RDONLY, src_xflags);
    if (pair.src == nullptr)
        return ePSP_FAILURE;
    pair.dest = psp_fileOpen(dest_name, O_RDWR | O_CREAT, dest_xflags);
    const bool ready = pair.dest != nullptr && get_blocks(pair);
    const bool raise = pair.dest != nullptr && !ready;
    const ZYN_RETCODE rc = ready ? copy_contents(pair) : ePSP_FAILURE;
    close_pair(pair);
    if (raise)
        psp_memRaise(PSP_THREAD_TAG);
    return rc;
}

ZYN_RETCODE psp_fileCopy(const char* src_name, const char* dest_name)
{
    return psp_fileCopyEx(src_name, 0, dest_name, 0);
}

ZYN_RETCODE psp_fileCmp(const char* src_name, const char* dest_name)
{
    FILE_PAIR pair = {};
    pair.src = psp_fileOpen(src_name, O_RDONLY, 0);
    if (pair.src == nullptr)
        return ePSP_NOSOURCE;
    pair.dest = psp_fileOpen(dest_name, O_RDONLY, 0);
    ZYN_RETCODE rc = ePSP_NODEST;
    if (pair.dest != nullptr)
        rc = get_blocks(pair) ? compare_contents(pair) : eNOMEMORY;
    close_pair(pair);
    if (rc == eNOMEMORY)
        psp_memRaise(PSP_THREAD_TAG);
    return rc;
}

// ---- Removing and asking ----

ZYN_RETCODE psp_fileRemoveEx(const char* name, uint16_t)
{
    if (diskless() || relaxed_load(psp_readonly) != 0 || name == nullptr)
        return ePSP_FAILURE;
    return remove(name) == 0 || errno == ENOENT ? sOKAY : ePSP_FAILURE;
}

ZYN_RETCODE psp_fileRemove(const char* name)
{
    return psp_fileRemoveEx(name, 0);
}

ZYN_BOOL_T psp_fileValidateEx(const char* name, uint16_t, ZYN_BOOL_T* isdir)
{
    struct stat status;
    if (diskless() || name == nullptr || stat(name, &status) != 0)
        return ZYN_FALSE;
    if (isdir != nullptr)
        *isdir = S_ISDIR(status.st_mode) ? ZYN_TRUE : ZYN_FALSE;
    return ZYN_TRUE;
}

ZYN_BOOL_T psp_fileValidate(const char* name)
{
    return psp_fileValidateEx(name, 0, nullptr);
}

ZYN_RETCODE psp_fileModTimeStat(const char* fname, uint16_t, time64_t* pModTime)
{
    if (diskless())
        return eFILEOPEN;
    if (fname == nullptr)
        return eINVFILE;
    struct stat status;
    if (stat(fname, &status) != 0)
        return errno == ENOENT ? eFILEOPEN : eINVFILE;
    if (pModTime != nullptr)
        *pModTime = status.st_mtime;
    return sOKAY;
}

// ---- Names for temporary files ----

const char* psp_fileCreateTmpName(uint32_t* puFileNo, const char* pszBaseName, const char* pszExt,
                                  uint16_t, PSP_MEMTAG tag)
{
    if (puFileNo == nullptr)
        return nullptr;
    const auto pid = static_cast<unsigned long>(psp_get_pid());
    const char* dir = psp_tmpdir(PSP_THREAD_TAG);
    const uint32_t number = (*puFileNo)++;

    // The same arguments measure and write; the directory is the thread's until both are done.
    const auto format = [&](char* str, size_t size) {
        return psp_snprintf(str, size, "%s%c%s_%p_%010lu_%03u.%s", dir == nullptr ? "" : dir, '/',
                            pszBaseName == nullptr ? "temp" : pszBaseName,
                            static_cast<void*>(puFileNo), pid, number,
                            pszExt == nullptr ? "tmp" : pszExt);
    };
    const int length = format(nullptr, 0);
    const size_t size = static_cast<size_t>(length) + 1; // 0 when formatting failed
    auto* name = static_cast<char*>(psp_memTryGet(size, tag, PSP_MEM_PLAIN, nullptr));
    if (name != nullptr)
        format(name, size);
    psp_freeMem(dir, PSP_THREAD_TAG, __FILE__, __LINE__);
    if (name == nullptr && length >= 0)
        psp_memRaise(tag);
    return name;
}
