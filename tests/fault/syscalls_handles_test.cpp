// File handles and their primitives with every call of the system failing in every way.
#include "support/call_faults.h"

#include "psp/file.h"

#include <cstring>
#include <string>

#include <sys/file.h>
#include <termios.h>

using namespace psptest;

namespace {

constexpr std::string_view original = "0123456789";

// The disk is not what these tests wait for.
int synced(int)
{
    return 0;
}

// A terminal that only the test sees.
int terminal(int)
{
    return 1;
}

termios modes;
int settings = 0; // made of the modes

int get_modes(int, termios* out)
{
    *out = modes;
    return 0;
}

int set_modes(int, int, const termios* in)
{
    modes = *in;
    settings++;
    return 0;
}

struct OpenFile {
    OpenFile()
    {
        write_file(path, original);
        write_file(locked_path, original);
        handle = psp_fileOpen(path.c_str(), O_RDWR, 0);
        standard = psp_fileOpen("stdout", O_RDWR, 0);
        locked = psp_fileOpen(locked_path.c_str(), O_RDWR, 0);
        EXPECT_EQ(psp_fileLock(locked), sOKAY);
        Fault::replace("fsync", synced);
        Fault::replace("isatty", terminal);
        Fault::replace("tcgetattr", get_modes);
        Fault::replace("tcsetattr", set_modes);
        modes = {};
        modes.c_lflag = ECHO | ICANON;
        settings = 0;
    }
    ~OpenFile()
    {
        psp_fileClose(handle);
        psp_fileClose(locked);
        psp_fileClose(standard);
        Fault::clear();
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    PSP_HANDLE desc() const
    {
        return handle->handle;
    }
    // Whether somebody holds the lock of a file.
    static bool is_locked(const std::string& name)
    {
        const int fd = ::open(name.c_str(), O_RDONLY);
        const bool refused = flock(fd, LOCK_EX | LOCK_NB) != 0;
        ::close(fd);
        return refused;
    }
    long open(const std::string& name, std::uint32_t flags)
    {
        const PSP_FH file = psp_fileOpen(name.c_str(), flags, 0);
        const int error = errno;
        psp_fileClose(file);
        errno = error;
        return file != nullptr;
    }

    TempDir dir;
    const std::string path = dir / "file";
    const std::string locked_path = dir / "locked";
    const std::string new_path = dir / "new";
    PSP_FH handle;
    PSP_FH locked;
    CapturedFd output{1};
    PSP_FH standard;
    char bytes[8] = "-------";
    std::size_t count = 77;
    PSP_FILE_OFFSET offset = 77;
    PSP_HANDLE opened = nullptr;
    ZYN_BOOL_T flag = 7;
};

using HandleRow = Row<OpenFile>;

// ---- What is left behind ----

void unchanged(OpenFile& w, const Failure*)
{
    EXPECT_EQ(read_file(w.path), original);
}

void not_created(OpenFile& w, const Failure* failure)
{
    EXPECT_EQ(file_exists(w.new_path), failure == nullptr);
}

void nothing_read(OpenFile& w, const Failure* failure)
{
    EXPECT_EQ(std::string_view(w.bytes), failure != nullptr ? "-------" : "0123---");
    unchanged(w, failure);
}

void nothing_told(OpenFile& w, const Failure* failure)
{
    nothing_read(w, failure);
    EXPECT_EQ(w.count, failure != nullptr ? 77u : 4u);
}

// The position moves with what was read: after a failure the first bytes are still to come.
void read_on(OpenFile& w, const Failure* failure)
{
    EXPECT_EQ(std::string_view(w.bytes), failure != nullptr ? "0123---" : "4567---");
}

void read_the_same(OpenFile& w, const Failure*)
{
    EXPECT_EQ(std::string_view(w.bytes), "0123---");
}

void written_once(OpenFile& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.path), failure != nullptr ? original : "abcd456789");
}

void written_twice(OpenFile& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.path), failure != nullptr ? "abcd456789" : "abcdabcd89");
}

void written_there(OpenFile& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.path), failure != nullptr ? original : "012abcd789");
}

void cut(OpenFile& w, const Failure* failure)
{
    EXPECT_EQ(read_file(w.path), failure != nullptr ? original : "0123");
}

void position_kept(OpenFile& w, const Failure* failure)
{
    EXPECT_EQ(w.offset, failure != nullptr ? 77u : 6u);
    PSP_FILE_OFFSET now = 0;
    EXPECT_EQ(psp_fileSeek(w.handle, 0, SEEK_CUR, &now), sOKAY);
    EXPECT_EQ(now, failure != nullptr ? 0u : 6u);
}

