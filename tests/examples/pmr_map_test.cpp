// The example pmr_map: what it counts, that its tag holds the words, and how it fails.
#include "program.h"

#include <algorithm>
#include <string>

#include <sys/resource.h>

namespace {

using psptest::Result;
using psptest::run_program;
using psptest::TempDir;
using psptest::write_file;

// The output above its last line, which must tell of `words` different ones.
std::string rows_of(const Result& result, int words)
{
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const std::string told = std::to_string(words) + " different words took ";
    const std::size_t at = result.out.find(told);
    if (at == std::string::npos) {
        ADD_FAILURE() << result.out;
        return "";
    }
    EXPECT_EQ(result.out.substr(result.out.find(' ', at + told.size())), " bytes in the tag\n");
    return result.out.substr(0, at);
}

TEST(PmrMap, CountsWordsAndPrintsTheMostFrequent)
{
    TempDir dir;
    const std::string file = dir / "text";
    write_file(file, "The cat, the DOG and the bird;\nthe dog\n\n-- and A1\nno newline at the end");
    EXPECT_EQ(rows_of(run_program(PMR_MAP_PATH, dir, {file, "3"}), 10),
              "      5 the\n      2 and\n      2 dog\n");
}

TEST(PmrMap, PrintsTenWithoutACountAndAllOfFewer)
{
    TempDir dir;
    write_file(dir / "many", "a b c d e f g h i j k l m");
    const std::string rows = rows_of(run_program(PMR_MAP_PATH, dir, {dir / "many"}), 13);
    EXPECT_EQ(std::count(rows.begin(), rows.end(), '\n'), 10);
    write_file(dir / "few", "b a");
    EXPECT_EQ(rows_of(run_program(PMR_MAP_PATH, dir, {dir / "few"}), 2), "      1 a\n      1 b\n");
    write_file(dir / "none", "");
    EXPECT_EQ(rows_of(run_program(PMR_MAP_PATH, dir, {dir / "none"}), 0), "");
}

TEST(PmrMap, KeepsEveryWordInTheTag)
{
    TempDir dir;
    std::string text;
    for (int i = 0; i < 20000; i++)
        text += "longerThanASmallString" + std::to_string(i) + " ";
    write_file(dir / "text", text);
    const Result result = run_program(PMR_MAP_PATH, dir, {dir / "text", "0"});
    EXPECT_EQ(rows_of(result, 20000), "");
    const std::string told = "words took ";
    const long bytes = std::stol(result.out.substr(result.out.find(told) + told.size()));
    EXPECT_GT(bytes, 20000 * (24 + 40)) << "a word's letters, three pointers and a string each";
}

TEST(PmrMap, TellsOfAFileThatIsNotThere)
{
    TempDir dir;
    const Result result = run_program(PMR_MAP_PATH, dir, {dir / "missing"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "pmr_map: the file could not be opened\n");
}

TEST(PmrMap, TellsHowItIsUsed)
{
    TempDir dir;
    const Result result = run_program(PMR_MAP_PATH, dir, {});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "usage: pmr_map FILE [COUNT]\n");
}

TEST(PmrMap, EndsWellWithoutMemory)
{
    if (psptest::under_asan || psptest::under_tsan)
        GTEST_SKIP() << "a sanitizer's own memory exceeds the limit";
    TempDir dir;
    std::string text;
    for (int i = 0; i < 1000000; i++)
        text += std::to_string(i) + "\n";
    write_file(dir / "text", text);
    const Result result = run_program(PMR_MAP_PATH, dir, {dir / "text"}, "", [] {
        const rlimit limit = {50 << 20, 50 << 20};
        return setrlimit(RLIMIT_AS, &limit) == 0;
    });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "pmr_map: memory could not be allocated\n");
}

} // namespace
