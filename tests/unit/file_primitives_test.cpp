// The primitives of open files, one by one, and the two tables that gather them.
#include "support/file_test.h"

#include "psp_file_int.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <string>

#include <sys/time.h>
#include <termios.h>

using namespace psptest;

namespace {

PSP_HANDLE handle_of(int fd)
{
    return reinterpret_cast<PSP_HANDLE>(static_cast<std::intptr_t>(fd));
}

int fd_of(PSP_HANDLE handle)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(handle));
}

// ---- The tables ----

struct Slot {
    const char* name;
    std::size_t offset;
    bool in_stdio;
    bool in_normal;
};

// clang-format off
#define SLOT(name, in_stdio, in_normal) {#name, offsetof(PSP_FILE_FCNS, name), in_stdio, in_normal}
constexpr Slot slots[] = {
    SLOT(open,          true,  true),
    SLOT(close,         false, true),
    SLOT(seek,          true,  true),
    SLOT(read,          true,  true),
    SLOT(write,         true,  true),
    SLOT(console_read,  true,  false),
    SLOT(console_write, true,  false),
    SLOT(seek_read,     true,  true),
    SLOT(seek_write,    true,  true),
    SLOT(page_out,      false, true),
    SLOT(punch_hole,    false, true),
    SLOT(length,        true,  true),
    SLOT(set_size,      true,  true),
    SLOT(sync,          true,  true),
    SLOT(map,           false, true),
    SLOT(remap,         false, true),
    SLOT(unmap,         false, true),
    SLOT(is_tty,        true,  true),
    SLOT(set_echo,      true,  true),
    SLOT(lock,          true,  true),
    SLOT(unlock,        true,  true),
};
#undef SLOT
// clang-format on

std::uintptr_t function_at(const PSP_FILE_FCNS& table, std::size_t offset)
{
    std::uintptr_t function;
    std::memcpy(&function, reinterpret_cast<const char*>(&table) + offset, sizeof function);
    return function;
}

TEST(FileTables, HoldTwentyOneFunctionsInAFixedOrder)
{
    ASSERT_EQ(std::size(slots), 21u);
    EXPECT_EQ(sizeof(PSP_FILE_FCNS), 21 * sizeof(void*));
    for (std::size_t i = 0; i < std::size(slots); i++)
        EXPECT_EQ(slots[i].offset, i * sizeof(void*)) << slots[i].name;
}

TEST(FileTables, AreFilledWhereTheKindOfFileHasTheOperation)
{
    for (const Slot& slot : slots) {
        EXPECT_EQ(function_at(stdio_file_fcns, slot.offset) != 0, slot.in_stdio) << slot.name;
        EXPECT_EQ(function_at(normal_file_fcns, slot.offset) != 0, slot.in_normal) << slot.name;
    }
}

TEST(FileTables, ShareAllFunctionsOfBothButOpen)
{
    for (const Slot& slot : slots) {
        if (!slot.in_stdio || !slot.in_normal)
            continue;
        const bool same =
            function_at(stdio_file_fcns, slot.offset) == function_at(normal_file_fcns, slot.offset);
        EXPECT_EQ(same, std::strcmp(slot.name, "open") != 0) << slot.name;
    }
}

TEST(FileTables, TellTheMappingsAndTheConsoleToBeMissing)
{
    void* map = &map;
    EXPECT_EQ(normal_file_fcns.map(handle_of(0), 10, &map), eNOTIMPLEMENTED);
    EXPECT_EQ(normal_file_fcns.remap(handle_of(0), 10, nullptr, 20, &map), eNOTIMPLEMENTED);
    EXPECT_EQ(normal_file_fcns.unmap(handle_of(0), 10, nullptr), eNOTIMPLEMENTED);
    EXPECT_EQ(map, &map);
    char byte = 'x';
    std::size_t count = 77;
    EXPECT_EQ(stdio_file_fcns.console_read(handle_of(0), &byte, 1, &count), eNOTIMPLEMENTED);
    EXPECT_EQ(stdio_file_fcns.console_write(handle_of(1), "y", 1), eNOTIMPLEMENTED);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(count, 77u);
}

