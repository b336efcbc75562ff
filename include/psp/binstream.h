/**
 * @file binstream.h
 * Buffered binary streams: typed values onto, and off, a transport that a callback stands for.
 *
 * Values travel without marks or padding; the reader asks for what the writer put. A stream has no
 * lock: one thread at a time may use it. Streams belong to the global memory tag
 * (::PSP_GLOBAL_TAG). Callbacks run on the calling thread. Where NULL is not allowed explicitly, a
 * stream handle must be valid.
 */
#ifndef PSP_BINSTREAM_H
#define PSP_BINSTREAM_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup binstream
 * @{
 */

/** Handle of an input stream, made by psp_inputBuffCreate() and freed by psp_inputBuffDestroy(). */
typedef struct INPUTBUFFEREDSTREAM* PSP_INPUTBUFF;

/** Handle of an input stream that is not read from. */
typedef const struct INPUTBUFFEREDSTREAM* PSP_INPUTBUFF_C;

/** Handle of an output stream, made by psp_outputBuffCreate(), freed by psp_outputBuffDestroy(). */
typedef struct OUTPUTBUFFEREDSTREAM* PSP_OUTPUTBUFF;

/** Handle of an output stream that is not written to. */
typedef const struct OUTPUTBUFFEREDSTREAM* PSP_OUTPUTBUFF_C;

/**
 * Reads from the transport.
 * @param dataCB the context given when the stream was made
 * @param buf    where the bytes go
 * @param size   room in `buf`, in bytes
 * @param len    receives the count of bytes delivered, at most `size`. A success with 0 bytes
 *               means "ask again", at once and without end: the end of the data is a failure.
 * @param flags  0
 * @return `sOKAY`, or a code (`eEOD` at the end of the data, say) that the stream hands to its
 *         caller unchanged
 * @threads{runs on the thread that called the stream} @jumps{it may leave by a jump: the stream
 * holds then what it held before the call}
 */
typedef ZYN_RETCODE (*PSP_BUFFREADFCN)(const void* dataCB, void* buf, uint32_t size, uint32_t* len,
                                       uint32_t flags);

/**
 * Writes to the transport.
 * @param dataCB the context given when the stream was made
 * @param data   the bytes
 * @param size   their count; all must be taken
 * @return `sOKAY`, or a code that the stream hands to its caller unchanged
 * @threads{runs on the thread that called the stream} @jumps{it may leave by a jump: the stream
 * holds then what it held before the call}
 */
typedef ZYN_RETCODE (*PSP_BUFFWRITEFCN)(const void* dataCB, const void* data, uint32_t size);

/* ---- Input ---- */

/**
 * Makes an input stream, with a buffer of 4096 bytes. Nothing is read yet.
 * @param readFcn  the transport
 * @param dataCB   its context; not copied
 * @param byteswap not 0: numbers arrive in the reversed byte order
 * @param inBuff   receives the stream on success; must not be NULL
 * @retval sOKAY     the stream is made
 * @retval eNOMEMORY memory is short, or the library is not started
 * @threads{any} @before{`eNOMEMORY`} @jumps{by the global tag, if psp_resetTag() gave it a buffer}
 * @owner{the caller frees the stream with psp_inputBuffDestroy(); `dataCB` must live as long as the
 * transport needs it}
 */
PSP_API ZYN_RETCODE psp_inputBuffCreate(PSP_BUFFREADFCN readFcn, const void* dataCB,
                                        int16_t byteswap, PSP_INPUTBUFF* inBuff);

/**
 * Frees an input stream. What it has read ahead is lost.
 * @param inBuff the stream; NULL does nothing
 * @threads{one at a time per stream} @before{does nothing for NULL; no stream is alive}
 * @jumps{never} @owner{frees the stream}
 */
PSP_API void psp_inputBuffDestroy(PSP_INPUTBUFF_C inBuff);

/**
 * Drops what was read ahead, so that the next get asks the transport: call it after the transport
 * was repositioned.
 * @param inBuff the stream
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{never} @owner{nothing}
 */
PSP_API void psp_inputBuffReset(PSP_INPUTBUFF inBuff);

/**
 * Gets a byte.
 *
 * The rules of all gets: a NULL destination skips the item. When the transport fails in the middle
 * of an item, the part that came has been consumed, and the destination holds no usable value.
 * @param inBuff the stream
 * @param chval  receives the byte; may be NULL
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the byte is stored, or skipped
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetChar(PSP_INPUTBUFF inBuff, char* chval);

/**
 * Gets a 16-bit integer. The rules of psp_inputBuffGetChar() hold.
 * @param inBuff the stream
 * @param val    receives the number; may be NULL
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is stored, or skipped
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetInt16(PSP_INPUTBUFF inBuff, int16_t* val);

/**
 * Gets a 32-bit integer. The rules of psp_inputBuffGetChar() hold.
 * @param inBuff the stream
 * @param val    receives the number; may be NULL
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is stored, or skipped
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetInt32(PSP_INPUTBUFF inBuff, int32_t* val);

/**
 * Gets a 64-bit integer. The rules of psp_inputBuffGetChar() hold.
 * @param inBuff the stream
 * @param val    receives the number; may be NULL
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is stored, or skipped
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetInt64(PSP_INPUTBUFF inBuff, int64_t* val);

/**
 * Gets a floating-point number of single precision. The rules of psp_inputBuffGetChar() hold.
 * @param inBuff the stream
 * @param val    receives the number; may be NULL
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is stored, or skipped
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetFloat32(PSP_INPUTBUFF inBuff, float* val);

/**
 * Gets a floating-point number of double precision. The rules of psp_inputBuffGetChar() hold.
 * @param inBuff the stream
 * @param val    receives the number; may be NULL
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is stored, or skipped
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetFloat64(PSP_INPUTBUFF inBuff, double* val);

/**
 * Gets bytes. The rules of psp_inputBuffGetChar() hold.
 * @param inBuff the stream
 * @param data   receives the bytes; NULL skips them
 * @param size   their count
 * @return the transport's code, unchanged, when it fails; the bytes before have been stored
 * @retval sOKAY all bytes are stored, or skipped
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetBytes(PSP_INPUTBUFF inBuff, void* data, size_t size);

/**
 * Gets a string with length into memory of its own. The rules of psp_inputBuffGetChar() hold.
 * @param inBuff the stream
 * @param str    receives the string, or NULL for a null string; NULL skips it
 * @param tag    owner of the string
 * @return the transport's code, unchanged, when it fails; inside the text it leaves the block in
 *         the tag
 * @retval sOKAY     the string is stored, or skipped
 * @retval eNOMEMORY memory is short or `tag` is NULL; the length has been read, the text is next in
 *                   the stream
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{by the tag, and through the callback} @owner{the caller frees the string with
 * psp_freeMem()}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetString(PSP_INPUTBUFF inBuff, char** str, PSP_MEMTAG tag);

/**
 * Gets a string with length into the caller's buffer. The rules of psp_inputBuffGetChar() hold.
 * @param inBuff the stream
 * @param str    receives the string and its NUL, an empty string for a null string; NULL skips it
 * @param size   room in `str`, in bytes; 0: there is room for any string
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY         the whole string is stored, or skipped
 * @retval eTX_TRUNCATED only the first `size` - 1 bytes and a NUL are stored; the stream stands
 *                       behind the whole string
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_inputBuffGetStringWithLength(PSP_INPUTBUFF inBuff, char* str, size_t size);

/* ---- Output ---- */

/**
 * Makes an output stream. Its buffer starts at 4096 bytes and grows by 1024 to 32768. With the last
 * step it is written for the first time, 31744 bytes; from then on the transport gets blocks of
 * 32768 bytes.
 * @param writeFcn the transport
 * @param dataCB   its context; not copied
 * @param byteswap not 0: numbers leave in the reversed byte order
 * @param outBuff  receives the stream on success; must not be NULL
 * @retval sOKAY     the stream is made
 * @retval eNOMEMORY memory is short, or the library is not started
 * @threads{any} @before{`eNOMEMORY`} @jumps{by the global tag, if psp_resetTag() gave it a buffer}
 * @owner{the caller frees the stream with psp_outputBuffDestroy(); `dataCB` must live as long as
 * the transport needs it}
 */
PSP_API ZYN_RETCODE psp_outputBuffCreate(PSP_BUFFWRITEFCN writeFcn, const void* dataCB,
                                         int16_t byteswap, PSP_OUTPUTBUFF* outBuff);

/**
 * Frees an output stream. What it still holds is lost: psp_outputBuffFlush() first.
 * @param outBuff the stream; NULL does nothing
 * @threads{one at a time per stream} @before{does nothing for NULL; no stream is alive}
 * @jumps{never} @owner{frees the stream}
 */
PSP_API void psp_outputBuffDestroy(PSP_OUTPUTBUFF_C outBuff);

/**
 * Writes what the stream holds; an empty stream does not call the transport.
 * @param outBuff the stream
 * @return the transport's code, unchanged, when it fails; the stream then holds its bytes still,
 *         and a later flush tries again
 * @retval sOKAY the stream is empty
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffFlush(PSP_OUTPUTBUFF outBuff);

/**
 * Puts a byte.
 *
 * The rules of all puts: a put fails only when the buffer is full and cannot be written. What it
 * placed before stays in the buffer, so that an item may then be there in part. When the buffer
 * cannot grow for want of memory it is written early, and no code tells.
 * @param outBuff the stream
 * @param chval   the byte
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the byte is in the buffer
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; when the buffer cannot grow, by the global tag, if psp_resetTag()
 * gave it a buffer} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutChar(PSP_OUTPUTBUFF outBuff, char chval);

/**
 * Puts a 16-bit integer. The rules of psp_outputBuffPutChar() hold.
 * @param outBuff the stream
 * @param val     the number
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is in the buffer
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; as psp_outputBuffPutChar()} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutInt16(PSP_OUTPUTBUFF outBuff, int16_t val);

/**
 * Puts a 32-bit integer. The rules of psp_outputBuffPutChar() hold.
 * @param outBuff the stream
 * @param val     the number
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is in the buffer
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; as psp_outputBuffPutChar()} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutInt32(PSP_OUTPUTBUFF outBuff, int32_t val);

/**
 * Puts a 64-bit integer. The rules of psp_outputBuffPutChar() hold.
 * @param outBuff the stream
 * @param val     the number
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is in the buffer
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; as psp_outputBuffPutChar()} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutInt64(PSP_OUTPUTBUFF outBuff, int64_t val);

/**
 * Puts a floating-point number of single precision. The rules of psp_outputBuffPutChar() hold.
 * @param outBuff the stream
 * @param val     the number
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is in the buffer
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; as psp_outputBuffPutChar()} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutFloat32(PSP_OUTPUTBUFF outBuff, float val);

/**
 * Puts a floating-point number of double precision. The rules of psp_outputBuffPutChar() hold.
 * @param outBuff the stream
 * @param val     the number
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY the number is in the buffer
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; as psp_outputBuffPutChar()} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutFloat64(PSP_OUTPUTBUFF outBuff, double val);

/**
 * Puts bytes. The rules of psp_outputBuffPutChar() hold.
 * @param outBuff the stream
 * @param data    the bytes; copied. May be NULL when `size` is 0.
 * @param size    their count
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY all bytes are in the buffer, or written
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; as psp_outputBuffPutChar()} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutBytes(PSP_OUTPUTBUFF outBuff, const void* data, size_t size);

/**
 * Puts the text of a string alone: no length and no NUL. psp_inputBuffGetString() does not read
 * this; it reads what psp_outputBuffPutStringWithLength() puts.
 * @param outBuff the stream
 * @param str     the string, shorter than 4 GiB; must not be NULL
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY all of it is in the buffer, or written
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; as psp_outputBuffPutChar()} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutString(PSP_OUTPUTBUFF outBuff, const char* str);

/**
 * Puts a string with length.
 * @param outBuff the stream
 * @param str     the string, shorter than 4 GiB - 1; NULL puts a null string
 * @return the transport's code, unchanged, when it fails
 * @retval sOKAY all of it is in the buffer, or written
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{through the callback; as psp_outputBuffPutChar()} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffPutStringWithLength(PSP_OUTPUTBUFF outBuff, const char* str);

/**
 * Flushes the stream and then hands the caller's bytes to the transport without copying them: for
 * runs as large as the buffer.
 * @param outBuff the stream
 * @param data    the bytes; may be NULL when `size` is 0
 * @param size    their count, below 4 GiB (the transport is given its low 32 bits); 0 does nothing,
 *                and does not flush
 * @return the transport's code, unchanged, when it fails in flushing or with `data`
 * @retval sOKAY everything is written
 * @threads{one at a time per stream} @before{undefined: no stream is alive}
 * @jumps{only through the callback} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_outputBuffSendDirect(PSP_OUTPUTBUFF outBuff, const void* data, size_t size);

/** @} */

PSP_END_DECLS

#endif
