// The four primitives that move bytes, here so that the handle layer can run them in place.
//
// After a system call every return costs as much as a hundred instructions, and a page is read in
// the time of eighty returns: a transfer must not come back through more functions than it has to.
// The tables still name these functions; what a handle runs is what its table says.
#pragma once

#include "psp_file_int.h"
#include "pspposix.h"

inline int fd_of(PSP_HANDLE desc)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(desc));
}

inline off_t offset_of(PSP_FILE_OFFSET addr)
{
    return static_cast<off_t>(addr);
}

// One transfer, repeated while a signal interrupts it: the count, or -1.
template <class Transfer>
inline ssize_t uninterrupted(Transfer transfer)
{
    ssize_t count;
    do {
        errno = 0;
        count = transfer();
    } while (count == -1 && errno == EINTR);
    return count;
}

// The count of a read is a signed 32-bit number, whatever the call gives.
template <class Transfer>
inline ZYN_RETCODE read_once(size_t* pbytes, Transfer transfer)
{
    if (pbytes == nullptr)
        return eINVNULLARG;
    const auto count = static_cast<int32_t>(uninterrupted(transfer));
    if (count == -1)
        return eBADREAD;
    *pbytes = static_cast<uint32_t>(count);
    return sOKAY;
}

// Calls transfer(done, rest) until the rest is written. Even an empty buffer makes one call.
template <class Transfer>
inline ZYN_RETCODE write_all(size_t size, Transfer transfer)
{
    size_t done = 0;
    for (;;) {
        const ssize_t count = uninterrupted([&] { return transfer(done, size - done); });
        if (count == -1)
            return eBADWRITE;
        done += static_cast<size_t>(count);
        if (done == size)
            return sOKAY;
    }
}

[[gnu::always_inline]] inline ZYN_RETCODE psp_flRead(PSP_HANDLE desc, void* buf, size_t size,
                                                     size_t* pbytes)
{
    return read_once(pbytes, [=] { return read(fd_of(desc), buf, size); });
}

[[gnu::always_inline]] inline ZYN_RETCODE psp_flWrite(PSP_HANDLE desc, const void* buf, size_t size)
{
    return write_all(size, [=](size_t done, size_t rest) {
        return write(fd_of(desc), static_cast<const char*>(buf) + done, rest);
    });
}

[[gnu::always_inline]] inline ZYN_RETCODE psp_flSeekRead(PSP_HANDLE desc, PSP_FILE_OFFSET addr,
                                                         void* buf, size_t size, size_t* pbytes)
{
    return read_once(pbytes, [=] { return pread(fd_of(desc), buf, size, offset_of(addr)); });
}

[[gnu::always_inline]] inline ZYN_RETCODE psp_flSeekWrite(PSP_HANDLE desc, PSP_FILE_OFFSET addr,
                                                          const void* buf, size_t size)
{
    return write_all(size, [=](size_t done, size_t rest) {
        return pwrite(fd_of(desc), static_cast<const char*>(buf) + done, rest,
                      offset_of(addr + done));
    });
}
