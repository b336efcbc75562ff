// Text streams: UTF-8 for the caller, UTF-8 or UTF-16 in the file.
//
// A reader decodes a UTF-16 character at a time, hands out its first byte and pushes the others
// back; a writer assembles a character in the stream until its last byte arrives. Everything goes
// through the cache (psp_stream_cache.cpp), a byte at O(1).
//
// Bytes come out as signed values, so FF looks like the end of the file. Neither side rejects all
// that is malformed: overlong forms and surrogates pass from UTF-8 to UTF-16.

#include <algorithm>
#include <cstring>

#include "psp/file.h"
#include "psp/mem.h"
#include "psp/stream.h"
#include "psp/utf8.h"
#include "psp_file_int.h"
#include "psp_stream_int.h"
#include "pspint.h"
#include "pspposix.h"

static_assert(offsetof(PSP_FILE_CTX, pbstack) == 20);
static_assert(offsetof(PSP_FILE_CTX, buf) == 104);
static_assert(offsetof(PSP_FILE_CTX, is_stdin) == 124);

namespace {

constexpr int32_t END_OF_FILE = -1;
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

inline int32_t widened(uint8_t byte)
{
    return static_cast<int8_t>(byte);
}

inline bool isHighSurrogate(uint32_t unit)
{
    return (unit & 0xFC00) == 0xD800;
}

inline bool isLowSurrogate(uint32_t unit)
{
    return (unit & 0xFC00) == 0xDC00;
}

inline int32_t pushBack(int32_t c, PSP_FILE_STREAM stream)
{
    if (stream->pboff == PUSHBACK_SIZE)
        return -1;
    stream->pbstack[stream->pboff++] = c;
    return c;
}

// Half a unit at the end of the file counts, with the other half 0. The second unit of a pair is
// taken as it lies in the file: it is neither swapped nor checked.
int32_t readUtf16(PSP_FILE_STREAM stream)
{
    uint16_t unit = 0;
    if (fileCacheRead(stream->fh, &unit, sizeof(unit)) == 0)
        return END_OF_FILE;
    if (stream->swap)
        unit = __builtin_bswap16(unit);
    if (isLowSurrogate(unit))
        return '.';
    uint32_t val = unit;
    if (isHighSurrogate(unit)) {
        uint16_t low = 0;
        if (fileCacheRead(stream->fh, &low, sizeof(low)) != sizeof(low))
            return END_OF_FILE;
        val = ((val & 0x3FFU) << 10) + (low & 0x3FFU) + 0x10000;
    }
    uint8_t bytes[4];
    for (uint32_t left = psp_utf8_codes(val, bytes); left > 1; --left)
        pushBack(widened(bytes[left - 1]), stream);
    return widened(bytes[0]);
}

inline int32_t readChar(PSP_FILE_STREAM stream)
{
    if (stream->pboff != 0)
        return stream->pbstack[--stream->pboff];
    if (stream->fmode == PSP_FILE_MODE_UTF8) {
        char byte;
        return fileCacheGetByte(stream->fh, &byte) ? widened(static_cast<uint8_t>(byte))
                                                   : END_OF_FILE;
    }
    return stream->fmode == PSP_FILE_MODE_UTF16 ? readUtf16(stream) : 0;
}

// ---- Writing UTF-16 ----

inline bool putUnit(PSP_FILE_STREAM stream, uint32_t val)
{
    const auto unit = static_cast<uint16_t>(val);
    return fileCacheWrite(stream->fh, &unit, sizeof(unit)) == sizeof(unit);
}

// The first byte of a character: its length is in the leading ones, the rest begins the value.
bool beginChar(PSP_FILE_STREAM stream, uint8_t byte)
{
    if (byte < 0x80)
        return putUnit(stream, byte);
    if (byte < 0xC2 || byte > 0xF4)
        return false;
    const bool two = byte < 0xE0;
    const bool three = byte < 0xF0;
    stream->bytesleft = two ? 1 : three ? 2 : 3;
    stream->val = byte & (two ? 0x1FU : three ? 0x0FU : 0x07U);
    return true;
}

bool putChar(PSP_FILE_STREAM stream)
{
    if (stream->val > 0xFFFF) {
        if (!putUnit(stream, 0xD800 | (((stream->val - 0x10000) >> 10) & 0x3FF)))
            return false;
        stream->val = 0xDC00 | (stream->val & 0x3FF);
    }
    return putUnit(stream, stream->val);
}

// A byte that does not continue the pending character is refused and leaves it pending.
bool _psp_fputc(uint8_t byte, PSP_FILE_STREAM stream)
{
    if (stream->bytesleft == 0)
        return beginChar(stream, byte);
    if ((byte & 0xC0) != 0x80)
        return false;
    stream->val = (stream->val << 6) | (byte & 0x3FU);
    return --stream->bytesleft != 0 || putChar(stream);
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
        if (psp_fgets(part, static_cast<int32_t>(room), line->fh) == nullptr)
            return got;
        got = true;
        part[room - 1] = '\0';
        if (strchr(part, '\n') != nullptr)
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
    int32_t len = 0;
    while (len < n - 1) {
        const int32_t c = readChar(stream);
        if (c == END_OF_FILE && len == 0)
            return nullptr;
        if (c == END_OF_FILE)
            break;
        str[len++] = static_cast<char>(c);
        if (str[len - 1] == '\n')
            break;
    }
    str[len] = '\0';
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
        return fileCachePutByte(stream->fh, static_cast<char>(c));
    return _psp_fputc(static_cast<uint8_t>(c), stream);
}

bool psp_streamPut(PSP_FILE_STREAM stream, const char* bytes, size_t len)
{
    if (stream->fmode != PSP_FILE_MODE_UTF16)
        return fileCacheWrite(stream->fh, bytes, len) == len;
    return std::all_of(bytes, bytes + len, [stream](char byte) {
        return _psp_fputc(static_cast<uint8_t>(byte), stream);
    });
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
