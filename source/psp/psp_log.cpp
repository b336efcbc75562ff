// Printing and logging: formatted text to a stream, to the stacks, and to console and log at once.
//
// A stream formats into a staging buffer of its own that grows to the longest text it has seen, so
// that a format which fails writes nothing; a log message is formatted once and written to both
// destinations. Each destination is written under its stack's mutex and no other one, so a message
// stays whole and no order of locks exists. Nothing may jump while a mutex is held: what runs out
// of memory there is noted, and raised afterwards.

#include <cstdio>
#include <cstring>

#include "psp/core.h"
#include "psp/format.h"
#include "psp/mem.h"
#include "psp/output.h"
#include "psp/time.h"
#include "psp_atomic.h"
#include "psp_output_int.h"
#include "psp_probe.h"
#include "psp_stream_int.h"
#include "pspint.h"

struct LOG_CHUNK {
    char* buf;  // the text so far, in PSP_GLOBAL_TAG; NULL at first
    size_t len; // its length without the NUL
};

namespace {

constexpr size_t TIME_STRING_SIZE = 30;
constexpr size_t USUAL_MESSAGE = 512; // bytes, with the NUL

// ---- Printing ----

// psp_vfprintf without the jump; `exhausted` is set when PSP_GLOBAL_TAG has no memory for the
// staging buffer. The first pass measures, and has formatted already when the buffer was large
// enough.
PSP_PRINTF(2, 0)
int32_t printTo(PSP_FILE_STREAM stream, const char* format, va_list args, bool* exhausted)
{
    int len = psp_vsnprintf(stream->buf, stream->bufsize, format, args);
    if (len < 1)
        return len;
    const uint32_t size = static_cast<uint32_t>(len) + 1;
    if (stream->bufsize < size) {
        void* buf = psp_memTryExtend(stream->buf, size, PSP_GLOBAL_TAG, PSP_MEM_PLAIN, 0, nullptr);
        *exhausted = buf == nullptr;
        if (*exhausted)
            return -1;
        stream->buf = static_cast<char*>(buf);
        stream->bufsize = size;
        len = psp_vsnprintf(stream->buf, size, format, args);
        if (len < 1)
            return len;
    }
    return psp_fputs(stream->buf, stream);
}

PSP_PRINTF(2, 0)
int32_t printToTop(PSP_FILE_STACK* stack, const char* format, va_list args)
{
    bool exhausted = false;
    psp_fileStackLock(stack);
    PSP_FILE_STREAM top = psp_fileStackTop(stack);
    const int32_t written = top == nullptr ? 0 : printTo(top, format, args, &exhausted);
    psp_fileStackRelease(stack);
    if (exhausted)
        psp_memRaise(PSP_GLOBAL_TAG);
    return written;
}

void flushTop(PSP_FILE_STACK* stack, FILE* fallback)
{
    psp_fileStackLock(stack);
    if (PSP_FILE_STREAM top = psp_fileStackTop(stack); top != nullptr)
        psp_fflush(top);
    else
        fflush(fallback);
    psp_fileStackRelease(stack);
}

// ---- Logging ----

inline char* putTwoDigits(char* to, int value)
{
    to[0] = static_cast<char>('0' + value / 10);
    to[1] = static_cast<char>('0' + value % 10);
    return to + 2;
}

// "[2024-05-01 13:07:42]", which strftime takes ten times as long for.
void putTime(char (&now)[TIME_STRING_SIZE], const struct tm& local)
{
    const int year = local.tm_year + 1900;
    char* to = now;
    *to++ = '[';
    to = putTwoDigits(to, year / 100);
    to = putTwoDigits(to, year % 100);
    *to++ = '-';
    to = putTwoDigits(to, local.tm_mon + 1);
    *to++ = '-';
    to = putTwoDigits(to, local.tm_mday);
    *to++ = ' ';
    to = putTwoDigits(to, local.tm_hour);
    *to++ = ':';
    to = putTwoDigits(to, local.tm_min);
    *to++ = ':';
    to = putTwoDigits(to, local.tm_sec);
    memcpy(to, "]", 2);
}

// Fills `now`, unless it is filled already: console and log show the same time. The zone is asked
// each time, because a program may call tzset.
void getCurrentLocalTimeString(char (&now)[TIME_STRING_SIZE])
{
    struct tm local;
    if (now[0] != '\0')
        return;
    const auto secs = static_cast<time64_t>(psp_timeSecs());
    if (psp_timeLocaltime(secs, &local) == nullptr)
        return;
    if (local.tm_year >= 1000 - 1900 && local.tm_year <= 9999 - 1900)
        putTime(now, local);
    else if (strftime(now, sizeof(now), "[%F %T]", &local) == 0)
        now[0] = '\0';
}

// The message alone, or behind the time and two blanks. It is formatted already and goes straight
// into the stream.
int32_t putMessage(PSP_FILE_STREAM stream, const char* time, const char* str)
{
    if (time == nullptr)
        return psp_fputs(str, stream);
    int32_t written = 0;
    for (const char* part : {time, "  ", str}) {
        const int32_t len = psp_fputs(part, stream);
        if (len < 0)
            return -1;
        written += len;
    }
    return written;
}

int32_t logToTop(PSP_FILE_STACK* stack, const char* str, bool timed, char (&now)[TIME_STRING_SIZE])
{
    int32_t written = 0;
    psp_fileStackLock(stack);
    if (PSP_FILE_STREAM top = psp_fileStackTop(stack); top != nullptr) {
        if (timed)
            getCurrentLocalTimeString(now);
        written = putMessage(top, timed ? now : nullptr, str);
        psp_fflush(top);
    }
    psp_fileStackRelease(stack);
    return written;
}

// The count of bytes on the console. The copy in the log is always timed and does not count.
int32_t _psp_log_str(PSP_LOG_CTX* ctx, bool write_stderr, const char* str, bool logTime)
{
    char now[TIME_STRING_SIZE] = "";
    int32_t written = 0;
    if (relaxed_load(psp_background) == 0)
        written = logToTop(write_stderr ? get_stderr_stack(ctx) : get_stdout_stack(ctx), str,
                           logTime, now);
    logToTop(get_log_stack(ctx), str, true, now);
    return written;
}

PSP_PRINTF(4, 0)
int32_t _psp_logV(PSP_LOG_CTX* ctx, bool write_stderr, bool logTime, const char* format,
                  va_list args)
{
    if (relaxed_load(psp_inited) == 0)
        return vfprintf(write_stderr ? stderr : stdout, format, args);
    char usual[USUAL_MESSAGE]; // which is formatted while it is measured
    const int len = psp_vsnprintf(usual, sizeof(usual), format, args);
    if (len < 0)
        return 0;
    const size_t size = static_cast<size_t>(len) + 1;
    auto* text = static_cast<char*>(
        psp_getMem(size, PSP_THREAD_TAG, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__));
    if (text == nullptr)
        return 0;
    if (size <= sizeof(usual))
        memcpy(text, usual, size);
    else
        psp_vsnprintf(text, size, format, args);
    PSP_PROBE2(log_line, text, len);
    const int32_t written = _psp_log_str(ctx, write_stderr, text, logTime);
    psp_freeMem(text, PSP_THREAD_TAG, __FILE__, __LINE__);
    return written;
}

// Adds a piece; a format that fails adds nothing. Never jumps: false when PSP_GLOBAL_TAG has no
// memory for it, and the message is as before.
PSP_PRINTF(2, 0)
bool log_chunk(PSP_LOG_CHUNK chunk, const char* format, va_list args)
{
    const int len = psp_vsnprintf(nullptr, 0, format, args);
    if (len < 0)
        return true;
    const size_t size = static_cast<size_t>(len) + 1;
    void* buf =
        psp_memTryExtend(chunk->buf, chunk->len + size, PSP_GLOBAL_TAG, PSP_MEM_PLAIN, 0, nullptr);
    if (buf == nullptr)
        return false;
    chunk->buf = static_cast<char*>(buf);
    psp_vsnprintf(chunk->buf + chunk->len, size, format, args);
    chunk->len += static_cast<size_t>(len);
    return true;
}

// The stop of the library has freed every chunk.
inline bool isAlive(PSP_LOG_CHUNK chunk)
{
    return chunk != nullptr && relaxed_load(psp_inited) != 0;
}

} // namespace

