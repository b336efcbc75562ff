// The example daemon from outside: its command returns when the service runs or has failed to
// start, the service lives by itself until a signal, and there is one in a directory.
#include "program.h"
#include "shortage.h"
#include "support/scale.h"

#include "zynretcodetypes.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>

#include <sys/prctl.h>
#include <sys/stat.h>

namespace {

using psptest::file_exists;
using psptest::in_long_run;
using psptest::Program;
using psptest::read_file;
using psptest::Result;
using psptest::run_program;
using psptest::TempDir;
using psptest::wait_until;
using psptest::write_file;

const std::string started = "daemon: Info: Started successfully\n";
const std::string usage = "usage: daemon DIR [--fail CODE | --exit STATUS | --kill]\n";

// What the command prints after a start that ended with `code`; the code's text is left open.
std::string failure(ZYN_RETCODE code)
{
    return "daemon: start failed with code " + std::to_string(code) + " (";
}

bool starts_with(const std::string& text, const std::string& begin)
{
    return text.compare(0, begin.size(), begin) == 0;
}

// The lines of the service's log without their time, which is "[date time]  " on each.
std::vector<std::string> messages(const std::string& log)
{
    constexpr std::size_t time_length = sizeof "[2024-05-01 13:07:42]  " - 1;
    std::vector<std::string> lines;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        EXPECT_TRUE(line.size() > time_length && line[0] == '[' &&
                    line.compare(time_length - 3, 3, "]  ") == 0)
            << line;
        lines.push_back(line.substr(std::min(line.size(), time_length)));
    }
    return lines;
}

std::string heartbeat(std::size_t number)
{
    return "heartbeat " + std::to_string(number);
}

// The service in a directory. This process inherits services whose command has returned, so it can
// wait for their end.
class Service {
  public:
    explicit Service(const TempDir& dir) : dir_(dir), home_(dir / "home")
    {
        EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    }
    ~Service()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Runs the command; when it succeeds the service is running. `setup` runs in the child that
    // becomes the command.
    Result start(const Program::Setup& setup = {})
    {
        Result result = run_program(DAEMON_PATH, dir_, {home_}, "", setup);
        if (result.status == 0)
            started();
        return result;
    }

    // Some command has started the service.
    void started()
    {
        pid_ = std::atoi(pidfile().c_str());
    }

    // Sends a signal and waits for the end; the exit status, or 128 plus the ending signal.
    int end(int signal)
    {
        int status = 0;
        EXPECT_EQ(kill(pid_, signal), 0);
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    bool wait_for(const std::string& message) const
    {
        return wait_until([&] { return log().find("  " + message + "\n") != std::string::npos; });
    }

    pid_t pid() const
    {
        return pid_;
    }
    const std::string& home() const
    {
        return home_;
    }
    std::string pidfile() const
    {
        return read_file(home_ + "/daemon.pid");
    }
    std::string log() const
    {
        return read_file(home_ + "/daemon.log");
    }

  private:
    const TempDir& dir_;
    std::string home_;
    pid_t pid_ = -1;
};

// ---- Life ----

TEST(Daemon, ReturnsFromItsStartWhileTheServiceRuns)
{
    TempDir dir;
    Service service(dir);
    const Result result = service.start();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, started);
    EXPECT_EQ(result.err, "");
    ASSERT_GT(service.pid(), 0);
    EXPECT_EQ(service.pidfile(), std::to_string(service.pid()) + "\n");
    EXPECT_EQ(kill(service.pid(), 0), 0);
    EXPECT_TRUE(service.wait_for("started"));
}

TEST(Daemon, CountsHeartbeatsUntilASignalEndsIt)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        TempDir dir;
        Service service(dir);
        ASSERT_EQ(service.start().status, 0);
        ASSERT_TRUE(service.wait_for(heartbeat(3)));
        EXPECT_EQ(service.end(signal), 0);

        // "started" comes from another thread than the heartbeats: it may stand behind the first.
        std::vector<std::string> lines = messages(service.log());
        ASSERT_EQ(std::erase(lines, "started"), 1u);
        ASSERT_GE(lines.size(), 5u);
        EXPECT_EQ(lines.back(), "stopped with code 0");
        lines.pop_back();
        ASSERT_EQ(std::erase(lines, "signal " + std::to_string(signal) + ": stopping"), 1u);
        for (std::size_t i = 0; i < lines.size(); i++)
            EXPECT_EQ(lines[i], heartbeat(i + 1));
        EXPECT_EQ(service.pidfile(), "") << "the file stays, without an owner";
    }
}

