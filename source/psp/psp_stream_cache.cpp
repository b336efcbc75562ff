// The 1024-byte cache between a text stream and its file handle.
//
// The cache is a window over a file that is read and written in sequence: it is refilled or flushed
// as a whole when the position leaves it, so the handle sees one call for each 1024 bytes and a
// byte costs a compare and a copy. It never seeks. A handle that failed to write reports 0 bytes,
// which passes for success here: the bytes stay marked, and no error reaches the stream.

#include <algorithm>
#include <cstring>

#include "psp/file.h"
#include "psp/mem.h"
#include "psp_stream_int.h"
#include "pspint.h"

static_assert(offsetof(PSP_FILE_CACHE_CTX, bytes) == 32);
static_assert(offsetof(PSP_FILE_CACHE_CTX, buff) == 44);

namespace {

// Where the position lies in the window; beyond every valid index when it lies before it.
inline PSP_FILE_OFFSET windowPos(const PSP_FILE_CACHE_CTX* cache)
{
    return cache->off - cache->buff_off;
}

PSP_FILE_CACHE_CTX* newCache()
{
    return static_cast<PSP_FILE_CACHE_CTX*>(
        psp_memTryGet(sizeof(PSP_FILE_CACHE_CTX), PSP_GLOBAL_TAG, PSP_MEM_ZERO, nullptr));
}

void freeCache(PSP_FILE_CACHE_CTX* cache)
{
    psp_freeMem(cache, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

// Moves the window to the position and fills it. 0, or the count of a short write.
uint32_t reposition(PSP_FILE_CACHE_CTX* cache)
{
    if (const uint32_t written = flushModified(cache); written != 0)
        return written;
    cache->buff_off = cache->off;
    cache->bytes = 0;
    if (cache->size != 0 && cache->size <= cache->off)
        return 0;
    cache->bytes = cache->is_console ? psp_fileConsoleRead(cache->fh, cache->buff, FILE_CACHE_SIZE)
                                     : psp_fileRead(cache->fh, cache->buff, FILE_CACHE_SIZE);
    return 0;
}

} // namespace

ZYN_RETCODE fileCacheOpen(const char* name, uint32_t flags, uint16_t xflags, bool standard,
                          PSP_FILE_CACHE_CTX** pcache)
{
    PSP_FILE_CACHE_CTX* cache = newCache();
    if (cache == nullptr)
        return eNOMEMORY;
    cache->fh = psp_fileOpen(name, flags, xflags);
    if (cache->fh == nullptr) {
        freeCache(cache);
        return eFILEOPEN;
    }
    if (!standard)
        cache->size = psp_fileLength(cache->fh);
    *pcache = cache;
    return sOKAY;
}

ZYN_RETCODE fileCacheOpenStd(const char* name, uint32_t flags, uint16_t xflags,
                             PSP_FILE_CACHE_CTX** pcache)
{
    PSP_FILE_CACHE_CTX* cache = newCache();
    if (cache == nullptr)
        return eNOMEMORY;
    cache->fh = psp_fileOpenStd(name, flags, xflags, &cache->is_console);
    if (cache->fh == nullptr) {
        freeCache(cache);
        return eFILEOPEN;
    }
    cache->size = psp_fileLength(cache->fh);
    *pcache = cache;
    return sOKAY;
}

void fileCacheClose(PSP_FILE_CACHE_CTX* cache)
{
    flushModified(cache);
    psp_fileClose(cache->fh);
    freeCache(cache);
}

size_t fileCacheRead(PSP_FILE_CACHE_CTX* cache, void* dest, size_t len)
{
    size_t done = 0;
    while (done < len) {
        if (windowPos(cache) >= cache->bytes && (reposition(cache) != 0 || cache->bytes == 0))
            break;
        const PSP_FILE_OFFSET pos = windowPos(cache);
        const size_t n = std::min<size_t>(len - done, cache->bytes - pos);
        memcpy(static_cast<char*>(dest) + done, cache->buff + pos, n);
        cache->off += n;
        done += n;
    }
    return done;
}

size_t fileCacheWrite(PSP_FILE_CACHE_CTX* cache, const void* src, size_t len)
{
    size_t done = 0;
    while (done < len) {
        if (windowPos(cache) >= FILE_CACHE_SIZE && reposition(cache) != 0)
            break;
        const PSP_FILE_OFFSET pos = windowPos(cache);
        const size_t n = std::min<size_t>(len - done, FILE_CACHE_SIZE - pos);
        cache->modified = 1;
        memcpy(cache->buff + pos, static_cast<const char*>(src) + done, n);
        cache->off += n;
        cache->size = std::max(cache->size, cache->off);
        done += n;
    }
    return done;
}

void fileCacheSeek(PSP_FILE_CACHE_CTX* cache, PSP_FILE_OFFSET off)
{
    cache->off = off;
}

uint32_t flushModified(PSP_FILE_CACHE_CTX* cache)
{
    if (cache->modified == 0)
        return 0;
    const auto len = static_cast<uint32_t>(windowPos(cache));
    const uint32_t written = cache->is_console ? psp_fileConsoleWrite(cache->fh, cache->buff, len)
                                               : psp_fileWrite(cache->fh, cache->buff, len);
    if (written != len)
        return written;
    cache->modified = 0;
    cache->buff_off = cache->off;
    return 0;
}

void fileCacheSync(PSP_FILE_CACHE_CTX* cache)
{
    if (flushModified(cache) == 0)
        psp_fileSync(cache->fh);
}