// ---- The names of the standard streams ----

TEST(StandardNames, StartInLowerCaseAndGoOnInEither)
{
    const struct {
        const char* name;
        PSP_STD_HANDLE type;
    } known[] = {
        {"stdin", PSP_STD_HANDLE_IN},   {"stdIN", PSP_STD_HANDLE_IN},
        {"stdiN", PSP_STD_HANDLE_IN},   {"stdout", PSP_STD_HANDLE_OUT},
        {"stdOUT", PSP_STD_HANDLE_OUT}, {"stdOut", PSP_STD_HANDLE_OUT},
        {"stderr", PSP_STD_HANDLE_ERR}, {"stdERR", PSP_STD_HANDLE_ERR},
    };
    for (const auto& row : known) {
        auto type = static_cast<PSP_STD_HANDLE>(3);
        EXPECT_EQ(check_for_stdio(row.name, &type), ZYN_TRUE) << row.name;
        EXPECT_EQ(type, row.type) << row.name;
        EXPECT_EQ(check_for_stdio(row.name, nullptr), ZYN_TRUE) << row.name;
    }
    EXPECT_EQ(int{PSP_STD_HANDLE_IN}, STDIN_FILENO);
    EXPECT_EQ(int{PSP_STD_HANDLE_OUT}, STDOUT_FILENO);
    EXPECT_EQ(int{PSP_STD_HANDLE_ERR}, STDERR_FILENO);
}

TEST(StandardNames, AreNoOthers)
{
    for (const char* name :
         {"", "s", "st", "std", "stdi", "stdinn", "stdin ", " stdin", "stdout1", "stdlog", "STDIN",
          "STDOUT", "STDERR", "Stdin", "sTdout", "stDerr", "./stdin", "/dev/stdout", "std/in"}) {
        auto type = static_cast<PSP_STD_HANDLE>(3);
        EXPECT_EQ(check_for_stdio(name, &type), ZYN_FALSE) << name;
        EXPECT_EQ(static_cast<int>(type), 3) << name;
        EXPECT_EQ(check_for_stdio(name, nullptr), ZYN_FALSE) << name;
    }
    EXPECT_EQ(check_for_stdio(nullptr, nullptr), ZYN_FALSE);
}

// ---- Opening and closing ----

// A new directory, and a descriptor for a file in it.
class Primitive : public RawTest {
  protected:
    PSP_HANDLE open_file(const char* contents, int flags = O_RDWR)
    {
        path_ = dir_ / "file";
        write_file(path_, contents);
        fd_ = open(path_.c_str(), flags);
        EXPECT_GE(fd_, 0);
        return handle_of(fd_);
    }
    void TearDown() override
    {
        if (fd_ >= 0)
            close(fd_);
        RawTest::TearDown();
    }

    TempDir dir_;
    std::string path_;
    int fd_ = -1;
    const PSP_FILE_FCNS& f_ = normal_file_fcns;
};

