// Whole files by name: copied, compared, removed, asked about, and named.
#include "support/file_test.h"

#include "psp/fileutil.h"
#include "psp/process.h"
#include "psp/tmpdir.h"

#include <cerrno>
#include <cinttypes>
#include <csetjmp>
#include <random>
#include <string>

#include <sys/mman.h>

using namespace psptest;

namespace {

class FileUtil : public PspTest {
  protected:
    TempDir dir_;
    const std::string src_ = dir_ / "src";
    const std::string dest_ = dir_ / "dest";
};

// ---- Copying ----

TEST_F(FileUtil, CopiesFilesOfEverySize)
{
    std::mt19937 random(3);
    for (const std::size_t size : {0u, 1u, 1023u, 1024u, 1025u, 2048u, 5000u, 100'000u}) {
        const std::string bytes = random_bytes(random, size);
        write_file(src_, bytes);
        EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), sOKAY);
        EXPECT_EQ(read_file(dest_), bytes) << "onto the copy of another size";
        const std::string fresh = dest_ + std::to_string(size);
        EXPECT_EQ(psp_fileCopyEx(src_.c_str(), 0x1FF, fresh.c_str(), PSP_XFLAG_NOSYNC), sOKAY);
        EXPECT_EQ(read_file(fresh), bytes);
        EXPECT_EQ(read_file(src_), bytes);
    }
}

TEST_F(FileUtil, CopiesOntoAnyOtherFile)
{
    std::mt19937 random(4);
    for (int i = 0; i < 200; i++) {
        const std::string bytes = random_bytes(random, random() % 6000);
        std::string old = bytes;
        old.resize(random() % 6000, 'x');
        for (std::size_t change = random() % 4; change > 0 && !old.empty(); change--)
            old[random() % old.size()] ^= 1;
        put_file(src_, bytes);
        put_file(dest_, old);
        ASSERT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), sOKAY);
        ASSERT_EQ(read_file(dest_), bytes);
    }
}

TEST_F(FileUtil, CopyingOntoAnEqualFileLeavesItUnmodified)
{
    write_file(src_, std::string(5000, 'x'));
    write_file(dest_, std::string(5000, 'x'));
    const timespec long_ago[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, dest_.c_str(), long_ago, 0), 0);
    EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), sOKAY);
    time64_t when = 0;
    EXPECT_EQ(psp_fileModTimeStat(dest_.c_str(), 0, &when), sOKAY);
    EXPECT_EQ(when, 1000);
    EXPECT_EQ(psp_fileCopy(src_.c_str(), src_.c_str()), sOKAY) << "onto itself";
    EXPECT_EQ(read_file(src_), std::string(5000, 'x'));
}

TEST_F(FileUtil, CopyingOntoALongerFileShortensIt)
{
    write_file(src_, std::string(1500, 'x'));
    write_file(dest_, std::string(1500, 'x') + "tail");
    EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), sOKAY);
    EXPECT_EQ(read_file(dest_), std::string(1500, 'x'));
    write_file(src_, "");
    EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), sOKAY);
    EXPECT_EQ(read_file(dest_), "");
}

