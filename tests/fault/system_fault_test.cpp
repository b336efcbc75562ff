// Clocks, sleep, daemon start and module loading on a system that answers what the test wants.
#include "support/fault_test.h"
#include "support/mem_test.h"

#include "psp.h"

#include <cerrno>
#include <climits>
#include <csetjmp>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>

using namespace psptest;

extern "C" void* __real_dlopen(const char* path, int flags);

namespace {

class SystemFault : public ClockFaultTest {};
class ClockFault : public SystemFault {};
class SleepFault : public SystemFault {};
class DaemonFault : public SystemFault {};
class ModuleFault : public SystemFault {};

// ---- Clocks ----

constexpr timespec monotonic_now = {12, 345678901};
constexpr timespec real_now = {1700000000, 987654321};
std::vector<clockid_t> clocks_read;

int read_set_clocks(clockid_t clock, timespec* now)
{
    clocks_read.push_back(clock);
    *now = clock == CLOCK_MONOTONIC ? monotonic_now : real_now;
    return 0;
}

TEST_F(ClockFault, NanosecondsComeFromTheChosenClock)
{
    Fault::replace("clock_gettime", read_set_clocks);
    gUseMonotonicClock = 1;
    EXPECT_EQ(psp_timeNanoSecs(), 12345678901u);
    gUseMonotonicClock = 0;
    EXPECT_EQ(psp_timeNanoSecs(), 1700000000987654321u);
    gUseMonotonicClock = -1;
    EXPECT_EQ(psp_timeNanoSecs(), 1700000000987654321u);
}

TEST_F(ClockFault, MillisecondsAreReadTwiceAndCutOff)
{
    Fault::replace("clock_gettime", read_set_clocks);
    for (const std::int32_t choice : {-1, 0, 1}) {
        gUseMonotonicClock = choice;
        clocks_read.clear();
        EXPECT_EQ(psp_timeMilliSecs(), 1700000000987u);
        ASSERT_EQ(clocks_read.size(), 2u);
        EXPECT_EQ(clocks_read[0], choice > 0 ? CLOCK_MONOTONIC : CLOCK_REALTIME);
        EXPECT_EQ(clocks_read[1], CLOCK_REALTIME);
    }
}

TEST_F(ClockFault, SecondsAndSeedAreTheSystemsTime)
{
    Fault::replace(
        "time", +[](time_t*) -> time_t { return 0x1'8000'0001; });
    EXPECT_EQ(psp_timeSecs(), 0x1'8000'0001u);
    EXPECT_EQ(psp_seed(), INT32_MIN + 1) << "the low 32 bits";
    Fault::replace(
        "time", +[](time_t* place) -> time_t {
            EXPECT_EQ(place, nullptr);
            return 1234567;
        });
    EXPECT_EQ(psp_timeSecs(), 1234567u);
    EXPECT_EQ(psp_seed(), 1234567);
}

// ---- Broken-down time ----

timeval set_time;

int read_set_time(timeval* now, void* zone)
{
    EXPECT_EQ(zone, nullptr);
    *now = set_time;
    return 0;
}

TEST_F(ClockFault, UtcCountsTheFractionInTenthsOfMilliseconds)
{
    struct Case {
        suseconds_t microsecs;
        int fraction;
    };
    Fault::replace("gettimeofday", read_set_time);
    for (const Case& c : {Case{123456, 1234}, Case{0, 0}, Case{99, 0}, Case{100, 1}, Case{199, 1},
                          Case{999999, 9999}, Case{999900, 9999}, Case{999899, 9998}}) {
        set_time = {1705320000, c.microsecs}; // 2024-01-15 12:00:00
        std::tm parts{};
        std::uint16_t fraction = 0xFFFF;
        EXPECT_EQ(psp_timeUTC(&parts, &fraction), &parts);
        EXPECT_EQ(fraction, c.fraction) << c.microsecs;
        EXPECT_EQ(parts.tm_year, 124);
        EXPECT_EQ(parts.tm_mon, 0);
        EXPECT_EQ(parts.tm_mday, 15);
        EXPECT_EQ(parts.tm_hour, 12);
        EXPECT_EQ(parts.tm_min, 0);
        EXPECT_EQ(parts.tm_sec, 0);
        EXPECT_EQ(parts.tm_wday, 1);
        EXPECT_EQ(parts.tm_yday, 14);
        std::tm again{};
        EXPECT_EQ(psp_timeUTC(&again, nullptr), &again);
        EXPECT_EQ(again.tm_hour, 12);
    }
}

// ---- Sleep ----

std::vector<timespec> naps;
std::vector<timespec> left_over; // for the naps to come; a nap beyond them ends in time

int note_nap(const timespec* wanted, timespec* left)
{
    naps.push_back(*wanted);
    if (naps.size() > left_over.size())
        return 0;
    if (left != nullptr)
        *left = left_over[naps.size() - 1];
    errno = EINTR;
    return -1;
}

TEST_F(SleepFault, IsSplitIntoSecondsAndNanoseconds)
{
    struct Case {
        std::uint32_t millisecs;
        timespec wanted;
    };
    Fault::replace("nanosleep", note_nap);
    left_over.clear();
    for (const Case& c : {Case{1, {0, 1000000}}, Case{999, {0, 999000000}}, Case{1000, {1, 0}},
                          Case{1500, {1, 500000000}}, Case{UINT32_MAX, {4294967, 295000000}}}) {
        naps.clear();
        psp_sleep(c.millisecs);
        ASSERT_EQ(naps.size(), 1u);
        EXPECT_EQ(naps[0].tv_sec, c.wanted.tv_sec);
        EXPECT_EQ(naps[0].tv_nsec, c.wanted.tv_nsec);
    }
}

TEST_F(SleepFault, GoesOnWithWhatIsLeftAfterEverySignal)
{
    Fault::replace("nanosleep", note_nap);
    naps.clear();
    left_over = {{1, 400000000}, {0, 7}, {0, 1}};
    psp_sleep(1500);
    ASSERT_EQ(naps.size(), 4u);
    EXPECT_EQ(naps[0].tv_sec, 1);
    EXPECT_EQ(naps[0].tv_nsec, 500000000);
    for (std::size_t i = 0; i < 3; i++) {
        EXPECT_EQ(naps[i + 1].tv_sec, left_over[i].tv_sec);
        EXPECT_EQ(naps[i + 1].tv_nsec, left_over[i].tv_nsec);
    }
}

// ---- Daemon start ----

int pipe_ends[2];
std::vector<int> closed;

int note_pipe(int* ends)
{
    const int result = pipe2(ends, 0);
    std::memcpy(pipe_ends, ends, sizeof pipe_ends);
    return result;
}

int note_close(int fd)
{
    closed.push_back(fd);
    return static_cast<int>(syscall(SYS_close, fd));
}

struct Answer {
    ZYN_RETCODE rc;
    std::string out;
    std::string err;
};

// Starts a daemon that completes with `code` at once, or ends without a word for sCHILD.
Answer start_daemon(ZYN_RETCODE code)
{
    CapturedFd out(1);
    CapturedFd err(2);
    PSP_DAEMON_CTX ctx = nullptr;
    const ZYN_RETCODE rc = psp_daemonStart("testd", &ctx);
    if (rc == sCHILD) {
        if (code != sCHILD)
            psp_daemonComplete(ctx, code);
        _exit(0);
    }
    EXPECT_EQ(ctx, nullptr);
    return {rc, out.finish(), err.finish()};
}

TEST_F(DaemonFault, WithoutAPipeIsAFailureBeforeAnythingElse)
{
    EXPECT_EQ(run_in_child([] {
                  Fault pipes("pipe", 1);
                  Fault forks("fork");
                  const Answer answer = start_daemon(sOKAY);
                  EXPECT_EQ(answer.rc, ePSP_FAILURE);
                  EXPECT_EQ(answer.out + answer.err, "");
                  EXPECT_EQ(forks.calls(), 0);
                  EXPECT_STREQ(server_name, "unknown");
                  return 0;
              }),
              0);
}

TEST_F(DaemonFault, WithoutAChildClosesTheWriteEndTwiceAndNeverTheReadEnd)
{
    EXPECT_EQ(run_in_child([] {
                  PSP_DAEMON_CTX ctx = nullptr;
                  CapturedFd err(2);
                  Fault::replace("pipe", note_pipe);
                  Fault::replace("close", note_close);
                  closed.clear();
                  Fault forks("fork", 1);
                  const ZYN_RETCODE rc = psp_daemonStart("testd", &ctx);
                  Fault::clear();
                  EXPECT_EQ(rc, ePSP_FAILURE);
                  EXPECT_EQ(closed, (std::vector<int>{pipe_ends[1], pipe_ends[1]}));
                  EXPECT_NE(fcntl(pipe_ends[0], F_GETFD), -1);
                  EXPECT_EQ(fcntl(pipe_ends[1], F_GETFD), -1);
                  close(pipe_ends[0]);
                  EXPECT_EQ(err.finish(), "");
                  EXPECT_EQ(ctx, nullptr);
                  EXPECT_EQ(psp_background, 0);
                  EXPECT_STREQ(server_name, "testd");
                  return 0;
              }),
              0);
}

TEST_F(DaemonFault, ParentClosesBothEnds)
{
    EXPECT_EQ(run_in_child([] {
                  PSP_DAEMON_CTX ctx = nullptr;
                  Fault::replace("pipe", note_pipe);
                  Fault::replace("close", note_close);
                  closed.clear();
                  const ZYN_RETCODE rc = psp_daemonStart("testd", &ctx);
                  if (rc == sCHILD) {
                      psp_daemonComplete(ctx, eRANGE);
                      _exit(0);
                  }
                  Fault::clear();
                  EXPECT_EQ(rc, eRANGE);
                  EXPECT_EQ(closed, (std::vector<int>{pipe_ends[1], pipe_ends[0]}));
                  return 0;
              }),
              0);
}

TEST_F(DaemonFault, ParentThatHasNoMemoryForTheLogJumpsWithBothEndsClosed)
{
    EXPECT_EQ(run_in_child([] {
                  jmp_buf buffer;
                  release(get(8, PSP_THREAD_TAG), PSP_THREAD_TAG);
                  psp_resetTag(&buffer, PSP_THREAD_TAG);
                  const std::size_t descriptors = open_descriptors();
                  Fault::fail_nth("tag_alloc", 1);
                  const int value = jumped_with(buffer, [] {
                      PSP_DAEMON_CTX ctx = nullptr;
                      if (psp_daemonStart("testd", &ctx) == sCHILD) {
                          psp_daemonComplete(ctx, sOKAY);
                          _exit(0);
                      }
                  });
                  EXPECT_EQ(value, 1);
                  EXPECT_EQ(open_descriptors(), descriptors);
                  return 0;
              }),
              0);
}

TEST_F(DaemonFault, IsHeardAfterAnInterruptedRead)
{
    EXPECT_EQ(run_in_child([] {
                  Fault reads("read", 1, false, EINTR);
                  const Answer answer = start_daemon(sOKAY);
                  EXPECT_EQ(answer.rc, sOKAY);
                  EXPECT_EQ(answer.out, "testd: Info: Started successfully\n");
                  EXPECT_EQ(answer.err, "");
                  EXPECT_EQ(reads.calls(), 2);
                  return 0;
              }),
              0);
}

TEST_F(DaemonFault, InAnyOtherStateIsNotReported)
{
    EXPECT_EQ(run_in_child([] {
                  Fault::replace(
                      "waitpid", +[](pid_t pid, int* status, int options) -> pid_t {
                          EXPECT_EQ(options, 0) << "a blocking wait";
                          *status = 0x137F; // stopped
                          return pid;
                      });
                  const Answer answer = start_daemon(sCHILD);
                  EXPECT_EQ(answer.rc, ePSP_FAILURE);
                  EXPECT_EQ(answer.out + answer.err, "");
                  return 0;
              }),
              0);
}

// The child's side: a way back that the test reads itself.
class WayBack {
  public:
    WayBack()
    {
        if (pipe2(ends_, O_NONBLOCK) != 0)
            ADD_FAILURE() << "no pipe";
    }
    ~WayBack()
    {
        close(ends_[0]);
    }
    WayBack(const WayBack&) = delete;
    WayBack& operator=(const WayBack&) = delete;

