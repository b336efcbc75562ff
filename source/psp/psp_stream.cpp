// Text streams: UTF-8 for the caller, UTF-8 or UTF-16 (psp_stream_utf16.cpp) in the file.
//
// Everything goes through the cache (psp_stream_cache.cpp): a character in O(1), and lines and
// strings in runs as long as its window. Bytes come out as signed values, so FF looks like the end
// of the file.

#include <algorithm>
#include <bit>
#include <cstring>

#include <emmintrin.h>

#include "psp/file.h"
#include "psp/mem.h"
#include "psp/stream.h"
#include "psp_file_int.h"
#include "psp_internal.h"
#include "psp_stream_int.h"
#include "pspint.h"
#include "pspposix.h"

static_assert(offsetof(PSP_FILE_CTX, pbstack) == 20);
static_assert(offsetof(PSP_FILE_CTX, buf) == 104);
static_assert(offsetof(PSP_FILE_CTX, is_stdin) == 124);

namespace {

constexpr uint32_t MODE_CHARS = 3;
constexpr uint32_t LINE_STEP = 100;
constexpr uint16_t BYTE_ORDER_MARK = 0xFEFF;

// ---- Opening ----

PSP_FILE_STREAM newStream()
{
    return static_cast<PSP_FILE_STREAM>(
        psp_memTryGet(sizeof(PSP_FILE_CTX), PSP_GLOBAL_TAG, PSP_MEM_ZERO, nullptr));
}

void freeStream(PSP_FILE_STREAM stream)
{
    psp_freeMem(stream, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

// How a mode string opens: the flags of the handle, and whether "w" or "a" was in it. That mark
// stays when a later character makes the handle readable.
struct OPEN_MODE {
    uint32_t flags;
    bool writing;
};

// False at a character that is no mode. A writer without an encoding gets UTF-8.
bool parseMode(const char* mode, OPEN_MODE* open, PSP_FILE_MODE* fmode)
{
    for (uint32_t i = 0; mode != nullptr && i < MODE_CHARS && mode[i] != '\0'; ++i) {
        switch (mode[i]) {
        case 'r':
            open->flags = O_RDONLY;
            break;
        case 'w':
            *open = {O_WRONLY | O_CREAT | O_TRUNC, true};
            break;
        case 'a':
            *open = {O_WRONLY | O_CREAT | O_APPEND, true};
            break;
        case '+':
            open->flags = (open->flags | O_RDWR) & ~uint32_t{O_WRONLY};
            break;
        default:
            return false;
        }
        if (open->writing && *fmode == PSP_FILE_MODE_UNKNOWN)
            *fmode = PSP_FILE_MODE_UTF8;
    }
    return true;
}

struct MARK {
    uint8_t bytes[3];
    uint8_t len;
    PSP_FILE_MODE fmode;
    uint8_t swap;
};

// clang-format off
constexpr MARK marks[] = {
    {{0xEF, 0xBB, 0xBF}, 3, PSP_FILE_MODE_UTF8,  0},
    {{0xFF, 0xFE},       2, PSP_FILE_MODE_UTF16, 0},
    {{0xFE, 0xFF},       2, PSP_FILE_MODE_UTF16, 1},
};
// clang-format on

// What a file without a mark is: UTF-8, to be read from its start.
void noMark(PSP_FILE_STREAM stream)
{
    stream->fmode = PSP_FILE_MODE_UTF8;
    fileCacheSeek(stream->fh, 0);
}

const MARK* markThatBegins(uint8_t byte)
{
    for (const MARK& mark : marks)
        if (mark.bytes[0] == byte)
            return &mark;
    return nullptr;
}

// Decides the encoding by the first bytes; no two marks share the first one. A file that ends
// inside a mark decides nothing.
void checkForBOM(PSP_FILE_STREAM stream)
{
    uint8_t byte = 0;
    fileCacheSeek(stream->fh, 0);
    const bool empty = fileCacheRead(stream->fh, &byte, 1) == 0;
    const MARK* mark = empty ? nullptr : markThatBegins(byte);
    if (mark == nullptr)
        return noMark(stream);
    for (uint32_t i = 1; i < mark->len; ++i) {
        if (fileCacheRead(stream->fh, &byte, 1) == 0)
            return fileCacheSeek(stream->fh, 0);
        if (byte != mark->bytes[i])
            return noMark(stream);
    }
    stream->fmode = mark->fmode;
    stream->swap = mark->swap;
    stream->bom_off = mark->len;
}

void writeBOM(PSP_FILE_STREAM stream)
{
    fileCacheWrite(stream->fh, &BYTE_ORDER_MARK, sizeof(BYTE_ORDER_MARK));
    stream->bom_off = sizeof(BYTE_ORDER_MARK);
}

inline bool isName(const char* name, const char* expected)
{
    return name != nullptr && strcmp(name, expected) == 0;
}

inline bool isOutputName(const char* name)
{
    return isName(name, "stdout") || isName(name, "stderr");
}

ZYN_RETCODE streamOpenStd(const char* stdfile, uint16_t xflags, PSP_FILE_STREAM* pstream)
{
    PSP_FILE_STREAM stream = newStream();
    if (stream == nullptr)
        return eNOMEMORY;
    const uint32_t flags = isOutputName(stdfile) ? O_WRONLY : O_RDONLY;
    stream->is_stdin = isName(stdfile, "stdin") ? ZYN_TRUE : ZYN_FALSE;
    if (const ZYN_RETCODE rc = fileCacheOpenStd(stdfile, flags, xflags, &stream->fh); rc != sOKAY) {
        freeStream(stream);
        return rc;
    }
    stream->fmode = stream->fh->is_console ? PSP_FILE_MODE_UTF16 : PSP_FILE_MODE_UTF8;
    *pstream = stream;
    return sOKAY;
}

// ---- Reading ----

inline int32_t readChar(PSP_FILE_STREAM stream)
{
    if (stream->pboff != 0)
        return stream->pbstack[--stream->pboff];
    if (stream->fmode == PSP_FILE_MODE_UTF8) {
        uint8_t byte;
        return fileCacheGet(stream->fh, &byte) != 0 ? widened(byte) : END_OF_FILE;
    }
    return stream->fmode == PSP_FILE_MODE_UTF16 ? utf16GetChar(stream) : 0;
}

// The bytes that a run stops at: a newline, what looks like the end of the file, and a NUL.
inline uint32_t stopsIn(__m128i bytes)
{
    const __m128i newline = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\n'));
    const __m128i end = _mm_cmpeq_epi8(bytes, _mm_set1_epi8(END_OF_FILE));
    const __m128i nul = _mm_cmpeq_epi8(bytes, _mm_setzero_si128());
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(newline, end), nul)));
}

