/**
 * @file random.hpp
 * Random generators for the standard library's distributions and algorithms.
 */
#ifndef PSP_RANDOM_HPP
#define PSP_RANDOM_HPP

#include "psp/nothrow.hpp"
#include "psp/owner.hpp"
#include "psp/random.h"

namespace psp {

/** @addtogroup cpp
 * @{ */

/**
 * A reproducible generator; a standard uniform random bit generator, which gives the numbers of
 * `std::mt19937` with the same seed.
 *
 * @threads{one at a time} @before{create() gives an empty one} @jumps{create() by the global tag}
 * @owner{the generator; an empty one must not be drawn from}
 */
class random : public owner<detail::pointer_traits<PSP_RAND, nothrow::psp_randDestroy>> {
  public:
    using owner::owner;

    /** What a draw gives. */
    using result_type = std::uint32_t;

    /** The smallest draw. @return 0 */
    [[nodiscard]] static constexpr result_type min() noexcept
    {
        return 0;
    }

    /** The greatest draw. @return 4294967295 */
    [[nodiscard]] static constexpr result_type max() noexcept
    {
        return UINT32_MAX;
    }

    /**
     * Makes a generator: psp_randCreateNoSem().
     * @param seed start of the sequence; 0 means 8DF1337C hexadecimal
     * @return the generator; empty when memory ran out or the library is not initialised
     */
    [[nodiscard]] static random create(std::uint32_t seed = 0) noexcept
    {
        return random(nothrow::psp_randCreateNoSem(seed));
    }

    /** Draws: psp_randGetUInt32(). @return the next 32 random bits */
    result_type operator()() noexcept
    {
        return nothrow::psp_randGetUInt32(native());
    }

    /** Draws twice: psp_randGetUInt64(). @return 64 random bits, the first draw in the high half */
    std::uint64_t next64() noexcept
    {
        return nothrow::psp_randGetUInt64(native());
    }

    /** Draws a fraction: psp_randGetDouble(). @return the next draw divided by 2^32 */
    double fraction() noexcept
    {
        return nothrow::psp_randGetDouble(native());
    }

    /** Starts another sequence: psp_randResetSeed(). @param seed the seed, as it is: 0 is 0 */
    void seed(std::uint32_t seed) noexcept
    {
        nothrow::psp_randResetSeed(native(), seed);
    }
};

/** @} */

} // namespace psp

#endif
