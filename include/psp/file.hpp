/**
 * @file file.hpp
 * Files that close themselves.
 */
#ifndef PSP_FILE_HPP
#define PSP_FILE_HPP

#include "psp/file.h"
#include "psp/nothrow.hpp"
#include "psp/owner.hpp"

namespace psp {

/** @addtogroup cpp
 * @{ */

/**
 * An open file. Each member is the psp_file... function of its name: psp/file.h has the rules.
 *
 * @threads{read_at() and write_at() any; the rest one at a time} @before{open() gives an empty one;
 * on an empty one transfers and length() give 0 and the others `eINVNULLARG`} @jumps{never}
 * @owner{the handle and its descriptor}
 */
class file : public owner<detail::pointer_traits<PSP_FH, nothrow::psp_fileClose>> {
  public:
    using owner::owner;

    /**
     * Opens a file, or borrows a standard stream: psp_fileOpen().
     * @param name   the file, or "stdin", "stdout" or "stderr"
     * @param flags  the system's: `O_RDONLY`, `O_RDWR | O_CREAT` and so on
     * @param xflags 0 or ::PSP_XFLAG_NOSYNC
     * @return the file; empty when it cannot be opened, with the system's reason in psp_errno()
     */
    [[nodiscard]] static file open(const char* name, std::uint32_t flags,
                                   std::uint16_t xflags = 0) noexcept
    {
        return file(nothrow::psp_fileOpen(name, flags, xflags));
    }

    /** Reads on: psp_fileRead(). @param buf receives the bytes @param size bytes wanted
     * @return the bytes read; 0 at the end and on failure */
    std::uint32_t read(void* buf, std::uint32_t size) noexcept
    {
        return nothrow::psp_fileRead(native(), buf, size);
    }

    /** Writes on: psp_fileWrite(). @param buf the bytes @param size their number
     * @return `size`, or 0 on failure */
    std::uint32_t write(const void* buf, std::uint32_t size) noexcept
    {
        return nothrow::psp_fileWrite(native(), buf, size);
    }

    /** Reads at a place: psp_fileSeekRead(). @param addr the place @param buf,size as for read()
     * @return as read() */
    std::uint32_t read_at(PSP_FILE_OFFSET addr, void* buf, std::uint32_t size) noexcept
    {
        return nothrow::psp_fileSeekRead(native(), addr, buf, size);
    }

    /** Writes at a place: psp_fileSeekWrite(). @param addr the place @param buf,size as for write()
     * @return as write() */
    std::uint32_t write_at(PSP_FILE_OFFSET addr, const void* buf, std::uint32_t size) noexcept
    {
        return nothrow::psp_fileSeekWrite(native(), addr, buf, size);
    }

    /**
     * Moves the offset: psp_fileSeek().
     * @param addr    the distance in bytes, taken as signed
     * @param origin  `SEEK_SET`, `SEEK_CUR` or `SEEK_END`
     * @param newaddr receives the new offset; may be NULL
     * @return `sOKAY`, `ePSP_FAILURE` or `eINVNULLARG`
     */
    ZYN_RETCODE seek(PSP_FILE_OFFSET addr, std::int32_t origin,
                     PSP_FILE_OFFSET* newaddr = nullptr) noexcept
    {
        return nothrow::psp_fileSeek(native(), addr, origin, newaddr);
    }

    /** The length: psp_fileLength(). @return bytes; 0 on failure too */
    [[nodiscard]] PSP_FILE_OFFSET length() const noexcept
    {
        return nothrow::psp_fileLength(native());
    }

    /** Cuts or lengthens: psp_fileSetSize(). @param size the new length in bytes
     * @return `sOKAY`, `eBADWRITE`, `ePSP_FAILURE` or `eINVNULLARG` */
    ZYN_RETCODE set_size(PSP_FILE_OFFSET size) noexcept
    {
        return nothrow::psp_fileSetSize(native(), size);
    }

    /** Makes what was written durable: psp_fileSync().
     * @return `sOKAY`, `ePSP_FAILURE` or `eINVNULLARG` */
    ZYN_RETCODE sync() noexcept
    {
        return nothrow::psp_fileSync(native());
    }

    /** Tells that a range will not be needed soon: psp_filePageOut(). @param addr,size the range in
     * bytes @return `sOKAY` or `eINVNULLARG` */
    ZYN_RETCODE page_out(PSP_FILE_OFFSET addr, std::uint32_t size) noexcept
    {
        return nothrow::psp_filePageOut(native(), addr, size);
    }

    /**
     * Takes the advisory lock on the whole file without waiting: psp_fileLock().
     * @return `sOKAY`; `ePSP_FAILURE` when another holds it; `ePSP_MUTEX_FAILURE`; `eINVNULLARG`
     */
    ZYN_RETCODE take_lock() noexcept
    {
        return nothrow::psp_fileLock(native());
    }

    /** Gives the lock up: psp_fileUnlock(). */
    void give_lock() noexcept
    {
        nothrow::psp_fileUnlock(native());
    }
};

/** @} */

} // namespace psp

#endif