inline bool isStop(char byte)
{
    return byte == '\n' || byte == '\0' || widened(static_cast<uint8_t>(byte)) == END_OF_FILE;
}

inline __m128i loadVector(const char* bytes)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

inline void storeVector(char* bytes, __m128i vector)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes), vector);
}

// Copies bytes up to the first stop, and that, too, if it is a newline. Returns their number.
inline size_t copyRun(char* to, const char* from, size_t len)
{
    constexpr size_t VECTOR = sizeof(__m128i);
    size_t n = 0;
    for (; len - n >= VECTOR; n += VECTOR) {
        const __m128i part = loadVector(from + n);
        if (const uint32_t stops = stopsIn(part); stops != 0) {
            n += static_cast<size_t>(std::countr_zero(stops));
            n += from[n] == '\n';
            if (n < VECTOR)
                copy_run(to, from, n);
            else // once more some of what was copied
                storeVector(to + n - VECTOR, loadVector(from + n - VECTOR));
            return n;
        }
        storeVector(to + n, part);
    }
    for (; n < len && !isStop(from[n]); ++n)
        to[n] = from[n];
    if (n < len && from[n] == '\n')
        to[n++] = '\n';
    return n;
}

// The same as utf16GetRun for bytes.
inline char* utf8GetRun(PSP_FILE_STREAM stream, char* pos, const char* end)
{
    const size_t len = std::min(fileCacheAhead(stream->fh), static_cast<size_t>(end - pos));
    if (len == 0)
        return pos;
    const size_t n = copyRun(pos, fileCacheAt(stream->fh), len);
    stream->fh->off += n;
    return pos + n;
}

// What a line reader got: its end, and whether there is a NUL in it.
struct LINE_END {
    char* pos;
    bool nul;
};

inline bool goesByRuns(PSP_FILE_STREAM stream)
{
    return stream->pboff == 0 &&
           (stream->fmode == PSP_FILE_MODE_UTF8 || stream->fmode == PSP_FILE_MODE_UTF16);
}

