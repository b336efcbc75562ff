// What happens to a log that is cut off, damaged, killed in mid-write or short of room: no damage
// goes unnoticed, and no record that was complete is lost or changed by what comes after.
#include "recordlog_process.h"
#include "shortage.h"
#include "support/scale.h"

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
using logtest::torn_line;
using logtest::total_line;
using psptest::file_exists;
using psptest::in_long_run;
using psptest::Program;
using psptest::read_file;
using psptest::Result;
using psptest::TempDir;

// ---- One segment ----

// A segment of three short records.
std::string three_records()
{
    std::string bytes;
    for (const char* text : {"first", "", "third"})
        bytes += frame_of(payload_of({parse_segment(bytes).records.size() + 1, 1'700'000'000'123,
                                      static_cast<int>(bytes.size()), text}));
    return bytes;
}

TEST(RecordLogDamage, LosesNoCompleteRecordWhereverTheTailIsTorn)
{
    const std::string whole = three_records();
    ASSERT_EQ(parse_segment(whole).ends.back(), whole.size());
    for (std::size_t size = 0; size <= whole.size(); size++) {
        TempDir dir;
        Log log(dir);
        const std::string bytes = whole.substr(0, size);
        log.put(1, bytes);
        std::vector<Record> records = parse_segment(bytes).records;
        const std::size_t end = parse_segment(bytes).end();

        const Result verify = log.verify();
        EXPECT_EQ(verify.status, end == size ? 0 : torn) << size;
        EXPECT_EQ(verify.out,
                  segment_line(log, 1, records.size(), end) + total_line(records.size(), 1));
        EXPECT_EQ(verify.err, end == size ? "" : torn_line(log, 1, size - end, end));

        EXPECT_EQ(log.append("after\n").out, appended(1, records.size() + 1)) << size;
        const bool goes_on = end == size && size != 0;
        EXPECT_EQ(read_file(log.path(1)).substr(0, size), bytes) << "nothing is changed";
        EXPECT_EQ(file_exists(log.path(2)), !goes_on) << size;
        const std::vector<Record> now = log.records();
        ASSERT_EQ(now.size(), records.size() + 1) << size;
        EXPECT_EQ(now.back().text, "after");
        records.push_back(now.back());
        EXPECT_EQ(lines_of(now), lines_of(records)) << size;
    }
}

TEST(RecordLogDamage, TakesTheRecordsBeforeAWrongByte)
{
    const std::string whole = three_records();
    const auto sound = parse_segment(whole);
    std::mt19937 random(11);
    for (std::size_t at = 0; at < whole.size(); at++) {
        TempDir dir;
        Log log(dir);
        std::string bytes = whole;
        bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
        log.put(1, bytes);
        std::size_t before = 0; // records that lie before the wrong byte
        while (sound.ends[before] <= at)
            before++;
        ASSERT_EQ(parse_segment(bytes).records.size(), before);
        const Result dump = log.dump();
        EXPECT_EQ(dump.status, 0);
        EXPECT_EQ(dump.out, lines_of({sound.records.begin(),
                                      sound.records.begin() + static_cast<std::ptrdiff_t>(before)}))
            << at;
    }
}

TEST(RecordLogDamage, StopsAtFramesThatAreWrongThoughTheirChecksumsAreRight)
{
    using logmodel::raw;
    using logmodel::varint;
    const std::string sound = frame_of(payload_of({1, 1'700'000'000'000, 6, "sound"}));
    const std::string time = raw(uint64_t{1'700'000'000'000});
    const std::string rows[] = {
        frame_of("\xFB"),                                         // begins no number
        frame_of(varint(2)),                                      // ends before the time
        frame_of(varint(2) + time.substr(1)),                     // within it
        frame_of(varint(2) + time),                               // before the priority
        frame_of(varint(2) + time + "\xFF"),                      // begins no number
        frame_of(varint(2) + time + varint(12)),                  // before the length
        frame_of(varint(2) + time + varint(12) + raw(4) + "abc"), // within the text
        frame_of(varint(2) + time + varint(12) + raw(INT32_MAX)),
        varint(0) + raw(uint32_t{0}), // a record of no bytes
        varint(logmodel::record_limit + 1) + raw(uint32_t{0}) + std::string(100, 'x'),
        varint(UINT64_MAX) + raw(uint32_t{0}) + std::string(100, 'x'),
        std::string(100, '\xFB'),
        std::string(100, '\0'),
    };
    for (const std::string& row : rows) {
        TempDir dir;
        Log log(dir);
        log.put(1, sound + row + sound);
        ASSERT_EQ(parse_segment(sound + row + sound).end(), sound.size()) << "the model agrees";
        const Result verify = log.verify();
        EXPECT_EQ(verify.status, torn) << ::testing::PrintToString(row);
        EXPECT_EQ(verify.err, torn_line(log, 1, row.size() + sound.size(), sound.size()));
        EXPECT_EQ(log.append("after\n").out, appended(1, 2));
    }
}