TEST_F(FileUtil, CopyingFailsWhenAFileDoesNotOpen)
{
    EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_errno(), ENOENT);
    EXPECT_FALSE(file_exists(dest_));
    write_file(src_, "text");
    EXPECT_EQ(psp_fileCopy(src_.c_str(), (dir_ / "none/dest").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_fileCopy(src_.c_str(), dir_.c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_fileCopy(nullptr, dest_.c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_fileCopy(src_.c_str(), nullptr), ePSP_FAILURE);
    EXPECT_FALSE(file_exists(dest_));
}

TEST_F(FileUtil, CopyingFailsWhenAFileDoesNotTransfer)
{
    write_file(src_, "text");
    EXPECT_EQ(psp_fileCopy(src_.c_str(), "/dev/full"), ePSP_FAILURE);
    write_file(dest_, "old");
    EXPECT_EQ(psp_fileCopy(dir_.c_str(), dest_.c_str()), ePSP_FAILURE) << "a directory";
}

// ---- Comparing ----

TEST_F(FileUtil, ComparesContents)
{
    const auto compare = [this](const std::string& first, const std::string& second) {
        put_file(src_, first);
        put_file(dest_, second);
        const ZYN_RETCODE rc = psp_fileCmp(src_.c_str(), dest_.c_str());
        EXPECT_EQ(psp_fileCmp(dest_.c_str(), src_.c_str()), rc) << "either order";
        return rc;
    };
    for (const std::size_t size : {0u, 1u, 1023u, 1024u, 1025u, 2048u, 3000u}) {
        const std::string bytes(size, 'x');
        EXPECT_EQ(compare(bytes, bytes), sOKAY) << size;
        EXPECT_EQ(psp_fileCmp(src_.c_str(), src_.c_str()), sOKAY) << size;
        EXPECT_EQ(compare(bytes, bytes + "x"), ePSP_FAILURE) << size;
        EXPECT_EQ(compare(bytes, bytes + std::string(2000, 'x')), ePSP_FAILURE) << size;
        for (const std::size_t at : {std::size_t{0}, size / 2, size - 1}) {
            if (at >= size)
                continue;
            std::string other = bytes;
            other[at] = 'y';
            EXPECT_EQ(compare(bytes, other), ePSP_FAILURE) << size << " at " << at;
        }
    }
}

TEST_F(FileUtil, ComparingTellsWhichFileDoesNotOpen)
{
    write_file(src_, "text");
    const std::string none = dir_ / "none";
    EXPECT_EQ(psp_fileCmp(none.c_str(), src_.c_str()), ePSP_NOSOURCE);
    EXPECT_EQ(psp_fileCmp(src_.c_str(), none.c_str()), ePSP_NODEST);
    EXPECT_EQ(psp_errno(), ENOENT);
    EXPECT_EQ(psp_fileCmp(none.c_str(), none.c_str()), ePSP_NOSOURCE);
    EXPECT_EQ(psp_fileCmp(nullptr, src_.c_str()), ePSP_NOSOURCE);
    EXPECT_EQ(psp_fileCmp(src_.c_str(), nullptr), ePSP_NODEST);
    EXPECT_FALSE(file_exists(none));
}

TEST_F(FileUtil, GivesBackWhatItTakes)
{
    write_file(src_, std::string(3000, 'x'));
    expect_no_growth([this] {
        EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), sOKAY);
        EXPECT_EQ(psp_fileCmp(src_.c_str(), dest_.c_str()), sOKAY);
        EXPECT_EQ(psp_fileCmp(src_.c_str(), "/dev/null"), ePSP_FAILURE);
        EXPECT_EQ(psp_fileCmp(src_.c_str(), "/none"), ePSP_NODEST);
        EXPECT_EQ(psp_fileCopy(src_.c_str(), "/dev/full"), ePSP_FAILURE);
        std::uint32_t number = 0;
        taken(psp_fileCreateTmpName(&number, nullptr, nullptr, 0, PSP_THREAD_TAG), PSP_THREAD_TAG);
    });
}

// ---- Removing and asking ----

