// The wrapped functions: one row each in the table below, or a definition of their own where the
// result can be more than success or failure. See faults.h.
#include "faults.h"

#include "psp/core.h"
#include "psp/file.h"
#include "psp/mem.h"
#include "psp/sync.h"
#include "psp_mem_data_int.h"
#include "pspint.h"
#include "psptypes.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <termios.h>
#include <unistd.h>

namespace psptest {

// A function that can be made to fail, and the plan for it. Plans are laid before the threads that
// meet them start, or while these wait.
struct Point {
    const char* name;
    int default_error;
    std::atomic<int> calls{0};
    std::atomic<int> failures{0};
    std::atomic<int> nth{0};     // the first call that fails; 0: every call passes
    std::atomic<int> last{0};    // and the last one
    std::atomic<int> error{0};   // 0: the default
    std::atomic<long> bytes{-1}; // from 0 up: move at most this many instead of failing
    std::atomic<void (*)()> replacement{nullptr};

    // Counts one call; true when the plan hits it.
    bool hit()
    {
        const int call = ++calls;
        const int planned = nth;
        if (planned == 0 || call < planned || call > last)
            return false;
        ++failures;
        return true;
    }
    int planned_error() const
    {
        return error != 0 ? error.load() : default_error;
    }
    void plan(int number, int times, int code, long limit)
    {
        nth = 0; // calls of other threads pass while the plan changes
        calls = 0;
        failures = 0;
        last = times == INT_MAX ? INT_MAX : number + times - 1;
        error = code;
        bytes = limit;
        nth = number;
    }
};

namespace {

std::atomic<long> heap_blocks{0};

int times(bool forever)
{
    return forever ? INT_MAX : 1;
}

// Failure as most functions tell it.
template <class Result>
Result with_errno(const Point& point, Result result)
{
    errno = point.planned_error();
    return result;
}

} // namespace
} // namespace psptest

using psptest::Point;
using psptest::with_errno;

