// Open files when the system interrupts, cuts short or refuses: the exact calls of each operation,
// and what is left after a failure.
#include "file_trace.h"
#include "support/fault_test.h"
#include "support/file_test.h"

#include "psp_file_int.h"
#include "pspint.h"

#include <cerrno>
#include <string>
#include <thread>

#include <sys/file.h>
#include <termios.h>

using namespace psptest;

namespace {

using Lines = Trace::Lines;

PSP_HANDLE handle_of(int fd)
{
    return reinterpret_cast<PSP_HANDLE>(static_cast<std::intptr_t>(fd));
}

// A new file of ten bytes.
class FileFault : public FaultTest {
  protected:
    void SetUp() override
    {
        FaultTest::SetUp();
        write_file(path_, "0123456789");
        Handle handle(path_); // the layer's state is there from now on
        ASSERT_NE(handle, nullptr);
    }

    TempDir dir_;
    const std::string path_ = dir_ / "file";
    const PSP_FILE_FCNS& f_ = normal_file_fcns;
};

// ---- The calls of each operation ----

TEST_F(FileFault, EachOperationIsOneCall)
{
    Trace trace;
    char bytes[16];
    PSP_FH handle = psp_fileOpen(path_.c_str(), O_RDWR | O_APPEND | O_CREAT, 0xFFFF);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(trace.take(), Lines{"open file 0x442 0666"});
    psp_fileRead(handle, bytes, 16);
    EXPECT_EQ(trace.take(), Lines{"read file 16"});
    psp_fileWrite(handle, "abc", 3);
    EXPECT_EQ(trace.take(), Lines{"write file 3"});
    psp_fileSeekRead(handle, 7, bytes, 5);
    EXPECT_EQ(trace.take(), Lines{"pread file 5 at 7"});
    psp_fileSeekWrite(handle, 5'000'000'000, "abcd", 4);
    EXPECT_EQ(trace.take(), Lines{"pwrite file 4 at 5000000000"});
    psp_fileSeek(handle, 6, SEEK_SET, nullptr);
    EXPECT_EQ(trace.take(), Lines{"lseek file 6 0"});
    psp_fileSeek(handle, static_cast<PSP_FILE_OFFSET>(-3), SEEK_END, nullptr);
    EXPECT_EQ(trace.take(), Lines{"lseek file -3 2"});
    psp_fileLength(handle);
    EXPECT_EQ(trace.take(), Lines{"fstat file"});
    psp_fileSetSize(handle, 7);
    EXPECT_EQ(trace.take(), Lines{"ftruncate file 7"});
    psp_filePageOut(handle, 4096, 8192);
    EXPECT_EQ(trace.take(), Lines{"posix_fadvise file 4096 8192 4"});
    psp_fileLock(handle);
    EXPECT_EQ(trace.take(), Lines{"flock file 6"});
    psp_fileUnlock(handle);
    EXPECT_EQ(trace.take(), Lines{"flock file 12"});
    EXPECT_EQ(handle->fcns->punch_hole(handle->handle, 1, 2), sOKAY);
    EXPECT_EQ(trace.take(), Lines{"fallocate file 3 1 2"});
    psp_fileClose(handle);
    EXPECT_EQ(trace.take(), Lines{"close file"});
    handle = psp_fileOpen(path_.c_str(), O_RDWR, 0); // now without the extra flag
    trace.take();
    psp_fileSync(handle);
    EXPECT_EQ(trace.take(), Lines{"fsync file"});
    psp_fileClose(handle);
    EXPECT_EQ(POSIX_FADV_DONTNEED, 4);
    EXPECT_EQ(LOCK_EX | LOCK_NB, 6);
    EXPECT_EQ(LOCK_UN | LOCK_NB, 12);
}

TEST_F(FileFault, OpeningToEmptyAFileCreatesIt)
{
    Trace trace;
    Handle(dir_ / "new", O_WRONLY | O_TRUNC);
    EXPECT_EQ(trace.take(), (Lines{"open new 0x241 0666", "close new"}));
    Handle(path_, O_RDONLY);
    EXPECT_EQ(trace.take(), (Lines{"open file 0x0 00", "close file"}));
}

TEST_F(FileFault, StandardStreamsAreNeitherOpenedNorClosed)
{
    Trace trace;
    for (const char* name : {"stdin", "stdOUT", "stderr"}) {
        const Handle handle(name, O_RDWR | O_TRUNC);
        ASSERT_NE(handle, nullptr);
        psp_filePageOut(handle, 0, 10);
        psp_fileConsoleWrite(handle, "x", 1);
    }
    EXPECT_EQ(trace.take(), Lines());
}

TEST_F(FileFault, WhatAGuardRefusesDoesNotReachTheSystem)
{
    const Handle read_only(path_);
    const Handle write_only(path_, O_WRONLY, PSP_XFLAG_NOSYNC);
    char bytes[4];
    void* map;
    Trace trace;
    psp_fileRead(write_only, bytes, 4);
    psp_fileSeekRead(write_only, 0, bytes, 4);
    psp_fileConsoleRead(read_only, bytes, 4);
    psp_fileWrite(read_only, bytes, 4);
    psp_fileSeekWrite(read_only, 0, bytes, 4);
    psp_fileConsoleWrite(write_only, bytes, 4);
    psp_fileSetSize(read_only, 0);
    psp_fileRead(read_only, bytes, 0);
    psp_fileWrite(write_only, bytes, 0);
    psp_fileSeekRead(read_only, 0, bytes, 0);
    psp_fileSeekWrite(write_only, 0, bytes, 0);
    psp_fileSync(write_only);
    psp_filePageOut(read_only, 10, 0);
    psp_fileMap(read_only, 1, &map);
    psp_fileRemap(read_only, 1, nullptr, 2, &map);
    psp_fileUnmap(read_only, 1, nullptr);
    psp_fileUnlock(read_only); // never locked
    EXPECT_EQ(trace.take(), Lines());
}

TEST_F(FileFault, WhatASwitchForbidsDoesNotReachTheSystem)
{
    EXPECT_EQ(run_in_child([this] {
                  const Handle handle(path_, O_RDWR);
                  Trace trace;
                  psp_rdonly();
                  EXPECT_EQ(psp_fileSync(handle), sOKAY);
                  EXPECT_EQ(psp_fileOpen(path_.c_str(), O_RDWR, 0), nullptr);
                  EXPECT_EQ(psp_fileOpen(path_.c_str(), O_TRUNC, 0), nullptr);
                  psp_nodisk();
                  EXPECT_EQ(psp_fileOpen(path_.c_str(), O_RDONLY, 0), nullptr);
                  EXPECT_EQ(trace.take(), Lines());
                  return 0;
              }),
              0);
}

TEST_F(FileFault, PrimitivesCallEvenForNothing)
{
    Trace trace;
    const Handle handle(path_, O_RDWR);
    trace.take();
    std::size_t count = 77;
    EXPECT_EQ(f_.write(handle->handle, "", 0), sOKAY);
    EXPECT_EQ(f_.seek_write(handle->handle, 3, "", 0), sOKAY);
    EXPECT_EQ(f_.read(handle->handle, nullptr, 0, &count), sOKAY);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(trace.take(), (Lines{"write file 0", "pwrite file 0 at 3", "read file 0"}));
    EXPECT_EQ(f_.read(handle->handle, nullptr, 0, nullptr), eINVNULLARG);
    EXPECT_EQ(f_.seek_read(handle->handle, 0, nullptr, 0, nullptr), eINVNULLARG);
    EXPECT_EQ(f_.length(handle->handle, nullptr), eINVNULLARG);
    EXPECT_EQ(trace.take(), Lines());
}

// ---- Interruptions ----

TEST_F(FileFault, NothingElseIsRepeated)
{
    const Handle handle(path_, O_RDWR);
    const auto once = [](const char* name, ZYN_RETCODE expected, auto operation) {
        const Fault fault(name, 1, false, EINTR);
        EXPECT_EQ(operation(), expected) << name;
        EXPECT_EQ(fault.calls(), 1) << name;
        EXPECT_EQ(errno, EINTR) << name;
    };
    const PSP_HANDLE desc = handle->handle;
    PSP_FILE_OFFSET length = 77;
    PSP_HANDLE other = nullptr;
    once("open", ePSP_FAILURE,
         [&] { return f_.open(nullptr, path_.c_str(), O_RDONLY, 0, &other, nullptr); });
    once("lseek", ePSP_FAILURE, [&] { return f_.seek(desc, 0, SEEK_SET, &length); });
    once("fsync", ePSP_FAILURE, [&] { return psp_fileSync(handle); });
    once("ftruncate", ePSP_FAILURE, [&] { return psp_fileSetSize(handle, 3); });
    once("fstat", ePSP_FAILURE, [&] { return f_.length(desc, &length); });
    once("flock", ePSP_FAILURE, [&] { return psp_fileLock(handle); });
    once("close", ePSP_FAILURE, [&] { return f_.close(desc); });
    once("fallocate", sOKAY, [&] { return f_.punch_hole(desc, 0, 1); });
    EXPECT_EQ(length, 77u);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(read_file(path_), "0123456789");
}

// A failure that says nothing: what an earlier call left in errno is no reason.
template <auto real>
struct Silent;
template <class... Args, ssize_t (*real)(Args...)>
struct Silent<real> {
    static ssize_t call(Args...)
    {
        return -1;
    }
};

TEST_F(FileFault, AnOldInterruptionIsNotTakenForANewOne)
{
    Fault::replace("read", Silent<__real_read>::call);
    Fault::replace("write", Silent<__real_write>::call);
    Fault::replace("pread", Silent<__real_pread>::call);
    Fault::replace("pwrite", Silent<__real_pwrite>::call);
    const Handle handle(path_, O_RDWR);
    char bytes[4];
    std::size_t count = 0;
    errno = EINTR;
    EXPECT_EQ(f_.read(handle->handle, bytes, 4, &count), eBADREAD);
    errno = EINTR;
    EXPECT_EQ(f_.write(handle->handle, bytes, 4), eBADWRITE);
    errno = EINTR;
    EXPECT_EQ(f_.seek_read(handle->handle, 0, bytes, 4, &count), eBADREAD);
    errno = EINTR;
    EXPECT_EQ(f_.seek_write(handle->handle, 0, bytes, 4), eBADWRITE);
}

// ---- Short transfers ----

TEST_F(FileFault, ShortWritesGoOn)
{
    const Handle handle(path_, O_RDWR);
    Trace trace;
    Fault::shorten_nth("write", 1, 3, true);
    EXPECT_EQ(psp_fileWrite(handle, "abcdefgh", 8), 8u);
    EXPECT_EQ(trace.take(), (Lines{"write ? 3", "write ? 3", "write ? 2"}));
    EXPECT_EQ(read_file(path_), "abcdefgh89");
    Fault::shorten_nth("pwrite", 1, 3, true);
    EXPECT_EQ(psp_fileSeekWrite(handle, 1, "12345678", 8), 8u);
    EXPECT_EQ(trace.take(), (Lines{"pwrite ? 3 at 1", "pwrite ? 3 at 4", "pwrite ? 2 at 7"}));
    EXPECT_EQ(read_file(path_), "a123456789"); // 'a', then eight digits, then the old last
}

TEST_F(FileFault, CountsOfReadsHave32Bits)
{
    static ssize_t result;
    Fault::replace(
        "read", +[](int, void*, std::size_t) { return result; });
    Fault::replace(
        "pread", +[](int, void*, std::size_t, off_t) { return result; });
    const Handle handle(path_);
    const struct {
        ssize_t result;
        std::size_t count;
    } rows[] = {
        {0x7FFFF000, 0x7FFFF000},
        {0x80000000, 0x80000000},
        {0xFFFFFFFE, 0xFFFFFFFE},
        {0x100000005, 5},
    };
    for (const auto& row : rows) {
        result = row.result;
        std::size_t count = 77;
        EXPECT_EQ(f_.read(handle->handle, nullptr, 1, &count), sOKAY);
        EXPECT_EQ(count, row.count);
        EXPECT_EQ(f_.seek_read(handle->handle, 0, nullptr, 1, &count), sOKAY);
        EXPECT_EQ(count, row.count);
    }
    result = 0xFFFFFFFF; // -1 in 32 bits
    std::size_t count = 77;
    EXPECT_EQ(f_.read(handle->handle, nullptr, 1, &count), eBADREAD);
    EXPECT_EQ(f_.seek_read(handle->handle, 0, nullptr, 1, &count), eBADREAD);
}

// ---- Failures ----

template <int fd>
int opened_as(const char*, int, ...)
{
    return fd;
}

TEST_F(FileFault, DescriptorZeroIsNotClosed)
{
    Fault::replace("open", opened_as<0>);
    const PSP_FH handle = psp_fileOpen(path_.c_str(), O_RDWR, 0);
    ASSERT_NE(handle, nullptr);
    Fault::replace("open", opened_as<9999>);
    const PSP_FH other = psp_fileOpen(path_.c_str(), O_RDWR, 0);
    ASSERT_NE(other, nullptr);
    const Fault closing("close");
    psp_fileClose(handle);
    EXPECT_EQ(closing.calls(), 0);
    psp_fileClose(other);
    EXPECT_EQ(closing.calls(), 1);
}

TEST_F(FileFault, EchoIsSetOnATerminalOnly)
{
    static int is_terminal;
    static termios modes;
    static Lines calls;
    Fault::replace(
        "isatty", +[](int) { return is_terminal; });
    Fault::replace(
        "tcgetattr", +[](int fd, termios* out) {
            calls.push_back("get " + std::to_string(fd));
            *out = modes;
            return 0;
        });
    Fault::replace(
        "tcsetattr", +[](int fd, int how, const termios* in) {
            calls.push_back("set " + std::to_string(fd) + (how == TCSAFLUSH ? " flush" : " ?"));
            modes = *in;
            return 0;
        });
    calls.clear();
    modes.c_lflag = ECHO | ICANON;
    for (const int result : {0, 2, -1}) {
        is_terminal = result;
        EXPECT_EQ(f_.set_echo(handle_of(5), ZYN_FALSE), sOKAY);
    }
    EXPECT_EQ(calls, Lines());
    is_terminal = 1;
    EXPECT_EQ(f_.set_echo(handle_of(5), ZYN_FALSE), sOKAY);
    EXPECT_EQ(calls, (Lines{"get 5", "set 5 flush"}));
    EXPECT_EQ(modes.c_lflag, static_cast<tcflag_t>(ICANON));
    EXPECT_EQ(f_.set_echo(handle_of(5), ZYN_TRUE), sOKAY);
    EXPECT_EQ(modes.c_lflag, static_cast<tcflag_t>(ICANON | ECHO));
    EXPECT_EQ(f_.set_echo(handle_of(5), -1), sOKAY);
    EXPECT_EQ(modes.c_lflag, static_cast<tcflag_t>(ICANON));

    calls.clear();
    const Fault reading("tcgetattr", 1, true);
    const Fault writing("tcsetattr", 1, true);
    EXPECT_EQ(f_.set_echo(handle_of(5), ZYN_TRUE), sOKAY);
    EXPECT_EQ(reading.failures() + writing.failures(), 2) << "both are tried, neither counts";
    calls.clear();
    calls.shrink_to_fit();
}

TEST_F(FileFault, IsTtyGivesTheSystemsAnswer)
{
    for (const int answer : {0, 1}) {
        static int result;
        result = answer;
        Fault::replace(
            "isatty", +[](int) { return result; });
        ZYN_BOOL_T is_tty = 7;
        EXPECT_EQ(f_.is_tty(handle_of(5), &is_tty), sOKAY);
        EXPECT_EQ(is_tty, answer);
    }
}

// ---- Locking ----

TEST_F(FileFault, LockingWithoutAMutexFails)
{
    const Handle handle(path_);
    {
        const Fault mutex("psp_syncCreate_check", 1, false);
        const Fault lock("flock");
        EXPECT_EQ(psp_fileLock(handle), ePSP_MUTEX_FAILURE);
        EXPECT_EQ(handle->lock, PSP_SEM_INVALID);
        EXPECT_EQ(lock.calls(), 0);
    }
    EXPECT_EQ(psp_fileLock(handle), sOKAY) << "the next call tries again";
}

TEST_F(FileFault, ARefusedLockLeavesTheMutexFree)
{
    const Handle handle(path_);
    {
        const Fault lock("flock", 1, false, EWOULDBLOCK);
        EXPECT_EQ(psp_fileLock(handle), ePSP_FAILURE);
    }
    ZYN_RETCODE rc = eEOD;
    std::thread other([&] {
        rc = psp_fileLock(handle);
        psp_fileUnlock(handle);
    });
    other.join();
    EXPECT_EQ(rc, sOKAY);
}

TEST_F(FileFault, OneMutexServesAllLocksOfAHandle)
{
    const Fault mutex("psp_syncCreate_check");
    const Handle handle(path_);
    EXPECT_EQ(mutex.calls(), 0);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(psp_fileLock(handle), sOKAY);
        psp_fileUnlock(handle);
    }
    EXPECT_EQ(mutex.calls(), 1);
}

// ---- Memory ----

TEST_F(FileFault, OpeningSurvivesEveryRefusedAllocation)
{
    const std::size_t descriptors = open_descriptors();
    const int refused = fail_every_call("tag_alloc", false, [&](const Fault& fault, int n) {
        const PSP_FH handle = psp_fileOpen(path_.c_str(), O_RDWR, 0);
        EXPECT_EQ(handle == nullptr, fault.failures() > 0) << n;
        psp_fileClose(handle);
        EXPECT_EQ(open_descriptors(), descriptors) << n;
    });
    EXPECT_EQ(refused, 2); // the record and the name
    for (const int n : {1, 2})
        expect_no_growth([&] {
            const Fault fault("tag_alloc", n);
            EXPECT_EQ(psp_fileOpen(path_.c_str(), O_RDWR, 0), nullptr);
        });
}

// The first handle of all, for which the layer's state is made. A whole start of the library opens
// standard output already; here only what lies below the file layer is started.
class FirstFile : public RawTest {
  protected:
    static void start()
    {
        psp_inited = 1;
        psp_syncInit();
        ASSERT_EQ(psp_memInit(), sOKAY);
        ASSERT_EQ(psp_globalInit(), sOKAY);
    }
    static void stop()
    {
        psp_terminating = 1;
        psp_globalTerm();
        psp_syncShutdown();
        psp_memTerm();
        psp_terminating = 0;
        psp_inited = 0;
        EXPECT_EQ(memory_in_use(), 0u);
    }
    // The number of calls that the opening makes; each has been made to fail.
    int fail_each(const char* name, bool forever)
    {
        for (int n = 1;; n++) {
            start();
            Fault fault(name, n, forever);
            const PSP_FH handle = psp_fileOpen(path_.c_str(), O_RDWR | O_CREAT, 0);
            const int failures = fault.failures();
            EXPECT_EQ(handle == nullptr, failures > 0) << name << " " << n;
            fault.disarm();
            psp_fileClose(handle);
            EXPECT_NE(Handle(path_, O_RDWR | O_CREAT), nullptr) << name << " " << n;
            stop();
            if (failures == 0)
                return n - 1;
        }
    }

    TempDir dir_;
    const std::string path_ = dir_ / "file";
};

TEST_F(FirstFile, SurvivesEveryRefusedAllocation)
{
    // The registry's list, the state, its name, the tag's allocator, the record, the file's name.
    EXPECT_EQ(fail_each("tag_alloc", false), 6);
    EXPECT_EQ(fail_each("tag_alloc", true), 6);
}

TEST_F(FirstFile, NeedsTheLayersTag)
{
    EXPECT_EQ(fail_each("psp_createTagEx_rc", false), 1);
}

TEST_F(FirstFile, OpensWithATagThatGotNoMutex)
{
    start();
    const Fault fault("psp_syncCreate_check", 1);
    EXPECT_NE(Handle(path_, O_RDWR | O_CREAT), nullptr);
    EXPECT_EQ(fault.failures(), 1);
    stop();
}

} // namespace
