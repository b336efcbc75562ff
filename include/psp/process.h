/**
 * @file process.h
 * Start as a daemon, entry points of services, and facts about the process.
 */
#ifndef PSP_PROCESS_H
#define PSP_PROCESS_H

#include "psptypes.h"

PSP_BEGIN_DECLS

/**
 * @addtogroup process
 * @{
 */

/**
 * Name of the daemon in messages: "unknown" until psp_daemonStart() stores its `name` here.
 * @threads{any may read it} @before{as psp_daemonStart() left it}
 */
extern PSP_API const char* server_name;

/** The way back from a daemon's child process to its waiting parent, made by psp_daemonStart() and
    ended by psp_daemonComplete(). */
typedef struct PSP_DAEMON_CTX_S* PSP_DAEMON_CTX;

/**
 * The body of a service; arguments and result are those of `main`.
 * @param argc number of arguments
 * @param argv the arguments
 * @return the exit status of the service
 * @threads{runs in the thread of psp_serviceStart()} @jumps{it may}
 */
typedef int32_t (*PSP_SERVICE_FCN)(int32_t argc, const char** argv);

/**
 * Splits the process in two: a child that becomes the daemon and a parent that waits until the
 * child tells how its start went. Returns once in each.
 *
 * The child leads a new session without a terminal, has the file-creation mask 0 and no standard
 * streams, and logs to the log file only (::psp_background). It must call psp_daemonComplete() once
 * it runs or cannot run. The parent goes on by itself; most callers end it with the result.
 *
 * @param name the daemon's name in messages; kept in ::server_name; not NULL
 * @param ctx  in the child receives the handle for psp_daemonComplete(); untouched in the parent
 * @return one of these codes or, in the parent, what the child passed to psp_daemonComplete()
 * @retval sCHILD       this is the child
 * @retval sOKAY        this is the parent, and the daemon runs; a line in the log says so
 * @retval ePSP_FAILURE this is the parent, and there is no child (no message), or it ended or
 *                      closed the way back without a code (with a message on the C library's
 *                      standard error)
 * @retval eINVNULLARG  `ctx` is NULL; nothing was done
 * @threads{at the start of a process: of its threads only the caller lives on in the child}
 * @before{works; the line goes to the C library's standard output}
 * @jumps{by the thread's tag, in the parent, for the line in the log}
 * @owner{`name` is not copied and must stay valid; the child ends `*ctx` with
 * psp_daemonComplete()}
 */
PSP_API ZYN_RETCODE psp_daemonStart(const char* name, PSP_DAEMON_CTX* ctx);

/**
 * Tells the waiting parent how the daemon's start went. To be called once, by the child.
 * @param ctx what psp_daemonStart() stored; invalid afterwards
 * @param rc  `sOKAY` when the daemon runs, otherwise the reason why not; not `sCHILD`, which the
 *            parent would take for its own result in the child
 * @threads{any one} @before{works} @jumps{never} @owner{ends `ctx`}
 */
PSP_API void psp_daemonComplete(PSP_DAEMON_CTX ctx, ZYN_RETCODE rc);

/**
 * Runs a service in the calling process, in the foreground.
 * @param name not used; may be NULL
 * @param done not used; may be NULL
 * @param argc argument of `fcn`
 * @param argv argument of `fcn`
 * @param fcn  the service's body; not NULL
 * @return what `fcn` returned
 * @threads{any} @before{works} @jumps{only through `fcn`} @owner{nothing}
 */
PSP_API int32_t psp_serviceStart(const char* name, uint16_t* done, int32_t argc, const char** argv,
                                 PSP_SERVICE_FCN fcn);

/**
 * Says that the service runs: nothing needs to be done for it on this platform.
 * @threads{any} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_serviceStarted(void);

/**
 * Says that the service has ended: nothing needs to be done for it on this platform.
 * @threads{any} @before{does nothing} @jumps{never} @owner{nothing}
 */
PSP_API void psp_serviceDone(void);

/**
 * Installs a service, which this platform does not offer. No argument is looked at.
 * @param name         name of the service; may be NULL, as all the others
 * @param exename      its program
 * @param title        title shown to people
 * @param desc         description shown to people
 * @param path         directory of the program
 * @param opts         options of the program
 * @param userAccount  account that it runs under
 * @param userPassword password of the account
 * @retval sOKAY        never
 * @retval ePSP_FAILURE always
 * @threads{any} @before{`ePSP_FAILURE`} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_serviceInstall(const char* name, const char* exename, const char* title,
                                       const char* desc, const char* path, const char* opts,
                                       const char* userAccount, const char* userPassword);

/**
 * Removes a service, which this platform does not offer. No argument is looked at.
 * @param name    name of the service; may be NULL
 * @param exename its program; may be NULL
 * @retval sOKAY        never
 * @retval ePSP_FAILURE always
 * @threads{any} @before{`ePSP_FAILURE`} @jumps{never} @owner{nothing}
 */
PSP_API ZYN_RETCODE psp_serviceUninstall(const char* name, const char* exename);

/**
 * Tells which process this is.
 * @return the id of the calling process
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint64_t psp_get_pid(void);

/**
 * Counts the processors.
 * @return the number of processors online, at least 1
 * @threads{any} @before{works} @jumps{never} @owner{nothing}
 */
PSP_API uint32_t psp_getcpucount(void);

/**
 * Looks up a variable of the environment.
 * @param var its name
 * @return its value; NULL when there is no such variable or `var` is NULL
 * @threads{any, while no thread changes the environment} @before{works} @jumps{never}
 * @owner{the value belongs to the environment: not to be freed or changed, and valid until the
 * environment changes}
 */
PSP_API const char* psp_getenv(const char* var);

/** @} */

PSP_END_DECLS

#endif
