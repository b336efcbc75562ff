// Paths, directories and scans when the system or the memory refuses, and the calls they make.
#include "file_trace.h"
#include "support/file_test.h"

#include "psp/path.h"
#include "psp/scan.h"

#include <cerrno>
#include <string>
#include <vector>

using namespace psptest;

namespace {

using Lines = Trace::Lines;

// What getcwd is made to tell, and the sizes of the buffers it was given.
std::string faked_directory;
std::vector<std::size_t> buffer_sizes;

char* faked_getcwd(char* buffer, std::size_t size)
{
    buffer_sizes.push_back(size);
    if (size <= faked_directory.size()) {
        errno = ERANGE;
        return nullptr;
    }
    std::memcpy(buffer, faked_directory.c_str(), faked_directory.size() + 1);
    return buffer;
}

// With a tag whose blocks come from the heap one by one: nothing of it can be lost unseen.
class PathFault : public PspTest {
  protected:
    void SetUp() override
    {
        PspTest::SetUp();
        tag_ = make_tag(LEGACY_ALLOCATOR);
        ASSERT_NE(tag_, nullptr);
        release(get(1, PSP_THREAD_TAG), PSP_THREAD_TAG); // made now, not while calls are counted
        ASSERT_EQ(mkdir((dir_ / "sub").c_str(), 0777), 0);
        write_file(dir_ / "file", "");
        faked_directory = "/a/directory/of/some/length";
    }
    void TearDown() override
    {
        Fault::clear();
        destroy_tag(tag_);
        buffer_sizes = {};
        PspTest::TearDown();
    }
    // Runs `body` with each of its allocations refused in turn; `fails` tells whether it noticed.
    template <class Body>
    int refuse_each(Body body)
    {
        const std::size_t descriptors = open_descriptors();
        const long blocks = live_heap_blocks();
        return fail_every_call("tag_alloc", false, [&](Fault& fault, int n) {
            body(fault, n);
            EXPECT_EQ(live_heap_blocks(), blocks) << "refused: " << n;
            EXPECT_EQ(open_descriptors(), descriptors) << "refused: " << n;
        });
    }

