/**
 * @file error.hpp
 * The library's codes as `std::error_code`.
 */
#ifndef PSP_ERROR_HPP
#define PSP_ERROR_HPP

#include "zynretcodetypes.h"

#include <string>
#include <system_error>
#include <type_traits>

namespace psp {

/** @addtogroup cpp
 * @{ */

/** The values of ::ZYN_RETCODE as a type of its own, which `std::error_code` takes and compares. */
enum class code : ZYN_RETCODE {
/** @cond */
#define PSP_CODE_ENUMERATOR(id, value, text) id = (value),
    ZYN_RETCODE_LIST(PSP_CODE_ENUMERATOR)
#undef PSP_CODE_ENUMERATOR
    /** @endcond */
};

/**
 * The name of a code, as it stands in a source.
 * @param rc the code
 * @return "eNOMEMORY" and so on; "unknown" for a number that is no code
 * @threads{any} @before{works} @jumps{never} @owner{nothing: the text is constant}
 */
[[nodiscard]] constexpr const char* name_of(ZYN_RETCODE rc) noexcept
{
    switch (rc) {
/** @cond */
#define PSP_CODE_NAME(id, value, text)                                                             \
    case (value):                                                                                  \
        return #id;
        ZYN_RETCODE_LIST(PSP_CODE_NAME)
#undef PSP_CODE_NAME
    /** @endcond */
    default:
        return "unknown";
    }
}

/**
 * What a code says.
 * @param rc the code
 * @return a text such as "memory could not be allocated"; "unknown code" for a number that is none
 * @threads{any} @before{works} @jumps{never} @owner{nothing: the text is constant}
 */
[[nodiscard]] constexpr const char* text_of(ZYN_RETCODE rc) noexcept
{
    switch (rc) {
/** @cond */
#define PSP_CODE_TEXT(id, value, text)                                                             \
    case (value):                                                                                  \
        return text;
        ZYN_RETCODE_LIST(PSP_CODE_TEXT)
#undef PSP_CODE_TEXT
    /** @endcond */
    default:
        return "unknown code";
    }
}

/** @cond */
namespace detail {

class code_category final : public std::error_category {
  public:
    [[nodiscard]] const char* name() const noexcept override
    {
        return "zynpsp";
    }

    [[nodiscard]] std::string message(int value) const override
    {
        return text_of(value);
    }

    // Only what means the same: `ePSP_FAILURE`, say, hides many reasons and stays what it is.
    [[nodiscard]] std::error_condition default_error_condition(int value) const noexcept override
    {
        switch (value) {
        case sDUPLICATE:
            return std::errc::file_exists;
        case sTIMEOUT:
            return std::errc::timed_out;
        case eNOMEMORY:
            return std::errc::not_enough_memory;
        case eNOTIMPLEMENTED:
            return std::errc::function_not_supported;
        case eINVNULLARG:
        case eINVSTRING:
            return std::errc::invalid_argument;
        case eBADREAD:
        case eBADWRITE:
            return std::errc::io_error;
        case eRANGE:
            return std::errc::result_out_of_range;
        case eINVUNICODE:
            return std::errc::illegal_byte_sequence;
        default:
            return {value, *this};
        }
    }
};

} // namespace detail
/** @endcond */

/**
 * The category of the library's codes: "zynpsp".
 *
 * Ten codes are also equal to a condition of `std::errc`: `sDUPLICATE` file_exists, `sTIMEOUT`
 * timed_out, `eNOMEMORY` not_enough_memory, `eNOTIMPLEMENTED` function_not_supported,
 * `eINVNULLARG` and `eINVSTRING` invalid_argument, `eBADREAD` and `eBADWRITE` io_error, `eRANGE`
 * result_out_of_range, `eINVUNICODE` illegal_byte_sequence.
 * @return the category
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
[[nodiscard]] inline const std::error_category& category() noexcept
{
    static const detail::code_category instance;
    return instance;
}

/**
 * Makes an error code; found by `std::error_code` itself.
 * @param value the code
 * @return it, false exactly for `sOKAY`: a status such as `sTIMEOUT` counts as true
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
[[nodiscard]] inline std::error_code make_error_code(code value) noexcept
{
    return {static_cast<int>(value), category()};
}

/**
 * Makes an error code of what a function returned.
 * @param rc the code
 * @return it, as make_error_code() does
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
[[nodiscard]] inline std::error_code error(ZYN_RETCODE rc) noexcept
{
    return {rc, category()};
}

/** @} */

} // namespace psp

/** @cond */
// Lets `std::error_code` be made of, and compared with, a psp::code.
template <>
struct std::is_error_code_enum<psp::code> : std::true_type {
};
/** @endcond */

#endif
