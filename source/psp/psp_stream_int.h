// The records behind a text stream, and its cache: what the stream's own two files share, with the
// few calls that the output stacks make below the public surface.
#pragma once

#include <cstddef>

#include "psp/stream.h"
#include "psptypes.h"

constexpr uint32_t FILE_CACHE_SIZE = 1024;
constexpr uint32_t PUSHBACK_SIZE = 20;

// A window of the file from `buff_off` on. The handle stands where the last transfer left it: the
// two offsets only say where the stream believes to be. Written bytes lie from the start of `buff`
// up to `off`.
struct PSP_FILE_CACHE_CTX {
    PSP_FILE_OFFSET buff_off;   // file offset of the first byte of buff
    PSP_FILE_OFFSET off;        // position of the stream
    PSP_FILE_OFFSET size;       // known length of the file; 0 is unknown: reading goes on until
                                // the handle ends it
    PSP_FH fh;                  // the file, owned
    uint32_t bytes;             // bytes of buff that were read
    uint32_t modified;          // 1: buff holds bytes that the handle has not seen
    ZYN_BOOL_T is_console;      // transfer with the console operations
    char buff[FILE_CACHE_SIZE]; // the window
};

struct PSP_FILE_CTX {
    PSP_FILE_CACHE_CTX* fh;         // the cache, owned
    PSP_FILE_MODE fmode;            // the encoding of the file
    uint8_t swap;                   // 1: the units of the file are big-endian
    uint32_t bom_off;               // bytes of the byte-order mark: 0, 2 or 3
    int32_t pbstack[PUSHBACK_SIZE]; // values pushed back
    uint32_t pboff;                 // how many there are
    char* buf;                      // where psp_vfprintf formats, in PSP_GLOBAL_TAG; NULL at first
    uint32_t bufsize;               // size of buf
    uint32_t val;                   // the UTF-16 writer: the code point so far,
    uint8_t bytesleft;              //   and how many bytes of it are to come
    ZYN_BOOL_T is_stdin;            // opened on the standard input
};

// A line that psp_fGetLine reads.
struct DYNAMIC_LINE {
    PSP_FILE_STREAM fh; // where it comes from
    char* line;         // the buffer, in the caller's tag
    uint32_t len;       // its size
};

// ---- The cache (psp_stream_cache.cpp) ----
//
// Opening gives eNOMEMORY when PSP_GLOBAL_TAG is exhausted and eFILEOPEN when the handle layer
// refuses; nothing is left then. It never jumps.

ZYN_RETCODE fileCacheOpen(const char* name, uint32_t flags, uint16_t xflags, bool standard,
                          PSP_FILE_CACHE_CTX** pcache);
ZYN_RETCODE fileCacheOpenStd(const char* name, uint32_t flags, uint16_t xflags,
                             PSP_FILE_CACHE_CTX** pcache);
void fileCacheClose(PSP_FILE_CACHE_CTX* cache);

// Bytes delivered: fewer than `len` at the end of the file and after a failure.
size_t fileCacheRead(PSP_FILE_CACHE_CTX* cache, void* dest, size_t len);

// Bytes taken: fewer than `len` only when a flush was short.
size_t fileCacheWrite(PSP_FILE_CACHE_CTX* cache, const void* src, size_t len);

// Moves the position alone, never the handle; for the look at the byte-order mark.
void fileCacheSeek(PSP_FILE_CACHE_CTX* cache, PSP_FILE_OFFSET off);

// Passes written bytes on. 0, or the count of a short write; a failed write counts as 0, and its
// bytes stay marked as modified.
uint32_t flushModified(PSP_FILE_CACHE_CTX* cache);

// Flushes and, unless that was short, syncs the file.
void fileCacheSync(PSP_FILE_CACHE_CTX* cache);

// The two single-byte transfers, which nearly every character takes: straight from or into the
// window while it covers the position. An `off` below `buff_off` wraps and lies outside.
inline bool fileCacheGetByte(PSP_FILE_CACHE_CTX* cache, char* byte)
{
    const PSP_FILE_OFFSET pos = cache->off - cache->buff_off;
    if (pos >= cache->bytes)
        return fileCacheRead(cache, byte, 1) == 1;
    *byte = cache->buff[pos];
    ++cache->off;
    return true;
}

inline bool fileCachePutByte(PSP_FILE_CACHE_CTX* cache, char byte)
{
    const PSP_FILE_OFFSET pos = cache->off - cache->buff_off;
    if (pos >= FILE_CACHE_SIZE)
        return fileCacheWrite(cache, &byte, 1) == 1;
    cache->buff[pos] = byte;
    cache->modified = 1;
    if (++cache->off > cache->size)
        cache->size = cache->off;
    return true;
}

// ---- The stream (psp_stream.cpp) ----

// psp_fopenEx for callers that hold a lock: never jumps. sOKAY, eNOMEMORY (PSP_GLOBAL_TAG is
// exhausted: raise it when the lock is released) or eFILEOPEN.
ZYN_RETCODE psp_streamOpen(const char* name, const char* mode, PSP_FILE_MODE fmode, uint16_t xflags,
                           PSP_FILE_STREAM* pstream);

// Writes counted bytes like psp_fputc does each of them; false at the first that is not taken.
bool psp_streamPut(PSP_FILE_STREAM stream, const char* bytes, size_t len);