    TempDir dir_;
    PSP_MEMTAG tag_ = nullptr;
};

// ---- The current directory ----

TEST_F(PathFault, CurrentDirectoryGrowsItsBufferByTen)
{
    Fault::replace("getcwd", faked_getcwd);
    for (std::size_t length = 1; length <= 61; length++) {
        faked_directory = "/" + std::string(length - 1, 'd');
        buffer_sizes.clear();
        EXPECT_EQ(taken(psp_currdirEx(tag_), tag_), faked_directory);
        std::vector<std::size_t> expected;
        for (std::size_t size = 10; size < length + 1; size += 10)
            expected.push_back(size);
        expected.push_back(expected.empty() ? 10 : expected.back() + 10);
        EXPECT_EQ(buffer_sizes, expected) << length;
    }
}

TEST_F(PathFault, CurrentDirectoryFailsWithTheSystem)
{
    const long blocks = live_heap_blocks();
    for (const int error : {EACCES, ENOENT, ENOMEM}) {
        const Fault fault("getcwd", 1, false, error);
        EXPECT_EQ(psp_currdirEx(tag_), nullptr);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(fault.calls(), 1);
    }
    Fault::replace(
        "getcwd", +[](char*, std::size_t size) -> char* {
            errno = size < 40 ? ERANGE : EACCES;
            return nullptr;
        });
    Fault counted("getcwd");
    EXPECT_EQ(psp_currdirEx(tag_), nullptr);
    EXPECT_EQ(counted.calls(), 4);
    EXPECT_EQ(psp_fullpathEx(nullptr, tag_), nullptr);
    EXPECT_EQ(psp_fullpathEx("x", tag_), nullptr);
    EXPECT_EQ(live_heap_blocks(), blocks);
}

TEST_F(PathFault, CurrentDirectorySurvivesEveryRefusedAllocation)
{
    Fault::replace("getcwd", faked_getcwd);
    const int refused = refuse_each([this](const Fault& fault, int n) {
        const std::string dir = taken(psp_currdirEx(tag_), tag_);
        EXPECT_EQ(dir, fault.failures() > 0 ? "(null)" : faked_directory) << n;
    });
    EXPECT_EQ(refused, 3); // 27 characters: 10, 20 and 30 bytes
}

TEST_F(PathFault, CurrentDirectoryIsNotAskedForInDisklessMode)
{
    EXPECT_EQ(run_in_child([this] {
                  psp_nodisk();
                  const Fault counted("getcwd");
                  EXPECT_EQ(taken(psp_currdirEx(tag_), tag_), "/");
                  EXPECT_EQ(counted.calls(), 0);
                  const Fault fault("tag_alloc", 1);
                  EXPECT_EQ(psp_currdirEx(tag_), nullptr);
                  return 0;
              }),
              0);
}

// ---- Full and split paths ----

TEST_F(PathFault, FullPathSurvivesEveryRefusedAllocation)
{
    Fault::replace("getcwd", faked_getcwd);
    const struct {
        const char* path;
        std::string expected;
        int allocations;
    } rows[] = {
        {".", faked_directory, 3},
        {"/absolute/", "/absolute", 1},
        {"name/", faked_directory + "/name", 5}, // the copy, three for the directory, the result
    };
    for (const auto& row : rows) {
        const PSP_MEMTAG owner = row.allocations == 5 ? PSP_THREAD_TAG : tag_;
        const int refused = refuse_each([&](const Fault& fault, int n) {
            const std::string path = taken(psp_fullpathEx(row.path, tag_), owner);
            EXPECT_EQ(path, fault.failures() > 0 ? "(null)" : row.expected) << n;
        });
        EXPECT_EQ(refused, row.allocations) << row.path;
    }
}

TEST_F(PathFault, JoinedPathIsTheThreads)
{
    const long blocks = live_heap_blocks();
    const char* const joined = psp_fullpathEx("name", tag_);
    EXPECT_EQ(live_heap_blocks(), blocks) << "nothing left in the caller's tag";
    release(joined, PSP_THREAD_TAG);
    const char* const absolute = psp_fullpathEx("/name", tag_);
    EXPECT_EQ(live_heap_blocks(), blocks + 1);
    release(absolute, tag_);
}

TEST_F(PathFault, SplittingSurvivesEveryRefusedAllocation)
{
    char unset = 0;
    const auto split = [&](const char* path, int allocations) {
        const int refused = refuse_each([&](const Fault& fault, int n) {
            char* dir = &unset;
            char* file = &unset;
            const ZYN_RETCODE rc = psp_pathSplitEx(path, &dir, &file, tag_);
            EXPECT_EQ(rc, fault.failures() > 0 ? eNOMEMORY : sOKAY) << n;
            if (rc != sOKAY)
                return;
            release(dir, tag_);
            release(file, tag_);
        });
        EXPECT_EQ(refused, allocations) << path;
    };
    split("/dir/file", 2);
    split("file", 1);
    split("dir/", 1);
}

// ---- Directories ----

TEST_F(PathFault, DirectoriesCostAsFewCallsAsCanBe)
{
    const InDirectory here(dir_.path());
    Trace trace;
    EXPECT_EQ(psp_dirCreate("new"), sOKAY);
    EXPECT_EQ(psp_dirCreate("new"), sDUPLICATE);
    EXPECT_EQ(trace.take(), (Lines{"mkdir new 0777", "mkdir new 0777"}));
    EXPECT_EQ(psp_dirRemove("new"), sOKAY);
    EXPECT_EQ(trace.take(), Lines{"rmdir new"});
    EXPECT_EQ(psp_dirSync("sub"), sOKAY);
    EXPECT_EQ(trace.take(), (Lines{"open sub 0x10000 00", "fsync sub", "close sub"}));
    EXPECT_EQ(psp_dirCreateAll("sub/a"), sOKAY);
    EXPECT_EQ(trace.take(), Lines{"mkdir sub/a 0777"});
    EXPECT_EQ(psp_dirCreateAll("sub/a"), sDUPLICATE);
    EXPECT_EQ(trace.take(), Lines{"mkdir sub/a 0777"});
    EXPECT_EQ(psp_dirCreateAll("sub/b/c\\d"), sOKAY);
    EXPECT_EQ(trace.take(), (Lines{"mkdir sub/b/c\\d 0777", "mkdir sub 0777", "mkdir sub/b 0777",
                                   "mkdir sub/b/c 0777", "mkdir sub/b/c/d 0777"}));
    EXPECT_EQ(psp_dirCreateAll(""), ePSP_FAILURE);
    EXPECT_EQ(trace.take(), Lines{"mkdir  0777"});
    EXPECT_EQ(O_RDONLY | O_DIRECTORY, 0x10000);
}

TEST_F(PathFault, ALeadingSeparatorIsNoLevel)
{
    Trace trace;
    const std::string path = dir_ / "x/y";
    EXPECT_EQ(psp_dirCreateAll(path.c_str()), sOKAY);
    const Lines lines = trace.take();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], "mkdir " + path + " 0777");
    EXPECT_EQ(lines[1], "mkdir " + path.substr(0, path.find('/', 1)) + " 0777");
    EXPECT_EQ(lines.back(), "mkdir " + path + " 0777");
}

