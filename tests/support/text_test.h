// What the tests of text streams, output stacks and logging share: streams that close themselves,
// whole-stream reading, printing from a list of arguments, and the form of a line of the log.
#pragma once

#include "support/psp_test.h"

#include "psp/output.h"
#include "psp/stream.h"

#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace psptest {

// A stream that is closed at the end of the scope.
class Stream {
  public:
    explicit Stream(PSP_FILE_STREAM stream) : stream_(stream) {}
    Stream(const std::string& name, const char* mode, PSP_FILE_MODE fmode = PSP_FILE_MODE_UNKNOWN)
        : stream_(psp_fopen(name.c_str(), mode, fmode))
    {
        if (stream_ == nullptr)
            ADD_FAILURE() << "cannot open " << name;
    }
    ~Stream()
    {
        close();
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    operator PSP_FILE_STREAM() const
    {
        return stream_;
    }
    PSP_FILE_STREAM operator->() const
    {
        return stream_;
    }
    void close()
    {
        if (stream_ != nullptr)
            psp_fclose(stream_);
        stream_ = nullptr;
    }

  private:
    PSP_FILE_STREAM stream_;
};

// Prints to the error output as a caller with a list of arguments does.
PSP_PRINTF(1, 2)
inline int32_t print_err(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = psp_printfErrV(format, args);
    va_end(args);
    return written;
}

// A byte as psp_fgetc gives it.
inline int32_t signed_byte(unsigned byte)
{
    return byte < 0x80 ? static_cast<int32_t>(byte) : static_cast<int32_t>(byte) - 0x100;
}

// What a stream gives up to its end. Not for text that holds the byte FF.
inline std::string read_all(PSP_FILE_STREAM stream)
{
    std::string text;
    for (int32_t c; (c = psp_fgetc(stream)) != -1;)
        text.push_back(static_cast<char>(c));
    return text;
}

// The first `count` results of psp_fgetc.
inline std::vector<int32_t> read_values(PSP_FILE_STREAM stream, std::size_t count)
{
    std::vector<int32_t> values;
    while (values.size() < count)
        values.push_back(psp_fgetc(stream));
    return values;
}

// `size` bytes without newline and without FF.
inline std::string pattern(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; i++)
        text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    return text;
}

inline void append_to(const std::string& path, const std::string& bytes)
{
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

// Puts a descriptor in the place of another until the end of the scope.
class Redirected {
  public:
    Redirected(int fd, int source) : fd_(fd), saved_(dup(fd))
    {
        dup2(source, fd_);
    }
    ~Redirected()
    {
        if (saved_ < 0) {
            close(fd_);
            return;
        }
        dup2(saved_, fd_);
        close(saved_);
    }
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;

  private:
    int fd_;
    int saved_;
};

// The text "[2024-05-01 13:07:42]" of a second in local time.
inline std::string time_text(time_t secs)
{
    char text[64];
    struct tm local;
    localtime_r(&secs, &local);
    std::snprintf(text, sizeof text, "[%04d-%02d-%02d %02d:%02d:%02d]", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

inline constexpr std::size_t time_prefix_length = 23; // the time and two blanks

// Notes when it is made; tells whether `line` is `message` behind a time between then and now.
class TimeSpan {
  public:
    bool covers(std::string_view line, std::string_view message) const
    {
        const time_t last = std::time(nullptr) + 1;
        for (time_t secs = first_; secs <= last; secs++)
            if (line == time_text(secs) + "  " + std::string(message))
                return true;
        return false;
    }

  private:
    time_t first_ = std::time(nullptr) - 1;
};

} // namespace psptest