TEST(Daemon, LeavesTheTerminalAndTheOutputsOfItsCommand)
{
    TempDir dir;
    Service service(dir);
    ASSERT_EQ(service.start().status, 0);
    EXPECT_EQ(getsid(service.pid()), service.pid()) << "a session of its own";

    const std::string fds = "/proc/" + std::to_string(service.pid()) + "/fd/";
    for (const char* fd : {"0", "1", "2"})
        EXPECT_EQ(std::filesystem::read_symlink(fds + fd), "/dev/null");
    for (const auto& entry : std::filesystem::directory_iterator(fds)) {
        const std::string target = std::filesystem::read_symlink(entry.path()).string();
        EXPECT_FALSE(starts_with(target, dir / "run.")) << target << " is the command's";
    }
}

TEST(Daemon, MakesFilesThatOthersCanReadAndNotWrite)
{
    TempDir dir;
    Service service(dir);
    ASSERT_EQ(service.start().status, 0);
    for (const char* name : {"/daemon.pid", "/daemon.log"}) {
        struct stat info;
        ASSERT_EQ(stat((service.home() + name).c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0644u) << name;
    }
}

// ---- One in a directory ----

TEST(Daemon, RefusesASecondInstanceAndLeavesTheFirstAlone)
{
    TempDir dir;
    Service service(dir);
    ASSERT_EQ(service.start().status, 0);
    ASSERT_TRUE(service.wait_for(heartbeat(1)));

    const Result second = run_program(DAEMON_PATH, dir, {service.home()});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, "");
    EXPECT_TRUE(starts_with(second.err, "daemon: start failed with code ")) << second.err;
    EXPECT_EQ(service.pidfile(), std::to_string(service.pid()) + "\n");
    EXPECT_NE(service.log().find(heartbeat(1)), std::string::npos) << "the log was not begun anew";
    EXPECT_EQ(service.end(SIGTERM), 0);
}

TEST(Daemon, RunsBesideOneInAnotherDirectory)
{
    TempDir dir;
    TempDir other;
    Service service(dir);
    Service beside(other);
    ASSERT_EQ(service.start().status, 0);
    EXPECT_EQ(beside.start().status, 0);
    EXPECT_NE(service.pid(), beside.pid());
    EXPECT_EQ(beside.end(SIGTERM), 0);
    EXPECT_EQ(service.end(SIGTERM), 0);
}

TEST(Daemon, StartsAgainAfterAnOrderlyEndAndAfterAKill)
{
    TempDir dir;
    Service service(dir);
    ASSERT_EQ(service.start().status, 0);
    const pid_t killed = service.pid();
    EXPECT_EQ(service.end(SIGKILL), 128 + SIGKILL);
    EXPECT_EQ(service.pidfile(), std::to_string(killed) + "\n") << "left behind, but not locked";

    ASSERT_EQ(service.start().status, 0);
    EXPECT_NE(service.pid(), killed);
    EXPECT_EQ(service.end(SIGTERM), 0);
    ASSERT_EQ(service.start().status, 0);
    EXPECT_EQ(service.end(SIGTERM), 0);
}

// ---- Again and again ----

std::set<std::string> names_in(const std::string& directory)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

// Waits until every process that came from this one has ended; how many there still were.
int processes_left()
{
    int count = 0;
    while (waitpid(-1, nullptr, 0) > 0)
        count++;
    return count;
}

TEST(Daemon, LeavesNothingBehindOverManyStarts)
{
    TempDir dir;
    TempDir scratch;
    const auto own_scratch = [&] { return setenv("ZYN_TMPDIR", scratch.c_str(), 1) == 0; };
    processes_left(); // of other tests in this process
    Service service(dir);
    const std::size_t descriptors = psptest::open_descriptors();
    std::size_t of_service = 0;
    for (int round = 0; round < in_long_run(20, 400) && !HasFailure(); round++) {
        const int signal =
            std::array{SIGTERM, SIGINT, SIGKILL}[static_cast<std::size_t>(round % 3)];
        ASSERT_EQ(service.start(own_scratch).status, 0);
        ASSERT_TRUE(service.wait_for("started"));
        const std::size_t now = psptest::descriptors_of(service.pid());
        EXPECT_EQ(now, round == 0 ? now : of_service);
        of_service = now;

        EXPECT_EQ(service.end(signal), signal == SIGKILL ? 128 + SIGKILL : 0);
        EXPECT_EQ(processes_left(), 0);
        EXPECT_EQ(names_in(service.home()), (std::set<std::string>{"daemon.log", "daemon.pid"}));
        EXPECT_EQ(names_in(scratch.path()), std::set<std::string>{});
        EXPECT_EQ(service.pidfile().empty(), signal != SIGKILL);
        EXPECT_EQ(psptest::open_descriptors(), descriptors);
    }
}

