/**
 * @file binstream.hpp
 * Binary streams over callables.
 */
#ifndef PSP_BINSTREAM_HPP
#define PSP_BINSTREAM_HPP

#include "psp/binstream.h"
#include "psp/core.hpp"
#include "psp/format.hpp"
#include "psp/nothrow.hpp"
#include "psp/owner.hpp"

#include <cstddef>
#include <type_traits>

namespace psp {

/** @addtogroup cpp
 * @{ */

/** In which order the bytes of numbers travel. */
enum class byte_order {
    host,    /**< as in memory */
    reversed /**< the other way round */
};

/** @cond */
namespace detail {

// The library calls back with the address of the callable.
template <class Callable>
Callable& callable_at(const void* address) noexcept
{
    return *static_cast<Callable*>(const_cast<void*>(address));
}

} // namespace detail
/** @endcond */

/**
 * Takes typed values off a transport, as psp::binary_writer put them; psp/binstream.h has the
 * rules.
 *
 * @threads{one at a time; the transport is called on the same thread} @before{create() gives an
 * empty one} @jumps{create() by the global tag, get_string() by the string's} @owner{the stream;
 * the callable stays the caller's and must outlive it. An empty one must not be read from}
 */
class binary_reader
    : public owner<detail::pointer_traits<PSP_INPUTBUFF, nothrow::psp_inputBuffDestroy>> {
  public:
    using owner::owner;

    /**
     * Makes a stream over a callable: psp_inputBuffCreate().
     * @param source called as `source(void* buf, uint32_t size, uint32_t* len)`; it stores at most
     *               `size` bytes and their count, and returns `sOKAY` or its failure, never throws.
     *               The end of the data is a failure: `eEOD`
     * @param order  how numbers arrive
     * @param rc     receives the code; may be NULL
     * @return the stream; empty when it failed
     */
    template <class Source>
    [[nodiscard]] static binary_reader create(Source& source, byte_order order = byte_order::host,
                                              ZYN_RETCODE* rc = nullptr) noexcept
    {
        static_assert(std::is_nothrow_invocable_r_v<ZYN_RETCODE, Source&, void*, std::uint32_t,
                                                    std::uint32_t*>,
                      "a source is called from C and must be noexcept");
        const PSP_BUFFREADFCN read = [](const void* context, void* buf, std::uint32_t size,
                                        std::uint32_t* len, std::uint32_t) -> ZYN_RETCODE {
            return detail::callable_at<Source>(context)(buf, size, len);
        };
        PSP_INPUTBUFF made = nullptr;
        detail::tell(
            rc, nothrow::psp_inputBuffCreate(read, &source, order == byte_order::reversed, &made));
        return binary_reader(made);
    }

    /** Drops what was read ahead: psp_inputBuffReset(). Call it after the source was moved. */
    void forget() noexcept
    {
        nothrow::psp_inputBuffReset(native());
    }

    /** Gets a byte: psp_inputBuffGetChar(). @param value receives it
     * @return `sOKAY`, or the source's failure */
    ZYN_RETCODE get_char(char& value) noexcept
    {
        return nothrow::psp_inputBuffGetChar(native(), &value);
    }

    /** Gets a 16-bit integer. @param value receives it @return as get_char() */
    ZYN_RETCODE get_int16(std::int16_t& value) noexcept
    {
        return nothrow::psp_inputBuffGetInt16(native(), &value);
    }

    /** Gets a 32-bit integer. @param value receives it @return as get_char() */
    ZYN_RETCODE get_int32(std::int32_t& value) noexcept
    {
        return nothrow::psp_inputBuffGetInt32(native(), &value);
    }

    /** Gets a 64-bit integer. @param value receives it @return as get_char() */
    ZYN_RETCODE get_int64(std::int64_t& value) noexcept
    {
        return nothrow::psp_inputBuffGetInt64(native(), &value);
    }

    /** Gets a number of single precision. @param value receives it @return as get_char() */
    ZYN_RETCODE get_float(float& value) noexcept
    {
        return nothrow::psp_inputBuffGetFloat32(native(), &value);
    }

    /** Gets a number of double precision. @param value receives it @return as get_char() */
    ZYN_RETCODE get_double(double& value) noexcept
    {
        return nothrow::psp_inputBuffGetFloat64(native(), &value);
    }

    /** Gets bytes. @param data receives them; NULL skips them @param size their count
     * @return as get_char() */
    ZYN_RETCODE get_bytes(void* data, std::size_t size) noexcept
    {
        return nothrow::psp_inputBuffGetBytes(native(), data, size);
    }

    /**
     * Gets a string with length: psp_inputBuffGetString().
     * @param tag   where the string is made
     * @param value receives it, empty for a null string; left alone on failure
     * @return `sOKAY`; `eNOMEMORY`, with the text left in the stream; the source's failure
     */
    ZYN_RETCODE get_string(PSP_MEMTAG tag, string& value) noexcept
    {
        char* text = nullptr;
        const ZYN_RETCODE rc = nothrow::psp_inputBuffGetString(native(), &text, tag);
        if (rc == sOKAY)
            value = string(tag, text);
        return rc;
    }
};

/**
 * Puts typed values onto a transport; psp/binstream.h has the rules.
 *
 * @threads{one at a time; the transport is called on the same thread} @before{create() gives an
 * empty one} @jumps{create() by the global tag} @owner{the stream; the callable stays
 * the caller's and must outlive it. What was not flushed is lost. An empty one must not be written
 * to}
 */
class binary_writer
    : public owner<detail::pointer_traits<PSP_OUTPUTBUFF, nothrow::psp_outputBuffDestroy>> {
  public:
    using owner::owner;

    /**
     * Makes a stream over a callable: psp_outputBuffCreate().
     * @param sink  called as `sink(const void* data, uint32_t size)`; it takes all bytes and
     * returns `sOKAY`, or returns its failure, never throws
     * @param order how numbers leave
     * @param rc    receives the code; may be NULL
     * @return the stream; empty when it failed
     */
    template <class Sink>
    [[nodiscard]] static binary_writer create(Sink& sink, byte_order order = byte_order::host,
                                              ZYN_RETCODE* rc = nullptr) noexcept
    {
        static_assert(std::is_nothrow_invocable_r_v<ZYN_RETCODE, Sink&, const void*, std::uint32_t>,
                      "a sink is called from C and must be noexcept");
        const PSP_BUFFWRITEFCN write = [](const void* context, const void* data,
                                          std::uint32_t size) -> ZYN_RETCODE {
            return detail::callable_at<Sink>(context)(data, size);
        };
        PSP_OUTPUTBUFF made = nullptr;
        detail::tell(
            rc, nothrow::psp_outputBuffCreate(write, &sink, order == byte_order::reversed, &made));
        return binary_writer(made);
    }

    /** Writes what the stream holds: psp_outputBuffFlush().
     * @return `sOKAY`, or the sink's failure: the stream then holds its bytes still */
    ZYN_RETCODE flush() noexcept
    {
        return nothrow::psp_outputBuffFlush(native());
    }

    /** Puts a byte: psp_outputBuffPutChar(). @param value the byte
     * @return `sOKAY`, or the sink's failure */
    ZYN_RETCODE put_char(char value) noexcept
    {
        return nothrow::psp_outputBuffPutChar(native(), value);
    }

    /** Puts a 16-bit integer. @param value the number @return as put_char() */
    ZYN_RETCODE put_int16(std::int16_t value) noexcept
    {
        return nothrow::psp_outputBuffPutInt16(native(), value);
    }

    /** Puts a 32-bit integer. @param value the number @return as put_char() */
    ZYN_RETCODE put_int32(std::int32_t value) noexcept
    {
        return nothrow::psp_outputBuffPutInt32(native(), value);
    }

    /** Puts a 64-bit integer. @param value the number @return as put_char() */
    ZYN_RETCODE put_int64(std::int64_t value) noexcept
    {
        return nothrow::psp_outputBuffPutInt64(native(), value);
    }

    /** Puts a number of single precision. @param value the number @return as put_char() */
    ZYN_RETCODE put_float(float value) noexcept
    {
        return nothrow::psp_outputBuffPutFloat32(native(), value);
    }

    /** Puts a number of double precision. @param value the number @return as put_char() */
    ZYN_RETCODE put_double(double value) noexcept
    {
        return nothrow::psp_outputBuffPutFloat64(native(), value);
    }

    /** Puts bytes. @param data the bytes @param size their count @return as put_char() */
    ZYN_RETCODE put_bytes(const void* data, std::size_t size) noexcept
    {
        return nothrow::psp_outputBuffPutBytes(native(), data, size);
    }

    /** Puts a string with length, for binary_reader::get_string():
     * psp_outputBuffPutStringWithLength(). @param text the string; NULL is a null string
     * @return as put_char() */
    ZYN_RETCODE put_string(const char* text) noexcept
    {
        return nothrow::psp_outputBuffPutStringWithLength(native(), text);
    }

    /** Flushes, then hands bytes on without copying them: psp_outputBuffSendDirect().
     * @param data the bytes @param size their count, below 4 GiB @return as put_char() */
    ZYN_RETCODE send(const void* data, std::size_t size) noexcept
    {
        return nothrow::psp_outputBuffSendDirect(native(), data, size);
    }
};

/** @} */

} // namespace psp

#endif