TEST_F(Primitive, OpenGivesADescriptorAndNoConsole)
{
    const std::string path = dir_ / "made";
    PSP_HANDLE handle = nullptr;
    ZYN_BOOL_T console = 7;
    // Context and extra flags have no effect.
    ASSERT_EQ(f_.open(this, path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0xFFFF, &handle, &console),
              sOKAY);
    EXPECT_EQ(console, ZYN_FALSE);
    EXPECT_NE(fcntl(fd_of(handle), F_GETFD), -1);
    EXPECT_EQ(f_.close(handle), sOKAY);
    EXPECT_EQ(fcntl(fd_of(handle), F_GETFD), -1);

    ASSERT_EQ(f_.open(nullptr, path.c_str(), O_RDONLY, 0, &handle, nullptr), sOKAY);
    EXPECT_EQ(f_.close(handle), sOKAY);
    EXPECT_EQ(f_.close(handle), ePSP_FAILURE);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Primitive, OpenPassesTheFlagsOnAndCreatesFilesOfMode666)
{
    const std::string path = dir_ / "made";
    PSP_HANDLE handle = nullptr;
    const mode_t before = umask(0);
    EXPECT_EQ(f_.open(nullptr, path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0, &handle, nullptr),
              sOKAY);
    umask(before);
    struct stat status;
    ASSERT_EQ(fstat(fd_of(handle), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666u);
    EXPECT_EQ(fcntl(fd_of(handle), F_GETFL) & (O_ACCMODE | O_APPEND), O_WRONLY | O_APPEND);
    EXPECT_EQ(f_.close(handle), sOKAY);

    EXPECT_EQ(f_.open(nullptr, path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0, &handle, nullptr),
              ePSP_FAILURE);
    EXPECT_EQ(errno, EEXIST);
}

TEST_F(Primitive, OpenFails)
{
    const std::string path = dir_ / "none";
    PSP_HANDLE handle = nullptr;
    EXPECT_EQ(f_.open(nullptr, path.c_str(), O_RDONLY, 0, &handle, nullptr), ePSP_FAILURE);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(handle, nullptr);
    ZYN_BOOL_T console = 7;
    EXPECT_EQ(f_.open(nullptr, path.c_str(), O_RDWR | O_CREAT, 0, nullptr, &console), eINVNULLARG);
    EXPECT_FALSE(file_exists(path)) << "refused before the file was made";
}

TEST_F(Primitive, OpenOfAStandardStreamBorrowsTheDescriptor)
{
    const std::size_t before = open_descriptors();
    const char* const names[] = {"stdin", "stdOUT", "stderr"};
    for (int fd = 0; fd < 3; fd++) {
        PSP_HANDLE handle = handle_of(77);
        ZYN_BOOL_T console = 7;
        EXPECT_EQ(stdio_file_fcns.open(nullptr, names[fd], O_RDWR, 0, &handle, &console), sOKAY);
        EXPECT_EQ(fd_of(handle), fd);
        EXPECT_EQ(console, ZYN_FALSE);
        EXPECT_EQ(stdio_file_fcns.open(nullptr, names[fd], 0, 0, &handle, nullptr), sOKAY);
    }
    EXPECT_EQ(open_descriptors(), before);
    PSP_HANDLE handle = nullptr;
    EXPECT_EQ(stdio_file_fcns.open(nullptr, "STDIN", 0, 0, &handle, nullptr), ePSP_FAILURE);
    EXPECT_EQ(stdio_file_fcns.open(nullptr, "file", O_CREAT, 0, &handle, nullptr), ePSP_FAILURE);
    EXPECT_EQ(stdio_file_fcns.open(nullptr, "stdin", 0, 0, nullptr, nullptr), eINVNULLARG);
    EXPECT_EQ(stdio_file_fcns.open(nullptr, "other", 0, 0, nullptr, nullptr), eINVNULLARG);
}

// ---- Transfer ----

TEST_F(Primitive, SeekMovesTheOffset)
{
    const PSP_HANDLE handle = open_file("0123456789");
    PSP_FILE_OFFSET at = 0;
    EXPECT_EQ(f_.seek(handle, 4, SEEK_SET, &at), sOKAY);
    EXPECT_EQ(at, 4u);
    EXPECT_EQ(f_.seek(handle, 3, SEEK_CUR, &at), sOKAY);
    EXPECT_EQ(at, 7u);
    EXPECT_EQ(f_.seek(handle, static_cast<PSP_FILE_OFFSET>(-2), SEEK_CUR, &at), sOKAY);
    EXPECT_EQ(at, 5u);
    EXPECT_EQ(f_.seek(handle, 5'000'000'000, SEEK_END, &at), sOKAY);
    EXPECT_EQ(at, 5'000'000'010u);
    EXPECT_EQ(f_.seek(handle, 9, SEEK_SET, nullptr), sOKAY);
    char byte = 0;
    EXPECT_EQ(read(fd_, &byte, 1), 1);
    EXPECT_EQ(byte, '9');
}

TEST_F(Primitive, SeekFails)
{
    const PSP_HANDLE handle = open_file("0123456789");
    PSP_FILE_OFFSET at = 77;
    EXPECT_EQ(f_.seek(handle, static_cast<PSP_FILE_OFFSET>(-1), SEEK_SET, &at), ePSP_FAILURE);
    EXPECT_EQ(f_.seek(handle, 0, 99, &at), ePSP_FAILURE);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(f_.seek(handle_of(-1), 0, SEEK_SET, &at), ePSP_FAILURE);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(at, 77u);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_EQ(f_.seek(handle_of(fds[0]), 0, SEEK_SET, &at), ePSP_FAILURE);
    EXPECT_EQ(errno, ESPIPE);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(Primitive, ReadGivesWhatThereIs)
{
    const PSP_HANDLE handle = open_file("0123456789");
    char buffer[64] = {};
    std::size_t count = 77;
    EXPECT_EQ(f_.read(handle, buffer, 4, &count), sOKAY);
    EXPECT_EQ(std::string(buffer, count), "0123");
    EXPECT_EQ(f_.read(handle, buffer, sizeof buffer, &count), sOKAY);
    EXPECT_EQ(std::string(buffer, count), "456789");
    EXPECT_EQ(f_.read(handle, buffer, sizeof buffer, &count), sOKAY);
    EXPECT_EQ(count, 0u) << "end of file";
    EXPECT_EQ(f_.read(handle, buffer, 1, nullptr), eINVNULLARG);
    EXPECT_EQ(f_.read(handle_of(-1), buffer, 1, &count), eBADREAD);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Primitive, ReadDoesNotWaitForMoreThanComes)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "abc", 3), 3);
    char buffer[64];
    std::size_t count = 0;
    EXPECT_EQ(f_.read(handle_of(fds[0]), buffer, sizeof buffer, &count), sOKAY);
    EXPECT_EQ(count, 3u);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(Primitive, WriteWritesAtTheOffset)
{
    const PSP_HANDLE handle = open_file("0123456789");
    EXPECT_EQ(f_.write(handle, "ab", 2), sOKAY);
    EXPECT_EQ(f_.write(handle, "cd", 2), sOKAY);
    EXPECT_EQ(f_.write(handle, "", 0), sOKAY);
    EXPECT_EQ(read_file(path_), "abcd456789");
    EXPECT_EQ(f_.write(handle_of(-1), "x", 1), eBADWRITE);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Primitive, TransferAtAnOffsetLeavesTheDescriptorsOwn)
{
    const PSP_HANDLE handle = open_file("0123456789");
    ASSERT_EQ(f_.seek(handle, 1, SEEK_SET, nullptr), sOKAY);
    char buffer[8] = {};
    std::size_t count = 0;
    EXPECT_EQ(f_.seek_read(handle, 7, buffer, sizeof buffer, &count), sOKAY);
    EXPECT_EQ(std::string(buffer, count), "789");
    EXPECT_EQ(f_.seek_read(handle, 10, buffer, sizeof buffer, &count), sOKAY);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(f_.seek_write(handle, 8, "xyz", 3), sOKAY);
    EXPECT_EQ(read_file(path_), "01234567xyz");
    EXPECT_EQ(lseek(fd_, 0, SEEK_CUR), 1);
    EXPECT_EQ(f_.seek_read(handle, 0, buffer, 1, nullptr), eINVNULLARG);
    EXPECT_EQ(f_.seek_read(handle, static_cast<PSP_FILE_OFFSET>(-1), buffer, 1, &count), eBADREAD);
    EXPECT_EQ(f_.seek_write(handle, static_cast<PSP_FILE_OFFSET>(-1), "x", 1), eBADWRITE);
}

TEST_F(Primitive, TransferFailsAgainstTheMode)
{
    char byte = 0;
    std::size_t count = 0;
    const PSP_HANDLE written = open_file("0123456789", O_WRONLY);
    EXPECT_EQ(f_.read(written, &byte, 1, &count), eBADREAD);
    EXPECT_EQ(f_.seek_read(written, 0, &byte, 1, &count), eBADREAD);
    close(fd_);
    const PSP_HANDLE read_only = open_file("0123456789", O_RDONLY);
    EXPECT_EQ(f_.write(read_only, "x", 1), eBADWRITE);
    EXPECT_EQ(f_.seek_write(read_only, 0, "x", 1), eBADWRITE);
    EXPECT_EQ(f_.set_size(read_only, 1), ePSP_FAILURE);
    EXPECT_EQ(read_file(path_), "0123456789");
}

// The signal's first arrivals interrupt a read that has nothing to read; a later one feeds it.
volatile std::sig_atomic_t arrivals = 0;
int feed = -1;

void on_alarm(int)
{
    arrivals = arrivals + 1;
    if (arrivals == 3 && write(feed, "!", 1) != 1)
        arrivals = -1000;
}

TEST_F(Primitive, ReadGoesOnAfterASignal)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    feed = fds[1];
    arrivals = 0;
    struct sigaction action = {};
    struct sigaction before;
    action.sa_handler = on_alarm; // without SA_RESTART
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    const itimerval every = {{0, 5000}, {0, 5000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    char byte = 0;
    std::size_t count = 0;
    EXPECT_EQ(f_.read(handle_of(fds[0]), &byte, 1, &count), sOKAY);
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(byte, '!');
    EXPECT_GE(arrivals, 3);
    close(fds[0]);
    close(fds[1]);
}

// ---- Storage ----

TEST_F(Primitive, LengthAndSetSizeTellAndChangeTheSize)
{
    const PSP_HANDLE handle = open_file("0123456789");
    PSP_FILE_OFFSET length = 77;
    EXPECT_EQ(f_.length(handle, &length), sOKAY);
    EXPECT_EQ(length, 10u);
    EXPECT_EQ(f_.set_size(handle, 4), sOKAY);
    EXPECT_EQ(read_file(path_), "0123");
    EXPECT_EQ(f_.set_size(handle, 6), sOKAY);
    EXPECT_EQ(read_file(path_), std::string("0123\0\0", 6));
    EXPECT_EQ(f_.set_size(handle, 5'000'000'000), sOKAY);
    EXPECT_EQ(f_.length(handle, &length), sOKAY);
    EXPECT_EQ(length, 5'000'000'000u);
    EXPECT_EQ(f_.set_size(handle, 0), sOKAY);
    EXPECT_EQ(f_.length(handle, &length), sOKAY);
    EXPECT_EQ(length, 0u);

    EXPECT_EQ(f_.length(handle, nullptr), eINVNULLARG);
    EXPECT_EQ(f_.length(handle_of(-1), &length), ePSP_FAILURE);
    EXPECT_EQ(f_.set_size(handle_of(-1), 1), ePSP_FAILURE);
    EXPECT_EQ(f_.set_size(handle, static_cast<PSP_FILE_OFFSET>(-1)), ePSP_FAILURE);
}

TEST_F(Primitive, SyncFailsOnlyWithTheSystem)
{
    const PSP_HANDLE handle = open_file("0123456789");
    EXPECT_EQ(f_.sync(handle), sOKAY);
    EXPECT_EQ(f_.sync(handle_of(-1)), ePSP_FAILURE);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Primitive, PunchedHolesKeepTheLengthAndReadAsZero)
{
    open_file("");
    const PSP_HANDLE handle = handle_of(fd_);
    ASSERT_EQ(f_.write(handle, std::string(16384, 'x').data(), 16384), sOKAY);
    EXPECT_EQ(f_.punch_hole(handle, 4096, 8192), sOKAY);
    const std::string contents = read_file(path_);
    ASSERT_EQ(contents.size(), 16384u);
    EXPECT_EQ(contents.substr(0, 4096), std::string(4096, 'x'));
    // The file system may not have holes; then the bytes are as before.
    if (contents[4096] == '\0') {
        EXPECT_EQ(contents.substr(4096, 8192), std::string(8192, '\0'));
    }
    EXPECT_EQ(contents.substr(12288), std::string(4096, 'x'));
}

TEST_F(Primitive, AdviceNeverFails)
{
    const PSP_HANDLE handle = open_file("0123456789");
    EXPECT_EQ(f_.page_out(handle, 0, 10), sOKAY);
    EXPECT_EQ(f_.page_out(handle_of(-1), 0, 10), sOKAY);
    EXPECT_EQ(f_.punch_hole(handle_of(-1), 0, 10), sOKAY);
    EXPECT_EQ(f_.punch_hole(handle, 0, 0), sOKAY);
    EXPECT_EQ(read_file(path_), "0123456789");
}

// ---- Terminals ----

// Both ends of a new terminal; `inner` is -1 where there are no terminals.
struct Terminal {
    Terminal() : outer(posix_openpt(O_RDWR | O_NOCTTY))
    {
        if (outer < 0 || grantpt(outer) != 0 || unlockpt(outer) != 0)
            return;
        char name[64];
        if (ptsname_r(outer, name, sizeof name) == 0)
            inner = open(name, O_RDWR | O_NOCTTY);
    }
    ~Terminal()
    {
        if (inner >= 0)
            close(inner);
        if (outer >= 0)
            close(outer);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    tcflag_t local_modes() const
    {
        termios modes = {};
        EXPECT_EQ(tcgetattr(inner, &modes), 0);
        return modes.c_lflag;
    }

    int outer;
    int inner = -1;
};

TEST_F(Primitive, IsTtyTellsATerminal)
{
    ZYN_BOOL_T is_tty = 7;
    EXPECT_EQ(f_.is_tty(open_file(""), &is_tty), sOKAY);
    EXPECT_EQ(is_tty, 0);
    is_tty = 7;
    EXPECT_EQ(f_.is_tty(handle_of(-1), &is_tty), sOKAY);
    EXPECT_EQ(is_tty, 0);
    const Terminal terminal;
    if (terminal.inner < 0)
        GTEST_SKIP() << "no terminals here";
    EXPECT_EQ(f_.is_tty(handle_of(terminal.inner), &is_tty), sOKAY);
    EXPECT_EQ(is_tty, 1);
}

TEST_F(Primitive, SetEchoChangesOneBitOfATerminal)
{
    const Terminal terminal;
    if (terminal.inner < 0)
        GTEST_SKIP() << "no terminals here";
    const PSP_HANDLE handle = handle_of(terminal.inner);
    const tcflag_t before = terminal.local_modes() | static_cast<tcflag_t>(ECHO);
    const tcflag_t without = before & ~static_cast<tcflag_t>(ECHO);
    EXPECT_EQ(f_.set_echo(handle, ZYN_FALSE), sOKAY);
    EXPECT_EQ(terminal.local_modes(), without);
    EXPECT_EQ(f_.set_echo(handle, ZYN_TRUE), sOKAY);
    EXPECT_EQ(terminal.local_modes(), before);
    EXPECT_EQ(f_.set_echo(handle, 2), sOKAY) << "neither true nor false";
    EXPECT_EQ(terminal.local_modes(), without);
}

TEST_F(Primitive, SetEchoLeavesOtherFilesAlone)
{
    EXPECT_EQ(f_.set_echo(open_file("text"), ZYN_FALSE), sOKAY);
    EXPECT_EQ(f_.set_echo(handle_of(-1), ZYN_TRUE), sOKAY);
    EXPECT_EQ(read_file(path_), "text");
}

// ---- Locking ----

TEST_F(Primitive, LockIsExclusiveBetweenOpenFilesAndNeverWaits)
{
    const PSP_HANDLE handle = open_file("");
    const int other = open(path_.c_str(), O_RDONLY);
    ASSERT_GE(other, 0);
    EXPECT_EQ(f_.lock(handle), sOKAY);
    EXPECT_EQ(f_.lock(handle), sOKAY) << "held already";
    EXPECT_EQ(f_.lock(handle_of(other)), ePSP_FAILURE);
    EXPECT_EQ(errno, EWOULDBLOCK);
    f_.unlock(handle_of(other)); // holds nothing
    EXPECT_EQ(f_.lock(handle_of(other)), ePSP_FAILURE);
    f_.unlock(handle);
    EXPECT_EQ(f_.lock(handle_of(other)), sOKAY);
    EXPECT_EQ(f_.lock(handle), ePSP_FAILURE);
    close(other);
    EXPECT_EQ(f_.lock(handle), sOKAY) << "closing gives it up";
    EXPECT_EQ(f_.lock(handle_of(-1)), ePSP_FAILURE);
    f_.unlock(handle_of(-1));
}

} // namespace
