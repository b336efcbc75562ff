/* Three workers count the letters of lines that one reader hands out. A mutex guards the place
 * where the next line lies; one event tells the workers that there is something in it, another one
 * tells the reader that there is not. */
#include <string.h>

#include "psp.h"

static const char* const text[] = {"recursive", "mutexes", "and", "manual-reset", "events"};

static struct {
    PSP_SEM filled;   /* signalled while there is a line, and for good at the end */
    PSP_SEM emptied;  /* signalled while there is none */
    PSP_SEM lock;     /* guards the fields below */
    const char* line; /* the line to be counted, or NULL */
    int ended;        /* no more lines will come */
    size_t letters;   /* counted so far */
} queue;

/* Takes the line if there is one; 0 when no more will come. */
static int take_line(const char** line)
{
    psp_syncEnterExcl(queue.lock);
    *line = queue.line;
    queue.line = NULL;
    const int more = !queue.ended;
    if (more) {
        psp_syncStart(queue.filled);
        psp_syncResume(queue.emptied);
    }
    psp_syncExitExcl(queue.lock);
    return more;
}

static ZYN_RETCODE count(void* arg)
{
    const char* line;
    (void)arg;
    while (psp_syncWait(queue.filled, PSP_SYNC_FOREVER) == sOKAY && take_line(&line)) {
        if (line == NULL)
            continue; /* another worker was faster */
        psp_syncEnterExcl(queue.lock);
        queue.letters += strlen(line);
        psp_syncExitExcl(queue.lock);
    }
    return sOKAY;
}

/* Hands out a line, or the end for NULL, as soon as the one before it is taken. */
static void hand_out(const char* line)
{
    psp_syncWait(queue.emptied, PSP_SYNC_FOREVER);
    psp_syncEnterExcl(queue.lock);
    queue.line = line;
    queue.ended = line == NULL;
    psp_syncStart(queue.emptied);
    psp_syncResume(queue.filled);
    psp_syncExitExcl(queue.lock);
}

int main(void)
{
    psp_thread_t workers[3];
    int started = 0;
    if (psp_init() != sOKAY)
        return 1;
    queue.lock = psp_syncCreate_check(PSP_SEM_MUTEX, __FILE__, __LINE__);
    queue.emptied = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
    queue.filled = psp_syncCreate_check(PSP_SEM_EVENT, __FILE__, __LINE__);
    psp_syncStart(queue.filled); /* a new event is signalled; the other one is right as it is */
    if (psp_syncWait(queue.filled, 10) == sTIMEOUT)
        psp_printf("nothing to do yet\n");
    while (started < 3 && psp_threadBegin(count, 0, NULL, NULL, &workers[started]) == sOKAY)
        started++;
    for (int i = 0; started > 0 && i < 5; i++)
        hand_out(text[i]);
    hand_out(NULL);
    for (int i = 0; i < started; i++)
        psp_threadJoin(&workers[i]);
    psp_printf("%zu letters\n", queue.letters);
    psp_syncDelete(queue.filled);
    psp_syncDelete(queue.emptied);
    psp_syncDelete(queue.lock);
    psp_term();
    return started == 3 && queue.letters == 37 ? 0 : 1;
}
