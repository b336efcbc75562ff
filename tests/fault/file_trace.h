// The system calls that the file layer makes, written down one line each while a Trace is alive:
//
//     open dest 0x42 0666     lseek file 5 0        flock file 6      mkdir dir 0777
//     pread src 1024 at 0     ftruncate file 7      fsync file        close file
//
// Files go by the last part of their names, descriptors by the file that was opened.
#pragma once

#include "faults.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

extern "C" {
int __real_open(const char* path, int flags, ...);
int __real_close(int fd);
off_t __real_lseek(int fd, off_t offset, int whence);
ssize_t __real_read(int fd, void* data, size_t size);
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __real_pread(int fd, void* data, size_t size, off_t at);
ssize_t __real_pwrite(int fd, const void* data, size_t size, off_t at);
int __real_fsync(int fd);
int __real_ftruncate(int fd, off_t length);
int __real_fstat(int fd, struct stat* status);
int __real_stat(const char* path, struct stat* status);
int __real_flock(int fd, int operation);
int __real_fallocate(int fd, int mode, off_t offset, off_t length);
int __real_posix_fadvise(int fd, off_t offset, off_t length, int advice);
int __real_remove(const char* path);
int __real_mkdir(const char* path, mode_t mode);
int __real_rmdir(const char* path);
DIR* __real_opendir(const char* path);
struct dirent* __real_readdir(DIR* dir);
int __real_closedir(DIR* dir);
}

namespace psptest {

class Trace {
  public:
    using Lines = std::vector<std::string>;

    Trace()
    {
        lines_.clear();
        names_.clear();
        Fault::replace("open", traced_open);
        Fault::replace("close", traced_close);
        Fault::replace("lseek", traced_lseek);
        Fault::replace("read", traced_read);
        Fault::replace("write", traced_write);
        Fault::replace("pread", traced_pread);
        Fault::replace("pwrite", traced_pwrite);
        Fault::replace("fsync", traced_fsync);
        Fault::replace("ftruncate", traced_ftruncate);
        Fault::replace("fstat", traced_fstat);
        Fault::replace("stat", traced_stat);
        Fault::replace("flock", traced_flock);
        Fault::replace("fallocate", traced_fallocate);
        Fault::replace("posix_fadvise", traced_fadvise);
        Fault::replace("remove", traced_remove);
        Fault::replace("mkdir", traced_mkdir);
        Fault::replace("rmdir", traced_rmdir);
        Fault::replace("opendir", traced_opendir);
        Fault::replace("readdir", traced_readdir);
        Fault::replace("closedir", traced_closedir);
    }
    ~Trace()
    {
        Fault::clear();
    }
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    // The calls since the start, or since they were last taken.
    Lines take()
    {
        Lines lines;
        lines.swap(lines_);
        return lines;
    }

  private:
    static std::string last_part(const char* path)
    {
        const char* const separator = std::strrchr(path, '/');
        return separator == nullptr ? path : separator + 1;
    }
    static void note(const char* format, ...) __attribute__((format(printf, 1, 2)))
    {
        char line[512];
        va_list args;
        va_start(args, format);
        std::vsnprintf(line, sizeof line, format, args);
        va_end(args);
        lines_.emplace_back(line);
    }
    static const char* name(int fd)
    {
        const auto found = names_.find(fd);
        return found == names_.end() ? "?" : found->second.c_str();
    }

    static int traced_open(const char* path, int flags, ...)
    {
        va_list args;
        va_start(args, flags);
        const mode_t mode = va_arg(args, mode_t); // always given by the wrapper, 0 for none
        va_end(args);
        note("open %s 0x%x 0%o", last_part(path).c_str(), static_cast<unsigned>(flags), mode);
        const int fd = __real_open(path, flags, mode);
        if (fd >= 0)
            names_[fd] = last_part(path);
        return fd;
    }
    static int traced_close(int fd)
    {
        note("close %s", name(fd));
        names_.erase(fd);
        return __real_close(fd);
    }
    static off_t traced_lseek(int fd, off_t offset, int whence)
    {
        note("lseek %s %ld %d", name(fd), offset, whence);
        return __real_lseek(fd, offset, whence);
    }
    static ssize_t traced_read(int fd, void* data, size_t size)
    {
        note("read %s %zu", name(fd), size);
        return __real_read(fd, data, size);
    }
    static ssize_t traced_write(int fd, const void* data, size_t size)
    {
        note("write %s %zu", name(fd), size);
        return __real_write(fd, data, size);
    }
    static ssize_t traced_pread(int fd, void* data, size_t size, off_t at)
    {
        note("pread %s %zu at %ld", name(fd), size, at);
        return __real_pread(fd, data, size, at);
    }
    static ssize_t traced_pwrite(int fd, const void* data, size_t size, off_t at)
    {
        note("pwrite %s %zu at %ld", name(fd), size, at);
        return __real_pwrite(fd, data, size, at);
    }
    static int traced_fsync(int fd)
    {
        note("fsync %s", name(fd));
        return __real_fsync(fd);
    }
    static int traced_ftruncate(int fd, off_t length)
    {
        note("ftruncate %s %ld", name(fd), length);
        return __real_ftruncate(fd, length);
    }
    static int traced_fstat(int fd, struct stat* status)
    {
        note("fstat %s", name(fd));
        return __real_fstat(fd, status);
    }
    static int traced_stat(const char* path, struct stat* status)
    {
        note("stat %s", last_part(path).c_str());
        return __real_stat(path, status);
    }
    static int traced_flock(int fd, int operation)
    {
        note("flock %s %d", name(fd), operation);
        return __real_flock(fd, operation);
    }
    static int traced_fallocate(int fd, int mode, off_t offset, off_t length)
    {
        note("fallocate %s %d %ld %ld", name(fd), mode, offset, length);
        return __real_fallocate(fd, mode, offset, length);
    }
    static int traced_fadvise(int fd, off_t offset, off_t length, int advice)
    {
        note("posix_fadvise %s %ld %ld %d", name(fd), offset, length, advice);
        return __real_posix_fadvise(fd, offset, length, advice);
    }
    static int traced_remove(const char* path)
    {
        note("remove %s", last_part(path).c_str());
        return __real_remove(path);
    }
    static int traced_mkdir(const char* path, mode_t mode)
    {
        note("mkdir %s 0%o", path, mode);
        return __real_mkdir(path, mode);
    }
    static int traced_rmdir(const char* path)
    {
        note("rmdir %s", path);
        return __real_rmdir(path);
    }
    static DIR* traced_opendir(const char* path)
    {
        note("opendir %s", last_part(path).c_str());
        return __real_opendir(path);
    }
    static struct dirent* traced_readdir(DIR* dir)
    {
        note("readdir");
        return __real_readdir(dir);
    }
    static int traced_closedir(DIR* dir)
    {
        note("closedir");
        return __real_closedir(dir);
    }

    static inline Lines lines_;
    static inline std::map<int, std::string> names_; // of descriptors opened in here
};

} // namespace psptest
