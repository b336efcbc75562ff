// Buffered binary streams: typed values through a buffer over the caller's transport.
//
// A value that fits the buffer costs one comparison and a copy of a fixed size; what does not fit
// takes the loop below that fills or empties the buffer piece by piece. An output buffer begins
// small and grows while it has never been full at its largest size, so that short-lived streams
// stay cheap and busy ones write large blocks.
//
// The transport may leave by longjmp, and so may an allocation: a stream's counters are right
// whenever one of them is called.
#include "psp_binstream_int.h"

#include "psp/mem.h"
#include "psp_bits_int.h"
#include "pspint.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t initialSize = 4096;
constexpr uint32_t growthStep = 1024;
constexpr uint32_t largestSize = 32768;

constexpr uint32_t nullLength = 0xFFFFFFFF; // in the place of a string's length: no string

// A number between the host's order and the one in which it travels. A stream that swaps makes the
// detour: a taken branch costs most of what such a short function does.
template <class T>
inline void order(T* val, int16_t byteswap)
{
    if constexpr (sizeof(T) > 1) {
        if (byteswap != 0) [[unlikely]]
            swapBytes(val);
    }
}

// ---- Input ----

// Reads ahead again. A failed read changes nothing, and a count beyond the buffer is not believed.
ZYN_RETCODE fill(PSP_INPUTBUFF in)
{
    uint32_t len = 0;
    if (const ZYN_RETCODE rc = in->readFcn(in->dataCB, in->buf, in->size, &len, 0); rc != sOKAY)
        return rc;
    in->len = std::min(len, in->size);
    in->pos = 0;
    return sOKAY;
}

// Takes `size` bytes off the stream into `dest`, or skips them when `dest` is NULL.
ZYN_RETCODE inputBuffGet(PSP_INPUTBUFF in, void* dest, size_t size)
{
    auto* to = static_cast<char*>(dest);
    while (size > 0) {
        if (in->pos == in->len) {
            if (const ZYN_RETCODE rc = fill(in); rc != sOKAY)
                return rc;
        }
        const size_t piece = std::min<size_t>(in->len - in->pos, size);
        if (to) {
            memcpy(to, in->buf + in->pos, piece);
            to += piece;
        }
        in->pos += static_cast<uint32_t>(piece);
        size -= piece;
    }
    return sOKAY;
}

// What does not fit is apart, so that the rest of a get needs no frame.
template <class T>
[[gnu::noinline]] ZYN_RETCODE getInPieces(PSP_INPUTBUFF in, T* val)
{
    const ZYN_RETCODE rc = inputBuffGet(in, val, sizeof(T));
    if (rc == sOKAY && val)
        order(val, in->byteswap);
    return rc;
}

template <class T>
inline ZYN_RETCODE getValue(PSP_INPUTBUFF in, T* val)
{
    if (!val || in->len - in->pos < sizeof(T))
        return getInPieces(in, val);
    memcpy(val, in->buf + in->pos, sizeof(T));
    in->pos += static_cast<uint32_t>(sizeof(T));
    order(val, in->byteswap);
    return sOKAY;
}

// ---- Output ----

ZYN_RETCODE outBuffFlush(PSP_OUTPUTBUFF out)
{
    if (out->pos == 0)
        return sOKAY;
    const ZYN_RETCODE rc = out->writeFcn(out->dataCB, out->buf, out->pos);
    if (rc == sOKAY)
        out->pos = 0;
    return rc;
}

// Grows the buffer by one step. After a failure it keeps its size for good, and that is settled
// before the tag may jump.
void grow(PSP_OUTPUTBUFF out)
{
    const uint32_t size = std::min(out->size + growthStep, out->max);
    void* buf =
        psp_memTryExtend(out->buf, size, PSP_GLOBAL_TAG, PSP_MEM_PLAIN, size - out->size, nullptr);
    if (!buf) {
        out->max = out->size;
        psp_memRaise(PSP_GLOBAL_TAG);
        return;
    }
    out->buf = static_cast<char*>(buf);
    out->size = size;
}

// Makes room in a full buffer: it grows, or it is written once it has its largest size. The growth
// that reaches the largest size writes as well.
ZYN_RETCODE makeRoom(PSP_OUTPUTBUFF out)
{
    if (out->size < out->max)
        grow(out);
    return out->size < out->max ? sOKAY : outBuffFlush(out);
}