    PSP_DAEMON_CTX ctx() const
    {
        return reinterpret_cast<PSP_DAEMON_CTX>(static_cast<std::intptr_t>(ends_[1]));
    }
    // All bytes up to the end that a closed write end makes.
    std::string received() const
    {
        EXPECT_EQ(fcntl(ends_[1], F_GETFD), -1) << "the way back must be closed";
        char bytes[16];
        const ssize_t got = ::read(ends_[0], bytes, sizeof bytes);
        return got < 0 ? "error" : std::string(bytes, static_cast<std::size_t>(got));
    }

  private:
    int ends_[2] = {-1, -1};
};

const std::string no_memory("\xF0\xD8\xFF\xFF", 4); // eNOMEMORY in this machine's order

TEST_F(DaemonFault, CompletionSendsFourBytesAndCloses)
{
    const WayBack back;
    Fault writes("write");
    psp_daemonComplete(back.ctx(), eNOMEMORY);
    EXPECT_EQ(writes.calls(), 1);
    EXPECT_EQ(back.received(), no_memory);
}

// ---- Processors ----

TEST_F(SystemFault, TheNumberOfProcessorsIsThatOfThoseOnline)
{
    Fault::replace(
        "sysconf", +[](int name) -> long { return name == _SC_NPROCESSORS_ONLN ? 96 : -1; });
    EXPECT_EQ(psp_getcpucount(), 96u);
}

// ---- Modules ----

std::string opened;
int open_flags;

// Every module is the test program itself.
void* open_self(const char* path, int flags)
{
    opened = path;
    open_flags = flags;
    return __real_dlopen(nullptr, RTLD_NOW);
}

struct Usage {
    std::size_t global;
    std::size_t thread;

