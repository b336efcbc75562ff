// Paths as text against the rules said again, and directories against a tree of names: what is
// made, removed, listed and found, from whatever directory is the current one.
#include "fuzz.h"
#include "library.h"
#include "scratch.h"
#include "support/match_model.h"
#include "tree_model.h"

#include "psp/fileutil.h"
#include "psp/path.h"
#include "psp/scan.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <string>

#include <fcntl.h>

namespace {

Scratch& scratch()
{
    static Scratch instance;
    return instance;
}

// ---- Paths as text ----

std::string shortened(std::string path)
{
    if (!path.empty() && path.back() == '/')
        path.pop_back();
    return path;
}

void check_full_path(const std::string& path, const std::string& current, PSP_MEMTAG tag)
{
    const bool is_current = path.empty() || path == "." || path == "./";
    const std::string copy = shortened(path);
    if (is_current)
        CHECK(taken(psp_fullpathEx(path.c_str(), tag), tag) == shortened(current));
    else if (copy[0] == '/')
        CHECK(taken(psp_fullpathEx(path.c_str(), tag), tag) == copy);
    else
        CHECK(taken(psp_fullpathEx(path.c_str(), tag), PSP_THREAD_TAG) ==
              shortened(current) + "/" + copy);
    CHECK(taken(psp_fullpathEx(nullptr, tag), tag) == shortened(current));
    CHECK(taken(psp_currdirEx(tag), tag) == current);
}

void check_split(const std::string& path, PSP_MEMTAG tag)
{
    const std::size_t length = path.rfind('/') + 1; // 0 without a separator
    const std::string dir = length == 0 ? "(null)" : path.substr(0, length);
    const std::string file = length == path.size() && length > 0 ? "(null)" : path.substr(length);
    for (const bool want_dir : {false, true}) {
        for (const bool want_file : {false, true}) {
            char* got_dir = nullptr;
            char* got_file = nullptr;
            CHECK(psp_pathSplitEx(path.c_str(), want_dir ? &got_dir : nullptr,
                                  want_file ? &got_file : nullptr, tag) == sOKAY);
            CHECK(taken(got_dir, tag) == (want_dir ? dir : "(null)"));
            CHECK(taken(got_file, tag) == (want_file ? file : "(null)"));
        }
    }
}

void check_text(const std::string& path, const std::string& current, PSP_MEMTAG tag)
{
    check_full_path(path, current, tag);
    check_split(path, tag);
    CHECK(psp_pathStripDrive(path.c_str()) == path.c_str());
    CHECK(psp_pathIsDir(path.c_str()) == (path.empty()         ? ZYN_RETCODE{eINVNULLARG}
                                          : path.back() == '/' ? ZYN_RETCODE{sOKAY}
                                                               : ZYN_RETCODE{sNOTFOUND}));
}

// ---- Directories ----

class Directories {
  public:
    Directories() : tree_(scratch().path())
    {
        scratch().enter();
        const int fd = open((scratch().path() + "/file").c_str(), O_CREAT | O_WRONLY, 0666);
        CHECK(fd >= 0 && close(fd) == 0);
        tree_.add_file("/file");
    }
    ~Directories()
    {
        scratch().leave();
    }
    Directories(const Directories&) = delete;
    Directories& operator=(const Directories&) = delete;

    std::string current() const
    {
        return tree_.current();
    }

    void create(const std::string& path)
    {
        CHECK(psp_dirCreate(path.c_str()) == made(path));
    }

    void create_all(const std::string& path)
    {
        const ZYN_RETCODE rc = psp_dirCreateAll(path.c_str());
        ZYN_RETCODE expected = made(path);
        if (expected == ePSP_FAILURE && !path.empty()) {
            std::string parts = path;
            std::replace(parts.begin() + 1, parts.end(), '\\', '/');
            // What leads to the tree is there already.
            std::size_t at = parts[0] == '/' ? scratch().path().size() - 1 : 0;
            do {
                at = parts.find('/', at + 1);
                expected = made(parts.substr(0, at));
            } while (at != std::string::npos && expected != ePSP_FAILURE);
        }
        CHECK(rc == expected);
    }

    void remove(const std::string& path)
    {
        if (tree_.find(path).place == tree_.current_place())
            return; // who has no directory is another matter
        const ZYN_RETCODE rc = psp_dirRemove(path.c_str());
        const int error = tree_.remove_dir(path);
        CHECK(rc ==
              (error == 0 || error == ENOENT ? ZYN_RETCODE{sOKAY} : ZYN_RETCODE{ePSP_FAILURE}));
    }

    void ask(const std::string& path)
    {
        const auto found = tree_.find(path);
        const bool isdir = found.error == 0 && tree_.is_dir(found.place);
        ZYN_BOOL_T answer = 42;
        CHECK(psp_fileValidateEx(path.c_str(), 0, &answer) == (found.error == 0));
        CHECK(found.error != 0 || answer == (isdir ? ZYN_TRUE : ZYN_FALSE));
        CHECK(psp_fileModTimeStat(path.c_str(), 0, nullptr) ==
              (found.error == 0        ? ZYN_RETCODE{sOKAY}
               : found.error == ENOENT ? ZYN_RETCODE{eFILEOPEN}
                                       : ZYN_RETCODE{eINVFILE}));
        CHECK((psp_dirSync(path.c_str()) == sOKAY) == isdir);
    }

