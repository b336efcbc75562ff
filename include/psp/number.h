/**
 * @file number.h
 * Numbers: reading them from text, rounding, and telling NaNs and infinities apart.
 *
 * The functions work before psp_init() and from any thread. Those that read text leave the
 * C library's verdict in the thread's `errno`; those that read floating-point numbers follow the
 * process's current locale.
 */
#ifndef PSP_NUMBER_H
#define PSP_NUMBER_H

#include "psptypes.h"

PSP_BEGIN_DECLS

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

/**
 * Reads a decimal integer.
 *
 * White space and a sign may stand before the digits, and anything after them: "12abc" is 12. Only
 * zero is strict, because a text without digits reads as zero too: it must be spelled "0".
 *
 * @param str  the text; NULL is no number
 * @param pVal receives the value on success; may be NULL to check only
 * @return `sOKAY`; `eRANGE` when the value does not fit the type; `eINVSTRING` when the text reads
 *         as zero and is not "0"
 */
PSP_API ZYN_RETCODE psp_atoi64(const char* str, int64_t* pVal);

/** Reads a decimal integer of 32 bits; see psp_atoi64(). */
PSP_API ZYN_RETCODE psp_atoi32(const char* str, int32_t* pVal);

/**
 * Reads an unsigned decimal integer; see psp_atoi64(). A leading minus sign negates modulo 2 to
 * the power of 64: "-1" is the largest value.
 */
PSP_API ZYN_RETCODE psp_atoui64(const char* str, uint64_t* pVal);

/**
 * Reads an unsigned decimal integer of 32 bits; see psp_atoui64(). The range is checked after a
 * minus sign was taken into account: "-1" is out of range.
 */
PSP_API ZYN_RETCODE psp_atoui32(const char* str, uint32_t* pVal);

/**
 * Reads a floating-point number as the C library's `strtod` does, with `errno` cleared before.
 * @param s the text; may not be NULL
 * @return the number; 0 when there is none
 */
PSP_API double psp_atof(const char* s);

/**
 * Reads a floating-point number, in any form that the C library's `strtod` takes. A text without
 * a number reads as 0.
 * @param str  the text; may not be NULL
 * @param pVal receives the number on success; may be NULL to check only
 * @return `sOKAY`, or `eRANGE` when the number overflows or becomes zero by underflow; an infinity
 *         that the text spells out is in range
 */
PSP_API ZYN_RETCODE psp_strtod(const char* str, double* pVal);

/** Reads a floating-point number of single precision; see psp_strtod(). */
PSP_API ZYN_RETCODE psp_strtof(const char* str, float* pVal);

/**
 * Rounds to a whole number, halves away from zero: 2.5 gives 3, -2.5 gives -3.
 * @param lfVal the number
 * @return floor(`lfVal` + 0.5) from 0 on, ceil(`lfVal` - 0.5) below; a NaN for a NaN
 */
PSP_API double psp_round(double lfVal);

/** Gives the largest whole number that is not above `fv`. */
PSP_API float psp_floorf(float fv);

/** Gives the smallest whole number that is not below `fv`. */
PSP_API float psp_ceilf(float fv);

/**
 * Tells whether a value is a NaN.
 * @param dv   the value
 * @param sign receives the NaN's sign, and is left alone for other values; may be NULL
 * @return ::ZYN_TRUE for a NaN
 */
PSP_API ZYN_BOOL_T psp_isnan(double dv, ZYN_FP_SIGN* sign);

/** Tells whether a value of single precision is a NaN; see psp_isnan(). */
PSP_API ZYN_BOOL_T psp_isnanf(float fv, ZYN_FP_SIGN* sign);

/**
 * Tells whether a value is not finite. NaNs count: to single out infinities, ask psp_isnanf()
 * first.
 * @param fv   the value
 * @param sign receives the sign of a value that is not finite, and is left alone for others; may
 *             be NULL
 * @return ::ZYN_TRUE for an infinity and for a NaN
 */
PSP_API ZYN_BOOL_T psp_isinff(float fv, ZYN_FP_SIGN* sign);

/**
 * Tells whether a value is finite and, if not, what it is.
 * @param dv     the value
 * @param fpType receives the kind of a value that is not finite, and is left alone for finite
 *               ones; may be NULL
 * @return ::ZYN_TRUE for a finite value
 */
PSP_API ZYN_BOOL_T psp_validateDouble(double dv, ZYN_FP_TYPE* fpType);

/** Tells whether a value of single precision is finite; see psp_validateDouble(). */
PSP_API ZYN_BOOL_T psp_validateFloat(float fv, ZYN_FP_TYPE* fpType);

PSP_END_DECLS

#endif
