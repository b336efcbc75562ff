// UTF-8: the encoder, one strict streaming decoder, and the functions built on it.
//
// The decoder takes one byte at a time and keeps the code point under construction; it is written
// once, over a source of bytes and a sink of code points. Sources and sinks in memory are compiled
// into it and pass runs of sound text whole, at the speed of psp_utf8_scan.h; the decoder itself
// has what is damaged. The general form calls back for every byte and every code point. Linear in
// the input; no byte behind the input's end is looked at.
//
// Well-formedness is judged when a sequence is complete: C0, C1 and F5 to F7 start sequences like
// any other lead byte, and what they come to is then overlong or out of range.
#include "psp_internal.h"
#include "psp_utf8_scan.h"

#include "psp/mem.h"
#include "psp/utf8.h"

// ---- One code point ----

static constexpr uint32_t UNICODE_END = 0x110000;

static uint8_t continuation(uint32_t bits)
{
    return static_cast<uint8_t>(0x80 | (bits & 0x3F));
}

uint32_t psp_utf8_codes(uint32_t val, uint8_t* bytes)
{
    if (val >= UNICODE_END)
        return 0;
    const uint32_t len = val < 0x80 ? 1 : val < 0x800 ? 2 : val < 0x10000 ? 3 : 4;
    if (bytes == nullptr)
        return len;
    switch (len) {
    case 1:
        bytes[0] = static_cast<uint8_t>(val);
        break;
    case 2:
        bytes[0] = static_cast<uint8_t>(0xC0 | val >> 6);
        bytes[1] = continuation(val);
        break;
    case 3:
        bytes[0] = static_cast<uint8_t>(0xE0 | val >> 12);
        bytes[1] = continuation(val >> 6);
        bytes[2] = continuation(val);
        break;
    default:
        bytes[0] = static_cast<uint8_t>(0xF0 | val >> 18);
        bytes[1] = continuation(val >> 12);
        bytes[2] = continuation(val >> 6);
        bytes[3] = continuation(val);
        break;
    }
    return len;
}

size_t psp_uchar_to_utf8(uint32_t ch, uint8_t* buffer, size_t size)
{
    uint8_t bytes[4];
    const size_t len = psp_utf8_codes(ch, bytes);
    if (len <= size)
        std::fill_n(std::copy_n(bytes, len, buffer), size - len, uint8_t{0});
    return len;
}

// ---- The decoder ----

namespace {

// What is wrong with a byte.
enum PSP_STATUS {
    PSP_STATUS_VALID = 0,
    PSP_STATUS_THIS_INVALID = 1, // it cannot be used, nor can the sequence that it ends
    PSP_STATUS_PREV_INVALID = 2, // it breaks the pending sequence
    PSP_STATUS_NOT_SHORTEST = 3, // it completes an overlong form
};

// Judges the value of a complete sequence, of which `used` bytes came before the last one. An
// overlong form of a value that is invalid anyway counts as invalid.
PSP_STATUS checkByte(uint32_t val, uint32_t used)
{
    if ((val >= 0xD800 && val <= 0xDFFF) || val == 0xFFFE || val == 0xFFFF || val >= UNICODE_END)
        return PSP_STATUS_THIS_INVALID;
    if (val <= 0x7F || (val <= 0x7FF && used > 1) || (val <= 0xFFFF && used > 2))
        return PSP_STATUS_NOT_SHORTEST;
    return PSP_STATUS_VALID;
}

struct SOUND_TEXT : UTF8_RUN {
    const char* text;
};

// A sink returns sOKAY to go on; sNEEDDATA says the same, anything else ends the work.
template <class Sink>
struct DECODER {
    Sink sink;
    PSP_UTF8_ERROR_BEHAVIOR errorBehavior;
    uint32_t val = 0;  // code point under construction
    uint32_t left = 0; // continuation bytes still expected
    uint32_t used = 0; // bytes of the pending sequence so far, 0: none is pending

    ZYN_RETCODE emitChar(uint32_t ch)
    {
        val = left = used = 0;
        const ZYN_RETCODE rc = sink.emit(ch);
        return rc == sNEEDDATA ? sOKAY : rc;
    }

