// A long run under a mixed load: every answer is right, and at the end the process holds no more
// memory and no more descriptors than when it had warmed up.

#include "shortage.h"
#include "sqlengine_load.h"
#include "support/scale.h"

#include <chrono>
#include <cstdio>

namespace {

using psptest::TempDir;
using sqltest::Dialog;
using sqltest::Load;

// What a memory tag of the engine's report holds.
struct Held {
    std::uint64_t now;
    std::uint64_t most;
};

// The last two numbers on the line of the report that begins with `name`.
Held held(const std::string& report, const std::string& name)
{
    std::size_t at = report.find("\n  " + name + " ");
    if (at == std::string::npos) {
        ADD_FAILURE() << "no " << name << " in " << report;
        return {};
    }
    std::string line = report.substr(at + 1, report.find('\n', at + 1) - at - 1);
    line.erase(std::remove(line.begin(), line.end(), ','), line.end());
    const auto take_last = [&line] {
        const std::size_t blank = line.find_last_of(' ');
        const std::uint64_t value = std::stoull(line.substr(blank + 1));
        line.erase(line.find_last_not_of(' ', blank) + 1);
        return value;
    };
    const std::uint64_t most = take_last();
    return {take_last(), most};
}

// An engine at rest, from inside and from outside.
struct Sample {
    explicit Sample(Dialog& engine)
        : report(engine.ask(".figures")), memory(held(report, "engine")),
          results(held(report, "results")), program(held(report, "program")),
          library(held(report, "the library")),
          resident_kib(psptest::resident_kib_of(engine.pid())),
          descriptors(psptest::descriptors_of(engine.pid()))
    {
    }

    void print(const char* when) const
    {
        std::printf("%-13s engine tag %llu bytes (most %llu), library %llu (most %llu), "
                    "RSS %zu KiB, %zu descriptors\n",
                    when, static_cast<unsigned long long>(memory.now),
                    static_cast<unsigned long long>(memory.most),
                    static_cast<unsigned long long>(library.now),
                    static_cast<unsigned long long>(library.most), resident_kib, descriptors);
    }

    std::string report;
    Held memory, results, program, library;
    std::size_t resident_kib;
    std::size_t descriptors;
};

void expect_no_growth(const Sample& before, const Sample& after)
{
    EXPECT_EQ(after.memory.now, before.memory.now);
    EXPECT_EQ(after.results.now, before.results.now);
    EXPECT_EQ(after.program.now, before.program.now);
    // Row numbers get longer with time, and an allocator keeps what it was given once.
    constexpr std::uint64_t slack = 16 * 1024;
    EXPECT_LE(after.memory.most, before.memory.most + slack);
    EXPECT_LE(after.library.now, before.library.now + slack);
    EXPECT_EQ(after.descriptors, before.descriptors);
    // A sanitizer keeps freed memory for itself.
    constexpr std::size_t slack_kib = 512;
    if (!psptest::under_asan && !psptest::under_tsan) {
        EXPECT_LE(after.resident_kib, before.resident_kib + slack_kib);
    }
}

// How long the load lasts; scripts/soak says it in the environment.
std::chrono::seconds duration()
{
    const char* seconds = std::getenv("PSP_SOAK");
    return std::chrono::seconds(seconds != nullptr ? std::atoi(seconds)
                                                   : psptest::in_long_run(1, 600));
}

TEST(SqlSoak, MixedLoadLeavesMemoryAndDescriptorsWhereTheyWere)
{
    const int period = psptest::in_long_run(8, 64); // in cycles
    TempDir dir;
    const std::string db = dir / "a.db";
    Dialog writer(dir, "writer", {"--wait", "60000", "--log", dir / "writer.log", db});
    Dialog reader(dir, "reader", {"--wait", "60000", db});
    Load load(writer, dir / "other.db", period);
    load.prepare();
    std::uint64_t questions = 0;

    // The reader looks while the writer writes: whatever it meets, the accounts are balanced.
    const auto one_period = [&] {
        for (int i = 0; i < period; i++, questions++) {
            reader.tell("SELECT 'sum ' || sum(balance) AS s FROM account;");
            load.cycle();
            EXPECT_NE(reader.hear().find("\nsum 0\n"), std::string::npos);
        }
        load.rest();
        EXPECT_EQ(reader.ask("PRAGMA shrink_memory;"), "ok\n");
    };
    one_period();
    one_period(); // now the table holds the events of the period before, as it always will
    const Sample writer_warm(writer);
    const Sample reader_warm(reader);
    const std::uint64_t statements_before = load.statements();

    const auto end = std::chrono::steady_clock::now() + duration();
    do
        one_period();
    while (std::chrono::steady_clock::now() < end && !HasFailure());
    const Sample writer_end(writer);
    const Sample reader_end(reader);
    std::printf("%llu statements after warming up, %llu transactions in all, %llu questions of a "
                "second process\n",
                static_cast<unsigned long long>(load.statements() - statements_before),
                static_cast<unsigned long long>(load.transactions()),
                static_cast<unsigned long long>(questions));
    writer_warm.print("writer, warm");
    writer_end.print("writer, end");
    reader_warm.print("reader, warm");
    reader_end.print("reader, end");
    expect_no_growth(writer_warm, writer_end);
    expect_no_growth(reader_warm, reader_end);

    EXPECT_EQ(writer.value("PRAGMA integrity_check"), "ok");
    EXPECT_EQ(reader.finish(), 0);
    EXPECT_EQ(writer.finish(), 1) << "mistakes were made";
    // Every mistake is in the log: the engine's line and the shell's.
    const std::string log = psptest::read_file(dir / "writer.log");
    EXPECT_NE(log.find("]  error: line "), std::string::npos);
    EXPECT_EQ(log.find("DIFFERS FROM"), std::string::npos);
    EXPECT_NE(writer_end.report.find("which is that of the engine's tag\n"), std::string::npos);
    EXPECT_NE(writer_end.report.find("replaced, not used\n"), std::string::npos);
}

} // namespace
