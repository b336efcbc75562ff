/**
 * @file owner.hpp
 * What all classes of the C++ face share: owning a handle, and the caller's source position.
 */
#ifndef PSP_OWNER_HPP
#define PSP_OWNER_HPP

#include "psptypes.h"

#include <cstdint>
#include <utility>

/** The C++ face of the library; see psp.hpp. */
namespace psp {

/** @addtogroup cpp
 * @{ */

/** The caller's source position, for diagnostics. As a default argument it is where the call is. */
struct position {
    const char* file;  /**< the source file; may be NULL */
    std::int32_t line; /**< the line in it */

    /**
     * The position of the call.
     * @param file,line left out
     * @return the position
     */
    static constexpr position here(const char* file = __builtin_FILE(),
                                   std::int32_t line = __builtin_LINE()) noexcept
    {
        return {file, line};
    }
};

/** Who uses an object: it gets a mutex of its own, or does without. */
enum class access {
    one_thread, /**< one thread at a time: no mutex */
    any_thread  /**< several threads: the object's operations are serialised */
};

/**
 * The one owner of a C handle; the base of the other classes.
 *
 * It is moved, not copied. What was moved from is empty and may be assigned to or destroyed;
 * moving an object to itself leaves it as it is.
 *
 * @tparam Traits has the handle's type `native_type`, `none()`, the handle that stands for nothing,
 *                and `close(handle)`, which releases any other
 *
 * @threads{one thread at a time per owner; what several threads may do with the handle inside is
 * told with each class} @before{works: there is nothing but empty owners} @jumps{never}
 * @owner{the owner releases its handle when it is destroyed, reset or assigned to}
 */
template <class Traits>
class owner {
  public:
    /** The C handle. */
    using native_type = typename Traits::native_type;

    /** Owns nothing. */
    owner() noexcept : handle_(Traits::none()) {}

    /**
     * Takes a handle over.
     * @param handle what a C function gave, or the value for none
     */
    explicit owner(native_type handle) noexcept : handle_(handle) {}

    /** Takes over what another owns. @param other is empty afterwards */
    owner(owner&& other) noexcept : handle_(other.release()) {}

    /** Releases what it owns and takes over what another owns. @param other is empty afterwards
     * @return this owner */
    owner& operator=(owner&& other) noexcept
    {
        reset(other.release());
        return *this;
    }

    owner(const owner&) = delete;
    owner& operator=(const owner&) = delete;

    /** Releases what it owns. */
    ~owner()
    {
        reset();
    }

    /** The handle, for calls of the C interface. @return it, still owned; the value for none when
     * empty */
    [[nodiscard]] native_type native() const noexcept
    {
        return handle_;
    }

    /** Whether there is a handle. */
    explicit operator bool() const noexcept
    {
        return handle_ != Traits::none();
    }

    /** Gives the handle away. @return it, to be released by the caller; the owner is empty */
    [[nodiscard]] native_type release() noexcept
    {
        return std::exchange(handle_, Traits::none());
    }

    /** Releases the handle and owns nothing. */
    void reset() noexcept
    {
        reset(Traits::none());
    }

    /**
     * Releases the handle and owns another.
     * @param handle the new one, or the value for none
     */
    void reset(native_type handle) noexcept
    {
        const native_type old = std::exchange(handle_, handle);
        if (old != Traits::none())
            Traits::close(old);
    }

  private:
    native_type handle_;
};

/** @cond */
namespace detail {

// What owner wants to know of a handle that is a pointer and released by one call.
template <class Handle, auto Close>
struct pointer_traits {
    using native_type = Handle;
    static native_type none() noexcept
    {
        return nullptr;
    }
    static void close(native_type handle) noexcept
    {
        Close(handle);
    }
};

} // namespace detail
/** @endcond */

/** @} */

} // namespace psp

#endif