ZYN_RETCODE outBuffPut(PSP_OUTPUTBUFF out, const void* data, size_t size)
{
    auto* from = static_cast<const char*>(data);
    while (size > 0) {
        if (out->pos == out->size) {
            if (const ZYN_RETCODE rc = makeRoom(out); rc != sOKAY)
                return rc;
        }
        const size_t piece = std::min<size_t>(out->size - out->pos, size);
        memcpy(out->buf + out->pos, from, piece);
        out->pos += static_cast<uint32_t>(piece);
        from += piece;
        size -= piece;
    }
    return sOKAY;
}

// Apart, as with a get.
template <class T>
[[gnu::noinline]] ZYN_RETCODE putInPieces(PSP_OUTPUTBUFF out, T val)
{
    return outBuffPut(out, &val, sizeof val);
}

template <class T>
inline ZYN_RETCODE putValue(PSP_OUTPUTBUFF out, T val)
{
    order(&val, out->byteswap);
    if (out->size - out->pos < sizeof(T))
        return putInPieces(out, val);
    memcpy(out->buf + out->pos, &val, sizeof(T));
    out->pos += static_cast<uint32_t>(sizeof(T));
    return sOKAY;
}

} // namespace

ZYN_RETCODE psp_inputBuffCreate(PSP_BUFFREADFCN readFcn, const void* dataCB, int16_t byteswap,
                                PSP_INPUTBUFF* inBuff)
{
    auto* in = static_cast<PSP_INPUTBUFF>(psp_getMem(sizeof(INPUTBUFFEREDSTREAM), PSP_GLOBAL_TAG,
                                                     PSP_MEM_ZERO, nullptr, __FILE__, __LINE__));
    if (!in)
        return eNOMEMORY;
    in->buf = static_cast<char*>(
        psp_getMem(initialSize, PSP_GLOBAL_TAG, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__));
    if (!in->buf)
        return eNOMEMORY; // the record stays with the global tag, which frees it in the end
    in->readFcn = readFcn;
    in->dataCB = dataCB;
    in->size = initialSize;
    in->byteswap = byteswap;
    *inBuff = in;
    return sOKAY;
}

