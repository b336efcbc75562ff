/**
 * @file sync.hpp
 * Mutexes for the standard library's lock guards, and events.
 */
#ifndef PSP_SYNC_HPP
#define PSP_SYNC_HPP

#include "psp/nothrow.hpp"
#include "psp/owner.hpp"
#include "psp/sync.h"

#include <atomic>
#include <chrono>
#include <utility>

namespace psp {

/** @addtogroup cpp
 * @{ */

/** @cond */
namespace detail {

struct sem_traits {
    using native_type = PSP_SEM;
    static native_type none() noexcept
    {
        return PSP_SEM_INVALID;
    }
    static void close(native_type sem) noexcept
    {
        nothrow::psp_syncDelete(sem);
    }
};

} // namespace detail
/** @endcond */

/**
 * A recursive mutex; BasicLockable, so `std::lock_guard`, `std::unique_lock` and a
 * `std::scoped_lock` of one take it.
 *
 * The C interface cannot try a mutex, and waiting for one mutex while holding another is just what
 * must not happen where several are locked in any order: for `std::scoped_lock` of several there
 * is psp::try_mutex.
 *
 * @threads{any, but for moving, resetting and destroying: nobody may hold it or wait for it then}
 * @before{create() gives an empty one} @jumps{never} @owner{the mutex; an empty one must not be
 * locked}
 */
class mutex : public owner<detail::sem_traits> {
  public:
    using owner::owner;

    /**
     * Makes a mutex that nobody holds: psp_syncCreate_check(), which ends the process when no
     * object is left.
     * @param at the caller's source position
     * @return the mutex; empty when the library is not initialised
     */
    [[nodiscard]] static mutex create(position at = position::here()) noexcept
    {
        return mutex(nothrow::psp_syncCreate_check(PSP_SEM_MUTEX, at.file, at.line));
    }

    /** Acquires it, waiting for its turn; its holder may do so again. psp_syncEnterExcl() */
    void lock() noexcept
    {
        nothrow::psp_syncEnterExcl(native());
    }

    /** Gives one level up; only its holder may. psp_syncExitExcl() */
    void unlock() noexcept
    {
        nothrow::psp_syncExitExcl(native());
    }

    /** There is none: use psp::try_mutex. */
    bool try_lock() = delete;
};

/**
 * A manual-reset event: once signalled it lets everybody through until it is cleared.
 *
 * @threads{any, but for moving, resetting and destroying: nobody may wait for it then}
 * @before{create() gives an empty one} @jumps{never} @owner{the event; an empty one must not be
 * used}
 */
class event : public owner<detail::sem_traits> {
  public:
    using owner::owner;

    /**
     * Makes an event that is signalled: psp_syncCreate_check(), which ends the process when no
     * object is left.
     * @param at the caller's source position
     * @return the event; empty when the library is not initialised
     */
    [[nodiscard]] static event create(position at = position::here()) noexcept
    {
        return event(nothrow::psp_syncCreate_check(PSP_SEM_EVENT, at.file, at.line));
    }

    /** Signals it: waiting threads go on, later waits pass at once. psp_syncResume() */
    void signal() noexcept
    {
        nothrow::psp_syncResume(native());
    }

    /** Takes the signal back: from now on wait() waits. psp_syncStart() */
    void clear() noexcept
    {
        nothrow::psp_syncStart(native());
    }

    /**
     * Waits for the signal: psp_syncWait().
     * @param milliseconds how long at most; 0 only looks
     * @return `sOKAY`, or `sTIMEOUT`; `ePSP_FAILURE` when the library is not initialised
     */
    ZYN_RETCODE wait(std::uint32_t milliseconds = PSP_SYNC_FOREVER) noexcept
    {
        return nothrow::psp_syncWait(native(), milliseconds);
    }

    /**
     * Waits for the signal.
     * @param time how long at most; rounded up to milliseconds, below 0 is 0, and what exceeds
     *             4294967294 ms is that
     * @return as wait()
     */
    template <class Rep, class Period>
    ZYN_RETCODE wait_for(std::chrono::duration<Rep, Period> time) noexcept
    {
        using std::chrono::milliseconds;
        constexpr std::chrono::duration<double, std::milli> longest(PSP_SYNC_FOREVER - 1);
        if (time <= time.zero())
            return wait(0);
        if (time >= longest)
            return wait(PSP_SYNC_FOREVER - 1);
        return wait(static_cast<std::uint32_t>(std::chrono::ceil<milliseconds>(time).count()));
    }
};

/**
 * A mutex that can be tried; Lockable, so `std::scoped_lock` and `std::lock` take several of them,
 * and mixed with other mutexes.
 *
 * It is made of an atomic word and an event for those that wait: while nobody else is there, lock()
 * and unlock() are one atomic operation each and call nothing. It is not recursive.
 *
 * @threads{any, but for moving and destroying: nobody may hold it, wait for it or be still inside
 * unlock() then} @before{create() gives an empty one} @jumps{never} @owner{the event; an empty one
 * must not be locked}
 */
class try_mutex {
  public:
    /** Owns nothing. */
    try_mutex() = default;

    /** Takes over a mutex that nobody holds. @param other is empty afterwards */
    try_mutex(try_mutex&& other) noexcept : freed_(std::move(other.freed_)) {}

    /** Takes over a mutex that nobody holds; nor may anybody hold this one.
     * @param other is empty afterwards
     * @return this */
    try_mutex& operator=(try_mutex&& other) noexcept
    {
        freed_ = std::move(other.freed_);
        return *this;
    }

    /** Releases it. */
    ~try_mutex() = default;

    /** Makes a mutex that nobody holds, with event::create(). @param at the caller's source
     * position
     * @return the mutex; empty when the library is not initialised */
    [[nodiscard]] static try_mutex create(position at = position::here()) noexcept
    {
        try_mutex made;
        made.freed_ = event::create(at);
        return made;
    }

    /** Whether there is a mutex. */
    explicit operator bool() const noexcept
    {
        return static_cast<bool>(freed_);
    }

    /** Acquires it, waiting for its turn. The calling thread must not hold it. */
    void lock() noexcept
    {
        if (!try_lock())
            wait_and_lock();
    }

    /** Acquires it if it is free. @return whether it was */
    [[nodiscard]] bool try_lock() noexcept
    {
        state expected = state::free;
        return state_.compare_exchange_strong(expected, state::held, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }

    /** Gives it up; only its holder may. */
    void unlock() noexcept
    {
        if (state_.exchange(state::free, std::memory_order_release) == state::awaited)
            freed_.signal();
    }

  private:
    enum class state : std::uint32_t { free, held, awaited };

    // Who clears the event then marks the mutex as awaited, or gets it as such: whatever the order
    // in which threads come here and others leave, a signal follows every clearing.
    void wait_and_lock() noexcept
    {
        for (;;) {
            freed_.clear();
            if (state_.exchange(state::awaited, std::memory_order_acquire) == state::free)
                return;
            freed_.wait();
        }
    }

    event freed_; // signalled when one who waits should look again
    std::atomic<state> state_{state::free};
};

/** @} */

} // namespace psp

#endif
