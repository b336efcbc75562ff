// The example recordlog against a plain model of its files: appending and reading back, segments
// that follow one another, two writers at once. recordlog_damage_test.cpp has what goes wrong.
#include "recordlog_process.h"

#include <chrono>
#include <random>

namespace {

using logmodel::frame_of;
using logmodel::lines_of;
using logmodel::parse_segment;
using logmodel::payload_of;
using logmodel::Record;
using logtest::appended;
using logtest::Log;
using logtest::segment_line;
using logtest::torn;
using logtest::total_line;
using psptest::file_exists;
using psptest::Program;
using psptest::read_file;
using psptest::Result;
using psptest::run_program;
using psptest::TempDir;
using psptest::write_file;

uint64_t now_in_millis()
{
    using namespace std::chrono;
    const auto now = system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(duration_cast<milliseconds>(now).count());
}

// ---- Appending and reading ----

TEST(RecordLog, KeepsLinesWithNumberTimePriorityAndText)
{
    TempDir dir;
    Log log(dir);
    const uint64_t before = now_in_millis();
    const Result result = log.append("plain\n<3>disk full\n\n<-7>été 漢字\nlast without end");
    const uint64_t after = now_in_millis();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, appended(5, 5));
    EXPECT_EQ(result.err, "");

    const std::vector<Record> records = log.records();
    const std::pair<int, std::string> expected[] = {
        {6, "plain"}, {3, "disk full"}, {6, ""}, {-7, "été 漢字"}, {6, "last without end"}};
    ASSERT_EQ(records.size(), std::size(expected));
    for (std::size_t i = 0; i < records.size(); i++) {
        EXPECT_EQ(records[i].sequence, i + 1);
        EXPECT_LE(before, records[i].millis);
        EXPECT_GE(after, records[i].millis);
        EXPECT_EQ(records[i].priority, expected[i].first);
        EXPECT_EQ(records[i].text, expected[i].second);
    }
    const Result dump = log.dump();
    EXPECT_EQ(dump.status, 0);
    EXPECT_EQ(dump.out, lines_of(records));
    const std::size_t size = log.segments()[0].size();
    const Result verify = log.verify();
    EXPECT_EQ(verify.status, 0);
    EXPECT_EQ(verify.out, segment_line(log, 1, 5, size) + total_line(5, 1));
    EXPECT_EQ(verify.err, "");
}

TEST(RecordLog, TakesAPriorityOfSixteenBitsOnly)
{
    const struct {
        const char* line;
        int priority;
        const char* text;
    } rows[] = {
        {"<0>a", 0, "a"},
        {"<32767>a", 32767, "a"},
        {"<-32768>a", -32768, "a"},
        {"<32768>a", 6, "<32768>a"},
        {"<-32769>a", 6, "<-32769>a"},
        {"<99999999999>a", 6, "<99999999999>a"},
        {"<>a", 6, "<>a"},
        {"<x>a", 6, "<x>a"},
        {"<5 km>a", 6, "<5 km>a"},
        {"<3", 6, "<3"},
        {"3>a", 6, "3>a"},
        {"<3>", 3, ""},
        {"<3><4>a", 3, "<4>a"},
    };
    TempDir dir;
    Log log(dir);
    std::string lines;
    for (const auto& row : rows)
        lines += std::string(row.line) + "\n";
    EXPECT_EQ(log.append(lines).status, 0);
    const std::vector<Record> records = log.records();
    ASSERT_EQ(records.size(), std::size(rows));
    for (std::size_t i = 0; i < records.size(); i++) {
        EXPECT_EQ(records[i].priority, rows[i].priority) << rows[i].line;
        EXPECT_EQ(records[i].text, rows[i].text) << rows[i].line;
    }
}

