// Many threads print and log while others push and pop destinations: no line is torn or lost
// within its destination, every file ends up closed, and nothing is left.
#include "support/scale.h"
#include "support/text_test.h"
#include "support/threads.h"

#include "psp.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

using namespace psptest;

namespace {

constexpr int writers = 8;
const int lines = in_long_run(under_tsan ? 150 : 600, 20000);

class LogStress : public PspTest {};

// A line tells its writer, its number and its kind, and has a body whose length and letter follow
// from them: a torn line does not check.
std::string body(int writer, int number)
{
    return std::string(static_cast<std::size_t>(number * 37 % 90 + (number % 16 == 0 ? 1500 : 0)),
                       static_cast<char>('a' + (writer * 7 + number) % 26));
}

std::string line_text(char kind, int writer, int number)
{
    return std::string(1, kind) + " " + std::to_string(writer) + " " + std::to_string(number) +
           " <" + body(writer, number) + ">";
}

// The lines of all destinations of one kind of output, and how often each was seen.
class Seen {
  public:
    // With `timed`, each line stands behind a time.
    void add(std::string_view text, bool timed)
    {
        while (!text.empty()) {
            const std::size_t end = text.find('\n');
            ASSERT_NE(end, std::string_view::npos) << "a line without its end";
            std::string_view line = text.substr(0, end);
            text.remove_prefix(end + 1);
            const bool has_time = line.size() > time_prefix_length && line[0] == '[' &&
                                  line.substr(time_prefix_length - 3, 3) == "]  ";
            if (timed) {
                ASSERT_TRUE(has_time) << line;
            }
            if (has_time)
                line.remove_prefix(time_prefix_length);
            check(std::string(line));
        }
    }
    int count(char kind, int writer, int number) const
    {
        const auto found = counts_.find({kind, writer, number});
        return found == counts_.end() ? 0 : found->second;
    }
    std::size_t total() const
    {
        std::size_t sum = 0;
        for (const auto& [line, count] : counts_)
            sum += static_cast<std::size_t>(count);
        return sum;
    }

  private:
    void check(const std::string& line)
    {
        char kind = 0;
        int writer = -1;
        int number = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "%c %d %d", &kind, &writer, &number), 3) << line;
        ASSERT_EQ(line, line_text(kind, writer, number));
        counts_[{kind, writer, number}]++;
    }

    std::map<std::tuple<char, int, int>, int> counts_{};
};

PSP_PRINTF(1, 2)
int32_t log_err_with_time(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t written = psp_log_errV_Ex(nullptr, ZYN_TRUE, format, args);
    va_end(args);
    return written;
}

// Every way to put a line out, in turn. 'p' is printed only; the others are logged, too.
void put_line(int writer, int number)
{
    const auto text = [&](char kind) { return line_text(kind, writer, number); };
    switch (number % 6) {
    case 0:
        psp_printf("%s\n", text('p').c_str());
        psp_flush();
        break;
    case 1:
        psp_log("%s\n", text('l').c_str());
        break;
    case 2:
        psp_log_with_time("%s\n", text('t').c_str());
        break;
    case 3:
        psp_log_err("%s\n", text('e').c_str());
        break;
    case 4:
        log_err_with_time("%s\n", text('E').c_str());
        break;
    default: {
        PSP_LOG_CHUNK chunk = psp_log_chunk_init();
        psp_log_chunk(chunk, "c %d ", writer);
        psp_log_chunk(chunk, "%d <%s", number, body(writer, number).c_str());
        psp_log_chunk_end(chunk, "%s\n", ">");
    }
    }
}

constexpr char kinds[] = {'p', 'l', 't', 'e', 'E', 'c'};

void run_writers(std::vector<std::thread>& threads)
{
    for (int writer = 0; writer < writers; writer++)
        threads.emplace_back([writer] {
            for (int number = 0; number < lines; number++)
                put_line(writer, number);
        });
}

// Each line went once to every output that its kind goes to, and to no other.
void expect_each_once(const Seen& out, const Seen& err, const Seen& log)
{
    for (int writer = 0; writer < writers; writer++)
        for (int number = 0; number < lines; number++) {
            const char kind = kinds[number % 6];
            const bool failed = kind == 'e' || kind == 'E';
            EXPECT_EQ(out.count(kind, writer, number), failed ? 0 : 1);
            EXPECT_EQ(err.count(kind, writer, number), failed ? 1 : 0);
            EXPECT_EQ(log.count(kind, writer, number), kind == 'p' ? 0 : 1);
        }
}

TEST_F(LogStress, LinesStayWholeAndNoneIsLost)
{
    const TempDir dir;
    CapturedFd captured(1);
    CapturedFd errors(2);
    ASSERT_EQ(psp_log_openEx(nullptr, (dir / "log").c_str()), sOKAY);
    std::vector<std::thread> threads;
    run_writers(threads);
    for (std::thread& thread : threads)
        thread.join();
    psp_log_closeEx(nullptr);
    psp_flush();
    Seen out;
    Seen err;
    Seen log;
    out.add(captured.finish(), false);
    err.add(errors.finish(), false);
    log.add(read_file(dir / "log"), true);
    expect_each_once(out, err, log);
}