    bool operator==(const Usage&) const = default;
};

Usage usage()
{
    PSP_TAG_MEM_INFO global{};
    PSP_TAG_MEM_INFO thread{};
    psp_getTagMemInfo(PSP_GLOBAL_TAG, &global);
    psp_getTagMemInfo(PSP_THREAD_TAG, &thread);
    return {global.used.current, thread.used.current};
}

void make_thread_tag()
{
    psp_freeMem(psp_getMem(1, PSP_THREAD_TAG, 1, nullptr, __FILE__, __LINE__), PSP_THREAD_TAG,
                __FILE__, __LINE__);
}

TEST_F(ModuleFault, IsOpenedUnderItsFileNameWithAllSymbolsBound)
{
    Fault::replace("dlopen", open_self);
    PSP_MOD_CTX* module = nullptr;
    ASSERT_EQ(psp_load("x", &module), sOKAY);
    EXPECT_EQ(opened, "libx.so");
    EXPECT_EQ(open_flags, 2);
    EXPECT_EQ(psp_unload(module), sOKAY);
    ASSERT_EQ(psp_load("a%sb/c", &module), sOKAY);
    EXPECT_EQ(opened, "liba%sb/c.so");
    EXPECT_EQ(psp_unload(module), sOKAY);
    const std::string longest(70000, 'n');
    ASSERT_EQ(psp_load(longest.c_str(), &module), sOKAY);
    EXPECT_EQ(opened, "lib" + longest + ".so");
    EXPECT_EQ(psp_unload(module), sOKAY);
}

TEST_F(ModuleFault, WithoutMemoryReleasesWhatItHadAllocated)
{
    make_thread_tag();
    const Usage before = usage();
    auto* const untouched = reinterpret_cast<PSP_MOD_CTX*>(std::uintptr_t{0x1234});
    Fault::replace("dlopen", open_self);
    const int failing = fail_every_call("tag_alloc", false, [&](Fault& fault, int n) {
        Fault closes("dlclose");
        PSP_MOD_CTX* module = untouched;
        opened.clear();
        const ZYN_RETCODE rc = psp_load("x", &module);
        fault.disarm();
        if (fault.failures() == 0) {
            EXPECT_EQ(rc, sOKAY);
            EXPECT_EQ(psp_unload(module), sOKAY);
            return;
        }
        EXPECT_EQ(rc, eNOMEMORY) << "allocation " << n;
        EXPECT_EQ(module, untouched);
        EXPECT_EQ(usage(), before) << "allocation " << n;
        EXPECT_EQ(closes.calls(), 0) << "an open library stays loaded";
        EXPECT_EQ(opened, n < 4 ? "" : "libx.so") << "allocation " << n;
    });
    EXPECT_EQ(failing, 4) << "context, name, file name, platform record";
}

TEST_F(ModuleFault, WithoutMemoryJumpsOnlyWhenNothingIsHalfDone)
{
    make_thread_tag();
    const Usage before = usage();
    Fault::replace("dlopen", open_self);
    for (const PSP_MEMTAG tag : {PSP_THREAD_TAG, PSP_GLOBAL_TAG}) {
        jmp_buf jump;
        static int n; // keeps its value across the jump
        for (n = 1; n <= 4; n++) {
            const bool in_this_tag = (n == 3) == (tag == PSP_THREAD_TAG);
            PSP_MOD_CTX* module = nullptr;
            Fault::fail_nth("tag_alloc", n);
            if (setjmp(jump) == 0) {
                psp_resetTag(&jump, tag);
                EXPECT_EQ(psp_load("x", &module), eNOMEMORY);
                EXPECT_FALSE(in_this_tag) << "allocation " << n;
            } else {
                EXPECT_TRUE(in_this_tag) << "allocation " << n;
            }
            Fault::fail_nth("tag_alloc", 0);
            psp_resetTag(nullptr, tag);
            EXPECT_EQ(usage(), before) << "allocation " << n;
        }
    }
}

TEST_F(ModuleFault, ThatCannotBeUnloadedStaysUsable)
{
    Fault::replace("dlopen", open_self);
    PSP_MOD_CTX* module = nullptr;
    ASSERT_EQ(psp_load("x", &module), sOKAY);
    const Usage loaded = usage();
    {
        Fault fault("dlclose", 1);
        EXPECT_EQ(psp_unload(module), eUNAVAIL);
    }
    EXPECT_EQ(usage(), loaded) << "the platform's record is kept";
    VOID_FCN address = nullptr;
    EXPECT_EQ(psp_getFcnAddr(module, "malloc", &address), sOKAY);
    EXPECT_NE(address, nullptr);
    {
        Fault fault("dlsym", 1);
        EXPECT_EQ(psp_getFcnAddr(module, "malloc", &address), sOKAY);
        EXPECT_EQ(address, nullptr);
    }
    EXPECT_EQ(psp_unload(module), sOKAY);
    EXPECT_LT(usage().global, loaded.global);
}

} // namespace
