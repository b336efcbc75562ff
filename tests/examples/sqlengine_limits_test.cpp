// What runs out in the middle of the work: room on the disk, the size a file may have, descriptors.
// A statement that cannot be done says so, the process lives and answers rightly or with an error,
// what it acknowledged stays, and once there is enough again it goes on as if nothing had been.

#include "shortage.h"
#include "sqlengine_dialog.h"
#include "support/scale.h"

#include <map>
#include <random>
#include <set>

namespace {

using psptest::in_long_run;
using psptest::set_limit;
using psptest::TempDir;
using sqltest::Dialog;
using sqltest::expect_sound;
using sqltest::query_column;
using sqltest::query_value;

constexpr int rows_a_unit = 3;
constexpr int units_before = 6;
constexpr int units_after = 4;

bool refuses(const std::string& answer)
{
    return answer.find("sqlengine: line ") != std::string::npos;
}

// A row's text, some thousand bytes that tell where they belong.
std::string body_sql(const std::string& unit, const std::string& row)
{
    return "replace(hex(zeroblob(700)), '00', " + unit + " || '.' || " + row + " || ',')";
}

// Transactions through one engine, and what became of each.
class Units {
  public:
    explicit Units(Dialog& engine) : engine_(engine) {}

    // One transaction on one line; true when the engine acknowledged it to the end. What it could
    // not do it said in one message, which ended the line.
    bool add()
    {
        const std::string unit = std::to_string(++last_);
        std::string line = "BEGIN; ";
        for (int row = 0; row < rows_a_unit; row++)
            line += "INSERT INTO t VALUES(" + unit + ", " + std::to_string(row) + ", " +
                    body_sql(unit, std::to_string(row)) + "); ";
        const std::string answer = engine_.ask(line + "COMMIT;");
        if (answer == "ok\nok, 1 row\nok, 1 row\nok, 1 row\nok\n") {
            acknowledged_.insert(last_);
            return true;
        }
        EXPECT_TRUE(refuses(answer)) << answer;
        EXPECT_EQ(answer.find("sqlengine: line "), answer.rfind("sqlengine: line ")) << answer;
        engine_.ask("ROLLBACK;"); // which the engine may have had to do itself
        return false;
    }

    int add(int count)
    {
        int done = 0;
        for (int i = 0; i < count; i++)
            done += add();
        return done;
    }

    // A question is answered rightly or refused.
    void read() const
    {
        const std::string answer = engine_.value("SELECT count(*) FROM t");
        if (refuses(answer))
            return;
        const std::size_t rows = std::stoul(answer);
        EXPECT_EQ(rows % rows_a_unit, 0u) << answer;
        EXPECT_GE(rows, acknowledged_.size() * rows_a_unit);
        EXPECT_LE(rows, static_cast<std::size_t>(last_) * rows_a_unit);
    }

    // Every acknowledged transaction is in the database; those that were refused are there whole
    // or not at all.
    void expect_kept(const TempDir& dir, const std::string& db) const
    {
        expect_sound(dir, db);
        std::map<int, std::string> found;
        for (const std::string& line : query_column(
                 dir, db,
                 "SELECT unit || ' ' || count(*) AS units FROM t GROUP BY unit ORDER BY unit"))
            found[std::stoi(line)] = line.substr(line.find(' ') + 1);
        for (const auto& [unit, rows] : found)
            EXPECT_EQ(rows, std::to_string(rows_a_unit)) << unit;
        for (const int unit : acknowledged_)
            EXPECT_EQ(found.count(unit), 1u) << unit;
        EXPECT_EQ(
            query_value(dir, db, "SELECT count(*) FROM t WHERE body <> " + body_sql("unit", "row")),
            "0");
    }

