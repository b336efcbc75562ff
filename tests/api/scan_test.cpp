// Listing directories, and the matcher against a plain one.
#include "support/file_test.h"

#include "psp/scan.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <dirent.h>

using namespace psptest;

namespace {

// ---- The matcher ----

int folded(char ch)
{
    return ch >= 'a' && ch <= 'z' ? ch - 'a' + 'A' : ch;
}

// The rules written down as plainly as they can be told.
bool plain_match(const char* str, const char* pattern)
{
    if (*pattern == '\0')
        return *str == '\0';
    if (*pattern == '*') {
        if (pattern[1] == '\0')
            return true;
        for (; *str != '\0'; str++)
            if (folded(*str) == folded(pattern[1]) && plain_match(str + 1, pattern + 2))
                return true;
        return false;
    }
    if (*str == '\0')
        return false;
    bool accepted;
    if (*pattern == '?')
        accepted = true;
    else if (*pattern == '#')
        accepted = std::string_view("0123456789ABCDEF").find(*str) != std::string_view::npos;
    else
        accepted = folded(*pattern) == folded(*str);
    return accepted && plain_match(str + 1, pattern + 1);
}

// All strings of up to `longest` of these characters.
std::vector<std::string> all_strings(std::string_view alphabet, std::size_t longest)
{
    std::vector<std::string> strings = {""};
    for (std::size_t i = 0; i < strings.size(); i++) {
        if (strings[i].size() == longest)
            continue;
        const std::string start = strings[i];
        for (const char ch : alphabet)
            strings.push_back(start + ch);
    }
    return strings;
}

std::string random_string(std::mt19937& random, std::string_view alphabet, std::size_t longest)
{
    std::string str(random() % (longest + 1), '\0');
    for (char& ch : str)
        ch = alphabet[random() % alphabet.size()];
    return str;
}

TEST(Match, FollowsItsRulesByHand)
{
    const struct {
        const char* str;
        const char* pattern;
        bool result;
    } rows[] = {
        {"readme.TXT", "*.txt", true},
        {"a.b", "*", true},
        {"", "", true},
        {"", "*", true},
        {"a", "", false},
        {"x?", "*?", true},
        {"xy", "*?", false},
        {"a", "?", true},
        {"", "?", false},
        {"7F", "##", true},
        {"7f", "##", false},
        {"G", "#", false},
        {"abab", "*b", true},
        {"x*", "**", true},
        {"xy", "**", false},
        {"x*yz", "***", true},
        {"x#", "*#", true},
        {"x7", "*#", false},
        {"X", "x", true},
        {"[a]", "[a]", true},
        {"a", "[a]", false},
        {"a\\", "a\\", true},
        {"a/b", "a*b", true},
        {".hidden", "*", true},
        {".hidden", "?hidden", true},
        {"abcXdefXghi", "a*x*hi", true},
        {"abcXdefXghi", "a*x*hj", false},
        {"ab", "abc", false},
        {"abc", "ab", false},
        {"#", "#", false},
        {"?", "?", true},
        {"0123456789ABCDEF", "################", true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(psp_match(row.str, row.pattern), row.result ? ZYN_TRUE : ZYN_FALSE)
            << row.str << " | " << row.pattern;
        EXPECT_EQ(plain_match(row.str, row.pattern), row.result)
            << "the plain one: " << row.str << " | " << row.pattern;
    }
}

TEST(Match, AgreesWithThePlainOneOnAllShortStrings)
{
    const auto strings = all_strings("aB7*?", 4);
    const auto patterns = all_strings("Ab*?#", 4);
    for (const std::string& str : strings)
        for (const std::string& pattern : patterns)
            ASSERT_EQ(psp_match(str.c_str(), pattern.c_str()) == ZYN_TRUE,
                      plain_match(str.c_str(), pattern.c_str()))
                << str << " | " << pattern;
}

TEST(Match, AgreesWithThePlainOneOnAllPatternsOfStars)
{
    const auto strings = all_strings("ab", 7);
    const auto patterns = all_strings("ab*", 6);
    for (const std::string& str : strings)
        for (const std::string& pattern : patterns)
            ASSERT_EQ(psp_match(str.c_str(), pattern.c_str()) == ZYN_TRUE,
                      plain_match(str.c_str(), pattern.c_str()))
                << str << " | " << pattern;
}

TEST(Match, AgreesWithThePlainOneOnRandomStrings)
{
    std::mt19937 random(44);
    int matches = 0;
    for (int i = 0; i < 100000; i++) {
        const std::string str = random_string(random, "aAbB.9fF*?#", 24);
        std::string pattern = random_string(random, "aAbB*?#.", 10);
        if (random() % 2 == 0) { // one that has a chance: the string with pieces replaced
            pattern = str;
            for (int change = 0; change < 3 && !pattern.empty(); change++) {
                const std::size_t at = random() % pattern.size();
                pattern.replace(at, 1 + random() % 4, 1, "*?#b"[random() % 4]);
            }
        }
        const bool expected = plain_match(str.c_str(), pattern.c_str());
        matches += expected;
        ASSERT_EQ(psp_match(str.c_str(), pattern.c_str()) == ZYN_TRUE, expected)
            << str << " | " << pattern;
    }
    EXPECT_GT(matches, 1000);
}

TEST(Match, TakesEveryByte)
{
    for (int a = 1; a < 256; a++) {
        for (int b = 1; b < 256; b++) {
            const std::string str(1, static_cast<char>(a));
            const std::string pattern(1, static_cast<char>(b));
            ASSERT_EQ(psp_match(str.c_str(), pattern.c_str()) == ZYN_TRUE,
                      plain_match(str.c_str(), pattern.c_str()))
                << a << " | " << b;
            const std::string starred = "*" + pattern;
            ASSERT_EQ(psp_match(str.c_str(), starred.c_str()) == ZYN_TRUE,
                      plain_match(str.c_str(), starred.c_str()))
                << a << " | *" << b;
        }
    }
}

TEST(Match, TakesTimeBoundedByTheProductOfTheLengths)
{
    const std::string str(20000, 'a');
    std::string pattern;
    for (int i = 0; i < 100; i++)
        pattern += "*aa";
    EXPECT_EQ(psp_match(str.c_str(), pattern.c_str()), ZYN_TRUE);
    EXPECT_EQ(psp_match(str.c_str(), (pattern + "b").c_str()), ZYN_FALSE);
    EXPECT_EQ(psp_match(str.c_str(), (pattern + "*b").c_str()), ZYN_FALSE);
}

TEST(Match, RefusesNull)
{
    EXPECT_EQ(psp_match(nullptr, "*"), ZYN_FALSE);
    EXPECT_EQ(psp_match("a", nullptr), ZYN_FALSE);
}

// ---- Scans ----

using Entries = std::map<std::string, std::uint32_t>;

class Scan : public PspTest {
  protected:
    // What a scan lists, each name with the mark of a directory.
    static Entries list(const std::string& path, const char* pattern)
    {
        Entries entries;
        const PSP_DIR dir = psp_pathOpen(path.c_str(), pattern);
        EXPECT_NE(dir, nullptr);
        if (dir == nullptr)
            return entries;
        std::uint32_t isdir = 7;
        while (const char* name = psp_pathNext(dir, &isdir)) {
            EXPECT_TRUE(entries.emplace(name, isdir).second) << "twice: " << name;
            isdir = 7;
        }
        psp_pathClose(dir);
        return entries;
    }

    TempDir dir_;
};

TEST_F(Scan, ListsEveryEntryWithItsKind)
{
    write_file(dir_ / "file.txt", "text");
    write_file(dir_ / ".hidden", "");
    ASSERT_EQ(mkdir((dir_ / "sub").c_str(), 0777), 0);
    write_file(dir_ / "sub/inner.txt", "");
    ASSERT_EQ(symlink("sub", (dir_ / "link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (dir_ / "broken").c_str()), 0);
    ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0666), 0);
    const Entries expected = {{".", 1},   {"..", 1},   {"file.txt", 0}, {".hidden", 0},
                              {"sub", 1}, {"link", 0}, {"broken", 0},   {"fifo", 0}};
    EXPECT_EQ(list(dir_.path(), "*"), expected);
    EXPECT_EQ(list(dir_.path() + "/", "*"), expected);
}

TEST_F(Scan, ListsWhatMatches)
{
    for (const char* name : {"a.txt", "B.TXT", "c.tx", "log0A", "log0g", "txt"})
        write_file(dir_ / name, "");
    EXPECT_EQ(list(dir_.path(), "*.txt"), (Entries{{"a.txt", 0}, {"B.TXT", 0}}));
    EXPECT_EQ(list(dir_.path(), "LOG##"), (Entries{{"log0A", 0}}));
    EXPECT_EQ(list(dir_.path(), "???"), (Entries{{"txt", 0}}));
    EXPECT_EQ(list(dir_.path(), "?"), (Entries{{".", 1}}));
    EXPECT_EQ(list(dir_.path(), ".*"), (Entries{{".", 1}, {"..", 1}}));
    EXPECT_EQ(list(dir_.path(), "none"), Entries());
    EXPECT_EQ(list(dir_.path(), ""), Entries());
}

TEST_F(Scan, KeepsTheSystemsOrder)
{
    for (int i = 0; i < 50; i++)
        write_file(dir_ / ("name" + std::to_string(i * 7919 % 1000)), "");
    std::vector<std::string> expected;
    DIR* const system = opendir(dir_.c_str());
    ASSERT_NE(system, nullptr);
    while (const dirent* entry = readdir(system))
        expected.emplace_back(entry->d_name);
    closedir(system);

    std::vector<std::string> listed;
    const PSP_DIR dir = psp_pathOpenEx(dir_.c_str(), 0xFFFF, "*");
    ASSERT_NE(dir, nullptr);
    std::uint32_t isdir;
    while (const char* name = psp_pathNext(dir, &isdir))
        listed.emplace_back(name);
    psp_pathClose(dir);
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(listed.size(), 52u);
}

TEST_F(Scan, StaysAtTheEnd)
{
    const PSP_DIR dir = psp_pathOpen(dir_.c_str(), "*");
    ASSERT_NE(dir, nullptr);
    std::uint32_t isdir;
    EXPECT_NE(psp_pathNext(dir, &isdir), nullptr);
    EXPECT_NE(psp_pathNext(dir, &isdir), nullptr);
    EXPECT_EQ(psp_pathNext(dir, &isdir), nullptr);
    EXPECT_EQ(psp_pathNext(dir, &isdir), nullptr);
    psp_pathClose(dir);
}

TEST_F(Scan, CopiesItsPathAndPattern)
{
    write_file(dir_ / "a.txt", "");
    std::string path = dir_.path();
    std::string pattern = "*.txt";
    const PSP_DIR dir = psp_pathOpen(path.c_str(), pattern.c_str());
    ASSERT_NE(dir, nullptr);
    path.assign(path.size(), 'x');
    pattern.assign(pattern.size(), 'x');
    std::uint32_t isdir = 7;
    EXPECT_STREQ(psp_pathNext(dir, &isdir), "a.txt");
    EXPECT_EQ(isdir, 0u);
    psp_pathClose(dir);
}

TEST_F(Scan, NamesLiveUntilTheNext)
{
    write_file(dir_ / "a", "");
    const PSP_DIR first = psp_pathOpen(dir_.c_str(), "a");
    const PSP_DIR second = psp_pathOpen(dir_.c_str(), "..");
    std::uint32_t isdir;
    const char* const name = psp_pathNext(first, &isdir);
    EXPECT_STREQ(psp_pathNext(second, &isdir), "..");
    EXPECT_EQ(psp_pathNext(second, &isdir), nullptr);
    psp_pathClose(second);
    EXPECT_STREQ(name, "a");
    psp_pathClose(first);
}

TEST_F(Scan, IsNullWhenTheDirectoryCannotBeOpened)
{
    write_file(dir_ / "file", "");
    errno = 0;
    EXPECT_EQ(psp_pathOpen((dir_ / "none").c_str(), "*"), nullptr);
    EXPECT_EQ(psp_errno(), ENOENT);
    EXPECT_EQ(psp_pathOpen((dir_ / "file").c_str(), "*"), nullptr);
    EXPECT_EQ(psp_errno(), ENOTDIR);
    EXPECT_EQ(psp_pathOpen("", "*"), nullptr);
    EXPECT_EQ(psp_pathOpen(nullptr, "*"), nullptr);
    EXPECT_EQ(psp_pathOpen(dir_.c_str(), nullptr), nullptr);
}

TEST_F(Scan, IsNullWithoutPermission)
{
    ASSERT_EQ(mkdir((dir_ / "closed").c_str(), 0700), 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
    ASSERT_EQ(chmod((dir_ / "closed").c_str(), 0), 0);
    EXPECT_EQ(run_in_child([this] {
                  drop_privileges();
                  EXPECT_EQ(psp_pathOpen((dir_ / "closed").c_str(), "*"), nullptr);
                  EXPECT_EQ(psp_errno(), EACCES);
                  return 0;
              }),
              0);
    ASSERT_EQ(chmod((dir_ / "closed").c_str(), 0700), 0);
}

TEST_F(Scan, IsNullInDisklessMode)
{
    EXPECT_EQ(run_in_child([this] {
                  psp_nodisk();
                  EXPECT_EQ(psp_pathOpen(dir_.c_str(), "*"), nullptr);
                  EXPECT_EQ(psp_pathOpenEx("/", 0, "*"), nullptr);
                  return 0;
              }),
              0);
}

TEST_F(Scan, WorksInReadOnlyMode)
{
    EXPECT_EQ(run_in_child([this] {
                  psp_rdonly();
                  EXPECT_EQ(list(dir_.path(), "*"), (Entries{{".", 1}, {"..", 1}}));
                  return 0;
              }),
              0);
}

TEST_F(Scan, GivesEverythingBackWhereverItEnds)
{
    write_file(dir_ / "a", "");
    expect_no_growth([this] {
        for (int taken = 0; taken < 6; taken++) {
            const PSP_DIR dir = psp_pathOpen(dir_.c_str(), "*");
            ASSERT_NE(dir, nullptr);
            std::uint32_t isdir;
            for (int i = 0; i < taken; i++)
                psp_pathNext(dir, &isdir);
            psp_pathClose(dir);
        }
        EXPECT_EQ(psp_pathOpen((dir_ / "none").c_str(), "*"), nullptr);
    });
}

TEST_F(Scan, NullIsNoScan)
{
    std::uint32_t isdir;
    EXPECT_EQ(psp_pathNext(nullptr, &isdir), nullptr);
    psp_pathClose(nullptr);
}

using StoppedScan = RawTest;

TEST_F(StoppedScan, DoesNotOpen)
{
    EXPECT_EQ(psp_pathOpen("/", "*"), nullptr);
}

} // namespace
