// Rows of the table: files, paths, scans, temporary names, modules, processes.
#include "fault/faults.h"
#include "memory_rows.h"
#include "support/file_test.h"

#include <gtest/gtest.h>

#include <cstring>

#include <dirent.h>
#include <sys/wait.h>

extern "C" struct dirent* __real_readdir(DIR* dir);

namespace psptest {
namespace {

void release_made(Bench& bench)
{
    release(bench.made, bench.tag);
}

void release_made_of_thread(Bench& bench)
{
    release(bench.made, PSP_THREAD_TAG);
}

// ---- Files ----

void close_made(Bench& bench)
{
    psp_fileClose(bench.as<PSP_FH>());
}

void add_files(std::vector<Row>& rows)
{
    // Records live in the layer's own tag, which has no jump buffer.
    const Row row = {
        .functions = "psp_fileOpen",
        .run = [](Bench& b) { return b.keep(psp_fileOpen(b.file.c_str(), O_RDWR | O_CREAT, 0)); },
        .refusals = {eNOMEMORY},
        .jumps = Jumps::never,
        .verify = [](Bench& b) { EXPECT_TRUE(file_exists(b.file)); },
        .refused = [](Bench& b) { EXPECT_FALSE(file_exists(b.file)); },
        .undo = close_made};
    rows.push_back(row);
    rows.push_back(row);
    rows.back().functions = "psp_fileOpenStd";
    rows.back().verify = rows.back().refused = nullptr;
    rows.back().run = [](Bench& b) {
        return b.keep(psp_fileOpenStd("stdout", O_WRONLY, 0, nullptr));
    };
    rows.push_back(row);
    rows.back().functions = "psp_dirWritable";
    rows.back().verify = rows.back().undo = nullptr;
    rows.back().run = [](Bench& b) { return done_if(psp_dirWritable(b.dir.c_str()) != ZYN_FALSE); };
}

// ---- Whole files ----

void put_both(Bench& bench)
{
    write_file(bench.file, "new");
    write_file(bench.other, "new");
}

void add_whole_files(std::vector<Row>& rows)
{
    // The two files' records never jump, the two buffers are the thread's.
    const Row copy = {.functions = "psp_fileCopy",
                      .run = [](Bench& b) { return psp_fileCopy(b.file.c_str(), b.other.c_str()); },
                      .refusals = {ePSP_FAILURE},
                      .jumps = Jumps::sometimes,
                      .prepare = [](Bench& b) { write_file(b.file, "new"); },
                      .verify = [](Bench& b) { EXPECT_EQ(read_file(b.other), "new"); },
                      .refused = [](Bench& b) { EXPECT_EQ(read_file(b.file), "new"); },
                      .undo = [](Bench& b) { unlink(b.other.c_str()); }};
    rows.push_back(copy);
    rows.push_back(copy);
    rows.back().functions = "psp_fileCopyEx";
    rows.back().run = [](Bench& b) {
        return psp_fileCopyEx(b.file.c_str(), PSP_XFLAG_NOSYNC, b.other.c_str(), 0);
    };
    rows.push_back(copy);
    rows.back().functions = "psp_fileCmp";
    rows.back().refusals = {ePSP_NOSOURCE, ePSP_NODEST, eNOMEMORY};
    rows.back().prepare = put_both;
    rows.back().run = [](Bench& b) { return psp_fileCmp(b.file.c_str(), b.other.c_str()); };
}

// ---- Paths ----

ZYN_RETCODE split(Bench& bench)
{
    char* dir = nullptr;
    char* file = nullptr;
    const ZYN_RETCODE code = psp_pathSplitEx("some/where/name", &dir, &file, bench.tag);
    bench.text = dir;
    bench.rest = file;
    return code;
}

std::string nested; // a directory in one that is not there

void expect_current_directory(Bench& bench)
{
    char path[4096];
    EXPECT_STREQ(bench.as<char*>(), getcwd(path, sizeof path));
}

void add_paths(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_currdirEx",
                    .run = [](Bench& b) { return b.keep(psp_currdirEx(b.tag)); },
                    .refusals = {eNOMEMORY},
                    .verify = expect_current_directory,
                    .undo = release_made});
    rows.push_back(rows.back());
    rows.back().functions = "psp_fullpathEx";
    rows.back().run = [](Bench& b) { return b.keep(psp_fullpathEx(".", b.tag)); };
    rows.push_back({.functions = "psp_fullpathEx",
                    .run = [](Bench& b) { return b.keep(psp_fullpathEx("/a/b/", b.tag)); },
                    .refusals = {eNOMEMORY},
                    .verify = [](Bench& b) { EXPECT_STREQ(b.as<char*>(), "/a/b"); },
                    .undo = release_made});
    rows.push_back(
        {.functions = "psp_fullpathEx",
         .run = [](Bench& b) { return b.keep(psp_fullpathEx("a/b", b.tag)); },
         .refusals = {eNOMEMORY},
         .verify = [](Bench& b) { EXPECT_NE(std::strstr(b.as<char*>(), "/a/b"), nullptr); },
         .undo = release_made_of_thread});
    rows.push_back({.functions = "psp_pathSplitEx",
                    .run = split,
                    .refusals = {eNOMEMORY},
                    .verify =
                        [](Bench& b) {
                            EXPECT_STREQ(b.text, "some/where/");
                            EXPECT_STREQ(b.rest, "name");
                        },
                    .refused =
                        [](Bench& b) {
                            EXPECT_EQ(b.text, nullptr);
                            EXPECT_EQ(b.rest, nullptr);
                        },
                    .undo =
                        [](Bench& b) {
                            release(b.text, b.tag);
                            release(b.rest, b.tag);
                            b.text = b.rest = nullptr;
                        }});
    rows.push_back({.functions = "psp_dirCreateAll",
                    .run = [](Bench&) { return psp_dirCreateAll(nested.c_str()); },
                    .refusals = {eNOMEMORY},
                    .prepare = [](Bench& b) { nested = b.file + "/a/b"; },
                    .verify = [](Bench&) { EXPECT_TRUE(file_exists(nested)); },
                    .refused = [](Bench& b) { EXPECT_FALSE(file_exists(b.file)); }});
}