TEST_F(FileUtil, RemovesFilesAndEmptyDirectories)
{
    write_file(src_, "text");
    ASSERT_EQ(mkdir(dest_.c_str(), 0777), 0);
    write_file(dest_ + "/inner", "");
    EXPECT_EQ(psp_fileRemove(src_.c_str()), sOKAY);
    EXPECT_FALSE(file_exists(src_));
    EXPECT_EQ(psp_fileRemove(src_.c_str()), sOKAY) << "nothing to remove";
    EXPECT_EQ(psp_fileRemove(dest_.c_str()), ePSP_FAILURE) << "not empty";
    EXPECT_EQ(psp_fileRemove((dest_ + "/inner/below").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_errno(), ENOTDIR);
    EXPECT_EQ(psp_fileRemoveEx((dest_ + "/inner").c_str(), 0xFFFF), sOKAY);
    EXPECT_EQ(psp_fileRemove(dest_.c_str()), sOKAY);
    EXPECT_FALSE(file_exists(dest_));
    EXPECT_EQ(psp_fileRemove(nullptr), ePSP_FAILURE);
}

TEST_F(FileUtil, TellsWhatExists)
{
    write_file(src_, "text");
    ASSERT_EQ(symlink(dir_.c_str(), dest_.c_str()), 0);
    const std::string broken = dir_ / "broken";
    ASSERT_EQ(symlink("nowhere", broken.c_str()), 0);
    const struct {
        std::string name;
        ZYN_BOOL_T exists;
        ZYN_BOOL_T isdir; // 7: left as it was
    } rows[] = {
        {src_, ZYN_TRUE, ZYN_FALSE},     {dir_.path(), ZYN_TRUE, ZYN_TRUE},
        {dest_, ZYN_TRUE, ZYN_TRUE},     {"/dev/null", ZYN_TRUE, ZYN_FALSE},
        {dir_ / "none", ZYN_FALSE, 7},   {broken, ZYN_FALSE, 7},
        {src_ + "/below", ZYN_FALSE, 7}, {"", ZYN_FALSE, 7},
    };
    for (const auto& row : rows) {
        ZYN_BOOL_T isdir = 7;
        EXPECT_EQ(psp_fileValidateEx(row.name.c_str(), 0xFFFF, &isdir), row.exists) << row.name;
        EXPECT_EQ(isdir, row.isdir) << row.name;
        EXPECT_EQ(psp_fileValidateEx(row.name.c_str(), 0, nullptr), row.exists) << row.name;
        EXPECT_EQ(psp_fileValidate(row.name.c_str()), row.exists) << row.name;
    }
    EXPECT_EQ(psp_fileValidate(nullptr), ZYN_FALSE);
}

TEST_F(FileUtil, TellsTheTimeOfTheLastChange)
{
    write_file(src_, "text");
    for (const time_t seconds : {time_t{0}, time_t{1'234'567'890}, time_t{5'000'000'000}}) {
        const timespec times[2] = {{1, 0}, {seconds, 999'999'999}};
        ASSERT_EQ(utimensat(AT_FDCWD, src_.c_str(), times, 0), 0);
        struct stat status;
        ASSERT_EQ(stat(src_.c_str(), &status), 0);
        if (status.st_mtime != seconds)
            continue; // beyond what this file system keeps
        time64_t when = -1;
        EXPECT_EQ(psp_fileModTimeStat(src_.c_str(), 0xFFFF, &when), sOKAY);
        EXPECT_EQ(when, seconds);
    }
    EXPECT_EQ(psp_fileModTimeStat(src_.c_str(), 0, nullptr), sOKAY);
    EXPECT_EQ(psp_fileModTimeStat(dir_.c_str(), 0, nullptr), sOKAY);

    time64_t when = 77;
    EXPECT_EQ(psp_fileModTimeStat((dir_ / "none").c_str(), 0, &when), eFILEOPEN);
    EXPECT_EQ(psp_fileModTimeStat((src_ + "/below").c_str(), 0, &when), eINVFILE);
    EXPECT_EQ(psp_fileModTimeStat(nullptr, 0, &when), eINVFILE);
    EXPECT_EQ(when, 77);
}

// ---- Names for temporary files ----

// The name that is due, put together by the C library.
std::string expected_name(const std::string& dir, const char* base, const std::uint32_t* counter,
                          unsigned number, const char* extension)
{
    char name[1024];
    std::snprintf(name, sizeof name, "%s/%s_0x%" PRIxPTR "_%010ld_%03u.%s", dir.c_str(), base,
                  address_of(counter), static_cast<long>(getpid()), number, extension);
    return name;
}

TEST_F(FileUtil, TemporaryNamesCountOn)
{
    const PSP_MEMTAG tag = make_tag();
    const std::string tmp = taken(psp_tmpdir(tag), tag);
    std::uint32_t counter = 0;
    EXPECT_EQ(taken(psp_fileCreateTmpName(&counter, nullptr, nullptr, 0, tag), tag),
              expected_name(tmp, "temp", &counter, 0, "tmp"));
    EXPECT_EQ(taken(psp_fileCreateTmpName(&counter, nullptr, nullptr, 0xFFFF, tag), tag),
              expected_name(tmp, "temp", &counter, 1, "tmp"));
    EXPECT_EQ(counter, 2u);
    counter = 998;
    for (const unsigned number : {998u, 999u, 1000u})
        EXPECT_EQ(taken(psp_fileCreateTmpName(&counter, "base", "x", 0, tag), tag),
                  expected_name(tmp, "base", &counter, number, "x"));
    counter = UINT32_MAX;
    EXPECT_EQ(taken(psp_fileCreateTmpName(&counter, "", "", 0, tag), tag),
              expected_name(tmp, "", &counter, UINT32_MAX, ""));
    EXPECT_EQ(counter, 0u);
    EXPECT_EQ(psp_fileCreateTmpName(nullptr, nullptr, nullptr, 0, tag), nullptr);
    destroy_tag(tag);
}

TEST_F(FileUtil, TemporaryNamesLieInTheTemporaryDirectory)
{
    EXPECT_EQ(psp_setTmpDir(dir_.c_str()), sOKAY);
    std::uint32_t counter = 5;
    const std::string base(700, 'b');
    const std::string name = taken(
        psp_fileCreateTmpName(&counter, base.c_str(), "e", 0, PSP_GLOBAL_TAG), PSP_GLOBAL_TAG);
    EXPECT_EQ(name, expected_name(dir_.path(), base.c_str(), &counter, 5, "e"));
    EXPECT_FALSE(file_exists(dir_ / "e"));
    EXPECT_EQ(psp_dirWritable(dir_.c_str()), ZYN_TRUE);
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
    EXPECT_EQ(psp_setTmpDir(nullptr), sOKAY);
}

TEST_F(FileUtil, TemporaryNamesLieInTheRootWhenThereIsNoDirectory)
{
    EXPECT_EQ(run_in_child([] {
                  unsetenv("ZYN_TMPDIR");
                  psp_rdonly();
                  std::uint32_t counter = 0;
                  EXPECT_EQ(taken(psp_fileCreateTmpName(&counter, "b", "e", 0, PSP_THREAD_TAG),
                                  PSP_THREAD_TAG),
                            expected_name("", "b", &counter, 0, "e"));
                  return 0;
              }),
              0);
}

// More characters than a text can have, in the memory of a few: the same piece again and again.
class LongText {
  public:
    LongText()
    {
        const int fd = memfd_create("piece", 0);
        const std::string text(piece_, 'x');
        EXPECT_EQ(write(fd, text.data(), piece_), static_cast<ssize_t>(piece_));
        void* room = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); // NULs
        EXPECT_NE(room, MAP_FAILED);
        start_ = static_cast<char*>(room);
        for (std::size_t at = 0; at < length_; at += piece_)
            EXPECT_EQ(mmap(start_ + at, piece_, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0),
                      start_ + at);
        close(fd);
    }
    ~LongText()
    {
        munmap(start_, size_);
    }
    LongText(const LongText&) = delete;
    LongText& operator=(const LongText&) = delete;

    const char* text() const
    {
        return start_;
    }

  private:
    static constexpr std::size_t piece_ = std::size_t{1} << 21;
    static constexpr std::size_t length_ = std::size_t{1} << 31;
    static constexpr std::size_t size_ = length_ + 4096;
    char* start_ = nullptr;
};