  private:
    Dialog& engine_;
    std::set<int> acknowledged_;
    int last_ = 0;
};

// Statements that want files of their own. Each is done or refused, and is undone before it is
// done again, for the undoing may be refused too. Gives the refusals.
std::string try_the_rest(Dialog& engine, const std::string& other)
{
    const std::string statements[] = {
        "DROP INDEX IF EXISTS by_body; CREATE INDEX by_body ON t(body);",
        "VACUUM;",
        "DROP TABLE IF EXISTS big; CREATE TEMP TABLE big AS SELECT * FROM t ORDER BY body DESC;",
        "ATTACH '" + other + "' AS other;",
        "DROP TABLE IF EXISTS other.copy; CREATE TABLE other.copy AS SELECT * FROM t;",
        "DETACH other;",
    };
    std::string refusals;
    for (const std::string& statement : statements) {
        const std::string answer = engine.ask(statement);
        EXPECT_TRUE(refuses(answer) || answer.compare(0, 2, "ok") == 0) << statement << answer;
        refusals += refuses(answer) ? answer : "";
    }
    return refusals;
}

// An engine whose scratch files lie beside its database, with a table and small caches, so that
// statements reach the files.
class Setting {
  public:
    Setting(const TempDir& dir, const std::string& home)
        : db(home + "/a.db"), other(home + "/other.db"),
          engine(dir, "engine", {db},
                 [home] { return use_scratch(home) && psptest::survive_size_limit(); }),
          units(engine)
    {
        EXPECT_EQ(engine.ask("PRAGMA cache_size = 8; PRAGMA temp_store = FILE;"
                             " PRAGMA temp.cache_size = 8;"
                             " CREATE TABLE t(unit INTEGER, row INTEGER, body TEXT);"),
                  "ok\nok\nok\nok\n");
        EXPECT_EQ(units.add(units_before), units_before);
        // The scratch database stays open, and its journal once it has had something to undo.
        EXPECT_EQ(try_the_rest(engine, other) + try_the_rest(engine, other), "");
    }

    // Whatever was short is there again: everything works.
    void expect_as_if_nothing_had_been()
    {
        EXPECT_EQ(units.add(units_after), units_after);
        EXPECT_EQ(try_the_rest(engine, other), "");
        EXPECT_EQ(engine.value("PRAGMA integrity_check"), "ok");
        units.read();
    }

    // Works on under the shortage; gives how many of the transactions were refused.
    int work_in_need(int count)
    {
        int refused = 0;
        for (int i = 0; i < count; i++) {
            refused += !units.add();
            units.read();
        }
        try_the_rest(engine, other);
        units.read();
        return refused;
    }

    const std::string db;
    const std::string other;
    Dialog engine;
    Units units;

  private:
    static bool use_scratch(const std::string& home)
    {
        return setenv("ZYN_TMPDIR", home.c_str(), 1) == 0;
    }
};

class Chance {
  public:
    Chance() : seed_(std::random_device{}()), engine_(seed_) {}

    std::uintmax_t up_to(std::uintmax_t most)
    {
        return std::uniform_int_distribution<std::uintmax_t>(0, most)(engine_);
    }
    std::string seed() const
    {
        return "seed " + std::to_string(seed_);
    }

