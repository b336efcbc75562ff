/**
 * @file format.hpp
 * Strings that are formatted into a tag and owned.
 */
#ifndef PSP_FORMAT_HPP
#define PSP_FORMAT_HPP

#include "psp/format.h"
#include "psp/mem.h"
#include "psp/nothrow.hpp"
#include "psp/owner.hpp"

#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

namespace psp {

/** @addtogroup cpp
 * @{ */

/**
 * A NUL-terminated string in a tag, freed with its owner. Formats are those of psp/format.h.
 *
 * @threads{one at a time; a string of ::PSP_THREAD_TAG is destroyed by the thread that made it}
 * @before{format(), vformat() and copy() give an empty one} @jumps{by the tag}
 * @owner{the text; destroy the string before its tag is freed, or release() it}
 */
class string {
  public:
    /** Owns nothing. */
    string() = default;

    /**
     * Takes a text over.
     * @param tag  where it lives
     * @param text a string of that tag; may be NULL
     */
    string(PSP_MEMTAG tag, char* text) noexcept : tag_(tag), text_(text) {}

    /** Takes over what another owns. @param other is empty afterwards */
    string(string&& other) noexcept : tag_(other.tag_), text_(other.release()) {}

    /** Frees its text and takes over another's. @param other is empty afterwards @return this */
    string& operator=(string&& other) noexcept
    {
        const PSP_MEMTAG tag = other.tag_;
        char* const text = other.release();
        reset();
        tag_ = tag;
        text_ = text;
        return *this;
    }

    string(const string&) = delete;
    string& operator=(const string&) = delete;

    /** Frees the text. */
    ~string()
    {
        reset();
    }

    /**
     * Formats into a new string: psp_makeStrV().
     * @param tag    where the string lives; the special values may be given
     * @param format the format, followed by its values; not NULL
     * @return the string; empty when formatting or the allocation fails
     */
    [[nodiscard]] static string format(PSP_MEMTAG tag, const char* format, ...) noexcept
        PSP_PRINTF(2, 3)
    {
        va_list args;
        va_start(args, format);
        string made = vformat(tag, format, args);
        va_end(args);
        return made;
    }

    /** format() with the values as a list. @param tag,format as for format() @param args the values
     * @return as format() */
    [[nodiscard]] static string vformat(PSP_MEMTAG tag, const char* format, va_list args) noexcept
        PSP_PRINTF(2, 0)
    {
        return {tag, nothrow::psp_makeStrV(nullptr, 0, tag, format, args)};
    }

    /** Copies a string. @param tag as for format() @param text the string; not NULL
     * @return the copy; empty without memory */
    [[nodiscard]] static string copy(PSP_MEMTAG tag, const char* text) noexcept
    {
        return {tag, static_cast<char*>(
                         nothrow::psp_getMem(0, tag, PSP_MEM_STRING, text, __FILE__, __LINE__))};
    }

    /**
     * Formats onto the end. No value may point into this string.
     * @param format the format, followed by its values; not NULL
     * @return whether it was done; if not, the string is as it was. A string that was made empty by
     *         default has no tag and takes nothing; one in a stack tag cannot grow.
     */
    bool append(const char* format, ...) noexcept PSP_PRINTF(2, 3)
    {
        va_list args;
        va_start(args, format);
        const bool done = vappend(format, args);
        va_end(args);
        return done;
    }

    /** append() with the values as a list. @param format,args as for vformat()
     * @return as append() */
    bool vappend(const char* format, va_list args) noexcept PSP_PRINTF(2, 0)
    {
        const int more = nothrow::psp_vsnprintf(nullptr, 0, format, args);
        if (more < 0)
            return false;
        const std::size_t length = size();
        const std::size_t room = static_cast<std::size_t>(more) + 1;
        void* const grown = nothrow::psp_extendMem(text_, length + room, tag_, PSP_MEM_PLAIN, 0,
                                                   nullptr, __FILE__, __LINE__);
        if (grown == nullptr)
            return false;
        text_ = static_cast<char*>(grown);
        nothrow::psp_vsnprintf(text_ + length, room, format, args);
        return true;
    }

    /** Whether there is a text; it may be of length 0. */
    explicit operator bool() const noexcept
    {
        return text_ != nullptr;
    }

    /** The text. @return it, still owned; NULL when empty */
    [[nodiscard]] const char* c_str() const noexcept
    {
        return text_;
    }

    /** The text's length, counted anew each time. @return the bytes before the NUL; 0 when empty */
    [[nodiscard]] std::size_t size() const noexcept
    {
        return text_ == nullptr ? 0 : std::strlen(text_);
    }

    /** The text without its NUL. @return a view of it, valid as long as the text is */
    [[nodiscard]] std::string_view view() const noexcept
    {
        return text_ == nullptr ? std::string_view() : std::string_view(text_);
    }

    /** Gives the text away. @return it, to be freed by the caller with psp_freeMem(); NULL when
     * empty */
    [[nodiscard]] char* release() noexcept
    {
        return std::exchange(text_, nullptr);
    }

    /** Frees the text. */
    void reset() noexcept
    {
        char* const text = release();
        if (text != nullptr)
            nothrow::psp_freeMem(text, tag_, __FILE__, __LINE__);
    }

  private:
    PSP_MEMTAG tag_ = nullptr;
    char* text_ = nullptr;
};

/** @} */

} // namespace psp

#endif