// X(name, result type, parameters, arguments, result when point `p` fails it, error). What closes
// something has closed it even when it fails, as the system does.
// clang-format off
#define WRAPPED(X)                                                                                 \
    X(close, int, (int fd), (fd), (__real_close(fd), with_errno(p, -1)), EIO)                      \
    X(lseek, off_t, (int fd, off_t offset, int whence), (fd, offset, whence),                      \
      with_errno(p, off_t{-1}), EIO)                                                               \
    X(fsync, int, (int fd), (fd), with_errno(p, -1), EIO)                                          \
    X(ftruncate, int, (int fd, off_t length), (fd, length), with_errno(p, -1), EIO)                \
    X(fstat, int, (int fd, struct stat* st), (fd, st), with_errno(p, -1), EIO)                     \
    X(stat, int, (const char* path, struct stat* st), (path, st), with_errno(p, -1), EACCES)       \
    X(flock, int, (int fd, int operation), (fd, operation), with_errno(p, -1), ENOLCK)             \
    X(fallocate, int, (int fd, int mode, off_t offset, off_t length), (fd, mode, offset, length),  \
      with_errno(p, -1), ENOSPC)                                                                   \
    X(posix_fadvise, int, (int fd, off_t offset, off_t length, int advice),                        \
      (fd, offset, length, advice), p.planned_error(), EINVAL)                                     \
    X(isatty, int, (int fd), (fd), with_errno(p, 0), ENOTTY)                                       \
    X(tcgetattr, int, (int fd, struct termios* t), (fd, t), with_errno(p, -1), ENOTTY)             \
    X(tcsetattr, int, (int fd, int how, const struct termios* t), (fd, how, t),                    \
      with_errno(p, -1), EIO)                                                                      \
    X(remove, int, (const char* path), (path), with_errno(p, -1), EACCES)                          \
    X(unlink, int, (const char* path), (path), with_errno(p, -1), EACCES)                          \
    X(rename, int, (const char* from, const char* to), (from, to), with_errno(p, -1), EACCES)      \
    X(mkdir, int, (const char* path, mode_t mode), (path, mode), with_errno(p, -1), EACCES)        \
    X(rmdir, int, (const char* path), (path), with_errno(p, -1), EACCES)                           \
    X(opendir, DIR*, (const char* path), (path), with_errno(p, nullptr), EACCES)                   \
    X(readdir, struct dirent*, (DIR* dir), (dir), with_errno(p, nullptr), EIO)                     \
    X(closedir, int, (DIR* dir), (dir), (__real_closedir(dir), with_errno(p, -1)), EIO)            \
    X(getcwd, char*, (char* buffer, size_t size), (buffer, size), with_errno(p, nullptr), ENOENT)  \
    X(pthread_key_create, int, (pthread_key_t* key, void (*end)(void*)), (key, end),               \
      p.planned_error(), EAGAIN)                                                                   \
    X(pthread_key_delete, int, (pthread_key_t key), (key), p.planned_error(), EINVAL)              \
    X(pthread_setspecific, int, (pthread_key_t key, const void* value), (key, value),              \
      p.planned_error(), ENOMEM)                                                                   \
    X(pthread_create, int,                                                                         \
      (pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg),           \
      (thread, attr, start, arg), p.planned_error(), EAGAIN)                                       \
    X(pthread_join, int, (pthread_t thread, void** result), (thread, result),                      \
      p.planned_error(), ESRCH)                                                                    \
    X(pthread_attr_init, int, (pthread_attr_t* attr), (attr), p.planned_error(), ENOMEM)           \
    X(pthread_attr_destroy, int, (pthread_attr_t* attr), (attr), p.planned_error(), EINVAL)        \
    X(pthread_attr_setstacksize, int, (pthread_attr_t* attr, size_t size), (attr, size),           \
      p.planned_error(), EINVAL)                                                                   \
    X(pthread_attr_setinheritsched, int, (pthread_attr_t* attr, int inherit), (attr, inherit),     \
      p.planned_error(), EINVAL)                                                                   \
    X(pthread_attr_getschedparam, int, (const pthread_attr_t* attr, struct sched_param* param),    \
      (attr, param), p.planned_error(), EINVAL)                                                    \
    X(pthread_attr_setschedparam, int, (pthread_attr_t* attr, const struct sched_param* param),    \
      (attr, param), p.planned_error(), ENOTSUP)                                                   \
    X(pthread_mutex_init, int, (pthread_mutex_t* mutex, const pthread_mutexattr_t* attr),          \
      (mutex, attr), p.planned_error(), ENOMEM)                                                    \
    X(pthread_mutex_destroy, int, (pthread_mutex_t* mutex), (mutex), p.planned_error(), EBUSY)     \
    X(pthread_mutex_lock, int, (pthread_mutex_t* mutex), (mutex), p.planned_error(), EINVAL)       \
    X(pthread_mutex_unlock, int, (pthread_mutex_t* mutex), (mutex), p.planned_error(), EPERM)      \
    X(pthread_cond_init, int, (pthread_cond_t* cond, const pthread_condattr_t* attr),              \
      (cond, attr), p.planned_error(), ENOMEM)                                                     \
    X(pthread_cond_destroy, int, (pthread_cond_t* cond), (cond), p.planned_error(), EBUSY)         \
    X(pthread_condattr_init, int, (pthread_condattr_t* attr), (attr), p.planned_error(), ENOMEM)   \
    X(pthread_condattr_setclock, int, (pthread_condattr_t* attr, clockid_t clock), (attr, clock),  \
      p.planned_error(), EINVAL)                                                                   \
    X(pthread_cond_timedwait, int,                                                                 \
      (pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* until),                \
      (cond, mutex, until), p.planned_error(), ETIMEDOUT)                                          \
    X(clock_gettime, int, (clockid_t id, struct timespec* now), (id, now),                         \
      with_errno(p, -1), EINVAL)                                                                   \
    X(gettimeofday, int, (struct timeval* now, void* zone), (now, zone),                           \
      with_errno(p, -1), EINVAL)                                                                   \
    X(time, time_t, (time_t* now), (now), with_errno(p, time_t{-1}), EFAULT)                       \
    X(gmtime_r, struct tm*, (const time_t* when, struct tm* parts), (when, parts),                 \
      with_errno(p, nullptr), EOVERFLOW)                                                           \
    X(localtime_r, struct tm*, (const time_t* when, struct tm* parts), (when, parts),              \
      with_errno(p, nullptr), EOVERFLOW)                                                           \
    X(nanosleep, int, (const struct timespec* wanted, struct timespec* left), (wanted, left),      \
      with_errno(p, -1), EINTR)                                                                    \
    X(getrlimit, int, (int what, struct rlimit* limit), (what, limit), with_errno(p, -1), EINVAL)  \
    X(setrlimit, int, (int what, const struct rlimit* limit), (what, limit),                       \
      with_errno(p, -1), EPERM)                                                                    \
    X(sysconf, long, (int name), (name), with_errno(p, -1L), EINVAL)                               \
    X(pipe, int, (int* fds), (fds), with_errno(p, -1), EMFILE)                                     \
    X(fork, pid_t, (), (), with_errno(p, -1), EAGAIN)                                              \
    X(setsid, pid_t, (), (), with_errno(p, -1), EPERM)                                             \
    X(waitpid, pid_t, (pid_t pid, int* status, int options), (pid, status, options),               \
      with_errno(p, -1), ECHILD)                                                                   \
    X(dlopen, void*, (const char* path, int flags), (path, flags), with_errno(p, nullptr), ENOENT) \
    X(dlsym, void*, (void* module, const char* name), (module, name),                              \
      with_errno(p, nullptr), ENOENT)                                                              \
    X(dlclose, int, (void* module), (module), with_errno(p, -1), EINVAL)                           \
    X(signal, __sighandler_t, (int number, __sighandler_t handler), (number, handler),             \
      with_errno(p, SIG_ERR), EINVAL)                                                              \
    X(fclose, int, (FILE* file), (file), (__real_fclose(file), with_errno(p, EOF)), EIO)           \
    X(fflush, int, (FILE* file), (file), with_errno(p, EOF), EIO)                                  \
    X(puts, int, (const char* text), (text), with_errno(p, EOF), EIO)                              \
    X(vfprintf, int, (FILE* file, const char* format, va_list args), (file, format, args),         \
      with_errno(p, -1), EIO)                                                                      \
    X(strftime, size_t, (char* text, size_t size, const char* format, const struct tm* parts),     \
      (text, size, format, parts), with_errno(p, size_t{0}), ERANGE)                               \
    X(newlocale, locale_t, (int mask, const char* name, locale_t base), (mask, name, base),        \
      with_errno(p, nullptr), ENOENT)                                                              \
    X(setlocale, char*, (int category, const char* name), (category, name),                        \
      with_errno(p, nullptr), ENOENT)                                                              \
    X(localeconv, struct lconv*, (), (), with_errno(p, nullptr), ENOTSUP)                          \
    X(strerror_r, char*, (int error, char* buffer, size_t size), (error, buffer, size),            \
      with_errno(p, const_cast<char*>("no message")), EINVAL)                                      \
    X(psp_syncCreate_check, PSP_SEM, (int16_t type, const char* file, int32_t line),               \
      (type, file, line), with_errno(p, PSP_SEM_INVALID), EAGAIN)                                  \
    X(psp_syncEnterExcl, ZYN_RETCODE, (PSP_SEM sem), (sem), p.planned_error(), ePSP_FAILURE)       \
    X(psp_enterCritSec, ZYN_RETCODE, (), (), p.planned_error(), ePSP_FAILURE)                      \
    X(psp_fileWrite, uint32_t, (PSP_FH handle, const void* data, uint32_t size),                   \
      (handle, data, size), with_errno(p, 0U), EIO)                                                \
    X(psp_fileOpenStd, PSP_FH,                                                                     \
      (const char* name, uint32_t flags, uint16_t xflags, ZYN_BOOL_T* is_console),                 \
      (name, flags, xflags, is_console), with_errno(p, nullptr), EACCES)                           \
    X(psp_createTagEx, PSP_MEMTAG,                                                                 \
      (jmp_buf* jb, int16_t flags, PSP_ALLOCATOR_TYPE type, PSP_DESTROY_FCN destroy_fcn,           \
       void* destroy_ctx, const char* file, int32_t line),                                         \
      (jb, flags, type, destroy_fcn, destroy_ctx, file, line), with_errno(p, nullptr), ENOMEM)     \
    X(psp_createTagEx_rc, ZYN_RETCODE,                                                             \
      (jmp_buf* jb, int16_t flags, PSP_ALLOCATOR_TYPE type, PSP_DESTROY_FCN destroy_fcn,           \
       void* destroy_ctx, PSP_MEMTAG* ptag, const char* file, int32_t line),                       \
      (jb, flags, type, destroy_fcn, destroy_ctx, ptag, file, line), p.planned_error(), eNOMEMORY)