  private:
    unsigned seed_;
    std::mt19937_64 engine_;
};

// ---- Room ----

// A limit on the size of files refuses to write as a full disk does, without any privilege. Below
// the size that the database has, it stands in the way of its rollback too.
TEST(SqlLimits, FileSizeLimitIsSaidAndLeavesWhatWasAcknowledged)
{
    Chance chance;
    SCOPED_TRACE(chance.seed());
    int refused = 0;
    for (int round = 0; round < in_long_run(1, 200) && !HasFailure(); round++) {
        TempDir dir;
        Setting it(dir, dir.path());
        for (const std::uintmax_t part : {chance.up_to(100), chance.up_to(300)}) {
            const std::uintmax_t size = std::filesystem::file_size(it.db);
            set_limit(it.engine.pid(), RLIMIT_FSIZE, size * part / 100);
            refused += it.work_in_need(12);
            set_limit(it.engine.pid(), RLIMIT_FSIZE, RLIM_INFINITY);
            it.expect_as_if_nothing_had_been();
        }
        EXPECT_EQ(it.engine.finish(), 1) << "the end tells that there were errors";
        it.units.expect_kept(dir, it.db);
    }
    EXPECT_GT(refused, 0);
    std::printf("%d transactions refused\n", refused);
}

TEST(SqlLimits, FullDiskIsSaidAndLeavesWhatWasAcknowledged)
{
    Chance chance;
    SCOPED_TRACE(chance.seed());
    for (int round = 0; round < in_long_run(4, 200) && !HasFailure(); round++) {
        TempDir dir;
        TempDir disk;
        const std::uintmax_t rooms[] = {chance.up_to(64 * 1024), chance.up_to(64 * 1024)};
        const int status = psptest::on_small_disk(disk.path(), 2 << 20, [&] {
            int refused = 0;
            Setting it(dir, disk.path());
            for (const std::uintmax_t room : rooms) {
                psptest::fill_disk(disk / "ballast", room);
                refused += it.work_in_need(20);
                std::filesystem::remove(disk / "ballast");
                it.expect_as_if_nothing_had_been();
            }
            EXPECT_GT(refused, 0);
            EXPECT_EQ(it.engine.finish(), 1);
            it.units.expect_kept(dir, it.db);
        });
        if (status == psptest::not_permitted)
            GTEST_SKIP() << "a small disk cannot be mounted here";
        EXPECT_EQ(status, 0);
    }
}

// ---- Descriptors ----

TEST(SqlLimits, WantOfDescriptorsIsSaidAndLeavesWhatWasAcknowledged)
{
    for (int round = 0; round < in_long_run(1, 20) && !HasFailure(); round++) {
        TempDir dir;
        Setting it(dir, dir.path());
        const std::size_t open = psptest::descriptors_of(it.engine.pid());
        int refused = 0;
        // From none at all to as many as the largest of the statements needs.
        for (std::size_t limit = open; limit < open + 6; limit++) {
            SCOPED_TRACE(limit);
            set_limit(it.engine.pid(), RLIMIT_NOFILE, limit);
            refused += it.work_in_need(2);
            set_limit(it.engine.pid(), RLIMIT_NOFILE, RLIM_INFINITY);
            EXPECT_EQ(psptest::descriptors_of(it.engine.pid()), open);
        }
        EXPECT_GT(refused, 0);
        it.expect_as_if_nothing_had_been();
        EXPECT_EQ(psptest::descriptors_of(it.engine.pid()), open);
        EXPECT_EQ(it.engine.finish(), 1);
        it.units.expect_kept(dir, it.db);
    }
}

// The program starts with too few, too: it works or says why not, and never claims what is not so.
TEST(SqlLimits, StartWithFewDescriptorsWorksOrSaysWhyNot)
{
    constexpr int loader_failed = 127; // the program's libraries were not found a descriptor
    const std::string script = "CREATE TABLE t(a);\nINSERT INTO t VALUES(1);\n";
    int failed = 0;
    int done = 0;
    for (rlim_t limit = 3; limit < 16; limit++) {
        SCOPED_TRACE(limit);
        TempDir dir;
        const std::string db = dir / "a.db";
        const psptest::Result result =
            sqltest::run_engine(dir, {"--log", dir / "log", db}, script, [limit] {
                const rlimit few = {limit, limit};
                return setrlimit(RLIMIT_NOFILE, &few) == 0;
            });
        EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == loader_failed);
        EXPECT_EQ(result.status == 0, result.err.empty()) << result.err;
        (result.status == 0 ? done : failed)++;
        if (result.out.find("ok, 1 row\n") != std::string::npos) {
            EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM t"), "1");
        }
        if (result.status == 0) {
            EXPECT_EQ(result.out, "ok\nok, 1 row\n");
        }
    }
    EXPECT_GT(failed, 0);
    EXPECT_GT(done, 0);
}

} // namespace
