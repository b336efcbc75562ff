// The example sqlengine as its users meet it: the shell and its messages, every kind of trouble
// with files and locks, and the demonstration.

#include "psp/scan.h"
#include "shortage.h"
#include "sqlengine_process.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <linux/capability.h>

namespace {

using psptest::file_exists;
using psptest::read_file;
using psptest::TempDir;
using psptest::write_file;
using sqltest::Engine;
using sqltest::expect_sound;
using sqltest::query_value;
using sqltest::Result;
using sqltest::run_engine;

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// Everything that is written to a terminal until its last user closes it.
std::string read_to_end(int master)
{
    std::string shown;
    char part[4096];
    ssize_t got;
    while ((got = read(master, part, sizeof part)) > 0)
        shown.append(part, static_cast<std::size_t>(got));
    close(master);
    return shown;
}

// ---- The shell ----

TEST(SqlShell, PrintsTablesCountsAndAcknowledgements)
{
    TempDir dir;
    const Result result =
        run_engine(dir, {dir / "a.db"},
                   "CREATE TABLE t(n INTEGER, word TEXT);\n"
                   "INSERT INTO t VALUES(7, 'été'), (12345, '漢字'), (NULL, 'x');\n"
                   "SELECT n, word, n + 0.5 AS half FROM t ORDER BY n;\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "ok\n"
                          "ok, 3 rows\n"
                          "    n  word     half\n"
                          "─────  ────  ───────\n"
                          " NULL  x        NULL\n"
                          "    7  été       7.5\n"
                          "12345  漢字  12345.5\n"
                          "(3 rows)\n");
    expect_sound(dir, dir / "a.db");
}

TEST(SqlShell, ShowsBytesThatAreNoTextHarmlessly)
{
    TempDir dir;
    const Result result =
        run_engine(dir, {dir / "a.db"},
                   "SELECT x'00ff' AS b, CAST(x'41ff42' AS TEXT) AS t, char(27, 10, 8238) AS c;\n");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "x'00ff'  A?B  ␛␊·\n")) << result.out;
}

TEST(SqlShell, StatementsMaySpanLinesAndShareOne)
{
    TempDir dir;
    const Result result = run_engine(dir, {dir / "a.db"},
                                     "-- a comment\nCREATE TABLE t(\n  a\n); INSERT INTO t VALUES\n"
                                     "('semi;colon'); SELECT a FROM t;\n-- the end");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "ok\nok, 1 row\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "semi;colon\n(1 row)\n")) << result.out;
}

TEST(SqlShell, ResultsOfAnySizeAreComplete)
{
    TempDir dir;
    const auto column = sqltest::query_column(
        dir, dir / "a.db",
        "WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c WHERE n < 3000)"
        " SELECT n FROM c");
    ASSERT_EQ(column.size(), 3000u);
    for (std::size_t i = 0; i < column.size(); i++)
        ASSERT_EQ(std::stoul(column[i]), i + 1);
}

