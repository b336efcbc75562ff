// A load of every kind for the example sqlengine, with a plain model of the database beside it:
// each answer of the engine is compared with what the model says.
//
// How much is done at a time and how long texts are comes from chance, and repeats after a period;
// which accounts, amounts and rows it is about never does. So memory can be compared from period
// to period: who holds more at the end of a later one keeps what it should give back.
#pragma once

#include "sqlengine_dialog.h"

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace sqltest {

class Load {
  public:
    // `other` is a second database, which the engine attaches now and then.
    Load(Dialog& engine, std::string other, int period)
        : engine_(engine), other_(std::move(other)), period_(period)
    {
    }

    // Makes the tables and fills them to the size that they keep.
    void prepare()
    {
        run("PRAGMA synchronous = OFF; PRAGMA cache_size = 50;"
            " PRAGMA temp_store = FILE; PRAGMA temp.cache_size = 20;"
            " CREATE TABLE account(id INTEGER PRIMARY KEY, balance INTEGER);"
            " CREATE TABLE event(id INTEGER PRIMARY KEY, body TEXT);"
            " CREATE INDEX event_by_body ON event(body);",
            7, "");
        std::string rows;
        for (std::size_t id = 0; id < balance_.size(); id++)
            rows += (id == 0 ? "(" : ",(") + std::to_string(id) + ",0)";
        run("INSERT INTO account VALUES" + rows + ";", 0, count_line(balance_.size()));
        while (events_.size() < most_events)
            add_events();
        run("ATTACH '" + other_ + "' AS other;", 1, "");
        run("CREATE TABLE other.kept(id INTEGER PRIMARY KEY, balance INTEGER); DETACH other;", 2,
            "");
    }

    // Everything once or more, with other parameters each time.
    void cycle()
    {
        if (cycles_++ % period_ == 0)
            shape_.seed(1);
        // Waiting for the disk is most of the time, so it is rare.
        run(cycles_ % 8 == 1 ? "PRAGMA synchronous = EXTRA;" : "PRAGMA synchronous = OFF;", 1, "");
        for (int i = 0; i < 4; i++) {
            transfer();
            look_at_an_account();
            add_events();
            drop_events();
            look_at_events();
        }
        list_events();
        use_scratch();
        use_the_other_database();
        make_mistakes();
        if (cycles_ % 4 == 0)
            rest();
    }

    // Brings the engine to a state in which its memory can be compared: no page is cached, and
    // none of the file is free.
    void rest()
    {
        run("VACUUM; PRAGMA shrink_memory;", 2, "");
    }

    std::uint64_t statements() const
    {
        return statements_;
    }
    std::uint64_t transactions() const
    {
        return transactions_;
    }

  private:
    static constexpr std::size_t most_events = 300;

    // ---- Talking ----

    static std::string count_line(std::size_t rows)
    {
        return "ok, " + std::to_string(rows) + (rows == 1 ? " row\n" : " rows\n");
    }

    // Statements that are answered with so many times "ok" and then with `rest`.
    void run(const std::string& line, int oks, const std::string& rest)
    {
        std::string expected;
        for (int i = 0; i < oks; i++)
            expected += "ok\n";
        EXPECT_EQ(ask(line), expected + rest) << line;
    }

    std::string ask(const std::string& line)
    {
        statements_ += static_cast<std::uint64_t>(std::count(line.begin(), line.end(), ';'));
        return engine_.ask(line);
    }

    void expect_value(const std::string& query, const std::string& value)
    {
        statements_++;
        EXPECT_EQ(engine_.value(query), value) << query;
    }

    static std::size_t up_to(std::size_t most, std::mt19937& chance)
    {
        return std::uniform_int_distribution<std::size_t>(0, most)(chance);
    }

    // ---- Accounts ----

    std::string move_sql(std::size_t from, std::size_t to, std::int64_t amount)
    {
        const auto update = [](std::size_t id, std::int64_t by) {
            return " UPDATE account SET balance = balance + " + std::to_string(by) +
                   " WHERE id = " + std::to_string(id) + ";";
        };
        return update(from, -amount) + update(to, amount);
    }

    // Some moves in one transaction, of which a part or the whole may be taken back.
    void transfer()
    {
        std::string line = "BEGIN;";
        std::string answer = "ok\n";
        std::vector<std::int64_t> after = balance_;
        for (std::size_t i = up_to(4, shape_); i <= 4; i++) {
            const std::size_t from = up_to(balance_.size() - 1, content_);
            const std::size_t to = up_to(balance_.size() - 1, content_);
            const auto amount = static_cast<std::int64_t>(up_to(1000, content_));
            const bool taken_back = up_to(3, shape_) == 0;
            line += taken_back ? " SAVEPOINT part;" : "";
            line += move_sql(from, to, amount);
            line += taken_back ? " ROLLBACK TO part; RELEASE part;" : "";
            answer += taken_back ? "ok\nok, 1 row\nok, 1 row\nok\nok\n" : "ok, 1 row\nok, 1 row\n";
            after[from] -= taken_back ? 0 : amount;
            after[to] += taken_back ? 0 : amount;
        }
        const bool commits = up_to(3, shape_) != 0;
        run(line + (commits ? " COMMIT;" : " ROLLBACK;"), 0, answer + "ok\n");
        if (commits)
            balance_ = after;
        transactions_++;
    }

    void look_at_an_account()
    {
        const std::size_t id = up_to(balance_.size() - 1, content_);
        expect_value("SELECT balance FROM account WHERE id = " + std::to_string(id),
                     std::to_string(balance_[id]));
        expect_value("SELECT sum(balance) FROM account", "0");
    }

    // ---- Events ----

    void add_events()
    {
        const std::size_t count = 1 + up_to(19, shape_);
        std::string rows;
        for (std::size_t i = 0; i < count; i++) {
            const std::size_t half = 1 + up_to(up_to(9, shape_) == 0 ? 6000 : 100, shape_);
            events_[++last_event_] = 2 * half;
            rows += (i == 0 ? "(" : ",(") + std::to_string(last_event_) + ",replace(hex(zeroblob(" +
                    std::to_string(half) + ")),'0','e'))";
        }
        run("INSERT INTO event VALUES" + rows + ";", 0, count_line(count));
        transactions_++;
    }

    // The oldest make room.
    void drop_events()
    {
        if (events_.size() <= most_events)
            return;
        const std::size_t count = events_.size() - most_events;
        events_.erase(events_.begin(), std::next(events_.begin(), static_cast<long>(count)));
        run("DELETE FROM event WHERE id < " + std::to_string(events_.begin()->first) + ";", 0,
            count_line(count));
        transactions_++;
    }

    static std::string summary(std::size_t count, std::size_t bytes)
    {
        return std::to_string(count) + "/" + std::to_string(bytes);
    }

    std::string whole_summary() const
    {
        std::size_t bytes = 0;
        for (const auto& [id, size] : events_)
            bytes += size;
        return summary(events_.size(), bytes);
    }

    void look_at_events()
    {
        const std::uint64_t from = events_.begin()->first + up_to(events_.size(), content_);
        std::size_t count = 0;
        std::size_t bytes = 0;
        for (auto at = events_.lower_bound(from); at != events_.end(); ++at, count++)
            bytes += at->second;
        expect_value("SELECT count(*) || '/' || ifnull(sum(length(body)), 0) FROM event"
                     " WHERE id >= " +
                         std::to_string(from),
                     summary(count, bytes));
    }

    // The longest first, as a table.
    void list_events()
    {
        std::vector<std::pair<std::size_t, std::uint64_t>> rows;
        for (const auto& [id, size] : events_)
            rows.emplace_back(size, id);
        std::sort(rows.rbegin(), rows.rend());
        std::string answer;
        for (const auto& [size, id] : rows)
            answer += std::to_string(id + 1000000) + "\n";
        const std::string whole =
            ask("SELECT id + 1000000 AS id FROM event ORDER BY length(body) DESC, id DESC;");
        const std::size_t head = whole.find("─\n");
        ASSERT_NE(head, std::string::npos) << whole;
        EXPECT_EQ(whole.substr(head + sizeof "─\n" - 1),
                  answer + "(" + std::to_string(rows.size()) + " rows)\n");
    }

    // ---- The rest ----

    void use_scratch()
    {
        run("CREATE TEMP TABLE scratch AS SELECT * FROM event ORDER BY length(body), id;"
            " CREATE INDEX temp.scratch_by_body ON scratch(body);",
            2, "");
        expect_value("SELECT count(*) || '/' || sum(length(body)) FROM scratch", whole_summary());
        run("DROP TABLE scratch;", 1, "");
    }

    // One transaction over two files; it is taken back, or the other file then has what this has.
    void use_the_other_database()
    {
        const bool commits = up_to(1, shape_) == 0;
        run("ATTACH '" + other_ + "' AS other; BEGIN; DELETE FROM other.kept;", 2,
            kept_.empty() ? "ok\n" : count_line(kept_.size()));
        run("INSERT INTO other.kept SELECT * FROM account;" + move_sql(0, 1, 5), 0,
            count_line(balance_.size()) + "ok, 1 row\nok, 1 row\n");
        run(commits ? "COMMIT;" : "ROLLBACK;", 1, "");
        transactions_++;
        if (commits) {
            kept_ = balance_;
            balance_[0] -= 5;
            balance_[1] += 5;
        }
        std::int64_t sum = 0;
        for (std::size_t id = 0; id < kept_.size(); id++)
            sum += static_cast<std::int64_t>(id) * kept_[id];
        expect_value("SELECT ifnull(sum(id * balance), 0) FROM other.kept", std::to_string(sum));
        run("DETACH other;", 1, "");
    }

    void expect_refused(const std::string& line, const std::string& reason)
    {
        const std::string answer = ask(line);
        EXPECT_NE(answer.find(": " + reason + "\n"), std::string::npos) << answer;
    }

    // What fails is said, reaches the log and leaves the transaction as it was.
    void make_mistakes()
    {
        expect_refused("SELECT absent FROM account;", "no such column: absent");
        expect_refused("SELEC 1;", "near \"SELEC\": syntax error");
        run("BEGIN; UPDATE account SET balance = balance + 3 WHERE id = 2;", 1, "ok, 1 row\n");
        expect_refused("INSERT INTO account VALUES(500, 1), (2, 1);",
                       "UNIQUE constraint failed: account.id");
        run("UPDATE account SET balance = balance - 3 WHERE id = 3; COMMIT;", 0, "ok, 1 row\nok\n");
        balance_[2] += 3;
        balance_[3] -= 3;
        transactions_++;
    }

    Dialog& engine_;
    std::string other_;
    int period_;
    std::mt19937 shape_;
    std::mt19937 content_;
    std::vector<std::int64_t> balance_ = std::vector<std::int64_t>(100);
    std::vector<std::int64_t> kept_;              // the balances as the other database has them
    std::map<std::uint64_t, std::size_t> events_; // id to length
    std::uint64_t last_event_ = 0;
    std::uint64_t statements_ = 0;
    std::uint64_t transactions_ = 0;
    int cycles_ = 0;
};

} // namespace sqltest