TEST(RecordLogDamage, ReadsWhatTheModelReadsFromRandomBytes)
{
    std::mt19937 random(13);
    for (int round = 0; round < 30; round++) {
        TempDir dir;
        Log log(dir);
        std::string bytes;
        const auto sequence = 1 + random() % 1000;
        for (unsigned i = 0; i < random() % 4; i++)
            bytes += frame_of(payload_of({sequence + i, random(), static_cast<int>(random() % 9),
                                          std::string(random() % 30, 'x')}));
        for (unsigned i = random() % 300; i > 0; i--)
            bytes.push_back(static_cast<char>(random()));
        log.put(1, bytes);
        const auto segment = parse_segment(bytes);
        EXPECT_EQ(log.dump().out, lines_of(segment.records));
        EXPECT_EQ(log.verify().status, segment.end() == bytes.size() ? 0 : torn);
    }
}

TEST(RecordLogDamage, FindsTheLastRecordBehindSegmentsThatACrashLeftEmpty)
{
    TempDir dir;
    Log log(dir);
    ASSERT_EQ(log.append("one\ntwo\n").status, 0);
    log.put(2, "");
    log.put(3, std::string(10, '\0'));
    EXPECT_EQ(log.append("three\n").out, appended(1, 3));
    EXPECT_TRUE(file_exists(log.path(4)));
    EXPECT_EQ(read_file(log.path(2)), "");
    EXPECT_EQ(log.verify().status, torn);
    EXPECT_EQ(log.records().size(), 3u);
}

// ---- Several segments ----

using Segments = std::vector<std::string>;

// Three segments whose records are numbered from one to the other.
Segments random_segments(std::mt19937& random)
{
    Segments segments(3);
    std::uint64_t sequence = 0;
    for (std::string& bytes : segments) {
        for (unsigned i = 1 + random() % 8; i > 0; i--)
            bytes += frame_of(payload_of({++sequence, 1'700'000'000'000 + random() % 100000,
                                          static_cast<int>(random() % 200) - 100,
                                          std::string(random() % 300, "abcd"[random() % 4])}));
    }
    return segments;
}

void put_all(const Log& log, const Segments& segments)
{
    for (std::size_t i = 0; i < segments.size(); i++)
        log.put(static_cast<unsigned>(i) + 1, segments[i]);
}

// The status that verify must give: a gap between records is worse than a torn tail.
int status_of(const Segments& segments)
{
    std::uint64_t last = 0;
    bool any_torn = false;
    for (const std::string& bytes : segments) {
        const auto segment = parse_segment(bytes);
        for (const Record& record : segment.records) {
            if (last != 0 && record.sequence != last + 1)
                return 1;
            last = record.sequence;
        }
        any_torn = any_torn || segment.end() != bytes.size();
    }
    return any_torn ? torn : 0;
}

// All that a log can lose unseen is whole records at its end, which it may never have had, and at
// its beginning, where segments may be removed on purpose. A change of anything else shows.
bool shows(const Segments& whole, const Segments& now)
{
    std::string lines_before;
    std::string lines_now;
    for (std::size_t i = 0; i < whole.size(); i++) {
        const auto segment = parse_segment(now[i]);
        if (segment.end() != now[i].size())
            return true;
        lines_now += lines_of(segment.records);
        lines_before += lines_of(parse_segment(whole[i]).records);
    }
    return lines_before.find(lines_now) == std::string::npos;
}

// Appending goes on behind the last complete record, changes nothing and hides no damage.
void expect_append_loses_nothing(const Log& log, const Segments& segments, int status)
{
    std::vector<Record> records = log.records();
    std::uint64_t last = 0; // of the last segment that has a record
    for (const std::string& bytes : segments) {
        const auto segment = parse_segment(bytes);
        last = segment.records.empty() ? last : segment.records.back().sequence;
    }
    EXPECT_EQ(log.append("after\n").out, appended(1, last + 1));
    const Segments now = log.segments();
    for (std::size_t i = 0; i < segments.size(); i++)
        ASSERT_EQ(now[i].substr(0, segments[i].size()), segments[i]) << i;
    const std::vector<Record> after = log.records();
    ASSERT_EQ(after.size(), records.size() + 1);
    EXPECT_EQ(after.back().text, "after");
    EXPECT_EQ(after.back().sequence, last + 1);
    records.push_back(after.back());
    EXPECT_EQ(lines_of(after), lines_of(records));
    EXPECT_EQ(log.verify().status, status);
}