TEST(SqlShell, ScriptStopsAtTheFirstErrorWithItsLine)
{
    TempDir dir;
    const Result result =
        run_engine(dir, {dir / "a.db"},
                   "CREATE TABLE t(a);\nINSERT INTO t VALUES(1);\n\nSELEC 1;\nDROP TABLE t;\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "ok\nok, 1 row\n");
    EXPECT_EQ(result.err, "sqlengine: line 4: near \"SELEC\": syntax error\n");
    EXPECT_EQ(query_value(dir, dir / "a.db", "SELECT count(*) FROM t"), "1");
}

TEST(SqlShell, ScriptGoesOnAfterAnErrorWhenAskedTo)
{
    TempDir dir;
    const Result result = run_engine(dir, {"--go-on", dir / "a.db"},
                                     "CREATE TABLE t(a UNIQUE);\nBEGIN;\n"
                                     "INSERT INTO t VALUES(1);\n"
                                     "INSERT INTO t VALUES(1); INSERT INTO t VALUES(2);\n"
                                     "INSERT INTO t VALUES(3);\nCOMMIT;\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "ok\nok\nok, 1 row\nok, 1 row\nok\n");
    EXPECT_EQ(result.err, "sqlengine: line 4: UNIQUE constraint failed: t.a\n");
    EXPECT_EQ(query_value(dir, dir / "a.db", "SELECT group_concat(a) FROM t"), "1,3");
}

TEST(SqlShell, RunTimeErrorsAreErrorsToo)
{
    TempDir dir;
    const Result result = run_engine(dir, {dir / "a.db"},
                                     "CREATE TABLE t(a UNIQUE);\nINSERT INTO t VALUES(1);\n"
                                     "INSERT INTO t VALUES(1);\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "sqlengine: line 3: UNIQUE constraint failed: t.a\n");
}

TEST(SqlShell, CutOffStatementIsNotRun)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    ASSERT_EQ(run_engine(dir, {db}, "CREATE TABLE t AS SELECT 1 AS a;\n").status, 0);
    const Result result = run_engine(dir, {db}, "DELETE FROM t");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "sqlengine: line 1: the input ends inside a statement, which was not run\n");
    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM t"), "1");
}

TEST(SqlShell, OpenTransactionAtTheEndIsRolledBackAndSaid)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    const Result result = run_engine(dir, {db},
                                     "CREATE TABLE t(a);\nBEGIN;\n"
                                     "INSERT INTO t VALUES(1);\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.err, "inside a transaction, which was rolled back")) << result.err;
    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM t"), "0");
}

TEST(SqlShell, InputWithNulBytesIsRefused)
{
    TempDir dir;
    const Result result = run_engine(dir, {dir / "a.db"}, std::string("SELECT 1;\n\0\0x", 13));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "sqlengine: line 2: the input is not text\n");
}

TEST(SqlShell, LargeTemporaryTablesLeaveNoFileBehind)
{
    TempDir dir;
    TempDir scratch;
    const auto own_scratch = [&scratch] { return setenv("ZYN_TMPDIR", scratch.c_str(), 1) == 0; };
    const Result result = run_engine(
        dir, {"--figures", dir / "a.db"},
        "PRAGMA temp_store = FILE;\nPRAGMA temp.cache_size = 10;\n"
        "CREATE TEMP TABLE big AS WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c"
        " WHERE n < 2000) SELECT n, randomblob(500) AS b FROM c;\n"
        "SELECT count(*) AS rows, sum(length(b)) AS bytes FROM big;\n",
        own_scratch);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "2000  1000000\n")) << result.out;
    EXPECT_FALSE(contains(result.out, ", 0 of them temporary")) << result.out;
    EXPECT_TRUE(std::filesystem::is_empty(scratch.path()));
}

TEST(SqlShell, WrongUseExitsWithTwo)
{
    TempDir dir;
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"--nonsense"},
                                               {"--wait"},
                                               {"--wait", "soon", dir / "a.db"},
                                               {dir / "a.db", dir / "b.db"},
                                               {"--demo"}}) {
        const Result result = run_engine(dir, arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err.rfind("usage: sqlengine", 0), 0u) << result.err;
    }
    EXPECT_FALSE(file_exists(dir / "a.db"));
    EXPECT_EQ(run_engine(dir, {"--help"}).status, 0);
    EXPECT_EQ(run_engine(dir, {"--version"}).out.rfind("sqlengine: libzynpsp 14.1.3222", 0), 0u);
}

