/**
 * @file varint.h
 * Variable-length integers: an unsigned 64-bit value in 1 to 9 bytes, for data that is stored and
 * sent.
 *
 * There is exactly one encoding of a value, its first byte tells its length, and encodings compared
 * byte by byte (`memcmp`) sort in the order of their values. The bytes go through a callback of the
 * caller's, on the calling thread. For a signed value encode psp_vintConvertToUnsigned() of it, and
 * turn what was decoded back with psp_vintConvertToSigned().
 */
#ifndef PSP_VARINT_H
#define PSP_VARINT_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup varint
 * @{
 */

/**
 * Encodes a value.
 * @param val the value
 * @param fcn called once for each byte, in order, until it fails; must not be NULL
 * @param ctx its context, handed through
 * @return the first result of `fcn` that is not `sOKAY`; the bytes before it have been put out
 * @retval sOKAY all 1 to 9 bytes have been taken
 * @threads{any, as far as `fcn` goes} @before{works} @jumps{only through the callback}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_vintEncodeUIntmax(uintmax_t val, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx);

/**
 * Decodes a value.
 * @param fcn called once for each byte of the encoding, and never beyond it; it must not deliver a
 *            value above 255, and must not be NULL
 * @param ctx its context, handed through
 * @param val receives the value on success, and is left alone on failure; must not be NULL. A
 *            9-byte encoding of more than 64 bits, which the encoder never makes, wraps around.
 * @return the first result of `fcn` that is not `sOKAY`; the bytes before it are consumed
 * @retval sOKAY      the value is stored
 * @retval eINVVARINT the first byte begins no encoding (0xFB to 0xFF); nothing more is read
 * @threads{any, as far as `fcn` goes} @before{works} @jumps{only through the callback}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_vintDecodeUIntmax(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uintmax_t* val);

/**
 * Decodes a value of 32 bits.
 * @param fcn,ctx as for psp_vintDecodeUIntmax()
 * @param val     receives the value on success, and is left alone on failure; must not be NULL
 * @return the first result of `fcn` that is not `sOKAY`; the bytes before it are consumed
 * @retval sOKAY      the value is stored
 * @retval eINVVARINT the first byte begins no encoding (0xFB to 0xFF); nothing more is read
 * @retval eRANGE     the value is above 4294967295; its whole encoding has been read
 * @threads{any, as far as `fcn` goes} @before{works} @jumps{only through the callback}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_vintDecodeUInt32(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uint32_t* val);

/**
 * Decodes a size, which has the 64 bits of any other value.
 * @param fcn,ctx,val as for psp_vintDecodeUIntmax()
 * @return the first result of `fcn` that is not `sOKAY`; the bytes before it are consumed
 * @retval sOKAY      the value is stored
 * @retval eINVVARINT the first byte begins no encoding (0xFB to 0xFF); nothing more is read
 * @threads{any, as far as `fcn` goes} @before{works} @jumps{only through the callback}
 * @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_vintDecodeSize_t(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, size_t* val);

/**
 * Maps a signed value to an unsigned one so that values near zero stay small: 0, -1, 1, -2 and so
 * on become 0, 1, 2, 3 and so on.
 * @param val any value
 * @return 2 `val` from 0 on, -2 `val` - 1 below
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uintmax_t psp_vintConvertToUnsigned(intmax_t val);

/**
 * Undoes psp_vintConvertToUnsigned().
 * @param val any value
 * @return the signed value that maps to `val`
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API intmax_t psp_vintConvertToSigned(uintmax_t val);

/** @} */

PSP_END_DECLS

#endif
