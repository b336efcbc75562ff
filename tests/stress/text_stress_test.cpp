// What threads use side by side without sharing it: streams, generators, and the functions of
// text, numbers and time. Whatever a thread gets must be what it gets alone.
#include "support/scale.h"
#include "support/text_test.h"
#include "support/threads.h"

#include "psp/format.h"
#include "psp/mem.h"
#include "psp/number.h"
#include "psp/random.h"
#include "psp/string.h"
#include "psp/sync.h"
#include "psp/time.h"
#include "psp/utf8.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

using namespace psptest;

namespace {

constexpr int thread_count = 8;

class StreamStress : public PspTest {};
class RandomStress : public PspTest {};
class TextStress : public PspTest {};

std::size_t global_bytes()
{
    PSP_TAG_MEM_INFO info{};
    EXPECT_EQ(psp_getTagMemInfo(PSP_GLOBAL_TAG, &info), sOKAY);
    return info.used.current;
}

// ---- Streams ----

TEST_F(StreamStress, EachThreadReadsWhatItWrote)
{
    const TempDir dir;
    const int laps = in_long_run(under_tsan ? 10 : 40, 1000);
    const std::size_t used = global_bytes();
    run_together(thread_count, [&](int number) {
        const std::string name = dir / ("text" + std::to_string(number));
        std::mt19937 random(static_cast<unsigned>(number));
        for (int lap = 0; lap < laps; lap++) {
            std::string expected;
            Stream out(name, "w", PSP_FILE_MODE_UTF8);
            for (int line = 0; line < 100; line++) {
                const std::string text = std::to_string(line) + pattern(random() % 120) + "\n";
                expected += text;
                ASSERT_EQ(psp_fputs(text.c_str(), out), static_cast<std::int32_t>(text.size()));
            }
            out.close();
            ASSERT_EQ(read_file(name), expected);
            const Stream in(name, "r", PSP_FILE_MODE_UTF8);
            ASSERT_EQ(read_all(in), expected);
        }
    });
    EXPECT_EQ(global_bytes(), used);
}

TEST_F(StreamStress, AStreamGoesFromThreadToThreadUnderAMutex)
{
    const TempDir dir;
    const int lines = in_long_run(300, 20000);
    const PSP_SEM sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    std::string expected; // guarded by the mutex, as the stream is
    {
        const Stream out(dir / "text", "w", PSP_FILE_MODE_UTF8);
        run_together(thread_count, [&](int number) {
            for (int i = 0; i < lines; i++) {
                const std::string line = std::to_string(number) + " " + std::to_string(i) + "\n";
                psp_syncEnterExcl(sem);
                expected += line;
                psp_fputs(line.c_str(), out);
                psp_syncExitExcl(sem);
            }
        });
    }
    EXPECT_EQ(read_file(dir / "text"), expected);
    psp_syncDelete(sem);
}

// ---- Generators: the sequence is that of the standard library's generator of the same name ----

TEST_F(RandomStress, EachThreadsGeneratorsKeepTheirSequences)
{
    const int laps = in_long_run(under_tsan ? 10 : 50, 2000);
    const std::size_t used = global_bytes();
    run_together(thread_count, [&](int number) {
        for (int lap = 0; lap < laps; lap++) {
            const auto seed = static_cast<std::uint32_t>(1 + number * 1000 + lap);
            std::mt19937 model(seed);
            const PSP_RAND generator = psp_randCreateNoSem(seed);
            ASSERT_NE(generator, nullptr);
            for (int i = 0; i < 1500; i++)
                ASSERT_EQ(psp_randGetUInt32(generator), model());
            psp_randDestroy(generator);
        }
    });
    EXPECT_EQ(global_bytes(), used);
}

TEST_F(RandomStress, AGeneratorGoesFromThreadToThreadUnderAMutex)
{
    const int draws = in_long_run(2000, 100000);
    const PSP_SEM sem = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    const PSP_RAND generator = psp_randCreate(4711);
    ASSERT_NE(generator, nullptr);
    std::vector<std::uint32_t> drawn;
    run_together(thread_count, [&](int) {
        for (int i = 0; i < draws; i++) {
            psp_syncEnterExcl(sem);
            drawn.push_back(psp_randGetUInt32(generator));
            psp_syncExitExcl(sem);
        }
    });
    std::mt19937 model(4711);
    ASSERT_EQ(drawn.size(), static_cast<std::size_t>(draws) * thread_count);
    for (const std::uint32_t value : drawn)
        ASSERT_EQ(value, model());
    psp_randDestroy(generator);
    psp_syncDelete(sem);
}

// ---- Functions ----

// Everything that can be said of a number by the functions that any thread may call.
std::string description(int number)
{
    char text[400];
    const double value = number * 1.37e5 / 7;
    psp_snprintf(text, sizeof text, "%d %08x %.12g %10.3f %-6s|%lld", number, number, value, value,
                 "ab", static_cast<long long>(number) * 1'000'000'007);
    std::string result = text;

    double read = 0;
    char digits[64];
    psp_snprintf(digits, sizeof digits, "%.17g", value);
    EXPECT_EQ(psp_strtod(digits, &read), sOKAY);
    EXPECT_EQ(read, value);
    std::int64_t whole = 0;
    EXPECT_EQ(psp_atoi64(text, &whole), number == 0 ? eINVSTRING : sOKAY);
    EXPECT_EQ(whole, number);

    struct tm local {};
    EXPECT_EQ(psp_timeLocaltime(static_cast<time64_t>(number) * 86'399, &local), &local);
    psp_snprintf(text, sizeof text, " %d-%d-%d %d:%d:%d", local.tm_year, local.tm_mon,
                 local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    result += text;

    char* saved = nullptr;
    for (char* word = psp_strtok(text, "-: ", &saved); word != nullptr;
         word = psp_strtok(nullptr, "-: ", &saved))
        result += std::string("/") + word;

    char* const error = psp_strerr_alloc(1 + number % 100, PSP_THREAD_TAG);
    result += error;
    psp_freeMem(error, PSP_THREAD_TAG, __FILE__, __LINE__);

    std::uint8_t bytes[8];
    const std::size_t length =
        psp_uchar_to_utf8(0x40 + static_cast<std::uint32_t>(number) * 17, bytes, sizeof bytes);
    result.append(reinterpret_cast<const char*>(bytes), length);

    char* const made = psp_makeStrVA(__FILE__, __LINE__, PSP_THREAD_TAG, "<%s>", result.c_str());
    result = made;
    psp_freeMem(made, PSP_THREAD_TAG, __FILE__, __LINE__);
    return result;
}

TEST_F(TextStress, FunctionsGiveEveryThreadWhatTheyGiveOne)
{
    constexpr int numbers = 200;
    std::vector<std::string> alone;
    for (int number = 0; number < numbers; number++)
        alone.push_back(description(number));
    const int laps = in_long_run(under_tsan ? 3 : 10, 500);
    run_together(thread_count, [&](int thread) {
        for (int lap = 0; lap < laps; lap++)
            for (int i = 0; i < numbers; i++) {
                const int number = (i * 7 + thread * 31) % numbers;
                ASSERT_EQ(description(number), alone[static_cast<std::size_t>(number)]);
            }
        PSP_TAG_MEM_INFO info{};
        psp_getTagMemInfo(PSP_THREAD_TAG, &info);
        EXPECT_EQ(info.used.current, 0u);
    });
}

TEST_F(TextStress, ClocksNeverGoBackInAnyThread)
{
    ASSERT_GT(gUseMonotonicClock, 0);
    std::atomic<std::uint64_t> latest{0};
    run_together(thread_count, [&](int) {
        for (int i = 0; i < 2000; i++) {
            const std::uint64_t before = latest;
            const std::uint64_t now = psp_timeNanoSecs();
            ASSERT_GE(now, before) << "later than what any thread read before";
            std::uint64_t known = before;
            while (known < now && !latest.compare_exchange_weak(known, now))
                continue;
        }
    });
}

} // namespace
