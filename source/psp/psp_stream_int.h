// The records behind a text stream, its cache and its encodings: what the stream's own files share,
// with the few calls that the output stacks make below the public surface.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "psp/stream.h"
#include "psptypes.h"

constexpr uint32_t FILE_CACHE_SIZE = 1024;
constexpr uint32_t PUSHBACK_SIZE = 20;
constexpr int32_t END_OF_FILE = -1;

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

// Moves the window to the position and fills it. False at the end of the file and after a failure.
bool fileCacheRefill(PSP_FILE_CACHE_CTX* cache);

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

// Where the position lies in the window; beyond every valid index when it lies before it.
inline PSP_FILE_OFFSET windowPos(const PSP_FILE_CACHE_CTX* cache)
{
    return cache->off - cache->buff_off;
}

// How many bytes the window holds from the position on, and how many it has room for there.
inline size_t fileCacheAhead(const PSP_FILE_CACHE_CTX* cache)
{
    const PSP_FILE_OFFSET pos = windowPos(cache);
    return pos < cache->bytes ? cache->bytes - pos : 0;
}

inline size_t fileCacheRoom(const PSP_FILE_CACHE_CTX* cache)
{
    const PSP_FILE_OFFSET pos = windowPos(cache);
    return pos < FILE_CACHE_SIZE ? FILE_CACHE_SIZE - pos : 0;
}

// Whether the window has bytes ahead, filled anew when it has to be.
inline bool fileCacheFill(PSP_FILE_CACHE_CTX* cache)
{
    return fileCacheAhead(cache) != 0 || fileCacheRefill(cache);
}

// The byte of the window at the position, of which there is one ahead or room for one.
inline char* fileCacheAt(PSP_FILE_CACHE_CTX* cache)
{
    return cache->buff + windowPos(cache);
}

// Bytes that were put there, within the room.
inline void fileCachePutDone(PSP_FILE_CACHE_CTX* cache, size_t len)
{
    cache->modified = 1;
    cache->off += len;
    cache->size = std::max(cache->size, cache->off);
}

// Transfers of a byte or a unit, which characters take that go one at a time: straight from or into
// the window while it covers them. The number of bytes.
template <class Value>
inline size_t fileCacheGet(PSP_FILE_CACHE_CTX* cache, Value* value)
{
    if (fileCacheAhead(cache) < sizeof(Value))
        return fileCacheRead(cache, value, sizeof(Value));
    memcpy(value, fileCacheAt(cache), sizeof(Value));
    cache->off += sizeof(Value);
    return sizeof(Value);
}

template <class Value>
inline bool fileCachePut(PSP_FILE_CACHE_CTX* cache, Value value)
{
    if (fileCacheRoom(cache) < sizeof(Value))
        return fileCacheWrite(cache, &value, sizeof(Value)) == sizeof(Value);
    memcpy(fileCacheAt(cache), &value, sizeof(Value));
    fileCachePutDone(cache, sizeof(Value));
    return true;
}

// ---- UTF-16 (psp_stream_utf16.cpp) ----

// The next character: its first byte, the others are pushed back; -1 at the end of the file.
int32_t utf16GetChar(PSP_FILE_STREAM stream);

// Moves whole characters from the window, which is not empty, to `pos`, up to and including a
// newline, as many as there are before a NUL and fit in front of `end`. Returns where they end.
char* utf16GetRun(PSP_FILE_STREAM stream, char* pos, const char* end);

// Takes a byte of UTF-8; false when it does not continue the text or is not taken.
bool _psp_fputc(uint8_t byte, PSP_FILE_STREAM stream);

// Takes bytes like _psp_fputc does each of them, up to the first that it refuses.
bool utf16Put(PSP_FILE_STREAM stream, const char* bytes, size_t len);

// ---- The stream (psp_stream.cpp) ----

// psp_fopenEx for callers that hold a lock: never jumps. sOKAY, eNOMEMORY (PSP_GLOBAL_TAG is
// exhausted: raise it when the lock is released) or eFILEOPEN.
ZYN_RETCODE psp_streamOpen(const char* name, const char* mode, PSP_FILE_MODE fmode, uint16_t xflags,
                           PSP_FILE_STREAM* pstream);

// Writes counted bytes like psp_fputc does each of them; false at the first that is not taken.
bool psp_streamPut(PSP_FILE_STREAM stream, const char* bytes, size_t len);

// A byte as a reader gives it.
inline int32_t widened(uint8_t byte)
{
    return static_cast<int8_t>(byte);
}

inline int32_t pushBack(int32_t c, PSP_FILE_STREAM stream)
{
    if (stream->pboff == PUSHBACK_SIZE)
        return -1;
    stream->pbstack[stream->pboff++] = c;
    return c;
}
