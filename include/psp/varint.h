/**
 * @file varint.h
 * Variable-length integers: an unsigned 64-bit value in 1 to 9 bytes.
 *
 * The format is meant for data that is stored and sent. There is exactly one encoding of a value,
 * its first byte tells its length, and encodings of equal length sort in the order of their values.
 * The first byte's mark is followed by P, the value less its length's first value, with the most
 * significant byte first:
 *
 *     bytes  first byte          values
 *       1    0xxxxxxx            0                  to 0x7F
 *       2    10xxxxxx            0x80               to 0x407F
 *       3    110xxxxx            0x4080             to 0x20407F
 *       4    11100xxx            0x204080           to 0x820407F
 *       5    11101xxx            0x8204080          to 0x80820407F
 *       6    11110xxx            0x808204080        to 0x8080820407F
 *       7    11111000            0x80808204080      to 0x108080820407F
 *       8    11111001            0x1080808204080    to 0x10108080820407F
 *       9    11111010            0x101080808204080  to 0xFFFFFFFFFFFFFFFF
 *
 * For a signed value encode psp_vintConvertToUnsigned() of it, and turn what was decoded back with
 * psp_vintConvertToSigned().
 *
 * The functions work before psp_init() and from any thread; callbacks run on the calling thread,
 * and may leave by a `longjmp`.
 */
#ifndef PSP_VARINT_H
#define PSP_VARINT_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * Encodes a value.
 * @param val the value
 * @param fcn called once for each byte, in order, until it fails
 * @param ctx its context
 * @return `sOKAY`, or the first other result of `fcn`; the bytes before it have been put out
 */
PSP_API ZYN_RETCODE psp_vintEncodeUIntmax(uintmax_t val, ZYN_OUTPUT_FCN fcn, ZYN_OUTPUT_CTX ctx);

/**
 * Decodes a value.
 * @param fcn called once for each byte of the encoding, and never beyond it; it must not deliver a
 *            value above 255
 * @param ctx its context
 * @param val receives the value on success, and is left alone on failure. A 9-byte encoding of
 *            more than 64 bits, which the encoder never makes, wraps around
 * @return `sOKAY`; `eINVVARINT` when the first byte begins no encoding (0xFB to 0xFF; nothing more
 *         is read); the first other result of `fcn`
 */
PSP_API ZYN_RETCODE psp_vintDecodeUIntmax(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uintmax_t* val);

/**
 * Decodes a value of 32 bits; see psp_vintDecodeUIntmax().
 * @return also `eRANGE` when the value does not fit; its encoding has been read then
 */
PSP_API ZYN_RETCODE psp_vintDecodeUInt32(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, uint32_t* val);

/** Decodes a size; see psp_vintDecodeUIntmax(). */
PSP_API ZYN_RETCODE psp_vintDecodeSize_t(ZYN_INPUT_FCN fcn, ZYN_INPUT_CTX ctx, size_t* val);

/**
 * Maps a signed value to an unsigned one so that values near zero stay small: 0, -1, 1, -2, …
 * become 0, 1, 2, 3, …
 * @param val any value
 * @return 2 `val` from 0 on, -2 `val` - 1 below
 */
PSP_API uintmax_t psp_vintConvertToUnsigned(intmax_t val);

/**
 * Undoes psp_vintConvertToUnsigned().
 * @param val any value
 * @return the signed value that maps to `val`
 */
PSP_API intmax_t psp_vintConvertToSigned(uintmax_t val);

PSP_END_DECLS

#endif
