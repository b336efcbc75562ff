/**
 * @file core.hpp
 * Start and stop of the library, bound to a scope.
 */
#ifndef PSP_CORE_HPP
#define PSP_CORE_HPP

#include "psp/core.h"
#include "psp/nothrow.hpp"
#include "psp/owner.hpp"

namespace psp {

/** @addtogroup cpp
 * @{ */

/** @cond */
namespace detail {

struct library_traits {
    using native_type = bool;
    static native_type none() noexcept
    {
        return false;
    }
    static void close(native_type) noexcept
    {
        nothrow::psp_term();
    }
};

inline void tell(ZYN_RETCODE* rc, ZYN_RETCODE code) noexcept
{
    if (rc != nullptr)
        *rc = code;
}

} // namespace detail
/** @endcond */

/**
 * One start of the library: psp_term() runs when it is destroyed.
 *
 * Make it before all other owners, so that it goes last: what is left at the last stop is released
 * then, and an owner that outlives it must not be used or destroyed until release() emptied it.
 *
 * @threads{any; not inside the critical section} @before{works} @jumps{never}
 * @owner{the start; an empty one, also one moved from, has none}
 */
class library : public owner<detail::library_traits> {
  public:
    using owner::owner;

    /**
     * Calls psp_init().
     * @param rc receives its code; may be NULL
     * @return the start; empty when it failed
     */
    [[nodiscard]] static library start(ZYN_RETCODE* rc = nullptr) noexcept
    {
        const ZYN_RETCODE code = nothrow::psp_init();
        detail::tell(rc, code);
        return library(code == sOKAY);
    }
};

/** @} */

} // namespace psp

#endif