TEST_F(LogStress, RedirectionsMoveWholeLines)
{
    const TempDir dir;
    const std::size_t descriptors = open_descriptors();
    CapturedFd captured(1);
    CapturedFd errors(2);
    ASSERT_EQ(psp_log_openEx(nullptr, (dir / "log").c_str()), sOKAY);
    std::vector<std::thread> threads;
    run_writers(threads);
    std::atomic<bool> stop{false};
    int rounds = 0;
    std::thread redirector([&] {
        do {
            // A new file each time: reopening one would empty it.
            const std::string number = std::to_string(rounds++);
            EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / ("out" + number)).c_str()), sOKAY);
            EXPECT_EQ(psp_log_openEx(nullptr, (dir / ("log" + number)).c_str()), sOKAY);
            std::this_thread::yield();
            EXPECT_EQ(psp_stdout_openEx(nullptr, (dir / ("OUT" + number)).c_str()), sOKAY);
            psp_stdout_closeEx(nullptr);
            psp_log_closeEx(nullptr);
            psp_stdout_closeEx(nullptr);
            std::this_thread::yield();
        } while (!stop && rounds < 500);
    });
    for (std::thread& thread : threads)
        thread.join();
    stop = true;
    redirector.join();
    psp_log_closeEx(nullptr);
    psp_flush();
    Seen out;
    Seen err;
    Seen log;
    out.add(captured.finish(), false);
    err.add(errors.finish(), false);
    log.add(read_file(dir / "log"), true);
    for (int round = 0; round < rounds; round++) {
        out.add(read_file(dir / ("out" + std::to_string(round))), false);
        log.add(read_file(dir / ("log" + std::to_string(round))), true);
        EXPECT_FALSE(file_exists(dir / ("OUT" + std::to_string(round))));
    }
    expect_each_once(out, err, log);
    EXPECT_EQ(open_descriptors(), descriptors);
}

// The log's file is closed, renamed and opened anew, again and again, as a rotation does it. What
// is logged in between goes to the file below.
TEST_F(LogStress, ARotationLosesNoLine)
{
    const TempDir dir;
    const std::size_t descriptors = open_descriptors();
    const std::string current = dir / "log";
    const auto kept = [&](int round) { return current + "." + std::to_string(round); };
    ASSERT_EQ(psp_log_openEx(nullptr, (dir / "below").c_str()), sOKAY);
    ASSERT_EQ(psp_stdout_openEx(nullptr, nullptr), sOKAY);
    int rounds = 0;
    std::atomic<int> writing{writers};
    run_together(writers + 1, [&](int number) {
        if (number < writers) {
            for (int line = 0; line < lines; line++) {
                if (line % 2 == 0)
                    psp_log("%s\n", line_text('l', number, line).c_str());
                else
                    psp_log_with_time("%s\n", line_text('l', number, line).c_str());
            }
            writing--;
            return;
        }
        do {
            ASSERT_EQ(psp_log_openEx(nullptr, current.c_str()), sOKAY);
            std::this_thread::yield();
            psp_log_closeEx(nullptr);
            std::filesystem::rename(current, kept(rounds++));
        } while (writing > 0);
    });
    psp_stdout_closeEx(nullptr);
    psp_log_closeEx(nullptr);
    Seen log;
    log.add(read_file(dir / "below"), true);
    for (int round = 0; round < rounds; round++)
        log.add(read_file(kept(round)), true);
    for (int writer = 0; writer < writers; writer++)
        for (int line = 0; line < lines; line++)
            EXPECT_EQ(log.count('l', writer, line), 1);
    EXPECT_EQ(log.total(), static_cast<std::size_t>(writers) * static_cast<std::size_t>(lines));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(LogStress, ManyThreadsPushAndPopInBalance)
{
    const TempDir dir;
    CapturedFd captured(1);
    const std::size_t descriptors = open_descriptors();
    std::vector<std::thread> threads;
    for (int worker = 0; worker < 4; worker++)
        threads.emplace_back([&, worker] {
            // Some share a file, some discard, some go back to the standard output.
            const std::string names[] = {dir / "a", dir / "A", std::string(), "stdout",
                                         dir / ("own" + std::to_string(worker))};
            for (int i = 0; i < lines; i++) {
                EXPECT_EQ(psp_stdout_openEx(nullptr, names[i % 5].c_str()), sOKAY);
                psp_printf("%s\n", line_text('p', worker, i).c_str());
                psp_flush();
                psp_stdout_closeEx(nullptr);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(open_descriptors(), descriptors);
    Seen out;
    out.add(captured.finish(), false); // whole lines, as many as came here
    EXPECT_EQ(psp_printf("%s", ""), 0);
    CapturedFd again(1);
    EXPECT_EQ(psp_log("the bottom"), 10);
    EXPECT_EQ(again.finish(), "the bottom");
}

TEST_F(LogStress, SetsOfTheCallersAreIndependent)
{
    const TempDir dir;
    std::vector<std::thread> threads;
    for (int worker = 0; worker < 4; worker++)
        threads.emplace_back([&, worker] {
            for (int round = 0; round < lines / 30; round++) {
                PSP_LOG_CTX ctx;
                ASSERT_EQ(psp_log_initCtx(&ctx), sOKAY);
                const std::string log = dir / ("log" + std::to_string(worker));
                ASSERT_EQ(psp_log_openEx(&ctx, log.c_str()), sOKAY);
                ASSERT_EQ(psp_stdout_openEx(&ctx, nullptr), sOKAY);
                for (int i = 0; i < 10; i++)
                    EXPECT_EQ(psp_logEx(&ctx, "%s\n", line_text('l', worker, i).c_str()), 0);
                psp_log_termCtx(&ctx);
                Seen seen;
                seen.add(read_file(log), true);
                EXPECT_EQ(seen.total(), 10u);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace
