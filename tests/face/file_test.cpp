// Files, temporary files and directories.
#include "support/psp_test.h"

#include "psp/file.hpp"
#include "psp/fileutil.hpp"
#include "psp/scan.hpp"
#include "psp/tmpdir.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

using psptest::file_exists;
using psptest::open_descriptors;
using psptest::read_file;
using psptest::TempDir;
using psptest::write_file;

namespace {

class FaceFile : public psptest::PspTest {};

// ---- Files ----

TEST_F(FaceFile, IsWrittenReadAndClosed)
{
    TempDir dir;
    const std::string name = dir / "file";
    const std::size_t before = open_descriptors();
    {
        psp::file file = psp::file::open(name.c_str(), O_RDWR | O_CREAT);
        ASSERT_TRUE(file);
        EXPECT_EQ(file.write("0123456789", 10), 10u);
        EXPECT_EQ(file.write_at(2, "xy", 2), 2u);
        EXPECT_EQ(file.length(), 10u);
        EXPECT_EQ(file.sync(), sOKAY);
        PSP_FILE_OFFSET at = 0;
        EXPECT_EQ(file.seek(static_cast<PSP_FILE_OFFSET>(-7), SEEK_CUR, &at), sOKAY);
        EXPECT_EQ(at, 3u);
        char text[8] = "";
        EXPECT_EQ(file.read(text, 3), 3u);
        EXPECT_STREQ(text, "y45");
        EXPECT_EQ(file.read_at(0, text, 4), 4u);
        EXPECT_STREQ(text, "01xy");
        EXPECT_EQ(file.set_size(5), sOKAY);
        EXPECT_EQ(file.page_out(0, 5), sOKAY);
        EXPECT_EQ(open_descriptors(), before + 1);
    }
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(read_file(name), "01xy4");
}

TEST_F(FaceFile, IsEmptyWhenItCannotBeOpened)
{
    TempDir dir;
    const psp::file file = psp::file::open((dir / "missing").c_str(), O_RDONLY);
    EXPECT_FALSE(file);
    EXPECT_EQ(psp_errno(), ENOENT);
}

TEST_F(FaceFile, EmptyOneRefusesEverything)
{
    psp::file file;
    char byte = 0;
    EXPECT_EQ(file.read(&byte, 1), 0u);
    EXPECT_EQ(file.write(&byte, 1), 0u);
    EXPECT_EQ(file.read_at(0, &byte, 1), 0u);
    EXPECT_EQ(file.write_at(0, &byte, 1), 0u);
    EXPECT_EQ(file.length(), 0u);
    EXPECT_EQ(file.seek(0, SEEK_SET), eINVNULLARG);
    EXPECT_EQ(file.set_size(0), eINVNULLARG);
    EXPECT_EQ(file.sync(), eINVNULLARG);
    EXPECT_EQ(file.page_out(0, 1), eINVNULLARG);
    EXPECT_EQ(file.take_lock(), eINVNULLARG);
    file.give_lock();
}

TEST_F(FaceFile, LockExcludesAnotherHandleUntilItIsGivenOrClosed)
{
    TempDir dir;
    const std::string name = dir / "file";
    psp::file first = psp::file::open(name.c_str(), O_RDWR | O_CREAT);
    psp::file second = psp::file::open(name.c_str(), O_RDWR);
    EXPECT_EQ(first.take_lock(), sOKAY);
    EXPECT_EQ(second.take_lock(), ePSP_FAILURE);
    first.give_lock();
    EXPECT_EQ(second.take_lock(), sOKAY);
    EXPECT_EQ(first.take_lock(), ePSP_FAILURE);
    second.reset();
    EXPECT_EQ(first.take_lock(), sOKAY);
}

TEST_F(FaceFile, StandardStreamStaysOpenBehindIt)
{
    psptest::CapturedFd captured(1);
    {
        psp::file out = psp::file::open("stdout", O_WRONLY);
        EXPECT_EQ(out.write("one ", 4), 4u);
    }
    psp::file again = psp::file::open("stdout", O_WRONLY);
    EXPECT_EQ(again.write("two", 3), 3u);
    EXPECT_EQ(captured.finish(), "one two");
}

// ---- Temporary files ----

class TemporaryFile : public FaceFile {
  protected:
    void SetUp() override
    {
        FaceFile::SetUp();
        unsetenv("ZYN_TMPDIR");
        psp_setTmpDir(dir.c_str());
    }
    void TearDown() override
    {
        psp_setTmpDir(nullptr);
        EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
        FaceFile::TearDown();
    }
    TempDir dir;
};

TEST_F(TemporaryFile, IsThereUntilItsOwnerGoes)
{
    std::string name;
    {
        psp::temporary_file temporary = psp::temporary_file::create("sort", "run");
        ASSERT_TRUE(temporary);
        name = temporary.name();
        EXPECT_EQ(name.find(dir.path() + "/sort_"), 0u) << name;
        EXPECT_EQ(name.substr(name.size() - 4), ".run");
        EXPECT_EQ(temporary.file().write("abc", 3), 3u);
        EXPECT_EQ(read_file(name), "abc");
    }
    EXPECT_FALSE(file_exists(name));
}

TEST_F(TemporaryFile, HasANameOfItsOwn)
{
    std::vector<psp::temporary_file> files;
    std::set<std::string> names;
    for (int i = 0; i < 20; i++) {
        files.push_back(psp::temporary_file::create());
        ASSERT_TRUE(files.back());
        names.insert(files.back().name());
    }
    EXPECT_EQ(names.size(), 20u);
}

TEST_F(TemporaryFile, PassesANameOverThatExists)
{
    // The names that come next are taken by links that lead nowhere, which O_EXCL refuses.
    std::string name;
    {
        psp::temporary_file first = psp::temporary_file::create("a", "b");
        name = first.name();
    }
    const std::size_t digits = name.rfind('_') + 1;
    const int number = std::stoi(name.substr(digits, 3));
    std::set<std::string> taken;
    for (int i = 1; i <= 3; i++) {
        char next[16];
        std::snprintf(next, sizeof next, "%03d.b", number + i);
        taken.insert(name.substr(0, digits) + next);
        ASSERT_EQ(symlink("/nowhere", taken.rbegin()->c_str()), 0);
    }
    {
        psp::temporary_file next = psp::temporary_file::create("a", "b");
        ASSERT_TRUE(next);
        EXPECT_EQ(taken.count(next.name()), 0u);
        EXPECT_EQ(std::string(next.name()).substr(0, digits), name.substr(0, digits));
    }
    for (const std::string& link : taken)
        EXPECT_EQ(unlink(link.c_str()), 0) << "nobody else's file is removed";
}

TEST_F(TemporaryFile, MovesAndMayBeKept)
{
    psp::temporary_file first = psp::temporary_file::create();
    const std::string name = first.name();
    psp::temporary_file second = std::move(first);
    EXPECT_FALSE(first); // NOLINT: what is left behind is told
    EXPECT_EQ(first.name(), nullptr);
    second.file().write("abc", 3);
    psp::temporary_file& itself = second;
    second = std::move(itself);
    ASSERT_TRUE(second);
    const psp::string kept = second.keep();
    EXPECT_FALSE(second);
    EXPECT_EQ(kept.view(), name);
    second = psp::temporary_file::create();
    EXPECT_EQ(read_file(name), "abc");
    EXPECT_EQ(unlink(name.c_str()), 0);
}

TEST_F(TemporaryFile, IsEmptyWithoutADirectory)
{
    psp_setTmpDir(nullptr);
    setenv("ZYN_TMPDIR", (dir / "missing").c_str(), 1);
    const psp::temporary_file temporary = psp::temporary_file::create();
    EXPECT_FALSE(temporary);
    EXPECT_EQ(temporary.name(), nullptr);
    unsetenv("ZYN_TMPDIR");
}

TEST_F(TemporaryFile, IsEmptyWhereNoneMayBeMade)
{
    const int status = psptest::run_in_child([&] {
        alarm(10); // in place of looking for a free name without end
        setenv("ZYN_TMPDIR", dir.c_str(), 1);
        psp_rdonly();
        errno = EEXIST; // left by an earlier call
        return psp::temporary_file::create() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
}

// ---- Directories ----

std::set<std::string> names_in(psp::scan& scan)
{
    std::set<std::string> names;
    for (const psp::scan::entry& found : scan)
        names.insert(std::string(found.name) + (found.is_directory ? "/" : ""));
    return names;
}

TEST_F(FaceFile, ScanGoesThroughTheNamesThatMatch)
{
    TempDir dir;
    for (const char* name : {"a.log", "b.log", "c.txt"})
        write_file(dir / name, "");
    ASSERT_EQ(mkdir((dir / "d.log").c_str(), 0777), 0);
    psp::scan logs = psp::scan::open(dir.c_str(), "*.log");
    ASSERT_TRUE(logs);
    EXPECT_EQ(names_in(logs), (std::set<std::string>{"a.log", "b.log", "d.log/"}));
    psp::scan all = psp::scan::open(dir.c_str());
    EXPECT_EQ(names_in(all),
              (std::set<std::string>{"./", "../", "a.log", "b.log", "c.txt", "d.log/"}));
}

TEST_F(FaceFile, ScanThatMatchesNothingIsAnEmptyRange)
{
    TempDir dir;
    psp::scan scan = psp::scan::open(dir.c_str(), "*.log");
    EXPECT_TRUE(scan);
    EXPECT_TRUE(scan.begin() == scan.end());
}

TEST_F(FaceFile, ScanOfAMissingDirectoryIsEmptyAndMayBeGoneThrough)
{
    TempDir dir;
    psp::scan scan = psp::scan::open((dir / "missing").c_str());
    EXPECT_EQ(psp_errno(), ENOENT);
    EXPECT_FALSE(scan);
    EXPECT_EQ(names_in(scan), std::set<std::string>{});
    psp::scan moved_from = psp::scan::open(dir.c_str());
    const psp::scan moved_to = std::move(moved_from);
    EXPECT_TRUE(moved_to);
    EXPECT_EQ(names_in(moved_from), std::set<std::string>{}); // NOLINT
}

TEST_F(FaceFile, ScanCanBeLeftInTheMiddleAndGoneOnWith)
{
    TempDir dir;
    for (const char* name : {"a", "b", "c"})
        write_file(dir / name, "");
    std::set<std::string> names;
    psp::scan scan = psp::scan::open(dir.c_str(), "?");
    for (const psp::scan::entry& found : scan) {
        if (found.name != std::string("."))
            names.insert(found.name);
        if (names.size() == 2)
            break;
    }
    for (const psp::scan::entry& found : scan)
        if (found.name != std::string("."))
            names.insert(found.name);
    EXPECT_EQ(names, (std::set<std::string>{"a", "b", "c"}));
}

TEST_F(FaceFile, ScanIsARangeForAlgorithms)
{
    static_assert(std::is_base_of_v<std::input_iterator_tag,
                                    std::iterator_traits<psp::scan::iterator>::iterator_category>);
    TempDir dir;
    for (const char* name : {"a", "b", "c"})
        write_file(dir / name, "");
    psp::scan scan = psp::scan::open(dir.c_str());
    const auto files = std::count_if(scan.begin(), scan.end(), [](const psp::scan::entry& found) {
        return !found.is_directory;
    });
    EXPECT_EQ(files, 3);
    psp::scan::iterator at = scan.begin();
    EXPECT_TRUE(at == scan.end());
    EXPECT_FALSE(at != scan.end());
}

TEST_F(FaceFile, ScanIteratorStepsInBothWays)
{
    TempDir dir;
    psp::scan scan = psp::scan::open(dir.c_str());
    psp::scan::iterator at = scan.begin();
    ASSERT_TRUE(at != scan.end());
    EXPECT_TRUE(at->is_directory);
    at++;
    ASSERT_TRUE(at != scan.end());
    EXPECT_TRUE((*at).is_directory);
    EXPECT_TRUE(++at == scan.end());
}

} // namespace