void psp_inputBuffDestroy(PSP_INPUTBUFF_C inBuff)
{
    if (!inBuff)
        return;
    psp_freeMem(inBuff->buf, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    psp_freeMem(inBuff, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

void psp_inputBuffReset(PSP_INPUTBUFF inBuff)
{
    inBuff->len = 0;
    inBuff->pos = 0;
}

ZYN_RETCODE psp_inputBuffGetChar(PSP_INPUTBUFF inBuff, char* chval)
{
    return getValue(inBuff, chval);
}

ZYN_RETCODE psp_inputBuffGetInt16(PSP_INPUTBUFF inBuff, int16_t* val)
{
    return getValue(inBuff, val);
}

ZYN_RETCODE psp_inputBuffGetInt32(PSP_INPUTBUFF inBuff, int32_t* val)
{
    return getValue(inBuff, val);
}

ZYN_RETCODE psp_inputBuffGetInt64(PSP_INPUTBUFF inBuff, int64_t* val)
{
    return getValue(inBuff, val);
}

ZYN_RETCODE psp_inputBuffGetFloat32(PSP_INPUTBUFF inBuff, float* val)
{
    return getValue(inBuff, val);
}

ZYN_RETCODE psp_inputBuffGetFloat64(PSP_INPUTBUFF inBuff, double* val)
{
    return getValue(inBuff, val);
}

ZYN_RETCODE psp_inputBuffGetBytes(PSP_INPUTBUFF inBuff, void* data, size_t size)
{
    return inputBuffGet(inBuff, data, size);
}

ZYN_RETCODE psp_inputBuffGetString(PSP_INPUTBUFF inBuff, char** str, PSP_MEMTAG tag)
{
    uint32_t length = 0;
    if (const ZYN_RETCODE rc = getValue(inBuff, &length); rc != sOKAY)
        return rc;
    if (length == nullLength) {
        if (str)
            *str = nullptr;
        return sOKAY;
    }
    if (!str)
        return inputBuffGet(inBuff, nullptr, length);
    auto* text = static_cast<char*>(
        psp_getMem(size_t{length} + 1, tag, PSP_MEM_PLAIN, nullptr, __FILE__, __LINE__));
    if (!text)
        return eNOMEMORY;
    if (const ZYN_RETCODE rc = inputBuffGet(inBuff, text, length); rc != sOKAY)
        return rc; // the block stays in the caller's tag
    text[length] = '\0';
    *str = text;
    return sOKAY;
}

ZYN_RETCODE psp_inputBuffGetStringWithLength(PSP_INPUTBUFF inBuff, char* str, size_t size)
{
    uint32_t length = 0;
    if (const ZYN_RETCODE rc = getValue(inBuff, &length); rc != sOKAY)
        return rc;
    if (length == nullLength) {
        if (str)
            *str = '\0';
        return sOKAY;
    }
    const size_t taken = std::min<size_t>(size - 1, length); // size 0 wraps: no limit
    if (const ZYN_RETCODE rc = inputBuffGet(inBuff, str, taken); rc != sOKAY)
        return rc;
    if (str)
        str[taken] = '\0';
    if (taken == length)
        return sOKAY;
    const ZYN_RETCODE rc = inputBuffGet(inBuff, nullptr, length - taken);
    return rc == sOKAY ? eTX_TRUNCATED : rc;
}

ZYN_RETCODE psp_outputBuffCreate(PSP_BUFFWRITEFCN writeFcn, const void* dataCB, int16_t byteswap,
                                 PSP_OUTPUTBUFF* outBuff)
{
    PSP_OUTPUTBUFF out = nullptr;
    const ZYN_RETCODE rc =
        psp_getMem_rc(sizeof *out, PSP_GLOBAL_TAG, PSP_MEM_ZERO, nullptr, &out, __FILE__, __LINE__);
    if (rc != sOKAY)
        return rc;
    out->buf =
        static_cast<char*>(psp_memTryGet(initialSize, PSP_GLOBAL_TAG, PSP_MEM_PLAIN, nullptr));
    if (!out->buf) {
        psp_freeMem(out, PSP_GLOBAL_TAG, __FILE__, __LINE__);
        psp_memRaise(PSP_GLOBAL_TAG);
        return eNOMEMORY;
    }
    out->writeFcn = writeFcn;
    out->dataCB = dataCB;
    out->max = largestSize;
    out->size = initialSize;
    out->byteswap = byteswap;
    *outBuff = out;
    return sOKAY;
}

void psp_outputBuffDestroy(PSP_OUTPUTBUFF_C outBuff)
{
    if (!outBuff)
        return;
    psp_freeMem(outBuff->buf, PSP_GLOBAL_TAG, __FILE__, __LINE__);
    psp_freeMem(outBuff, PSP_GLOBAL_TAG, __FILE__, __LINE__);
}

ZYN_RETCODE psp_outputBuffFlush(PSP_OUTPUTBUFF outBuff)
{
    return outBuffFlush(outBuff);
}

ZYN_RETCODE psp_outputBuffPutChar(PSP_OUTPUTBUFF outBuff, char chval)
{
    return putValue(outBuff, chval);
}

ZYN_RETCODE psp_outputBuffPutInt16(PSP_OUTPUTBUFF outBuff, int16_t val)
{
    return putValue(outBuff, val);
}

ZYN_RETCODE psp_outputBuffPutInt32(PSP_OUTPUTBUFF outBuff, int32_t val)
{
    return putValue(outBuff, val);
}

ZYN_RETCODE psp_outputBuffPutInt64(PSP_OUTPUTBUFF outBuff, int64_t val)
{
    return putValue(outBuff, val);
}

ZYN_RETCODE psp_outputBuffPutFloat32(PSP_OUTPUTBUFF outBuff, float val)
{
    return putValue(outBuff, val);
}

ZYN_RETCODE psp_outputBuffPutFloat64(PSP_OUTPUTBUFF outBuff, double val)
{
    return putValue(outBuff, val);
}

ZYN_RETCODE psp_outputBuffPutBytes(PSP_OUTPUTBUFF outBuff, const void* data, size_t size)
{
    return outBuffPut(outBuff, data, size);
}

ZYN_RETCODE psp_outputBuffPutString(PSP_OUTPUTBUFF outBuff, const char* str)
{
    return outBuffPut(outBuff, str, static_cast<uint32_t>(strlen(str)));
}

ZYN_RETCODE psp_outputBuffPutStringWithLength(PSP_OUTPUTBUFF outBuff, const char* str)
{
    const uint32_t length = str ? static_cast<uint32_t>(strlen(str)) : nullLength;
    const ZYN_RETCODE rc = putValue(outBuff, length);
    if (rc != sOKAY || !str)
        return rc;
    return outBuffPut(outBuff, str, length);
}

ZYN_RETCODE psp_outputBuffSendDirect(PSP_OUTPUTBUFF outBuff, const void* data, size_t size)
{
    if (size == 0)
        return sOKAY;
    if (const ZYN_RETCODE rc = outBuffFlush(outBuff); rc != sOKAY)
        return rc;
    return outBuff->writeFcn(outBuff->dataCB, data, static_cast<uint32_t>(size));
}
