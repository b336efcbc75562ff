/**
 * @file scan.hpp
 * Directories as ranges.
 */
#ifndef PSP_SCAN_HPP
#define PSP_SCAN_HPP

#include "psp/nothrow.hpp"
#include "psp/owner.hpp"
#include "psp/scan.h"

#include <cstddef>
#include <iterator>

namespace psp {

/** @addtogroup cpp
 * @{ */

/**
 * The names in a directory that match a pattern, as a range to be gone through once:
 *
 *     for (const psp::scan::entry& found : psp::scan::open("/var/data", "*.log"))
 *         use(found.name, found.is_directory);
 *
 * Going through an empty one, of a directory that cannot be opened, finds nothing: look at
 * the object first where that matters. "." and ".." take part like all names.
 *
 * @threads{one: the names belong to the thread that goes through them, which also destroys the
 * scan}
 * @before{open() gives an empty one} @jumps{open() by the global tag, a step by the thread's}
 * @owner{the scan and the name found last}
 */
class scan : public owner<detail::pointer_traits<PSP_DIR, nothrow::psp_pathClose>> {
  public:
    using owner::owner;

    /** One name. */
    struct entry {
        const char* name;  /**< without its directory; valid until the next step */
        bool is_directory; /**< false for a symbolic link to one */
    };

    /** An input iterator: a step forward ends what the iterators before it showed. */
    class iterator {
      public:
        using iterator_category = std::input_iterator_tag; /**< single pass */
        using value_type = entry;                          /**< what it shows */
        using difference_type = std::ptrdiff_t;            /**< not used */
        using pointer = const entry*;                      /**< to what it shows */
        using reference = const entry&;                    /**< to what it shows */

        /** The end of every scan. */
        iterator() noexcept = default;

        /** Takes the first name. @param dir the scan; NULL is at its end */
        explicit iterator(PSP_DIR dir) noexcept : dir_(dir)
        {
            step();
        }

        /** What it shows. @return the entry */
        reference operator*() const noexcept
        {
            return entry_;
        }

        /** What it shows. @return the entry */
        pointer operator->() const noexcept
        {
            return &entry_;
        }

        /** Takes the next name. @return this */
        iterator& operator++() noexcept
        {
            step();
            return *this;
        }

        /** Takes the next name; there is no way back to the one before. */
        void operator++(int) noexcept
        {
            step();
        }

        /** Whether both are at the end, or both are not and go through the same scan. */
        friend bool operator==(const iterator& a, const iterator& b) noexcept
        {
            return a.dir_ == b.dir_;
        }

        /** Whether they are not equal. */
        friend bool operator!=(const iterator& a, const iterator& b) noexcept
        {
            return a.dir_ != b.dir_;
        }

      private:
        void step() noexcept
        {
            std::uint32_t is_directory = 0;
            entry_.name = nothrow::psp_pathNext(dir_, &is_directory);
            entry_.is_directory = is_directory != 0;
            if (entry_.name == nullptr)
                dir_ = nullptr;
        }

        PSP_DIR dir_ = nullptr;
        entry entry_ = {nullptr, false};
    };

    /**
     * Opens a scan: psp_pathOpenEx().
     * @param path    the directory
     * @param pattern which names, as for psp_match(); not NULL
     * @param xflags  0
     * @return the scan; empty when the directory cannot be opened, with the reason in psp_errno()
     */
    [[nodiscard]] static scan open(const char* path, const char* pattern = "*",
                                   std::uint16_t xflags = 0) noexcept
    {
        return scan(nothrow::psp_pathOpenEx(path, xflags, pattern));
    }

    /** Takes the next name: psp_pathNext(). @return an iterator that shows it */
    [[nodiscard]] iterator begin() noexcept
    {
        return iterator(native());
    }

    /** The end. @return an iterator that shows nothing */
    [[nodiscard]] iterator end() const noexcept
    {
        return {};
    }
};

/** @} */

} // namespace psp

#endif