// clang-format off
const HandleRow rows[] = {
    // ---- Opening and closing ----
    {"psp_fileOpen", "open",
     [](OpenFile& w) { return w.open(w.path, O_RDWR); },
     1, always<0>, kept, unchanged, unchanged},
    {"psp_fileOpen creating", "open",
     [](OpenFile& w) { return w.open(w.new_path, O_WRONLY | O_CREAT); },
     1, always<0>, kept, not_created},
    {"psp_fileOpen truncating", "open",
     [](OpenFile& w) { return w.open(w.path, O_WRONLY | O_TRUNC); },
     1, always<0>, kept,
     [](OpenFile& w, const Failure* f) { EXPECT_EQ(read_file(w.path), f ? original : ""); }},
    {"psp_fileOpenStd", "open",
     [](OpenFile& w) -> long {
         w.flag = 7;
         const PSP_FH opened = psp_fileOpenStd(w.path.c_str(), O_RDONLY, 0, &w.flag);
         psp_fileClose(opened);
         return opened != nullptr;
     },
     1, always<0>, kept,
     [](OpenFile& w, const Failure* f) { EXPECT_EQ(w.flag, f ? 7 : ZYN_FALSE); }},
    {"open slot", "open",
     [](OpenFile& w) -> long {
         w.opened = nullptr;
         const ZYN_RETCODE rc = normal_file_fcns.open(nullptr, w.path.c_str(), O_RDONLY, 0,
                                                      &w.opened, nullptr);
         const int error = errno;
         if (rc == sOKAY)
             ::close(static_cast<int>(reinterpret_cast<intptr_t>(w.opened)));
         errno = error;
         return rc;
     },
     sOKAY, always<ePSP_FAILURE>, kept,
     [](OpenFile& w, const Failure* f) { EXPECT_EQ(w.opened == nullptr, f != nullptr); }},
    // The descriptor is gone, errno is as it was before, and nobody is told.
    {"psp_fileClose", "close",
     [](OpenFile& w) -> long {
         const PSP_FH opened = psp_fileOpen(w.path.c_str(), O_RDWR, 0);
         errno = 1234;
         psp_fileClose(opened);
         return errno;
     },
     1234, always<1234>, unsaid, unchanged},
    {"close slot", "close",
     [](OpenFile& w) -> long {
         normal_file_fcns.open(nullptr, w.path.c_str(), O_RDONLY, 0, &w.opened, nullptr);
         return normal_file_fcns.close(w.opened);
     },
     sOKAY, always<ePSP_FAILURE>},

    // ---- Transfer ----
    {"psp_fileSeek", "lseek",
     [](OpenFile& w) -> long { return psp_fileSeek(w.handle, 6, SEEK_SET, &w.offset); },
     sOKAY, always<ePSP_FAILURE>, kept, position_kept},
    {"psp_fileRead", "read",
     [](OpenFile& w) -> long { return psp_fileRead(w.handle, w.bytes, 4); },
     4, always<0>, kept, nothing_read, read_on},
    {"read slot", "read",
     [](OpenFile& w) -> long { return normal_file_fcns.read(w.desc(), w.bytes, 4, &w.count); },
     sOKAY, always<eBADREAD>, kept, nothing_told, read_on},
    {"psp_fileSeekRead", "pread",
     [](OpenFile& w) -> long { return psp_fileSeekRead(w.handle, 0, w.bytes, 4); },
     4, always<0>, kept, nothing_read, read_the_same},
    {"seek_read slot", "pread",
     [](OpenFile& w) -> long {
         return normal_file_fcns.seek_read(w.desc(), 0, w.bytes, 4, &w.count);
     },
     sOKAY, always<eBADREAD>, kept, nothing_told, read_the_same},
    {"psp_fileWrite", "write",
     [](OpenFile& w) -> long { return psp_fileWrite(w.handle, "abcd", 4); },
     4, always<0>, kept, written_once, written_twice},
    {"write slot", "write",
     [](OpenFile& w) -> long { return normal_file_fcns.write(w.desc(), "abcd", 4); },
     sOKAY, always<eBADWRITE>, kept, written_once, written_twice},
    {"psp_fileSeekWrite", "pwrite",
     [](OpenFile& w) -> long { return psp_fileSeekWrite(w.handle, 3, "abcd", 4); },
     4, always<0>, kept, written_there},
    {"seek_write slot", "pwrite",
     [](OpenFile& w) -> long { return normal_file_fcns.seek_write(w.desc(), 3, "abcd", 4); },
     sOKAY, always<eBADWRITE>, kept, written_there},

    // ---- Storage ----
    {"psp_fileLength", "fstat",
     [](OpenFile& w) -> long { return static_cast<long>(psp_fileLength(w.handle)); },
     10, always<0>},
    {"length slot", "fstat",
     [](OpenFile& w) -> long { return normal_file_fcns.length(w.desc(), &w.offset); },
     sOKAY, always<ePSP_FAILURE>, kept,
     [](OpenFile& w, const Failure* f) { EXPECT_EQ(w.offset, f ? 77u : 10u); }},
    {"psp_fileSetSize shrinking", "ftruncate",
     [](OpenFile& w) -> long { return psp_fileSetSize(w.handle, 4); },
     sOKAY, always<ePSP_FAILURE>, kept, cut},
    {"psp_fileSetSize growing", "ftruncate",
     [](OpenFile& w) -> long { return psp_fileSetSize(w.handle, 20); },
     sOKAY, always<ePSP_FAILURE>, kept,
     [](OpenFile& w, const Failure* f) {
         EXPECT_EQ(read_file(w.path), std::string(original) + std::string(f ? 0 : 10, '\0'));
     }},
    {"psp_fileSync", "fsync",
     [](OpenFile& w) -> long { return psp_fileSync(w.handle); },
     sOKAY, always<ePSP_FAILURE>, kept, unchanged},
    {"psp_filePageOut", "posix_fadvise",
     [](OpenFile& w) -> long { return psp_filePageOut(w.handle, 0, 4096); },
     sOKAY, always<sOKAY>, unsaid, unchanged, unchanged},
    {"punch_hole slot", "fallocate",
     [](OpenFile& w) -> long { return normal_file_fcns.punch_hole(w.desc(), 2, 3); },
     sOKAY, always<sOKAY>, unsaid,
     [](OpenFile& w, const Failure* f) {
         EXPECT_EQ(read_file(w.path).size(), 10u);
         if (f != nullptr)
             unchanged(w, f);
     }},

    // ---- The standard streams, which are reached by the same calls ----
    {"psp_fileWrite to stdout", "write",
     [](OpenFile& w) -> long { return psp_fileWrite(w.standard, "abcd", 4); },
     4, always<0>, kept,
     [](OpenFile& w, const Failure* f) { EXPECT_EQ(w.output.text(), f ? "" : "abcd"); }},
    {"psp_fileSeekRead of stdout", "pread",
     [](OpenFile& w) -> long {
         EXPECT_EQ(::pwrite(1, "abcd", 4, 0), 4);
         errno = 0;
         return psp_fileSeekRead(w.standard, 1, w.bytes, 2);
     },
     2, always<0>},
    {"psp_fileLength of stdout", "fstat",
     [](OpenFile& w) -> long {
         EXPECT_EQ(::pwrite(1, "abcd", 4, 0), 4);
         return static_cast<long>(psp_fileLength(w.standard));
     },
     4, always<0>},
    {"psp_fileSync of stdout", "fsync",
     [](OpenFile& w) -> long { return psp_fileSync(w.standard); }, sOKAY, always<ePSP_FAILURE>},

    // ---- Locks ----
    {"psp_fileLock", "flock",
     [](OpenFile& w) -> long { return psp_fileLock(w.handle); },
     sOKAY, always<ePSP_FAILURE>, kept,
     [](OpenFile& w, const Failure* f) { EXPECT_EQ(w.is_locked(w.path), f == nullptr); },
     [](OpenFile& w, const Failure*) { EXPECT_TRUE(w.is_locked(w.path)); }},
    {"psp_fileUnlock", "flock",
     [](OpenFile& w) -> long {
         psp_fileUnlock(w.locked);
         return 0;
     },
     0, always<0>, unsaid,
     [](OpenFile& w, const Failure* f) { EXPECT_EQ(w.is_locked(w.locked_path), f != nullptr); },
     [](OpenFile& w, const Failure*) { EXPECT_FALSE(w.is_locked(w.locked_path)); }},

    // ---- Terminals: never a failure ----
    {"is_tty slot", "isatty",
     [](OpenFile& w) -> long { return normal_file_fcns.is_tty(w.desc(), &w.flag); },
     sOKAY, always<sOKAY>, unsaid,
     [](OpenFile& w, const Failure* f) { EXPECT_EQ(w.flag, f ? ZYN_FALSE : ZYN_TRUE); }},
    {"set_echo slot", "isatty",
     [](OpenFile& w) -> long { return normal_file_fcns.set_echo(w.desc(), ZYN_FALSE); },
     sOKAY, always<sOKAY>, unsaid,
     [](OpenFile&, const Failure* f) { EXPECT_EQ(settings, f ? 0 : 1); },
     [](OpenFile&, const Failure*) { EXPECT_EQ(modes.c_lflag, tcflag_t{ICANON}); }},
    {"set_echo slot", "tcgetattr",
     [](OpenFile& w) -> long { return normal_file_fcns.set_echo(w.desc(), ZYN_FALSE); },
     sOKAY, always<sOKAY>, unsaid,
     [](OpenFile&, const Failure*) { EXPECT_EQ(settings, 1); }},
    {"set_echo slot", "tcsetattr",
     [](OpenFile& w) -> long { return normal_file_fcns.set_echo(w.desc(), ZYN_FALSE); },
     sOKAY, always<sOKAY>, unsaid,
     [](OpenFile&, const Failure* f) { EXPECT_EQ(settings, f ? 0 : 1); },
     [](OpenFile&, const Failure*) { EXPECT_EQ(modes.c_lflag, tcflag_t{ICANON}); }},
};
// clang-format on

class HandleCalls : public FaultTest, public ::testing::WithParamInterface<HandleRow> {};

TEST_P(HandleCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, HandleCalls, ::testing::ValuesIn(rows), name_of_row<OpenFile>);

TEST(HandleCallsTable, HasARowForEveryCall)
{
    EXPECT_EQ(calls_in(rows), calls_for(in_handles));
}

} // namespace
