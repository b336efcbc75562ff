// The primitives of open files: one thin shell over one system call each, gathered in two tables.
//
// Reads and writes go on when a signal interrupts them, and writes go on until all is written;
// nothing else is ever repeated. Advice and unlocking never fail. No function keeps state, takes a
// lock or allocates, and none checks the descriptor: the kernel does. Its reason for a failure
// stays in errno.
#include "psp_file_int.h"
#include "psp_file_transfer.h"
#include "pspposix.h"

#include <cstring>
#include <strings.h>

namespace {

// clang-format off
constexpr PSP_STD_HANDLE_INFO std_info[] = {
    {"stdin",  PSP_STD_HANDLE_IN},
    {"stdout", PSP_STD_HANDLE_OUT},
    {"stderr", PSP_STD_HANDLE_ERR},
};
// clang-format on

PSP_HANDLE handle_of(int fd)
{
    return reinterpret_cast<PSP_HANDLE>(static_cast<intptr_t>(fd));
}

ZYN_RETCODE succeeded(bool success)
{
    return success ? sOKAY : ePSP_FAILURE;
}

// ---- Opening and closing ----

ZYN_RETCODE psp_flOpen(const void*, const char* name, uint32_t flags, uint16_t, PSP_HANDLE* desc,
                       ZYN_BOOL_T* is_console)
{
    if (desc == nullptr)
        return eINVNULLARG;
    const int fd = open(name, static_cast<int>(flags), 0666);
    if (fd == -1)
        return ePSP_FAILURE;
    *desc = handle_of(fd);
    if (is_console != nullptr)
        *is_console = ZYN_FALSE;
    return sOKAY;
}

// Borrows the process's own descriptor: nothing is opened or duplicated.
ZYN_RETCODE psp_flOpenStd(const void*, const char* name, uint32_t, uint16_t, PSP_HANDLE* desc,
                          ZYN_BOOL_T* is_console)
{
    if (desc == nullptr)
        return eINVNULLARG;
    PSP_STD_HANDLE type;
    if (!check_for_stdio(name, &type))
        return ePSP_FAILURE;
    *desc = handle_of(type);
    if (is_console != nullptr)
        *is_console = ZYN_FALSE;
    return sOKAY;
}

ZYN_RETCODE psp_flClose(PSP_HANDLE desc)
{
    return succeeded(close(fd_of(desc)) == 0);
}

// ---- Transfer ----

ZYN_RETCODE psp_flSeek(PSP_HANDLE desc, PSP_FILE_OFFSET addr, int32_t origin,
                       PSP_FILE_OFFSET* pnewaddr)
{
    const off_t newaddr = lseek(fd_of(desc), offset_of(addr), origin);
    if (newaddr == -1)
        return ePSP_FAILURE;
    if (pnewaddr != nullptr)
        *pnewaddr = static_cast<PSP_FILE_OFFSET>(newaddr);
    return sOKAY;
}

ZYN_RETCODE psp_flConsoleRead(PSP_HANDLE, void*, size_t, size_t*)
{
    return eNOTIMPLEMENTED;
}

ZYN_RETCODE psp_flConsoleWrite(PSP_HANDLE, const void*, size_t)
{
    return eNOTIMPLEMENTED;
}

// ---- Storage ----

ZYN_RETCODE psp_flPageOut(PSP_HANDLE desc, PSP_FILE_OFFSET addr, size_t size)
{
    posix_fadvise(fd_of(desc), offset_of(addr), static_cast<off_t>(size), POSIX_FADV_DONTNEED);
    return sOKAY;
}

ZYN_RETCODE psp_flPunchHole(PSP_HANDLE desc, PSP_FILE_OFFSET addr, size_t size)
{
    static_cast<void>(fallocate(fd_of(desc), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                offset_of(addr), static_cast<off_t>(size)));
    return sOKAY;
}

ZYN_RETCODE psp_flLength(PSP_HANDLE desc, PSP_FILE_OFFSET* psize)
{
    if (psize == nullptr)
        return eINVNULLARG;
    struct stat status;
    if (fstat(fd_of(desc), &status) != 0)
        return ePSP_FAILURE;
    *psize = static_cast<PSP_FILE_OFFSET>(status.st_size);
    return sOKAY;
}

ZYN_RETCODE psp_flSetSize(PSP_HANDLE desc, PSP_FILE_OFFSET size)
{
    return succeeded(ftruncate(fd_of(desc), offset_of(size)) == 0);
}

ZYN_RETCODE psp_flSync(PSP_HANDLE desc)
{
    return succeeded(fsync(fd_of(desc)) == 0);
}

ZYN_RETCODE psp_flMap(PSP_HANDLE, size_t, void**)
{
    return eNOTIMPLEMENTED;
}

ZYN_RETCODE psp_flRemap(PSP_HANDLE, size_t, void*, size_t, void**)
{
    return eNOTIMPLEMENTED;
}

ZYN_RETCODE psp_flUnmap(PSP_HANDLE, size_t, void*)
{
    return eNOTIMPLEMENTED;
}

// ---- Terminals ----

ZYN_RETCODE psp_flIsATTY(PSP_HANDLE desc, ZYN_BOOL_T* is_tty)
{
    *is_tty = isatty(fd_of(desc));
    return sOKAY;
}

ZYN_RETCODE psp_flSetEcho(PSP_HANDLE desc, ZYN_BOOL_T echo)
{
    if (isatty(fd_of(desc)) != 1)
        return sOKAY;
    struct termios modes = {};
    tcgetattr(fd_of(desc), &modes);
    if (echo == ZYN_TRUE)
        modes.c_lflag |= static_cast<tcflag_t>(ECHO);
    else
        modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(fd_of(desc), TCSAFLUSH, &modes);
    return sOKAY;
}

// ---- Locking ----

ZYN_RETCODE psp_flLock(PSP_HANDLE desc)
{
    return succeeded(flock(fd_of(desc), LOCK_EX | LOCK_NB) == 0);
}

void psp_flUnlock(PSP_HANDLE desc)
{
    static_cast<void>(flock(fd_of(desc), LOCK_UN | LOCK_NB));
}

} // namespace