// The points that have a definition of their own: X(name, error)
#define HAND_WRAPPED(X)                                                                            \
    X(malloc, ENOMEM)                                                                              \
    X(calloc, ENOMEM)                                                                              \
    X(realloc, ENOMEM)                                                                             \
    X(free, 0)                                                                                     \
    X(heap, ENOMEM)                                                                                \
    X(open, EACCES)                                                                                \
    X(read, EIO)                                                                                   \
    X(pread, EIO)                                                                                  \
    X(write, ENOSPC)                                                                               \
    X(pwrite, ENOSPC)                                                                              \
    X(fprintf, EIO)                                                                                \
    X(tag_alloc, 0)                                                                                \
    X(large_block, 0)
// clang-format on

namespace psptest {
namespace {

enum PointIndex {
#define INDEX_ROW(name, result, parameters, arguments, failure, error) at_##name,
#define HAND_INDEX_ROW(name, error) at_##name,
    WRAPPED(INDEX_ROW) HAND_WRAPPED(HAND_INDEX_ROW)
#undef INDEX_ROW
#undef HAND_INDEX_ROW
};

Point points[] = {
#define POINT_ROW(name, result, parameters, arguments, failure, error) {#name, error},
#define HAND_POINT_ROW(name, error) {#name, error},
    WRAPPED(POINT_ROW) HAND_WRAPPED(HAND_POINT_ROW)
#undef POINT_ROW
#undef HAND_POINT_ROW
};

Point& find_point(const char* name)
{
    for (Point& point : points)
        if (std::strcmp(point.name, name) == 0)
            return point;
    std::fprintf(stderr, "no function \"%s\" is wrapped\n", name);
    std::abort();
}

} // namespace

Fault::Fault(const char* name, int nth, bool forever, int error) : point_(&find_point(name))
{
    point_->plan(nth, times(forever), error, -1);
}

Fault::~Fault()
{
    point_->plan(0, 0, 0, -1);
}

int Fault::calls() const
{
    return point_->calls;
}

int Fault::failures() const
{
    return point_->failures;
}

void Fault::disarm()
{
    point_->nth = 0;
}

void Fault::fail_nth(const char* name, int nth, bool forever, int error)
{
    find_point(name).plan(nth, times(forever), error, -1);
}

void Fault::fail_run(const char* name, int nth, int count, int error)
{
    find_point(name).plan(nth, count, error, -1);
}

void Fault::shorten_nth(const char* name, int nth, std::size_t bytes, bool forever)
{
    find_point(name).plan(nth, times(forever), 0, static_cast<long>(bytes));
}

int Fault::calls(const char* name)
{
    return find_point(name).calls;
}

int Fault::failures(const char* name)
{
    return find_point(name).failures;
}

void Fault::clear()
{
    for (Point& point : points) {
        point.replacement = nullptr;
        point.plan(0, 0, 0, -1);
    }
}

void Fault::set_replacement(const char* name, void (*function)())
{
    find_point(name).replacement = function;
}

long live_heap_blocks()
{
    return heap_blocks;
}

} // namespace psptest

