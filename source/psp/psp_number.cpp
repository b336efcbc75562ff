// Numbers: reading them from text, rounding, and telling NaNs and infinities apart.
//
// The C library converts; what it leaves open is decided here from its result and `errno`. Without
// an end pointer, "no digits" and "zero" look alike, so an integer zero is told by its spelling.
#include "psp/number.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

namespace {

template <class T>
ZYN_RETCODE store(T value, T* pVal)
{
    if (pVal)
        *pVal = value;
    return sOKAY;
}

// Judges a result of strtoll or strtoull, whose errno was cleared before the call.
template <class T>
ZYN_RETCODE acceptInteger(const char* str, T value, T* pVal)
{
    using Limits = std::numeric_limits<T>;
    const bool atLimit = value == Limits::max() || (Limits::is_signed && value == Limits::min());
    if (atLimit && errno == ERANGE)
        return eRANGE;
    if (value == 0 && strcmp(str, "0") != 0)
        return eINVSTRING;
    return store(value, pVal);
}

// Reads with `parse` and stores the value when it fits the narrower type.
template <class Narrow, class Wide>
ZYN_RETCODE readNarrow(ZYN_RETCODE (*parse)(const char*, Wide*), const char* str, Narrow* pVal)
{
    Wide wide = 0;
    if (const ZYN_RETCODE rc = parse(str, &wide); rc != sOKAY)
        return rc;
    if (!std::in_range<Narrow>(wide))
        return eRANGE;
    return store(static_cast<Narrow>(wide), pVal);
}

// Judges a result of strtod or strtof. A denormal number is a number, whatever errno says of it;
// only a zero or an infinity that the conversion made up is out of range.
template <class T>
ZYN_RETCODE acceptFloat(T value, T* pVal)
{
    if ((value == T{0} || std::isinf(value)) && errno == ERANGE)
        return eRANGE;
    return store(value, pVal);
}

template <class T>
void storeSign(T value, ZYN_FP_SIGN* sign)
{
    if (sign)
        *sign = std::signbit(value) ? ZYN_FP_NEGATIVE : ZYN_FP_POSITIVE;
}

void storeType(bool isNan, ZYN_FP_SIGN sign, ZYN_FP_TYPE* fpType)
{
    if (!fpType)
        return;
    if (isNan)
        *fpType = sign == ZYN_FP_NEGATIVE ? ZYN_FP_NEGATIVE_NAN : ZYN_FP_POSITIVE_NAN;
    else
        *fpType = sign == ZYN_FP_NEGATIVE ? ZYN_FP_NEGATIVE_INF : ZYN_FP_POSITIVE_INF;
}

} // namespace

ZYN_RETCODE psp_atoi64(const char* str, int64_t* pVal)
{
    if (!str)
        return eINVSTRING;
    errno = 0;
    return acceptInteger(str, int64_t{strtoll(str, nullptr, 10)}, pVal);
}

ZYN_RETCODE psp_atoi32(const char* str, int32_t* pVal)
{
    return readNarrow(psp_atoi64, str, pVal);
}

ZYN_RETCODE psp_atoui64(const char* str, uint64_t* pVal)
{
    if (!str)
        return eINVSTRING;
    errno = 0;
    return acceptInteger(str, uint64_t{strtoull(str, nullptr, 10)}, pVal);
}

ZYN_RETCODE psp_atoui32(const char* str, uint32_t* pVal)
{
    return readNarrow(psp_atoui64, str, pVal);
}

double psp_atof(const char* s)
{
    errno = 0;
    return strtod(s, nullptr);
}

ZYN_RETCODE psp_strtod(const char* str, double* pVal)
{
    errno = 0;
    return acceptFloat(strtod(str, nullptr), pVal);
}

ZYN_RETCODE psp_strtof(const char* str, float* pVal)
{
    errno = 0;
    return acceptFloat(strtof(str, nullptr), pVal);
}

double psp_round(double lfVal)
{
    if (std::isnan(lfVal))
        return lfVal;
    return lfVal >= 0 ? floor(lfVal + 0.5) : ceil(lfVal - 0.5);
}

float psp_floorf(float fv)
{
    return floorf(fv);
}

float psp_ceilf(float fv)
{
    return ceilf(fv);
}

ZYN_BOOL_T psp_isnan(double dv, ZYN_FP_SIGN* sign)
{
    if (!std::isnan(dv))
        return ZYN_FALSE;
    storeSign(dv, sign);
    return ZYN_TRUE;
}

ZYN_BOOL_T psp_isnanf(float fv, ZYN_FP_SIGN* sign)
{
    return psp_isnan(double{fv}, sign);
}

ZYN_BOOL_T psp_isinff(float fv, ZYN_FP_SIGN* sign)
{
    if (std::isfinite(fv))
        return ZYN_FALSE;
    storeSign(fv, sign);
    return ZYN_TRUE;
}

ZYN_BOOL_T psp_validateDouble(double dv, ZYN_FP_TYPE* fpType)
{
    if (std::isfinite(dv))
        return ZYN_TRUE;
    storeType(std::isnan(dv), std::signbit(dv) ? ZYN_FP_NEGATIVE : ZYN_FP_POSITIVE, fpType);
    return ZYN_FALSE;
}

ZYN_BOOL_T psp_validateFloat(float fv, ZYN_FP_TYPE* fpType)
{
    ZYN_FP_SIGN sign = ZYN_FP_POSITIVE;
    const bool isNan = psp_isnanf(fv, &sign);
    if (!isNan && !psp_isinff(fv, &sign))
        return ZYN_TRUE;
    storeType(isNan, sign, fpType);
    return ZYN_FALSE;
}
