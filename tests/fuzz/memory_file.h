// A file in memory that has a name, for fuzzers of what opens files.
#pragma once

#include "fuzz.h"

#include <string>

#include <sys/mman.h>
#include <unistd.h>

class MemoryFile {
  public:
    explicit MemoryFile(const std::string& bytes = "") : fd_(memfd_create("fuzz", 0))
    {
        CHECK(fd_ >= 0);
        CHECK(write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    }
    ~MemoryFile()
    {
        close(fd_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string name() const
    {
        return "/proc/self/fd/" + std::to_string(fd_);
    }

    std::string contents() const
    {
        std::string bytes(static_cast<std::size_t>(lseek(fd_, 0, SEEK_END)), '\0');
        CHECK(pread(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
        return bytes;
    }

  private:
    int fd_;
};