using namespace psptest;

extern "C" {

void psptest_real_calls();

void psptest_real_calls()
{
    Fault::clear();
}

#define WRAP_ROW(name, result, parameters, arguments, failure, error)                              \
    result __real_##name parameters;                                                               \
    result __wrap_##name parameters;                                                               \
    result __wrap_##name parameters                                                                \
    {                                                                                              \
        Point& p = points[at_##name];                                                              \
        if (p.hit())                                                                               \
            return failure;                                                                        \
        if (const auto other = p.replacement.load())                                               \
            return reinterpret_cast<result(*) parameters>(other) arguments;                        \
        return __real_##name arguments;                                                            \
    }
WRAPPED(WRAP_ROW)
#undef WRAP_ROW

// ---- The heap: counted, so that a test can see that all is given back. Its three functions count
// at a point of their own and at "heap". ----

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* ptr, size_t size);
void __real_free(void* ptr);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* ptr, size_t size);
void __wrap_free(void* ptr);

static bool heap_hit(Point& p)
{
    const bool planned_for_all = points[at_heap].hit();
    return p.hit() || planned_for_all;
}

void* __wrap_malloc(size_t size)
{
    Point& p = points[at_malloc];
    void* ptr = heap_hit(p) ? with_errno(p, nullptr) : __real_malloc(size);
    heap_blocks += ptr != nullptr;
    return ptr;
}

