// Daemon start with its handshake, services, and facts about the process.
//
// A daemon start changes the process and splits it: every one of these tests runs in a forked
// child, which plays the parent of the daemon.
#include "support/psp_test.h"

#include "psp.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

using namespace psptest;

namespace {

const std::string name_at_load = server_name;

class Daemon : public PspTest {};
class DaemonWithoutLibrary : public RawTest {};

int way_back(PSP_DAEMON_CTX ctx)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(ctx));
}

// What the parent of a daemon got and printed.
struct Start {
    ZYN_RETCODE rc;
    std::string out;
    std::string err;
};

// Starts a daemon that does `body` and ends with status 0.
template <class Body>
Start start_daemon(Body body, const char* name = "testd")
{
    CapturedFd out(1);
    CapturedFd err(2);
    auto* const untouched = reinterpret_cast<PSP_DAEMON_CTX>(std::uintptr_t{0x1234});
    PSP_DAEMON_CTX ctx = untouched;
    const ZYN_RETCODE rc = psp_daemonStart(name, &ctx);
    if (rc == sCHILD) {
        body(ctx);
        _exit(0);
    }
    EXPECT_EQ(ctx, untouched);
    return {rc, out.finish(), err.finish()};
}

template <class Body>
void as_parent(Body body)
{
    EXPECT_EQ(run_in_child([&] {
                  body();
                  return 0;
              }),
              0);
}

// Writes part of a start-up message and goes on without the way back.
void say_bytes(PSP_DAEMON_CTX ctx, const void* bytes, std::size_t count)
{
    if (write(way_back(ctx), bytes, count) != static_cast<ssize_t>(count))
        _exit(70);
    close(way_back(ctx));
}

// Status of the one child that was not yet waited for; -1 when there is none.
int reap()
{
    int status = 0;
    return waitpid(-1, &status, 0) > 0 ? status : -1;
}

// ---- The message of the child ----

TEST_F(Daemon, ThatStartedIsReportedInTheLog)
{
    as_parent([] {
        const TempDir dir;
        const std::string log = dir / "log";
        psp_log_openEx(nullptr, log.c_str());
        const Start start =
            start_daemon([](PSP_DAEMON_CTX ctx) { psp_daemonComplete(ctx, sOKAY); });
        EXPECT_EQ(start.rc, sOKAY);
        EXPECT_EQ(start.out, "testd: Info: Started successfully\n");
        EXPECT_EQ(start.err, "");
        const std::string line = read_file(log);
        EXPECT_TRUE(line.ends_with("]  testd: Info: Started successfully\n")) << line;
        EXPECT_TRUE(line.starts_with("[")) << line;
        EXPECT_EQ(reap(), 0) << "the parent leaves the child to its caller";
    });
}

TEST_F(Daemon, ThatFailedGivesItsReasonWithoutAMessage)
{
    const ZYN_RETCODE reasons[] = {eNOMEMORY, ePSP_FAILURE, sNOTFOUND, sCHILD, INT32_MIN, 1};
    for (const ZYN_RETCODE reason : reasons) {
        as_parent([=] {
            const Start start =
                start_daemon([=](PSP_DAEMON_CTX ctx) { psp_daemonComplete(ctx, reason); });
            EXPECT_EQ(start.rc, reason);
            EXPECT_EQ(start.out, "");
            EXPECT_EQ(start.err, "");
            EXPECT_EQ(reap(), 0);
        });
    }
}

TEST_F(Daemon, MessageIsFourBytesInTheMachinesOrder)
{
    as_parent([] {
        const Start start = start_daemon([](PSP_DAEMON_CTX ctx) {
            const unsigned char reason[] = {0xF0, 0xD8, 0xFF, 0xFF}; // -10000
            say_bytes(ctx, reason, sizeof reason);
        });
        EXPECT_EQ(start.rc, eNOMEMORY);
        EXPECT_EQ(start.err, "");
    });
}

TEST_F(Daemon, MessageLongerThanFourBytesCountsUpToThem)
{
    as_parent([] {
        const Start start =
            start_daemon([](PSP_DAEMON_CTX ctx) { say_bytes(ctx, "\xF0\xD8\xFF\xFF\0\0\0\0", 8); });
        EXPECT_EQ(start.rc, eNOMEMORY);
    });
}

