/**
 * @file fileutil.hpp
 * Temporary files that remove themselves.
 */
#ifndef PSP_FILEUTIL_HPP
#define PSP_FILEUTIL_HPP

#include "psp/core.h"
#include "psp/file.hpp"
#include "psp/fileutil.h"
#include "psp/format.hpp"
#include "psp/nothrow.hpp"

#include <cerrno>
#include <utility>

#include <fcntl.h>

namespace psp {

/** @addtogroup cpp
 * @{ */

/**
 * A new file in the directory for temporary files, closed and removed at the end. The file is
 * there exactly once: a name that exists already is passed over.
 *
 * @threads{one at a time; it may move to another thread; create() not inside the critical section}
 * @before{create() gives an empty one}
 * @jumps{create() by the global tag and by the thread's} @owner{the file, its name and the
 * entry in the directory}
 */
class temporary_file {
  public:
    /** Owns nothing. */
    temporary_file() = default;

    /** Takes over what another owns. @param other is empty afterwards */
    temporary_file(temporary_file&& other) noexcept = default;

    /** Removes its file and takes over another's. @param other is empty afterwards @return this */
    temporary_file& operator=(temporary_file&& other) noexcept
    {
        temporary_file taken(std::move(other));
        std::swap(name_, taken.name_);
        std::swap(file_, taken.file_);
        return *this;
    }

    /** Closes and removes the file. */
    ~temporary_file()
    {
        file_.reset();
        if (name_)
            nothrow::psp_fileRemove(name_.c_str());
    }

    /**
     * Makes and opens a file for reading and writing.
     * @param base   the name's first part; NULL stands for "temp"
     * @param ext    the extension without its dot; NULL stands for "tmp"
     * @param xflags as for file::open()
     * @return the file; empty when none can be made
     */
    [[nodiscard]] static temporary_file
    create(const char* base = nullptr, const char* ext = nullptr, std::uint16_t xflags = 0) noexcept
    {
        // Names tell counters of one process apart by their addresses.
        static thread_local std::uint32_t counter = 0;
        temporary_file made;
        do {
            made.name_ = string(PSP_GLOBAL_TAG, const_cast<char*>(nothrow::psp_fileCreateTmpName(
                                                    &counter, base, ext, xflags, PSP_GLOBAL_TAG)));
            if (!made.name_)
                return made;
            errno = 0; // a switch that forbids the file leaves it alone
            made.file_ = file::open(made.name_.c_str(), O_RDWR | O_CREAT | O_EXCL, xflags);
        } while (!made.file_ && nothrow::psp_errno() == EEXIST);
        if (!made.file_)
            made.name_.reset();
        return made;
    }

    /** Whether there is a file. */
    explicit operator bool() const noexcept
    {
        return static_cast<bool>(file_);
    }

    /** The file. @return it, still owned; empty when this is */
    [[nodiscard]] psp::file& file() noexcept
    {
        return file_;
    }

    /** The file's name. @return it, valid as long as this is; NULL when empty */
    [[nodiscard]] const char* name() const noexcept
    {
        return name_.c_str();
    }

    /** Lets the file stay: closes it and gives its name away. @return the name; empty when this
     * was */
    [[nodiscard]] string keep() noexcept
    {
        file_.reset();
        return std::move(name_);
    }

  private:
    string name_;
    psp::file file_;
};

/** @} */

} // namespace psp

#endif