// Reads on, up to and including the next newline, as far as there is room. What no run takes goes
// by single characters: what was pushed back, what lies across the ends of the window, NULs, and
// what looks like the end of the file.
[[gnu::noinline]] LINE_END getRest(PSP_FILE_STREAM stream, char* pos, const char* end)
{
    bool nul = false;
    for (bool newline = false; pos != end && !newline; newline = pos[-1] == '\n') {
        if (goesByRuns(stream)) {
            if (!fileCacheFill(stream->fh))
                break;
            const char* const before = pos;
            pos = stream->fmode == PSP_FILE_MODE_UTF8 ? utf8GetRun(stream, pos, end)
                                                      : utf16GetRun(stream, pos, end);
            if (pos != before)
                continue;
        }
        const int32_t c = readChar(stream);
        if (c == END_OF_FILE)
            break;
        *pos++ = static_cast<char>(c);
        nul |= pos[-1] == '\0';
    }
    return {pos, nul};
}

// The same for a whole line, which most often lies in the window.
inline LINE_END getLine(PSP_FILE_STREAM stream, char* pos, const char* end)
{
    if (stream->pboff == 0 && stream->fmode == PSP_FILE_MODE_UTF8) {
        char* const last = utf8GetRun(stream, pos, end);
        if (last != pos && last[-1] == '\n')
            return {last, false};
        pos = last;
    }
    return getRest(stream, pos, end);
}

// ---- Lines of any length ----

// Reads into the whole buffer, then, as long as no newline came, into the last 101 bytes of a
// buffer grown by 100: from the terminating NUL on. True when anything was read. `exhausted` is set
// when the buffer could not grow; it is as it was then, and the stream stands behind what it holds.
bool GetLine(DYNAMIC_LINE* line, PSP_MEMTAG tag, bool* exhausted)
{
    bool got = false;
    for (uint32_t start = 0;; start = line->len - LINE_STEP - 1) {
        if (line->fh->fmode == PSP_FILE_MODE_UNKNOWN && line->fh->pboff == 0)
            return got; // such a stream gives zeros without end
        char* part = line->line + start;
        const uint32_t room = line->len - start;
        if (static_cast<int32_t>(room) < 1)
            return got;
        const LINE_END end = getLine(line->fh, part, part + room - 1);
        if (end.pos == part && room != 1)
            return got;
        *end.pos = '\0';
        got = true;
        part[room - 1] = '\0';
        if (!end.nul && end.pos != part && end.pos[-1] == '\n')
            return true;
        void* grown = psp_memTryExtend(line->line, size_t{line->len} + LINE_STEP, tag,
                                       PSP_MEM_PLAIN, 0, nullptr);
        *exhausted = grown == nullptr;
        if (*exhausted)
            return true;
        line->line = static_cast<char*>(grown);
        line->len += LINE_STEP;
    }
}

} // namespace

// ---- Opening and closing ----

ZYN_RETCODE psp_streamOpen(const char* name, const char* mode, PSP_FILE_MODE fmode, uint16_t xflags,
                           PSP_FILE_STREAM* pstream)
{
    PSP_FILE_STREAM stream = newStream();
    if (stream == nullptr)
        return eNOMEMORY;
    OPEN_MODE open = {O_RDONLY, false};
    if (!parseMode(mode, &open, &fmode))
        return eFILEOPEN; // the record is left to its tag on purpose: a wrong mode is wrong once
    const ZYN_RETCODE rc = fileCacheOpen(name, open.flags, xflags, isOutputName(name), &stream->fh);
    if (rc != sOKAY) {
        freeStream(stream);
        return rc;
    }
    stream->fmode = fmode;
    if (!open.writing)
        checkForBOM(stream);
    else if (fmode == PSP_FILE_MODE_UTF16)
        writeBOM(stream);
    *pstream = stream;
    return sOKAY;
}

PSP_FILE_STREAM psp_fopenEx(const char* name, const char* mode, PSP_FILE_MODE fmode,
                            uint16_t xflags)
{
    PSP_FILE_STREAM stream = nullptr;
    if (psp_streamOpen(name, mode, fmode, xflags, &stream) == eNOMEMORY)
        psp_memRaise(PSP_GLOBAL_TAG);
    return stream;
}

PSP_FILE_STREAM psp_fopen(const char* name, const char* mode, PSP_FILE_MODE fmode)
{
    return psp_fopenEx(name, mode, fmode, 0);
}

