// The records behind file handles, and the state of the file layer.
#include "support/file_test.h"

#include "psp/global.h"
#include "psp_file_int.h"

#include <cstring>
#include <string>

using namespace psptest;

namespace {

int fd_of(PSP_FH handle)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(handle->handle));
}

class FileRecord : public PspTest {
  protected:
    TempDir dir_;
};

TEST_F(FileRecord, KeepsWhatTheHandleWasOpenedWith)
{
    const std::string path = dir_ / "file";
    std::string name = path;
    const PSP_FH handle = psp_fileOpen(name.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0x1234);
    ASSERT_NE(handle, nullptr);
    name.assign(name.size(), 'x');
    EXPECT_EQ(handle->name, path);
    EXPECT_EQ(handle->ctx, nullptr);
    EXPECT_EQ(handle->flags, static_cast<std::uint32_t>(O_WRONLY | O_APPEND));
    EXPECT_EQ(handle->xflags, 0x1234);
    EXPECT_EQ(handle->fcns, &normal_file_fcns);
    EXPECT_EQ(handle->lock, PSP_SEM_INVALID);
    EXPECT_NE(fcntl(fd_of(handle), F_GETFD), -1);
    psp_fileClose(handle);
}

TEST_F(FileRecord, DropsTheFlagsThatCreateAndEmptyTheFile)
{
    const Handle handle(dir_ / "file", O_RDWR | O_TRUNC | O_EXCL | O_NONBLOCK);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->flags, static_cast<std::uint32_t>(O_RDWR | O_EXCL | O_NONBLOCK));
}

TEST_F(FileRecord, OfAStandardStreamHoldsItsNumber)
{
    const char* const names[] = {"stdin", "stdout", "stdErr"};
    for (int fd = 0; fd < 3; fd++) {
        const Handle handle(names[fd], O_RDWR);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(handle->fcns, &stdio_file_fcns);
        EXPECT_EQ(fd_of(handle), fd);
        EXPECT_STREQ(handle->name, names[fd]);
    }
}

TEST_F(FileRecord, GetsItsMutexWithTheFirstLock)
{
    const Handle handle(dir_ / "file", O_RDWR | O_CREAT);
    ASSERT_NE(handle, nullptr);
    psp_fileUnlock(handle);
    EXPECT_EQ(handle->lock, PSP_SEM_INVALID);
    EXPECT_EQ(psp_fileLock(handle), sOKAY);
    const PSP_SEM mutex = handle->lock;
    EXPECT_NE(mutex, PSP_SEM_INVALID);
    psp_fileUnlock(handle);
    EXPECT_EQ(psp_fileLock(handle), sOKAY);
    EXPECT_EQ(handle->lock, mutex);
}

TEST_F(FileRecord, GivesItsMutexBackWhenItIsClosed)
{
    const std::string path = dir_ / "file";
    write_file(path, "");
    expect_no_growth([&] { // thousands would exhaust the table of mutexes
        for (int i = 0; i < 10; i++) {
            const Handle handle(path);
            EXPECT_EQ(psp_fileLock(handle), sOKAY);
        }
    });
}

TEST_F(FileRecord, LivesInTheFileTag)
{
    PSP_FILE_GLOBALS* globals = psp_fileGlobals();
    ASSERT_NE(globals, nullptr);
    EXPECT_EQ(psp_fileGlobals(), globals);
    const PSP_TAG_MEM_INFO before = info_of(globals->fileTag);
    const Handle handle(dir_ / "file", O_RDWR | O_CREAT);
    EXPECT_GE(info_of(globals->fileTag).used.current, before.used.current + sizeof(PSPFTAB));
}

TEST_F(FileRecord, CallsNothingThatItsTableLacks)
{
    const PSP_FILE_FCNS empty = {};
    PSPFTAB record = {};
    record.flags = O_RDWR;
    record.fcns = &empty;
    char byte;
    EXPECT_EQ(psp_fileConsoleRead(&record, &byte, 1), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(&record, "x", 1), 0u);
    EXPECT_EQ(psp_fileSync(&record), sOKAY);
    EXPECT_EQ(psp_filePageOut(&record, 0, 1), sOKAY);
    EXPECT_EQ(psp_fileMap(&record, 1, nullptr), eNOTIMPLEMENTED);
    EXPECT_EQ(psp_fileRemap(&record, 1, nullptr, 1, nullptr), eNOTIMPLEMENTED);
    EXPECT_EQ(psp_fileUnmap(&record, 1, nullptr), eNOTIMPLEMENTED);
}

// A table whose functions do not fail like the usual ones.
ZYN_RETCODE stale_read(PSP_HANDLE, void*, std::size_t, std::size_t* count)
{
    *count = 5;
    return eEOD;
}