// ---- Scans ----

void close_scan(Bench& bench)
{
    psp_pathClose(bench.as<PSP_DIR>());
}

// A file system that does not tell a name's kind, so that the scan must ask for it by path.
struct dirent* nameless_kind(DIR* dir)
{
    struct dirent* entry = __real_readdir(dir);
    if (entry != nullptr)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

void open_scan(Bench& bench)
{
    put_both(bench);
    ASSERT_EQ(bench.keep(psp_pathOpen(bench.dir.c_str(), "*")), sOKAY);
}

ZYN_RETCODE next_name(Bench& bench)
{
    std::uint32_t isdir;
    bench.given = const_cast<char*>(psp_pathNext(bench.as<PSP_DIR>(), &isdir));
    return done_if(bench.given != nullptr);
}

void add_scans(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_pathOpen",
                    .run = [](Bench& b) { return b.keep(psp_pathOpen(b.dir.c_str(), "*")); },
                    .refusals = {eNOMEMORY},
                    .undo = close_scan,
                    .system = {"opendir"}});
    rows.push_back(rows.back());
    rows.back().functions = "psp_pathOpenEx";
    rows.back().run = [](Bench& b) { return b.keep(psp_pathOpenEx(b.dir.c_str(), 0, "*")); };
    rows.push_back({.functions = "psp_pathNext",
                    .run = next_name,
                    .refusals = {eNOMEMORY},
                    .prepare = open_scan,
                    .undo = close_scan});
    // Without the path a name's kind stays unknown, and the name is given all the same.
    rows.push_back(rows.back());
    rows.back().refusals = {eNOMEMORY, sOKAY};
    rows.back().prepare = [](Bench& b) {
        Fault::replace("readdir", nameless_kind);
        open_scan(b);
    };
    rows.back().undo = [](Bench& b) {
        close_scan(b);
        Fault::replace("readdir", __real_readdir);
    };
}

// ---- Temporary files ----