    // An overlong form is taken for the value it encodes.
    ZYN_RETCODE handleUnicodeError(PSP_STATUS status)
    {
        if (errorBehavior == PSP_UTF8_ERROR_BREAK)
            return eINVUNICODE;
        return emitChar(status == PSP_STATUS_NOT_SHORTEST ? val : '?');
    }

    ZYN_RETCODE startSequence(uint32_t byte)
    {
        left = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
        val = byte & (0x3F >> left);
        used = 1;
        return sOKAY;
    }

    ZYN_RETCODE continueSequence(uint32_t byte)
    {
        val = val << 6 | (byte & 0x3F);
        if (left > 1) {
            --left;
            ++used;
            return sOKAY;
        }
        const PSP_STATUS status = checkByte(val, used);
        return status == PSP_STATUS_VALID ? emitChar(val) : handleUnicodeError(status);
    }

    ZYN_RETCODE processByte(uint32_t byte)
    {
        const bool continues = byte >= 0x80 && byte < 0xC0;
        if (byte >= 0xF8 || (continues && used == 0))
            return handleUnicodeError(PSP_STATUS_THIS_INVALID);
        if (continues)
            return continueSequence(byte);
        if (used != 0) {
            const ZYN_RETCODE rc = handleUnicodeError(PSP_STATUS_PREV_INVALID);
            if (rc != sOKAY)
                return rc;
        }
        return byte < 0x80 ? emitChar(byte) : startSequence(byte);
    }

    // The input ended: a pending sequence stays incomplete for good.
    ZYN_RETCODE finish()
    {
        if (used == 0)
            return sOKAY;
        return errorBehavior == PSP_UTF8_ERROR_BREAK ? eINVUNICODE : sink.emit('?');
    }

    // Takes the next byte; in front of it, where nothing is pending, a whole run of sound text.
    template <class Source>
    ZYN_RETCODE processNextByte(Source& source, bool& ended)
    {
        if constexpr (requires { source.sound_run(UTF8_RUN{}); }) {
            if (used == 0) {
                const ZYN_RETCODE rc = sink.emitrun(source.sound_run(sink.limit()));
                if (rc != sOKAY)
                    return rc;
            }
        }
        uint32_t byte;
        const ZYN_RETCODE rc = source.next(byte);
        ended = rc != sOKAY;
        if (ended)
            return rc == eEOD ? finish() : rc;
        return processByte(byte);
    }
};

template <class Source, class Sink>
ZYN_RETCODE decode(Source source, Sink sink, PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    DECODER<Sink> decoder{sink, errorBehavior};
    ZYN_RETCODE rc;
    bool ended = false;
    do
        rc = decoder.processNextByte(source, ended);
    while (rc == sOKAY && !ended);
    return rc == sNOTFOUND ? sOKAY : rc;
}

// ---- Sources: next() gives a byte or the reason why there is none, sound_run() takes what sound
// text stands next, within a limit (and leaves NUL to next() where it is no character). ----

// Sound text is looked at twice, to check it and to use it: in pieces, so that it is near then.
constexpr size_t MOST_AT_ONCE = 8192;

// Where there is less to take, the quickest scan takes longer than the plain one.
constexpr size_t FEW = 32;

// Takes sound text from a place on.
struct SOUND_START {
    size_t careful = 0; // up to here damage is likely, which the quickest scan is slowest to find

    SOUND_TEXT take(const char* input, size_t& pos, size_t end, UTF8_RUN limit)
    {
        limit.size = std::min(limit.size, end - pos);
        const char* const text = input + pos;
        const bool much = limit.size >= FEW && pos >= careful;
        if (pos < careful) // the rest comes after that
            limit.size = std::min(limit.size, careful - pos);
        const UTF8_RUN run = much ? take_much(text, pos, limit) : take_few(text, limit);
        pos += run.size;
        return {run, text};
    }

  private:
    [[gnu::noinline]] UTF8_RUN take_much(const char* text, size_t pos, UTF8_RUN limit)
    {
        limit.size = std::min(limit.size, MOST_AT_ONCE);
        const UTF8_RUN run = psp_utf8_variant()->scan(text, limit);
        if (run.size < limit.size)
            careful = pos + run.size + 2 * FEW;
        return run;
    }