TEST(RecordLog, GoesOnWhereTheLastAppendEnded)
{
    TempDir dir;
    Log log(dir);
    EXPECT_EQ(log.append("one\ntwo\n").out, appended(2, 2));
    const std::string first = log.segments()[0];
    EXPECT_EQ(log.append("").out, appended(0, 2));
    EXPECT_EQ(log.append("three\n").out, appended(1, 3));
    ASSERT_EQ(log.segments().size(), 1u);
    EXPECT_EQ(log.segments()[0].substr(0, first.size()), first) << "what was written stays";
    ASSERT_EQ(log.records().size(), 3u);
    EXPECT_EQ(log.records()[2].sequence, 3u);
    EXPECT_EQ(log.records()[2].text, "three");
    EXPECT_EQ(log.verify().status, 0);
}

TEST(RecordLog, KeepsWhatItIsGivenOverRandomAppends)
{
    TempDir dir;
    Log log(dir);
    std::mt19937 random(7);
    std::vector<std::string> texts;
    for (int round = 0; round < 10; round++) {
        std::string lines;
        for (unsigned i = random() % 40; i > 0; i--) {
            std::string text(random() % 3 == 0 ? random() % 5000 : random() % 50, ' ');
            for (char& c : text)
                c = static_cast<char>('!' + random() % 94);
            if (!text.empty() && text[0] == '<')
                text[0] = '('; // begins no priority
            lines += text + "\n";
            texts.push_back(text);
        }
        ASSERT_EQ(log.append(lines).status, 0);
    }
    const std::vector<Record> records = log.records();
    ASSERT_EQ(records.size(), texts.size());
    for (std::size_t i = 0; i < texts.size(); i++) {
        EXPECT_EQ(records[i].sequence, i + 1);
        EXPECT_EQ(records[i].text, texts[i]);
    }
    EXPECT_EQ(log.dump().out, lines_of(records));
    EXPECT_EQ(log.verify().status, 0);
}

TEST(RecordLog, RefusesARecordBeyondTheLimitAndKeepsThoseBeforeIt)
{
    TempDir dir;
    Log log(dir);
    const std::string fits(logmodel::record_limit - 14, 'f'); // 1 + 8 + 1 + 4 bytes of fields
    const std::string beyond(logmodel::record_limit - 13, 'b');
    const Result result = log.append("<0>" + fits + "\n<0>" + beyond + "\nnever\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, appended(1, 1));
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].text, fits);
    EXPECT_EQ(log.verify().status, 0);
    EXPECT_EQ(log.append("next\n").out, appended(1, 2));
    EXPECT_EQ(log.verify().status, 0);
}

// ---- Several segments ----

TEST(RecordLog, BeginsTheNextSegmentWhenOneHasReachedItsSize)
{
    TempDir dir;
    Log log(dir);
    std::string lines;
    for (int i = 0; i < 3000; i++)
        lines += "record " + std::to_string(i) +
                 std::string(static_cast<std::size_t>(i % 200), '.') + "\n";
    ASSERT_EQ(log.append(lines).out, appended(3000, 3000));

    const std::vector<std::string> segments = log.segments();
    ASSERT_GT(segments.size(), 3u);
    std::string report;
    for (std::size_t i = 0; i < segments.size(); i++) {
        const auto segment = parse_segment(segments[i]);
        EXPECT_EQ(segment.end(), segments[i].size());
        report += segment_line(log, static_cast<unsigned>(i) + 1, segment.records.size(),
                               segments[i].size());
        if (i + 1 == segments.size())
            break;
        EXPECT_GE(segments[i].size(), logmodel::segment_size);
        EXPECT_LT(segment.ends[segment.ends.size() - 2], logmodel::segment_size) << "no later";
    }
    const Result verify = log.verify();
    EXPECT_EQ(verify.status, 0);
    EXPECT_EQ(verify.out, report + total_line(3000, segments.size()));
    EXPECT_EQ(log.dump().out, lines_of(log.records()));
}

TEST(RecordLog, NumbersSegmentsInHexadecimalAndReadsThemInThatOrder)
{
    TempDir dir;
    Log log(dir);
    std::vector<Record> records;
    for (unsigned number = 8; number < 0x12; number++) {
        records.push_back({number, 1'700'000'000'000u + number, 6, std::to_string(number)});
        log.put(number, frame_of(payload_of(records.back())));
    }
    EXPECT_EQ(log.dump().out, lines_of(records));
    EXPECT_EQ(log.append("next\n").out, appended(1, 0x12));
    EXPECT_EQ(parse_segment(read_file(log.path(0x11))).records.size(), 2u);
}

