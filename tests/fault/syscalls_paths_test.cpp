// Paths, directories, scans, the temporary directory and files by name with every call of the
// system failing in every way.
#include "support/call_faults.h"

#include "psp/fileutil.h"
#include "psp/path.h"
#include "psp/scan.h"
#include "psp/tmpdir.h"

#include <filesystem>
#include <memory>
#include <string>

#include <dirent.h>

using namespace psptest;

extern "C" {
int __real_open(const char* path, int flags, ...);
dirent* __real_readdir(DIR* dir);
}

namespace {

dirent* untyped_readdir(DIR* dir)
{
    dirent* const entry = __real_readdir(dir);
    if (entry != nullptr)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

// Opens nothing outside the current directory.
std::string current;

int open_in_current(const char* path, int flags, ...)
{
    if (std::string_view(path).substr(0, current.size()) == current)
        return __real_open(path, flags, 0666);
    errno = EACCES;
    return -1;
}

// Of the test that runs: to make and remove directories takes the system its time.
std::unique_ptr<TempDir> directory;

// A directory with a file and two directories, which is the current one; the candidates for
// temporary files are, in this order, "sub", "other" and, after /tmp, the current one.
struct Tree {
    Tree()
    {
        write_file("file", "text");
        for (const char* name : {"sub", "other"})
            EXPECT_TRUE(::mkdir(name, 0777) == 0 || errno == EEXIST);
        current = dir.path();
        unsetenv("ZYN_TMPDIR");
        unsetenv("TEMPDIR");
        setenv("TMPDIR", (dir / "other").c_str(), 1);
        psp_setTmpDir((dir / "sub").c_str());
        Fault::replace(
            "fsync", +[](int) { return 0; }); // the disk is not what these tests wait for
    }
    ~Tree()
    {
        psp_setTmpDir(nullptr);
        unsetenv("TMPDIR");
        Fault::clear();
        current = {};
    }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    // The directories that were made, which are gone again.
    long create_all(const char* path)
    {
        const ZYN_RETCODE rc = psp_dirCreateAll(path);
        const int error = errno;
        made.clear();
        for (const char* level : {"p", "p/q", "p/q/r"})
            made += file_exists(level) ? 'x' : '-';
        std::filesystem::remove_all("p");
        errno = error;
        return rc;
    }
    long tmpdir()
    {
        psp_setTmpDir((dir / "sub").c_str()); // forgets the last choice
        return keep(psp_tmpdir(PSP_THREAD_TAG), PSP_THREAD_TAG);
    }
    // 1 for a string that is there, which is noted and freed.
    long keep(const char* str, PSP_MEMTAG tag)
    {
        const int error = errno;
        text = taken(str, tag);
        errno = error;
        return str != nullptr;
    }
    // The number of names that match, and of directories among them.
    long scan(const char* pattern)
    {
        const PSP_DIR scanned = psp_pathOpen(".", pattern);
        if (scanned == nullptr)
            return -1;
        long names = 0;
        directories = 0;
        int error = 0;
        for (std::uint32_t isdir = 7; psp_pathNext(scanned, &isdir) != nullptr; names++)
            directories += isdir;
        error = errno;
        psp_pathClose(scanned);
        errno = error;
        return names;
    }
    bool probe_left(const char* where) const
    {
        return !std::filesystem::is_empty(dir / where);
    }

    const TempDir& dir = *directory;
    InDirectory here{dir.path()};
    std::string made;
    std::string text;
    std::uint32_t directories = 0;
    ZYN_BOOL_T flag = 7;
    time64_t when = 77;
};

using PathRow = Row<Tree>;

// ---- Columns ----

template <int excused, ZYN_RETCODE code>
long unless(const Failure& failure)
{
    return failure.error == excused ? code : ePSP_FAILURE;
}

// The whole path is tried first and fails for want of its parents; then come these one by one. A
// level that is there already, or seems to be, is gone through.
struct Levels {
    ZYN_RETCODE rc;
    std::string made;
    int error; // any_errno: not looked at
};

Levels levels(const Failure& failure)
{
    const bool there = failure.error == EEXIST;
    if (failure.n == 1 && there)
        return {sDUPLICATE, "---", failure.error};
    std::string made = "---";
    for (int call = 2; call <= 4; call++) {
        const auto level = static_cast<std::size_t>(call - 2);
        const bool hit = failure.hits(call);
        const bool reachable = level == 0 || made[level - 1] == 'x';
        if (hit && !there)
            return {ePSP_FAILURE, made, failure.error};
        if (hit && call == 4)
            return {sDUPLICATE, made, failure.error};
        if (!hit && !reachable)
            return {ePSP_FAILURE, made, ENOENT};
        if (!hit)
            made[level] = 'x';
    }
    return {sOKAY, made, any_errno};
}

void whole_tmpdir_search(Tree& w, const Failure* failure)
{
    const bool none = failure != nullptr && failure->forever;
    EXPECT_EQ(w.text, none ? "(null)" : w.dir / (failure != nullptr ? "other" : "sub"));
}

void asked_time(Tree& w, const Failure* failure)
{
    EXPECT_EQ(w.when == 77, failure != nullptr);
}

long joined(Tree& w)
{
    return w.keep(psp_fullpathEx("name/", PSP_GLOBAL_TAG), PSP_THREAD_TAG);
}

// clang-format off
const PathRow rows[] = {
    // ---- Files by name ----
    {"psp_fileRemove", "remove",
     [](Tree&) -> long { return psp_fileRemove("file"); },
     sOKAY, unless<ENOENT, sOKAY>, kept,
     [](Tree&, const Failure* f) { EXPECT_EQ(file_exists("file"), f != nullptr); },
     [](Tree&, const Failure*) { EXPECT_FALSE(file_exists("file")); }},
    {"psp_fileValidateEx", "stat",
     [](Tree& w) -> long { return psp_fileValidateEx("sub", 0, &w.flag); },
     ZYN_TRUE, always<ZYN_FALSE>, kept,
     [](Tree& w, const Failure* f) { EXPECT_EQ(w.flag, f ? 7 : ZYN_TRUE); }},
    {"psp_fileValidate", "stat",
     [](Tree&) -> long { return psp_fileValidate("file"); }, ZYN_TRUE, always<ZYN_FALSE>},
    {"psp_fileModTimeStat", "stat",
     [](Tree& w) -> long { return psp_fileModTimeStat("file", 0, &w.when); },
     sOKAY, [](const Failure& f) -> long { return f.error == ENOENT ? eFILEOPEN : eINVFILE; },
     kept, asked_time},

    // ---- Directories ----
    {"psp_dirCreate", "mkdir",
     [](Tree&) -> long {
         const ZYN_RETCODE rc = psp_dirCreate("new");
         const int error = errno;
         const bool made = ::rmdir("new") == 0;
         errno = error;
         return made == (rc == sOKAY) ? rc : -1;
     },
     sOKAY, unless<EEXIST, sDUPLICATE>},
    {"psp_dirCreateAll", "mkdir",
     [](Tree& w) { return w.create_all("p/q/r"); },
     sOKAY, [](const Failure& f) -> long { return levels(f).rc; },
     [](const Failure& f) { return levels(f).error; },
     [](Tree& w, const Failure* f) { EXPECT_EQ(w.made, f ? levels(*f).made : "xxx"); },
     [](Tree& w, const Failure*) { EXPECT_EQ(w.made, "xxx"); }},
    {"psp_dirRemove", "rmdir",
     [](Tree&) -> long {
         ::mkdir("sub", 0777);
         errno = 0;
         return psp_dirRemove("sub");
     },
     sOKAY, unless<ENOENT, sOKAY>, kept,
     [](Tree&, const Failure* f) { EXPECT_EQ(file_exists("sub"), f != nullptr); }},
    {"psp_dirSync", "open", [](Tree&) -> long { return psp_dirSync("sub"); },
     sOKAY, always<ePSP_FAILURE>},
    {"psp_dirSync", "fsync", [](Tree&) -> long { return psp_dirSync("sub"); },
     sOKAY, always<ePSP_FAILURE>},
    {"psp_dirSync", "close", [](Tree&) -> long { return psp_dirSync("sub"); },
     sOKAY, always<sOKAY>, unsaid},

    // ---- The current directory ----
    {"psp_currdirEx", "getcwd",
     [](Tree& w) { return w.keep(psp_currdirEx(PSP_GLOBAL_TAG), PSP_GLOBAL_TAG); },
     1, always<0>, kept,
     [](Tree& w, const Failure* f) { EXPECT_EQ(w.text, f ? "(null)" : w.dir.path()); }},
    {"psp_fullpathEx", "getcwd",
     [](Tree& w) { return w.keep(psp_fullpathEx("./", PSP_GLOBAL_TAG), PSP_GLOBAL_TAG); },
     1, always<0>},
    {"psp_fullpathEx joining", "getcwd", joined, 1, always<0>, kept,
     [](Tree& w, const Failure* f) { EXPECT_EQ(w.text, f ? "(null)" : w.dir / "name"); }},

    // ---- Scans ----
    {"psp_pathOpen", "opendir", [](Tree& w) { return w.scan("*"); }, 5, always<-1>},
    // The caller sees an end where an entry could not be read, and asks errno why.
    {"psp_pathNext", "readdir", [](Tree& w) { return w.scan("*"); },
     5, [](const Failure& f) -> long { return f.n - 1; }},
    {"psp_pathNext", "stat",
     [](Tree& w) {
         Fault::replace("readdir", untyped_readdir);
         return w.scan("sub");
     },
     1, always<1>, unsaid,
     [](Tree& w, const Failure* f) { EXPECT_EQ(w.directories, f ? 0u : 1u); }},
    {"psp_pathClose", "closedir", [](Tree& w) { return w.scan("*"); }, 5, always<5>, unsaid},

    // ---- The temporary directory ----
    {"psp_dirWritable", "open",
     [](Tree&) -> long { return psp_dirWritable("sub"); },
     ZYN_TRUE, always<ZYN_FALSE>, kept,
     [](Tree& w, const Failure*) { EXPECT_FALSE(w.probe_left("sub")); }},
    {"psp_dirWritable", "close",
     [](Tree&) -> long { return psp_dirWritable("sub"); }, ZYN_TRUE, always<ZYN_TRUE>, unsaid,
     [](Tree& w, const Failure*) { EXPECT_FALSE(w.probe_left("sub")); }},
    {"psp_dirWritable", "remove",
     [](Tree&) -> long { return psp_dirWritable("sub"); }, ZYN_TRUE, always<ZYN_TRUE>, unsaid,
     [](Tree& w, const Failure* f) { EXPECT_EQ(w.probe_left("sub"), f != nullptr); },
     [](Tree& w, const Failure*) { EXPECT_FALSE(w.probe_left("sub")); }},
    // One candidate refused leaves the next, all of them none.
    {"psp_tmpdir", "open", [](Tree& w) { return w.tmpdir(); },
     1, [](const Failure& f) -> long { return !f.forever; }, unsaid, whole_tmpdir_search},
    {"psp_tmpdir", "close", [](Tree& w) { return w.tmpdir(); }, 1, always<1>, unsaid},
    {"psp_tmpdir", "remove", [](Tree& w) { return w.tmpdir(); }, 1, always<1>, unsaid},
    {"psp_tmpdir in the current directory", "getcwd",
     [](Tree& w) {
         Fault::replace("open", open_in_current);
         current = w.dir / "zyn_dirtest"; // so that only it can be written to
         return w.tmpdir();
     },
     1, always<0>, kept,
     [](Tree& w, const Failure* f) { EXPECT_EQ(w.text, f ? "(null)" : w.dir.path()); }},
    {"psp_fileCreateTmpName", "open",
     [](Tree& w) -> long {
         psp_setTmpDir((w.dir / "sub").c_str());
         std::uint32_t number = 7;
         w.keep(psp_fileCreateTmpName(&number, "b", "e", 0, PSP_GLOBAL_TAG), PSP_GLOBAL_TAG);
         w.text = w.text.substr(0, w.text.rfind('/'));
         return number;
     },
     8, always<8>, unsaid,
     [](Tree& w, const Failure* f) {
         EXPECT_EQ(w.text, f == nullptr ? w.dir / "sub" : f->forever ? "" : w.dir / "other");
     }},
};
// clang-format on

class PathCalls : public FaultTest, public ::testing::WithParamInterface<PathRow> {
  protected:
    void SetUp() override
    {
        FaultTest::SetUp();
        directory = std::make_unique<TempDir>();
    }
    void TearDown() override
    {
        directory.reset();
        FaultTest::TearDown();
    }
};

TEST_P(PathCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, PathCalls, ::testing::ValuesIn(rows), name_of_row<Tree>);

TEST(PathCallsTable, HasARowForEveryCall)
{
    EXPECT_EQ(calls_in(rows), calls_for(in_paths));
}

} // namespace