    // Short texts are ASCII most of the time: no call is made for those.
    static UTF8_RUN take_few(const char* text, UTF8_RUN limit)
    {
        const size_t most = std::min(limit.size, limit.chars);
        size_t n = 0;
        for (uint64_t word; most - n >= sizeof word; n += sizeof word) {
            memcpy(&word, text + n, sizeof word);
            if (word & 0x8080808080808080)
                break;
        }
        while (n < most && static_cast<unsigned char>(text[n]) < 0x80)
            ++n;
        if (n == most || !starts(text + n, limit.size - n))
            return {n, n};
        const UTF8_RUN rest =
            psp_utf8_plain.scan(text + n, {std::min(limit.size - n, FEW), limit.chars - n});
        return {n + rest.size, n + rest.chars};
    }

    // Whether a sound character other than ASCII may stand there.
    static bool starts(const char* text, size_t size)
    {
        const auto lead = static_cast<unsigned char>(text[0]);
        return lead >= 0xC2 && lead < 0xF5 && size > 1 && (text[1] & 0xC0) == 0x80;
    }
};

struct CALLBACK_SOURCE {
    ZYN_INPUT_FCN infcn;
    ZYN_INPUT_CTX inctx;

    ZYN_RETCODE next(uint32_t& byte)
    {
        return infcn(inctx, &byte);
    }
};

struct BUFFER_SOURCE {
    BUFFER_INPUT_CTX ctx;
    SOUND_START start{};

    ZYN_RETCODE next(uint32_t& byte)
    {
        return bufferInputFcn(&ctx, &byte);
    }

    SOUND_TEXT sound_run(UTF8_RUN limit)
    {
        return start.take(ctx.input, ctx.pos, ctx.size, limit);
    }
};

struct STRING_SOURCE {
    STRING_INPUT_CTX ctx;
    size_t known = 0; // no NUL stands in front of this place
    SOUND_START start{};

    ZYN_RETCODE next(uint32_t& byte)
    {
        return stringInputFcn(&ctx, &byte);
    }

    SOUND_TEXT sound_run(UTF8_RUN limit)
    {
        if (ctx.pos >= known && ctx.input[ctx.pos] != '\0')
            known = ctx.pos + strnlen(ctx.input + ctx.pos, MOST_AT_ONCE);
        return start.take(ctx.input, ctx.pos, std::max(known, ctx.pos), limit);
    }
};

// ---- Sinks: emit() takes a code point, emitrun() sound text that is within limit(). ----

struct CALLBACK_OUTPUT {
    ZYN_OUTPUT_FCN outfcn;
    ZYN_OUTPUT_CTX outctx;

    ZYN_RETCODE emit(uint32_t ch)
    {
        return outfcn(outctx, ch);
    }
};

template <class Ctx>
UTF8_RUN unlimited(const Ctx&)
{
    return {SIZE_MAX, SIZE_MAX};
}

// A destination with its two output functions and the most that it takes at once.
template <class Ctx, ZYN_RETCODE (*Emit)(Ctx&, uint32_t),
          ZYN_RETCODE (*EmitRun)(Ctx&, const SOUND_TEXT&),
          UTF8_RUN (*Limit)(const Ctx&) = unlimited<Ctx>>
struct OUTPUT {
    Ctx& ctx;

    UTF8_RUN limit()
    {
        return Limit(ctx);
    }

    ZYN_RETCODE emit(uint32_t ch)
    {
        return Emit(ctx, ch);
    }

    ZYN_RETCODE emitrun(const SOUND_TEXT& run)
    {
        return EmitRun(ctx, run);
    }
};

template <class Sink>
ZYN_RETCODE psp_processBuff(const char* src, size_t size, Sink sink,
                            PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    return decode(BUFFER_SOURCE{{src, 0, size}}, sink, errorBehavior);
}

template <class Sink>
ZYN_RETCODE psp_processString(const char* src, Sink sink, PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    return decode(STRING_SOURCE{{src, 0}}, sink, errorBehavior);
}

} // namespace