// What a person sees: prompts, the message, and the shell going on.
TEST(SqlShell, GoesOnAfterAnErrorOnATerminal)
{
    TempDir dir;
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        GTEST_SKIP() << "no terminal can be made here";
    const std::string name = ptsname(master);
    Engine engine(dir, "shell", {dir / "a.db"}, "", [&name] {
        const int terminal = open(name.c_str(), O_RDWR | O_NOCTTY);
        return terminal >= 0 && dup2(terminal, 0) == 0 && dup2(terminal, 1) == 1;
    });
    const std::string typed = "SELEC 1;\nSELECT 6 *\n7 AS n;\n .quit\n";
    ASSERT_EQ(write(master, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    const std::string shown = read_to_end(master);
    const Result result = engine.finish();
    EXPECT_EQ(result.status, 1); // something did fail
    EXPECT_TRUE(contains(result.err, "line 1: near \"SELEC\": syntax error")) << result.err;
    EXPECT_TRUE(contains(shown, "sql> ")) << shown;
    EXPECT_TRUE(contains(shown, "...> ")) << shown;
    EXPECT_TRUE(contains(shown, "\r\n42\r\n(1 row)\r\n")) << shown;
}

// ---- The log ----

TEST(SqlLog, HoldsTheEnginesErrorsBehindTheTime)
{
    TempDir dir;
    const std::string log = dir / "engine.log";
    EXPECT_EQ(run_engine(dir, {"--log", log, dir / "a.db"}, "SELECT absent;\n").status, 1);
    const std::string text = read_file(log);
    EXPECT_TRUE(contains(text, "]  sqlite (1): no such column: absent")) << text;
    EXPECT_TRUE(contains(text, "]  error: line 1: no such column: absent\n")) << text;
    std::size_t lines = 0;
    for (std::size_t at = 0; at < text.size(); at = text.find('\n', at) + 1, lines++) {
        const std::string head = text.substr(at, 23); // [2024-05-01 13:07:42]␣␣
        ASSERT_TRUE(psp_match(head.c_str(), "[2###-##-## ##:##:##]  ")) << text;
    }
    EXPECT_GE(lines, 4u);
}

TEST(SqlLog, NeverOverwritesWhatIsNoLog)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    ASSERT_EQ(run_engine(dir, {db}, "CREATE TABLE t(a);\n").status, 0);
    const std::string before = read_file(db);
    const Result result = run_engine(dir, {"--log", db, db}, "SELECT 1;\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.err, "cannot be the log")) << result.err;
    EXPECT_EQ(read_file(db), before);
}

TEST(SqlLog, InAMissingDirectoryIsSaid)
{
    TempDir dir;
    const Result result = run_engine(dir, {"--log", dir / "no/such.log", dir / "a.db"}, "");
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.err, "no/such.log: cannot be opened as the log")) << result.err;
}

TEST(SqlLog, StatementThatSpansLinesCannotForgeALine)
{
    TempDir dir;
    const std::string log = dir / "engine.log";
    EXPECT_EQ(run_engine(dir, {"--log", log, dir / "a.db"}, "SELECT +\n[forged]\n;\n").status, 1);
    const std::string text = read_file(log);
    EXPECT_TRUE(contains(text, "[forged]")) << text;
    EXPECT_FALSE(contains(text, "\n[forged]")) << text;
}

// ---- Trouble with files ----

