// Nothing of SQLite's own platform code runs: under a spy that ends the process at the first
// system, heap or mutex function that SQLite's library calls itself, sqlengine does all its work.

#include "sqlengine_process.h"

#if !defined(SQLITE_SPY_PATH) || !defined(SQLITE_PLAIN_PATH)
#error "SQLITE_SPY_PATH and SQLITE_PLAIN_PATH name the spy and what it must catch"
#endif

namespace {

using psptest::TempDir;
using sqltest::Result;
using sqltest::run_engine;

constexpr int caught = 86;

bool under_the_spy()
{
    return setenv("LD_PRELOAD", SQLITE_SPY_PATH, 1) == 0;
}

class SqlSpy : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (psptest::under_asan || psptest::under_tsan)
            GTEST_SKIP() << "the sanitizer's own replacements come first";
    }
};

TEST_F(SqlSpy, CatchesSqliteOnItsOwnPlatform)
{
    TempDir dir;
    const int status = psptest::run_in_child([&dir] {
        const std::string db = dir / "a.db";
        under_the_spy();
        execl(SQLITE_PLAIN_PATH, SQLITE_PLAIN_PATH, db.c_str(), nullptr);
        return sqltest::not_started;
    });
    EXPECT_EQ(status, caught);
}

TEST_F(SqlSpy, FindsNothingInTheShell)
{
    TempDir dir;
    const Result result = run_engine(
        dir, {"--log", dir / "log", dir / "a.db"},
        "PRAGMA cache_size = 10;\nPRAGMA temp_store = FILE;\nPRAGMA temp.cache_size = 10;\n"
        "CREATE TABLE t AS WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c"
        " WHERE n < 2000) SELECT n, hex(randomblob(100)) AS text, datetime('now') AS at FROM c;\n"
        "CREATE TEMP TABLE copy AS SELECT * FROM t ORDER BY text;\n"
        "CREATE INDEX t_text ON t(text);\n"
        "BEGIN;\nDELETE FROM t WHERE n % 2;\nSAVEPOINT s;\nUPDATE t SET text = n;\nROLLBACK TO s;\n"
        "COMMIT;\nVACUUM;\nATTACH 'other.db' AS memory;\nDETACH memory;\n"
        "PRAGMA integrity_check;\nSELECT count(*) FROM t;\nSELECT absent;\n",
        [&dir] { return chdir(dir.c_str()) == 0 && under_the_spy(); });
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find(" 1000\n(1 row)\n"), std::string::npos) << result.out;
    EXPECT_NE(result.err.find("no such column: absent\n"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("SQLite called"), std::string::npos) << result.err;
}

TEST_F(SqlSpy, FindsNothingInTheDemonstration)
{
    if (!psptest::file_exists("/usr/share/unicode/UnicodeData.txt"))
        GTEST_SKIP() << "package unicode-data is missing";
    TempDir dir;
    const Result result = run_engine(dir, {"--demo", dir / "demo"}, "", under_the_spy);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
}

} // namespace