TEST_F(FileUtil, TemporaryNameThatIsTooLongForATextIsNone)
{
    if (under_tsan)
        GTEST_SKIP() << "the sanitizer notes every byte";
    const LongText base;
    const PSP_MEMTAG tag = make_tag();
    std::uint32_t counter = 7;
    jmp_buf buffer;
    psp_resetTag(&buffer, tag);
    const char* name = "name";
    EXPECT_EQ(
        jumped_with(buffer,
                    [&] { name = psp_fileCreateTmpName(&counter, base.text(), "e", 0, tag); }),
        0)
        << "no memory is short";
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(counter, 8u);
    EXPECT_EQ(info_of(tag).used.current, 0u);
    destroy_tag(tag);
}

// ---- The switches of the process ----

TEST_F(FileUtil, ReadOnlyModeComparesAndAsksButNeitherCopiesNorRemoves)
{
    write_file(src_, "text");
    write_file(dest_, "old");
    EXPECT_EQ(run_in_child([this] {
                  psp_rdonly();
                  EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), ePSP_FAILURE);
                  EXPECT_EQ(psp_fileCopy(src_.c_str(), (dir_ / "new").c_str()), ePSP_FAILURE);
                  EXPECT_FALSE(file_exists(dir_ / "new"));
                  EXPECT_EQ(read_file(dest_), "old");
                  EXPECT_EQ(psp_fileRemove(src_.c_str()), ePSP_FAILURE);
                  EXPECT_EQ(psp_fileRemove((dir_ / "none").c_str()), ePSP_FAILURE);
                  EXPECT_TRUE(file_exists(src_));
                  EXPECT_EQ(psp_fileCmp(src_.c_str(), src_.c_str()), sOKAY);
                  EXPECT_EQ(psp_fileCmp(src_.c_str(), dest_.c_str()), ePSP_FAILURE);
                  EXPECT_EQ(psp_fileValidate(src_.c_str()), ZYN_TRUE);
                  EXPECT_EQ(psp_fileModTimeStat(src_.c_str(), 0, nullptr), sOKAY);
                  return 0;
              }),
              0);
}