TEST(SqlFiles, FileThatIsNoDatabaseIsLeftAlone)
{
    TempDir dir;
    const std::string db = dir / "letter.txt";
    const std::string letter(5000, 'x');
    write_file(db, letter);
    const Result result = run_engine(dir, {db}, "CREATE TABLE t(a);\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "sqlengine: " + db + ": file is not a database\n");
    EXPECT_EQ(read_file(db), letter);
}

TEST(SqlFiles, DamagedDatabaseIsNamedSo)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    ASSERT_EQ(run_engine(dir, {db},
                         "CREATE TABLE t AS WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1"
                         " FROM c WHERE n < 500) SELECT n, randomblob(100) FROM c;\n")
                  .status,
              0);
    std::string bytes = read_file(db);
    ASSERT_GT(bytes.size(), 8192u);
    std::fill(bytes.begin() + 4096, bytes.begin() + 8192, '\xFF'); // the table's root
    write_file(db, bytes);
    const Result result = run_engine(dir, {db}, "SELECT count(*) FROM t;\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.err, "malformed")) << result.err;
    EXPECT_EQ(read_file(db), bytes);
}

TEST(SqlFiles, MissingDirectoryAndDirectoryAsDatabase)
{
    TempDir dir;
    const Result missing = run_engine(dir, {dir / "no/a.db"}, "SELECT 1;\n");
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(contains(missing.err, "unable to open database file: No such file or directory"))
        << missing.err;
    const Result directory = run_engine(dir, {dir.path()}, "SELECT 1;\n");
    EXPECT_EQ(directory.status, 1);
    EXPECT_TRUE(contains(directory.err, "unable to open database file: Is a directory"))
        << directory.err;
}

TEST(SqlFiles, SymbolicLinkIsNoDatabase)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    ASSERT_EQ(run_engine(dir, {db}, "CREATE TABLE t(a);\n").status, 0);
    ASSERT_EQ(symlink(db.c_str(), (dir / "link.db").c_str()), 0);
    const Result result = run_engine(dir, {dir / "link.db"}, "SELECT 1;\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.err, "Too many levels of symbolic links")) << result.err;
}

constexpr const char* fill_forever =
    "CREATE TABLE t(id INTEGER PRIMARY KEY, body BLOB);\n"
    "INSERT INTO t(body) VALUES(randomblob(9000));\n"
    "INSERT INTO t(body) VALUES(randomblob(9000));\n"
    "BEGIN;\n"
    "INSERT INTO t(body) WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c"
    " WHERE n < 1000) SELECT randomblob(9000) FROM c;\n"
    "COMMIT;\n";

// What a run of fill_forever in too little room must leave.
void expect_full_but_sound(const TempDir& dir, const std::string& db, const Result& result)
{
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "ok\nok, 1 row\nok, 1 row\nok\n");
    EXPECT_TRUE(contains(result.err, "database or disk is full")) << result.err;
    expect_sound(dir, db);
    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM t"), "2");
}

// A limit on the size of files refuses to write as a full disk does, without any privilege.
TEST(SqlFiles, FileSizeLimitRollsBackAndKeepsWhatWasCommitted)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    const auto limit = [] {
        const rlimit small = {200 * 1024, 200 * 1024};
        return psptest::survive_size_limit() && setrlimit(RLIMIT_FSIZE, &small) == 0;
    };
    expect_full_but_sound(dir, db, run_engine(dir, {db}, fill_forever, limit));
}

TEST(SqlFiles, FullDiskRollsBackAndKeepsWhatWasCommitted)
{
    TempDir dir;
    TempDir disk;
    const int status = psptest::on_small_disk(disk.path(), 256 * 1024, [&] {
        const std::string db = disk / "a.db";
        expect_full_but_sound(dir, db, run_engine(dir, {db}, fill_forever));
    });
    if (status == psptest::not_permitted)
        GTEST_SKIP() << "a small disk cannot be mounted here";
    EXPECT_EQ(status, 0);
}

// As root too the permission bits bind, once the capability to override them is gone.
bool obey_permissions()
{
    return geteuid() != 0 || prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0) == 0;
}

TEST(SqlFiles, ReadOnlyDirectoryIsReadButNotWritten)
{
    TempDir dir;
    TempDir closed;
    const std::string db = closed / "a.db";
    ASSERT_EQ(run_engine(dir, {db}, "CREATE TABLE t AS SELECT 5 AS a;\n").status, 0);
    const std::string before = read_file(db);
    ASSERT_EQ(chmod(closed.c_str(), 0555), 0);

    const Result fresh =
        run_engine(dir, {closed / "b.db"}, "CREATE TABLE t(a);\n", obey_permissions);
    const Result change =
        run_engine(dir, {db}, "SELECT a FROM t;\nDELETE FROM t;\n", obey_permissions);
    EXPECT_EQ(chmod(closed.c_str(), 0755), 0);
    if (fresh.status == sqltest::not_started)
        GTEST_SKIP() << "permissions do not bind here";

    EXPECT_EQ(fresh.status, 1);
    EXPECT_TRUE(contains(fresh.err, "unable to open database file: Permission denied"))
        << fresh.err;
    EXPECT_FALSE(file_exists(closed / "b.db"));
    EXPECT_EQ(change.status, 1);
    EXPECT_TRUE(contains(change.out, "5\n(1 row)\n")) << change.out;
    EXPECT_TRUE(contains(change.err, "line 2: unable to open database file: Permission denied"))
        << change.err;
    EXPECT_EQ(read_file(db), before);
}

