// File handles as a caller of the shared library sees them.
#include "support/file_test.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace psptest;

namespace {

class FileHandle : public PspTest {
  protected:
    void SetUp() override
    {
        PspTest::SetUp();
        write_file(path_, "0123456789");
    }

    TempDir dir_;
    const std::string path_ = dir_ / "file";
};

// Reads all that a handle still has, in pieces.
std::string read_rest(PSP_FH handle)
{
    std::string text;
    char part[7];
    while (const std::uint32_t count = psp_fileRead(handle, part, sizeof part))
        text.append(part, count);
    return text;
}

// ---- Opening ----

TEST_F(FileHandle, OpensWithTheSystemsFlags)
{
    EXPECT_NE(Handle(path_), nullptr);
    EXPECT_NE(Handle(dir_ / "new", O_WRONLY | O_CREAT | O_EXCL), nullptr);
    EXPECT_EQ(read_file(dir_ / "new"), "");
    {
        const Handle handle(path_, O_WRONLY | O_APPEND);
        EXPECT_EQ(psp_fileWrite(handle, "ab", 2), 2u);
        EXPECT_EQ(psp_fileSeek(handle, 0, SEEK_SET, nullptr), sOKAY);
        EXPECT_EQ(psp_fileWrite(handle, "cd", 2), 2u);
    }
    EXPECT_EQ(read_file(path_), "0123456789abcd");
    {
        const Handle handle(path_, O_RDWR | O_CREAT);
        EXPECT_EQ(psp_fileLength(handle), 14u) << "opening to create leaves what is there";
    }
    EXPECT_NE(Handle(path_, O_RDWR | O_TRUNC), nullptr);
    EXPECT_EQ(read_file(path_), "");
}

TEST_F(FileHandle, IsNullWhenTheSystemRefuses)
{
    const struct {
        std::string name;
        std::uint32_t flags;
        int error;
    } rows[] = {
        {dir_ / "none", O_RDONLY, ENOENT},     {dir_ / "none/below", O_RDWR | O_CREAT, ENOENT},
        {path_ + "/below", O_RDONLY, ENOTDIR}, {path_, O_RDWR | O_CREAT | O_EXCL, EEXIST},
        {dir_.path(), O_RDWR, EISDIR},         {"", O_RDONLY, ENOENT},
    };
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_EQ(psp_fileOpen(row.name.c_str(), row.flags, 0), nullptr) << row.name;
        EXPECT_EQ(psp_errno(), row.error) << row.name;
    }
    EXPECT_EQ(psp_fileOpen(nullptr, O_RDONLY, 0), nullptr);
    ZYN_BOOL_T console = 7;
    EXPECT_EQ(psp_fileOpenStd(nullptr, O_RDONLY, 0, &console), nullptr);
}

TEST_F(FileHandle, OpenedToBeEmptiedIsCreatedWhenMissing)
{
    EXPECT_NE(Handle(dir_ / "new", O_RDWR | O_TRUNC), nullptr);
    EXPECT_EQ(read_file(dir_ / "new"), "");
}

