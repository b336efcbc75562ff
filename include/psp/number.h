/**
 * @file number.h
 * Numbers: reading them from text, rounding, and telling NaNs and infinities apart.
 *
 * Nothing here needs psp_init(). Functions that read text clear the thread's `errno` and leave the
 * C library's verdict in it; those that read floating-point numbers follow the process's locale.
 */
#ifndef PSP_NUMBER_H
#define PSP_NUMBER_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/** @addtogroup number
 *  @{ */

/** Sign of a floating-point value. */
typedef enum ZYN_FP_SIGN {
    ZYN_FP_NEGATIVE = 0, /**< the sign bit is set */
    ZYN_FP_POSITIVE = 1  /**< the sign bit is clear */
} ZYN_FP_SIGN;

/** Kinds of floating-point values that are not finite. */
typedef enum ZYN_FP_TYPE {
    ZYN_FP_POSITIVE_NAN = 1, /**< a NaN with a clear sign bit */
    ZYN_FP_NEGATIVE_NAN = 2, /**< a NaN with a set sign bit */
    ZYN_FP_POSITIVE_INF = 3, /**< plus infinity */
    ZYN_FP_NEGATIVE_INF = 4  /**< minus infinity */
} ZYN_FP_TYPE;

/* ---- From text ---- */

/**
 * Reads a decimal integer of 64 bits.
 *
 * White space and a sign may stand before the digits, and anything after them: "12abc" is 12. Only
 * zero is strict, because a text without digits reads as zero too: it must be spelled "0".
 *
 * @param str  the NUL-terminated text; NULL is no number
 * @param pVal receives the value on success and is left alone otherwise; may be NULL to check only
 * @retval sOKAY      the text is a number
 * @retval eRANGE     the number lies outside -2^63 to 2^63 - 1
 * @retval eINVSTRING the text is NULL, or reads as zero and is not "0"
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_atoi64(const char* str, int64_t* pVal);

/**
 * Reads a decimal integer of 32 bits, by the rules of psp_atoi64().
 * @param str  the NUL-terminated text; NULL is no number
 * @param pVal receives the value on success and is left alone otherwise; may be NULL to check only
 * @retval sOKAY      the text is a number
 * @retval eRANGE     the number lies outside -2147483648 to 2147483647
 * @retval eINVSTRING the text is NULL, or reads as zero and is not "0"
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_atoi32(const char* str, int32_t* pVal);

/**
 * Reads an unsigned decimal integer of 64 bits, by the rules of psp_atoi64(). A leading minus sign
 * negates modulo 2^64: "-1" is the largest value.
 * @param str  the NUL-terminated text; NULL is no number
 * @param pVal receives the value on success and is left alone otherwise; may be NULL to check only
 * @retval sOKAY      the text is a number
 * @retval eRANGE     the digits come to more than 2^64 - 1
 * @retval eINVSTRING the text is NULL, or reads as zero and is not "0"
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_atoui64(const char* str, uint64_t* pVal);

/**
 * Reads an unsigned decimal integer of 32 bits, by the rules of psp_atoui64(). The range is checked
 * after a minus sign was taken into account: "-1" is out of range.
 * @param str  the NUL-terminated text; NULL is no number
 * @param pVal receives the value on success and is left alone otherwise; may be NULL to check only
 * @retval sOKAY      the text is a number
 * @retval eRANGE     the number lies above 4294967295
 * @retval eINVSTRING the text is NULL, or reads as zero and is not "0"
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_atoui32(const char* str, uint32_t* pVal);

/**
 * Reads a floating-point number as the C library's `strtod` does. Overflow and underflow show in
 * `errno` (`ERANGE`); a text without a number cannot be told from zero.
 * @param s the NUL-terminated text; must not be NULL
 * @return the number; 0 when there is none
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API double psp_atof(const char* s);

/**
 * Reads a floating-point number of double precision, in any form that the C library's `strtod`
 * takes. A text without a number reads as 0; what follows the number is not looked at.
 * @param str  the NUL-terminated text; must not be NULL
 * @param pVal receives the number on success and is left alone otherwise; may be NULL to check only
 * @retval sOKAY  the value is stored; an infinity or a NaN that the text spells out is one
 * @retval eRANGE the number overflows, or is so small that it becomes zero
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_strtod(const char* str, double* pVal);

/**
 * Reads a floating-point number of single precision, as psp_strtod() does.
 * @param str  the NUL-terminated text; must not be NULL
 * @param pVal receives the number on success and is left alone otherwise; may be NULL to check only
 * @retval sOKAY  the value is stored; an infinity or a NaN that the text spells out is one
 * @retval eRANGE the number overflows a `float`, or is so small that it becomes zero
 * @threads{any, while none changes the locale} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_strtof(const char* str, float* pVal);

/* ---- Rounding ---- */

/**
 * Rounds to a whole number, halves away from zero: 2.5 gives 3, -2.5 gives -3.
 * @param lfVal the number
 * @return floor(`lfVal` + 0.5) from 0 on, ceil(`lfVal` - 0.5) below; a NaN for a NaN
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API double psp_round(double lfVal);

/**
 * Gives the largest whole number that is not above a value of single precision.
 * @param fv the value
 * @return the whole number; an infinity or a NaN for itself
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API float psp_floorf(float fv);

/**
 * Gives the smallest whole number that is not below a value of single precision.
 * @param fv the value
 * @return the whole number; an infinity or a NaN for itself
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API float psp_ceilf(float fv);

/* ---- Values that are not finite ---- */

/**
 * Tells whether a value is a NaN.
 * @param dv   the value
 * @param sign receives the NaN's sign, and is left alone for other values; may be NULL
 * @return ::ZYN_TRUE for a NaN, ::ZYN_FALSE for all else
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_isnan(double dv, ZYN_FP_SIGN* sign);

/**
 * Tells whether a value of single precision is a NaN.
 * @param fv   the value
 * @param sign receives the NaN's sign, and is left alone for other values; may be NULL
 * @return ::ZYN_TRUE for a NaN, ::ZYN_FALSE for all else
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_isnanf(float fv, ZYN_FP_SIGN* sign);

/**
 * Tells whether a value of single precision is not finite. NaNs count: to single out infinities,
 * ask psp_isnanf() first, or psp_validateFloat().
 * @param fv   the value
 * @param sign receives the sign of a value that is not finite, and is left alone for others; may
 *             be NULL
 * @return ::ZYN_TRUE for an infinity and for a NaN, ::ZYN_FALSE for finite values
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_isinff(float fv, ZYN_FP_SIGN* sign);

/**
 * Tells whether a value is finite and, if not, what it is.
 * @param dv     the value
 * @param fpType receives the kind of a value that is not finite, and is left alone for finite
 *               ones; may be NULL
 * @return ::ZYN_TRUE for a finite value, ::ZYN_FALSE for a NaN or an infinity
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_validateDouble(double dv, ZYN_FP_TYPE* fpType);

/**
 * Tells whether a value of single precision is finite and, if not, what it is.
 * @param fv     the value
 * @param fpType receives the kind of a value that is not finite, and is left alone for finite
 *               ones; may be NULL
 * @return ::ZYN_TRUE for a finite value, ::ZYN_FALSE for a NaN or an infinity
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_BOOL_T psp_validateFloat(float fv, ZYN_FP_TYPE* fpType);

/** @} */

PSP_END_DECLS

#endif