TEST(RecordLog, LooksAtSegmentsOnly)
{
    TempDir dir;
    Log log(dir);
    ASSERT_EQ(log.append("one\n").status, 0);
    for (const char* name : {"notes.txt", "segment-0000000G.log", "segment-00000002.logs",
                             "segment-000000002.log", "a-segment-00000002.log"})
        write_file(log.home() + "/" + name, "nothing of the log");
    std::filesystem::create_directory(log.path(3));
    const Result verify = log.verify();
    EXPECT_EQ(verify.status, 0);
    EXPECT_EQ(verify.out, segment_line(log, 1, 1, log.segments()[0].size()) + total_line(1, 1));
}

TEST(RecordLog, MissesARecordBetweenTwoButNotTheOldest)
{
    TempDir dir;
    Log log(dir);
    const auto put = [&](unsigned number, uint64_t sequence) {
        log.put(number, frame_of(payload_of({sequence, 1'700'000'000'000, 6, "x"})));
    };
    put(2, 11);
    put(3, 12);
    EXPECT_EQ(log.verify().status, 0) << "the oldest segments may go";
    put(4, 14);
    for (const Result& result : {log.verify(), log.dump()}) {
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.err.find("recordlog: record 14 follows record 12\n"), std::string::npos)
            << result.err;
    }
    put(4, 12);
    EXPECT_EQ(log.verify().status, 1) << "a number that comes again";
}

// ---- Writers ----

TEST(RecordLog, AdmitsOneWriterAtATimeAndReadersBesideIt)
{
    TempDir dir;
    Log log(dir);
    ASSERT_EQ(log.append("one\n").status, 0);
    Program writer(RECORDLOG_PATH, dir, "writer", {"append", log.home()});
    // When more than it keeps in memory has reached the file, the writer has the lock.
    const std::string before = read_file(log.path(1));
    for (int i = 0; i < 40; i++)
        writer.say(std::string(1000, 'w') + "\n");
    ASSERT_TRUE(psptest::wait_until([&] { return read_file(log.path(1)) != before; }));

    const Result refused = log.append("never\n");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("recordlog: append failed with code "), std::string::npos);
    const int status = log.verify().status;
    EXPECT_TRUE(status == 0 || status == torn) << "a reader may meet half a record";
    EXPECT_EQ(writer.finish().out, appended(40, 41));
    EXPECT_EQ(log.append("next\n").out, appended(1, 42));
    EXPECT_EQ(log.verify().status, 0);
    EXPECT_EQ(log.dump().out, lines_of(log.records()));
}

// ---- Trouble ----

TEST(RecordLog, RefusesAWrongCommandLine)
{
    TempDir dir;
    const std::vector<std::string> rows[] = {
        {}, {"append"}, {"dump"}, {"print", dir.path()}, {"dump", dir.path(), "more"}};
    for (const auto& row : rows) {
        const Result result = run_program(RECORDLOG_PATH, dir, row);
        EXPECT_EQ(result.status, 2) << ::testing::PrintToString(row);
        EXPECT_EQ(result.err, "usage: recordlog append|dump|verify DIR\n");
    }
}

TEST(RecordLog, FailsWhereThereIsNoLogAndReadsAnEmptyOne)
{
    TempDir dir;
    Log log(dir, "missing/log");
    EXPECT_EQ(log.dump().status, 1);
    EXPECT_EQ(log.verify().status, 1);
    EXPECT_FALSE(file_exists(dir / "missing")) << "readers make nothing";
    std::filesystem::create_directories(log.home());
    EXPECT_EQ(log.verify().out, total_line(0, 0));
    EXPECT_EQ(log.dump().out, "");
    write_file(dir / "file", "");
    EXPECT_EQ(Log(dir, "file/log").append("x\n").status, 1);
}

} // namespace
