/* A background service with an orderly start and end.
 *
 *     daemon DIR [--fail CODE | --exit STATUS | --kill]
 *
 * The program puts itself into the background, counts heartbeats in DIR/daemon.log and ends on
 * SIGTERM or SIGINT. DIR/daemon.pid holds its process id, and a lock on that file keeps a second
 * instance from starting. The command returns when the service runs, with status 0, or when its
 * start failed, with status 1 and a message. The switches let a start fail in each possible way:
 * with a code that the service reports, by an exit, or by a signal.
 *
 * How it works: psp_daemonStart() splits the process. The parent waits inside it for the code that
 * the child gives to psp_daemonComplete(), so whatever the child still has to set up can fail
 * where the user sees it. The child's worker thread waits for an event, which doubles as its clock;
 * the child's main thread waits for a signal and then sets the event.
 */
#define _POSIX_C_SOURCE 200809L

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "psp.h"

enum { HEARTBEAT_MS = 200, PATH_SIZE = 4096 };

/* What the command line asks for. */
typedef struct options {
    const char* dir;
    enum { START, FAIL, EXIT, KILL } mode;
    int32_t value; /* code or status */
} options;

typedef struct service {
    PSP_FH pidfile;      /* locked as long as the service lives */
    PSP_SEM stop;        /* event: set when the service is to end */
    psp_thread_t worker; /* joined by stop_worker() */
} service;

/* ---- The service's work ---- */

/* The body of the worker thread. Waiting for the event is also the pause between two rounds. */
static ZYN_RETCODE work(void* arg)
{
    const service* self = arg;
    uint32_t beats = 0;
    ZYN_RETCODE rc;
    while ((rc = psp_syncWait(self->stop, HEARTBEAT_MS)) == sTIMEOUT)
        psp_log("heartbeat %u\n", ++beats);
    return rc;
}

static ZYN_RETCODE start_worker(service* self)
{
    self->stop = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
    if (self->stop == PSP_SEM_INVALID)
        return ePSP_FAILURE;
    psp_syncStart(self->stop); /* a new event is set */
    const ZYN_RETCODE rc = psp_threadBegin(work, 0, self, "worker", &self->worker);
    if (rc != sOKAY)
        psp_syncDelete(self->stop);
    return rc;
}

static ZYN_RETCODE stop_worker(service* self)
{
    psp_syncResume(self->stop);
    const ZYN_RETCODE rc = psp_threadJoin(&self->worker);
    psp_syncDelete(self->stop);
    return rc;
}

/* ---- The service's files ---- */

/* The start closed the descriptors 0, 1 and 2. They are filled here, so that none of them becomes
   a file of ours into which something prints. The handles stay open until the process ends. */
static ZYN_RETCODE fill_standard_descriptors(void)
{
    for (int i = 0; i < 3; i++) {
        if (psp_fileOpen("/dev/null", O_RDWR, 0) == NULL)
            return eFILEOPEN;
    }
    return sOKAY;
}

/* Takes the lock first and writes afterwards: the file may belong to a running instance. */
static ZYN_RETCODE take_pidfile(service* self, const char* dir)
{
    char text[32];
    char path[PATH_SIZE];
    psp_snprintf(path, sizeof path, "%s/daemon.pid", dir);
    self->pidfile = psp_fileOpen(path, O_RDWR | O_CREAT | O_CLOEXEC, 0);
    if (self->pidfile == NULL)
        return eFILEOPEN;
    ZYN_RETCODE rc = psp_fileLock(self->pidfile);
    if (rc == sOKAY)
        rc = psp_fileSetSize(self->pidfile, 0);
    if (rc == sOKAY) {
        const int size =
            psp_snprintf(text, sizeof text, "%llu\n", (unsigned long long)psp_get_pid());
        rc = psp_fileWrite(self->pidfile, text, (uint32_t)size) == (uint32_t)size ? sOKAY
                                                                                  : eBADWRITE;
    }
    if (rc != sOKAY)
        psp_fileClose(self->pidfile);
    return rc;
}

/* The file stays, empty: removing it could take away the file that a next instance just locked. */
static void release_pidfile(service* self)
{
    psp_fileSetSize(self->pidfile, 0);
    psp_fileClose(self->pidfile);
}