void* __wrap_calloc(size_t count, size_t size)
{
    Point& p = points[at_calloc];
    void* ptr = heap_hit(p) ? with_errno(p, nullptr) : __real_calloc(count, size);
    heap_blocks += ptr != nullptr;
    return ptr;
}

void* __wrap_realloc(void* ptr, size_t size)
{
    Point& p = points[at_realloc];
    const bool fresh = ptr == nullptr;
    void* moved = heap_hit(p) ? with_errno(p, nullptr) : __real_realloc(ptr, size);
    heap_blocks += fresh && moved != nullptr;
    return moved;
}

void __wrap_free(void* ptr)
{
    Point& p = points[at_free];
    p.hit();
    heap_blocks -= ptr != nullptr;
    if (const auto other = p.replacement.load())
        reinterpret_cast<void (*)(void*)>(other)(ptr);
    else
        __real_free(ptr);
}

// ---- Files: open takes its mode only when it creates; transfers can be short. ----

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);

int __wrap_open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (__OPEN_NEEDS_MODE(flags)) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    Point& p = points[at_open];
    if (p.hit())
        return with_errno(p, -1);
    if (const auto other = p.replacement.load())
        return reinterpret_cast<int (*)(const char*, int, ...)>(other)(path, flags, mode);
    return __real_open(path, flags, mode);
}

#define WRAP_TRANSFER(name, parameters, arguments)                                                 \
    ssize_t __real_##name parameters;                                                              \
    ssize_t __wrap_##name parameters;                                                              \
    ssize_t __wrap_##name parameters                                                               \
    {                                                                                              \
        Point& p = points[at_##name];                                                              \
        if (p.hit()) {                                                                             \
            if (p.bytes < 0)                                                                       \
                return with_errno(p, ssize_t{-1});                                                 \
            const auto most = static_cast<size_t>(p.bytes.load());                                 \
            size = size < most ? size : most;                                                      \
        }                                                                                          \
        if (const auto other = p.replacement.load())                                               \
            return reinterpret_cast<ssize_t(*) parameters>(other) arguments;                       \
        return __real_##name arguments;                                                            \
    }
WRAP_TRANSFER(read, (int fd, void* data, size_t size), (fd, data, size))
WRAP_TRANSFER(write, (int fd, const void* data, size_t size), (fd, data, size))
WRAP_TRANSFER(pread, (int fd, void* data, size_t size, off_t at), (fd, data, size, at))
WRAP_TRANSFER(pwrite, (int fd, const void* data, size_t size, off_t at), (fd, data, size, at))
#undef WRAP_TRANSFER

int __wrap_fprintf(FILE* file, const char* format, ...) __attribute__((format(printf, 2, 3)));

int __wrap_fprintf(FILE* file, const char* format, ...)
{
    Point& p = points[at_fprintf];
    if (p.hit())
        return with_errno(p, -1);
    va_list args;
    va_start(args, format);
    const int count = __real_vfprintf(file, format, args);
    va_end(args);
    return count;
}

// ---- Allocation under a tag: a failure of the public functions jumps if the tag says so. ----

// clang-format off
#define TAG_GET  size_t size, PSP_MEMTAG tag, int32_t mode, const void* data
#define TAG_EXT  const void* ptr, size_t size, PSP_MEMTAG tag, int32_t mode, size_t inc, \
                 const void* data
#define CALLER   const char* file, int32_t line
// clang-format on

void* __real_psp_getMem(TAG_GET, CALLER);
void* __wrap_psp_getMem(TAG_GET, CALLER);
ZYN_RETCODE __real_psp_getMem_rc(TAG_GET, void* res, CALLER);
ZYN_RETCODE __wrap_psp_getMem_rc(TAG_GET, void* res, CALLER);
void* __real_psp_extendMem(TAG_EXT, CALLER);
void* __wrap_psp_extendMem(TAG_EXT, CALLER);
ZYN_RETCODE __real_psp_extendMem_rc(TAG_EXT, void* res, CALLER);
ZYN_RETCODE __wrap_psp_extendMem_rc(TAG_EXT, void* res, CALLER);

void* __wrap_psp_getMem(TAG_GET, CALLER)
{
    if (!points[at_tag_alloc].hit())
        return __real_psp_getMem(size, tag, mode, data, file, line);
    psp_memRaise(tag);
    return nullptr;
}

ZYN_RETCODE __wrap_psp_getMem_rc(TAG_GET, void* res, CALLER)
{
    if (!points[at_tag_alloc].hit())
        return __real_psp_getMem_rc(size, tag, mode, data, res, file, line);
    psp_memRaise(tag);
    *static_cast<void**>(res) = nullptr;
    return eNOMEMORY;
}

void* __wrap_psp_extendMem(TAG_EXT, CALLER)
{
    if (!points[at_tag_alloc].hit())
        return __real_psp_extendMem(ptr, size, tag, mode, inc, data, file, line);
    psp_memRaise(tag);
    return nullptr;
}

ZYN_RETCODE __wrap_psp_extendMem_rc(TAG_EXT, void* res, CALLER)
{
    if (!points[at_tag_alloc].hit())
        return __real_psp_extendMem_rc(ptr, size, tag, mode, inc, data, res, file, line);
    psp_memRaise(tag);
    *static_cast<void**>(res) = nullptr;
    return eNOMEMORY;
}

} // extern "C"

