// What was acknowledged survives: the program is killed at random moments of a run of transactions,
// time and again on one database, and after each kill the database must be sound and hold exactly
// the transactions that were acknowledged, whole, and at most the one that was under way.

#include "sqlengine_process.h"
#include "support/scale.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <set>

namespace {

using psptest::read_file;
using psptest::TempDir;
using sqltest::Engine;
using sqltest::query_column;
using sqltest::query_value;
using sqltest::run_engine;

constexpr int transactions_a_run = 400; // more than a run ever gets to
constexpr int rows_a_transaction = 3;

// Each statement is acknowledged by a line that begins "ok": one before the transactions, seven for
// each, of which the last is COMMIT's.
constexpr int statements_before = 1;
constexpr int statements_a_transaction = 7;

// The cache is so small that changed pages reach the file in mid-transaction.
std::string script(int first)
{
    std::string text = "PRAGMA cache_size = 8;\n";
    for (int tx = first; tx < first + transactions_a_run; tx++) {
        const std::string insert =
            "INSERT INTO t(tx, body) VALUES(" + std::to_string(tx) + ", randomblob(3000));\n";
        text += "BEGIN;\n" + insert + insert + insert;
        text += "UPDATE total SET n = n + 3; UPDATE t SET body = randomblob(3000) WHERE id % 7 = " +
                std::to_string(tx % 7) + " AND id > (SELECT max(id) FROM t) - 150;\n";
        text += "COMMIT;\n";
    }
    return text;
}

// How many statements the output acknowledges, by whole lines.
int acknowledged_statements(const std::string& output)
{
    int lines = 0;
    for (std::size_t at = output.find("ok"); at != std::string::npos;) {
        const std::size_t end = output.find('\n', at);
        if (end == std::string::npos)
            break;
        lines++;
        at = output.find("ok", end);
    }
    return lines;
}

int acknowledged_transactions(const std::string& output)
{
    return std::max(acknowledged_statements(output) - statements_before, 0) /
           statements_a_transaction;
}

// The transactions from `first` on that are in the database, each with all its rows.
std::set<int> whole_transactions(const TempDir& dir, const std::string& db, int first)
{
    std::set<int> found;
    for (const std::string& line : query_column(
             dir, db,
             "SELECT tx || ' ' || count(*) AS tx FROM t WHERE tx >= " + std::to_string(first) +
                 " GROUP BY t.tx UNION ALL SELECT 'end'")) {
        if (line == "end")
            continue;
        const std::size_t blank = line.find(' ');
        EXPECT_EQ(line.substr(blank + 1), std::to_string(rows_a_transaction)) << line;
        found.insert(std::stoi(line.substr(0, blank)));
    }
    return found;
}

// Runs until some statements are acknowledged, lets it go on for a random part of the time that a
// transaction takes (which is the disk's, so it is measured), kills, and gives the number of
// acknowledged transactions.
int run_and_kill(const TempDir& dir, const std::string& db, int first, std::mt19937& chance)
{
    using Clock = std::chrono::steady_clock;
    const int wanted = std::uniform_int_distribution<int>(1, 40)(chance);
    Engine engine(dir, "victim", {db}, script(first));
    const Clock::time_point start = Clock::now();
    const Clock::time_point limit = start + std::chrono::seconds(10);
    while (acknowledged_statements(engine.output()) < wanted && Clock::now() < limit)
        usleep(500);
    const auto took = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    const double transaction = took * statements_a_transaction / wanted;
    const double share = std::uniform_real_distribution<double>(0, 1)(chance);
    usleep(static_cast<useconds_t>(std::min(transaction * share, 100000.0)));
    engine.kill_now();
    return acknowledged_transactions(engine.output());
}

TEST(SqlKill, AcknowledgedTransactionsSurviveAndOthersLeaveNoTrace)
{
    const int kills = psptest::in_long_run(20, 200);
    TempDir dir;
    const std::string db = dir / "a.db";
    const std::string log = dir / "recovery.log";
    ASSERT_EQ(run_engine(dir, {db},
                         "CREATE TABLE t(id INTEGER PRIMARY KEY, tx INTEGER, body BLOB);\n"
                         "CREATE INDEX t_by_tx ON t(tx);\n"
                         "CREATE TABLE total AS SELECT 0 AS n;\n")
                  .status,
              0);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 chance(seed);
    int survived = 0;
    int recovered = 0;

    for (int i = 0; i < kills && !HasFailure(); i++) {
        const int first = i * transactions_a_run;
        const int acked = run_and_kill(dir, db, first, chance);
        const sqltest::Result check =
            run_engine(dir, {"--log", log, db}, "PRAGMA integrity_check;\n");
        EXPECT_EQ(check.status, 0) << check.err;
        EXPECT_NE(check.out.find("\nok\n(1 row)\n"), std::string::npos) << check.out;
        recovered += read_file(log).find("sqlite (539)") != std::string::npos;

        const std::set<int> found = whole_transactions(dir, db, first);
        for (int tx = first; tx < first + acked; tx++)
            EXPECT_EQ(found.count(tx), 1u) << "transaction " << tx << " was acknowledged";
        EXPECT_LE(found.size(), static_cast<std::size_t>(acked) + 1);
        survived += static_cast<int>(found.size());
    }

    EXPECT_EQ(query_value(dir, db, "SELECT count(*) FROM t"),
              std::to_string(survived * rows_a_transaction));
    EXPECT_EQ(query_value(dir, db, "SELECT n FROM total"),
              std::to_string(survived * rows_a_transaction));
    // The kills did hit transactions under way, or nothing was tested.
    EXPECT_GT(recovered, 0);
    EXPECT_GT(survived, kills / 2);
    RecordProperty("recovered", recovered);
    RecordProperty("survived", survived);
    std::printf("%d kills, %d transactions survived, %d journals rolled back\n", kills, survived,
                recovered);
}

} // namespace