TEST(SqlFiles, ReadOnlyDatabaseIsReadButNotWritten)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    ASSERT_EQ(run_engine(dir, {db}, "CREATE TABLE t AS SELECT 5 AS a;\n").status, 0);
    ASSERT_EQ(chmod(db.c_str(), 0444), 0);
    const Result result =
        run_engine(dir, {db}, "SELECT a FROM t;\nDELETE FROM t;\n", obey_permissions);
    if (result.status == sqltest::not_started)
        GTEST_SKIP() << "permissions do not bind here";
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.out, "5\n(1 row)\n")) << result.out;
    EXPECT_EQ(result.err, "sqlengine: line 2: attempt to write a readonly database\n");
}

// A process started without standard output must not print into the database that takes its place.
TEST(SqlFiles, ClosedStandardDescriptorsNeverReachTheDatabase)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    const Result result = run_engine(dir, {db},
                                     "CREATE TABLE t(a);\nINSERT INTO t VALUES(1);\n"
                                     "SELECT * FROM t;\nSELECT nothing;\n",
                                     [] { return close(1) == 0 && close(2) == 0; });
    EXPECT_EQ(result.status, 1);
    expect_sound(dir, db);
    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM t"), "1");
}

// ---- Two processes ----

TEST(SqlLocks, HeldLockIsSaidAfterTheWait)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    Engine holder(dir, "holder", {db});
    holder.say("CREATE TABLE t(a);\nBEGIN IMMEDIATE;\nINSERT INTO t VALUES(1);\n");
    ASSERT_TRUE(holder.wait_for("ok, 1 row"));

    const auto start = std::chrono::steady_clock::now();
    const Result refused = run_engine(dir, {"--wait", "300", db}, "SELECT 1;\n");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "sqlengine: " + db +
                               ": database is locked: another process holds it (waited 300 ms)\n");

    holder.say("COMMIT;\n");
    EXPECT_EQ(holder.finish().status, 0);
    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM t"), "1");
}

TEST(SqlLocks, WaiterGoesOnWhenTheHolderIsDone)
{
    TempDir dir;
    const std::string db = dir / "a.db";
    Engine holder(dir, "holder", {db});
    holder.say("CREATE TABLE t(a);\nBEGIN IMMEDIATE;\nINSERT INTO t VALUES(1);\n");
    ASSERT_TRUE(holder.wait_for("ok, 1 row"));
    Engine waiter(dir, "waiter", {"--wait", "20000", db}, "INSERT INTO t VALUES(2);\n");
    usleep(100 * 1000);
    EXPECT_EQ(waiter.output(), "");
    holder.say("COMMIT;\n");
    EXPECT_EQ(waiter.finish().status, 0);
    EXPECT_EQ(holder.finish().status, 0);
    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM t"), "2");
}

TEST(SqlLocks, TwoProcessesExcludeEachOtherAndBothFinish)
{
    constexpr int turns = 100;
    TempDir dir;
    const std::string db = dir / "a.db";
    ASSERT_EQ(run_engine(dir, {db}, "CREATE TABLE turn(seq INTEGER, who TEXT);\n").status, 0);
    const auto script = [](const std::string& who) {
        std::string text;
        for (int i = 0; i < turns; i++) // reads the count, then writes it: lost when not excluded
            text += "BEGIN IMMEDIATE; INSERT INTO turn SELECT count(*), '" + who +
                    "' FROM turn; COMMIT;\n";
        return text;
    };
    Engine gate(dir, "gate", {db}); // lets both start, then lets them go at once
    gate.say("BEGIN IMMEDIATE;\n");
    ASSERT_TRUE(gate.wait_for("ok"));
    Engine one(dir, "one", {"--wait", "30000", "--figures", db}, script("one"));
    Engine two(dir, "two", {"--wait", "30000", "--figures", db}, script("two"));
    usleep(300 * 1000);
    gate.say("COMMIT;\n");
    EXPECT_EQ(gate.finish().status, 0);
    const Result first = one.finish();
    const Result second = two.finish();
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(second.status, 0) << second.err;
    // They did meet: someone found the lock taken.
    EXPECT_FALSE(contains(first.out, ", 0 refused") && contains(second.out, ", 0 refused"));

    expect_sound(dir, db);
    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM turn"), std::to_string(2 * turns));
    EXPECT_EQ(query_value(dir, db, "SELECT count(DISTINCT seq) FROM turn"),
              std::to_string(2 * turns));
    EXPECT_EQ(query_value(dir, db, "SELECT max(seq) FROM turn"), std::to_string(2 * turns - 1));
}

