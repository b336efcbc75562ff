// The directory for temporary files: the order of the candidates, the choice and its life.
#include "support/file_test.h"

#include "psp/tmpdir.h"

#include <cstring>
#include <string>

using namespace psptest;

namespace {

std::string tmpdir(PSP_MEMTAG tag = PSP_THREAD_TAG)
{
    return taken(psp_tmpdir(tag), tag);
}

void forget_environment()
{
    for (const char* name : {"ZYN_TMPDIR", "TMPDIR", "TEMPDIR"})
        unsetenv(name);
}

// Every test runs in a child: the environment and the choice are the process's.
class TmpDir : public PspTest {
  protected:
    void SetUp() override
    {
        PspTest::SetUp();
        for (const std::string& path : {user_, first_, second_})
            ASSERT_EQ(mkdir(path.c_str(), 0777), 0);
    }
    template <class Body>
    static void in_child(Body body)
    {
        EXPECT_EQ(run_in_child([&] {
                      forget_environment();
                      body();
                      return 0;
                  }),
                  0);
    }

    TempDir dir_;
    const std::string user_ = dir_ / "user";
    const std::string first_ = dir_ / "first";
    const std::string second_ = dir_ / "second";
    const std::string none_ = dir_ / "none";
};

// ---- The candidates ----

TEST_F(TmpDir, IsTmpByDefault)
{
    in_child([] { EXPECT_EQ(tmpdir(), "/tmp"); });
}

TEST_F(TmpDir, IsTheFirstUsableCandidate)
{
    const struct {
        const std::string& user;
        const std::string& tmpdir;
        const std::string& tempdir;
        std::string expected;
    } rows[] = {
        {user_, first_, second_, user_},  {none_, first_, second_, first_},
        {none_, none_, second_, second_}, {none_, none_, none_, "/tmp"},
        {user_, none_, none_, user_},     {none_, first_, none_, first_},
    };
    for (const auto& row : rows)
        in_child([&] {
            psp_setTmpDir(row.user.c_str());
            setenv("TMPDIR", row.tmpdir.c_str(), 1);
            setenv("TEMPDIR", row.tempdir.c_str(), 1);
            EXPECT_EQ(tmpdir(), row.expected);
        });
}

TEST_F(TmpDir, NeedsAWritableDirectory)
{
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    ASSERT_EQ(chmod(first_.c_str(), 0555), 0);
    ASSERT_EQ(chmod(second_.c_str(), 0777), 0);
    in_child([this] {
        setenv("TMPDIR", first_.c_str(), 1);
        setenv("TEMPDIR", second_.c_str(), 1);
        drop_privileges();
        EXPECT_EQ(psp_dirWritable(first_.c_str()), ZYN_FALSE);
        EXPECT_EQ(tmpdir(), second_);
    });
}

TEST_F(TmpDir, IsTheEnvironmentsWhateverThatIs)
{
    in_child([this] {
        psp_setTmpDir(user_.c_str());
        EXPECT_EQ(tmpdir(), user_);
        setenv("ZYN_TMPDIR", none_.c_str(), 1);
        EXPECT_EQ(tmpdir(), none_) << "over what was chosen";
        EXPECT_FALSE(file_exists(none_)) << "and not tried";
        setenv("ZYN_TMPDIR", "", 1);
        EXPECT_EQ(tmpdir(), "");
        unsetenv("ZYN_TMPDIR");
        EXPECT_EQ(tmpdir(), user_) << "nor kept";
    });
    in_child([this] {
        setenv("ZYN_TMPDIR", none_.c_str(), 1);
        EXPECT_EQ(tmpdir(), none_);
        unsetenv("ZYN_TMPDIR");
        setenv("TMPDIR", first_.c_str(), 1);
        EXPECT_EQ(tmpdir(), first_);
    });
}

// ---- The choice ----

TEST_F(TmpDir, IsChosenOnce)
{
    in_child([this] {
        setenv("TMPDIR", first_.c_str(), 1);
        EXPECT_EQ(tmpdir(), first_);
        setenv("TMPDIR", second_.c_str(), 1);
        EXPECT_EQ(tmpdir(), first_);
        EXPECT_EQ(rmdir(first_.c_str()), 0);
        EXPECT_EQ(tmpdir(), first_) << "not tried again";
        psp_rdonly();
        EXPECT_EQ(tmpdir(), first_);
    });
}

TEST_F(TmpDir, IsChosenAnewWhenTheApplicationSetsOne)
{
    in_child([this] {
        setenv("TMPDIR", first_.c_str(), 1);
        EXPECT_EQ(tmpdir(), first_);
        EXPECT_EQ(psp_setTmpDir(user_.c_str()), sOKAY);
        EXPECT_EQ(tmpdir(), user_);
        EXPECT_EQ(psp_setTmpDir(none_.c_str()), sOKAY) << "not tried here";
        EXPECT_EQ(tmpdir(), first_);
        EXPECT_EQ(psp_setTmpDir(user_.c_str()), sOKAY);
        setenv("TMPDIR", second_.c_str(), 1);
        EXPECT_EQ(psp_setTmpDir(nullptr), sOKAY);
        EXPECT_EQ(tmpdir(), second_);
    });
}

TEST_F(TmpDir, IsChosenAnewAfterAStop)
{
    in_child([this] {
        setenv("TMPDIR", first_.c_str(), 1);
        EXPECT_EQ(tmpdir(), first_);
        setenv("TMPDIR", second_.c_str(), 1);
        psp_term();
        EXPECT_EQ(memory_in_use(), 0u);
        EXPECT_EQ(psp_tmpdir(PSP_GLOBAL_TAG), nullptr);
        EXPECT_EQ(psp_init(), sOKAY);
        EXPECT_EQ(tmpdir(), second_);
    });
}

TEST_F(TmpDir, IsANewCopyEachTime)
{
    in_child([] {
        const PSP_MEMTAG tag = make_tag();
        const char* const one = psp_tmpdir(tag);
        const char* const other = psp_tmpdir(tag);
        EXPECT_NE(one, other);
        EXPECT_STREQ(one, other);
        const_cast<char*>(one)[1] = 'X';
        EXPECT_STREQ(other, "/tmp");
        destroy_tag(tag);
        EXPECT_EQ(tmpdir(PSP_GLOBAL_TAG), "/tmp");
    });
}

TEST_F(TmpDir, LeavesNothingBehind)
{
    in_child([this] {
        psp_setTmpDir(user_.c_str());
        EXPECT_EQ(tmpdir(), user_);
        EXPECT_TRUE(std::filesystem::is_empty(user_));
        expect_no_growth([this] {
            psp_setTmpDir(user_.c_str()); // a new search each time
            EXPECT_EQ(tmpdir(), user_);
        });
        EXPECT_TRUE(std::filesystem::is_empty(user_));
    });
}

TEST_F(TmpDir, IsNullInReadOnlyAndDisklessMode)
{
    for (void (*forbid)() : {psp_rdonly, psp_nodisk})
        in_child([&] {
            psp_setTmpDir(user_.c_str());
            forbid();
            EXPECT_EQ(psp_tmpdir(PSP_THREAD_TAG), nullptr);
            EXPECT_EQ(psp_tmpdir(PSP_THREAD_TAG), nullptr);
            EXPECT_EQ(psp_dirWritable(user_.c_str()), ZYN_FALSE);
            EXPECT_TRUE(std::filesystem::is_empty(user_));
            setenv("ZYN_TMPDIR", user_.c_str(), 1);
            EXPECT_EQ(tmpdir(), user_);
        });
}

// ---- The application's directory ----

TEST_F(TmpDir, OfTheApplicationIsCutAt511Characters)
{
    in_child([] {
        EXPECT_EQ(sizeof psp_usertmpdir, 512u);
        for (const std::size_t length : {0u, 1u, 510u, 511u, 512u, 513u, 5000u}) {
            const std::string name(length, 'n');
            std::memset(psp_usertmpdir, 'x', sizeof psp_usertmpdir);
            EXPECT_EQ(psp_setTmpDir(name.c_str()), sOKAY);
            EXPECT_EQ(std::string(psp_usertmpdir), name.substr(0, 511));
        }
        EXPECT_EQ(psp_setTmpDir(nullptr), sOKAY);
        EXPECT_STREQ(psp_usertmpdir, "");
    });
}

TEST_F(TmpDir, OfTheApplicationMaySetItselfAgain)
{
    in_child([this] {
        psp_setTmpDir(user_.c_str());
        EXPECT_EQ(psp_setTmpDir(psp_usertmpdir), sOKAY);
        EXPECT_EQ(psp_usertmpdir, user_);
    });
}

TEST_F(TmpDir, OfTheApplicationOutlivesTheLibrary)
{
    in_child([this] {
        psp_term();
        EXPECT_EQ(psp_setTmpDir(user_.c_str()), sOKAY) << "before the start";
        EXPECT_EQ(psp_init(), sOKAY);
        EXPECT_EQ(tmpdir(), user_);
        psp_term();
        EXPECT_EQ(psp_usertmpdir, user_);
        EXPECT_EQ(psp_init(), sOKAY);
        EXPECT_EQ(tmpdir(), user_);
    });
}

// ---- Trying a directory ----

TEST_F(TmpDir, IsWritableWhenAFileCanBeMadeThere)
{
    write_file(dir_ / "file", "");
    EXPECT_EQ(psp_dirWritable(user_.c_str()), ZYN_TRUE);
    EXPECT_EQ(psp_dirWritable((user_ + "/").c_str()), ZYN_TRUE);
    EXPECT_TRUE(std::filesystem::is_empty(user_));
    EXPECT_EQ(psp_dirWritable(none_.c_str()), ZYN_FALSE);
    EXPECT_FALSE(file_exists(none_));
    EXPECT_EQ(psp_dirWritable((dir_ / "file").c_str()), ZYN_FALSE);
    EXPECT_EQ(psp_dirWritable(nullptr), ZYN_FALSE);
    const InDirectory here(user_);
    EXPECT_EQ(psp_dirWritable("."), ZYN_TRUE);
    EXPECT_TRUE(std::filesystem::is_empty(user_));
}

TEST_F(TmpDir, IsTriedUnderANameThatIsCutWhenTooLong)
{
    // The name of the trial reaches beyond its 511 bytes and still names a file in there.
    std::string path = user_;
    while (path.size() < 495) {
        const std::size_t rest = 495 - path.size();
        path += "/" + std::string(rest > 101 ? 100 : rest - 1, 'd');
        if (path.back() == '/')
            path += 'd';
        ASSERT_EQ(mkdir(path.c_str(), 0777), 0) << path;
    }
    EXPECT_EQ(psp_dirWritable(path.c_str()), ZYN_TRUE);
    EXPECT_TRUE(std::filesystem::is_empty(path));
}

using StoppedTmpDir = RawTest;

TEST_F(StoppedTmpDir, ChoosesNothing)
{
    EXPECT_EQ(psp_tmpdir(PSP_THREAD_TAG), nullptr);
    EXPECT_EQ(psp_dirWritable("/tmp"), ZYN_FALSE);
}

} // namespace