/* psp_log_createEx() goes on without a log that cannot be opened; a service does not, and tries. */
static ZYN_RETCODE open_log(const char* dir)
{
    char path[PATH_SIZE];
    psp_snprintf(path, sizeof path, "%s/daemon.log", dir);
    PSP_FH probe = psp_fileOpen(path, O_WRONLY | O_CREAT, 0);
    if (probe == NULL)
        return eFILEOPEN;
    psp_fileClose(probe);
    return psp_log_createEx(NULL, dir, "daemon.log");
}

/* ---- The child ---- */

static ZYN_RETCODE start_service(service* self, const char* dir)
{
    umask(022); /* the start set it to 0 */
    ZYN_RETCODE rc = fill_standard_descriptors();
    if (rc == sOKAY)
        rc = psp_dirCreateAll(dir);
    if (rc == sOKAY || rc == sDUPLICATE)
        rc = take_pidfile(self, dir);
    if (rc != sOKAY)
        return rc;
    rc = open_log(dir);
    if (rc == sOKAY)
        rc = start_worker(self);
    if (rc != sOKAY)
        release_pidfile(self);
    return rc;
}

/* What the switches ask for instead of a start. */
static ZYN_RETCODE fail_start(const options* opts)
{
    if (opts->mode == KILL)
        raise(SIGKILL);
    if (opts->mode == EXIT)
        exit(opts->value);
    return opts->value;
}

/* Runs the service until a signal ends it; the exit status. */
static int run_child(const options* opts, PSP_DAEMON_CTX start)
{
    service self;
    sigset_t signals;
    int received = 0;

    /* Blocked before there is a second thread: sigwait() alone takes the signals. */
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, NULL);

    ZYN_RETCODE rc = opts->mode == START ? start_service(&self, opts->dir) : fail_start(opts);
    psp_daemonComplete(start, rc); /* from here on the user's command has returned */
    if (rc != sOKAY)
        return 1;
    psp_log("started\n");
    sigwait(&signals, &received);
    psp_log("signal %d: stopping\n", received);
    rc = stop_worker(&self);
    psp_log("stopped with code %d\n", rc);
    psp_log_closeEx(NULL);
    release_pidfile(&self);
    return rc == sOKAY ? 0 : 1;
}

/* ---- The parent and the command line ---- */

static const char* text_of(ZYN_RETCODE rc)
{
#define ROW(id, value, text)                                                                       \
    case value:                                                                                    \
        return #id ": " text;
    switch (rc) {
        ZYN_RETCODE_LIST(ROW)
    default:
        return "a code of the service's own";
    }
#undef ROW
}

static int run(const options* opts)
{
    PSP_DAEMON_CTX start;
    const ZYN_RETCODE rc = psp_daemonStart("daemon", &start);
    if (rc == sCHILD)
        return run_child(opts, start);
    if (rc == sOKAY)
        return 0;
    psp_log_err("daemon: start failed with code %d (%s)\n", rc, text_of(rc));
    return 1;
}

static ZYN_BOOL_T parse(int argc, char** argv, options* opts)
{
    *opts = (options){.dir = argv[1], .mode = START};
    if (argc == 2)
        return ZYN_TRUE;
    if (argc == 3 && strcmp(argv[2], "--kill") == 0)
        opts->mode = KILL;
    else if (argc == 4 && strcmp(argv[2], "--fail") == 0)
        opts->mode = FAIL;
    else if (argc == 4 && strcmp(argv[2], "--exit") == 0)
        opts->mode = EXIT;
    else
        return ZYN_FALSE;
    if (argc == 4 && psp_atoi32(argv[3], &opts->value) != sOKAY)
        return ZYN_FALSE;
    /* Neither success nor what psp_daemonStart() itself returns in the child is a failure. */
    return opts->mode != FAIL || (opts->value != sOKAY && opts->value != sCHILD);
}

int main(int argc, char** argv)
{
    options opts;
    if (psp_init() != sOKAY)
        return 1;
    int status = 2;
    if (argc >= 2 && parse(argc, argv, &opts))
        status = run(&opts);
    else
        psp_log_err("usage: daemon DIR [--fail CODE | --exit STATUS | --kill]\n");
    psp_term();
    return status;
}