ZYN_RETCODE bufferInputFcn(ZYN_INPUT_CTX ctx, uint32_t* ch)
{
    auto& info = *static_cast<BUFFER_INPUT_CTX*>(ctx);
    if (info.pos >= info.size)
        return eEOD;
    *ch = static_cast<unsigned char>(info.input[info.pos++]);
    return sOKAY;
}

ZYN_RETCODE stringInputFcn(ZYN_INPUT_CTX ctx, uint32_t* ch)
{
    auto& info = *static_cast<STRING_INPUT_CTX*>(ctx);
    if (info.input[info.pos] == '\0')
        return eEOD;
    *ch = static_cast<unsigned char>(info.input[info.pos++]);
    return sOKAY;
}

ZYN_RETCODE psp_processInput(ZYN_INPUT_FCN infcn, ZYN_INPUT_CTX inctx, ZYN_OUTPUT_FCN outfcn,
                             ZYN_OUTPUT_CTX outctx, PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    return decode(CALLBACK_SOURCE{infcn, inctx}, CALLBACK_OUTPUT{outfcn, outctx}, errorBehavior);
}

// ---- Copying and counting ----

// Moves `n` bytes to the destination, which has room for them. It may be the text itself.
static void copy_bytes(PSP_UTF8_COPY_INFO& info, const void* bytes, size_t n)
{
    if (info.dest != nullptr && n != 0) {
        memmove(info.dest, bytes, n);
        info.dest += n;
    }
    info.size -= n;
}

static ZYN_RETCODE copy_utf8_chars(PSP_UTF8_COPY_INFO& info, uint32_t ch)
{
    uint8_t bytes[4];
    const uint32_t len = psp_utf8_codes(ch, bytes);
    if (len > info.size)
        info.done = ZYN_TRUE;
    if (!info.done) {
        copy_bytes(info, bytes, len);
        ++info.num_chars;
    }
    return sOKAY;
}

static ZYN_RETCODE copy_sound(PSP_UTF8_COPY_INFO& info, const SOUND_TEXT& run)
{
    if (!info.done) {
        copy_bytes(info, run.text, run.size);
        info.num_chars += run.chars;
    }
    return sOKAY;
}

static UTF8_RUN copy_limit(const PSP_UTF8_COPY_INFO& info)
{
    return {info.done ? SIZE_MAX : info.size, SIZE_MAX};
}

size_t psp_copyUTF8Chars(char* dst, size_t dst_size, const char* src, size_t src_size,
                         size_t* chars_copied, PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    PSP_UTF8_COPY_INFO info{dst, dst_size, 0, ZYN_FALSE};
    OUTPUT<PSP_UTF8_COPY_INFO, copy_utf8_chars, copy_sound, copy_limit> output{info};
    if (psp_processBuff(src, src_size, output, errorBehavior) != sOKAY)
        return PSP_UTF8_FAILED;
    if (chars_copied != nullptr)
        *chars_copied = info.num_chars;
    return dst_size - info.size;
}

static ZYN_RETCODE countBytesInChars(PSP_UTF8_COUNT_BYTES& info, uint32_t ch)
{
    info.bytes += psp_utf8_codes(ch, nullptr);
    return --info.chars == 0 ? sNOTFOUND : sOKAY;
}

static ZYN_RETCODE countBytesInRun(PSP_UTF8_COUNT_BYTES& info, const SOUND_TEXT& run)
{
    info.bytes += run.size;
    info.chars -= run.chars;
    return info.chars == 0 ? sNOTFOUND : sOKAY;
}

static UTF8_RUN countBytesLimit(const PSP_UTF8_COUNT_BYTES& info)
{
    return {SIZE_MAX, info.chars};
}

size_t psp_countUTF8bytes(const char* src, size_t size, size_t chars,
                          PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    PSP_UTF8_COUNT_BYTES info{chars != 0 ? chars : SIZE_MAX, 0};
    OUTPUT<PSP_UTF8_COUNT_BYTES, countBytesInChars, countBytesInRun, countBytesLimit> output{info};
    const ZYN_RETCODE rc = psp_processBuff(src, size, output, errorBehavior);
    return rc == sOKAY ? info.bytes : PSP_UTF8_FAILED;
}

