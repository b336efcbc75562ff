// Short forms for tests of files: handles that close themselves, strings that the library gave, and
// a current directory that comes back.
#pragma once

#include "support/mem_test.h"

#include "psp/file.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace psptest {

// An open file, closed at the end of the scope.
class Handle {
  public:
    explicit Handle(const std::string& name, std::uint32_t flags = O_RDONLY,
                    std::uint16_t xflags = 0)
        : handle_(psp_fileOpen(name.c_str(), flags, xflags))
    {
    }
    ~Handle()
    {
        close();
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    operator PSP_FH() const
    {
        return handle_;
    }
    PSP_FH operator->() const
    {
        return handle_;
    }
    void close()
    {
        psp_fileClose(handle_);
        handle_ = nullptr;
    }

  private:
    PSP_FH handle_;
};

// Makes a directory the current one until the end of the scope.
class InDirectory {
  public:
    explicit InDirectory(const std::string& path) : before_(open(".", O_RDONLY | O_DIRECTORY))
    {
        if (before_ < 0 || chdir(path.c_str()) != 0)
            ADD_FAILURE() << "cannot enter " << path;
    }
    ~InDirectory()
    {
        if (fchdir(before_) != 0)
            ADD_FAILURE() << "cannot go back";
        ::close(before_);
    }
    InDirectory(const InDirectory&) = delete;
    InDirectory& operator=(const InDirectory&) = delete;

  private:
    int before_;
};

// The text of a string that the library allocated, which is freed; "(null)" when there is none.
inline std::string taken(const char* str, PSP_MEMTAG tag)
{
    const std::string text = str == nullptr ? "(null)" : str;
    release(str, tag);
    return text;
}

inline std::string random_bytes(std::mt19937& random, std::size_t size)
{
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

// Writes a new file in the place of an old one, which is faster than emptying that.
inline void put_file(const std::string& path, std::string_view bytes)
{
    unlink(path.c_str());
    write_file(path, bytes);
}

// In a child process of the superuser: permissions bind from here on. Others they bind anyway.
inline void drop_privileges()
{
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
        ADD_FAILURE() << "still the superuser";
}

// What `body` takes it must give back: repeated, it finds all it needs in what was freed.
template <class Body>
void expect_no_growth(Body body)
{
    for (int i = 0; i < 4; i++)
        body();
    const std::size_t before = memory_in_use();
    for (int i = 0; i < 400; i++)
        body();
    EXPECT_EQ(memory_in_use(), before);
}

} // namespace psptest