// ---- Printing ----

int32_t psp_vfprintf(PSP_FILE_STREAM stream, const char* format, va_list args)
{
    if (stream == nullptr)
        return -1;
    bool exhausted = false;
    const int32_t written = printTo(stream, format, args, &exhausted);
    if (exhausted)
        psp_memRaise(PSP_GLOBAL_TAG);
    return written;
}

int32_t psp_fprintf(PSP_FILE_STREAM stream, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = psp_vfprintf(stream, format, args);
    va_end(args);
    return written;
}

int32_t psp_printfV(const char* format, va_list args)
{
    return printToTop(get_stdout_stack(nullptr), format, args);
}

int32_t psp_printf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = psp_printfV(format, args);
    va_end(args);
    return written;
}

int32_t psp_printfErrV(const char* format, va_list args)
{
    return printToTop(get_stderr_stack(nullptr), format, args);
}

void psp_flush(void)
{
    flushTop(get_stdout_stack(nullptr), stdout);
}

void psp_flushErr(void)
{
    flushTop(get_stderr_stack(nullptr), stderr);
}

// ---- Logging ----

int32_t psp_log(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = _psp_logV(nullptr, false, false, format, args);
    va_end(args);
    return written;
}

int32_t psp_log_with_time(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = _psp_logV(nullptr, false, true, format, args);
    va_end(args);
    return written;
}

