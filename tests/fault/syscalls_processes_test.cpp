// The start of a daemon, modules and processors with every call of the system failing in every way.
#include "support/call_faults.h"

#include "psp/core.h"
#include "psp/module.h"
#include "psp/output.h"
#include "psp/process.h"

#include <cstring>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>

using namespace psptest;

extern "C" void* __real_dlopen(const char* path, int flags);
extern "C" pid_t __real_waitpid(pid_t pid, int* status, int options);

namespace {

// ---- The parent of a daemon ----

int pipe_ends[2];

int note_pipe(int* ends)
{
    const int result = pipe2(ends, 0);
    pipe_ends[0] = ends[0];
    pipe_ends[1] = ends[1];
    return result;
}

struct Daemon {
    Daemon()
    {
        server_name = "unknown";
        Fault::replace("pipe", note_pipe);
    }
    ~Daemon()
    {
        Fault::clear();
        while (__real_waitpid(-1, nullptr, 0) > 0) {
        }
        server_name = "unknown";
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Starts a daemon that completes with `code` at once, or ends without a word for sCHILD.
    long start(ZYN_RETCODE code)
    {
        PSP_DAEMON_CTX ctx = nullptr;
        const ZYN_RETCODE rc = psp_daemonStart("testd", &ctx);
        if (rc == sCHILD) {
            if (code != sCHILD)
                psp_daemonComplete(ctx, code);
            _exit(0);
        }
        EXPECT_EQ(ctx, nullptr);
        return rc;
    }
    // What was printed since the last call.
    std::string printed()
    {
        const std::string all = err.text() + out.text();
        const std::string fresh = all.substr(seen_);
        seen_ = all.size();
        return fresh;
    }
    // A way back to a parent that the test itself is: the count of bytes that arrived.
    static long complete()
    {
        int ends[2];
        if (pipe2(ends, O_NONBLOCK) != 0)
            return -2;
        psp_daemonComplete(reinterpret_cast<PSP_DAEMON_CTX>(static_cast<std::intptr_t>(ends[1])),
                           eNOMEMORY);
        const int error = errno;
        EXPECT_EQ(fcntl(ends[1], F_GETFD), -1) << "closed whatever happened";
        ZYN_RETCODE code = sOKAY;
        const ssize_t got = ::read(ends[0], &code, sizeof code); // 0: the end, with nothing before
        ::close(ends[0]);
        const ZYN_RETCODE sent = eNOMEMORY;
        EXPECT_EQ(std::memcmp(&code, &sent, static_cast<std::size_t>(got)), 0);
        errno = error;
        return got;
    }
    // The child's side, in a process of its own: whether it got through.
    long become()
    {
        const int status = run_in_child([] {
            Fault::replace(
                "fork", +[]() -> pid_t { return 0; });
            PSP_DAEMON_CTX ctx = nullptr;
            const ZYN_RETCODE rc = psp_daemonStart("testd", &ctx);
            const bool met =
                Fault::failures("setsid") + Fault::failures("fclose") + Fault::failures("close") >
                0;
            psp_daemonComplete(ctx, sOKAY);
            return rc == sCHILD && psp_background == 1 ? (met ? 2 : 1) : 0;
        });
        met_elsewhere = status == 2;
        return status == 1 || status == 2;
    }

    CapturedFd err{2};
    CapturedFd out{1};
    bool met_elsewhere = false;

  private:
    std::size_t seen_ = 0;
};

using DaemonRow = Row<Daemon>;

template <const char* const* message>
void prints(Daemon& w, const Failure* failure)
{
    EXPECT_EQ(w.printed(), failure != nullptr ? message[1] : message[0]);
}

// What is printed when nothing fails, and when it does.
constexpr const char* quiet[] = {"", ""};
constexpr const char* ended[] = {"testd: error: Child terminated with exit 0.\n",
                                 "testd: error: Child waitpid failed.\n"};
constexpr const char* mute[] = {"testd: error: Child terminated with exit 0.\n", ""};
constexpr const char* unheard[] = {
    "", "testd: error: Child failed with insufficient information -1.\n"};

// clang-format off
const DaemonRow daemon_rows[] = {
    {"psp_daemonStart", "pipe", [](Daemon& w) { return w.start(eRANGE); },
     eRANGE, always<ePSP_FAILURE>, kept,
     [](Daemon& w, const Failure* f) {
         prints<quiet>(w, f);
         EXPECT_STREQ(server_name, f ? "unknown" : "testd");
     }},
    {"psp_daemonStart", "fork", [](Daemon& w) { return w.start(eRANGE); },
     eRANGE, always<ePSP_FAILURE>, unsaid,
     [](Daemon& w, const Failure* f) {
         prints<quiet>(w, f);
         if (f == nullptr)
             return;
         EXPECT_EQ(fcntl(pipe_ends[1], F_GETFD), -1);
         EXPECT_EQ(::close(pipe_ends[0]), 0) << "this end stays, as it always did";
     }},
    {"psp_daemonStart", "close", [](Daemon& w) { return w.start(eRANGE); },
     eRANGE, always<eRANGE>, unsaid, prints<quiet>},
    {"psp_daemonStart", "read", [](Daemon& w) { return w.start(eRANGE); },
     eRANGE, always<ePSP_FAILURE>, unsaid, prints<unheard>},
    {"psp_daemonStart", "waitpid", [](Daemon& w) { return w.start(sCHILD); },
     ePSP_FAILURE, always<ePSP_FAILURE>, unsaid, prints<ended>},
    {"psp_daemonStart", "fprintf", [](Daemon& w) { return w.start(sCHILD); },
     ePSP_FAILURE, always<ePSP_FAILURE>, unsaid, prints<mute>},
    {"psp_daemonStart in the child", "setsid", [](Daemon& w) { return w.become(); },
     1, always<1>, unsaid},
    {"psp_daemonStart in the child", "fclose", [](Daemon& w) { return w.become(); },
     1, always<1>, unsaid},
    {"psp_daemonStart in the child", "close", [](Daemon& w) { return w.become(); },
     1, always<1>, unsaid},
    {"psp_daemonComplete", "write", [](Daemon& w) { return w.complete(); }, 4, always<0>, unsaid},
    {"psp_daemonComplete", "close", [](Daemon& w) { return w.complete(); }, 4, always<4>, unsaid},
};
// clang-format on

class DaemonCalls : public FaultTest, public ::testing::WithParamInterface<DaemonRow> {};

TEST_P(DaemonCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, DaemonCalls, ::testing::ValuesIn(daemon_rows), name_of_row<Daemon>);

// ---- Messages of every length ----

class DaemonMessage : public FaultTest {};

TEST_F(DaemonMessage, CountsOnlyWhenItIsReadWhole)
{
    for (const std::size_t size : {0u, 1u, 2u, 3u, 4u}) {
        Daemon daemon;
        Fault::shorten_nth("read", 1, size);
        EXPECT_EQ(daemon.start(eRANGE), size == 4 ? eRANGE : ePSP_FAILURE);
        const std::string insufficient =
            "testd: error: Child failed with insufficient information " + std::to_string(size) +
            ".\n";
        EXPECT_EQ(daemon.printed(), size == 4   ? ""
                                    : size == 0 ? "testd: error: Child terminated with exit 0.\n"
                                                : insufficient);
    }
}

TEST_F(DaemonMessage, IsNotCompletedWhenItIsWrittenInPart)
{
    for (const std::size_t size : {0u, 1u, 2u, 3u, 4u}) {
        Fault::shorten_nth("write", 1, size);
        EXPECT_EQ(Daemon::complete(), static_cast<long>(size));
        EXPECT_EQ(Fault::calls("write"), 1);
    }
}

// ---- Modules and processors ----

// Every module is the test program itself.
void* open_self(const char*, int)
{
    return __real_dlopen(nullptr, RTLD_NOW);
}

struct Module {
    Module()
    {
        Fault::replace("dlopen", open_self);
    }
    ~Module()
    {
        Fault::clear();
        if (module != nullptr && psp_unload(module) == sOKAY)
            forget();
    }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    // The record of an unloaded module stays with the global tag: here it must not look like a
    // loss.
    void forget()
    {
        release(module->name, PSP_GLOBAL_TAG);
        release(module, PSP_GLOBAL_TAG);
        module = nullptr;
    }
    long load()
    {
        if (module != nullptr && psp_unload(module) == sOKAY)
            forget();
        return psp_load("x", &module);
    }
    long unload()
    {
        if (module == nullptr)
            load();
        const ZYN_RETCODE rc = psp_unload(module);
        if (rc == sOKAY)
            forget();
        return rc;
    }
    bool has_function()
    {
        return psp_getFcnAddr(module, "malloc", &address) == sOKAY && address != nullptr;
    }

