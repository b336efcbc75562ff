/**
 * @file pool.hpp
 * Object pools.
 */
#ifndef PSP_POOL_HPP
#define PSP_POOL_HPP

#include "psp/core.hpp"
#include "psp/mem.h"
#include "psp/nothrow.hpp"
#include "psp/owner.hpp"
#include "psp/pool.h"

namespace psp {

/** @addtogroup cpp
 * @{ */

/**
 * A pool of objects that are reused instead of made anew.
 *
 * @threads{one at a time, but with access::any_thread any; a tag given to create() then needs a
 * mutex only when it is used beside the pool} @before{create() gives an empty one} @jumps{create()
 * and get() by the tag, and what the callbacks do} @owner{the pool and its idle objects. Destroy it
 * before its tag, and give no object back afterwards}
 */
class pool : public owner<detail::pointer_traits<PSP_POOL, nothrow::psp_poolDestroy>> {
  public:
    using owner::owner;

    /**
     * Makes a pool: psp_poolCreateEx().
     * @param tag         where pool and objects live; NULL: a tag of the pool's own
     * @param users       whether it gets a mutex, held over the callbacks
     * @param constructor sets up a new object; may be NULL
     * @param destructor  tears an object down; may be NULL
     * @param userdata    first argument of both; may be NULL
     * @param rc          receives the code; may be NULL
     * @return the pool; empty when it failed
     */
    [[nodiscard]] static pool create(PSP_MEMTAG tag = nullptr, access users = access::one_thread,
                                     PSP_POOL_CONSTRUCTOR constructor = nullptr,
                                     PSP_POOL_DESTRUCTOR destructor = nullptr,
                                     PSP_POOL_USERDATA userdata = nullptr,
                                     ZYN_RETCODE* rc = nullptr) noexcept
    {
        PSP_POOL made = nullptr;
        const char* const mutex = users == access::any_thread ? "pool" : nullptr;
        detail::tell(rc, nothrow::psp_poolCreateEx(tag, PSP_POOL_VAR_SIZE, mutex, constructor,
                                                   destructor, userdata, &made));
        return pool(made);
    }

    /**
     * Takes an object: psp_poolGetMem().
     * @param size bytes needed, below 4 GiB
     * @param at   the caller's source position
     * @return the object, as the constructor or its last user left it; NULL without memory
     */
    [[nodiscard]] void* get(std::size_t size, position at = position::here()) noexcept
    {
        return nothrow::psp_poolGetMem(native(), size, PSP_MEM_PLAIN, nullptr, at.file, at.line);
    }

    /** Takes an object and fills it with zeros. @param size,at as for get() @return as get() */
    [[nodiscard]] void* get_zeroed(std::size_t size, position at = position::here()) noexcept
    {
        return nothrow::psp_poolGetMem(native(), size, PSP_MEM_ZERO, nullptr, at.file, at.line);
    }

    /** Gives an object back: psp_poolPut(). @param object one of this pool; nothing happens for
     * NULL */
    void put(const void* object) noexcept
    {
        nothrow::psp_poolPut(native(), object);
    }

    /** Sets how many idle objects are kept: psp_poolSetMaxPooled(). @param count the number, 1000
     * at first */
    void keep_at_most(std::uint32_t count) noexcept
    {
        nothrow::psp_poolSetMaxPooled(native(), count);
    }
};

/** @} */

} // namespace psp

#endif