TEST_F(PathFault, DirectoriesFailWithTheSystem)
{
    const InDirectory here(dir_.path());
    const auto fails = [](const char* name, int error, auto operation, ZYN_RETCODE expected) {
        const Fault fault(name, 1, false, error);
        EXPECT_EQ(operation(), expected) << name << " " << error;
        EXPECT_EQ(fault.calls(), 1);
        EXPECT_EQ(errno, error);
    };
    const auto create = [] { return psp_dirCreate("new"); };
    fails("mkdir", EACCES, create, ePSP_FAILURE);
    fails("mkdir", EROFS, create, ePSP_FAILURE);
    fails("mkdir", EEXIST, create, sDUPLICATE);
    const auto remove = [] { return psp_dirRemove("sub"); };
    fails("rmdir", EACCES, remove, ePSP_FAILURE);
    fails("rmdir", ENOTEMPTY, remove, ePSP_FAILURE);
    fails("rmdir", ENOENT, remove, sOKAY);
    const auto sync = [] { return psp_dirSync("sub"); };
    fails("open", EMFILE, sync, ePSP_FAILURE);
    fails("fsync", EIO, sync, ePSP_FAILURE);
    Fault::replace(
        "close", +[](int fd) {
            __real_close(fd);
            errno = EBADF; // says nothing about why the directory is not durable
            return -1;
        });
    fails("fsync", EIO, sync, ePSP_FAILURE);
    EXPECT_EQ(psp_dirSync("sub"), sOKAY);
}

TEST_F(PathFault, CreatingParentsStopsAtTheFirstFailure)
{
    const InDirectory here(dir_.path());
    // The whole path fails by itself; each further call in turn is made to fail.
    for (int n = 2; n <= 4; n++) {
        const Fault fault("mkdir", n, false, EACCES);
        EXPECT_EQ(psp_dirCreateAll("p/q/r"), ePSP_FAILURE);
        EXPECT_EQ(fault.calls(), n);
        EXPECT_EQ(file_exists("p"), n > 2);
        EXPECT_EQ(file_exists("p/q"), n > 3);
    }
    for (const bool forever : {false, true}) { // a path of one level is tried twice
        const Fault fault("mkdir", 1, forever, EACCES);
        EXPECT_EQ(psp_dirCreateAll("single"), forever ? ePSP_FAILURE : sOKAY);
        EXPECT_EQ(fault.calls(), 2);
        EXPECT_EQ(file_exists("single"), !forever);
        EXPECT_EQ(psp_dirRemove("single"), sOKAY);
    }
}

TEST_F(PathFault, CreatingParentsGivesItsCopyBack)
{
    static int calls;
    Fault::replace(
        "mkdir", +[](const char*, mode_t) {
            errno = ENOENT;
            return ++calls % 5 == 1 ? -1 : 0; // the whole path fails, then four levels succeed
        });
    expect_no_growth([] {
        calls = 0;
        EXPECT_EQ(psp_dirCreateAll("p/q/r/s"), sOKAY);
        EXPECT_EQ(calls, 5);
    });
}

// ---- Scans ----

TEST_F(PathFault, AScanReadsAndAsksForNothingElse)
{
    Trace trace;
    const PSP_DIR dir = psp_pathOpen(dir_.c_str(), "*");
    ASSERT_NE(dir, nullptr);
    EXPECT_EQ(trace.take().size(), 1u);
    std::uint32_t isdir;
    for (int i = 0; i < 4; i++)
        EXPECT_NE(psp_pathNext(dir, &isdir), nullptr);
    EXPECT_EQ(trace.take(), Lines(4, "readdir"));
    EXPECT_EQ(psp_pathNext(dir, &isdir), nullptr);
    EXPECT_EQ(psp_pathNext(dir, &isdir), nullptr);
    EXPECT_EQ(trace.take(), Lines(2, "readdir"));
    psp_pathClose(dir);
    EXPECT_EQ(trace.take(), Lines{"closedir"});
}