    void list(const std::string& path, const std::string& pattern)
    {
        std::map<std::string, bool> expected;
        const auto found = tree_.find(path);
        const bool isdir = found.error == 0 && tree_.is_dir(found.place);
        if (isdir) {
            expected = tree_.children(found.place);
            expected["."] = expected[".."] = true;
            std::erase_if(expected, [&pattern](const auto& entry) {
                return !psptest::wildcard_matches(entry.first, pattern);
            });
        }
        const PSP_DIR dir = psp_pathOpen(path.c_str(), pattern.c_str());
        CHECK((dir != nullptr) == isdir);
        if (dir == nullptr)
            return;
        uint32_t type = 42;
        while (const char* name = psp_pathNext(dir, &type)) {
            const auto entry = expected.find(name);
            CHECK(entry != expected.end() && type == (entry->second ? 1u : 0u));
            expected.erase(entry);
        }
        psp_pathClose(dir);
        CHECK(expected.empty());
    }

    void enter(const std::string& path)
    {
        const auto found = tree_.find(path);
        const bool isdir = found.error == 0 && tree_.is_dir(found.place);
        CHECK((chdir(path.c_str()) == 0) == isdir);
        if (isdir)
            tree_.enter(found.place);
    }

    // Leaves the process in a directory that is gone.
    void leave(PSP_MEMTAG tag)
    {
        const std::string gone = scratch().path() + "/gone";
        CHECK(made(gone) != ePSP_FAILURE);
        psp_dirCreate(gone.c_str());
        CHECK(chdir(gone.c_str()) == 0);
        if (tree_.remove_dir(gone) != 0)
            return;
        CHECK(psp_dirRemove(gone.c_str()) == sOKAY);
        CHECK(psp_currdirEx(tag) == nullptr);
        CHECK(psp_fullpathEx(".", tag) == nullptr);
        CHECK(psp_fullpathEx("a", tag) == nullptr);
        CHECK(taken(psp_fullpathEx("/a/", tag), tag) == "/a");
    }

  private:
    ZYN_RETCODE made(const std::string& path)
    {
        const int error = tree_.make_dir(path);
        return error == 0 ? sOKAY : error == EEXIST ? sDUPLICATE : ePSP_FAILURE;
    }

    TreeModel tree_;
};

// ---- Inputs ----

std::string any_text(FuzzedDataProvider& input, std::size_t limit)
{
    const std::string bytes = input.ConsumeRandomLengthString(limit);
    return bytes.substr(0, bytes.find('\0'));
}

// A path that cannot lead out of the tree: no "..", and absolute only from the tree's top.
std::string path_inside(FuzzedDataProvider& input)
{
    static constexpr const char* parts[] = {"a",   "b",   "file", ".",   "",         "a\\b",
                                            "\\",  "B.c", "a",    "b",   "12345678", "..a",
                                            "\\a", "b\\", "..",   "gone"};
    std::string path = input.ConsumeBool() ? scratch().path() + "/" : "";
    for (int count = input.ConsumeIntegralInRange(0, 5); count > 0; count--) {
        std::string part = input.ConsumeIntegralInRange(0, 7) == 0 ? any_text(input, 60)
                                                                   : input.PickValueInArray(parts);
        if (path.empty() && !part.empty() && part[0] == '/')
            part = "b" + part;
        path += part;
        if (count > 1 || input.ConsumeBool())
            path += path.empty() ? "a/" : "/";
    }
    for (std::size_t at = 0; (at = path.find("..", at)) != std::string::npos; at++)
        path[at] = 'd';
    return path;
}

void one_step(FuzzedDataProvider& input, Directories& directories, PSP_MEMTAG tag)
{
    switch (input.ConsumeIntegralInRange(0, 7)) {
    case 0:
        return check_text(any_text(input, 60), directories.current(), tag);
    case 1:
        return check_text(path_inside(input), directories.current(), tag);
    case 2:
        return directories.create(path_inside(input));
    case 3:
        return directories.create_all(path_inside(input));
    case 4:
        return directories.remove(path_inside(input));
    case 5:
        return directories.ask(path_inside(input));
    case 6: {
        const std::string pattern = input.ConsumeBool() ? "*" : any_text(input, 8);
        return directories.list(path_inside(input), pattern);
    }
    default:
        return directories.enter(path_inside(input));
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    start_library();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    PSP_MEMTAG own = psp_createTagEx(nullptr, 0, BLOCK_ALLOCATOR, nullptr, nullptr, "", 0);
    CHECK(own != nullptr);
    const PSP_MEMTAG tag = input.PickValueInArray({own, PSP_THREAD_TAG, PSP_GLOBAL_TAG});
    const Balance balance;
    scratch();
    const std::string at_root = any_text(input, 40);
    CHECK(chdir("/") == 0);
    check_text(at_root, "/", tag);
    scratch().leave();
    {
        Directories directories;
        for (int steps = 0; steps < 40 && input.remaining_bytes() > 0; steps++)
            one_step(input, directories, tag);
        directories.leave(tag);
    }
    CHECK(used_bytes(own) == 0);
    psp_freeTagMem(own, ZYN_TRUE, "", 0);
    CHECK(used_bytes(PSP_THREAD_TAG) == 0);
    return 0;
}
