// No call of the system without a test that makes it fail: what the library's objects leave open is
// held against the table of calls and a list of functions that have no way to fail.
#include "support/system_calls.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

using namespace psptest;

namespace {

using Names = std::set<std::string>;

struct Excused {
    const char* reason;
    const char* names;
};

constexpr Excused excused[] = {
    {"works on the caller's memory and tells no error",
     "memcmp memcpy memmove memset bcmp strlen strnlen strchr strrchr strchrnul strcmp strncmp "
     "strcasecmp strtok_r islower isupper tolower toupper"},
    {"computes a number: that it does not fit is a result like any other",
     "strtod strtof strtoll strtoull floor ceil floorf ceilf __udivti3 __popcountdi2"},
    {"does not come back", "abort longjmp __longjmp_chk __stack_chk_fail"},
    {"tells what is always there, or that it is not",
     "getenv getpid umask localeconv pthread_self pthread_getspecific __errno_location "
     "__tls_get_addr "
     "__ctype_b_loc __ctype_tolower_loc __ctype_toupper_loc"},
    {"fails for kinds of mutexes only that the library does not make",
     "pthread_mutex_lock pthread_mutex_unlock pthread_cond_wait pthread_cond_broadcast"},
    {"ends what nobody uses any more: there is nothing to be done about it",
     "pthread_mutex_destroy pthread_cond_destroy pthread_condattr_destroy freelocale free"},
    {"fails for numbers of signals and actions only that do not exist",
     "pthread_sigmask sigaddset sigemptyset"},
    {"says why a checked build is about to end", "fwrite"},
    {"writes text of a known kind into room that was measured", "snprintf"},
    {"allocates: the suites of memory make it fail everywhere", "malloc calloc realloc"},
    {"is no function", "stdin stdout stderr _GLOBAL_OFFSET_TABLE_ __dso_handle"},
};

// What builds of their own kinds add for themselves.
constexpr const char* instrumentation[] = {"__asan_", "__ubsan_",        "__tsan_",
                                           "__gcov_", "__llvm_profile_", "__sanitizer_"};

bool is_instrumentation(const std::string& name)
{
    for (const char* start : instrumentation)
        if (name.starts_with(start))
            return true;
    return false;
}

Names excused_names()
{
    Names names;
    for (const Excused& group : excused) {
        std::istringstream words(group.names);
        for (std::string name; words >> name;)
            EXPECT_TRUE(names.insert(name).second) << name << " stands there twice";
    }
    return names;
}

// "__read_chk" is "read" with a check of the compiler's.
std::string plain(std::string name)
{
    if (name.starts_with("__") && name.ends_with("_chk"))
        name = name.substr(2, name.size() - 6);
    return name;
}

// The names that the objects use and none of them defines.
Names names_from_outside()
{
    Names used;
    Names defined;
    std::FILE* const nm = popen(PSPTEST_NM " '" PSPTEST_ARCHIVE "'", "r");
    char line[4096];
    while (nm != nullptr && std::fgets(line, sizeof line, nm) != nullptr) {
        std::istringstream words(line);
        std::string address, kind, name;
        if (line[0] != ' ')
            words >> address;
        if (!(words >> kind >> name) || kind.size() != 1)
            continue; // the name of an object
        if (name == "__gcov_fork")
            name = "fork"; // as a coverage build does it
        (std::string_view("Uwv").find(kind[0]) != std::string_view::npos ? used : defined)
            .insert(name);
    }
    EXPECT_TRUE(nm != nullptr && pclose(nm) == 0);
    Names outside;
    for (const std::string& name : used)
        if (!defined.contains(name) && !is_instrumentation(name))
            outside.insert(name);
    return outside;
}

// Those that neither the table nor the list knows.
Names without_a_row(const Names& names)
{
    const Names harmless = excused_names();
    Names left;
    for (const std::string& name : names)
        if (find_system_call(plain(name).c_str()) == nullptr && !harmless.contains(name) &&
            !harmless.contains(plain(name)))
            left.insert(name);
    return left;
}

TEST(SystemCalls, OfTheLibraryAllHaveARow)
{
    const Names names = names_from_outside();
    EXPECT_GT(names.size(), 100u);
    EXPECT_EQ(without_a_row(names), Names());
}

TEST(SystemCalls, WithoutARowAreFound)
{
    Names names = names_from_outside();
    names.insert({"fchmod", "__readlink_chk", "_Znwm"});
    EXPECT_EQ(without_a_row(names), (Names{"fchmod", "__readlink_chk", "_Znwm"}));
}

TEST(SystemCalls, OfTheTableAreMadeByTheLibrary)
{
    Names names;
    for (const std::string& name : names_from_outside())
        names.insert(plain(name));
    for (const SystemCall& call : system_calls)
        EXPECT_TRUE(names.contains(call.name)) << call.name;
}

TEST(SystemCalls, OfTheTableFailInSomeSuiteInSomeWay)
{
    const Names harmless = excused_names();
    Names names;
    for (const SystemCall& call : system_calls) {
        EXPECT_TRUE(names.insert(call.name).second) << call.name << " stands there twice";
        EXPECT_FALSE(harmless.contains(call.name)) << call.name;
        EXPECT_NE(call.suites, 0u) << call.name;
        const std::set<int> errors(call.errors.begin(), call.errors.end());
        EXPECT_EQ(errors.size(), call.errors.size()) << call.name;
        EXPECT_FALSE(errors.contains(0)) << call.name;
        EXPECT_TRUE(call.repeated == 0 || errors.contains(call.repeated)) << call.name;
    }
}

} // namespace
