/**
 * @file bits.h
 * Byte order, bit scanning and alignment.
 *
 * Pure functions of their arguments: they work before psp_init() and from any thread.
 */
#ifndef PSP_BITS_H
#define PSP_BITS_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup bits
 * @{
 */

/** Data types by their alignment; the argument of psp_align(). */
typedef enum ALIGN_TYPE {
    ALN_CHAR = 0,  /**< `char`: 1 byte */
    ALN_INT16 = 1, /**< `int16_t`: 2 bytes */
    ALN_WCHAR = 2, /**< `wchar_t`: 4 bytes */
    ALN_INT32 = 3, /**< `int32_t`: 4 bytes */
    ALN_FLOAT = 4, /**< `float`: 4 bytes */
    ALN_INT64 = 5, /**< `int64_t`: 8 bytes */
    ALN_DOUBLE = 6 /**< `double`: 8 bytes */
} ALIGN_TYPE;

/**
 * Reverses the 2 bytes of an unsigned value in place, whatever the host's byte order is. Applied
 * twice, this and its kin give back the value.
 * @param val the value; must not be NULL
 * @threads{any, one at a time per value} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_swaporderUInt16(uint16_t* val);

/**
 * Reverses the 4 bytes of an unsigned value in place. See psp_swaporderUInt16().
 * @param val the value; must not be NULL
 * @threads{any, one at a time per value} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_swaporderUInt32(uint32_t* val);

/**
 * Reverses the 8 bytes of an unsigned value in place. See psp_swaporderUInt16().
 * @param val the value; must not be NULL
 * @threads{any, one at a time per value} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_swaporderUInt64(uint64_t* val);

/**
 * Reverses the 2 bytes of a signed value in place. See psp_swaporderUInt16().
 * @param val the value; must not be NULL
 * @threads{any, one at a time per value} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_swaporderInt16(int16_t* val);

/**
 * Reverses the 4 bytes of a signed value in place. See psp_swaporderUInt16().
 * @param val the value; must not be NULL
 * @threads{any, one at a time per value} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_swaporderInt32(int32_t* val);

/**
 * Reverses the 8 bytes of a signed value in place. See psp_swaporderUInt16().
 * @param val the value; must not be NULL
 * @threads{any, one at a time per value} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_swaporderInt64(int64_t* val);

/**
 * Reverses the 4 bytes of a number in place. See psp_swaporderUInt16(). The swapped bytes are data
 * on their way, not a number: do not calculate with them.
 * @param val the number; must not be NULL
 * @threads{any, one at a time per value} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_swaporderFloat(float* val);

/**
 * Reverses the 8 bytes of a number in place. See psp_swaporderFloat().
 * @param val the number; must not be NULL
 * @threads{any, one at a time per value} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API void psp_swaporderDouble(double* val);

/**
 * Finds the highest set bit.
 * @param val any value
 * @return its position, the lowest bit being 1: from 1 to 32; 0 when `val` is 0
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_bitFirstSet(uint32_t val);

/**
 * Finds the highest set bit of a 64-bit value.
 * @param val any value
 * @return its position, the lowest bit being 1: from 1 to 64; 0 when `val` is 0
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_bitFirstSet64(uint64_t val);

/**
 * Reverses the order of a value's bits.
 * @param val any value
 * @return the value whose bit 63 - i is bit i of `val`
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint64_t psp_bitReverse64(uint64_t val);

/**
 * Rounds an offset up to the alignment of a data type.
 * @param offset the offset in bytes; the sum wraps in 32 bits
 * @param type   one of ::ALIGN_TYPE
 * @return the next multiple of the type's alignment, `offset` itself when it is one already
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_align(uint32_t offset, ALIGN_TYPE type);

/**
 * Rounds a size up to a multiple of 8.
 * @param initialSize the size in bytes
 * @return the next multiple of 8, `initialSize` itself when it is one already
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API size_t psp_alignBufferSize(size_t initialSize);

/** @} */

PSP_END_DECLS

#endif
