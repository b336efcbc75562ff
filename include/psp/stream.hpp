/**
 * @file stream.hpp
 * Text streams that close themselves, and lines of any length.
 */
#ifndef PSP_STREAM_HPP
#define PSP_STREAM_HPP

#include "psp/mem.h"
#include "psp/nothrow.hpp"
#include "psp/output.h"
#include "psp/owner.hpp"
#include "psp/stream.h"

#include <cstdarg>
#include <utility>

namespace psp {

/** @addtogroup cpp
 * @{ */

/**
 * Room for a line, which grows with the lines read into it: see stream::read_line().
 *
 * @threads{one at a time; one of ::PSP_THREAD_TAG stays with its thread} @before{works}
 * @jumps{never} @owner{the room; destroy it before its tag is freed}
 */
class line_buffer {
  public:
    /** No room yet. @param tag where it will be */
    explicit line_buffer(PSP_MEMTAG tag = PSP_THREAD_TAG) noexcept : tag_(tag) {}

    /** Takes over another's room. @param other has none afterwards */
    line_buffer(line_buffer&& other) noexcept
        : tag_(other.tag_), text_(std::exchange(other.text_, nullptr)),
          size_(std::exchange(other.size_, 0))
    {
    }

    /** Frees its room and takes over another's. @param other has none afterwards @return this */
    line_buffer& operator=(line_buffer&& other) noexcept
    {
        line_buffer taken(std::move(other));
        std::swap(tag_, taken.tag_);
        std::swap(text_, taken.text_);
        std::swap(size_, taken.size_);
        return *this;
    }

    /** Frees the room. */
    ~line_buffer()
    {
        if (text_ != nullptr)
            nothrow::psp_freeMem(text_, tag_, __FILE__, __LINE__);
    }

  private:
    friend class stream;

    PSP_MEMTAG tag_;
    char* text_ = nullptr;
    std::uint32_t size_ = 0;
};

/**
 * A buffered text stream, UTF-8 to its user whatever the file holds; psp/stream.h has the rules.
 *
 * @threads{one at a time} @before{open() and open_standard() give an empty one; an empty one
 * refuses everything} @jumps{open(), open_standard() and print() by ::PSP_GLOBAL_TAG, read_line()
 * by the tag of its line_buffer} @owner{the stream: what its cache holds is written when it is
 * destroyed. What the disk refuses is lost without notice; psp/file.hpp tells}
 */
class stream : public owner<detail::pointer_traits<PSP_FILE_STREAM, nothrow::psp_fclose>> {
  public:
    using owner::owner;

    /**
     * Opens a file: psp_fopenEx().
     * @param name     the file
     * @param mode     "r", "w" or "a", with "+" for both ways
     * @param encoding what a writer writes; a reader looks for a byte-order mark
     * @param xflags   as for file::open()
     * @return the stream; empty when it cannot be opened
     */
    [[nodiscard]] static stream open(const char* name, const char* mode,
                                     PSP_FILE_MODE encoding = PSP_FILE_MODE_UTF8,
                                     std::uint16_t xflags = 0) noexcept
    {
        return stream(nothrow::psp_fopenEx(name, mode, encoding, xflags));
    }

    /** Opens a standard stream: psp_fopenStdEx(). @param name "stdin", "stdout" or "stderr"
     * @param xflags as for file::open() @return as open() */
    [[nodiscard]] static stream open_standard(const char* name, std::uint16_t xflags = 0) noexcept
    {
        return stream(nothrow::psp_fopenStdEx(name, xflags));
    }

    /** Reads a byte: psp_fgetc(). @return it as a signed value, or -1 at the end */
    std::int32_t read_byte() noexcept
    {
        return nothrow::psp_fgetc(native());
    }

    /** Pushes a value back: psp_fungetc(). @param value what read_byte() gives next
     * @return `value`, or -1 when 20 wait already */
    std::int32_t unread_byte(std::int32_t value) noexcept
    {
        return nothrow::psp_fungetc(value, native());
    }

    /** Reads up to a newline: psp_fgets(). @param text receives it and a NUL @param size the room
     * there @return `text`, or NULL at the end */
    char* read_line(char* text, std::int32_t size) noexcept
    {
        return nothrow::psp_fgets(text, size, native());
    }

    /**
     * Reads a whole line, its newline included: psp_fGetLine().
     * @param room where it goes, and grows as far as need be
     * @return the line, valid until `room` is used again or destroyed; NULL at the end
     */
    char* read_line(line_buffer& room) noexcept
    {
        return nothrow::psp_fGetLine(native(), &room.text_, &room.size_, room.tag_);
    }

    /** Writes a byte: psp_fputc(). @param value it, in the low eight bits
     * @return 1, or 0 when it cannot be taken */
    std::int32_t write_byte(std::int32_t value) noexcept
    {
        return nothrow::psp_fputc(value, native());
    }

    /** Writes a string: psp_fputs(). @param text the string
     * @return the bytes written, or -1 */
    std::int32_t write(const char* text) noexcept
    {
        return nothrow::psp_fputs(text, native());
    }

    /** Formats: psp_vfprintf(). @param format the format, followed by its values
     * @return the bytes written, or -1 */
    std::int32_t print(const char* format, ...) noexcept PSP_PRINTF(2, 3)
    {
        va_list args;
        va_start(args, format);
        const std::int32_t written = nothrow::psp_vfprintf(native(), format, args);
        va_end(args);
        return written;
    }

    /** Passes the cache on to the system: psp_fflush(). @return 0 */
    std::int32_t flush() noexcept
    {
        return nothrow::psp_fflush(native());
    }

    /** Flushes and makes the file durable: psp_fsync(). @return 0 */
    std::int32_t sync() noexcept
    {
        return nothrow::psp_fsync(native());
    }

    /** Whether the file is a terminal: psp_fIsATTY(). @return false too when it cannot be told */
    [[nodiscard]] bool is_terminal() const noexcept
    {
        ZYN_BOOL_T is_tty = ZYN_FALSE;
        return nothrow::psp_fIsATTY(native(), &is_tty) == sOKAY && is_tty != ZYN_FALSE;
    }

    /** Switches a terminal's echo: psp_fSetEcho(). @param on whether to show what is typed
     * @return `sOKAY` or `eINVNULLARG` */
    ZYN_RETCODE set_echo(bool on) noexcept
    {
        return nothrow::psp_fSetEcho(native(), on ? ZYN_TRUE : ZYN_FALSE);
    }
};

/** @} */

} // namespace psp

#endif
