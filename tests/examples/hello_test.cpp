// The example hello: what it leaves in the file and on the two outputs, and how it fails.
#include "program.h"

#include "zynretcodetypes.h"

#include <cstdlib>

namespace {

using psptest::file_exists;
using psptest::read_file;
using psptest::Result;
using psptest::run_program;
using psptest::TempDir;
using psptest::write_file;

const std::string greeting = "Hello from version 14.1.3222!\n";

std::string failure(ZYN_RETCODE code)
{
    return "hello: failed with code " + std::to_string(code) + "\n";
}

TEST(Hello, WritesTheGreetingReadsItBackAndLogsIt)
{
    TempDir dir;
    const std::string file = dir / "greeting.txt";
    const Result result = run_program(HELLO_PATH, dir, {file});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, file + ": " + greeting);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(read_file(file), greeting);
}

TEST(Hello, TakesHelloTxtInTheCurrentDirectoryWithoutAnArgument)
{
    TempDir dir;
    const Result result =
        run_program(HELLO_PATH, dir, {}, "", [&] { return chdir(dir.c_str()) == 0; });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "hello.txt: " + greeting);
    EXPECT_EQ(read_file(dir / "hello.txt"), greeting);
}

TEST(Hello, ReplacesALongerFile)
{
    TempDir dir;
    const std::string file = dir / "old.txt";
    write_file(file, std::string(5000, 'x'));
    EXPECT_EQ(run_program(HELLO_PATH, dir, {file}).status, 0);
    EXPECT_EQ(read_file(file), greeting);
}

TEST(Hello, FailsWithACodeWhenTheFileCannotBeOpened)
{
    TempDir dir;
    for (const std::string& file : {dir / "missing/file.txt", dir.path(), std::string()}) {
        const Result result = run_program(HELLO_PATH, dir, {file});
        EXPECT_EQ(result.status, 1) << file;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, failure(eFILEOPEN)) << file;
    }
    EXPECT_FALSE(file_exists(dir / "missing"));
}

TEST(Hello, FailsWithACodeWhenTheDiskIsFull)
{
    TempDir dir;
    const Result result = run_program(HELLO_PATH, dir, {"/dev/full"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, failure(eBADWRITE));
}

TEST(Hello, FailsWhenTheFileDoesNotGiveBackWhatWasWritten)
{
    TempDir dir;
    const Result result = run_program(HELLO_PATH, dir, {"/dev/null"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, failure(eINVFILE));
}

TEST(Hello, RunsWithoutTheCxxRuntime)
{
    if (psptest::under_asan || psptest::under_tsan)
        GTEST_SKIP() << "a sanitizer brings the C++ runtime with it";
    TempDir dir;
    // With this variable the dynamic loader lists what it loads and does not run the program.
    const Result result = run_program(HELLO_PATH, dir, {dir / "never.txt"}, "", [] {
        return setenv("LD_TRACE_LOADED_OBJECTS", "1", 1) == 0;
    });
    EXPECT_NE(result.out.find("libzynpsp-14.so"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("libstdc++"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("libgcc"), std::string::npos) << result.out;
    EXPECT_FALSE(file_exists(dir / "never.txt"));
}

} // namespace
