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

bool fileCacheRefill(PSP_FILE_CACHE_CTX* cache)
{
    return reposition(cache) == 0 && cache->bytes != 0;
}

size_t fileCacheRead(PSP_FILE_CACHE_CTX* cache, void* dest, size_t len)
{
    size_t done = 0;
    while (done < len) {
        if (!fileCacheFill(cache))
            break;
        const size_t n = std::min(len - done, fileCacheAhead(cache));
        memcpy(static_cast<char*>(dest) + done, fileCacheAt(cache), n);
        cache->off += n;
        done += n;
    }
    return done;
}

size_t fileCacheWrite(PSP_FILE_CACHE_CTX* cache, const void* src, size_t len)
{
    size_t done = 0;
    while (done < len) {
        if (fileCacheRoom(cache) == 0 && reposition(cache) != 0)
            break;
        const size_t n = std::min(len - done, fileCacheRoom(cache));
        memcpy(fileCacheAt(cache), static_cast<const char*>(src) + done, n);
        fileCachePutDone(cache, n);
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