TEST(RecordLogDamage, FindsEverySegmentThatIsCutOff)
{
    std::mt19937 random(17);
    for (int round = 0; round < in_long_run(1, 5) && !HasFailure(); round++) {
        const Segments whole = random_segments(random);
        for (std::size_t which = 0; which < whole.size(); which++) {
            const std::size_t step = in_long_run<std::size_t>(1 + whole[which].size() / 40, 1);
            for (std::size_t size = 0; size < whole[which].size(); size += step) {
                TempDir dir;
                Log log(dir);
                Segments now = whole;
                now[which].resize(size);
                put_all(log, now);
                const int status = log.verify().status;
                EXPECT_EQ(status, status_of(now)) << which << " cut to " << size;
                EXPECT_EQ(status != 0, shows(whole, now)) << which << " cut to " << size;
            }
        }
    }
}

// Changes a part of the bytes in one of the ways that disks and programs have.
void damage(std::string& bytes, std::mt19937& random)
{
    const std::size_t at = random() % bytes.size();
    const std::size_t size = std::min<std::size_t>(1 + random() % 64, bytes.size() - at);
    switch (random() % 5) {
    case 0: // one bit
        bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
        break;
    case 1: // noise
        for (std::size_t i = 0; i < size; i++)
            bytes[at + i] = static_cast<char>(random());
        break;
    case 2: // a block that never reached the disk
        bytes.replace(at, size, size, '\0');
        break;
    case 3: // a part that is missing
        bytes.erase(at, size);
        break;
    default: // a part that is there twice
        bytes.insert(at, bytes.substr(at, size));
    }
}

TEST(RecordLogDamage, FindsRandomDamageAndAppendsBehindIt)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const int rounds = in_long_run(150, 5000);
    int found = 0;
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        TempDir dir;
        Log log(dir);
        const Segments whole = random_segments(random);
        Segments now = whole;
        damage(now[random() % now.size()], random);
        put_all(log, now);
        const int status = log.verify().status;
        EXPECT_EQ(status, status_of(now));
        EXPECT_EQ(status != 0, shows(whole, now));
        found += status != 0;
        if (round % 4 == 0)
            expect_append_loses_nothing(log, now, status);
    }
    EXPECT_GT(found, rounds * 3 / 4);
    std::printf("%d damages found\n", found);
}

// ---- Appending that is cut short ----

// A log that is appended to by writers that may not get to their end.
class Growth {
  public:
    Growth(const TempDir& dir, const char* name) : dir_(dir), log_(dir, name) {}

    // Lines that no other writer writes: more than two segments hold.
    std::string next_lines()
    {
        lines_.clear();
        std::string text;
        writers_++;
        for (int i = 0; i < 1500; i++) {
            lines_.push_back(std::to_string(writers_) + " writes " + std::to_string(i) +
                             std::string(static_cast<std::size_t>(i % 150), 'k'));
            text += lines_.back() + "\n";
        }
        return text;
    }

    // What a writer of the lines left: all that was there before and the first of them, as many as
    // it said at least. Then one more record is appended, and is there.
    void expect_kept(const std::string& said)
    {
        if (!file_exists(log_.home()))
            return;
        const int status = log_.verify().status;
        EXPECT_TRUE(status == 0 || status == torn) << status;
        std::vector<std::string> now = texts();
        ASSERT_GE(now.size(), kept_.size());
        const std::size_t more = now.size() - kept_.size();
        ASSERT_LE(more, lines_.size());
        kept_.insert(kept_.end(), lines_.begin(), lines_.begin() + static_cast<long>(more));
        ASSERT_TRUE(now == kept_);
        if (!said.empty()) {
            EXPECT_EQ(said, appended(more, kept_.size()));
        }
        kept_.push_back("durable " + std::to_string(writers_));
        ASSERT_EQ(log_.append(kept_.back() + "\n").out, appended(1, kept_.size()));
        ASSERT_TRUE(texts() == kept_);
    }