dirent* untyped_readdir(DIR* dir)
{
    dirent* const entry = __real_readdir(dir);
    if (entry != nullptr)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

std::string asked;

int noting_stat(const char* path, struct stat* status)
{
    asked = path;
    return __real_stat(path, status);
}

TEST_F(PathFault, AScanAsksForKindsThatTheSystemDoesNotTell)
{
    ASSERT_EQ(symlink("sub", (dir_ / "link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (dir_ / "broken").c_str()), 0);
    Fault::replace("readdir", untyped_readdir);
    Fault::replace("stat", noting_stat);
    const Fault stats("stat");
    const PSP_DIR dir = psp_pathOpen(dir_.c_str(), "*");
    ASSERT_NE(dir, nullptr);
    int entries = 0;
    std::uint32_t isdir = 7;
    while (const char* name = psp_pathNext(dir, &isdir)) {
        const std::string entry = name;
        EXPECT_EQ(asked, dir_ / entry);
        const bool expected = entry != "file" && entry != "broken"; // links are followed here
        EXPECT_EQ(isdir, expected ? 1u : 0u) << entry;
        EXPECT_EQ(stats.calls(), ++entries);
        isdir = 7;
    }
    EXPECT_EQ(entries, 6);
    psp_pathClose(dir);
    expect_no_growth([this] {
        const PSP_DIR again = psp_pathOpen(dir_.c_str(), "sub");
        std::uint32_t kind = 7;
        EXPECT_STREQ(psp_pathNext(again, &kind), "sub");
        EXPECT_EQ(kind, 1u);
        psp_pathClose(again);
    });
    asked = {};
}

TEST_F(PathFault, AScanTakesWhatItCannotAskForNoDirectory)
{
    Fault::replace("readdir", untyped_readdir);
    const auto next = [this](const char* fault_name) {
        const PSP_DIR dir = psp_pathOpen(dir_.c_str(), "sub");
        EXPECT_NE(dir, nullptr);
        const Fault fault(fault_name, 1, false, EIO);
        std::uint32_t isdir = 7;
        const char* const name = psp_pathNext(dir, &isdir);
        EXPECT_STREQ(name, "sub");
        EXPECT_EQ(fault.failures(), 1);
        psp_pathClose(dir);
        return isdir;
    };
    EXPECT_EQ(next("stat"), 0u);
    EXPECT_EQ(next("tag_alloc"), 0u) << "no room for the path";
}

TEST_F(PathFault, AScanEndsWhereAnEntryCannotBeReadOrCopied)
{
    const PSP_DIR dir = psp_pathOpen(dir_.c_str(), "*");
    ASSERT_NE(dir, nullptr);
    std::uint32_t isdir = 7;
    {
        const Fault fault("tag_alloc", 1);
        EXPECT_EQ(psp_pathNext(dir, &isdir), nullptr);
        EXPECT_EQ(fault.failures(), 1);
    }
    EXPECT_NE(psp_pathNext(dir, &isdir), nullptr) << "the next one is there";
    {
        const Fault fault("readdir", 1);
        EXPECT_EQ(psp_pathNext(dir, &isdir), nullptr);
        EXPECT_EQ(errno, EIO);
    }
    psp_pathClose(dir);
}

TEST_F(PathFault, AScanIsNotOpenedByHalves)
{
    const auto open_scan = [this] { return psp_pathOpen(dir_.c_str(), "*"); };
    const int refused = refuse_each([&](const Fault& fault, int n) {
        const Fault opened("opendir");
        const Fault closed("closedir");
        const PSP_DIR dir = open_scan();
        EXPECT_EQ(dir == nullptr, fault.failures() > 0) << n;
        psp_pathClose(dir);
        EXPECT_EQ(closed.calls(), opened.calls()) << n;
    });
    EXPECT_EQ(refused, 4); // two records, the path and the pattern
    for (int n = 1; n <= 4; n++)
        expect_no_growth([&] {
            const Fault fault("tag_alloc", n);
            EXPECT_EQ(open_scan(), nullptr);
        });
    expect_no_growth([&] {
        const Fault fault("opendir", 1, false, EMFILE);
        errno = 0;
        EXPECT_EQ(open_scan(), nullptr);
        EXPECT_EQ(errno, EMFILE);
    });
}

TEST_F(PathFault, NoScanIsTriedInDisklessMode)
{
    EXPECT_EQ(run_in_child([this] {
                  psp_nodisk();
                  Trace trace;
                  EXPECT_EQ(psp_pathOpen(dir_.c_str(), "*"), nullptr);
                  const Fault allocations("tag_alloc", 1, true);
                  EXPECT_EQ(psp_dirCreate("x"), ePSP_FAILURE);
                  EXPECT_EQ(psp_dirCreateAll("x/y"), ePSP_FAILURE);
                  EXPECT_EQ(psp_dirRemove("sub"), ePSP_FAILURE);
                  EXPECT_EQ(trace.take(), Lines());
                  return 0;
              }),
              0);
}

} // namespace