int32_t psp_logEx(PSP_LOG_CTX* ctx, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = _psp_logV(ctx, false, false, format, args);
    va_end(args);
    return written;
}

int32_t psp_logEx_with_time(PSP_LOG_CTX* ctx, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = _psp_logV(ctx, false, true, format, args);
    va_end(args);
    return written;
}

int32_t psp_log_err(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = _psp_logV(nullptr, true, false, format, args);
    va_end(args);
    return written;
}

int32_t psp_log_errV_Ex(PSP_LOG_CTX* ctx, ZYN_BOOL_T logTime, const char* format, va_list args)
{
    return _psp_logV(ctx, true, logTime != ZYN_FALSE, format, args);
}

// ---- Messages in pieces ----

PSP_LOG_CHUNK psp_log_chunk_init(void)
{
    return static_cast<PSP_LOG_CHUNK>(
        psp_getMem(sizeof(LOG_CHUNK), PSP_GLOBAL_TAG, PSP_MEM_ZERO, nullptr, __FILE__, __LINE__));
}

void psp_log_chunk(PSP_LOG_CHUNK chunk, const char* format, ...)
{
    if (!isAlive(chunk) || format == nullptr)
        return;
    va_list args;
    va_start(args, format);
    const bool added = log_chunk(chunk, format, args);
    va_end(args);
    if (!added)
        psp_memRaise(PSP_GLOBAL_TAG);
}

void psp_log_chunk_end(PSP_LOG_CHUNK chunk, const char* format, ...)
{
    if (!isAlive(chunk))
        return;
    bool added = true;
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        added = log_chunk(chunk, format, args);
        va_end(args);
    }
    if (chunk->buf != nullptr) {
        PSP_PROBE2(log_line, chunk->buf, chunk->len);
        _psp_log_str(nullptr, false, chunk->buf, false);
    }
    psp_freeMem(chunk->buf, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    psp_freeMem(chunk, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    if (!added)
        psp_memRaise(PSP_GLOBAL_TAG);
}