    // A writer that may have to do with little; what it says. Its status is 0 when it did all.
    std::string append(const Program::Setup& setup = {})
    {
        const Result result = log_.append(next_lines(), setup);
        const std::string all = appended(lines_.size(), kept_.size() + lines_.size());
        EXPECT_EQ(result.status == 0, result.out == all) << result.err;
        return result.out;
    }

    // A writer that is killed after so many microseconds; it has been given so many bytes of its
    // lines by then, and waits for more unless it was given all.
    void append_and_kill(std::size_t bytes, useconds_t after)
    {
        Program writer(RECORDLOG_PATH, dir_, "writer", {"append", log_.home()});
        const std::string lines = next_lines();
        writer.say(lines.substr(0, bytes));
        if (bytes >= lines.size())
            writer.end_input();
        usleep(after);
        writer.kill_now();
        expect_kept(writer.output());
    }

    std::size_t records() const
    {
        return kept_.size();
    }

  private:
    // Of all records, which are numbered without a gap.
    std::vector<std::string> texts() const
    {
        std::vector<std::string> all;
        for (const Record& record : log_.records()) {
            all.push_back(record.text);
            EXPECT_EQ(record.sequence, all.size());
        }
        return all;
    }

    const TempDir& dir_;
    Log log_;
    std::vector<std::string> lines_; // of the last writer
    std::vector<std::string> kept_;  // texts of the records that are there
    int writers_ = 0;
};

TEST(RecordLogDamage, KeepsEverythingDurableWhenAWriterIsKilled)
{
    constexpr std::size_t sure_to_write = 120000; // more than pipe and writer keep in memory
    std::mt19937 random(std::random_device{}());
    for (int logs = 0; logs < in_long_run(1, 20) && !HasFailure(); logs++) {
        TempDir dir;
        Growth growth(dir, "log");
        const int kills = in_long_run(6, 15);
        for (int kill = 0; kill < kills && !HasFailure(); kill++)
            growth.append_and_kill(kill == 0 ? sure_to_write : random() % 200000,
                                   static_cast<useconds_t>(random() % 4000));
        // What the killed left, beside the one record after each of them, or nothing was tested.
        EXPECT_GT(growth.records(), static_cast<std::size_t>(kills));
    }
}

TEST(RecordLogDamage, KeepsWhatWasCompleteWhenFilesMayNotGrow)
{
    std::mt19937 random(std::random_device{}());
    for (int logs = 0; logs < in_long_run(1, 20) && !HasFailure(); logs++) {
        TempDir dir;
        Growth growth(dir, "log");
        for (int i = 0; i < in_long_run(6, 15) && !HasFailure(); i++) {
            const rlim_t most = random() % (logmodel::segment_size * 5 / 4);
            SCOPED_TRACE(most);
            growth.expect_kept(growth.append([most] {
                const rlimit limit = {most, most};
                return psptest::survive_size_limit() && setrlimit(RLIMIT_FSIZE, &limit) == 0;
            }));
        }
    }
}

TEST(RecordLogDamage, KeepsWhatWasCompleteWhenTheDiskIsFull)
{
    std::mt19937 random(std::random_device{}());
    for (int logs = 0; logs < in_long_run(1, 20) && !HasFailure(); logs++) {
        TempDir dir;
        std::filesystem::create_directory(dir / "disk");
        const std::string ballast = dir / "disk/ballast";
        const auto pages = random();
        const int status = psptest::on_small_disk(dir / "disk", 4 << 20, [&] {
            Growth growth(dir, "disk/log");
            for (int i = 0; i < in_long_run(6, 15) && !HasFailure(); i++) {
                const auto room = (pages >> i) % 40 * 4096;
                SCOPED_TRACE(room);
                psptest::fill_disk(ballast, room);
                const std::string said = growth.append();
                std::filesystem::remove(ballast);
                growth.expect_kept(said);
            }
        });
        if (status == psptest::not_permitted)
            GTEST_SKIP() << "a small disk cannot be mounted here";
        EXPECT_EQ(status, 0);
    }
}

TEST(RecordLogDamage, KeepsWhatWasCompleteWhenDescriptorsAreFew)
{
    TempDir dir;
    Growth growth(dir, "log");
    int done = 0;
    for (rlim_t limit = 3; limit < 10; limit++) {
        SCOPED_TRACE(limit);
        const std::string said = growth.append([limit] {
            const rlimit few = {limit, limit};
            return setrlimit(RLIMIT_NOFILE, &few) == 0;
        });
        done += !said.empty();
        growth.expect_kept(said);
    }
    EXPECT_GT(done, 0);
    EXPECT_LT(done, 7);
}

} // namespace