TEST_F(Daemon, ThatGoesOnAfterItsMessageIsNotWaitedFor)
{
    as_parent([] {
        int hold[2];
        ASSERT_EQ(pipe(hold), 0);
        const Start start = start_daemon([&](PSP_DAEMON_CTX ctx) {
            psp_daemonComplete(ctx, sOKAY);
            close(hold[1]);
            char byte;
            [[maybe_unused]] const ssize_t got =
                read(hold[0], &byte, 1); // until the parent went on
            _exit(7);
        });
        EXPECT_EQ(start.rc, sOKAY);
        close(hold[0]);
        close(hold[1]);
        const int status = reap();
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 7);
    });
}

TEST_F(Daemon, WithAShortMessageIsAFailure)
{
    for (const std::size_t count : {1u, 2u, 3u}) {
        as_parent([=] {
            const Start start =
                start_daemon([=](PSP_DAEMON_CTX ctx) { say_bytes(ctx, "\0\0\0", count); });
            EXPECT_EQ(start.rc, ePSP_FAILURE);
            EXPECT_EQ(start.err, "testd: error: Child failed with insufficient information " +
                                     std::to_string(count) + ".\n");
            EXPECT_EQ(start.out, "");
            EXPECT_EQ(reap(), 0) << "the child is not waited for";
        });
    }
}

// ---- A child without a word ----

TEST_F(Daemon, ThatEndsBeforeItsMessageIsReportedWithItsStatus)
{
    for (const int status : {3, 0, 255}) {
        as_parent([=] {
            const Start start = start_daemon([=](PSP_DAEMON_CTX) { _exit(status); });
            EXPECT_EQ(start.rc, ePSP_FAILURE);
            EXPECT_EQ(start.err,
                      "testd: error: Child terminated with exit " + std::to_string(status) + ".\n");
            EXPECT_EQ(start.out, "");
            EXPECT_EQ(reap(), -1) << "the parent waited for it";
        });
    }
}

TEST_F(Daemon, ThatIsKilledBeforeItsMessageIsReportedWithTheSignal)
{
    for (const int signal_number : {SIGKILL, SIGTERM}) {
        as_parent([=] {
            const Start start = start_daemon([=](PSP_DAEMON_CTX) {
                signal(SIGTERM, SIG_DFL);
                kill(getpid(), signal_number);
            });
            EXPECT_EQ(start.rc, ePSP_FAILURE);
            EXPECT_EQ(start.err, "testd: error: Child terminated with signal " +
                                     std::to_string(signal_number) + ".\n");
            EXPECT_EQ(start.out, "");
            EXPECT_EQ(reap(), -1);
        });
    }
}

TEST_F(Daemon, ThatClosesTheWayBackIsWaitedFor)
{
    as_parent([] {
        const Start start = start_daemon([](PSP_DAEMON_CTX ctx) {
            close(way_back(ctx));
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            _exit(5);
        });
        EXPECT_EQ(start.rc, ePSP_FAILURE);
        EXPECT_EQ(start.err, "testd: error: Child terminated with exit 5.\n");
        EXPECT_EQ(reap(), -1);
    });
}

TEST_F(Daemon, ThatNobodyCanWaitForIsReportedAsSuch)
{
    as_parent([] {
        signal(SIGCHLD, SIG_IGN); // the system reaps the child itself
        const Start start = start_daemon([](PSP_DAEMON_CTX) { _exit(3); });
        EXPECT_EQ(start.rc, ePSP_FAILURE);
        EXPECT_EQ(start.err, "testd: error: Child waitpid failed.\n");
    });
}

void do_nothing(int /*signal*/) {}

TEST_F(Daemon, IsAwaitedThroughSignals)
{
    as_parent([] {
        struct sigaction action {};
        action.sa_handler = do_nothing; // without restart: the parent's read is interrupted
        sigaction(SIGALRM, &action, nullptr);
        const itimerval often = {{0, 5000}, {0, 5000}};
        setitimer(ITIMER_REAL, &often, nullptr); // the child inherits no timer
        const Start start = start_daemon([](PSP_DAEMON_CTX ctx) {
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
            psp_daemonComplete(ctx, eRANGE);
        });
        const itimerval off = {{0, 0}, {0, 0}};
        setitimer(ITIMER_REAL, &off, nullptr);
        EXPECT_EQ(start.rc, eRANGE);
        EXPECT_EQ(start.err, "");
    });
}

