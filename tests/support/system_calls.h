// The calls of the operating system and the C library that the library makes and that can fail,
// each with every error that its manual page lists, and the suites that make it fail everywhere.
//
// A call that is new in the library gets its row here, and rows in the suites that it names: the
// suites check that they drive what this table says, and syscalls_closing_test that the table has
// every call that the library's objects make.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

namespace psptest {

// The suites tests/fault/syscalls_*_test.cpp, a bit each.
enum Suites : unsigned {
    in_handles = 1,
    in_streams = 2,
    in_output = 4,
    in_paths = 8,
    in_copying = 16,
    in_processes = 32,
    in_threads = 64,
    in_times = 128,
    in_start = 256,
};

struct SystemCall {
    const char* name;
    std::span<const int> errors; // errno, or the result of a call that returns an error number
    unsigned suites;
    int repeated = 0; // the error after which the library makes the call anew, wherever it makes it
};

// clang-format off
inline constexpr int errors_of_open[] = {
    EACCES, EBADF, EBUSY, EDQUOT, EEXIST, EFAULT, EFBIG, EINTR, EINVAL, EISDIR, ELOOP, EMFILE,
    ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENXIO, EOPNOTSUPP, EOVERFLOW,
    EPERM, EROFS, ETXTBSY, EWOULDBLOCK};
inline constexpr int errors_of_close[] = {EBADF, EINTR, EIO, ENOSPC, EDQUOT};
inline constexpr int errors_of_read[] = {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR};
inline constexpr int errors_of_write[] = {
    EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE};
inline constexpr int errors_of_pread[] = {
    EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR, ENXIO, EOVERFLOW, ESPIPE};
inline constexpr int errors_of_pwrite[] = {
    EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, ENXIO,
    EOVERFLOW, EPERM, EPIPE, ESPIPE};
inline constexpr int errors_of_lseek[] = {EBADF, EINVAL, ENXIO, EOVERFLOW, ESPIPE};
inline constexpr int errors_of_fsync[] = {EBADF, EDQUOT, EINTR, EINVAL, EIO, ENOSPC, EROFS};
inline constexpr int errors_of_ftruncate[] = {
    EACCES, EBADF, EFAULT, EFBIG, EINTR, EINVAL, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOTDIR,
    EPERM, EROFS, ETXTBSY};
inline constexpr int errors_of_stat[] = {
    EACCES, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW};
inline constexpr int errors_of_flock[] = {EBADF, EINTR, EINVAL, ENOLCK, EWOULDBLOCK};
inline constexpr int errors_of_fallocate[] = {
    EBADF, EFBIG, EINTR, EINVAL, EIO, ENODEV, ENOSPC, ENOSYS, EOPNOTSUPP, EPERM, ESPIPE, ETXTBSY};
inline constexpr int errors_of_posix_fadvise[] = {EBADF, EINVAL, ESPIPE};
inline constexpr int errors_of_isatty[] = {EBADF, EINVAL, ENOTTY};
inline constexpr int errors_of_terminals[] = {EBADF, EINTR, EINVAL, EIO, ENOTTY};
inline constexpr int errors_of_remove[] = {
    EACCES, EBADF, EBUSY, EEXIST, EFAULT, EINVAL, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM,
    ENOTDIR, ENOTEMPTY, EPERM, EROFS};
inline constexpr int errors_of_mkdir[] = {
    EACCES, EBADF, EDQUOT, EEXIST, EFAULT, EINVAL, ELOOP, EMLINK, ENAMETOOLONG, ENOENT, ENOMEM,
    ENOSPC, ENOTDIR, EPERM, EROFS};
inline constexpr int errors_of_rmdir[] = {
    EACCES, EBUSY, EEXIST, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, ENOTEMPTY,
    EPERM, EROFS};
inline constexpr int errors_of_opendir[] = {EACCES, EBADF, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR};
inline constexpr int errors_of_readdir[] = {EBADF, EFAULT, EINVAL, EIO, ENOENT, ENOTDIR};
inline constexpr int errors_of_closedir[] = {EBADF};
inline constexpr int errors_of_getcwd[] = {
    EACCES, EFAULT, EINVAL, ENAMETOOLONG, ENOENT, ENOMEM, ERANGE};
inline constexpr int errors_of_pipe[] = {EFAULT, EINVAL, EMFILE, ENFILE};
inline constexpr int errors_of_fork[] = {EAGAIN, ENOMEM, ENOSYS};
inline constexpr int errors_of_setsid[] = {EPERM};
inline constexpr int errors_of_waitpid[] = {EAGAIN, ECHILD, EINTR, EINVAL, ESRCH};
inline constexpr int errors_of_limits[] = {EFAULT, EINVAL, EPERM, ESRCH};
inline constexpr int errors_of_sysconf[] = {EINVAL};
inline constexpr int errors_of_signal[] = {EINVAL};
inline constexpr int errors_of_stdio[] = {EAGAIN, EBADF, EFBIG, EINTR, EIO, ENOSPC, EPIPE};
inline constexpr int errors_of_loader[] = {ENOENT, ENOEXEC, ENOMEM, EINVAL};
inline constexpr int errors_of_key_create[] = {EAGAIN, ENOMEM};
inline constexpr int errors_of_key_delete[] = {EINVAL};
inline constexpr int errors_of_setspecific[] = {EINVAL, ENOMEM};
inline constexpr int errors_of_pthread_create[] = {EAGAIN, EINVAL, EPERM};
inline constexpr int errors_of_pthread_join[] = {EDEADLK, EINVAL, ESRCH};
inline constexpr int errors_of_attributes[] = {EINVAL, ENOMEM, ENOTSUP};
inline constexpr int errors_of_mutex_init[] = {EAGAIN, EBUSY, EINVAL, ENOMEM, EPERM};
inline constexpr int errors_of_cond_init[] = {EAGAIN, EBUSY, EINVAL, ENOMEM};
inline constexpr int errors_of_timedwait[] = {EINTR, EINVAL, EPERM, ETIME, ETIMEDOUT};
inline constexpr int errors_of_clock_gettime[] = {EACCES, EFAULT, EINVAL, ENODEV, ENOTSUP, EPERM};
inline constexpr int errors_of_gettimeofday[] = {EFAULT, EINVAL, EPERM};
inline constexpr int errors_of_time[] = {EFAULT};
inline constexpr int errors_of_conversion[] = {EOVERFLOW};
inline constexpr int errors_of_nanosleep[] = {EFAULT, EINTR, EINVAL};
inline constexpr int errors_of_strftime[] = {ERANGE};
inline constexpr int errors_of_locales[] = {EINVAL, ENOENT, ENOMEM};
inline constexpr int errors_of_strerror_r[] = {EINVAL, ERANGE};

inline constexpr SystemCall system_calls[] = {
    {"open",          errors_of_open, in_handles | in_streams | in_output | in_paths | in_copying},
    {"close",         errors_of_close,
     in_handles | in_streams | in_output | in_paths | in_copying | in_processes | in_start},
    {"read",          errors_of_read, in_handles | in_streams | in_processes, EINTR},
    {"write",         errors_of_write, in_handles | in_streams | in_output | in_processes | in_start,
     EINTR},
    {"pread",         errors_of_pread, in_handles | in_copying, EINTR},
    {"pwrite",        errors_of_pwrite, in_handles | in_copying, EINTR},
    {"lseek",         errors_of_lseek, in_handles},
    {"fsync",         errors_of_fsync, in_handles | in_streams | in_paths},
    {"ftruncate",     errors_of_ftruncate, in_handles | in_copying},
    {"fstat",         errors_of_stat, in_handles | in_streams | in_output | in_copying},
    {"stat",          errors_of_stat, in_paths},
    {"flock",         errors_of_flock, in_handles},
    {"fallocate",     errors_of_fallocate, in_handles},
    {"posix_fadvise", errors_of_posix_fadvise, in_handles},
    {"isatty",        errors_of_isatty, in_handles | in_streams},
    {"tcgetattr",     errors_of_terminals, in_handles | in_streams},
    {"tcsetattr",     errors_of_terminals, in_handles | in_streams},
    {"remove",        errors_of_remove, in_paths},
    {"mkdir",         errors_of_mkdir, in_paths},
    {"rmdir",         errors_of_rmdir, in_paths},
    {"opendir",       errors_of_opendir, in_paths},
    {"readdir",       errors_of_readdir, in_paths},
    {"closedir",      errors_of_closedir, in_paths},
    {"getcwd",        errors_of_getcwd, in_paths, ERANGE},
    {"pipe",          errors_of_pipe, in_processes},
    {"fork",          errors_of_fork, in_processes},
    {"setsid",        errors_of_setsid, in_processes},
    {"waitpid",       errors_of_waitpid, in_processes},
    {"fclose",        errors_of_stdio, in_processes},
    {"fprintf",       errors_of_stdio, in_processes},
    {"vfprintf",      errors_of_stdio, in_start},
    {"fflush",        errors_of_stdio, in_output},
    {"puts",          errors_of_stdio, in_output},
    {"dlopen",        errors_of_loader, in_processes},
    {"dlsym",         errors_of_loader, in_processes},
    {"dlclose",       errors_of_loader, in_processes},
    {"getrlimit",     errors_of_limits, in_start},
    {"setrlimit",     errors_of_limits, in_start},
    {"signal",        errors_of_signal, in_start},
    {"sysconf",       errors_of_sysconf, in_start | in_processes},
    {"pthread_key_create",           errors_of_key_create, in_start},
    {"pthread_key_delete",           errors_of_key_delete, in_start},
    {"pthread_setspecific",          errors_of_setspecific, in_start | in_threads},
    {"pthread_create",               errors_of_pthread_create, in_threads},
    {"pthread_join",                 errors_of_pthread_join, in_threads},
    {"pthread_attr_init",            errors_of_attributes, in_threads},
    {"pthread_attr_destroy",         errors_of_attributes, in_threads},
    {"pthread_attr_setstacksize",    errors_of_attributes, in_threads},
    {"pthread_attr_setinheritsched", errors_of_attributes, in_threads},
    {"pthread_attr_getschedparam",   errors_of_attributes, in_threads},
    {"pthread_attr_setschedparam",   errors_of_attributes, in_threads},
    {"pthread_mutex_init",           errors_of_mutex_init, in_start | in_threads},
    {"pthread_cond_init",            errors_of_cond_init, in_threads},
    {"pthread_condattr_init",        errors_of_attributes, in_threads},
    {"pthread_condattr_setclock",    errors_of_attributes, in_threads},
    {"pthread_cond_timedwait",       errors_of_timedwait, in_threads},
    {"clock_gettime", errors_of_clock_gettime, in_threads | in_times},
    {"gettimeofday",  errors_of_gettimeofday, in_times},
    {"time",          errors_of_time, in_times},
    {"gmtime_r",      errors_of_conversion, in_times},
    {"localtime_r",   errors_of_conversion, in_times | in_output},
    {"strftime",      errors_of_strftime, in_output},
    {"nanosleep",     errors_of_nanosleep, in_times, EINTR},
    {"newlocale",     errors_of_locales, in_times},
    {"setlocale",     errors_of_locales, in_times},
    {"strerror_r",    errors_of_strerror_r, in_times},
};
// clang-format on

inline const SystemCall* find_system_call(const char* name)
{
    for (const SystemCall& call : system_calls)
        if (std::strcmp(call.name, name) == 0)
            return &call;
    return nullptr;
}

} // namespace psptest
