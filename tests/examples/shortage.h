// What runs out: room on a disk, the size that a file may have, descriptors. And what a process has
// of them, looked at from outside.
#pragma once

#include "support/psp_test.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fcntl.h>
#include <sched.h>

namespace psptest {

// The environment refused what a test needs: child status of run_in_child.
inline constexpr int not_permitted = 77;

// Runs `body` in a child for which a file system of `bytes` is mounted on the directory `disk`.
// not_permitted where mounting is.
template <class Body>
int on_small_disk(const std::string& disk, std::size_t bytes, Body body)
{
    return run_in_child([&] {
        const std::string size = "size=" + std::to_string(bytes);
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("small", disk.c_str(), "tmpfs", 0, size.c_str()) != 0)
            return not_permitted;
        body();
        return 0;
    });
}

// Fills the disk that holds `path` with this one file but for `room` bytes.
inline void fill_disk(const std::string& path, std::uintmax_t room)
{
    const std::uintmax_t free = std::filesystem::space(path.substr(0, path.rfind('/'))).available;
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (free > room) {
        EXPECT_EQ(posix_fallocate(file, 0, static_cast<off_t>(free - room)), 0);
    }
    EXPECT_EQ(close(file), 0);
}

// For the child that becomes a program: writing beyond a limit fails, as on a full disk, and does
// not end the process.
inline bool survive_size_limit()
{
    return std::signal(SIGXFSZ, SIG_IGN) != SIG_ERR;
}

// Sets a limit of a running process; RLIM_INFINITY takes it back to what the process may have.
inline void set_limit(pid_t pid, __rlimit_resource resource, rlim_t value)
{
    rlimit limit;
    ASSERT_EQ(prlimit(pid, resource, nullptr, &limit), 0);
    limit.rlim_cur = std::min(value, limit.rlim_max);
    ASSERT_EQ(prlimit(pid, resource, &limit, nullptr), 0);
}

// The number of descriptors that another process has open.
inline std::size_t descriptors_of(pid_t pid)
{
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
        count++;
    return count;
}

// The physical memory of another process, in KiB.
inline std::size_t resident_kib_of(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/statm");
    std::size_t whole = 0;
    std::size_t resident = 0;
    in >> whole >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

} // namespace psptest