// The two that never jump have C++ linkage; wrapped.txt names them as the linker sees them.
void* real_memTryGet(TAG_GET) asm("__real__Z13psp_memTryGetmP9TAG_ENTRYiPKv");
void* wrap_memTryGet(TAG_GET) asm("__wrap__Z13psp_memTryGetmP9TAG_ENTRYiPKv");
void* real_memTryExtend(TAG_EXT) asm("__real__Z16psp_memTryExtendPKvmP9TAG_ENTRYimS0_");
void* wrap_memTryExtend(TAG_EXT) asm("__wrap__Z16psp_memTryExtendPKvmP9TAG_ENTRYimS0_");

void* wrap_memTryGet(TAG_GET)
{
    return points[at_tag_alloc].hit() ? nullptr : real_memTryGet(size, tag, mode, data);
}

void* wrap_memTryExtend(TAG_EXT)
{
    return points[at_tag_alloc].hit() ? nullptr
                                      : real_memTryExtend(ptr, size, tag, mode, inc, data);
}

// ---- Large blocks: the request finds nothing left, and the limit refuses to let the layer grow.
// ----

void* real_allocLargeBlock(size_t* size, PSP_MEM_INFO* info) asm(
    "__real__Z19psp_allocLargeBlockPmP12PSP_MEM_INFO");
void* wrap_allocLargeBlock(size_t* size, PSP_MEM_INFO* info) asm(
    "__wrap__Z19psp_allocLargeBlockPmP12PSP_MEM_INFO");
void* real_reallocLargeBlock(void* ptr, size_t size) asm("__real__Z21psp_reallocLargeBlockPvm");
void* wrap_reallocLargeBlock(void* ptr, size_t size) asm("__wrap__Z21psp_reallocLargeBlockPvm");

psptest::MemoryLimit::MemoryLimit() : before_(psp_memlimit)
{
    psp_setMemLimit(nullptr, 4195328); // the lowest: it allows one chunk of the layer
}

psptest::MemoryLimit::~MemoryLimit()
{
    psp_setMemLimit(nullptr, before_);
}

psptest::Hoard::Hoard()
{
    const MemoryLimit limit;
    const long before = heap_blocks;
    for (std::size_t size = std::size_t{1} << 21; size >= sizeof(Piece); size /= 2)
        for (std::size_t whole = size;
             auto* piece = static_cast<Piece*>(real_allocLargeBlock(&whole, nullptr));) {
            piece->next = pieces_;
            pieces_ = piece;
            if (heap_blocks > before + 1) { // the layer's first chunk, at most
                std::fprintf(stderr, "the memory limit does not hold\n");
                std::abort();
            }
        }
}

psptest::Hoard::~Hoard()
{
    while (Piece* const piece = pieces_) {
        pieces_ = piece->next;
        psp_freeLargeBlock(piece, nullptr);
    }
}

void* wrap_allocLargeBlock(size_t* size, PSP_MEM_INFO* info)
{
    if (!points[at_large_block].hit())
        return real_allocLargeBlock(size, info);
    const Hoard hoard;
    const MemoryLimit limit;
    return real_allocLargeBlock(size, info);
}

void* wrap_reallocLargeBlock(void* ptr, size_t size)
{
    if (!points[at_large_block].hit())
        return real_reallocLargeBlock(ptr, size);
    const Hoard hoard;
    const MemoryLimit limit;
    return real_reallocLargeBlock(ptr, size);
}