static ZYN_RETCODE countWchars(uint32_t& count, uint32_t)
{
    ++count;
    return sOKAY;
}

static ZYN_RETCODE countRun(uint32_t& count, const SOUND_TEXT& run)
{
    count += static_cast<uint32_t>(run.chars);
    return sOKAY;
}

size_t psp_countUTF8chars(const char* src, size_t size, PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    uint32_t count = 0;
    OUTPUT<uint32_t, countWchars, countRun> output{count};
    return psp_processBuff(src, size, output, errorBehavior) == sOKAY ? count : 0;
}

// ---- Wide characters ----

static ZYN_RETCODE wcharEmitChar(WCHAR_EMIT_INFO& info, uint32_t ch)
{
    if (info.off < info.size)
        info.buff[info.off++] = static_cast<wchar_t>(ch);
    return sOKAY;
}

static ZYN_RETCODE wcharEmitRun(WCHAR_EMIT_INFO& info, const SOUND_TEXT& run)
{
    const size_t fitting = std::min(run.chars, info.size - info.off);
    wchar_t* const dest = info.buff + info.off;
    if (run.size >= FEW)
        psp_utf8_variant()->widen(dest, fitting, run.text, run.size);
    else if (run.size != run.chars)
        psp_utf8_plain.widen(dest, fitting, run.text, run.size);
    else
        std::copy_n(run.text, fitting, dest);
    info.off += fitting;
    return sOKAY;
}

static ZYN_RETCODE wcharCountChar(WCHAR_EMIT_INFO& info, uint32_t)
{
    ++info.off;
    return sOKAY;
}

static ZYN_RETCODE wcharCountRun(WCHAR_EMIT_INFO& info, const SOUND_TEXT& run)
{
    info.off += run.chars;
    return sOKAY;
}

// Converts with `process`, which runs the decoder over the input into the sink that it is given.
// The terminator has its place kept; a destination without any room stays as it is.
template <class Process>
static size_t convert_to_wchar(wchar_t* dest, size_t destlen, Process process)
{
    WCHAR_EMIT_INFO info{dest, 0, 0};
    if (dest == nullptr) {
        OUTPUT<WCHAR_EMIT_INFO, wcharCountChar, wcharCountRun> output{info};
        return process(output) == sOKAY ? info.off + 1 : PSP_UTF8_FAILED;
    }
    info.size = destlen != 0 ? destlen - 1 : 0;
    OUTPUT<WCHAR_EMIT_INFO, wcharEmitChar, wcharEmitRun> output{info};
    if (process(output) != sOKAY)
        return PSP_UTF8_FAILED;
    info.size = destlen;
    wcharEmitChar(info, 0);
    return info.off;
}

size_t psp_utf8_to_wchar(wchar_t* dest, const char* src, size_t destlen,
                         PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    return convert_to_wchar(
        dest, destlen, [=](auto output) { return psp_processString(src, output, errorBehavior); });
}

size_t psp_utf8_to_wchar_len(wchar_t* dest, size_t destlen, const char* src, size_t srclen,
                             PSP_UTF8_ERROR_BEHAVIOR errorBehavior)
{
    return convert_to_wchar(dest, destlen, [=](auto output) {
        return psp_processBuff(src, srclen, output, errorBehavior);
    });
}

wchar_t* psp_convToWchar(const char* str, PSP_UTF8_ERROR_BEHAVIOR errorBehavior, PSP_MEMTAG tag)
{
    const size_t count = psp_utf8_to_wchar(nullptr, str, 0, errorBehavior);
    if (count == PSP_UTF8_FAILED)
        return nullptr;
    auto* const wstr = static_cast<wchar_t*>(
        psp_getMem(count * sizeof(wchar_t), tag, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__));
    if (wstr != nullptr)
        psp_utf8_to_wchar(wstr, str, count, errorBehavior);
    return wstr;
}

ZYN_RETCODE psp_convToWchar_rc(const char* str, PSP_UTF8_ERROR_BEHAVIOR errorBehavior,
                               wchar_t** wstr, PSP_MEMTAG tag)
{
    *wstr = psp_convToWchar(str, errorBehavior, tag);
    return *wstr != nullptr ? sOKAY : eNOMEMORY;
}