ZYN_RETCODE good_read(PSP_HANDLE, void*, std::size_t size, std::size_t* count)
{
    EXPECT_EQ(*count, 0u);
    *count = size - 1;
    return sOKAY;
}

TEST_F(FileRecord, GivesNoCountOfAFailedCall)
{
    PSP_FILE_FCNS table = {};
    table.console_read = stale_read;
    table.console_write = [](PSP_HANDLE, const void*, std::size_t) -> ZYN_RETCODE { return eEOD; };
    table.read = stale_read;
    PSPFTAB record = {};
    record.flags = O_RDWR;
    record.fcns = &table;
    char bytes[8];
    EXPECT_EQ(psp_fileConsoleRead(&record, bytes, 8), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(&record, bytes, 8), 0u);
    EXPECT_EQ(psp_fileRead(&record, bytes, 8), 0u);
    table.console_read = good_read;
    table.console_write = [](PSP_HANDLE, const void*, std::size_t) -> ZYN_RETCODE { return sOKAY; };
    EXPECT_EQ(psp_fileConsoleRead(&record, bytes, 8), 7u);
    EXPECT_EQ(psp_fileConsoleWrite(&record, bytes, 8), 8u);
    EXPECT_EQ(psp_fileConsoleRead(&record, bytes, 0), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(&record, bytes, 0), 0u);
    record.flags = O_WRONLY;
    EXPECT_EQ(psp_fileConsoleRead(&record, bytes, 8), 0u);
    EXPECT_EQ(psp_fileConsoleWrite(&record, bytes, 8), 8u);
    record.flags = O_RDONLY;
    EXPECT_EQ(psp_fileConsoleRead(&record, bytes, 8), 7u);
    EXPECT_EQ(psp_fileConsoleWrite(&record, bytes, 8), 0u);
}

using FileLayer = RawTest;

TEST_F(FileLayer, HasNoStateWhileTheLibraryIsStopped)
{
    EXPECT_EQ(psp_fileGlobals(), nullptr);
    ASSERT_EQ(psp_init(), sOKAY);
    EXPECT_NE(psp_fileGlobals(), nullptr);
    psp_term();
    EXPECT_EQ(psp_fileGlobals(), nullptr);
}

TEST_F(FileLayer, IsFoundInTheRegistryOfGlobals)
{
    ASSERT_EQ(psp_init(), sOKAY);
    void* globals = nullptr;
    const auto* const state = psp_fileGlobals();
    ASSERT_EQ(psp_globalGet("pspfile", sizeof(PSP_FILE_GLOBALS), nullptr, nullptr, &globals),
              sOKAY);
    EXPECT_EQ(globals, state);
    EXPECT_EQ(sizeof(PSP_FILE_GLOBALS), sizeof(PSP_MEMTAG));
    psp_term();
}

// Callbacks of the stop run before and after the file layer's own: after it, its state is made
// anew.
TEST_F(FileLayer, ServesTheCallbacksOfTheStop)
{
    const TempDir dir;
    static std::string path;
    path = dir / "file";
    const auto append = [](void*) {
        const Handle handle(path, O_WRONLY | O_CREAT | O_APPEND);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(psp_fileWrite(handle, "x", 1), 1u);
    };
    ASSERT_EQ(psp_init(), sOKAY);
    for (const char* name : {"zz", "zy", "b", "a"}) {
        void* data = nullptr;
        ASSERT_EQ(psp_globalGet(name, 1, nullptr, append, &data), sOKAY);
    }
    psp_term();
    EXPECT_EQ(read_file(path), "xxxx");
    EXPECT_EQ(psp_fileGlobals(), nullptr);
    EXPECT_EQ(memory_in_use(), 0u);
}

TEST_F(FileLayer, EndsWithItsTag)
{
    ASSERT_EQ(psp_init(), sOKAY);
    PSP_FILE_GLOBALS globals = {};
    EXPECT_EQ(psp_fileInit(&globals), sOKAY);
    ASSERT_NE(globals.fileTag, nullptr);
    EXPECT_NE(get(100, globals.fileTag), nullptr);
    psp_fileTerm(&globals);
    EXPECT_EQ(globals.fileTag, nullptr);
    psp_term();
}

TEST_F(FileLayer, ForgetsOpenHandlesAtTheStopButLeavesTheirDescriptors)
{
    TempDir dir;
    ASSERT_EQ(psp_init(), sOKAY);
    const PSP_FH handle = psp_fileOpen((dir / "file").c_str(), O_RDWR | O_CREAT, 0);
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(psp_fileLock(handle), sOKAY);
    const int fd = fd_of(handle);
    psp_term();
    EXPECT_EQ(memory_in_use(), 0u);
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    psp_fileClose(handle); // a dead handle: nothing happens
    EXPECT_EQ(close(fd), 0);
}

} // namespace