PSP_FILE_STREAM psp_fopenStdEx(const char* stdfile, uint16_t xflags)
{
    PSP_FILE_STREAM stream = nullptr;
    if (streamOpenStd(stdfile, xflags, &stream) == eNOMEMORY)
        psp_memRaise(PSP_GLOBAL_TAG);
    return stream;
}

PSP_FILE_STREAM psp_fopenStd(const char* stdfile)
{
    return psp_fopenStdEx(stdfile, 0);
}

void psp_fclose(PSP_FILE_STREAM stream)
{
    if (stream == nullptr)
        return;
    fileCacheClose(stream->fh);
    psp_freeMem(stream->buf, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    freeStream(stream);
}

// ---- Reading ----

int32_t psp_fgetc(PSP_FILE_STREAM stream)
{
    return stream == nullptr ? END_OF_FILE : readChar(stream);
}

int32_t psp_fungetc(int32_t c, PSP_FILE_STREAM stream)
{
    return stream == nullptr ? -1 : pushBack(c, stream);
}

char* psp_fgets(char* str, int32_t n, PSP_FILE_STREAM stream)
{
    if (stream == nullptr || str == nullptr || n < 1)
        return nullptr;
    char* const end = getLine(stream, str, str + n - 1).pos;
    if (end == str && n != 1)
        return nullptr;
    *end = '\0';
    return str;
}

char* psp_fGetLine(PSP_FILE_STREAM fh, char** buf, uint32_t* len, PSP_MEMTAG tag)
{
    if (fh == nullptr || buf == nullptr || len == nullptr)
        return nullptr;
    DYNAMIC_LINE line = {fh, *buf, *len != 0 ? *len : LINE_STEP};
    if (line.line == nullptr) {
        line.line = static_cast<char*>(
            psp_getMem(LINE_STEP, tag, PSP_MEM_ZERO, nullptr, __FILE__, __LINE__));
        line.len = std::min(line.len, LINE_STEP);
        if (line.line == nullptr)
            return nullptr;
    }
    bool exhausted = false;
    const bool got = GetLine(&line, tag, &exhausted);
    *buf = line.line;
    *len = line.len;
    if (exhausted)
        psp_memRaise(tag);
    return got ? line.line : nullptr;
}

// ---- Writing ----

int32_t psp_fputc(int32_t c, PSP_FILE_STREAM stream)
{
    if (stream == nullptr)
        return 0;
    if (stream->fmode != PSP_FILE_MODE_UTF16)
        return fileCachePut(stream->fh, static_cast<char>(c));
    return _psp_fputc(static_cast<uint8_t>(c), stream);
}

bool psp_streamPut(PSP_FILE_STREAM stream, const char* bytes, size_t len)
{
    if (stream->fmode != PSP_FILE_MODE_UTF16)
        return fileCacheWrite(stream->fh, bytes, len) == len;
    return utf16Put(stream, bytes, len);
}

int32_t psp_fputs(const char* str, PSP_FILE_STREAM stream)
{
    if (stream == nullptr || str == nullptr)
        return -1;
    const size_t len = strlen(str);
    return psp_streamPut(stream, str, len) ? static_cast<int32_t>(len) : -1;
}

int32_t psp_fflush(PSP_FILE_STREAM stream)
{
    if (stream != nullptr)
        flushModified(stream->fh);
    return 0;
}

int32_t psp_fsync(PSP_FILE_STREAM stream)
{
    if (stream != nullptr)
        fileCacheSync(stream->fh);
    return 0;
}

// ---- What the file is ----

ZYN_RETCODE psp_fIsATTY(PSP_FILE_STREAM stream, ZYN_BOOL_T* is_tty)
{
    if (stream == nullptr || is_tty == nullptr)
        return eINVNULLARG;
    const PSP_FH file = stream->fh->fh;
    if (file->fcns->is_tty == nullptr)
        return eNOTIMPLEMENTED;
    return file->fcns->is_tty(file->handle, is_tty);
}

ZYN_RETCODE psp_fSetEcho(PSP_FILE_STREAM stream, ZYN_BOOL_T echo)
{
    if (stream == nullptr)
        return eINVNULLARG;
    const PSP_FH file = stream->fh->fh;
    return file->fcns->set_echo == nullptr ? sOKAY : file->fcns->set_echo(file->handle, echo);
}

ZYN_BOOL_T psp_fIsStdIn(PSP_FILE_STREAM stream)
{
    return stream == nullptr ? ZYN_FALSE : stream->is_stdin;
}