TEST_F(FileUtil, DisklessModeKnowsNoFile)
{
    write_file(src_, "text");
    EXPECT_EQ(run_in_child([this] {
                  psp_nodisk();
                  EXPECT_EQ(psp_fileCopy(src_.c_str(), dest_.c_str()), ePSP_FAILURE);
                  EXPECT_FALSE(file_exists(dest_));
                  EXPECT_EQ(psp_fileCmp(src_.c_str(), src_.c_str()), ePSP_NOSOURCE);
                  EXPECT_EQ(psp_fileRemove(src_.c_str()), ePSP_FAILURE);
                  EXPECT_EQ(psp_fileRemoveEx((dir_ / "none").c_str(), 0), ePSP_FAILURE);
                  EXPECT_TRUE(file_exists(src_));
                  ZYN_BOOL_T isdir = 7;
                  EXPECT_EQ(psp_fileValidateEx(src_.c_str(), 0, &isdir), ZYN_FALSE);
                  EXPECT_EQ(psp_fileValidateEx("/", 0, &isdir), ZYN_FALSE);
                  EXPECT_EQ(isdir, 7);
                  time64_t when = 77;
                  EXPECT_EQ(psp_fileModTimeStat(src_.c_str(), 0, &when), eFILEOPEN);
                  EXPECT_EQ(when, 77);
                  return 0;
              }),
              0);
}

using StoppedFileUtil = RawTest;

TEST_F(StoppedFileUtil, OpensNothing)
{
    const TempDir dir;
    write_file(dir / "file", "");
    EXPECT_EQ(psp_fileCopy((dir / "file").c_str(), (dir / "new").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_fileCmp((dir / "file").c_str(), (dir / "file").c_str()), ePSP_NOSOURCE);
    EXPECT_FALSE(file_exists(dir / "new"));
}

} // namespace
