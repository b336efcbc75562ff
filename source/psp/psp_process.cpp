// The process as the system sees it: limits and signals at start, the daemon, services, ids.
//
// Daemon start: a pipe joins parent and child. The child sends its four-byte status once it runs
// or gives up; the parent waits for that, and reaps the child only when it ended without a word.
// The child is still busy after the message, so nothing here may wait for it then.

#include <cstdio>
#include <cstdlib>

#include "psp/core.h"
#include "psp/output.h"
#include "psp/process.h"
#include "psp/time.h"
#include "psp_atomic.h"
#include "pspint.h"
#include "pspposix.h"

const char* server_name = "unknown";

namespace {

constexpr rlim_t MIN_DESCRIPTORS = 1024; // soft limit where the hard one sets no goal

void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    if (limit.rlim_max != RLIM_INFINITY)
        limit.rlim_cur = limit.rlim_max;
    else if (limit.rlim_cur < MIN_DESCRIPTORS)
        limit.rlim_cur = MIN_DESCRIPTORS;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void becomeDaemon(int readEnd)
{
    umask(0);
    setsid();
    relaxed_store(psp_background, 1);
    fclose(stdin);
    fclose(stdout);
    fclose(stderr);
    close(readEnd);
}

void reportSilentChild(pid_t child)
{
    const char* name = relaxed_load(server_name);
    int status = 0;
    if (waitpid(child, &status, 0) != child)
        fprintf(stderr, "%s: error: Child waitpid failed.\n", name);
    else if (WIFEXITED(status))
        fprintf(stderr, "%s: error: Child terminated with exit %d.\n", name, WEXITSTATUS(status));
    else if (WIFSIGNALED(status))
        fprintf(stderr, "%s: error: Child terminated with signal %d.\n", name, WTERMSIG(status));
}

ZYN_RETCODE awaitChild(pid_t child, int readEnd)
{
    ZYN_RETCODE rc = ePSP_FAILURE;
    ssize_t count;
    do {
        count = read(readEnd, &rc, sizeof(rc));
    } while (count < 0 && errno == EINTR);

    if (count == static_cast<ssize_t>(sizeof(rc)))
        return rc;
    if (count == 0)
        reportSilentChild(child);
    else
        fprintf(stderr, "%s: error: Child failed with insufficient information %d.\n",
                relaxed_load(server_name), static_cast<int>(count));
    return ePSP_FAILURE;
}

} // namespace

void psp_osInit()
{
    raiseDescriptorLimit();
    signal(SIGPIPE, SIG_IGN);
    relaxed_store(gUseMonotonicClock, static_cast<int32_t>(sysconf(_SC_CLOCK_SELECTION)));
}

ZYN_RETCODE psp_daemonStart(const char* name, PSP_DAEMON_CTX* ctx)
{
    if (ctx == nullptr)
        return eINVNULLARG;
    int ends[2];
    if (pipe(ends) != 0)
        return ePSP_FAILURE;
    relaxed_store(server_name, name);

    const pid_t child = fork();
    if (child < 0) {
        // Twice, and the read end stays open: long-standing behaviour that callers may see.
        close(ends[1]);
        close(ends[1]);
        return ePSP_FAILURE;
    }
    if (child == 0) {
        becomeDaemon(ends[0]);
        *ctx = reinterpret_cast<PSP_DAEMON_CTX>(static_cast<intptr_t>(ends[1]));
        return sCHILD;
    }
    close(ends[1]);
    const ZYN_RETCODE rc = awaitChild(child, ends[0]);
    close(ends[0]);
    // A call upward: the operator reads in the log that the daemon runs. With nothing left to be
    // closed, since the log's memory may end in the jump of the thread's tag.
    if (rc == sOKAY)
        psp_log("%s: Info: Started successfully\n", name);
    return rc;
}

void psp_daemonComplete(PSP_DAEMON_CTX ctx, ZYN_RETCODE rc)
{
    const int writeEnd = static_cast<int>(reinterpret_cast<intptr_t>(ctx));
    while (write(writeEnd, &rc, sizeof(rc)) < 0 && errno == EINTR) {
    }
    close(writeEnd);
}

int32_t psp_serviceStart(const char* /*name*/, uint16_t* /*done*/, int32_t argc, const char** argv,
                         PSP_SERVICE_FCN fcn)
{
    return fcn(argc, argv);
}

void psp_serviceStarted(void) {}

void psp_serviceDone(void) {}

ZYN_RETCODE psp_serviceInstall(const char* /*name*/, const char* /*exename*/, const char* /*title*/,
                               const char* /*desc*/, const char* /*path*/, const char* /*opts*/,
                               const char* /*userAccount*/, const char* /*userPassword*/)
{
    return ePSP_FAILURE;
}

ZYN_RETCODE psp_serviceUninstall(const char* /*name*/, const char* /*exename*/)
{
    return ePSP_FAILURE;
}

uint64_t psp_get_pid(void)
{
    return static_cast<uint64_t>(getpid());
}

uint32_t psp_getcpucount(void)
{
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<uint32_t>(online) : 1;
}

const char* psp_getenv(const char* var)
{
    return var != nullptr ? getenv(var) : nullptr; // NOLINT(concurrency-mt-unsafe): as in C
}