TEST_F(FileHandle, CreatesFilesOfMode666LessTheUmask)
{
    const mode_t before = umask(027);
    const Handle handle(dir_ / "new", O_RDWR | O_CREAT);
    umask(before);
    struct stat status;
    ASSERT_EQ(stat((dir_ / "new").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(FileHandle, IsNeverAConsole)
{
    for (const char* name : {path_.c_str(), "stdout"}) {
        ZYN_BOOL_T console = 7;
        const PSP_FH handle = psp_fileOpenStd(name, O_RDWR, 0, &console);
        EXPECT_NE(handle, nullptr);
        EXPECT_EQ(console, ZYN_FALSE);
        psp_fileClose(handle);
    }
}

TEST_F(FileHandle, KeepsItsOwnOffset)
{
    const Handle first(path_);
    const Handle second(path_);
    char bytes[4];
    EXPECT_EQ(psp_fileRead(first, bytes, 4), 4u);
    EXPECT_EQ(read_rest(first), "456789");
    EXPECT_EQ(read_rest(second), "0123456789");
}

TEST_F(FileHandle, IsLimitedByTheSystemOnly)
{
    const std::size_t before = open_descriptors();
    std::vector<std::unique_ptr<Handle>> handles;
    for (int i = 0; i < 300; i++) {
        handles.push_back(std::make_unique<Handle>(path_));
        ASSERT_NE(*handles.back(), nullptr);
    }
    EXPECT_EQ(open_descriptors(), before + 300);
    handles.clear();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileHandle, TakesNothingForGood)
{
    expect_no_growth([&] {
        Handle(path_, O_RDWR);
        Handle(dir_ / "none");
        Handle(dir_ / std::string(200, 'n'));
        Handle("stdin");
    });
}

// ---- Closing ----

TEST_F(FileHandle, ClosingLeavesErrnoAlone)
{
    for (const char* name : {path_.c_str(), "stderr"}) {
        const PSP_FH handle = psp_fileOpen(name, O_RDWR, 0);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(psp_fileLock(handle), sOKAY);
        errno = 1234;
        psp_fileClose(handle);
        EXPECT_EQ(errno, 1234);
    }
    psp_fileClose(nullptr);
    EXPECT_EQ(errno, 1234);
}

TEST_F(FileHandle, ClosingAStandardStreamLeavesItOpen)
{
    CapturedFd captured(2);
    {
        const Handle handle("stderr", O_WRONLY);
        EXPECT_EQ(psp_fileWrite(handle, "one ", 4), 4u);
    }
    EXPECT_NE(fcntl(2, F_GETFD), -1);
    {
        const Handle handle("stdERR", O_WRONLY);
        EXPECT_EQ(psp_fileWrite(handle, "two", 3), 3u);
    }
    EXPECT_EQ(captured.finish(), "one two");
}

TEST_F(FileHandle, DescriptorZeroStaysOpenWhateverItIs)
{
    EXPECT_EQ(run_in_child([this] {
                  close(0);
                  {
                      const Handle handle(path_); // becomes descriptor 0
                      EXPECT_EQ(read_rest(handle), "0123456789");
                  }
                  char byte;
                  EXPECT_EQ(pread(0, &byte, 1, 3), 1);
                  EXPECT_EQ(byte, '3');
                  return 0;
              }),
              0);
}

// ---- Transfer ----

TEST_F(FileHandle, ReadsAndWritesAtItsOffset)
{
    const Handle handle(path_, O_RDWR);
    char bytes[64] = {};
    EXPECT_EQ(psp_fileRead(handle, bytes, 3), 3u);
    EXPECT_EQ(std::string(bytes, 3), "012");
    EXPECT_EQ(psp_fileWrite(handle, "abc", 3), 3u);
    EXPECT_EQ(psp_fileRead(handle, bytes, sizeof bytes), 4u);
    EXPECT_EQ(std::string(bytes, 4), "6789");
    EXPECT_EQ(psp_fileRead(handle, bytes, sizeof bytes), 0u);
    EXPECT_EQ(read_file(path_), "012abc6789");
}

TEST_F(FileHandle, ReadsAndWritesAtAnAddress)
{
    const Handle handle(path_, O_RDWR);
    char bytes[64] = {};
    EXPECT_EQ(psp_fileSeekWrite(handle, 12, "xyz", 3), 3u);
    EXPECT_EQ(psp_fileSeekRead(handle, 8, bytes, sizeof bytes), 7u);
    EXPECT_EQ(std::string(bytes, 7), std::string("89\0\0xyz", 7));
    EXPECT_EQ(psp_fileSeekRead(handle, 15, bytes, 1), 0u);
    EXPECT_EQ(read_rest(handle).size(), 15u) << "its own offset is still 0";
    EXPECT_EQ(psp_fileSeekWrite(handle, 5'000'000'000, "far", 3), 3u);
    EXPECT_EQ(psp_fileSeekRead(handle, 5'000'000'001, bytes, sizeof bytes), 2u);
    EXPECT_EQ(std::string(bytes, 2), "ar");
    EXPECT_EQ(psp_fileLength(handle), 5'000'000'003u);
}

TEST_F(FileHandle, DoesNotReadWhatWasOpenedForWriting)
{
    const Handle handle(path_, O_WRONLY);
    char bytes[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(psp_fileRead(handle, bytes, 4), 0u);
    EXPECT_EQ(psp_fileSeekRead(handle, 0, bytes, 4), 0u);
    EXPECT_EQ(psp_fileConsoleRead(handle, bytes, 4), 0u);
    EXPECT_EQ(std::string(bytes, 4), "xxxx");
    EXPECT_EQ(psp_fileWrite(handle, "ab", 2), 2u);
    EXPECT_EQ(psp_fileSetSize(handle, 4), sOKAY);
    EXPECT_EQ(read_file(path_), "ab23");
}

TEST_F(FileHandle, DoesNotWriteWhatWasOpenedForReading)
{
    const Handle handle(path_);
    errno = 0;
    EXPECT_EQ(psp_fileWrite(handle, "ab", 2), 0u);
    EXPECT_EQ(psp_fileSeekWrite(handle, 3, "ab", 2), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(handle, "ab", 2), 0u);
    EXPECT_EQ(psp_fileSetSize(handle, 4), eBADWRITE);
    EXPECT_EQ(errno, 0) << "the system was not asked";
    EXPECT_EQ(read_file(path_), "0123456789");
}

TEST_F(FileHandle, TransfersNothingWhenNothingIsWanted)
{
    const Handle handle(path_, O_RDWR);
    EXPECT_EQ(psp_fileRead(handle, nullptr, 0), 0u);
    EXPECT_EQ(psp_fileWrite(handle, nullptr, 0), 0u);
    EXPECT_EQ(psp_fileSeekRead(handle, 2, nullptr, 0), 0u);
    EXPECT_EQ(psp_fileSeekWrite(handle, 20, nullptr, 0), 0u);
    EXPECT_EQ(psp_fileConsoleRead(handle, nullptr, 0), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(handle, nullptr, 0), 0u);
    EXPECT_EQ(read_file(path_), "0123456789");
}

TEST_F(FileHandle, WritesLargeBuffersWhole)
{
    std::mt19937 random(1);
    const std::string bytes = random_bytes(random, 3'000'001);
    {
        const Handle handle(path_, O_RDWR | O_TRUNC);
        EXPECT_EQ(psp_fileWrite(handle, bytes.data(), 3'000'001), 3'000'001u);
    }
    EXPECT_EQ(read_file(path_), bytes);
}

TEST_F(FileHandle, GivesZeroWhenTheSystemFails)
{
    const Handle handle(dir_.path()); // a directory opens, but does not read
    char byte;
    EXPECT_EQ(psp_fileRead(handle, &byte, 1), 0u);
    EXPECT_EQ(psp_errno(), EISDIR);
    EXPECT_EQ(psp_fileSeekRead(handle, 0, &byte, 1), 0u);
    const Handle full("/dev/full", O_RDWR);
    ASSERT_NE(full, nullptr);
    EXPECT_EQ(psp_fileWrite(full, "x", 1), 0u);
    EXPECT_EQ(psp_errno(), ENOSPC);
    EXPECT_EQ(psp_fileSeekWrite(full, 0, "x", 1), 0u);
    EXPECT_EQ(psp_fileSetSize(full, 1), ePSP_FAILURE);
}

TEST_F(FileHandle, HasNoConsole)
{
    CapturedFd captured(1);
    char byte;
    const Handle normal(path_, O_RDWR);
    EXPECT_EQ(psp_fileConsoleRead(normal, &byte, 1), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(normal, "x", 1), 0u);
    const Handle standard("stdout", O_RDWR);
    EXPECT_EQ(psp_fileConsoleRead(standard, &byte, 1), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(standard, "x", 1), 0u);
    EXPECT_EQ(captured.finish(), "");
    EXPECT_EQ(read_file(path_), "0123456789");
}

// ---- Control ----

TEST_F(FileHandle, SeeksWhateverItsMode)
{
    for (const std::uint32_t flags : {O_RDONLY, O_WRONLY, O_RDWR}) {
        const Handle handle(path_, flags);
        PSP_FILE_OFFSET at = 0;
        EXPECT_EQ(psp_fileSeek(handle, 6, SEEK_SET, &at), sOKAY);
        EXPECT_EQ(at, 6u);
        EXPECT_EQ(psp_fileSeek(handle, static_cast<PSP_FILE_OFFSET>(-2), SEEK_CUR, &at), sOKAY);
        EXPECT_EQ(at, 4u);
        EXPECT_EQ(psp_fileSeek(handle, 1, SEEK_END, &at), sOKAY);
        EXPECT_EQ(at, 11u);
        EXPECT_EQ(psp_fileSeek(handle, 2, SEEK_SET, nullptr), sOKAY);
        EXPECT_EQ(psp_fileSeek(handle, static_cast<PSP_FILE_OFFSET>(-3), SEEK_CUR, &at),
                  ePSP_FAILURE);
        EXPECT_EQ(psp_fileSeek(handle, 0, 99, &at), ePSP_FAILURE);
        EXPECT_EQ(at, 11u);
        EXPECT_EQ(psp_fileSeek(handle, 0, SEEK_CUR, &at), sOKAY);
        EXPECT_EQ(at, 2u) << "a failed seek does not move";
    }
}

TEST_F(FileHandle, TellsAndChangesTheLength)
{
    const Handle handle(path_, O_RDWR);
    EXPECT_EQ(psp_fileLength(handle), 10u);
    EXPECT_EQ(psp_fileSetSize(handle, 3), sOKAY);
    EXPECT_EQ(psp_fileLength(handle), 3u);
    EXPECT_EQ(psp_fileSetSize(handle, 5), sOKAY);
    EXPECT_EQ(read_file(path_), std::string("012\0\0", 5));
    EXPECT_EQ(psp_fileSetSize(handle, 0), sOKAY);
    EXPECT_EQ(psp_fileLength(handle), 0u);
}

TEST_F(FileHandle, HasNoLengthWhenItsDescriptorFails)
{
    EXPECT_EQ(run_in_child([] {
                  close(0);
                  const Handle handle("stdin", O_RDWR);
                  EXPECT_NE(handle, nullptr) << "opening asks the system nothing";
                  EXPECT_EQ(psp_fileLength(handle), 0u);
                  char byte;
                  EXPECT_EQ(psp_fileRead(handle, &byte, 1), 0u);
                  EXPECT_EQ(psp_fileSetSize(handle, 1), ePSP_FAILURE);
                  EXPECT_EQ(psp_fileSync(handle), ePSP_FAILURE);
                  EXPECT_EQ(psp_fileLock(handle), ePSP_FAILURE);
                  return 0;
              }),
              0);
}

TEST_F(FileHandle, SyncsUnlessToldNotTo)
{
    EXPECT_EQ(psp_fileSync(Handle(path_, O_RDWR)), sOKAY);
    EXPECT_EQ(psp_fileSync(Handle(path_)), sOKAY);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const std::string pipe_path = "/dev/fd/" + std::to_string(fds[1]);
    EXPECT_EQ(psp_fileSync(Handle(pipe_path, O_WRONLY)), ePSP_FAILURE);
    EXPECT_EQ(psp_fileSync(Handle(pipe_path, O_WRONLY, PSP_XFLAG_NOSYNC)), sOKAY);
    EXPECT_EQ(psp_fileSync(Handle(pipe_path, O_WRONLY, PSP_XFLAG_NOSYNC | 1)), sOKAY);
    EXPECT_EQ(psp_fileSync(Handle(pipe_path, O_WRONLY, 0xFDFF)), ePSP_FAILURE);
    EXPECT_EQ(PSP_XFLAG_NOSYNC, 0x200);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(FileHandle, PagesOut)
{
    const Handle handle(path_);
    EXPECT_EQ(psp_filePageOut(handle, 0, 10), sOKAY);
    EXPECT_EQ(psp_filePageOut(handle, 0, 0), sOKAY);
    EXPECT_EQ(psp_filePageOut(Handle("stdout"), 0, 10), sOKAY);
    EXPECT_EQ(read_rest(handle), "0123456789");
}

TEST_F(FileHandle, CannotBeMapped)
{
    for (const char* name : {path_.c_str(), "stdin"}) {
        const Handle handle(name, O_RDWR);
        void* map = &map;
        EXPECT_EQ(psp_fileMap(handle, 10, &map), eNOTIMPLEMENTED);
        EXPECT_EQ(psp_fileRemap(handle, 10, nullptr, 20, &map), eNOTIMPLEMENTED);
        EXPECT_EQ(psp_fileUnmap(handle, 10, nullptr), eNOTIMPLEMENTED);
        EXPECT_EQ(map, &map);
    }
}

TEST_F(FileHandle, NullIsNoFile)
{
    char byte;
    EXPECT_EQ(psp_fileRead(nullptr, &byte, 1), 0u);
    EXPECT_EQ(psp_fileWrite(nullptr, &byte, 1), 0u);
    EXPECT_EQ(psp_fileSeekRead(nullptr, 0, &byte, 1), 0u);
    EXPECT_EQ(psp_fileSeekWrite(nullptr, 0, &byte, 1), 0u);
    EXPECT_EQ(psp_fileConsoleRead(nullptr, &byte, 1), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(nullptr, &byte, 1), 0u);
    EXPECT_EQ(psp_fileLength(nullptr), 0u);
    EXPECT_EQ(psp_fileSeek(nullptr, 0, SEEK_SET, nullptr), eINVNULLARG);
    EXPECT_EQ(psp_fileSetSize(nullptr, 0), eINVNULLARG);
    EXPECT_EQ(psp_fileSync(nullptr), eINVNULLARG);
    EXPECT_EQ(psp_filePageOut(nullptr, 0, 1), eINVNULLARG);
    EXPECT_EQ(psp_fileMap(nullptr, 1, nullptr), eINVNULLARG);
    EXPECT_EQ(psp_fileRemap(nullptr, 1, nullptr, 1, nullptr), eINVNULLARG);
    EXPECT_EQ(psp_fileUnmap(nullptr, 1, nullptr), eINVNULLARG);
    EXPECT_EQ(psp_fileLock(nullptr), eINVNULLARG);
    psp_fileUnlock(nullptr);
}

// ---- The standard streams ----

TEST_F(FileHandle, ReadsStandardInput)
{
    EXPECT_EQ(run_in_child([this] {
                  const int fd = open(path_.c_str(), O_RDWR);
                  EXPECT_EQ(dup2(fd, 0), 0);
                  const Handle handle("stdIN", O_RDWR | O_TRUNC | O_CREAT);
                  EXPECT_EQ(read_rest(handle), "0123456789") << "not emptied: not opened";
                  EXPECT_EQ(psp_fileLength(handle), 10u);
                  EXPECT_EQ(psp_fileSeekWrite(handle, 2, "ab", 2), 2u);
                  EXPECT_EQ(psp_fileSetSize(handle, 5), sOKAY);
                  EXPECT_EQ(read_file(path_), "01ab4");
                  return 0;
              }),
              0);
}

TEST_F(FileHandle, WritesStandardOutput)
{
    CapturedFd captured(1);
    {
        const Handle handle("stdout", O_WRONLY);
        EXPECT_EQ(psp_fileWrite(handle, "text\n", 5), 5u);
        char byte;
        EXPECT_EQ(psp_fileRead(handle, &byte, 1), 0u);
    }
    EXPECT_EQ(psp_fileWrite(Handle("stdout", O_RDONLY), "no", 2), 0u);
    EXPECT_EQ(captured.finish(), "text\n");
}

TEST_F(FileHandle, UpperCaseNamesAreFiles)
{
    const InDirectory here(dir_.path());
    EXPECT_EQ(psp_fileOpen("STDIN", O_RDONLY, 0), nullptr);
    for (const char* name : {"STDIN", "Stdout", "sTderr"}) {
        EXPECT_EQ(psp_fileWrite(Handle(name, O_WRONLY | O_CREAT), name, 5), 5u);
        EXPECT_EQ(read_file(dir_ / name), std::string(name, 5));
    }
    EXPECT_NE(Handle("stdOut", O_WRONLY | O_CREAT), nullptr);
    EXPECT_FALSE(file_exists(dir_ / "stdOut"));
}

// ---- The switches of the process ----

TEST_F(FileHandle, ReadOnlyModeRefusesWritingAndCreating)
{
    EXPECT_EQ(run_in_child([this] {
                  const Handle before(path_, O_RDWR);
                  psp_rdonly();
                  EXPECT_NE(Handle(path_), nullptr);
                  EXPECT_NE(Handle(path_, O_NONBLOCK), nullptr);
                  for (const std::uint32_t flags : {O_WRONLY, O_RDWR, O_RDONLY | O_CREAT, O_TRUNC})
                      EXPECT_EQ(psp_fileOpen(path_.c_str(), flags, 0), nullptr) << flags;
                  EXPECT_EQ(psp_fileOpen((dir_ / "new").c_str(), O_CREAT, 0), nullptr);
                  EXPECT_FALSE(file_exists(dir_ / "new"));
                  EXPECT_EQ(read_file(path_), "0123456789");
                  for (const std::uint32_t flags : {O_WRONLY, O_RDWR | O_CREAT, O_TRUNC})
                      EXPECT_NE(Handle("stdout", flags), nullptr) << flags;
                  // What is open goes on working.
                  EXPECT_EQ(psp_fileWrite(before, "ab", 2), 2u);
                  EXPECT_EQ(psp_fileSetSize(before, 4), sOKAY);
                  EXPECT_EQ(read_file(path_), "ab23");
                  return 0;
              }),
              0);
}

TEST_F(FileHandle, ReadOnlyModeSyncsNothing)
{
    EXPECT_EQ(run_in_child([] {
                  int fds[2];
                  EXPECT_EQ(pipe(fds), 0); // refuses to be synced
                  const Handle handle("/dev/fd/" + std::to_string(fds[1]), O_WRONLY);
                  EXPECT_EQ(psp_fileSync(handle), ePSP_FAILURE);
                  psp_rdonly();
                  EXPECT_EQ(psp_fileSync(handle), sOKAY);
                  return 0;
              }),
              0);
}

TEST_F(FileHandle, DisklessModeOpensStandardStreamsOnly)
{
    EXPECT_EQ(run_in_child([this] {
                  const Handle before(path_, O_RDWR);
                  psp_nodisk();
                  for (const std::uint32_t flags : {O_RDONLY, O_WRONLY, O_RDWR | O_CREAT})
                      EXPECT_EQ(psp_fileOpen(path_.c_str(), flags, 0), nullptr) << flags;
                  EXPECT_NE(Handle("stdin"), nullptr);
                  EXPECT_NE(Handle("stderr", O_WRONLY), nullptr);
                  EXPECT_EQ(psp_fileWrite(before, "ab", 2), 2u);
                  EXPECT_EQ(read_rest(before), "23456789");
                  return 0;
              }),
              0);
}

// ---- Locking ----

TEST_F(FileHandle, LocksAgainstOtherHandles)
{
    const Handle first(path_);
    const Handle second(path_, O_RDWR);
    EXPECT_EQ(psp_fileLock(first), sOKAY);
    EXPECT_EQ(psp_fileLock(first), sOKAY) << "held already";
    EXPECT_EQ(psp_fileLock(second), ePSP_FAILURE);
    psp_fileUnlock(second); // never had it
    EXPECT_EQ(psp_fileLock(second), ePSP_FAILURE);
    psp_fileUnlock(first);
    EXPECT_EQ(psp_fileLock(second), sOKAY);
    EXPECT_EQ(psp_fileLock(first), ePSP_FAILURE);
}

TEST_F(FileHandle, GivesItsLockUpWhenItIsClosed)
{
    Handle first(path_);
    const Handle second(path_);
    EXPECT_EQ(psp_fileLock(first), sOKAY);
    EXPECT_EQ(psp_fileLock(second), ePSP_FAILURE);
    first.close();
    EXPECT_EQ(psp_fileLock(second), sOKAY);
}

TEST_F(FileHandle, LocksAgainstOtherProcesses)
{
    const Handle handle(path_);
    const auto lock_in_child = [this] {
        return run_in_child([this] {
            const Handle other(path_);
            return psp_fileLock(other) == sOKAY ? 1 : 2;
        });
    };
    EXPECT_EQ(lock_in_child(), 1);
    EXPECT_EQ(psp_fileLock(handle), sOKAY) << "the child's ended with it";
    EXPECT_EQ(lock_in_child(), 2);
    psp_fileUnlock(handle);
    EXPECT_EQ(lock_in_child(), 1);
}

TEST_F(FileHandle, UnlockingWithoutALockDoesNothing)
{
    const Handle handle(path_);
    psp_fileUnlock(handle);
    EXPECT_EQ(psp_fileLock(handle), sOKAY);
}

// ---- The library stopped ----

using StoppedFiles = RawTest;

TEST_F(StoppedFiles, DoNotOpen)
{
    const TempDir dir;
    write_file(dir / "file", "");
    const auto refused = [&] {
        EXPECT_EQ(psp_fileOpen((dir / "file").c_str(), O_RDONLY, 0), nullptr);
        EXPECT_EQ(psp_fileOpen("stdin", O_RDONLY, 0), nullptr);
        EXPECT_EQ(psp_fileOpenStd("stdout", O_WRONLY, 0, nullptr), nullptr);
        psp_fileClose(nullptr);
    };
    refused();
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_NE(Handle(dir / "file"), nullptr);
    psp_term();
    refused();
}

TEST_F(StoppedFiles, OpenAgainAfterEveryStart)
{
    const TempDir dir;
    for (int i = 0; i < 5; i++) {
        ASSERT_EQ(psp_init(), sOKAY);
        EXPECT_EQ(psp_fileWrite(Handle(dir / "file", O_WRONLY | O_TRUNC), "text", 4), 4u);
        psp_term();
    }
    EXPECT_EQ(read_file(dir / "file"), "text");
}

} // namespace
