// Paths as text, the current directory, and directories made and removed.
#include "support/file_test.h"

#include "psp/path.h"

#include <cerrno>
#include <random>
#include <string>

using namespace psptest;

namespace {

class Path : public PspTest {
  protected:
    // The full path of a user's path; a joined one is the thread's.
    std::string full(const char* userpath)
    {
        const bool joined = userpath != nullptr && *userpath != '\0' && *userpath != '.';
        return taken(psp_fullpathEx(userpath, tag_), joined ? PSP_THREAD_TAG : tag_);
    }
    std::string current()
    {
        return taken(psp_currdirEx(tag_), tag_);
    }
    void SetUp() override
    {
        PspTest::SetUp();
        tag_ = make_tag();
        ASSERT_NE(tag_, nullptr);
    }
    void TearDown() override
    {
        destroy_tag(tag_);
        PspTest::TearDown();
    }

    TempDir dir_;
    PSP_MEMTAG tag_ = nullptr;
};

// ---- The current directory ----

TEST_F(Path, CurrentDirectoryIsTheProcesss)
{
    {
        const InDirectory here("/");
        EXPECT_EQ(current(), "/");
    }
    const InDirectory here(dir_.path());
    EXPECT_EQ(current(), dir_.path());
    EXPECT_EQ(taken(psp_currdirEx(PSP_THREAD_TAG), PSP_THREAD_TAG), dir_.path());
    EXPECT_EQ(taken(psp_currdirEx(PSP_GLOBAL_TAG), PSP_GLOBAL_TAG), dir_.path());
}

TEST_F(Path, CurrentDirectoryMayHaveAnyLength)
{
    // One level of each length, so that the path ends at every place of the growing buffer.
    const InDirectory here(dir_.path());
    std::string expected = dir_.path();
    for (std::size_t length = 1; length <= 25; length++) {
        const std::string name(length, 'd');
        ASSERT_EQ(mkdir(name.c_str(), 0777), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
        expected += "/" + name;
        EXPECT_EQ(current(), expected);
    }
    for (int i = 0; i < 10; i++) { // beyond 2000 bytes
        const std::string name(200, 'e');
        ASSERT_EQ(mkdir(name.c_str(), 0777), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
        expected += "/" + name;
        EXPECT_EQ(current(), expected);
    }
}

TEST_F(Path, CurrentDirectoryMayBeGone)
{
    const std::string gone = dir_ / "gone";
    ASSERT_EQ(mkdir(gone.c_str(), 0777), 0);
    const InDirectory here(gone);
    ASSERT_EQ(rmdir(gone.c_str()), 0);
    errno = 0;
    EXPECT_EQ(psp_currdirEx(tag_), nullptr);
    EXPECT_EQ(psp_errno(), ENOENT);
    EXPECT_EQ(psp_fullpathEx(".", tag_), nullptr);
    EXPECT_EQ(psp_fullpathEx("name", tag_), nullptr);
    EXPECT_EQ(taken(psp_fullpathEx("/name/", tag_), tag_), "/name");
}

TEST_F(Path, GivesBackWhatItTakes)
{
    const InDirectory here(dir_.path());
    expect_no_growth([this] {
        current();
        full("name/");
        full("./");
        EXPECT_EQ(taken(psp_fullpathEx("/a/", tag_), tag_), "/a");
        char* dir;
        char* file;
        EXPECT_EQ(psp_pathSplitEx("/a/b", &dir, &file, tag_), sOKAY);
        release(dir, tag_);
        release(file, tag_);
        EXPECT_EQ(psp_dirCreateAll("/dev/null/a/b"), ePSP_FAILURE);
    });
}

// ---- Full paths ----

TEST_F(Path, FullPathOfNothingIsTheCurrentDirectory)
{
    const InDirectory here(dir_.path());
    EXPECT_EQ(full(nullptr), dir_.path());
    EXPECT_EQ(full(""), dir_.path());
    EXPECT_EQ(full("."), dir_.path());
    EXPECT_EQ(full("./"), dir_.path());
}

TEST_F(Path, FullPathOfAnAbsoluteOneIsItselfLessOneSeparator)
{
    for (const auto& [path, expected] : {
             std::pair{"/tmp", "/tmp"},
             {"/tmp/", "/tmp"},
             {"/tmp//", "/tmp/"},
             {"//", "/"},
             {"/a/../b/./c//d", "/a/../b/./c//d"},
             {"/no\\change\\", "/no\\change\\"},
         })
        EXPECT_EQ(taken(psp_fullpathEx(path, tag_), tag_), expected) << path;
}

TEST_F(Path, FullPathOfARelativeOneIsJoinedAsItStands)
{
    const InDirectory here(dir_.path());
    for (const auto& [path, expected] : {
             std::pair{"x", "/x"},
             {"dir/", "/dir"},
             {"dir//", "/dir/"},
             {"a/../b", "/a/../b"},
             {"./a", "/./a"},
             {"..", "/.."},
             {"../", "/.."},
             {".//", "/./"},
             {"...", "/..."},
             {".a", "/.a"},
             {"/", "/"}, // shortened to nothing, and nothing is relative
         })
        EXPECT_EQ(taken(psp_fullpathEx(path, tag_), PSP_THREAD_TAG), dir_.path() + expected)
            << path;
}

TEST_F(Path, FullPathAtTheRootHasNoSeparatorToSpare)
{
    const InDirectory here("/");
    EXPECT_EQ(full("."), "");
    EXPECT_EQ(full(nullptr), "");
    EXPECT_EQ(full("x"), "/x");
    EXPECT_EQ(full("x/"), "/x");
    EXPECT_EQ(full("/"), "/");
}

TEST_F(Path, FullPathThatIsJoinedOutlivesTheTag)
{
    const InDirectory here(dir_.path());
    const PSP_MEMTAG tag = make_tag();
    const char* const joined = psp_fullpathEx("name", tag);
    destroy_tag(tag);
    EXPECT_EQ(taken(joined, PSP_THREAD_TAG), dir_ / "name");
}

// ---- Splitting ----

TEST_F(Path, SplitsAtTheLastSeparator)
{
    const struct {
        const char* path;
        const char* dir; // null as it comes back
        const char* file;
    } rows[] = {
        {"/a/b/c.txt", "/a/b/", "c.txt"},
        {"name", nullptr, "name"},
        {"/a/", "/a/", nullptr},
        {"/", "/", nullptr},
        {"/a", "/", "a"},
        {"a/b", "a/", "b"},
        {"//x", "//", "x"},
        {"a\\b", nullptr, "a\\b"},
        {"", nullptr, ""},
    };
    const auto text = [](const char* str) { return std::string(str == nullptr ? "(null)" : str); };
    for (const auto& row : rows) {
        char unset = 0;
        char* dir = &unset;
        char* file = &unset;
        EXPECT_EQ(psp_pathSplitEx(row.path, &dir, &file, tag_), sOKAY);
        EXPECT_EQ(taken(dir, tag_), text(row.dir)) << row.path;
        EXPECT_EQ(taken(file, tag_), text(row.file)) << row.path;
        // Either part alone, and neither.
        dir = file = &unset;
        EXPECT_EQ(psp_pathSplitEx(row.path, &dir, nullptr, tag_), sOKAY);
        EXPECT_EQ(taken(dir, tag_), text(row.dir)) << row.path;
        EXPECT_EQ(psp_pathSplitEx(row.path, nullptr, &file, tag_), sOKAY);
        EXPECT_EQ(taken(file, tag_), text(row.file)) << row.path;
        EXPECT_EQ(psp_pathSplitEx(row.path, nullptr, nullptr, tag_), sOKAY);
    }
}

TEST_F(Path, SplitPartsPutTogetherAreThePath)
{
    std::mt19937 random(7);
    for (int i = 0; i < 2000; i++) {
        std::string path(random() % 40, '\0');
        for (char& ch : path)
            ch = "abc./"[random() % 5];
        char* dir;
        char* file;
        ASSERT_EQ(psp_pathSplitEx(path.c_str(), &dir, &file, tag_), sOKAY);
        const std::size_t last = path.rfind('/');
        ASSERT_EQ(dir == nullptr, last == std::string::npos);
        ASSERT_EQ(file == nullptr, last == path.size() - 1 && !path.empty());
        const std::string dirpart = dir == nullptr ? "" : dir;
        ASSERT_EQ(dirpart + (file == nullptr ? "" : file), path);
        ASSERT_EQ(dirpart.size(), last + 1);
        release(dir, tag_);
        release(file, tag_);
    }
}

TEST_F(Path, SplitRefusesNull)
{
    EXPECT_EQ(psp_pathSplitEx(nullptr, nullptr, nullptr, tag_), eINVNULLARG);
}

TEST_F(Path, HasNoDrive)
{
    const char path[] = "c:/x";
    EXPECT_EQ(psp_pathStripDrive(path), path);
    EXPECT_EQ(psp_pathStripDrive(nullptr), nullptr);
}

TEST_F(Path, IsADirectoryByItsLastCharacter)
{
    EXPECT_EQ(psp_pathIsDir("/tmp"), sNOTFOUND) << "though there is one";
    EXPECT_EQ(psp_pathIsDir("x/"), sOKAY) << "though there is none";
    EXPECT_EQ(psp_pathIsDir("/"), sOKAY);
    EXPECT_EQ(psp_pathIsDir("a/b"), sNOTFOUND);
    EXPECT_EQ(psp_pathIsDir("a\\"), sNOTFOUND);
    EXPECT_EQ(psp_pathIsDir(""), eINVNULLARG);
    EXPECT_EQ(psp_pathIsDir(nullptr), eINVNULLARG);
}

// ---- Directories ----

bool is_directory(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

TEST_F(Path, DirectoryIsCreatedOnce)
{
    const std::string path = dir_ / "new";
    EXPECT_EQ(psp_dirCreate(path.c_str()), sOKAY);
    EXPECT_TRUE(is_directory(path));
    EXPECT_EQ(psp_dirCreate(path.c_str()), sDUPLICATE);
    write_file(dir_ / "file", "");
    EXPECT_EQ(psp_dirCreate((dir_ / "file").c_str()), sDUPLICATE);
    EXPECT_EQ(psp_dirCreate((dir_ / "file/below").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_dirCreate((dir_ / "none/below").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_errno(), ENOENT);
    EXPECT_EQ(psp_dirCreate(""), ePSP_FAILURE);
    EXPECT_EQ(psp_dirCreate("/"), sDUPLICATE);
    EXPECT_EQ(psp_dirCreate(nullptr), ePSP_FAILURE);
}

TEST_F(Path, DirectoryHasMode777LessTheUmask)
{
    for (const mode_t mask : {0u, 027u}) {
        const std::string path = dir_ / std::to_string(mask);
        const mode_t before = umask(mask);
        EXPECT_EQ(psp_dirCreate(path.c_str()), sOKAY);
        umask(before);
        struct stat status;
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0777 & ~mask);
    }
}

TEST_F(Path, DirectoryIsRemovedWhenItIsEmpty)
{
    const std::string path = dir_ / "new";
    EXPECT_EQ(psp_dirRemove(path.c_str()), sOKAY) << "nothing to remove";
    EXPECT_EQ(psp_dirRemove((dir_ / "none/below").c_str()), sOKAY);
    ASSERT_EQ(psp_dirCreate(path.c_str()), sOKAY);
    write_file(path + "/file", "");
    EXPECT_EQ(psp_dirRemove(path.c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_dirRemove((path + "/file").c_str()), ePSP_FAILURE) << "a file";
    EXPECT_EQ(psp_errno(), ENOTDIR);
    EXPECT_TRUE(file_exists(path + "/file"));
    ASSERT_EQ(unlink((path + "/file").c_str()), 0);
    EXPECT_EQ(psp_dirRemove(path.c_str()), sOKAY);
    EXPECT_FALSE(file_exists(path));
    EXPECT_EQ(psp_dirRemove(nullptr), ePSP_FAILURE);
}

TEST_F(Path, DirectoryIsSynced)
{
    write_file(dir_ / "file", "");
    EXPECT_EQ(psp_dirSync(dir_.c_str()), sOKAY);
    EXPECT_EQ(psp_dirSync((dir_ / "file").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_errno(), ENOTDIR);
    EXPECT_EQ(psp_dirSync((dir_ / "none").c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_errno(), ENOENT);
    EXPECT_EQ(psp_dirSync("/proc"), ePSP_FAILURE) << "opens but does not sync";
    EXPECT_EQ(psp_dirSync(nullptr), ePSP_FAILURE);
}

TEST_F(Path, MissingParentsAreCreated)
{
    const InDirectory here(dir_.path());
    EXPECT_EQ(psp_dirCreateAll("a/b/c"), sOKAY);
    EXPECT_TRUE(is_directory("a/b/c"));
    EXPECT_EQ(psp_dirCreateAll("a/b/c"), sDUPLICATE);
    EXPECT_EQ(psp_dirCreateAll("a/b/d"), sOKAY);
    EXPECT_EQ(psp_dirCreateAll((dir_ / "e/f").c_str()), sOKAY);
    EXPECT_TRUE(is_directory("e/f"));
    EXPECT_EQ(psp_dirCreateAll("one"), sOKAY);
    EXPECT_TRUE(is_directory("one"));
    EXPECT_EQ(psp_dirCreateAll("g//h"), sOKAY);
    EXPECT_TRUE(is_directory("g/h"));
    // With a separator at its end the last level is made on the way there.
    EXPECT_EQ(psp_dirCreateAll("i/j/"), sDUPLICATE);
    EXPECT_TRUE(is_directory("i/j"));
}

TEST_F(Path, BackslashesSeparateOnlyWhereParentsAreMissing)
{
    const InDirectory here(dir_.path());
    EXPECT_EQ(psp_dirCreateAll("x/a\\b"), sOKAY);
    EXPECT_TRUE(is_directory("x/a/b"));
    EXPECT_EQ(psp_dirCreateAll("x/a\\b"), sOKAY) << "now that x exists, one entry of that name";
    EXPECT_TRUE(is_directory("x/a\\b"));
    EXPECT_EQ(psp_dirCreateAll("a\\b"), sOKAY);
    EXPECT_TRUE(is_directory("a\\b"));
    EXPECT_FALSE(file_exists("a"));
    EXPECT_EQ(psp_dirCreateAll("y\\z/w"), sOKAY);
    EXPECT_TRUE(is_directory("y/z/w"));
    EXPECT_FALSE(file_exists("y\\z"));
    EXPECT_EQ(psp_dirCreate("p\\q"), sOKAY);
    EXPECT_TRUE(is_directory("p\\q"));
}

TEST_F(Path, CreatingParentsStopsAtTheFirstThatFails)
{
    const InDirectory here(dir_.path());
    write_file("file", "");
    EXPECT_EQ(psp_dirCreateAll("file/a/b"), ePSP_FAILURE);
    EXPECT_EQ(psp_errno(), ENOTDIR);
    const std::string too_long = "p/" + std::string(300, 'n') + "/c";
    EXPECT_EQ(psp_dirCreateAll(too_long.c_str()), ePSP_FAILURE);
    EXPECT_EQ(psp_errno(), ENAMETOOLONG);
    EXPECT_TRUE(is_directory("p")) << "made before the failure";
    EXPECT_EQ(psp_dirCreateAll(""), ePSP_FAILURE);
    EXPECT_EQ(psp_dirCreateAll(nullptr), ePSP_FAILURE);
    EXPECT_EQ(psp_dirCreateAll("file"), sDUPLICATE);
}

// ---- The switches of the process ----

TEST_F(Path, DisklessModeTouchesNoDirectory)
{
    EXPECT_EQ(run_in_child([this] {
                  const InDirectory here(dir_.path());
                  EXPECT_EQ(mkdir("old", 0777), 0);
                  psp_nodisk();
                  EXPECT_EQ(current(), "/");
                  EXPECT_EQ(full("."), "");
                  EXPECT_EQ(full("x"), "/x");
                  EXPECT_EQ(full("/"), "/");
                  EXPECT_EQ(psp_dirCreate("new"), ePSP_FAILURE);
                  EXPECT_EQ(psp_dirCreate("old"), ePSP_FAILURE);
                  EXPECT_EQ(psp_dirCreateAll("new/below"), ePSP_FAILURE);
                  EXPECT_EQ(psp_dirCreateAll("old"), ePSP_FAILURE);
                  EXPECT_EQ(psp_dirRemove("old"), ePSP_FAILURE);
                  EXPECT_EQ(psp_dirRemove("none"), ePSP_FAILURE);
                  EXPECT_FALSE(file_exists("new"));
                  EXPECT_TRUE(file_exists("old"));
                  EXPECT_EQ(psp_dirSync("old"), sOKAY);
                  EXPECT_EQ(psp_pathIsDir("x/"), sOKAY);
                  return 0;
              }),
              0);
}

TEST_F(Path, ReadOnlyModeDoesNotConcernDirectories)
{
    EXPECT_EQ(run_in_child([this] {
                  const InDirectory here(dir_.path());
                  psp_rdonly();
                  EXPECT_EQ(psp_dirCreate("new"), sOKAY);
                  EXPECT_EQ(psp_dirCreateAll("a/b"), sOKAY);
                  EXPECT_EQ(psp_dirRemove("new"), sOKAY);
                  EXPECT_EQ(psp_dirSync("a"), sOKAY);
                  EXPECT_EQ(current(), dir_.path());
                  return 0;
              }),
              0);
}

} // namespace