TEST(Daemon, RunsOnceWhenStartedManyTimesAtOnce)
{
    for (int round = 0; round < in_long_run(10, 200) && !HasFailure(); round++) {
        TempDir dir;
        Service service(dir);
        std::vector<std::unique_ptr<Program>> commands;
        for (const char* tag : {"a", "b", "c", "d", "e"})
            commands.push_back(std::make_unique<Program>(
                DAEMON_PATH, dir, tag, std::vector<std::string>{service.home()}, ""));
        int running = 0;
        for (const auto& command : commands) {
            const Result result = command->finish();
            EXPECT_TRUE(result.status == 0 || result.status == 1) << result.err;
            running += result.status == 0;
        }
        ASSERT_EQ(running, 1);
        service.started();
        EXPECT_EQ(service.end(SIGTERM), 0) << service.log();
        EXPECT_LE(processes_left(), 4) << "only those of the starts that failed";
    }
}

TEST(Daemon, StartWithFewDescriptorsWorksOrSaysWhyNot)
{
    constexpr int loader_failed = 127; // the program's libraries were not found a descriptor
    std::set<int> seen;
    for (rlim_t limit = 3; limit < 14; limit++) {
        SCOPED_TRACE(limit);
        TempDir dir;
        Service service(dir);
        const Result result = service.start([limit] {
            const rlimit few = {limit, limit};
            return setrlimit(RLIMIT_NOFILE, &few) == 0;
        });
        seen.insert(result.status);
        EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == loader_failed);
        if (result.status == 0) {
            EXPECT_EQ(service.end(SIGTERM), 0);
            EXPECT_EQ(messages(service.log()).back(), "stopped with code 0");
        } else {
            EXPECT_NE(result.err, "");
        }
        EXPECT_LE(processes_left(), 1) << "only that of a start that failed";
    }
    EXPECT_TRUE(seen.count(0) == 1 && seen.count(1) == 1);
}

// ---- Starts that fail ----

TEST(Daemon, ReportsTheCodeThatTheServiceGives)
{
    TempDir dir;
    for (const ZYN_RETCODE code : {ZYN_RETCODE{eNOMEMORY}, 5, -1, INT32_MAX, INT32_MIN}) {
        const Result result =
            run_program(DAEMON_PATH, dir, {dir / "home", "--fail", std::to_string(code)});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(starts_with(result.err, failure(code))) << result.err;
    }
    EXPECT_FALSE(file_exists(dir / "home")) << "nothing was set up";
}

TEST(Daemon, ReportsAServiceThatExitsWithoutACode)
{
    TempDir dir;
    for (const char* status : {"0", "3", "255"}) {
        const Result result = run_program(DAEMON_PATH, dir, {dir / "home", "--exit", status});
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(starts_with(result.err, std::string("daemon: error: Child terminated with "
                                                        "exit ") +
                                                status + ".\n" + failure(ePSP_FAILURE)))
            << result.err;
    }
}

TEST(Daemon, ReportsAServiceThatASignalEnds)
{
    TempDir dir;
    const Result result = run_program(DAEMON_PATH, dir, {dir / "home", "--kill"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(starts_with(result.err, "daemon: error: Child terminated with signal 9.\n" +
                                            failure(ePSP_FAILURE)))
        << result.err;
}

TEST(Daemon, ReportsADirectoryThatCannotBeMade)
{
    TempDir dir;
    write_file(dir / "file", "");
    const Result result = run_program(DAEMON_PATH, dir, {dir / "file/home"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(starts_with(result.err, "daemon: start failed with code ")) << result.err;
}

TEST(Daemon, ReportsFilesThatCannotBeOpened)
{
    for (const char* name : {"/daemon.pid", "/daemon.log"}) {
        TempDir dir;
        Service service(dir);
        std::filesystem::create_directories(service.home() + name);
        const Result result = service.start();
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_TRUE(starts_with(result.err, failure(eFILEOPEN))) << result.err;
        std::filesystem::remove(service.home() + name);
        EXPECT_EQ(service.start().status, 0) << "a failed start leaves no lock behind";
        EXPECT_EQ(service.end(SIGTERM), 0);
    }
}

TEST(Daemon, RefusesAWrongCommandLine)
{
    TempDir dir;
    const std::string home = dir / "home";
    const std::vector<std::string> rows[] = {
        {},
        {home, "--bogus"},
        {home, "--fail"},
        {home, "--fail", "0"},
        {home, "--fail", "10038"}, // sCHILD
        {home, "--fail", "five"},
        {home, "--fail", "4294967301"},
        {home, "--exit", ""},
        {home, "--kill", "9"},
        {home, "--exit", "1", "2"},
    };
    for (const auto& row : rows) {
        const Result result = run_program(DAEMON_PATH, dir, row);
        EXPECT_EQ(result.status, 2) << ::testing::PrintToString(row);
        EXPECT_EQ(result.err, usage);
    }
    EXPECT_FALSE(file_exists(home));
}

} // namespace