// ---- The demonstration ----

constexpr const char* unicode_data = "/usr/share/unicode/UnicodeData.txt";

std::size_t lines_in(const std::string& text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST(SqlDemo, ImportsAnswersChecksAndReports)
{
    if (!file_exists(unicode_data))
        GTEST_SKIP() << "package unicode-data is missing";
    TempDir dir;
    const std::string where = dir / "new/place";
    for (int round = 0; round < 2; round++) { // the second one replaces what the first one left
        const Result result = run_engine(dir, {"--demo", where});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        EXPECT_FALSE(contains(result.out, "\r")); // no progress line in a file
        for (const char* expected :
             {"DEVANAGARI    ० १ २ ३ ४ ५ ६ ७ ८ ९  U+0966\n", "\nintegrity check: ok\n",
              "1/320          𑿀", "replaced, not used\n", "which is that of the engine's tag\n",
              "CJK Ideograph                   20992  U+4E00   U+9FFF   一 … 鿿\n"})
            EXPECT_TRUE(contains(result.out, expected)) << expected << "\n" << result.out;
        EXPECT_FALSE(contains(result.out, "mutexes      0 created"));
        EXPECT_FALSE(contains(result.out, "0 of files"));
        EXPECT_TRUE(contains(result.out, "log          " + where + "/sqlengine.log\n"));
    }
    const std::size_t rows = lines_in(read_file(unicode_data));
    const std::string db = where + "/unicode.db";
    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM character"), std::to_string(rows));
    EXPECT_EQ(query_value(dir, db, "SELECT glyph FROM character WHERE name = 'SNOWMAN'"), "☃");
    expect_sound(dir, db);
    const std::string log = read_file(where + "/sqlengine.log");
    EXPECT_TRUE(contains(log, "]  imported " + std::to_string(rows) + " rows of")) << log;
}

TEST(SqlDemo, FileThatIsNotTheTableIsRefusedAndNothingImported)
{
    TempDir dir;
    write_file(dir / "data", "0041;LATIN CAPITAL LETTER A;Lu;0;L;;;;;N;;;;0061;\nhello\n");
    const Result result = run_engine(dir, {"--demo", dir / "demo", dir / "data"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.err, "line 2 is not in the format")) << result.err;
    EXPECT_EQ(query_value(dir, dir / "demo/unicode.db", "SELECT count(*) FROM sqlite_schema"), "0");
}

TEST(SqlDemo, ShowsItsProgressOnATerminal)
{
    if (!file_exists(unicode_data))
        GTEST_SKIP() << "package unicode-data is missing";
    TempDir dir;
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        GTEST_SKIP() << "no terminal can be made here";
    const std::string name = ptsname(master);
    Engine engine(dir, "demo", {"--demo", dir / "demo"}, "", [&name] {
        const int terminal = open(name.c_str(), O_RDWR | O_NOCTTY);
        return terminal >= 0 && dup2(terminal, 1) == 1;
    });
    const std::string shown = read_to_end(master);
    EXPECT_EQ(engine.finish().status, 0);
    EXPECT_TRUE(contains(shown, "\rimporting  4,000 rows")) << shown;
    EXPECT_TRUE(contains(shown, "\r\x1b[Kimported ")) << shown;
}

} // namespace
