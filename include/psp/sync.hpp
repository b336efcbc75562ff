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

#include <sched.h>

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
 * A mutex that can be tried; Lockable, so `std::scoped_lock` and `std::lock` take several of them,
 * and mixed with other mutexes.
 *
 * It counts its users beside a psp::mutex, which costs two atomic operations a level. All must lock
 * it here: who enters native() with psp_syncEnterExcl() is not counted.
 *
 * @threads{as for psp::mutex} @before{create() gives an empty one} @jumps{never} @owner{the mutex;
 * an empty one must not be locked}
 */
class try_mutex {
  public:
    /** Owns nothing. */
    try_mutex() = default;

    /** Takes over a mutex that nobody holds. @param other is empty afterwards */
    try_mutex(try_mutex&& other) noexcept : mutex_(std::move(other.mutex_)) {}

    /** Takes over a mutex that nobody holds; nor may anybody hold this one.
     * @param other is empty afterwards
     * @return this */
    try_mutex& operator=(try_mutex&& other) noexcept
    {
        mutex_ = std::move(other.mutex_);
        return *this;
    }

    /** Releases it. */
    ~try_mutex() = default;

    /** Makes a mutex like mutex::create(). @param at the caller's source position
     * @return the mutex; empty when the library is not initialised */
    [[nodiscard]] static try_mutex create(position at = position::here()) noexcept
    {
        try_mutex made;
        made.mutex_ = mutex::create(at);
        return made;
    }

    /** Whether there is a mutex. */
    explicit operator bool() const noexcept
    {
        return static_cast<bool>(mutex_);
    }

    /** The handle, for diagnostics. @return it; ::PSP_SEM_INVALID when empty */
    [[nodiscard]] PSP_SEM native() const noexcept
    {
        return mutex_.native();
    }

    /** Acquires it, waiting for its turn; its holder may do so again. */
    void lock() noexcept
    {
        // While somebody tries, which takes a few instructions, nobody may come in between.
        if ((users_.fetch_add(1, std::memory_order_acquire) & trying) != 0)
            wait_for_trial();
        mutex_.lock();
    }

    /**
     * Acquires it without waiting for a holder.
     * @return whether it was acquired; false while anybody holds it or waits for it, the calling
     *         thread included
     */
    [[nodiscard]] bool try_lock() noexcept
    {
        std::uint32_t nobody = 0;
        if (!users_.compare_exchange_strong(nobody, trying | 1, std::memory_order_acquire,
                                            std::memory_order_relaxed))
            return false;
        mutex_.lock(); // free: the last holder left it, and who comes waits for the trial's end
        users_.fetch_and(~trying, std::memory_order_release);
        return true;
    }

    /** Gives one level up; only its holder may. */
    void unlock() noexcept
    {
        mutex_.unlock();
        users_.fetch_sub(1, std::memory_order_release);
    }

  private:
    static constexpr std::uint32_t trying = UINT32_C(0x80000000);

    void wait_for_trial() const noexcept
    {
        while ((users_.load(std::memory_order_acquire) & trying) != 0)
            sched_yield();
    }

    mutex mutex_;
    std::atomic<std::uint32_t> users_{0}; // levels held and waited for, and the bit of a trial
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

/** @} */

} // namespace psp

#endif
