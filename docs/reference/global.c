/* Counts the requests of a service, wherever they are counted: the first caller makes the record,
 * the stop of the library prints it. */
#include <stdio.h>

#include "psp.h"

typedef struct {
    PSP_SEM lock;
    uint32_t requests;
    uint32_t bytes;
} statistics;

static ZYN_RETCODE create(void* data)
{
    statistics* stats = data; /* all zeros */
    stats->lock = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    return stats->lock == PSP_SEM_INVALID ? ePSP_MUTEX_FAILURE : sOKAY;
}

/* The output of the library has ended when this runs: what it has to say goes through the C
 * library. */
static void report(void* data)
{
    const statistics* stats = data;
    printf("%u requests, %u bytes\n", stats->requests, stats->bytes);
    psp_syncDelete(stats->lock);
}

/* Nobody needs to make the record first, or to know who did. */
static ZYN_RETCODE count_request(uint32_t bytes)
{
    void* data;
    const ZYN_RETCODE rc =
        psp_globalGet("service/statistics", sizeof(statistics), create, report, &data);
    if (rc != sOKAY)
        return rc;
    statistics* stats = data;
    psp_syncEnterExcl(stats->lock);
    stats->requests++;
    stats->bytes += bytes;
    psp_syncExitExcl(stats->lock);
    return sOKAY;
}

static ZYN_RETCODE serve(void* arg)
{
    const uint32_t* bytes = arg;
    ZYN_RETCODE rc = sOKAY;
    for (int i = 0; i < 100 && rc == sOKAY; i++)
        rc = count_request(*bytes);
    return rc;
}

int main(void)
{
    uint32_t bytes[3] = {10, 20, 30};
    psp_thread_t threads[3];
    int started = 0;
    if (psp_init() != sOKAY)
        return 1;
    while (started < 3 &&
           psp_threadBegin(serve, 0, &bytes[started], NULL, &threads[started]) == sOKAY)
        started++;
    int failures = 3 - started;
    for (int i = 0; i < started; i++)
        failures += psp_threadJoin(&threads[i]) != sOKAY;
    psp_term(); /* calls report() */
    return failures;
}
