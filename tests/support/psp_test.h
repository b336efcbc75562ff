// What all test programs share: fixtures that prove a clean start and a clean end of the library,
// temporary directories, whole-file reading and writing, captured output and child processes.
#pragma once

#include <gtest/gtest.h>

#include "psp/core.h"
#include "psp/mem.h"

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#define PSPTEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PSPTEST_ASAN 1
#endif
#endif

#if defined(__SANITIZE_THREAD__)
#define PSPTEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PSPTEST_TSAN 1
#endif
#endif

// Writes the counters of a coverage build; absent in every other build.
extern "C" void __gcov_dump() __attribute__((weak));

// Ends all that is made to fail or replaced; absent where nothing can be (fault/faults.cpp).
extern "C" void psptest_real_calls() __attribute__((weak));

namespace psptest {

#ifdef PSPTEST_ASAN
inline constexpr bool under_asan = true;
#else
inline constexpr bool under_asan = false;
#endif
#ifdef PSPTEST_TSAN
inline constexpr bool under_tsan = true;
#else
inline constexpr bool under_tsan = false;
#endif

// The number of descriptors that this process has open. The one that reads the directory is in
// every count, so counts can be compared.
inline std::size_t open_descriptors()
{
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        count++;
    return count;
}

// The bytes that the library holds in large blocks now.
inline std::size_t memory_in_use()
{
    std::size_t current = 0;
    psp_getMemUsage(&current, nullptr);
    return current;
}

// For tests that start and stop the library themselves: the end must look like the beginning.
class RawTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        descriptors_ = open_descriptors();
        ASSERT_EQ(psp_inited, 0);
        ASSERT_EQ(memory_in_use(), 0u);
    }

    void TearDown() override
    {
        EXPECT_EQ(psp_inited, 0);
        EXPECT_EQ(psp_terminating, 0);
        EXPECT_EQ(memory_in_use(), 0u);
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

  private:
    std::size_t descriptors_ = 0;
};

// For tests of the running library: started before the test, stopped after it.
class PspTest : public RawTest {
  protected:
    void SetUp() override
    {
        RawTest::SetUp();
        ASSERT_EQ(psp_init(), sOKAY);
        ASSERT_EQ(psp_inited, 1);
    }

    void TearDown() override
    {
        psp_term();
        RawTest::TearDown();
    }
};

// A new empty directory below the system's directory for temporary files, removed with everything
// in it at the end of the scope.
class TempDir {
  public:
    TempDir()
    {
        std::error_code error;
        std::string pattern = std::filesystem::temp_directory_path(error).string();
        if (error)
            pattern = "/tmp";
        while (pattern.size() > 1 && pattern.back() == '/')
            pattern.pop_back();
        pattern += "/psptest_XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr)
            path_ = pattern;
        else
            ADD_FAILURE() << "no temporary directory at " << pattern;
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const
    {
        return path_;
    }
    const char* c_str() const
    {
        return path_.c_str();
    }
    // The path of `name` in this directory.
    std::string operator/(std::string_view name) const
    {
        return path_ + "/" + std::string(name);
    }

  private:
    std::string path_;
};

// The whole contents of a file; a test failure and "" when it cannot be read.
inline std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        ADD_FAILURE() << "cannot read " << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Makes or replaces a file with exactly these bytes.
inline void write_file(const std::string& path, std::string_view bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out)
        ADD_FAILURE() << "cannot write " << path;
}

inline bool file_exists(const std::string& path)
{
    std::error_code ignored;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

// Sends what is written to a descriptor (1: standard output, 2: standard error), through the C
// library or past it, into a file until the end of the scope.
class CapturedFd {
  public:
    explicit CapturedFd(int fd) : fd_(fd), sink_(std::tmpfile())
    {
        std::fflush(nullptr);
        saved_ = dup(fd_);
        if (sink_ == nullptr || saved_ < 0 || dup2(fileno(sink_), fd_) < 0)
            ADD_FAILURE() << "cannot capture descriptor " << fd;
    }
    ~CapturedFd()
    {
        restore();
    }
    CapturedFd(const CapturedFd&) = delete;
    CapturedFd& operator=(const CapturedFd&) = delete;

    // What was written so far.
    std::string text()
    {
        std::fflush(nullptr);
        std::string result;
        char part[4096];
        ssize_t got;
        while ((got = pread(fileno(sink_), part, sizeof part, static_cast<off_t>(result.size()))) >
               0)
            result.append(part, static_cast<std::size_t>(got));
        return result;
    }

    // Ends the capture and gives what was written.
    std::string finish()
    {
        std::string result = text();
        restore();
        return result;
    }

  private:
    void restore()
    {
        if (saved_ < 0)
            return;
        std::fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
        std::fclose(sink_);
    }

    int fd_;
    int saved_ = -1;
    std::FILE* sink_;
};

// Saves the counters of a coverage build. What writes them opens files and allocates itself.
inline void save_counters()
{
    if (__gcov_dump == nullptr)
        return;
    if (psptest_real_calls != nullptr)
        psptest_real_calls();
    __gcov_dump();
}

// Exit status of a child in which an expectation failed.
inline constexpr int child_had_failures = 99;

// Runs `body` in a forked child, for one-way switches and for what ends the process. Gives the
// child's exit status: what `body` returned, or child_had_failures when an expectation failed in
// it; 128 plus the signal's number when a signal ended it; -1 when there was no child.
inline int run_in_child(const std::function<int()>& body)
{
    const auto failed_parts = [] {
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        return test != nullptr ? test->result()->total_part_count() : 0;
    };
    std::fflush(nullptr);
    const int before = failed_parts(); // the parent's own do not count
    const pid_t pid = fork();
    if (pid == 0) {
        if (__gcov_dump != nullptr)
            std::signal(SIGABRT, [](int) { // back to the default, and on to the abort
                std::signal(SIGABRT, SIG_DFL);
                save_counters();
            });
        int status = body();
        if (failed_parts() != before)
            status = child_had_failures;
        std::fflush(nullptr);
        save_counters();
        _exit(status);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace psptest