// The first three letters count as they are, the whole name then in either case: "stdOUT" is the
// stream, "STDOUT" an ordinary file.
ZYN_BOOL_T check_for_stdio(const char* name, PSP_STD_HANDLE* ptype)
{
    if (name == nullptr || strncmp(name, "std", 3) != 0)
        return ZYN_FALSE;
    for (const PSP_STD_HANDLE_INFO& info : std_info) {
        if (strcasecmp(name, info.name) != 0)
            continue;
        if (ptype != nullptr)
            *ptype = info.type;
        return ZYN_TRUE;
    }
    return ZYN_FALSE;
}

// clang-format off

// Closing a standard stream does nothing: its descriptor is the process's own.
const PSP_FILE_FCNS stdio_file_fcns = {
    .open          = psp_flOpenStd,
    .close         = nullptr,
    .seek          = psp_flSeek,
    .read          = psp_flRead,
    .write         = psp_flWrite,
    .console_read  = psp_flConsoleRead,
    .console_write = psp_flConsoleWrite,
    .seek_read     = psp_flSeekRead,
    .seek_write    = psp_flSeekWrite,
    .page_out      = nullptr,
    .punch_hole    = nullptr,
    .length        = psp_flLength,
    .set_size      = psp_flSetSize,
    .sync          = psp_flSync,
    .map           = nullptr,
    .remap         = nullptr,
    .unmap         = nullptr,
    .is_tty        = psp_flIsATTY,
    .set_echo      = psp_flSetEcho,
    .lock          = psp_flLock,
    .unlock        = psp_flUnlock,
};

const PSP_FILE_FCNS normal_file_fcns = {
    .open          = psp_flOpen,
    .close         = psp_flClose,
    .seek          = psp_flSeek,
    .read          = psp_flRead,
    .write         = psp_flWrite,
    .console_read  = nullptr,
    .console_write = nullptr,
    .seek_read     = psp_flSeekRead,
    .seek_write    = psp_flSeekWrite,
    .page_out      = psp_flPageOut,
    .punch_hole    = psp_flPunchHole,
    .length        = psp_flLength,
    .set_size      = psp_flSetSize,
    .sync          = psp_flSync,
    .map           = psp_flMap,
    .remap         = psp_flRemap,
    .unmap         = psp_flUnmap,
    .is_tty        = psp_flIsATTY,
    .set_echo      = psp_flSetEcho,
    .lock          = psp_flLock,
    .unlock        = psp_flUnlock,
};
