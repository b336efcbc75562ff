// The search for the directory for temporary files: what is tried, in which order, and what becomes
// of it when the system or the memory refuses.
#include "file_trace.h"
#include "support/fault_test.h"
#include "support/file_test.h"

#include "psp/process.h"
#include "psp/thread.h"
#include "psp/tmpdir.h"

#include <cerrno>
#include <cinttypes>
#include <csetjmp>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

extern "C" ZYN_RETCODE __real_psp_enterCritSec();

using namespace psptest;

namespace {

using Lines = Trace::Lines;

// The files that are tried, and the one directory below which they can be made.
std::vector<std::string> tried;
std::string usable;

int tried_open(const char* path, int flags, ...)
{
    EXPECT_EQ(flags, O_RDWR | O_CREAT);
    tried.emplace_back(path);
    const std::string dir = tried.back().substr(0, tried.back().rfind('/'));
    if (dir != usable) {
        errno = EACCES;
        return -1;
    }
    return __real_open("/dev/null", O_RDWR);
}

std::string probe_in(const std::string& dir)
{
    char name[128];
    std::snprintf(name, sizeof name, "/zyn_dirtest_tmp_%lX_0x%" PRIxPTR,
                  static_cast<unsigned long>(getpid()),
                  static_cast<std::uintptr_t>(psp_threadId()));
    return dir + name;
}

class TmpDirFault : public FaultTest {
  protected:
    // In a child with none of the variables set, and with chosen directories.
    template <class Body>
    void in_child(Body body)
    {
        EXPECT_EQ(run_in_child([&] {
                      for (const char* name : {"ZYN_TMPDIR", "TMPDIR", "TEMPDIR"})
                          unsetenv(name);
                      tried.clear();
                      body();
                      return 0;
                  }),
                  0);
    }

    TempDir dir_;
};

TEST_F(TmpDirFault, ChoosingUnlocksWhatItLocks)
{
    in_child([&] {
        setenv("TMPDIR", dir_.c_str(), 1);
        const Fault locks("pthread_mutex_lock");
        const Fault unlocks("pthread_mutex_unlock");
        const char* const dir = psp_tmpdir(PSP_THREAD_TAG);
        EXPECT_STREQ(dir, dir_.c_str());
        EXPECT_GE(locks.calls(), 1);
        EXPECT_EQ(unlocks.calls(), locks.calls());
        psp_freeMem(dir, PSP_THREAD_TAG, __FILE__, __LINE__);
    });
}

TEST_F(TmpDirFault, CandidatesAreTriedInOrderUntilOneIsUsable)
{
    const std::vector<std::string> candidates = {"/user", "/first", "/second", "/tmp", "/current"};
    for (std::size_t chosen = 0; chosen <= candidates.size(); chosen++)
        in_child([&] {
            Fault::replace("open", tried_open);
            Fault::replace(
                "getcwd",
                +[](char* buffer, std::size_t) { return std::strcpy(buffer, "/current"); });
            psp_setTmpDir("/user");
            setenv("TMPDIR", "/first", 1);
            setenv("TEMPDIR", "/second", 1);
            const bool found = chosen < candidates.size();
            usable = found ? candidates[chosen] : "none of them";
            EXPECT_EQ(taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG),
                      found ? candidates[chosen] : "(null)");
            std::vector<std::string> expected;
            for (std::size_t i = 0; i <= chosen && i < candidates.size(); i++)
                expected.push_back(probe_in(candidates[i]));
            EXPECT_EQ(tried, expected);
            // Again: a choice is kept, a search without one repeated.
            psp_freeMem(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG, __FILE__, __LINE__);
            EXPECT_EQ(tried.size(), found ? expected.size() : 2 * expected.size());
        });
}

TEST_F(TmpDirFault, CandidatesThatAreNotSetAreNotTried)
{
    in_child([] {
        Fault::replace("open", tried_open);
        usable = "/tmp";
        EXPECT_EQ(taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG), "/tmp");
        EXPECT_EQ(tried, std::vector<std::string>{probe_in("/tmp")});
        // An empty value is set all the same.
        tried.clear();
        setenv("TMPDIR", "", 1);
        usable = "";
        psp_setTmpDir("");
        EXPECT_EQ(taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG), "");
        EXPECT_EQ(tried, std::vector<std::string>{probe_in("")});
    });
}

TEST_F(TmpDirFault, TheEnvironmentsOwnIsNotTried)
{
    in_child([] {
        const Fault opens("open");
        setenv("ZYN_TMPDIR", "/nowhere", 1);
        EXPECT_EQ(taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG), "/nowhere");
        EXPECT_EQ(opens.calls(), 0);
    });
}

TEST_F(TmpDirFault, ATrialIsOpenedClosedAndRemoved)
{
    Trace trace;
    EXPECT_EQ(psp_dirWritable(dir_.c_str()), ZYN_TRUE);
    const std::string name = probe_in("").substr(1);
    EXPECT_EQ(trace.take(),
              (Lines{"open " + name + " 0x42 0666", "close " + name, "remove " + name}));
    {
        const Fault removing("remove", 1);
        EXPECT_EQ(psp_dirWritable(dir_.c_str()), ZYN_TRUE) << "its removal does not count";
    }
    EXPECT_EQ(psp_dirWritable(dir_.c_str()), ZYN_TRUE) << "nor does a file that is left";
    EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(TmpDirFault, ATrialsNameIsCutAt511Bytes)
{
    Fault::replace("open", tried_open);
    usable = "";
    for (const std::size_t length : {400u, 495u, 510u, 511u, 600u}) {
        tried.clear();
        const std::string dir = "/" + std::string(length - 1, 'd');
        psp_dirWritable(dir.c_str());
        EXPECT_EQ(tried, std::vector<std::string>{probe_in(dir).substr(0, 511)});
    }
    tried = {};
    usable = {};
}

std::string found_by_another;

// Enters the critical section that another thread has just been in, and has searched there.
ZYN_RETCODE enter_behind_another()
{
    Fault::replace("psp_enterCritSec", __real_psp_enterCritSec);
    std::thread([] {
        found_by_another = taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG);
    }).join();
    return __real_psp_enterCritSec();
}

TEST_F(TmpDirFault, SearchBehindAnotherThreadTakesItsChoice)
{
    in_child([this] {
        psp_setTmpDir(dir_.c_str());
        const Fault trials("open");
        Fault::replace("psp_enterCritSec", enter_behind_another);
        EXPECT_EQ(taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG), dir_.path());
        EXPECT_EQ(found_by_another, dir_.path());
        EXPECT_EQ(trials.calls(), 1) << "one search is enough";
    });
}

TEST_F(TmpDirFault, SearchSurvivesEveryRefusedAllocation)
{
    in_child([this] {
        psp_setTmpDir(dir_.c_str());
        const auto search = [] { return taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG); };
        // The first two are the trial's: the candidate counts as unusable, the next is taken.
        for (const int n : {1, 2}) {
            const Fault fault("tag_alloc", n);
            psp_setTmpDir(dir_.c_str());
            EXPECT_EQ(search(), "/tmp") << n;
        }
        psp_setTmpDir(dir_.c_str());
        {
            const Fault fault("tag_alloc", 3); // of the choice
            EXPECT_EQ(search(), "(null)");
        }
        const Fault trials("open");
        {
            const Fault fault("tag_alloc", 4); // of the caller's copy
            EXPECT_EQ(search(), "(null)");
        }
        EXPECT_EQ(trials.calls(), 1) << "nothing was kept before";
        EXPECT_EQ(search(), dir_.path());
        EXPECT_EQ(trials.calls(), 1) << "what was chosen is kept now";
    });
}

TEST_F(TmpDirFault, SearchEndsWithoutACurrentDirectory)
{
    in_child([] {
        Fault::replace("open", tried_open);
        usable = "none of them";
        const Fault current("getcwd", 1, true);
        EXPECT_EQ(psp_tmpdir(PSP_THREAD_TAG), nullptr);
        EXPECT_EQ(current.calls(), 1);
        EXPECT_EQ(psp_enterCritSec(), sOKAY) << "left free";
        psp_exitCritSec();
    });
}

TEST_F(TmpDirFault, SearchesThatFindNothingTakeNothing)
{
    in_child([] {
        Fault::replace("open", tried_open);
        usable = "none of them";
        expect_no_growth([] {
            EXPECT_EQ(psp_tmpdir(PSP_THREAD_TAG), nullptr);
            tried.clear();
        });
    });
}

TEST_F(TmpDirFault, AJumpLeavesTheCriticalSectionFree)
{
    in_child([this] {
        static jmp_buf buffer;
        psp_setTmpDir(dir_.c_str());
        psp_resetTag(&buffer, PSP_GLOBAL_TAG);
        Fault::fail_nth("tag_alloc", 3);
        EXPECT_EQ(jumped_with(buffer, [] { psp_tmpdir(PSP_THREAD_TAG); }), 1);
        Fault::clear();
        psp_resetTag(nullptr, PSP_GLOBAL_TAG);
        EXPECT_EQ(psp_enterCritSec(), sOKAY);
        psp_exitCritSec();
        EXPECT_EQ(taken(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG), dir_.path());
    });
}

} // namespace
