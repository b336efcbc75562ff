/* A program that leaves its work to a process in the background and learns how that one's start
 * went: the first succeeds, the second cannot create its file. */
#include <fcntl.h>
#include <sys/wait.h>

#include "psp.h"

/* The start closed the descriptors 0, 1 and 2. They are filled here, so that none of them becomes
 * a file of ours into which something prints. */
static ZYN_RETCODE fill_standard_descriptors(void)
{
    for (int i = 0; i < 3; i++)
        if (psp_fileOpen("/dev/null", O_RDWR, 0) == NULL)
            return eFILEOPEN;
    return sOKAY;
}

/* What the child does: everything that may fail comes before its word to the parent. */
static int work(PSP_DAEMON_CTX ctx, const char* path)
{
    const char text[] = "work done in the background\n";
    PSP_FH file = NULL;
    ZYN_RETCODE rc = fill_standard_descriptors();
    if (rc == sOKAY) {
        file = psp_fileOpen(path, O_WRONLY | O_CREAT, 0);
        rc = file == NULL ? eFILEOPEN : sOKAY;
    }
    psp_daemonComplete(ctx, rc);
    if (file != NULL) {
        psp_fileWrite(file, text, sizeof text - 1);
        psp_fileClose(file);
    }
    psp_term();
    return rc == sOKAY ? 0 : 1;
}

static void show_work(const char* path)
{
    char line[80];
    PSP_FILE_STREAM file = psp_fopen(path, "r", PSP_FILE_MODE_UTF8);
    if (file != NULL && psp_fgets(line, sizeof line, file) != NULL)
        psp_printf("%s", line);
    psp_fclose(file);
}

int main(void)
{
    const char* const paths[] = {"work", "no-such-directory/work"};
    ZYN_RETCODE codes[2];
    if (psp_init() != sOKAY)
        return 1;
    for (int i = 0; i < 2; i++) {
        PSP_DAEMON_CTX ctx;
        psp_flush(); /* the child must not inherit what is not written yet */
        codes[i] = psp_daemonStart("worker", &ctx);
        if (codes[i] == sCHILD)
            return work(ctx, paths[i]);
        wait(NULL); /* this program waits for the end, too; most do not */
    }
    show_work(paths[0]);
    psp_fileRemove(paths[0]);
    psp_printf("the second start gave %d\n", codes[1]);
    psp_term();
    return codes[0] == sOKAY && codes[1] == eFILEOPEN ? 0 : 1;
}