    PSP_MOD_CTX* module = nullptr;
    VOID_FCN address = nullptr;
};

using ModuleRow = Row<Module>;

// clang-format off
const ModuleRow module_rows[] = {
    {"psp_load", "dlopen", [](Module& w) { return w.load(); }, sOKAY, always<sNOTFOUND>, unsaid,
     [](Module& w, const Failure* f) { EXPECT_EQ(w.module == nullptr, f != nullptr); },
     [](Module& w, const Failure*) { EXPECT_TRUE(w.has_function()); }},
    {"psp_getFcnAddr", "dlsym",
     [](Module& w) -> long {
         if (w.module == nullptr)
             w.load();
         w.address = +[](void*) {};
         return psp_getFcnAddr(w.module, "malloc", &w.address);
     },
     sOKAY, always<sOKAY>, unsaid,
     [](Module& w, const Failure* f) { EXPECT_EQ(w.address == nullptr, f != nullptr); },
     [](Module& w, const Failure*) { EXPECT_NE(w.address, nullptr); }},
    {"psp_unload", "dlclose", [](Module& w) { return w.unload(); }, sOKAY, always<eUNAVAIL>, unsaid,
     [](Module& w, const Failure* f) {
         EXPECT_EQ(w.module != nullptr, f != nullptr);
         EXPECT_TRUE(f == nullptr || w.has_function()) << "it stays usable";
     }},
    {"psp_getcpucount", "sysconf",
     [](Module&) -> long { return psp_getcpucount(); },
     sysconf(_SC_NPROCESSORS_ONLN), always<1>, unsaid},
};
// clang-format on

class ModuleCalls : public FaultTest, public ::testing::WithParamInterface<ModuleRow> {};

TEST_P(ModuleCalls, FailAsToldAndNothingIsLost)
{
    drive(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Every, ModuleCalls, ::testing::ValuesIn(module_rows), name_of_row<Module>);

TEST(ProcessCallsTable, HasARowForEveryCall)
{
    std::set<std::string> driven = calls_in(daemon_rows);
    driven.merge(calls_in(module_rows));
    EXPECT_EQ(driven, calls_for(in_processes));
}

} // namespace