// ---- The two processes ----

// What the child sees of itself, sent to the parent as it is.
struct ChildView {
    pid_t parent;
    bool leads_session;
    bool has_stream[3];
    mode_t mask;
    std::int32_t background;
    std::size_t descriptors;
    char directory[256];
    char name[32];
};

TEST_F(Daemon, LeadsItsOwnSessionWithoutTheStandardStreams)
{
    as_parent([] {
        umask(027);
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const std::size_t before = open_descriptors();
        std::size_t with_captures = 0;
        {
            const CapturedFd out(1);
            const CapturedFd err(2);
            with_captures = open_descriptors();
        }
        const Start start = start_daemon([&](PSP_DAEMON_CTX ctx) {
            ChildView view{};
            view.parent = getppid();
            view.leads_session = getsid(0) == getpid() && getpgrp() == getpid();
            for (int fd = 0; fd < 3; fd++)
                view.has_stream[fd] = fcntl(fd, F_GETFD) != -1;
            view.mask = umask(0);
            view.background = psp_background;
            view.descriptors = open_descriptors();
            if (getcwd(view.directory, sizeof view.directory) == nullptr)
                _exit(71);
            std::strncpy(view.name, server_name, sizeof view.name - 1);
            if (write(ends[1], &view, sizeof view) != sizeof view)
                _exit(72);
            psp_daemonComplete(ctx, sOKAY);
        });
        EXPECT_EQ(start.rc, sOKAY);
        ChildView view{};
        ASSERT_EQ(read(ends[0], &view, sizeof view), static_cast<ssize_t>(sizeof view));
        EXPECT_EQ(view.parent, getpid()) << "there is no process in between";
        EXPECT_TRUE(view.leads_session);
        for (const bool has : view.has_stream)
            EXPECT_FALSE(has);
        EXPECT_EQ(view.mask, 0u);
        EXPECT_EQ(view.background, 1);
        EXPECT_EQ(view.descriptors, with_captures - 3 + 1) << "one more: the way back";
        char directory[256] = "";
        EXPECT_NE(getcwd(directory, sizeof directory), nullptr);
        EXPECT_STREQ(view.directory, directory);
        EXPECT_STREQ(view.name, "testd");

        // The parent is what it was.
        EXPECT_EQ(psp_background, 0);
        EXPECT_EQ(umask(027), 027u);
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_STREQ(server_name, "testd");
    });
}

TEST_F(Daemon, LogsToTheLogFileOnly)
{
    as_parent([] {
        const TempDir dir;
        const std::string log = dir / "log";
        const Start start = start_daemon([&](PSP_DAEMON_CTX ctx) {
            const bool opened = psp_log_openEx(nullptr, log.c_str()) == sOKAY;
            psp_log("%s\n", "from the daemon");
            psp_daemonComplete(ctx, opened ? sDUPLICATE : eFILEOPEN);
        });
        EXPECT_EQ(start.rc, sDUPLICATE);
        EXPECT_EQ(start.out, "");
        EXPECT_TRUE(read_file(log).ends_with("]  from the daemon\n")) << read_file(log);
    });
}

TEST_F(Daemon, NameIsKeptAsItIsAndNotCopied)
{
    EXPECT_EQ(name_at_load, "unknown");
    as_parent([] {
        static char name[] = "first";
        EXPECT_EQ(start_daemon([](PSP_DAEMON_CTX) { _exit(1); }, name).err,
                  "first: error: Child terminated with exit 1.\n");
        EXPECT_EQ(server_name, name);
        EXPECT_EQ(start_daemon([](PSP_DAEMON_CTX) { _exit(1); }, "50%d").err,
                  "50%d: error: Child terminated with exit 1.\n");
    });
}

TEST_F(Daemon, CanBeStartedMoreThanOnce)
{
    as_parent([] {
        const std::size_t before = open_descriptors();
        for (int i = 0; i < 5; i++) {
            const ZYN_RETCODE wanted = i % 2 == 0 ? sOKAY : eRANGE;
            EXPECT_EQ(start_daemon([=](PSP_DAEMON_CTX ctx) { psp_daemonComplete(ctx, wanted); }).rc,
                      wanted);
            EXPECT_EQ(reap(), 0);
        }
        EXPECT_EQ(open_descriptors(), before);
    });
}