// The choice, once made, is kept until a directory is set anew.
void offer_directory(Bench& bench)
{
    unsetenv("ZYN_TMPDIR");
    psp_setTmpDir(bench.dir.c_str());
}

void release_name(Bench& bench)
{
    release(bench.made, bench.tag);
    psp_setTmpDir(nullptr);
}

void add_temporary_names(std::vector<Row>& rows)
{
    // A candidate that cannot be tried is not taken; then the next one may do.
    rows.push_back({.functions = "psp_tmpdir",
                    .run = [](Bench& b) { return b.keep(psp_tmpdir(b.tag)); },
                    .refusals = {eNOMEMORY, sOKAY},
                    .jumps = Jumps::sometimes,
                    .prepare = offer_directory,
                    .verify = [](Bench& b) { EXPECT_TRUE(b.refused || b.as<char*>() == b.dir); },
                    .settle = offer_directory,
                    .undo = release_name});
    // Without the directory the name lies in the root.
    rows.push_back(
        {.functions = "psp_fileCreateTmpName",
         .run =
             [](Bench& b) {
                 return b.keep(psp_fileCreateTmpName(&b.count, "base", "ext", 0, b.tag));
             },
         .refusals = {eNOMEMORY, sOKAY},
         .jumps = Jumps::sometimes,
         .prepare = offer_directory,
         .verify = [](Bench& b) { EXPECT_NE(std::strstr(b.as<char*>(), "/base_"), nullptr); },
         .settle = offer_directory,
         .undo = release_name});
}

// ---- Modules and processes ----

void* open_library(const char*, int)
{
    static char library;
    return &library;
}

int close_library(void*)
{
    return 0;
}

ZYN_RETCODE load(Bench& bench)
{
    PSP_MOD_CTX* module = nullptr;
    const ZYN_RETCODE code = psp_load("name", &module);
    bench.made = module;
    return code;
}

void unload(Bench& bench)
{
    auto* const module = bench.as<PSP_MOD_CTX*>();
    EXPECT_EQ(psp_unload(module), sOKAY);
    // Both would stay until psp_term.
    release(module->name, PSP_GLOBAL_TAG);
    release(module, PSP_GLOBAL_TAG);
}

// The parent's half; the child says at once that it runs.
ZYN_RETCODE start_daemon(Bench&)
{
    PSP_DAEMON_CTX ctx = nullptr;
    const ZYN_RETCODE code = psp_daemonStart("testd", &ctx);
    if (code != sCHILD)
        return code;
    psp_daemonComplete(ctx, sOKAY);
    _exit(0);
}

void reap(Bench&)
{
    while (waitpid(-1, nullptr, 0) > 0) {
    }
}

void add_system(std::vector<Row>& rows)
{
    rows.push_back({.functions = "psp_load",
                    .run = load,
                    .refusals = {eNOMEMORY, sNOTFOUND},
                    .prepare =
                        [](Bench&) {
                            Fault::replace("dlopen", open_library);
                            Fault::replace("dlclose", close_library);
                        },
                    .verify = [](Bench& b) { EXPECT_STREQ(b.as<PSP_MOD_CTX*>()->name, "name"); },
                    .refused = [](Bench& b) { EXPECT_EQ(b.made, nullptr); },
                    .undo =
                        [](Bench& b) {
                            unload(b);
                            b.made = nullptr;
                        },
                    .system = {"dlopen"}});
    // What fails is the line in the log.
    rows.push_back({.functions = "psp_daemonStart",
                    .run = start_daemon,
                    .refusals = {sOKAY},
                    .prepare = [](Bench&) { ASSERT_EQ(psp_stdout_openEx(nullptr, ""), sOKAY); },
                    .settle = reap,
                    .undo = [](Bench&) { psp_stdout_closeEx(nullptr); }});
}

} // namespace

std::vector<Row> file_rows()
{
    std::vector<Row> rows;
    add_files(rows);
    add_whole_files(rows);
    add_paths(rows);
    add_scans(rows);
    add_temporary_names(rows);
    add_system(rows);
    return rows;
}

} // namespace psptest