TEST_F(Daemon, NeedsAPlaceForItsHandle)
{
    as_parent([] {
        EXPECT_EQ(psp_daemonStart("testd", nullptr), eINVNULLARG);
        EXPECT_EQ(reap(), -1);
    });
}

TEST_F(Daemon, WithoutDescriptorsForItsPipeIsAFailure)
{
    as_parent([] {
        std::vector<int> taken;
        for (int fd = dup(0); fd >= 0; fd = dup(0))
            taken.push_back(fd);
        PSP_DAEMON_CTX ctx = nullptr;
        EXPECT_EQ(psp_daemonStart("testd", &ctx), ePSP_FAILURE);
        EXPECT_STREQ(server_name, "unknown") << "the pipe comes first";
        for (const int fd : taken)
            close(fd);
    });
}

TEST_F(DaemonWithoutLibrary, CanBeStartedToo)
{
    as_parent([] {
        const Start start =
            start_daemon([](PSP_DAEMON_CTX ctx) { psp_daemonComplete(ctx, sOKAY); });
        EXPECT_EQ(start.rc, sOKAY);
        EXPECT_EQ(start.out, "testd: Info: Started successfully\n");
    });
}

// ---- Services ----

struct Call {
    std::int32_t argc;
    const char** argv;
    int count;
};

Call service_call;

std::int32_t service(std::int32_t argc, const char** argv)
{
    service_call = {argc, argv, service_call.count + 1};
    return -argc * 1000;
}

TEST(Service, RunsInTheCallingProcess)
{
    const char* argv[] = {"program", "-x", nullptr};
    std::uint16_t done = 0x5555;
    service_call = {};
    EXPECT_EQ(psp_serviceStart("name", &done, 2, argv, service), -2000);
    EXPECT_EQ(service_call.count, 1);
    EXPECT_EQ(service_call.argc, 2);
    EXPECT_EQ(service_call.argv, argv);
    EXPECT_EQ(done, 0x5555);
    EXPECT_EQ(psp_serviceStart(nullptr, nullptr, 0, nullptr, service), 0);
    EXPECT_EQ(service_call.argv, nullptr);
    psp_serviceStarted();
    psp_serviceDone();
}

TEST(Service, CannotBeInstalledHere)
{
    EXPECT_EQ(psp_serviceInstall("n", "e", "t", "d", "p", "o", "u", "w"), ePSP_FAILURE);
    EXPECT_EQ(
        psp_serviceInstall(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
        ePSP_FAILURE);
    EXPECT_EQ(psp_serviceUninstall("n", "e"), ePSP_FAILURE);
    EXPECT_EQ(psp_serviceUninstall(nullptr, nullptr), ePSP_FAILURE);
}

// ---- Facts about the process ----

TEST(Process, KnowsItsId)
{
    EXPECT_EQ(psp_get_pid(), static_cast<std::uint64_t>(getpid()));
    const std::uint64_t parent = psp_get_pid();
    EXPECT_EQ(run_in_child([=] {
                  EXPECT_EQ(psp_get_pid(), static_cast<std::uint64_t>(getpid()));
                  EXPECT_NE(psp_get_pid(), parent);
                  return 0;
              }),
              0);
}

TEST(Process, KnowsTheProcessorsOnline)
{
    EXPECT_EQ(psp_getcpucount(), static_cast<std::uint32_t>(sysconf(_SC_NPROCESSORS_ONLN)));
}

TEST(Process, LooksUpItsEnvironment)
{
    setenv("PSPTEST_VARIABLE", "some value", 1);
    EXPECT_STREQ(psp_getenv("PSPTEST_VARIABLE"), "some value");
    EXPECT_EQ(psp_getenv("PSPTEST_VARIABLE"), getenv("PSPTEST_VARIABLE"));
    setenv("PSPTEST_VARIABLE", "", 1);
    EXPECT_STREQ(psp_getenv("PSPTEST_VARIABLE"), "");
    unsetenv("PSPTEST_VARIABLE");
    EXPECT_EQ(psp_getenv("PSPTEST_VARIABLE"), nullptr);
    EXPECT_EQ(psp_getenv(nullptr), nullptr);
}

} // namespace
